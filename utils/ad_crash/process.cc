// Processes that may be the ones that left a trace. See process.h.
#include "process.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <sstream>

#include "text.h"

namespace {

constexpr size_t kMaxMaps = 16 << 20;
constexpr size_t kMaxStat = 4096;
constexpr char kDeleted[] = " (deleted)";  // what the kernel adds to the name of a removed file
constexpr int kStateField = 3;             // of /proc/PID/stat, counted from 1
constexpr int kStartField = 22;

std::string proc(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

std::optional<std::string> read_proc(pid_t pid, const char* file, size_t max) {
  const Fd fd(open(proc(pid, file).c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.is_open()) return std::nullopt;
  return read_up_to(fd.get(), max);
}

std::string without_deleted(std::string name) {
  const size_t tail = strlen(kDeleted);
  if (name.size() > tail && name.compare(name.size() - tail, tail, kDeleted) == 0)
    name.resize(name.size() - tail);
  return name;
}

struct Stat {
  char state = '?';
  double started = 0;  // seconds since 1970
};

double seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

std::optional<Stat> read_stat(pid_t pid) {
  const std::optional<std::string> text = read_proc(pid, "stat", kMaxStat);
  if (!text) return std::nullopt;
  // The name in parentheses may hold anything, parentheses too.
  const size_t name_end = text->rfind(')');
  if (name_end == std::string::npos) return std::nullopt;
  std::istringstream fields(text->substr(name_end + 1));
  Stat stat;
  unsigned long long ticks = 0;
  std::string skipped;
  fields >> stat.state;
  for (int field = kStateField + 1; field < kStartField; ++field) fields >> skipped;
  fields >> ticks;
  timespec now, up;
  (void)clock_gettime(CLOCK_REALTIME, &now);
  (void)clock_gettime(CLOCK_BOOTTIME, &up);
  stat.started = seconds(now) - seconds(up) +
                 static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
  return stat;
}

}  // namespace

Owner owner_of(pid_t pid, const std::string& program, const timespec& trace_written) {
  constexpr double kClockSlack = 2;  // seconds that file times and the clock may be apart
  const std::optional<Stat> stat = read_stat(pid);
  if (!stat) return access(proc(pid, "").c_str(), F_OK) == 0 ? Owner::kUnknown : Owner::kNobody;
  if (stat->state == 'Z' || stat->state == 'X') return Owner::kNobody;
  if (stat->started > seconds(trace_written) + kClockSlack) return Owner::kOther;
  const std::string file = program_file_of(pid);
  if (file.empty()) return Owner::kUnknown;
  if (base_name(file) == program || base_name(without_deleted(file)) == program)
    return Owner::kProgram;
  return Owner::kOther;
}

const char* words_of(Owner owner) {
  switch (owner) {
    case Owner::kNobody:
      return "process gone";
    case Owner::kProgram:
      return "process still runs: it waits for a debugger or is parked";
    case Owner::kOther:
      return "process gone, its pid is another's now";
    case Owner::kUnknown:
      break;
  }
  return "a process with this pid runs, of which program cannot be seen";
}

std::string program_file_of(pid_t pid) {
  std::array<char, 4096> name;
  const ssize_t len = readlink(proc(pid, "exe").c_str(), name.data(), name.size());
  return len > 0 ? std::string(name.data(), static_cast<size_t>(len)) : "";
}

Fd open_running_program(pid_t pid, std::string* why) {
  return open_regular(AT_FDCWD, proc(pid, "exe"), Links::kFollow, why);
}

Fd open_mapped(pid_t pid, const std::string& path, FileId* id, std::string* why) {
  const std::optional<std::string> maps = read_proc(pid, "maps", kMaxMaps);
  if (!maps) {
    *why = strerror(errno);
    return Fd();
  }
  std::istringstream lines(*maps);
  for (std::string line; std::getline(lines, line);) {
    // "START-END MODE OFFSET MAJOR:MINOR INODE      PATH"
    unsigned long long start, end, inode;
    unsigned major_number, minor_number;
    int name = 0;
    if (sscanf(line.c_str(), "%llx-%llx %*s %*x %x:%x %llu %n", &start, &end, &major_number,
               &minor_number, &inode, &name) < 5 ||
        name == 0)
      continue;
    const std::string mapped = line.substr(static_cast<size_t>(name));
    if (mapped != path && mapped != path + kDeleted) continue;
    *id = {makedev(major_number, minor_number), static_cast<ino_t>(inode), mapped != path};
    char range[64];
    (void)snprintf(range, sizeof range, "map_files/%llx-%llx", start, end);
    return open_regular(AT_FDCWD, proc(pid, range), Links::kFollow, why);
  }
  *why = "it has mapped no file of this name";
  return Fd();
}
