// Processes that use the debug log, as /proc shows them.
#ifndef VELORIN_AD_DEBUGCTL_processes_
#define VELORIN_AD_DEBUGCTL_processes_

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

// A record that a process has attached.
struct Attached {
  uint32_t key;
  int id;
  bool removed;  // no longer to be found by its key
  bool foreign;  // of another IPC namespace, whose ids are not ours
};

// What the reload signal does to a process.
enum class Reload { kHandled, kIgnored, kDeadly };

struct Process {
  pid_t pid = 0;
  std::string name;      // as ps shows it, or the program's where that is cut
  std::string program;   // the base name of its file; empty: not to be seen
  int width = 0;         // 32 or 64; 0: not to be seen
  bool has_log = false;  // the debug log is linked into it or loaded
  std::vector<Attached> records;
  Reload reload = Reload::kDeadly;

  // LCOV_EXCL_BR_NEXT: only a program that attaches a record without this library
  bool uses_log() const { return has_log || !records.empty(); }
};

enum class Sight {
  kSeen,
  kHidden,  // it belongs to somebody else; of the rest only pid and name are set
  kNone,    // it has ended, or is a thread of the kernel
};
Sight look_at(pid_t pid, Process* process);

// "PID NAME", for messages.
std::string words_of(const Process& process);

// Says on standard error which processes were hidden, when there are any.
void complain_of_hidden(const std::vector<Process>& hidden);

#endif  // VELORIN_AD_DEBUGCTL_processes_
