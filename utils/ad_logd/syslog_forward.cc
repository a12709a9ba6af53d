// The copy of the lines that goes to the machine's syslog server. See syslog_forward.h.
#include "syslog_forward.h"

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <string_view>

#include "log_statement.h"
#include "say.h"

namespace {

constexpr sockaddr_un kServer = {AF_UNIX, _PATH_LOG};
constexpr size_t kRecordMax = 8192;  // what servers take by default
constexpr char kMonths[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct Priority {
  std::string_view tag;
  int priority;
};
constexpr Priority kPriorities[] = {
    {"CRTC", LOG_CRIT}, {"ERRO", LOG_ERR}, {"TRCE", LOG_INFO}, {"DETL", LOG_DEBUG}};

int priorityOf(const LogDatagram& datagram) {
  if (datagram.malformed) return LOG_WARNING;
  const std::string_view tag = parseStatement({datagram.text, datagram.shownLen()}).tag;
  for (const Priority& row : kPriorities)
    if (tag == row.tag) return row.priority;
  return LOG_NOTICE;
}

}  // namespace

void SyslogForward::open(const LogSocket* own, const LogSocket* own_too) {
  own_[0] = own;
  own_[1] = own_too;
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  // LCOV_EXCL_BR_NEXT: only without descriptors
  if (fd_ < 0) say("cannot forward to syslog: %s", strerror(errno));
}

void SyslogForward::add(const LogDatagram& datagram, bool special) {
  uint32_t len;
  if (sizeof records_ - end_ < sizeof len + kRecordMax) flush();
  if (sizeof records_ - end_ < sizeof len + kRecordMax) {
    ++lost_;
    return;
  }
  const time_t time = now().sec;
  tm parts = {};
  (void)localtime_r(&time, &parts);
  char* const record = records_ + end_ + sizeof len;
  const char* const marks = marksOf(datagram, special);
  char* at = record + sprintf(record, "<%d>%s %2d %02d:%02d:%02d ad_logd[%d]: %s%s",
                              LOG_DAEMON | priorityOf(datagram), kMonths[parts.tm_mon],
                              parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                              static_cast<int>(getpid()), marks, marks[0] != '\0' ? " " : "");
  at = putEscaped(at, record + kRecordMax, datagram.text, datagram.shownLen());
  len = static_cast<uint32_t>(at - record);
  memcpy(records_ + end_, &len, sizeof len);
  end_ += sizeof len + len;
}

void SyslogForward::flush() {
  while (sent_ < end_ && reach()) {
    const size_t len = sizeAt(sent_);
    if (!sendOne(records_ + sent_ + sizeof(uint32_t), len)) break;
    sent_ += sizeof(uint32_t) + len;
  }
  memmove(records_, records_ + sent_, end_ - sent_);
  end_ -= sent_;
  sent_ = 0;
  // While the server lags each line may be lost: told once, when all that waited is sent.
  if (failing() || end_ > 0 || lost_ == told_) return;
  say("%" PRIu64 " lines were not forwarded to syslog", lost_ - told_);
  told_ = lost_;
}

uint64_t SyslogForward::unsent() const {
  uint64_t count = lost_;
  for (size_t at = sent_; at < end_; at += sizeof(uint32_t) + sizeAt(at)) ++count;
  return count;
}

// Connects to the server; each time anew when a server that starts has made its socket anew.
bool SyslogForward::reach() {
  if (connected_) return true;
  struct stat file;
  if (stat(kServer.sun_path, &file) != 0) {
    fail(strerror(errno), errno);
    return false;
  }
  for (const LogSocket* const own : own_) {
    if (!own->isFile(file)) continue;
    fail("that is this daemon's own socket", ELOOP);
    return false;
  }
  if (connect(fd_, reinterpret_cast<const sockaddr*>(&kServer), sizeof kServer) != 0) {
    fail(strerror(errno), errno);
    return false;
  }
  connected_ = true;
  return true;
}

// Returns: whether the record is done with.
bool SyslogForward::sendOne(const char* record, size_t len) {
  // The server that was there may be gone, and another in its place: one more attempt.
  for (int attempt = 0; attempt < 2 && reach(); ++attempt) {
    ssize_t sent;
    do {
      sent = send(fd_, record, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);  // LCOV_EXCL_BR_LINE: it does not wait
    if (sent < 0 && errno == EAGAIN) return false;
    if (sent >= 0) {
      if (failing()) say("forwarding to syslog again");
      error_ = 0;
      return true;
    }
    connected_ = false;
    if (attempt > 0) fail(strerror(errno), errno);
  }
  return false;
}

void SyslogForward::fail(const char* why, int err) {
  if (err != error_) say("cannot forward to syslog at %s: %s", kServer.sun_path, why);
  error_ = err;
}

size_t SyslogForward::sizeAt(size_t at) const {
  uint32_t len;
  memcpy(&len, records_ + at, sizeof len);
  return len;
}
