// Text as people see it. See text.h.
#include "text.h"

#include <stdio.h>

namespace {

void append_visible(std::string* to, char c) {
  const auto byte = static_cast<unsigned char>(c);
  if (c == '\\') {
    *to += "\\\\";
  } else if (c == '\n') {
    *to += "\\n";
  } else if (c == '\t') {
    *to += "\\t";
  } else if (byte >= 0x20 && byte < 0x7f) {
    *to += c;
  } else {
    *to += "\\x" + hex_bytes({&c, 1});
  }
}

}  // namespace

std::string visible(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) append_visible(&text, c);
  return text;
}

std::string visible_lines(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    if (c == '\n') {
      text += c;
    } else {
      append_visible(&text, c);
    }
  }
  if (!text.empty() && text.back() != '\n') text += '\n';
  return text;
}

std::string_view base_name(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

std::string hex_number(uint64_t value) {
  char text[sizeof "0x" + 16];
  (void)snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string hex_bytes(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string time_text(time_t time) {
  tm local;
  if (localtime_r(&time, &local) == nullptr) return "at an unknown time";
  char text[64];
  const size_t len = strftime(text, sizeof text, "%F %T", &local);
  return {text, len};
}
