// One datagram as one line of text. See log_line.h.
#include "log_line.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>

#include "internal/log_datagram.h"

namespace {

using velorin::internal::kDatagramTrailer;
using velorin::internal::timeval32;

static_assert(sizeof(time_t) == 8, "holds any time of a datagram on both targets");

timeval32 now() {
  timeval time;
  (void)gettimeofday(&time, nullptr);
  return {static_cast<uint32_t>(time.tv_sec), static_cast<uint32_t>(time.tv_usec)};
}

char* putEscape(char* at, unsigned char byte) {
  constexpr char kHex[] = "0123456789abcdef";
  *at++ = '\\';
  switch (byte) {
    case '\\':
      *at++ = '\\';
      return at;
    case '\n':
      *at++ = 'n';
      return at;
    case '\r':
      *at++ = 'r';
      return at;
    case '\t':
      *at++ = 't';
      return at;
  }
  *at++ = 'x';
  *at++ = kHex[byte >> 4];
  *at++ = kHex[byte & 15];
  return at;
}

// Bytes from 0x80 on pass: they are the letters of whatever character set the sender uses.
char* putEscaped(char* at, const char* text, size_t len) {
  for (size_t i = 0; i < len; ++i) {
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f || byte == '\\') {
      at = putEscape(at, byte);
    } else {
      *at++ = text[i];
    }
  }
  return at;
}

}  // namespace

LogDatagram takeApart(const char* bytes, size_t size) {
  const size_t len = size - kDatagramTrailer;  // used only where it does not wrap
  if (size > kDatagramTrailer && size <= kDatagramMax && bytes[len] == '\0') {
    timeval32 sent;
    memcpy(&sent, bytes + len + 1, sizeof sent);
    return {bytes, len, sent.sec, sent.usec, /*malformed=*/false};
  }
  const timeval32 received = now();
  return {bytes, std::min(size, kDatagramMax), received.sec, received.usec, /*malformed=*/true};
}

char* LineMaker::make(char* at, const LogDatagram& datagram, bool special) {
  constexpr const char* kMarks[2][2] = {{"", "[malformed]"}, {"[special]", "[special][malformed]"}};
  at = putHead(at, datagram.sec, datagram.usec, kMarks[special][datagram.malformed]);
  size_t len = datagram.len;
  // A malformed datagram has no text that could end a line: every byte of it is shown.
  if (!datagram.malformed && datagram.text[len - 1] == '\n') --len;
  at = putEscaped(at, datagram.text, len);
  *at++ = '\n';
  return at;
}

char* LineMaker::makeLoss(char* at, uint64_t count) {
  const timeval32 time = now();
  at = putHead(at, time.sec, time.usec, "[ad_logd]");
  return at + sprintf(at, "%" PRIu64 " lines lost here\n", count);
}

char* LineMaker::putHead(char* at, uint32_t sec, uint32_t usec, const char* marks) {
  if (!has_second_ || sec != second_) {
    const time_t time = sec;
    tm parts = {};
    (void)(utc_ ? gmtime_r(&time, &parts) : localtime_r(&time, &parts));
    (void)snprintf(second_text_, sizeof second_text_, "%04d-%02d-%02d %02d:%02d:%02d",
                   parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                   parts.tm_min, parts.tm_sec);
    second_ = sec;
    has_second_ = true;
  }
  return at + snprintf(at, kHeadMax, "%s.%06" PRIu32 "%s%s ", second_text_, usec, utc_ ? "Z" : "",
                       marks);
}
