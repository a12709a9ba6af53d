// A socket of the log daemon and the shared record that belongs to it. See log_socket.h.
#include "log_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "say.h"

namespace {

constexpr mode_t kMode = 0666;  // every process may log

// Holds, until it is closed, the turn to replace sockets in the directory of `path`. Without it,
// one of two daemons that start together could remove the other's new socket as stale.
int lockDirectory(const char* path) {
  const char* const slash = strrchr(path, '/');
  char directory[sizeof(sockaddr_un::sun_path)] = ".";
  if (slash != nullptr) {
    (void)snprintf(directory, sizeof directory, "%.*s", static_cast<int>(slash - path + 1), path);
  }
  const int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || flock(fd, LOCK_EX) == 0) return fd;
  const int err = errno;
  (void)close(fd);
  errno = err;
  return -1;
}

// Returns: 0 when somebody receives at `address`, else what connect says.
int probe(const sockaddr_un& address) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int err = result == 0 ? 0 : errno;
  (void)close(fd);
  return err;
}

}  // namespace

bool LogSocket::setBase(const char* base) {
  const int len = snprintf(address_.sun_path, sizeof address_.sun_path, "%s.%d", base,
                           static_cast<int>(getuid()));
  return base[0] != '\0' && len > 0 && static_cast<size_t>(len) < sizeof address_.sun_path;
}

bool LogSocket::open() {
  if (const char* const why = take()) {
    say("cannot listen at %s: %s", path(), why);
    return false;
  }
  struct stat file = {};
  (void)lstat(path(), &file);
  device_ = file.st_dev;
  inode_ = file.st_ino;
  if (ad_get_ad_debug_cfg_p(path(), &record_) != 0) {
    say("no shared record for %s: each process that logs there goes by its own settings", path());
  }
  return true;
}

void LogSocket::retire() const {
  struct stat file;
  const bool ours = lstat(path(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_;
  if (ours) (void)unlink(path());
  // What would arrive between the last receive and the exit would be lost, so it is refused: the
  // sender then writes it elsewhere.
  (void)shutdown(fd_, SHUT_RD);
}

void LogSocket::describe(char* to) const {
  const bool shared = record_ != &ad_debug_cfg_no_share_mem;
  (void)snprintf(to, kDescriptionMax, "%s (%s record, level %d)", path(),
                 shared ? "shared" : "private",
                 __atomic_load_n(&record_->ad_debug_level, __ATOMIC_RELAXED));
}

const char* LogSocket::take() {
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  // The file will take its mode from the descriptor: at no moment does it have another one.
  if (fd_ < 0 || fchmod(fd_, kMode) != 0) return strerror(errno);
  const int err = bindFresh();
  if (err == EADDRINUSE) return replaceStale();
  return err == 0 ? nullptr : strerror(err);
}

const char* LogSocket::replaceStale() const {
  const int lock = lockDirectory(path());
  if (lock < 0) return strerror(errno);
  const char* why = checkStale();
  if (why == nullptr) {
    int err = unlink(path()) == 0 || errno == ENOENT ? 0 : errno;
    if (err == 0) err = bindFresh();
    if (err != 0) why = strerror(err);
  }
  (void)close(lock);
  return why;
}

const char* LogSocket::checkStale() const {
  struct stat file;
  if (lstat(path(), &file) != 0) return errno == ENOENT ? nullptr : strerror(errno);
  if (!S_ISSOCK(file.st_mode)) return "there is a file that is not a socket";
  const int err = probe(address_);
  if (err == 0) return "another daemon answers there";
  return err == ECONNREFUSED || err == ENOENT ? nullptr : strerror(err);
}

int LogSocket::bindFresh() const {
  const mode_t mask = umask(0);
  const int result = bind(fd_, reinterpret_cast<const sockaddr*>(&address_), sizeof address_);
  const int err = result == 0 ? 0 : errno;
  (void)umask(mask);
  return err;
}
