// Text that does nothing to a terminal. See escape.h.
#include "escape.h"

#include <stdint.h>

#include <algorithm>
#include <array>

namespace {

// LCOV_EXCL_START: only the compiler runs this
constexpr std::array<bool, 256> plainBytes() {
  std::array<bool, 256> plain = {};
  for (size_t byte = 0x20; byte < 0x7f; ++byte) plain[byte] = true;
  plain['\t'] = true;
  return plain;
}
// LCOV_EXCL_STOP
constexpr std::array<bool, 256> kPlain = plainBytes();

struct Range {
  uint32_t first;
  uint32_t last;
};
constexpr Range kUnwanted[] = {
    {0x80, 0x9f},      // control characters
    {0x61c, 0x61c},    // direction
    {0x200e, 0x200f},  // direction
    {0x2028, 0x202e},  // line and paragraph ends, direction
    {0x2066, 0x2069},  // direction
    {0xd800, 0xdfff},  // no characters
};

// A sequence of UTF-8 by its first byte: how many bytes, and the least number that needs so many.
struct Form {
  unsigned char mask;
  unsigned char lead;
  size_t size;
  uint32_t least;
};
constexpr Form kForms[] = {{0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};
constexpr uint32_t kLastCharacter = 0x10ffff;

unsigned char byteAt(std::string_view text, size_t at) {
  return static_cast<unsigned char>(text[at]);
}

bool isWanted(uint32_t character) {
  return std::none_of(std::begin(kUnwanted), std::end(kUnwanted), [=](const Range& range) {
    return character >= range.first && character <= range.last;
  });
}

// The size of the character that `text` begins with; 0 when it is to be escaped. Not for ASCII.
size_t characterSize(std::string_view text) {
  for (const Form& form : kForms) {
    const unsigned char first = byteAt(text, 0);
    if ((first & form.mask) != form.lead) continue;
    if (text.size() < form.size) return 0;
    uint32_t character = first & static_cast<unsigned char>(~form.mask);
    for (size_t i = 1; i < form.size; ++i) {
      if ((byteAt(text, i) & 0xc0) != 0x80) return 0;
      character = character << 6 | (byteAt(text, i) & 0x3f);
    }
    const bool valid = character >= form.least && character <= kLastCharacter;
    return valid && isWanted(character) ? form.size : 0;
  }
  return 0;
}

void appendByte(std::string* to, unsigned char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  const char escape[] = {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
  to->append(escape, sizeof escape);
}

}  // namespace

void appendEscaped(std::string* to, std::string_view text, Charset charset) {
  while (!text.empty()) {
    size_t plain = 0;
    while (plain < text.size() && kPlain[byteAt(text, plain)]) ++plain;
    to->append(text.data(), plain);
    text.remove_prefix(plain);
    if (text.empty()) return;
    const size_t size = charset == Charset::kUtf8 ? characterSize(text) : 0;
    if (size > 0) {
      to->append(text.data(), size);
    } else {
      appendByte(to, byteAt(text, 0));
    }
    text.remove_prefix(std::max<size_t>(size, 1));
  }
}

std::string escaped(std::string_view text) {
  std::string result;
  appendEscaped(&result, text, Charset::kAscii);
  return result;
}
