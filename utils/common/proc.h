// What /proc tells about processes. A process may end, and its pid become another's, between any
// two of these calls: who needs to be sure holds a pidfd meanwhile.
#ifndef VELORIN_COMMON_proc_
#define VELORIN_COMMON_proc_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "common/file.h"

// "/proc/PID/FILE".
std::string proc_path(pid_t pid, const char* file);

// At most `max` bytes of that file. Fails: empty, with errno.
std::optional<std::string> read_proc(pid_t pid, const char* file, size_t max);

// The value of a line "KEY:\tVALUE" of /proc/PID/status; empty when there is no such line.
std::string status_value(const std::string& status, const char* key);

// All processes that are to be seen, in the order of their pids.
std::vector<pid_t> all_processes();

// What a process has mapped.
struct Mapping {
  uint64_t start;
  uint64_t end;
  dev_t device;
  ino_t inode;
  std::string path;  // as the kernel shows it; empty: no file
};
// Fails: empty, with errno.
std::optional<std::vector<Mapping>> read_maps(pid_t pid);

// A path as the kernel shows it, without what it adds to that of a removed file.
std::string without_deleted(std::string path);

// The program file that the process runs, by its name; empty when it cannot be seen.
std::string program_file_of(pid_t pid);

// That file itself, whatever its name leads to by now. Fails: not open, with the reason in `*why`.
Fd open_running_program(pid_t pid, std::string* why);

#endif  // VELORIN_COMMON_proc_
