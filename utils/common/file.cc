// Opening and reading with limits. See file.h.
#include "file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace {

constexpr size_t kPiece = 65536;

// What is no regular file, in words.
const char* kind_of(mode_t mode) {
  if (S_ISLNK(mode)) return "is a symbolic link";
  if (S_ISDIR(mode)) return "is a directory";
  if (S_ISFIFO(mode)) return "is a FIFO";
  if (S_ISSOCK(mode)) return "is a socket";
  return "is a device";
}

}  // namespace

Fd& Fd::operator=(Fd&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

Fd::~Fd() {
  if (fd_ >= 0) (void)close(fd_);
}

Fd open_regular(int dir_fd, const std::string& path, Links links, std::string* why) {
  const int no_follow = links == Links::kRefuse ? O_NOFOLLOW : 0;
  const Fd place(openat(dir_fd, path.c_str(), O_PATH | O_CLOEXEC | no_follow));
  struct stat status;
  // LCOV_EXCL_BR_NEXT: the status of an open file is to be had
  if (!place.is_open() || fstat(place.get(), &status) != 0) {
    *why = strerror(errno);
    return Fd();
  }
  if (!S_ISREG(status.st_mode)) {
    *why = kind_of(status.st_mode);
    return Fd();
  }
  // The very file that was looked at, whatever its name leads to by now.
  const std::string same = "/proc/self/fd/" + std::to_string(place.get());
  Fd file(open(same.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file.is_open()) *why = strerror(errno);
  return file;
}

uint64_t size_of(int fd) {
  struct stat status;
  // LCOV_EXCL_BR_NEXT: the status of an open file is to be had
  return fstat(fd, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

bool read_at(int fd, uint64_t offset, void* to, size_t len) {
  // LCOV_EXCL_BR_NEXT: callers compare the offset with the file's size first
  if (offset > uint64_t{INT64_MAX} - len) return false;
  char* at = static_cast<char*>(to);
  while (len > 0) {
    const ssize_t got = pread(fd, at, len, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;  // LCOV_EXCL_BR_LINE: regular files do not wait
    if (got <= 0) return false;
    at += got;
    offset += static_cast<uint64_t>(got);
    len -= static_cast<size_t>(got);
  }
  return true;
}

std::optional<std::string> read_up_to(int fd, size_t max) {
  std::string bytes;
  while (bytes.size() < max) {
    const size_t before = bytes.size();
    bytes.resize(before + std::min(kPiece, max - before));
    const ssize_t got = read(fd, &bytes[before], bytes.size() - before);
    // LCOV_EXCL_BR_NEXT: only of a damaged file system, or a process that ends meanwhile
    if (got < 0 && errno != EINTR) return std::nullopt;
    bytes.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
    if (got == 0) break;
  }
  return bytes;
}
