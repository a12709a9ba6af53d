// Lets processes read their settings anew. See reload.h.
#include "reload.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {  // which glibc 2.36 forgets
#include <sys/pidfd.h>
}

#include <algorithm>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/file.h"
#include "common/proc.h"
#include "common/text.h"
#include "processes.h"

namespace {

constexpr int kReloadSignal = SIGUSR1;

bool is_number(const std::string& text) {
  return text.find_first_not_of("0123456789") == std::string::npos;
}

// One of the processes asked for, and what became of it.
struct Target {
  std::string text;     // the pid or the name
  bool found = false;   // a process that it names
  bool missed = false;  // one of these was not signalled
};

bool names(const Target& target, const Process& process) {
  if (is_number(target.text)) return target.text == std::to_string(process.pid);
  return target.text == process.name || target.text == process.program;
}

// What was done, process by process.
class Reloading {
 public:
  explicit Reloading(const std::vector<std::string>& targets) {
    for (const std::string& text : targets) targets_.push_back({text});
  }

  void look_and_send(pid_t pid);
  int finish();

 private:
  // Whether it was asked for, by its pid, by its name, or with all others.
  bool wanted(const Process& process, Sight sight) const;
  void settle(const Process& process, const std::string& objection);

  std::vector<Target> targets_;
  std::vector<Process> hidden_;
  int signalled_ = 0;
  bool failed_ = false;  // a process could not be signalled that should have been
};

bool Reloading::wanted(const Process& process, Sight sight) const {
  if (targets_.empty()) return sight == Sight::kSeen && process.uses_log();
  return std::any_of(targets_.begin(), targets_.end(),
                     [&](const Target& target) { return names(target, process); });
}

// Why the process is not to be signalled; empty when it is.
std::string objection_to(const Process& process, Sight sight) {
  if (sight == Sight::kHidden) return "you may not look at it";
  if (!process.uses_log()) return "does not use the debug log";
  if (process.reload == Reload::kIgnored) return "ignores the signal";
  if (process.reload == Reload::kDeadly) return "does not handle the signal and would die of it";
  return "";
}

void Reloading::look_and_send(pid_t pid) {
  // While this is open, what /proc tells is of this process, or the signal reaches nobody: the pid
  // may be another's only after this one has ended.
  const Fd process_fd(pidfd_open(pid, 0));
  const int open_errno = errno;
  Process process;
  const Sight sight = look_at(pid, &process);
  if (sight == Sight::kNone) return;
  if (sight == Sight::kHidden) hidden_.push_back(process);
  if (!wanted(process, sight)) return;
  std::string objection = objection_to(process, sight);
  // LCOV_EXCL_START: without descriptors, and of a process that ends meanwhile
  if (objection.empty() && !process_fd.is_open()) {
    objection = strerror(open_errno);
    failed_ = true;
  }
  if (objection.empty() && pidfd_send_signal(process_fd.get(), kReloadSignal, nullptr, 0) != 0) {
    if (errno == ESRCH) return;
    objection = strerror(errno);
    failed_ = true;
  }
  // LCOV_EXCL_STOP
  settle(process, objection);
}

void Reloading::settle(const Process& process, const std::string& objection) {
  for (Target& target : targets_) {
    if (!names(target, process)) continue;
    target.found = true;
    target.missed = target.missed || !objection.empty();
  }
  if (objection.empty()) {
    ++signalled_;
    (void)printf("signalled %s\n", words_of(process).c_str());
  } else {
    (void)printf("not signalled %s: %s\n", words_of(process).c_str(), objection.c_str());
  }
}

int Reloading::finish() {
  finish_output();
  bool missed = failed_;
  for (const Target& target : targets_) {
    if (!target.found) complain("there is no process '" + visible(target.text) + "'");
    missed = missed || !target.found || target.missed;
  }
  if (targets_.empty()) complain_of_hidden(hidden_);
  if (signalled_ == 0 && targets_.empty()) complain("no process handles the signal");
  return missed || signalled_ == 0 ? kFailed : kDone;
}

}  // namespace

int reload(const Request& request) {
  Reloading reloading(request.targets);
  for (const pid_t pid : all_processes())
    if (pid != getpid()) reloading.look_and_send(pid);
  return reloading.finish();
}
