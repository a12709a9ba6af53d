// The crash handler's files. See crash_dir.h.
#include "crash_dir.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <tuple>

namespace {

constexpr std::string_view kMarkerHead = ".excl_sig.";
constexpr std::string_view kMarkerTail = ".lock";
constexpr std::string_view kTraceHead = ".";
constexpr std::string_view kTraceMiddle = "_crash_trace.";

bool starts_with(std::string_view text, std::string_view head) {
  return text.substr(0, head.size()) == head;
}

bool ends_with(std::string_view text, std::string_view tail) {
  return text.size() >= tail.size() && text.substr(text.size() - tail.size()) == tail;
}

std::optional<pid_t> parse_pid(std::string_view text) {
  if (text.empty() || text[0] == '0') return std::nullopt;
  int64_t number = 0;
  for (const char digit : text) {
    if (digit < '0' || digit > '9') return std::nullopt;
    number = number * 10 + (digit - '0');
    if (number > INT32_MAX) return std::nullopt;
  }
  return static_cast<pid_t>(number);
}

struct CloseDir {
  void operator()(DIR* dir) const { (void)closedir(dir); }
};

}  // namespace

std::optional<CrashFile> parse_file_name(std::string_view name) {
  CrashFile found;
  found.file = name;
  if (starts_with(name, kMarkerHead) && ends_with(name, kMarkerTail) &&
      name.size() > kMarkerHead.size() + kMarkerTail.size()) {
    name.remove_prefix(kMarkerHead.size());
    name.remove_suffix(kMarkerTail.size());
    found.program = name;
    return found;
  }
  // A program's name may hold all of this itself; only the last one stands before the pid.
  const size_t middle = name.rfind(kTraceMiddle);
  if (middle == std::string_view::npos || middle <= kTraceHead.size()) return std::nullopt;
  if (!starts_with(name, kTraceHead)) return std::nullopt;
  found.program = name.substr(kTraceHead.size(), middle - kTraceHead.size());
  found.pid = parse_pid(name.substr(middle + kTraceMiddle.size()));
  if (!found.pid) return std::nullopt;
  return found;
}

Fd open_crash_dir(const std::string& dir) {
  return Fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::optional<std::vector<CrashFile>> crash_files(int dir_fd) {
  // A descriptor of its own: one that is read to the end stays there.
  const int fd = openat(dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;  // LCOV_EXCL_BR_LINE: only without descriptors
  const std::unique_ptr<DIR, CloseDir> dir(fdopendir(fd));
  // LCOV_EXCL_START: only without memory for the stream
  if (dir == nullptr) {
    const int err = errno;
    (void)close(fd);
    errno = err;
    return std::nullopt;
  }
  // LCOV_EXCL_STOP
  std::vector<CrashFile> files;
  errno = 0;
  while (const dirent* entry = readdir(dir.get())) {
    std::optional<CrashFile> found = parse_file_name(entry->d_name);
    struct stat status;
    // What is gone by now is not there.
    // LCOV_EXCL_BR_NEXT: a file that goes between the two calls
    if (found && fstatat(dir_fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
      found->regular = S_ISREG(status.st_mode);
      found->size = static_cast<uint64_t>(status.st_size);
      found->changed = status.st_mtim;
      files.push_back(std::move(*found));
    }
    errno = 0;
  }
  if (errno != 0) return std::nullopt;  // LCOV_EXCL_BR_LINE: only of a damaged file system
  std::sort(files.begin(), files.end(), [](const CrashFile& a, const CrashFile& b) {
    return std::tie(a.program, a.pid) < std::tie(b.program, b.pid);  // no pid comes first
  });
  return files;
}
