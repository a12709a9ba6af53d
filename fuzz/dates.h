// What the fuzz targets for dates share: a reader of fields that takes the longest way.
#ifndef VELORIN_FUZZ_dates_
#define VELORIN_FUZZ_dates_

#include <string.h>
#include <strings.h>
#include <time.h>

#include <memory>
#include <string>

#include "fuzz.h"

namespace dates {

constexpr time_t kLast = 2147471999;  // 2038-01-18 23:59:59

// A text in memory that ends where it does, so that a sanitizer sees what reads on.
class Exact {
 public:
  explicit Exact(const std::string& text) : bytes_(new char[text.size() + 1]) {
    memcpy(bytes_.get(), text.c_str(), text.size() + 1);
  }
  char* get() const { return bytes_.get(); }

 private:
  std::unique_ptr<char[]> bytes_;
};

inline int number(const std::string& text, size_t at) {
  const int second = static_cast<signed char>(text[at + 1]) - '0';
  if (text[at] < '0' || text[at] > '9') return second;
  return (text[at] - '0') * 10 + second;
}

inline int month(const std::string& text, size_t at) {
  static const char* const names[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                      "jul", "aug", "sep", "oct", "nov", "dec"};
  for (int i = 0; i < 12; ++i)
    if (strncasecmp(text.c_str() + at, names[i], 3) == 0) return i;
  return -1;
}

// The time whose fields stand at these places, by the system's calendar; `invalid` for none.
inline time_t time(const std::string& text, size_t day, size_t mon, int year, size_t clock,
                   time_t invalid) {
  tm t = {};
  t.tm_year = year - 1900;
  t.tm_mon = month(text, mon);
  t.tm_mday = number(text, day);
  t.tm_hour = number(text, clock);
  t.tm_min = number(text, clock + 3);
  t.tm_sec = number(text, clock + 6);
  if (t.tm_sec < 0 || t.tm_sec > 59 || t.tm_min < 0 || t.tm_min > 59) return invalid;
  if (t.tm_hour < 0 || t.tm_hour > 23 || t.tm_mday < 1 || t.tm_mday > 31) return invalid;
  if (t.tm_mon < 0 || year < 1970 || year > 2038) return invalid;
  if (year == 2038 && (t.tm_mon > 0 || t.tm_mday > 18)) return invalid;
  return timegm(&t);
}

inline int yearOfFour(const std::string& text, size_t at) {
  return number(text, at) * 100 + number(text, at + 2);
}

}  // namespace dates

#endif  // VELORIN_FUZZ_dates_
