// One datagram as one line of output. See log_line.h.
#include "log_line.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "json_line.h"

namespace {

using velorin::internal::kDatagramTrailer;

constexpr size_t kEscapeMax = 4;

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

const char* marksOf(const LogDatagram& datagram, bool special) {
  constexpr const char* kMarks[2][2] = {{"", "[malformed]"}, {"[special]", "[special][malformed]"}};
  return kMarks[special][datagram.malformed];
}

// Bytes from 0x80 on pass: they are the letters of whatever character set the sender uses.
char* putEscaped(char* at, const char* room_end, const char* text, size_t len) {
  for (size_t i = 0; i < len && static_cast<size_t>(room_end - at) >= kEscapeMax; ++i) {
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f || byte == '\\') {
      at = putEscape(at, byte);
    } else {
      *at++ = text[i];
    }
  }
  return at;
}

char* LineMaker::make(char* at, const LogDatagram& datagram, bool special) {
  if (format_ == Format::kJson) return putJsonLine(at, datagram, special, &received_, &sent_);
  char* const room_end = at + kLineMax;
  at = putHead(at, datagram.sec, datagram.usec, marksOf(datagram, special));
  at = putEscaped(at, room_end, datagram.text, datagram.shownLen());
  *at++ = '\n';
  return at;
}

char* LineMaker::makeLoss(char* at, uint64_t count) {
  if (format_ == Format::kJson) return putJsonLoss(at, count, &received_);
  const timeval32 time = now();
  at = putHead(at, time.sec, time.usec, "[ad_logd]");
  return at + sprintf(at, "%" PRIu64 " lines lost here\n", count);
}

char* LineMaker::putHead(char* at, uint32_t sec, uint32_t usec, const char* marks) {
  sent_.set(sec);
  return at + snprintf(at, kHeadMax, "%s %s.%06" PRIu32 "%s%s ", sent_.date(), sent_.clock(), usec,
                       zone_mark_, marks);
}
