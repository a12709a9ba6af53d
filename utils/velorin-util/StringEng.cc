// Real numbers in engineering notation. See velorin/String.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <charconv>

#include "String_finite.h"
#include "velorin/String"

namespace {

constexpr int kMostDigits = 15;  // all that a double keeps of any decimal number
constexpr size_t kMostBefore = 3;

// What ecvt_r may write: the digits, one more where rounding carries (999.9 with three digits is
// "1000"), a point while it works, and the final zero.
constexpr size_t kDigitsRoom = 20;

// The digits are copied by stores of fixed sizes, which are faster than by their count; what they
// copy too much is written over or left out.
constexpr size_t kCopyBefore = 4;
constexpr size_t kCopyBehind = 16;

constexpr size_t kExponentRoom = 5;  // "e-324"

// Writes an exponent other than 0. Returns: its end.
char* writeExponent(char* p, int exponent) {
  *p++ = 'e';
  return std::to_chars(p, p + kExponentRoom - 1, exponent).ptr;
}

}  // namespace

std::string Eng(double v, int ndigits) {
  if (const char* const word = velorin::internal::nonFiniteWord(v)) return word;

  char digits[kMostBefore + kCopyBehind + kDigitsRoom] = {};
  int decpt = 0;
  int negative = 0;
  // Kept: rounded as the platform's ecvt rounds. It scales in x87 precision on x86 and not on
  // x86-64, so the last digit may differ between the targets; programs compare with ecvt's own.
  (void)ecvt_r(v, std::clamp(ndigits, 1, kMostDigits), &decpt, &negative, digits, kDigitsRoom);
  size_t end = strlen(digits);
  memset(digits + end, '0', kMostBefore);  // what may be missing before the point

  // One to three digits stand before the point, as many as leave a multiple of three.
  const int remainder = (decpt - 1) % 3;
  const size_t before = static_cast<size_t>(remainder < 0 ? remainder + 3 : remainder) + 1;
  const int exponent = decpt - static_cast<int>(before);
  while (end > before && digits[end - 1] == '0') --end;

  char text[1 + kMostBefore + 1 + kCopyBehind + kExponentRoom];
  char* p = text;
  *p = '-';
  if (negative != 0) ++p;
  memcpy(p, digits, kCopyBefore);
  p += before;
  if (end > before) {
    *p = '.';
    memcpy(p + 1, digits + before, kCopyBehind);
    p += 1 + end - before;
  }
  if (exponent != 0) p = writeExponent(p, exponent);
  return std::string(text, p);
}
