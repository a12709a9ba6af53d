// The times between which lines are shown.
#ifndef VELORIN_AD_LOGVIEW_time_range_
#define VELORIN_AD_LOGVIEW_time_range_

#include <time.h>

#include <optional>
#include <string>
#include <string_view>

// One end of the range as lines have it, "2026-03-05 14:07:31.042317": texts are compared, so that
// no line's time has to be converted.
struct TimeBound {
  std::string local;
  std::string utc;  // for lines whose time ends with a "Z"
};

enum class BoundOf { kSince, kUntil };

// Reads a time: in the form of the log, where what is missing behind its minutes, or its time of
// day, is the first such time for kSince and the last one for kUntil, and the date is today's; or
// as so long before `now` ("1h30m"). Returns: nothing for another text, and for a date that does
// not exist.
std::optional<TimeBound> parseTimeBound(std::string_view text, BoundOf which, timespec now);

struct TimeRange {
  std::optional<TimeBound> since;
  std::optional<TimeBound> until;  // the last time that belongs to it

  bool bounded() const { return since || until; }
  bool contains(std::string_view time) const;  // of a line
};

#endif  // VELORIN_AD_LOGVIEW_time_range_
