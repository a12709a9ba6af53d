// One direction of a connection. See relay.h.
#include "relay.h"

#include <errno.h>
#include <sys/socket.h>

namespace {

// The errno of a failed call; 0 when it only has to be made again later.
int failureOf(int err) {
  return err == EAGAIN ? 0 : err;
}

}  // namespace

int Relay::take(int from) {
  ssize_t count;
  do {
    count = recv(from, chunk_, sizeof chunk_, 0);
  } while (count < 0 && errno == EINTR);
  if (count < 0) return failureOf(errno);
  input_ended_ = count == 0;
  begin_ = 0;
  end_ = static_cast<size_t>(count);
  return 0;
}

int Relay::passOn(int to) {
  while (begin_ != end_) {
    const ssize_t count = send(to, chunk_ + begin_, end_ - begin_, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failureOf(errno);
    begin_ += static_cast<size_t>(count);
    passed_on_ += static_cast<uint64_t>(count);
  }
  if (!input_ended_ || finished_) return 0;
  if (shutdown(to, SHUT_WR) != 0) return errno;
  finished_ = true;
  return 0;
}
