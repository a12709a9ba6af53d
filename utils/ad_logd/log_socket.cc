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
constexpr char kNoSocket[] = "there is a file that is not a socket";

// Holds, until it is closed, the turn to replace sockets in the directory of `path`. Without it,
// one of two daemons that start together could remove the other's new socket as stale.
int lockDirectory(const char* path) {
  const char* const slash = strrchr(path, '/');
  char directory[sizeof(sockaddr_un::sun_path)] = ".";
  if (slash != nullptr) {
    (void)snprintf(directory, sizeof directory, "%.*s", static_cast<int>(slash - path + 1), path);
  }
  const int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  if (flock(fd, LOCK_EX) == 0) return fd;  // LCOV_EXCL_BR_LINE: as below
  // LCOV_EXCL_START: only a signal's handler ends the wait, and none is installed
  const int err = errno;
  (void)close(fd);
  errno = err;
  return -1;
  // LCOV_EXCL_STOP
}

// Returns: 0 when somebody receives at `address`, else what connect says.
int probe(const sockaddr_un& address) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;  // LCOV_EXCL_BR_LINE: only without descriptors
  const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int err = result == 0 ? 0 : errno;
  (void)close(fd);
  return err;
}

}  // namespace

bool LogSocket::setBase(const char* base) {
  const int len = snprintf(address_.sun_path, sizeof address_.sun_path, "%s.%d", base,
                           static_cast<int>(getuid()));
  return base[0] != '\0' && static_cast<size_t>(len) < sizeof address_.sun_path;
}

void LogSocket::adopt(int fd) {
  fd_ = fd;
  adopted_ = true;
}

bool LogSocket::open() {
  const char* why = adopted_ ? nullptr : take();
  if (why == nullptr) why = findFile();
  if (why != nullptr) {
    say("cannot listen at %s: %s", path(), why);
    return false;
  }
  if (ad_get_ad_debug_cfg_p(path(), &record_) != 0) {
    say("no shared record for %s: each process that logs there goes by its own settings", path());
  }
  segment_ = segmentOf(path());
  return true;
}

void LogSocket::followFormers(const LogSocket& other) {
  if (fd_ < 0) return;
  formers_.follow(record_, segment_, other.segment_);
  // LCOV_EXCL_BR_NEXT: a file that goes right after it was made
  if (ownsFile()) formers_.save();
}

void LogSocket::keepFormersInStep() {
  if (formers_.keepInStep() && ownsFile()) formers_.save();
}

void LogSocket::retire() {
  if (fd_ < 0) return;
  const bool ours = ownsFile();
  // Saved once more: what cleans up old files may have removed it.
  if (ours) formers_.save();
  if (adopted_) {
    (void)close(fd_);
    fd_ = -1;
    return;
  }
  if (ours) (void)unlink(path());
  // What would arrive between the last receive and the exit would be lost, so it is refused: the
  // sender then writes it elsewhere.
  (void)shutdown(fd_, SHUT_RD);
}

bool LogSocket::isAt(const char* place) const {
  struct stat file;
  struct stat mine;
  return strcmp(place, path()) == 0 || (stat(place, &file) == 0 && stat(path(), &mine) == 0 &&
                                        file.st_dev == mine.st_dev && file.st_ino == mine.st_ino);
}

bool LogSocket::isFile(const struct stat& file) const {
  return inode_ != 0 && file.st_dev == device_ && file.st_ino == inode_;
}

bool LogSocket::ownsFile() const {
  struct stat file;
  return lstat(path(), &file) == 0 && isFile(file);
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
  // LCOV_EXCL_BR_NEXT: only without descriptors
  if (fd_ < 0 || fchmod(fd_, kMode) != 0) return strerror(errno);
  const int err = bindFresh();
  if (err == EADDRINUSE) return replaceStale();
  return err == 0 ? nullptr : strerror(err);
}

// A socket that was handed over may have lost its file, and no sender would find it.
const char* LogSocket::findFile() {
  struct stat file;
  if (lstat(path(), &file) != 0) return strerror(errno);
  if (!S_ISSOCK(file.st_mode)) return kNoSocket;
  device_ = file.st_dev;
  inode_ = file.st_ino;
  return nullptr;
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
  // LCOV_EXCL_BR_NEXT: no other error where the file was found in use
  if (lstat(path(), &file) != 0) return errno == ENOENT ? nullptr : strerror(errno);
  if (!S_ISSOCK(file.st_mode)) return kNoSocket;
  const int err = probe(address_);
  if (err == 0) return "another daemon answers there";
  // LCOV_EXCL_BR_NEXT: a file that goes between the two calls
  return err == ECONNREFUSED || err == ENOENT ? nullptr : strerror(err);
}

int LogSocket::bindFresh() const {
  const mode_t mask = umask(0);
  const int result = bind(fd_, reinterpret_cast<const sockaddr*>(&address_), sizeof address_);
  const int err = result == 0 ? 0 : errno;
  (void)umask(mask);
  return err;
}
