// The receiving end of a log daemon's socket. See log_listener.h.
#include "support/log_listener.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr size_t kTrailer = 9;  // a zero byte, seconds, microseconds

}  // namespace

LogListener::LogListener(const std::string& path) : path_(path) {
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      chmod(path.c_str(), 0666) != 0)
    throw std::runtime_error("listen at " + path + ": " + strerror(errno));
}

LogListener::~LogListener() {
  close(fd_);
  unlink(path_.c_str());
}

LogDatagram LogListener::next(int seconds) {
  pollfd waiting = {fd_, POLLIN, 0};
  int ready;
  do {
    ready = ::poll(&waiting, 1, seconds * 1000);
  } while (ready < 0 && errno == EINTR);
  if (const auto datagram = receive(MSG_DONTWAIT)) return *datagram;
  ADD_FAILURE() << "no datagram at " << path_ << " within " << seconds << " s";
  return {};
}

std::string LogListener::nextLine(int seconds) {
  std::string text = next(seconds).text;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

std::optional<LogDatagram> LogListener::poll() {
  return receive(MSG_DONTWAIT);
}

std::vector<std::string> LogListener::waiting() {
  std::vector<std::string> texts;
  while (const auto datagram = poll()) texts.push_back(datagram->text);
  return texts;
}

std::optional<LogDatagram> LogListener::receive(int flags) {
  char room[8192];
  const ssize_t size = recv(fd_, room, sizeof room, flags | MSG_TRUNC);
  if (size < 0) return std::nullopt;
  const size_t len = static_cast<size_t>(size);
  LogDatagram datagram;
  if (len <= kTrailer || len > sizeof room || room[len - kTrailer] != '\0') {
    ADD_FAILURE() << "a datagram of " << len << " bytes that is not text, zero byte and time";
    return datagram;
  }
  datagram.bytes.assign(room, len);
  datagram.text.assign(room, len - kTrailer);
  memcpy(&datagram.sec, room + len - 8, 4);
  memcpy(&datagram.usec, room + len - 4, 4);
  return datagram;
}
