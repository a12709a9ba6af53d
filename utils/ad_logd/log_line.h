// One datagram as one line of output: its time, its marks, its text with control characters
// escaped; as text or as a JSON object.
#ifndef VELORIN_AD_LOGD_log_line_
#define VELORIN_AD_LOGD_log_line_

#include <stddef.h>
#include <stdint.h>

#include "log_time.h"

constexpr size_t kDatagramMax =
    65536;                        // bytes looked at; what a longer one has behind them is lost
constexpr size_t kHeadMax = 512;  // time and marks, and the names of an object's fields
// In the longest line each byte is a JSON escape and two digits of "raw"; and a newline.
constexpr size_t kLineMax = kHeadMax + (6 + 2) * kDatagramMax + 1;

enum class Format { kText, kJson };

// A datagram taken apart. `text` points into the datagram.
struct LogDatagram {
  const char* text;
  size_t len;
  uint32_t sec;
  uint32_t usec;
  bool malformed;  // not a text, a zero byte and a time: `text` is all of it, the time is now

  // Without the newline that ends the line. A malformed datagram has no text that could end one:
  // every byte of it counts.
  size_t shownLen() const { return !malformed && text[len - 1] == '\n' ? len - 1 : len; }
};

// Takes apart the datagram of `size` bytes, of which the first kDatagramMax are at `bytes`.
LogDatagram takeApart(const char* bytes, size_t size);

// The marks of a line, "[special][malformed]" for instance; empty for a usual one.
const char* marksOf(const LogDatagram& datagram, bool special);

// Puts a text, control characters and backslashes escaped, as far as whole escapes fit.
// Room: up to `room_end`. Returns: its end.
char* putEscaped(char* at, const char* room_end, const char* text, size_t len);

class LineMaker {
 public:
  // Times are Coordinated Universal Time if `utc`, else the local time as tzset found it.
  LineMaker(Format format, bool utc)
      : format_(format), zone_mark_(utc ? "Z" : ""), received_(utc), sent_(utc) {}

  // Makes the line of a datagram from the special log's socket or the other one.
  // Room: kLineMax bytes. Returns: the end of the line, behind its newline.
  char* make(char* at, const LogDatagram& datagram, bool special);

  // Makes the line that stands in the place of `count` lost ones. Room and result as above.
  char* makeLoss(char* at, uint64_t count);

 private:
  char* putHead(char* at, uint32_t sec, uint32_t usec, const char* marks);

  const Format format_;
  const char* const zone_mark_;
  SecondText received_;
  SecondText sent_;
};

#endif  // VELORIN_AD_LOGD_log_line_
