// Counting under a spin lock on memory that two processes, or threads, share.
#ifndef VELORIN_TESTS_lock_words_
#define VELORIN_TESTS_lock_words_

#include <sched.h>
#include <stdint.h>

#include "velorin/simplelock"

// Both widths map it.
struct LockWords {
  volatile uint32_t lock;
  uint32_t come;      // how many are ready to count
  uint32_t count[2];  // equal whenever the lock is free; plain words
};
static_assert(sizeof(LockWords) == 16, "the same for both widths");

// Waits until a second one has come, so that both count at the same time, and counts. Returns:
// whether the two counters were equal every time.
inline bool count_with_another(LockWords* words, int times) {
  __atomic_fetch_add(&words->come, 1, __ATOMIC_SEQ_CST);
  while (__atomic_load_n(&words->come, __ATOMIC_SEQ_CST) % 2 != 0) sched_yield();
  bool equal = true;
  for (int i = 0; i < times; ++i) {
    if (i % 2 == 0) {
      s_lock(&words->lock);
    } else {
      while (s_lock_try(&words->lock) == 0) continue;
    }
    equal = equal && words->count[0] == words->count[1];
    ++words->count[0];
    ++words->count[1];
    s_unlock(&words->lock);
  }
  return equal;
}

#endif  // VELORIN_TESTS_lock_words_
