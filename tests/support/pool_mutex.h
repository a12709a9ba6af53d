// The mutex of a pool, for tests that stand in its way.
#ifndef VELORIN_TESTS_pool_mutex_
#define VELORIN_TESTS_pool_mutex_

#include <pthread.h>

inline pthread_mutex_t* mutexOf(void* pool) {
  constexpr int kLock = sizeof(void*) == 4 ? 12 : 24;
  return reinterpret_cast<pthread_mutex_t*>(static_cast<char*>(pool) + kLock);
}

// Makes it one with other attributes, which `set` sets.
template <class Set>
void remakeMutex(void* pool, Set set) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  set(&attributes);
  pthread_mutex_destroy(mutexOf(pool));
  pthread_mutex_init(mutexOf(pool), &attributes);
  pthread_mutexattr_destroy(&attributes);
}

// While it lives, calls of this thread cannot take the mutex: it is of a kind that tells its holder
// so, and this thread holds it.
class RefusedMutex {
 public:
  explicit RefusedMutex(void* pool) : pool_(pool) {
    remakeMutex(pool, [](pthread_mutexattr_t* attributes) {
      pthread_mutexattr_settype(attributes, PTHREAD_MUTEX_ERRORCHECK);
    });
    pthread_mutex_lock(mutexOf(pool));
  }
  ~RefusedMutex() { pthread_mutex_unlock(mutexOf(pool_)); }
  RefusedMutex(const RefusedMutex&) = delete;
  RefusedMutex& operator=(const RefusedMutex&) = delete;

 private:
  void* pool_;
};

#endif  // VELORIN_TESTS_pool_mutex_
