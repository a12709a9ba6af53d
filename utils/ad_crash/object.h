// The programs and libraries that a trace names: which file each is now, whether that is still the
// one that crashed, and where it was loaded.
#ifndef VELORIN_AD_CRASH_object_
#define VELORIN_AD_CRASH_object_

#include <time.h>

#include <optional>
#include <string>
#include <vector>

#include "common/elf.h"
#include "common/file.h"
#include "process.h"
#include "trace.h"

// What is known about a trace beside its text.
struct Origin {
  std::string program;  // empty: not known, the trace's file has another name
  std::optional<pid_t> pid;
  timespec written = {};
  Owner owner = Owner::kNobody;  // of the pid
};

// What the user said about the program itself.
struct Hints {
  std::string program_file;             // empty: nothing
  std::optional<std::string> build_id;  // its bytes
};

struct Object {
  std::string path;         // as the trace names it
  bool is_program = false;  // and not a library
  std::string file;         // the file that it is taken from, absolute
  Fd fd;                    // of that file
  std::optional<Elf> elf;
  std::optional<uint64_t> base;  // what to take off an address in memory to get the file's
  std::vector<std::string> remarks;
  std::string problem;       // why no address is decoded; empty: they are
  bool wrong_build = false;  // the problem is the build id
};

// In the order in which the trace's symbol lines name them. A program file that the user named
// comes behind them when they do not name the program.
std::vector<Object> objects_of(const Trace& trace, const Origin& origin, const Hints& hints);

#endif  // VELORIN_AD_CRASH_object_
