// HTTP dates, written and read, and the date command's. See velorin/time_str.
#include "velorin/time_str"

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>

#include "internal/target.h"

constexpr const char* const wkdays[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

constexpr const char* const month_names[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

namespace {

constexpr int32_t kDaySeconds = 86400;

// ---- Writing ----

// The pieces of a date's text, in sizes that one store writes. What a weekday has too much is
// written over by the day.
constexpr char kWeekdayTexts[] = "Sun,    Mon,    Tue,    Wed,    Thu,    Fri,    Sat,    ";
constexpr char kMonthTexts[] = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec ";

// LCOV_EXCL_START: only the compiler runs this
constexpr bool textsAreTheNames() {
  for (int i = 0; i < 7; ++i)
    if (std::string_view(kWeekdayTexts + 8 * i, 3) != wkdays[i]) return false;
  for (int i = 0; i < 12; ++i)
    if (std::string_view(kMonthTexts + 4 * i, 3) != month_names[i]) return false;
  return true;
}
// LCOV_EXCL_STOP
static_assert(textsAreTheNames(), "dates are written with the exported names");

struct Pairs {
  char text[100][2] = {};

  // LCOV_EXCL_START: only the compiler runs this
  constexpr Pairs() {
    for (int v = 0; v < 100; ++v) {
      text[v][0] = static_cast<char>('0' + v / 10);
      text[v][1] = static_cast<char>('0' + v % 10);
    }
  }
  // LCOV_EXCL_STOP
};
constexpr Pairs kPairs;

// Writes 0 to 99 as two digits.
void writePair(char* p, uint32_t v) {
  memcpy(p, kPairs.text[v], 2);
}

// Writes "Sun, 06 Nov ". Returns: its end.
char* writeDay(char* p, uint32_t weekday, uint32_t day, uint32_t month) {
  memcpy(p, kWeekdayTexts + 8 * weekday, 8);
  writePair(p + 5, day);
  memcpy(p + 8, kMonthTexts + 4 * month, 4);
  return p + 12;
}

// Writes 0 to 9999 as four digits. Returns: their end.
char* writeYear(char* p, uint32_t year) {
  writePair(p, year / 100);
  writePair(p + 2, year % 100);
  return p + 4;
}

// Writes " 08:49:37" and what stands behind it, with the final zero.
template <size_t size>
void writeClock(char* p, const char (&blank)[size], uint32_t hour, uint32_t minute,
                uint32_t second) {
  memcpy(p, blank, size);
  writePair(p + 1, hour);
  writePair(p + 4, minute);
  writePair(p + 7, second);
}

constexpr char kGmtBlank[] = " 00:00:00 GMT";
constexpr char kLocalBlank[] = " 00:00:00";

// Writes any time that is broken down.
template <size_t size>
void writeBrokenDown(char* p, const tm& t, const char (&blank)[size]) {
  const int64_t year = int64_t{t.tm_year} + 1900;
  p = writeDay(p, static_cast<uint32_t>(t.tm_wday), static_cast<uint32_t>(t.tm_mday),
               static_cast<uint32_t>(t.tm_mon));
  if (year >= 1000 && year <= 9999)
    p = writeYear(p, static_cast<uint32_t>(year));
  else
    p = std::to_chars(p, p + 11, year).ptr;
  writeClock(p, blank, static_cast<uint32_t>(t.tm_hour), static_cast<uint32_t>(t.tm_min),
             static_cast<uint32_t>(t.tm_sec));
}

// The times that get_gmt_time_str writes the fast way, in whole days from 1970: years of four
// digits, of which a time_t of 32 bits has 1901-12-14 and later.
constexpr int32_t kFirstDay = sizeof(time_t) == 4 ? -24855 : -354285;
constexpr int32_t kEndDay = sizeof(time_t) == 4 ? 24856 : 2932897;  // the one behind the last

constexpr int32_t kDaysFromMarch0 = 719468;  // from 0000-03-01 to 1970-01-01
constexpr int32_t kThursday = 4;             // 1970-01-01
constexpr int32_t kMarch0 = 3;               // the weekday of 0000-03-01

constexpr uint32_t kFirstWeekday = (kThursday + 7 * 100000 + kFirstDay) % 7;

struct Date {
  uint32_t year;
  uint32_t month;  // 0 to 11
  uint32_t day;    // 1 to 31
};

// Breaks down a count of days from 0000-03-01, by Neri and Schneider: in years that begin in March,
// the leap day is a year's last, and years and months follow from the days by one multiplication
// each.
Date dateOf(uint32_t days) {
  constexpr uint32_t kFourCenturies = 146097;
  constexpr uint32_t kPerDay = 2939745;  // 2^32 / 1461, rounded up; 1461 quarter days are a year
  const uint32_t quarters = 4 * days + 3;
  const uint32_t century = quarters / kFourCenturies;
  const uint32_t quarters_of_century = quarters % kFourCenturies | 3;
  const uint64_t years = uint64_t{kPerDay} * quarters_of_century;
  const uint32_t day_of_year = static_cast<uint32_t>(years) / kPerDay / 4;
  const uint32_t months = 2141 * day_of_year + 197913;  // in 65536ths, 3 for March
  const bool next_year = day_of_year >= 306;            // January or February
  const uint32_t month = (months >> 16) - 1;
  return {100 * century + static_cast<uint32_t>(years >> 32) + next_year,
          next_year ? month - 12 : month, (months & 0xFFFF) / 2141 + 1};
}

// Breaks down any time: the calendar repeats itself every 400 years, which are whole weeks. Not by
// gmtime_r, which counts leap seconds in the zones that have them, and would disagree with the fast
// way there.
// Returns: false for a year that struct tm cannot hold.
bool breakDown(int64_t t, tm* broken_down) {
  constexpr int64_t kPeriodDays = 146097;
  static_assert(kPeriodDays % 7 == 0);
  const bool before = t % kDaySeconds < 0;  // a day of its own, though division rounds up
  const int64_t days = t / kDaySeconds - before + kDaysFromMarch0;
  const auto second = static_cast<int32_t>(t % kDaySeconds + (before ? kDaySeconds : 0));
  const int64_t periods = days / kPeriodDays - (days % kPeriodDays < 0);
  const auto day_of_period = static_cast<uint32_t>(days - periods * kPeriodDays);
  const Date date = dateOf(day_of_period);
  const int64_t year = 400 * periods + date.year - 1900;
  if (year < INT_MIN || year > INT_MAX) return false;
  broken_down->tm_year = static_cast<int>(year);
  broken_down->tm_mon = static_cast<int>(date.month);
  broken_down->tm_mday = static_cast<int>(date.day);
  broken_down->tm_wday = static_cast<int>((day_of_period + kMarch0) % 7);
  broken_down->tm_hour = second / 3600;
  broken_down->tm_min = second / 60 % 60;
  broken_down->tm_sec = second % 60;
  return true;
}

// ---- Reading ----

// The value of two characters; of the second alone where the first is no digit, as in " 6".
// Kept: the second may be any character, which then counts as far as it lies from '0'; the ranges
// of the fields sort most of that out.
int make_num(const char* s) {
  const int tens = s[0] - '0';
  const int ones = s[1] - '0';
  return static_cast<unsigned>(tens) <= 9 ? tens * 10 + ones : ones;
}

// Three letters as a number, whatever their case. The bit that is set maps two characters to each
// small letter, the letter and its capital.
constexpr uint32_t monthKey(const char* s) {
  const auto byte = [s](int i) { return uint32_t{static_cast<unsigned char>(s[i])}; };
  return (byte(0) | byte(1) << 8 | byte(2) << 16) | 0x202020;
}

// The months, at the places that a multiplication gives their keys.
struct Months {
  uint32_t key[16] = {};
  int8_t month[16] = {};

  static constexpr uint32_t placeOf(uint32_t a_key) {
    constexpr uint32_t kFactor = 0x67E5;  // the least that gives each month a place of its own
    return a_key * kFactor >> 28;
  }

  // LCOV_EXCL_START: only the compiler runs this
  constexpr Months() {
    for (int i = 0; i < 12; ++i) {
      const uint32_t its_key = monthKey(kMonthTexts + 4 * i);
      key[placeOf(its_key)] = its_key;
      month[placeOf(its_key)] = static_cast<int8_t>(i);
    }
  }
  // LCOV_EXCL_STOP

  constexpr int find(uint32_t a_key) const {
    const uint32_t place = placeOf(a_key);
    return key[place] == a_key ? month[place] : -1;
  }
};
constexpr Months kMonths;

// LCOV_EXCL_START: only the compiler runs this
constexpr bool allMonthsAreFound() {
  for (int i = 0; i < 12; ++i)
    if (kMonths.find(monthKey(kMonthTexts + 4 * i)) != i) return false;
  return true;
}
// LCOV_EXCL_STOP
static_assert(allMonthsAreFound(), "no two months share a place");

// Returns: 0 to 11 for the name of a month, -1 for anything else.
// Kept: only three characters are looked at, so MAYBE is May.
int make_month(const char* s) {
  return kMonths.find(monthKey(s));
}

// Returns: the seconds up to a valid time of 1970 to 2038, the year counted from 1900.
time_t mymktime(int year, int mon, int day, int hour, int min, int sec) {
  static constexpr int16_t days[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const auto y = static_cast<uint32_t>(year + 1900);
  const bool leap = y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
  const uint32_t before = 365 * y - 719050 + (y - 1969) / 4 - (y - 1901) / 100 + (y - 1601) / 400;
  const int count = static_cast<int>(before) + days[mon] + day - 1 + (leap && mon > 1 ? 1 : 0);
  return ((count * 24 + hour) * 60 + min) * 60 + sec;
}

int yearOfFour(const char* p) {
  return make_num(p) * 100 + make_num(p + 2) - 1900;
}

bool within(int v, unsigned last) {
  return static_cast<unsigned>(v) <= last;
}

// Kept: the last second is that of 2038-01-18, on both targets, though a 32-bit time_t reaches into
// the next day and a wider one beyond.
bool yearIsValid(int year, int mon, int day) {
  return year > 69 && (year <= 137 || (year == 138 && mon == 0 && day <= 18));
}

// Returns: the time whose day, month and clock, as in "08:49:37", stand at these places, whatever
// separates the numbers.
// Kept: that the month has the day is not checked.
// Kept: zone and weekday are not looked at: every time is one of UTC.
time_t timeAt(const char* day_at, const char* month_at, int year, const char* clock_at,
              time_t when_invalid) {
  const int day = make_num(day_at);
  const int mon = make_month(month_at);
  const int hour = make_num(clock_at);
  const int min = make_num(clock_at + 3);
  const int sec = make_num(clock_at + 6);
  if (!within(sec, 59) || !within(min, 59) || !within(hour, 23) || !within(day - 1, 30) ||
      mon < 0 || !yearIsValid(year, mon, day))
    return when_invalid;
  return mymktime(year, mon, day, hour, min, sec);
}

const char* skipSpaces(const char* p) {
  while (*p == ' ') ++p;
  return p;
}

// Reads what stands behind the weekday's comma.
// Kept: a dash anywhere, be it in the zone, means the form of RFC 850.
time_t timeAfterComma(const char* p) {
  const size_t length = strlen(p);
  const bool dashed = memchr(p, '-', length) != nullptr;
  if (length < (dashed ? 18 : 20)) return -1;
  if (dashed && p[9] == ' ') {
    const int year = make_num(p + 7);
    return timeAt(p, p + 3, year <= 69 ? year + 100 : year, p + 10, -1);
  }
  if (length < 20) return -1;
  return timeAt(p, p + 3, yearOfFour(p + 7), p + 12, -1);
}

// Returns: the first comma of the text, or its end. A weekday's name is so short that the system's
// search, which pays off from a dozen characters on, would be half of all the work.
// Kept: the first comma ends the weekday, wherever it stands.
const char* findComma(const char* p) {
  for (int i = 0; i < 10; ++i, ++p)
    if (*p == ',' || *p == '\0') return p;
  return strchrnul(p, ',');
}

}  // namespace

char* get_gmt_time_str(time_t now_t, char* buf) {
  constexpr auto first = static_cast<time_t>(int64_t{kFirstDay} * kDaySeconds);
  constexpr auto last = static_cast<time_t>(
      std::min<int64_t>(int64_t{kEndDay} * kDaySeconds - 1, std::numeric_limits<time_t>::max()));
  if (now_t < first || now_t > last) {
    buf[0] = '\0';
    tm broken_down;
    if (breakDown(now_t, &broken_down)) writeBrokenDown(buf, broken_down, kGmtBlank);
    return buf;
  }
  // Unsigned, as the difference may need the sign's bit.
  const unsigned long seconds =
      static_cast<unsigned long>(now_t) - static_cast<unsigned long>(first);
  const auto days = static_cast<uint32_t>(seconds / kDaySeconds);
  const auto second = static_cast<uint32_t>(seconds) - days * kDaySeconds;
  const Date date = dateOf(days + (kDaysFromMarch0 + kFirstDay));
  char* p = writeDay(buf, (days + kFirstWeekday) % 7, date.day, date.month);
  p = writeYear(p, date.year);
  writeClock(p, kGmtBlank, second / 3600, second / 60 % 60, second % 60);
  return buf;
}

char* get_local_time_str(time_t now_t, char* buf) {
  buf[0] = '\0';
  tzset();  // localtime_r alone need not notice that TZ has changed
  tm broken_down;
  if (localtime_r(&now_t, &broken_down) != nullptr) writeBrokenDown(buf, broken_down, kLocalBlank);
  return buf;
}

time_t parse_http_time(char* str) {
  const char* const stop = findComma(str);
  if (*stop == ',') return timeAfterComma(skipSpaces(stop + 1));
  const char* const p = skipSpaces(str);
  if (stop - p < 24) return -1;
  return timeAt(p + 8, p + 4, yearOfFour(p + 20), p + 11, -1);
}

time_t parse_unix_time(char* str) {
  char text[28] = {};
  const char* const p = skipSpaces(str);
  memcpy(text, p, strnlen(p, sizeof text));
  // Kept: 0 is the beginning of 1970 too; callers know it as "no time".
  return timeAt(text + 8, text + 4, yearOfFour(text + 24), text + 11, 0);
}
