// Integers of up to 32 bits, and long, as text; characters, spans and times as text. See
// velorin/String.
#include "velorin/String"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

#include "String_digits.h"
#include "String_printable.h"
#include "internal/target.h"

namespace {

using velorin::internal::decimalText;
using velorin::internal::isPrintable;
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

// Returns: the letter that stands for `c` behind a backslash; 0 for none.
// Kept: neither backspace nor the quotes have one; readers know the octal form of the first.
char escapeLetter(char c) {
  switch (c) {
    case '\a':
      return 'a';
    case '\t':
      return 't';
    case '\n':
      return 'n';
    case '\v':
      return 'v';
    case '\f':
      return 'f';
    case '\r':
      return 'r';
    case '\\':
      return '\\';
    default:
      return '\0';
  }
}

// Returns: the date and the time of day; empty for none.
std::string timeText(const tm* t) {
  if (t == nullptr) return "";
  char text[128];
  const int length =
      snprintf(text, sizeof text, "%04lld-%02d-%02d %02d:%02d:%02d", t->tm_year + 1900LL,
               t->tm_mon + 1, t->tm_mday, t->tm_hour, t->tm_min, t->tm_sec);
  return std::string(text, static_cast<size_t>(length));
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

std::string Str(char v) {
  if (const char letter = escapeLetter(v)) return std::string("'\\") + letter + "'";
  // Kept: the single quote is not escaped.
  if (isPrintable(v)) return {'\'', v, '\''};
  // Kept: the code is the signed character's in 32 bits, on both targets.
  const auto code = static_cast<uint32_t>(static_cast<signed char>(v));
  return "'\\" + Str(code, -8, 1) + "'";
}

std::string toLower(const std::string& s) {
  std::string lower = s;
  // Kept: as a signed char 0xFF is EOF, which has no small letter in any locale.
  for (char& c : lower)
    if (c != '\xFF') c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return lower;
}

std::string UrlStripScheme(const std::string& url) {
  static constexpr char kSeparator[] = "://";
  // Kept: wherever it stands first, be it in a query.
  const size_t at = url.find(kSeparator);
  return at == std::string::npos ? url : url.substr(at + strlen(kSeparator));
}

std::string VelorinHome() {
  const char* const home = getenv("VELORIN_HOME");
  // Kept: an empty text is a folder too.
  return home != nullptr ? home : "/sw/velorin";
}

// Kept: a unit is in the plural for every count, and counts of 0 are written.
std::string TimeSpanStr(int t) {
  const int days = t / 86400, hours = t % 86400 / 3600, minutes = t % 3600 / 60, seconds = t % 60;
  char text[100];
  if (t < 60)
    (void)snprintf(text, sizeof text, "%d seconds", t);
  else if (t < 3600)
    (void)snprintf(text, sizeof text, "%d minutes and %d seconds", minutes, seconds);
  else if (t < 86400)
    (void)snprintf(text, sizeof text, "%d hours, %d minutes and %d seconds", hours, minutes,
                   seconds);
  else
    (void)snprintf(text, sizeof text, "%d days, %d hours, %d minutes and %d seconds", days, hours,
                   minutes, seconds);
  return text;
}

std::string GMTTimeStr(time_t t) {
  tm broken_down;
  return timeText(gmtime_r(&t, &broken_down));
}

std::string LocalTimeStr(time_t t) {
  tzset();  // localtime_r alone need not notice that TZ has changed
  tm broken_down;
  return timeText(localtime_r(&t, &broken_down));
}
