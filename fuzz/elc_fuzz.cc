// Files of typed settings: any bytes give the values, marks and message of a second parser, which
// follows the format's description by other means. No file is touched.
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz.h"
#include "velorin/elc"

namespace {

std::string contents;

}  // namespace

// Comes before the system library's.
extern "C" __attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
  static const auto real =
      reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
  if (strcmp(path, "/local/local1/elc/fuzz.elc") != 0) return real(path, mode);
  // An empty file cannot be opened in memory; white space is as good.
  if (contents.empty()) contents = "\n";
  return fmemopen(contents.data(), contents.size(), "r");
}

namespace {

struct Value {
  bool set = false;
  uint32_t number = 0;  // of booleans too
  std::string text;
};

struct Outcome {
  std::string message;
  std::vector<Value> values;
};

struct Setting {
  const char* name;
  unsigned type;  // 9 is none
};
constexpr Setting kSettings[] = {{"b", ELC_BOOL},       {"i", ELC_INT}, {"s", ELC_STR},
                                 {"u", ELC_UINT},       {"none", 9},    {"i", ELC_STR},
                                 {"long_name", ELC_INT}};
constexpr unsigned kCount = sizeof kSettings / sizeof *kSettings;
constexpr char kBlanks[] = " \t\n";

std::string lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  return text;
}

int digitOf(char c) {
  const std::string digits = "0123456789abcdef";
  const size_t at = digits.find(lower(std::string(1, c)));
  return c == '\0' || at == std::string::npos ? 99 : static_cast<int>(at);
}

// A number in base 0 at `at`, which is moved to its end; saturates to 32 bits.
uint32_t number(const std::string& text, size_t* at) {
  size_t p = *at;
  while (p < text.size() && strchr(" \t\n\v\f\r", text[p]) != nullptr) ++p;
  const bool negative = p < text.size() && text[p] == '-';
  if (p < text.size() && (text[p] == '-' || text[p] == '+')) ++p;
  int base = 10;
  if (p < text.size() && text[p] == '0') {
    const bool hexadecimal = p + 2 < text.size() && (text[p + 1] == 'x' || text[p + 1] == 'X') &&
                             digitOf(text[p + 2]) < 16;
    base = hexadecimal ? 16 : 8;
    if (hexadecimal) p += 2;
  }
  if (p >= text.size() || digitOf(text[p]) >= base) return 0;  // nothing is taken
  uint64_t value = 0;
  for (; p < text.size() && digitOf(text[p]) < base; ++p) {
    if (value <= UINT32_MAX)
      value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digitOf(text[p]));
  }
  *at = p;
  if (value > UINT32_MAX) return UINT32_MAX;
  return static_cast<uint32_t>(negative ? 0 - value : value);
}

class Parser {
 public:
  Outcome parse(const std::string& bytes) {
    outcome_.values.resize(kCount);
    size_t at = 0;
    for (line_ = 1; at < bytes.size() && outcome_.message.empty(); ++line_) {
      const size_t newline = bytes.find('\n', at);
      const size_t line_end = newline == std::string::npos ? bytes.size() : newline + 1;
      const size_t end = std::min(line_end, at + 127);
      piece(bytes.substr(at, end - at).c_str());  // up to its first zero byte
      at = end;
    }
    return outcome_;
  }

 private:
  void fail(size_t column, const char* what) {
    outcome_.message = "/local/local1/elc/fuzz.elc:" + std::to_string(line_) + ":" +
                       std::to_string(column + 1) + ": " + what;
  }

  void piece(const std::string& text) {
    const size_t name = text.find_first_not_of(kBlanks);
    if (name == std::string::npos || text[name] == '#') return;
    const size_t end = text.find_first_of(kBlanks, name);
    if (end == std::string::npos) return fail(text.size(), "Missing value");
    unsigned i = 0;
    while (i < kCount && text.substr(name, end - name) != kSettings[i].name) ++i;
    if (i == kCount) return fail(name, "Unknown ELC name");
    const size_t value = std::min(text.find_first_not_of(kBlanks, end), text.size());
    const size_t word = std::min(text.find_first_of(kBlanks, value), text.size());
    switch (kSettings[i].type) {
      case ELC_BOOL:
        return truth(text, value, word, &outcome_.values[i]);
      case ELC_INT:
      case ELC_UINT:
        return integer(text, value, &outcome_.values[i]);
      case ELC_STR:
        return words(text, value, word, &outcome_.values[i]);
    }
  }

  void truth(const std::string& text, size_t begin, size_t end, Value* to) {
    const std::string word = lower(text.substr(begin, end - begin));
    const bool yes = word == "true" || word == "yes" || word == "1";
    if (!yes && word != "false" && word != "no" && word != "0")
      return fail(begin, "Invalid boolean");
    to->set = true;
    to->number = yes;
  }

  void integer(const std::string& text, size_t begin, Value* to) {
    size_t end = begin;
    const uint32_t value = number(text, &end);
    if (end < text.size() && strchr(kBlanks, text[end]) == nullptr)
      return fail(end, "Invalid number");
    to->set = true;
    to->number = value;
  }

  void words(const std::string& text, size_t begin, size_t end, Value* to) {
    if (begin < text.size() && text[begin] == '"') {
      end = text.rfind('"');
      if (end == begin) return fail(text.size(), "Missing '\"'");
      ++begin;
    }
    to->set = true;
    to->text = text.substr(begin, end - begin);
  }

  Outcome outcome_;
  unsigned line_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  contents.assign(reinterpret_cast<const char*>(data), size);
  const Outcome expected = Parser().parse(contents);

  elc_entry table[kCount] = {};
  for (unsigned i = 0; i < kCount; ++i) {
    table[i].type = static_cast<elc_type>(kSettings[i].type);
    table[i].name = kSettings[i].name;
  }
  const char* const message = _elc_init("fuzz", table, kCount);
  REQUIRE((message != nullptr ? message : "") == expected.message);
  for (unsigned i = 0; i < kCount; ++i) {
    const Value& value = expected.values[i];
    REQUIRE(table[i].is_set == value.set);
    REQUIRE(table[i].type == kSettings[i].type);
    switch (kSettings[i].type) {
      case ELC_BOOL:
        REQUIRE(table[i].value.BOOL_type == (value.number != 0));
        break;
      case ELC_INT:
        REQUIRE(table[i].value.INT_type == static_cast<int32_t>(value.number));
        break;
      case ELC_UINT:
        REQUIRE(table[i].value.UINT_type == value.number);
        break;
      case ELC_STR:
        if (value.set) REQUIRE(value.text == table[i].value.STR_type);
        free(table[i].value.STR_type);
    }
  }
  return 0;
}

// Asked for by the leak checker: texts that later lines replace are lost by design.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:_elc_init";
}
