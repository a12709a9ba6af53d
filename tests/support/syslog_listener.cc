// The syslog server's end of /dev/log. See syslog_listener.h.
#include "support/syslog_listener.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr sockaddr_un kAddress = {AF_UNIX, "/dev/log"};

SyslogRecord parse(const std::string& bytes) {
  SyslogRecord record;
  record.bytes = bytes;
  int number = -1;
  int head = 0;
  (void)sscanf(bytes.c_str(), "<%3d>%*3[A-Za-z] %*2d %*2d:%*2d:%*2d %n", &number, &head);
  const size_t ident = static_cast<size_t>(head);
  const size_t colon = bytes.find(": ", ident);
  if (head == 0 || colon == std::string::npos) {
    ADD_FAILURE() << "not a syslog record: \"" << bytes << '"';
    return record;
  }
  record.facility = number & LOG_FACMASK;
  record.priority = number & LOG_PRIMASK;
  record.ident = bytes.substr(ident, colon - ident);
  record.text = bytes.substr(colon + 2);
  const size_t bracket = record.ident.find('[');
  if (bracket == std::string::npos) return record;
  record.pid = atoi(record.ident.c_str() + bracket + 1);
  record.ident.resize(bracket);
  return record;
}

}  // namespace

SyslogListener::SyslogListener() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  if (fd_ >= 0 && bind(fd_, reinterpret_cast<const sockaddr*>(&kAddress), sizeof kAddress) == 0)
    return;
  const std::string why = strerror(errno);
  if (fd_ >= 0) close(fd_);
  throw std::runtime_error("listen at /dev/log: " + why);
}

SyslogListener::~SyslogListener() {
  close(fd_);
  unlink(kAddress.sun_path);
}

std::optional<SyslogRecord> SyslogListener::poll() {
  char room[65536];
  const ssize_t size = recv(fd_, room, sizeof room, MSG_DONTWAIT);
  if (size < 0) return std::nullopt;
  return parse(std::string(room, static_cast<size_t>(size)));
}

std::vector<SyslogRecord> SyslogListener::waiting() {
  std::vector<SyslogRecord> records;
  while (const auto record = poll()) records.push_back(*record);
  return records;
}
