// Stands in for system calls of this process, libraries included, that no real world makes fail.
#ifndef VELORIN_TESTS_system_calls_
#define VELORIN_TESTS_system_calls_

#include <sys/types.h>

#include <functional>

// What a program that uses this changes about its own calls; each passes on to the kernel
// otherwise.
struct SystemCalls {
  int interrupted_sends = 0;  // so many next sendto calls fail with EINTR
  int interrupted_reads = 0;  // the same for read
  bool shmat_gives_null = false;
  std::function<void(int flags, size_t address_len)> before_send;  // seen by every sendto
};
extern SystemCalls system_calls;

#endif  // VELORIN_TESTS_system_calls_
