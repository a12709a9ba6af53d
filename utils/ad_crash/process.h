// Processes that may be the ones that left a trace.
#ifndef VELORIN_AD_CRASH_process_
#define VELORIN_AD_CRASH_process_

#include <sys/types.h>
#include <time.h>

#include <string>

#include "common/proc.h"

// Who has the pid now.
enum class Owner {
  kNobody,   // also one that has ended and is not yet waited for
  kProgram,  // a process of the program, older than the trace
  kOther,    // another program, or a process that was started after the trace was written
  kUnknown,  // a process whose program cannot be seen
};
Owner owner_of(pid_t pid, const std::string& program, const timespec& trace_written);

// How `list` and `decode` say it.
const char* words_of(Owner owner);

// The file that the process has mapped from `path`, as it was when it was mapped, whatever the path
// leads to by now. For a mapping that may not be opened, `*id` still tells which file it is.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;       // 0: not known
  bool removed = false;  // from its directory
};
Fd open_mapped(pid_t pid, const std::string& path, FileId* id, std::string* why);

#endif  // VELORIN_AD_CRASH_process_
