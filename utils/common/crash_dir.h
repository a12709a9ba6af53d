// The crash handler's files in its directory: markers and traces, told apart by their names alone.
#ifndef VELORIN_COMMON_crash_dir_
#define VELORIN_COMMON_crash_dir_

#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/file.h"

constexpr char kCrashDir[] = "/local/local1";

struct CrashFile {
  std::string file;          // its name in the directory
  std::string program;       // that crashed
  std::optional<pid_t> pid;  // of a trace; a marker has none
  bool regular = false;      // anything else was put there by somebody else
  uint64_t size = 0;
  timespec changed = {};
};

// ".excl_sig.PROGRAM.lock" or ".PROGRAM_crash_trace.PID", the pid a positive number without zeros
// in front. Of the result only the names and the pid are set.
std::optional<CrashFile> parse_file_name(std::string_view name);

// The directory itself, for openat and unlinkat. Fails: not open, with errno.
Fd open_crash_dir(const std::string& dir);

// Its markers and traces: by program; the marker first, then the traces by pid. Names that are cut,
// as the handler cuts paths of more than 255 bytes, are not among them.
// Fails: empty, with errno.
std::optional<std::vector<CrashFile>> crash_files(int dir_fd);

#endif  // VELORIN_COMMON_crash_dir_
