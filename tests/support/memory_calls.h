// Stands in for memory and mutex calls of this process, libraries included: makes chosen ones fail
// and keeps account of the mappings.
#ifndef VELORIN_TESTS_memory_calls_
#define VELORIN_TESTS_memory_calls_

#include <pthread.h>
#include <stddef.h>

#include <vector>

#include "velorin/sig_handler"

// One kind of call. Works as it is from the program's start, before constructors run.
struct FailingCall {
  int fails_at = 0;  // 1: the next one fails, 2: the one after it, ...; 0: none
  bool failsNow() { return fails_at > 0 && --fails_at == 0; }
};

struct Mapping {
  char* start;
  size_t size;
};

struct MemoryCalls {
  FailingCall map;                                              // errno ENOMEM
  FailingCall protect;                                          // errno EACCES
  FailingCall mutex_init;                                       // gives EAGAIN; leaves errno
  FailingCall mutex_lock;                                       // gives EINVAL; leaves errno
  void (*before_mutex_lock)(pthread_mutex_t* mutex) = nullptr;  // called once, then forgotten
  std::vector<Mapping> mapped;  // made and not unmapped since, in the order made
  int callbacks_stored = 0;     // by set_at_coredump_cb
  at_coredump_handler callback = nullptr;
};
extern MemoryCalls memory_calls;

#endif  // VELORIN_TESTS_memory_calls_
