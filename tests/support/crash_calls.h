// Stands in for the system calls that the crash handler makes and that a test cannot wait for or
// make fail otherwise.
#ifndef VELORIN_TESTS_crash_calls_
#define VELORIN_TESTS_crash_calls_

// What a program that uses this changes about its own calls; each passes on to the system
// otherwise. The calls come from signal handlers.
struct CrashCalls {
  const char* program_link = nullptr;            // what readlink of /proc/self/exe finds
  int readlink_errno = 0;                        // not 0: it fails so
  bool no_memory_for_strdup = false;             // it fails with ENOMEM
  int refused_signal = 0;                        // sigaction fails with EPERM to set this one
  int setrlimit_errno = 0;                       // not 0: setrlimit of the core size fails so
  bool hard_core_limit_stays = false;            // it does not lower the hard limit
  void (*on_sleep)(unsigned seconds) = nullptr;  // called in place of sleep
  unsigned left_of_sleep = 0;                    // what that sleep then returns, once
  const char* signal_description = nullptr;      // what sigdescr_np returns
  // What vsnprintf refuses to format: it fills its room, without an end, and returns -1.
  const char* refused_format = nullptr;
};
extern CrashCalls crash_calls;

#endif  // VELORIN_TESTS_crash_calls_
