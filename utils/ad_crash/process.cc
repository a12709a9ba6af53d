// Processes that may be the ones that left a trace. See process.h.
#include "process.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <sstream>
#include <vector>

#include "common/text.h"

namespace {

constexpr size_t kMaxStat = 4096;
constexpr int kStateField = 3;  // of /proc/PID/stat, counted from 1
constexpr int kStartField = 22;

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
  // LCOV_EXCL_BR_NEXT: the kernel writes one
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
  if (!stat) {
    const std::string entry = proc_path(pid, "");
    // LCOV_EXCL_BR_NEXT: the kernel lets everybody read it
    return access(entry.c_str(), F_OK) == 0 ? Owner::kUnknown : Owner::kNobody;
  }
  // LCOV_EXCL_BR_NEXT: a process is X only while it goes
  if (stat->state == 'Z' || stat->state == 'X') return Owner::kNobody;
  if (stat->started > seconds(trace_written) + kClockSlack) return Owner::kOther;
  const std::string file = program_file_of(pid);
  if (file.empty()) return Owner::kUnknown;
  if (base_name(file) == program || base_name(without_deleted(file)) == program)
    return Owner::kProgram;
  return Owner::kOther;
}

const char* words_of(Owner owner) {
  switch (owner) {  // LCOV_EXCL_BR_LINE: there is a case for each
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

Fd open_mapped(pid_t pid, const std::string& path, FileId* id, std::string* why) {
  const std::optional<std::vector<Mapping>> maps = read_maps(pid);
  // LCOV_EXCL_START: only of a process that ends while it is looked at
  if (!maps) {
    *why = strerror(errno);
    return Fd();
  }
  // LCOV_EXCL_STOP
  for (const Mapping& mapping : *maps) {
    if (mapping.path != path && without_deleted(mapping.path) != path) continue;
    *id = {mapping.device, mapping.inode, mapping.path != path};
    char range[64];
    (void)snprintf(range, sizeof range, "map_files/%llx-%llx",
                   static_cast<unsigned long long>(mapping.start),
                   static_cast<unsigned long long>(mapping.end));
    return open_regular(AT_FDCWD, proc_path(pid, range), Links::kFollow, why);
  }
  *why = "it has mapped no file of this name";
  return Fd();
}
