// Real numbers in fixed notation. See velorin/String.
#include <fenv.h>
#include <langinfo.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <charconv>

#include "String_finite.h"
#include "velorin/String"

#include "internal/always_assert.h"

namespace {

constexpr int kPrintfDecimals = 6;  // what printf writes for a negative precision

// Returns: whether printf rounds to the nearest and writes ".", as to_chars, which is faster,
// always does.
bool printfIsPlain() {
  const char* const point = nl_langinfo(RADIXCHAR);
  return point[0] == '.' && point[1] == '\0' && fegetround() == FE_TONEAREST;
}

// Writes `v` as printf does for "%.*f", without a final zero.
// Returns: the length of the text; `room` or more when it does not fit.
size_t writeFixed(char* text, size_t room, double v, int decimals) {
  // Too many alone; printf would work them out, for a minute and wrongly near 2^31.
  if (decimals >= static_cast<int>(room)) return room;
  if (!printfIsPlain()) return static_cast<size_t>(snprintf(text, room, "%.*f", decimals, v));
  const auto [end, error] = std::to_chars(text, text + room - 1, v, std::chars_format::fixed,
                                          decimals < 0 ? kPrintfDecimals : decimals);
  return error == std::errc() ? static_cast<size_t>(end - text) : room;
}

}  // namespace

std::string Flt(double v, int ndigits) {
  if (const char* const word = velorin::internal::nonFiniteWord(v)) return word;

  char buf[100];
  const size_t length = writeFixed(buf, sizeof buf, v, ndigits);
  assert(length < sizeof buf);

  char* begin = buf;
  char* end = buf + length;
  // Kept: where the locale has another decimal point, printf's text stays whole.
  if (memchr(buf, '.', length) != nullptr) {
    while (end[-1] == '0') --end;
    if (end[-1] == '.') --end;
  }
  // Kept: a 0 that stands alone before the point is dropped, .5 and -.25.
  const ptrdiff_t sign = *begin == '-' ? 1 : 0;
  if (end - begin > sign + 1 && begin[sign] == '0' && begin[sign + 1] == '.') {
    begin[sign] = *begin;  // the sign, if there is one, moves up
    ++begin;
  }
  return std::string(begin, end);
}
