// Watches this process's calls about processes and probes, libraries included, takes the place of
// the clock, and makes calls fail that no real world makes fail.
#ifndef VELORIN_TESTS_process_calls_
#define VELORIN_TESTS_process_calls_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// What a program that uses this changes about its own calls; each passes on to the kernel
// otherwise. Not for programs with threads.
struct ProcessCalls {
  // The calls in the order made, while `recording`: "fork", "kill PID SIGNAL", "waitpid PID",
  // "sleep SECONDS" (with nanoseconds when there are any, "sleep 0.400000000"), "connect PORT".
  bool recording = false;
  std::vector<std::string> made;

  // Takes the place of nanosleep, which returns 0 behind it.
  std::function<void()> on_sleep;
  // So many next sleeps end with EINTR and 400 milliseconds left.
  int interrupted_sleeps = 0;
  // Takes the place of kill; returns 0 or an errno.
  std::function<int(pid_t pid, int number)> on_kill;

  // An errno that calls fail with; 0: none. A close does close.
  int fork_errno = 0;
  int socket_errno = 0;
  int connect_errno = 0;
  int close_errno = 0;
};
extern ProcessCalls process_calls;

#endif  // VELORIN_TESTS_process_calls_
