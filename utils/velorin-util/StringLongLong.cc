// Integers of 64 bits as text. See velorin/String.
#include "velorin/String"

#include "String_digits.h"

namespace {

using velorin::internal::decimalText;
using velorin::internal::magnitude;
using velorin::internal::prefixedText;
using velorin::internal::signedText;

// Kept: any single digit goes without a prefix here, a letter too (10 in radix 16 is A), unlike in
// the forms of String.cc; readers of either form know what they get.
[[gnu::always_inline]] inline std::string textWithPrefix(bool negative, uint64_t v, int radix,
                                                         int mindigits) {
  return prefixedText(negative, v, radix, mindigits, 15u);
}

}  // namespace

std::string Str(unsigned long long v, int radix, int mindigits) {
  return textWithPrefix(false, v, radix, mindigits);
}

std::string Str(long long v, int radix, int mindigits) {
  return textWithPrefix(v < 0, magnitude(v), radix, mindigits);
}

std::string Dec(unsigned long long v) {
  return decimalText(false, uint64_t{v});
}

std::string Dec(long long v) {
  return decimalText(v < 0, magnitude(v));
}

std::string Signed(long long v, int radix, int mindigits) {
  return signedText(v < 0, magnitude(v), radix, mindigits);
}
