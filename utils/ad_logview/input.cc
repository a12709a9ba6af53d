// A file, or standard input, that is read to its end. See input.h.
#include "input.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "common/command.h"
#include "escape.h"
#include "options.h"

bool Input::open(const std::string& name) {
  const bool standard = name == kStandardInput;
  const int fd = standard ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
  if (!use(fd, standard ? "standard input" : name)) return complainOfErrno();
  return !isOutput();
}

bool Input::openToFollow(const std::string& name) {
  return use(::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC), name);
}

bool Input::use(int fd, const std::string& name) {
  close();
  fd_ = fd;
  name_ = name;
  // LCOV_EXCL_BR_NEXT: what is open has a status
  return fd >= 0 && fstat(fd, &status_) == 0;
}

bool Input::isOutput() const {
  struct stat output;
  if (!isRegular() || fstat(STDOUT_FILENO, &output) != 0 || !isSameFile(output)) return false;
  complain(escaped(name_) + ": is what standard output is written to");
  return true;
}

bool Input::isSameFile(const struct stat& other) const {
  return status_.st_dev == other.st_dev && status_.st_ino == other.st_ino;
}

bool Input::readOn(LineSplitter* lines, View* view) {
  for (;;) {
    if (!isRegular()) view->flush();
    const ssize_t count = read(fd_, lines->room(), kBlock);
    if (count > 0) {
      lines->add(static_cast<size_t>(count));
    } else if (count == 0) {
      return true;
    } else if (errno != EINTR) {  // LCOV_EXCL_BR_LINE: no handler is installed
      return complainOfErrno();
    }
  }
}

bool Input::seekToLast(size_t count, bool whole_only) {
  struct stat now;
  if (fstat(fd_, &now) != 0) return complainOfErrno();  // LCOV_EXCL_BR_LINE: it is open
  off_t end = now.st_size;
  off_t newline = -1;
  // LCOV_EXCL_BR_NEXT: only of a damaged disk
  if (!findNewline(end, 1, &newline)) return false;
  if (whole_only || newline == end - 1) end = newline;
  off_t start = whole_only ? newline + 1 : now.st_size;
  if (count > 0) {
    // LCOV_EXCL_BR_NEXT: as above
    if (end > 0 && !findNewline(end, count, &newline)) return false;
    start = end > 0 ? newline + 1 : 0;
  }
  // LCOV_EXCL_BR_NEXT: it is a regular file
  return lseek(fd_, start, SEEK_SET) == start || complainOfErrno();
}

bool Input::seekToStart() {
  // LCOV_EXCL_BR_NEXT: as above
  return lseek(fd_, 0, SEEK_SET) == 0 || complainOfErrno();
}

bool Input::findNewline(off_t end, size_t count, off_t* at) const {
  const std::unique_ptr<char[]> block(new char[kBlock]);
  *at = -1;
  while (end > 0) {
    const off_t start = std::max<off_t>(end - static_cast<off_t>(kBlock), 0);
    const ssize_t got = pread(fd_, block.get(), static_cast<size_t>(end - start), start);
    if (got < 0) return complainOfErrno();  // LCOV_EXCL_BR_LINE: only of a damaged disk
    size_t size = static_cast<size_t>(got);
    while (const void* const newline = memrchr(block.get(), '\n', size)) {
      size = static_cast<size_t>(static_cast<const char*>(newline) - block.get());
      if (--count > 0) continue;
      *at = start + static_cast<off_t>(size);
      return true;
    }
    end = start;
  }
  return true;
}

bool Input::wasCut() const {
  struct stat now;
  // LCOV_EXCL_BR_NEXT: it is open
  return fstat(fd_, &now) == 0 && now.st_size < lseek(fd_, 0, SEEK_CUR);
}

bool Input::complainOfErrno() const {
  const int err = errno;
  complain(escaped(name_) + ": " + strerror(err));
  return false;
}

void Input::swap(Input* other) {
  std::swap(fd_, other->fd_);
  std::swap(name_, other->name_);
  std::swap(status_, other->status_);
}

void Input::close() {
  if (fd_ > STDERR_FILENO) (void)::close(fd_);
  fd_ = -1;
}
