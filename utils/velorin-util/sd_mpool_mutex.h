// Taking and releasing the mutex of a pool: nearly all that an allocation costs.
//
// It is the C library's mutex, and others may take it with the C library's calls, though not wait
// on it with a condition variable. One of the default kind is a single word for glibc (2.36): 0
// free, 1 held, 2 held and perhaps waited for. The steps from 0 to 1 and back, which are all of it
// unless threads meet, are inlined here, and an allocation takes a third to a half less time;
// waiting, waking and other kinds are left to glibc's calls.
//
// ThreadSanitizer and helgrind know of a mutex by those calls alone: with VELORIN_PLAIN_MUTEX, and
// where the library itself is built for the sanitizer, nothing is inlined.
#ifndef VELORIN_sd_mpool_mutex_
#define VELORIN_sd_mpool_mutex_

#include <pthread.h>

#if defined(VELORIN_PLAIN_MUTEX) || defined(__SANITIZE_THREAD__) || !defined(__GLIBC__)
#define VELORIN_CALLS_MUTEX
#elif !__has_include(<sys/single_threaded.h>)
#define VELORIN_CALLS_MUTEX
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VELORIN_CALLS_MUTEX
#endif
#endif

#ifndef VELORIN_CALLS_MUTEX
#include <sys/single_threaded.h>
#endif

namespace velorin::internal {

#ifdef VELORIN_CALLS_MUTEX

inline bool try_mutex(pthread_mutex_t*) {
  return false;
}

inline void release_mutex(pthread_mutex_t* mutex) {
  (void)pthread_mutex_unlock(mutex);
}

#else

constexpr int kMutexFree = 0;
constexpr int kMutexHeld = 1;

// Other kinds ask who takes them, how often, or with which priority; one whose lock is elided is of
// another kind too.
inline bool is_default(const pthread_mutex_t* mutex) {
  return __atomic_load_n(&mutex->__data.__kind, __ATOMIC_RELAXED) == PTHREAD_MUTEX_DEFAULT;
}

// glibc counts those who took it by a call, up when they have it and down before they release it.
inline bool is_taken_by_call(const pthread_mutex_t* mutex) {
  return mutex->__data.__nusers != 0;
}

// Replaces the mutex's word when it is `from`. Returns: whether it was. In a process of one thread
// without locking the bus, as glibc does.
inline bool step(pthread_mutex_t* mutex, int from, int to, int order) {
  int* const word = &mutex->__data.__lock;
  if (!__libc_single_threaded)
    return __atomic_compare_exchange_n(word, &from, to, false, order, __ATOMIC_RELAXED);
  if (*word != from) return false;
  __atomic_signal_fence(__ATOMIC_SEQ_CST);  // what a signal handler finds locked stays so
  *word = to;
  __atomic_signal_fence(__ATOMIC_SEQ_CST);
  return true;
}

// Returns: whether the mutex was taken; if not, pthread_mutex_lock may have to wait for it.
inline bool try_mutex(pthread_mutex_t* mutex) {
  return is_default(mutex) && step(mutex, kMutexFree, kMutexHeld, __ATOMIC_ACQUIRE);
}

[[gnu::cold, gnu::noinline]] inline void release_mutex_by_call(pthread_mutex_t* mutex) {
  // Somebody waits for a mutex that was not taken by a call: released as if it had been.
  if (is_default(mutex) && !is_taken_by_call(mutex)) mutex->__data.__nusers = 1;
  (void)pthread_mutex_unlock(mutex);
}

inline void release_mutex(pthread_mutex_t* mutex) {
  if (__builtin_expect(is_default(mutex) && !is_taken_by_call(mutex), true) &&
      __builtin_expect(step(mutex, kMutexHeld, kMutexFree, __ATOMIC_RELEASE), true))
    return;
  release_mutex_by_call(mutex);
}

#endif

}  // namespace velorin::internal

#undef VELORIN_CALLS_MUTEX

#endif  // VELORIN_sd_mpool_mutex_
