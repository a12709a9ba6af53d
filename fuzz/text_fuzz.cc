// plain: its texts can be printed, and undoing the escapes gives the bytes again. The other helpers
// for strings agree with their plainest forms.
#include <algorithm>
#include <string>

#include "fuzz.h"
#include "velorin/String"

namespace {

bool isHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

unsigned hex(char c) {
  return static_cast<unsigned>(c <= '9' ? c - '0' : c - 'A' + 10);
}

bool isAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// What a reader of plain's texts does: a "%" before a letter or digit is an escape.
std::string undone(const std::string& text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    REQUIRE(text[i] >= ' ' && text[i] <= '~');
    if (text[i] == '%' && i + 1 < text.size() && isAlphanumeric(text[i + 1])) {
      REQUIRE(i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2]));
      bytes += static_cast<char>(hex(text[i + 1]) << 4 | hex(text[i + 2]));
      i += 2;
    } else {
      bytes += text[i];
    }
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  REQUIRE(undone(plain(bytes)) == bytes);

  const std::string lower = toLower(bytes);
  REQUIRE(lower.size() == size);
  for (size_t i = 0; i < size; ++i) {
    const bool capital = bytes[i] >= 'A' && bytes[i] <= 'Z';
    REQUIRE(lower[i] == (capital ? static_cast<char>(bytes[i] - 'A' + 'a') : bytes[i]));
  }

  const std::string stripped = UrlStripScheme(bytes);
  const std::string head = bytes.substr(0, size - stripped.size());
  REQUIRE(head + stripped == bytes);
  REQUIRE(head.empty() ? bytes.find("://") == std::string::npos
                       : head.find("://") == head.size() - 3);
  return 0;
}
