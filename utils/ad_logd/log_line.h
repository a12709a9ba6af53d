// One datagram as one line of text: its time, its marks, its text with control characters escaped.
#ifndef VELORIN_AD_LOGD_log_line_
#define VELORIN_AD_LOGD_log_line_

#include <stddef.h>
#include <stdint.h>

constexpr size_t kDatagramMax =
    65536;                       // bytes looked at; what a longer one has behind them is lost
constexpr size_t kHeadMax = 64;  // time and marks
constexpr size_t kLineMax = kHeadMax + 4 * kDatagramMax + 1;  // each byte escaped, and a newline

// A datagram taken apart. `text` points into the datagram.
struct LogDatagram {
  const char* text;
  size_t len;
  uint32_t sec;
  uint32_t usec;
  bool malformed;  // not a text, a zero byte and a time: `text` is all of it, the time is now
};

// Takes apart the datagram of `size` bytes, of which the first kDatagramMax are at `bytes`.
LogDatagram takeApart(const char* bytes, size_t size);

// Makes lines; remembers the text of the last second, as many lines share it.
class LineMaker {
 public:
  // Times are Coordinated Universal Time if `utc`, else the local time as tzset found it.
  explicit LineMaker(bool utc) : utc_(utc) {}

  // Makes the line of a datagram from the special log's socket or the other one.
  // Room: kLineMax bytes. Returns: the end of the line, behind its newline.
  char* make(char* at, const LogDatagram& datagram, bool special);

  // Makes the line that stands in the place of `count` lost ones. Room and result as above.
  char* makeLoss(char* at, uint64_t count);

 private:
  char* putHead(char* at, uint32_t sec, uint32_t usec, const char* marks);

  const bool utc_;
  bool has_second_ = false;
  uint32_t second_ = 0;
  char second_text_[kHeadMax] = "";
};

#endif  // VELORIN_AD_LOGD_log_line_
