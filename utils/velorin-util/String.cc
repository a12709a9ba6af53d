// Integers of up to 32 bits, and long, as text. See velorin/String.
#include "velorin/String"

#include "String_digits.h"

namespace {

using velorin::internal::decimalText;
using velorin::internal::Magnitude;
using velorin::internal::magnitude;
using velorin::internal::prefixedText;
using velorin::internal::signedText;

// Kept: only 0 to 9 go without a prefix here, while the long long forms leave it off letters too;
// readers of either form know what they get.
template <class UInt>
[[gnu::always_inline]] inline std::string textWithPrefix(bool negative, UInt v, int radix,
                                                         int mindigits) {
  return prefixedText(negative, v, radix, mindigits, 9u);
}

}  // namespace

// The int and the long forms are the same code where long is as wide as int. Folded into one, half
// of them would call the other half, at the cost that the inlining avoids; hence no_icf.

std::string Str(unsigned long v, int radix, int mindigits) {
  return textWithPrefix(false, Magnitude<unsigned long>{v}, radix, mindigits);
}

[[gnu::no_icf]] std::string Str(unsigned int v, int radix, int mindigits) {
  return textWithPrefix(false, v, radix, mindigits);
}

std::string Str(unsigned short v, int radix, int mindigits) {
  return Str(unsigned{v}, radix, mindigits);
}

std::string Str(unsigned char v, int radix, int mindigits) {
  return Str(unsigned{v}, radix, mindigits);
}

std::string Str(long v, int radix, int mindigits) {
  return textWithPrefix(v < 0, magnitude(v), radix, mindigits);
}

[[gnu::no_icf]] std::string Str(int v, int radix, int mindigits) {
  return textWithPrefix(v < 0, magnitude(v), radix, mindigits);
}

std::string Str(short v, int radix, int mindigits) {
  return Str(int{v}, radix, mindigits);
}

std::string Str(signed char v, int radix, int mindigits) {
  return Str(int{v}, radix, mindigits);
}

std::string Str(bool v) {
  return v ? "1" : "0";
}

std::string Dec(unsigned long v) {
  return decimalText(false, Magnitude<unsigned long>{v});
}

[[gnu::no_icf]] std::string Dec(unsigned int v) {
  return decimalText(false, v);
}

std::string Dec(unsigned short v) {
  return Dec(unsigned{v});
}

std::string Dec(unsigned char v) {
  return Dec(unsigned{v});
}

std::string Dec(long v) {
  return decimalText(v < 0, magnitude(v));
}

[[gnu::no_icf]] std::string Dec(int v) {
  return decimalText(v < 0, magnitude(v));
}

std::string Dec(short v) {
  return Dec(int{v});
}

std::string Dec(signed char v) {
  return Dec(int{v});
}

// Kept: a plain char is a signed number, so the byte 0xFF is -1, whatever the compiler's choice.
std::string Dec(char v) {
  return Dec(static_cast<signed char>(v));
}

std::string Signed(long v, int radix, int mindigits) {
  return signedText(v < 0, magnitude(v), radix, mindigits);
}
