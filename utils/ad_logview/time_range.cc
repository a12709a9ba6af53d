// The times between which lines are shown. See time_range.h.
#include "time_range.h"

#include <stdint.h>
#include <stdio.h>

#include <algorithm>

namespace {

constexpr size_t kFractionMax = 6;  // digits
constexpr size_t kTimeSize = sizeof "2026-03-05 14:07:31.042317" - 1;

struct Unit {
  char name;
  int64_t seconds;
};
constexpr Unit kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};
constexpr int64_t kLongest = int64_t{1} << 40;  // seconds; before every time that a log has

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

std::string timeText(const tm& time, std::string_view microseconds) {
  char text[80];
  (void)snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%.*s", time.tm_year + 1900,
                 time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec,
                 static_cast<int>(microseconds.size()), microseconds.data());
  return text;
}

tm partsOf(time_t time, bool utc) {
  tm parts = {};
  (void)(utc ? gmtime_r(&time, &parts) : localtime_r(&time, &parts));
  return parts;
}

// Reads what is left of a text from its front.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  bool take(char c) {
    if (text_.empty() || text_[0] != c) return false;
    text_.remove_prefix(1);
    return true;
  }

  bool takeDigits(size_t count, int* value) {
    if (text_.size() < count || !std::all_of(text_.begin(), text_.begin() + count, isDigit))
      return false;
    *value = 0;
    for (const char c : text_.substr(0, count)) *value = *value * 10 + (c - '0');
    text_.remove_prefix(count);
    return true;
  }

  // All digits that come next.
  std::string_view takeDigits() {
    const auto end = std::find_if_not(text_.begin(), text_.end(), isDigit);
    const std::string_view digits = text_.substr(0, static_cast<size_t>(end - text_.begin()));
    text_.remove_prefix(digits.size());
    return digits;
  }

  // "2026-03-05"; leaves what it does not take.
  bool takeDate(tm* to) {
    const std::string_view before = text_;
    int year;
    int month;
    if (takeDigits(4, &year) && take('-') && takeDigits(2, &month) && take('-') &&
        takeDigits(2, &to->tm_mday)) {
      to->tm_year = year - 1900;
      to->tm_mon = month - 1;
      return true;
    }
    text_ = before;
    return false;
  }

  // "14:07", with seconds and their fraction or without.
  bool takeTimeOfDay(tm* to, std::string_view* fraction) {
    if (!takeDigits(2, &to->tm_hour) || !take(':') || !takeDigits(2, &to->tm_min)) return false;
    if (!take(':')) return true;
    if (!takeDigits(2, &to->tm_sec)) return false;
    if (!take('.')) return true;
    *fraction = takeDigits();
    return !fraction->empty() && fraction->size() <= kFractionMax;
  }

  bool done() const { return text_.empty(); }

 private:
  std::string_view text_;
};

bool sameParts(const tm& a, const tm& b) {
  return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
         a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

// Whether there is such a date and such a time of day.
bool exists(const tm& parts) {
  tm normal = parts;
  (void)timegm(&normal);
  return sameParts(parts, normal);
}

std::optional<TimeBound> parseAbsolute(std::string_view text, BoundOf which, timespec now) {
  const bool utc = !text.empty() && text.back() == 'Z';
  if (utc) text.remove_suffix(1);
  const bool until = which == BoundOf::kUntil;
  tm parts = partsOf(now.tv_sec, utc);
  parts.tm_hour = until ? 23 : 0;
  parts.tm_min = parts.tm_sec = until ? 59 : 0;
  std::string_view fraction;
  Scanner scanner(text);
  const bool dated = scanner.takeDate(&parts);
  const bool timed = !dated || scanner.take(' ') || scanner.take('T');
  if (timed && !scanner.takeTimeOfDay(&parts, &fraction)) return std::nullopt;
  if (!scanner.done() || !exists(parts)) return std::nullopt;

  std::string microseconds(fraction);
  microseconds.resize(kFractionMax, until ? '9' : '0');
  const std::string as_given = timeText(parts, microseconds);
  parts.tm_isdst = -1;
  const time_t time = utc ? timegm(&parts) : mktime(&parts);
  const std::string converted = timeText(partsOf(time, !utc), microseconds);
  return utc ? TimeBound{converted, as_given} : TimeBound{as_given, converted};
}

std::optional<TimeBound> parseRelative(std::string_view text, timespec now) {
  int64_t ago = 0;
  size_t at = 0;
  if (text.empty()) return std::nullopt;
  while (at < text.size()) {
    int64_t count = 0;
    const size_t start = at;
    for (; at < text.size() && isDigit(text[at]); ++at)
      count = std::min(count * 10 + (text[at] - '0'), kLongest);
    if (at == start || at == text.size()) return std::nullopt;
    const Unit* const unit = std::find_if(std::begin(kUnits), std::end(kUnits),
                                          [&](const Unit& u) { return u.name == text[at]; });
    if (unit == std::end(kUnits)) return std::nullopt;
    ago = std::min(ago + count * unit->seconds, kLongest);
    ++at;
  }
  const time_t time = static_cast<time_t>(std::max<int64_t>(now.tv_sec - ago, 0));
  char microseconds[32];
  (void)snprintf(microseconds, sizeof microseconds, "%06ld", now.tv_nsec / 1000);
  return TimeBound{timeText(partsOf(time, /*utc=*/false), microseconds),
                   timeText(partsOf(time, /*utc=*/true), microseconds)};
}

// Less than, equal to or greater than 0 as the line's time is before, at or behind the bound.
int compare(std::string_view time, const TimeBound& bound) {
  const bool utc = time.back() == 'Z';
  if (utc) time.remove_suffix(1);
  const std::string_view other = utc ? bound.utc : bound.local;
  const int order = time.substr(0, kTimeSize).compare(other);
  // More than six digits: a million microseconds or more, behind all of the second.
  if (time.size() == kTimeSize) return order;
  constexpr size_t kSeconds = kTimeSize - kFractionMax;
  const int seconds = time.substr(0, kSeconds).compare(other.substr(0, kSeconds));
  return seconds != 0 ? seconds : 1;
}

}  // namespace

std::optional<TimeBound> parseTimeBound(std::string_view text, BoundOf which, timespec now) {
  if (const std::optional<TimeBound> bound = parseRelative(text, now)) return bound;
  return parseAbsolute(text, which, now);
}

bool TimeRange::contains(std::string_view time) const {
  return (!since || compare(time, *since) >= 0) && (!until || compare(time, *until) <= 0);
}
