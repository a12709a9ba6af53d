// What /proc tells about processes. See proc.h.
#include "proc.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <sstream>

namespace {

constexpr size_t kMaxMaps = 16 << 20;
constexpr char kDeleted[] = " (deleted)";

struct CloseDir {
  void operator()(DIR* dir) const { (void)closedir(dir); }
};

}  // namespace

std::string proc_path(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

std::optional<std::string> read_proc(pid_t pid, const char* file, size_t max) {
  const Fd fd(open(proc_path(pid, file).c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.is_open()) return std::nullopt;
  return read_up_to(fd.get(), max);
}

std::string status_value(const std::string& status, const char* key) {
  const std::string head = std::string(key) + ":\t";
  std::istringstream lines(status);
  for (std::string line; std::getline(lines, line);)
    if (line.compare(0, head.size(), head) == 0) return line.substr(head.size());
  return "";
}

std::vector<pid_t> all_processes() {
  std::vector<pid_t> pids;
  const std::unique_ptr<DIR, CloseDir> dir(opendir("/proc"));
  if (dir == nullptr) return pids;  // LCOV_EXCL_BR_LINE: only without descriptors
  while (const dirent* entry = readdir(dir.get())) {
    char* end;
    const long pid = strtol(entry->d_name, &end, 10);
    // LCOV_EXCL_BR_NEXT: the kernel's numbers fit, and no name only begins with one
    if (pid > 0 && pid <= INT32_MAX && *end == '\0') pids.push_back(static_cast<pid_t>(pid));
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

std::optional<std::vector<Mapping>> read_maps(pid_t pid) {
  const std::optional<std::string> text = read_proc(pid, "maps", kMaxMaps);
  if (!text) return std::nullopt;
  std::vector<Mapping> maps;
  std::istringstream lines(*text);
  for (std::string line; std::getline(lines, line);) {
    // "START-END MODE OFFSET MAJOR:MINOR INODE      PATH"
    unsigned long long start, end, inode;
    unsigned major_number, minor_number;
    int name = 0;
    // LCOV_EXCL_START: the kernel's lines have this form
    if (sscanf(line.c_str(), "%llx-%llx %*s %*x %x:%x %llu %n", &start, &end, &major_number,
               &minor_number, &inode, &name) < 5 ||
        name == 0)
      continue;
    // LCOV_EXCL_STOP
    maps.push_back({start, end, makedev(major_number, minor_number), static_cast<ino_t>(inode),
                    line.substr(static_cast<size_t>(name))});
  }
  return maps;
}

std::string without_deleted(std::string path) {
  const size_t tail = strlen(kDeleted);
  if (path.size() > tail && path.compare(path.size() - tail, tail, kDeleted) == 0)
    path.resize(path.size() - tail);
  return path;
}

std::string program_file_of(pid_t pid) {
  std::array<char, 4096> name;
  const ssize_t len = readlink(proc_path(pid, "exe").c_str(), name.data(), name.size());
  return len > 0 ? std::string(name.data(), static_cast<size_t>(len)) : "";
}

Fd open_running_program(pid_t pid, std::string* why) {
  return open_regular(AT_FDCWD, proc_path(pid, "exe"), Links::kFollow, why);
}
