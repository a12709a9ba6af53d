// Where the lines go, and the lines that wait to be written there. See line_output.h.
#include "line_output.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "say.h"

namespace {

// Not blocking: a FIFO without a reader must not stop the daemon.
int openFile(const char* path) {
  return ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
}

const char* nameOf(const char* path) {
  return path != nullptr ? path : "standard output";
}

}  // namespace

bool LineOutput::open(const char* path) {
  path_ = path;
  const int fd = path != nullptr ? openFile(path) : STDOUT_FILENO;
  if (fd < 0) {
    say("cannot open %s: %s", path, strerror(errno));
    return false;
  }
  use(fd);
  return true;
}

void LineOutput::reopen() {
  if (path_ == nullptr) return;
  flush();
  const int fd = openFile(path_);
  if (fd < 0) {
    say("cannot reopen %s, keeping the old file: %s", path_, strerror(errno));
    return;
  }
  (void)close(fd_);
  use(fd);
  sent_ = 0;  // a line of which the old file got only a part is written again
  say("reopened %s", path_);
  flush();
}

char* LineOutput::room() {
  return sizeof lines_ - end_ >= kLineMax ? lines_ + end_ : nullptr;
}

void LineOutput::add(const char* end) {
  end_ = static_cast<size_t>(end - lines_);
}

void LineOutput::flush() {
  while (sent_ < end_ && writable()) {
    const ssize_t count = write(fd_, lines_ + sent_, chunk());
    if (count > 0) {
      sent_ += static_cast<size_t>(count);
      recover();
      continue;
    }
    const int err = count < 0 ? errno : EIO;
    if (err == EINTR) continue;  // LCOV_EXCL_BR_LINE: no handler is installed
    if (err != EAGAIN) fail(err);
    break;
  }
  compact();
}

void LineOutput::fail(int err) {
  if (err != error_) say("cannot write %s: %s", nameOf(path_), strerror(err));
  error_ = err;
}

void LineOutput::recover() {
  if (!failing()) return;
  error_ = 0;
  say("writing %s again", nameOf(path_));
}

uint64_t LineOutput::waiting() const {
  return static_cast<uint64_t>(std::count(lines_ + sent_, lines_ + end_, '\n'));
}

void LineOutput::use(int fd) {
  struct stat file = {};
  (void)fstat(fd, &file);
  fd_ = fd;
  regular_ = S_ISREG(file.st_mode);
}

bool LineOutput::writable() const {
  if (regular_) return true;
  pollfd output = {fd_, POLLOUT, 0};
  return poll(&output, 1, 0) > 0;
}

// A pipe that is writable takes PIPE_BUF bytes without blocking, and in one piece, so that the
// lines of several writers stay whole.
size_t LineOutput::chunk() const {
  const size_t len = end_ - sent_;
  if (regular_ || len <= PIPE_BUF) return len;
  const char* const next = lines_ + sent_;
  const void* const newline = memrchr(next, '\n', PIPE_BUF);
  return newline == nullptr ? PIPE_BUF
                            : static_cast<size_t>(static_cast<const char*>(newline) - next) + 1;
}

// Forgets the lines that are written. One that is written in part stays whole for reopen.
void LineOutput::compact() {
  const void* const newline = memrchr(lines_, '\n', sent_);
  if (newline == nullptr) return;
  const size_t done = static_cast<size_t>(static_cast<const char*>(newline) - lines_) + 1;
  memmove(lines_, lines_ + done, end_ - done);
  sent_ -= done;
  end_ -= done;
}
