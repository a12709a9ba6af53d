// A log file that grows. See follow.h.
#include "follow.h"

#include <errno.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>

#include "common/command.h"
#include "escape.h"

namespace {

constexpr int kPollInterval = 1000;  // milliseconds

// Where files change without this machine's knowledge.
constexpr unsigned long kRemote[] = {NFS_SUPER_MAGIC,  SMB_SUPER_MAGIC, SMB2_SUPER_MAGIC,
                                     CIFS_SUPER_MAGIC, V9FS_MAGIC,      CEPH_SUPER_MAGIC,
                                     FUSE_SUPER_MAGIC};

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

bool isLink(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool isRemote(const std::string& directory) {
  struct statfs status;
  // LCOV_EXCL_BR_NEXT: a directory that goes meanwhile
  if (statfs(directory.c_str(), &status) != 0) return true;
  return std::find(std::begin(kRemote), std::end(kRemote),
                   static_cast<unsigned long>(status.f_type)) != std::end(kRemote);
}

// Wakes up when a file, or what its path leads to, may have changed.
class Watch {
 public:
  explicit Watch(const std::string& path)
      : path_(path), directory_(directoryOf(path)), fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}
  ~Watch() {
    if (fd_ >= 0) (void)close(fd_);  // LCOV_EXCL_BR_LINE: only without descriptors
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Looks from now on at the open file, -1 for none, and at what the path leads to now.
  void arm(int open_file) {
    constexpr uint32_t kArrival =
        IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    constexpr uint32_t kChange = IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
    const int before[] = {open_, named_};
    const int directory = inotify_add_watch(fd_, directory_.c_str(), kArrival);
    named_ = inotify_add_watch(fd_, path_.c_str(), kChange);
    // LCOV_EXCL_BR_NEXT: beyond the kernel's limit of watches
    const bool named_unseen = named_ < 0 && errno != ENOENT;
    // Not by its name, which may be another file's by now.
    const std::string open_path = "/proc/self/fd/" + std::to_string(open_file);
    open_ = open_file < 0 ? -1 : inotify_add_watch(fd_, open_path.c_str(), kChange);
    // LCOV_EXCL_BR_NEXT: as above
    const bool open_unseen = open_ < 0 && open_file >= 0;
    // LCOV_EXCL_BR_NEXT: as above, and of a remote file system, which needs a server
    polls_ = directory < 0 || named_unseen || open_unseen || isLink(path_) || isRemote(directory_);
    for (const int watch : before)
      if (watch >= 0 && watch != open_ && watch != named_) (void)inotify_rm_watch(fd_, watch);
  }

  // Returns: false when nobody reads standard output any more.
  bool wait() const {
    pollfd fds[] = {{fd_, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    (void)poll(fds, 2, polls_ ? kPollInterval : -1);
    char events[4096];
    while (read(fd_, events, sizeof events) > 0) continue;
    return (fds[1].revents & (POLLERR | POLLHUP)) == 0;
  }

 private:
  const std::string path_;
  const std::string directory_;
  const int fd_;
  bool polls_ = false;
  int open_ = -1;  // the watches of the files
  int named_ = -1;
};

class Follower {
 public:
  Follower(const std::string& path, Input* input, LineSplitter* lines, View* view)
      : path_(path), input_(input), lines_(lines), view_(view), watch_(path) {}

  bool run() {
    do {
      watch_.arm(input_->isOpen() ? input_->fd() : -1);
      if (!readAll()) return false;  // LCOV_EXCL_BR_LINE: only of a damaged disk
      view_->flush();
    } while (watch_.wait());
    return true;
  }

 private:
  // Reads what is there, in the file that is open and in the one that has taken its place.
  bool readAll() {
    // LCOV_EXCL_BR_NEXT: reading fails only of a damaged disk
    if (input_->isOpen() && !readOpen()) return false;
    Input next;
    while (findNext(&next)) {
      // Its writers have left the old file, of which the last lines are there now.
      // LCOV_EXCL_BR_NEXT: as above
      if (input_->isOpen() && !input_->readOn(lines_, view_)) return false;
      lines_->finish();
      input_->swap(&next);
      if (!input_->readOn(lines_, view_)) return false;  // LCOV_EXCL_BR_LINE: as above
    }
    return true;
  }

  bool readOpen() {
    if (input_->wasCut()) {
      complain(escaped(path_) + ": was cut, showing it from its start");
      lines_->finish();
      if (!input_->seekToStart()) return false;  // LCOV_EXCL_BR_LINE: it is a regular file
    }
    return input_->readOn(lines_, view_);
  }

  // Whether there is another file at the path. An empty one is waited for: as long as there is
  // nothing in it, lines may go to the old one.
  bool findNext(Input* next) const {
    struct stat status;
    if (stat(path_.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (input_->isOpen() && (input_->isSameFile(status) || status.st_size == 0)) return false;
    // LCOV_EXCL_START: of a file that goes between the two calls
    return next->openToFollow(path_) && next->isRegular() && !next->isOutput() &&
           !(input_->isOpen() && input_->isSameFile(status));
    // LCOV_EXCL_STOP
  }

  const std::string path_;
  Input* const input_;
  LineSplitter* const lines_;
  View* const view_;
  Watch watch_;
};

}  // namespace

bool follow(const std::string& path, Input* input, LineSplitter* lines, View* view) {
  return Follower(path, input, lines, view).run();
}
