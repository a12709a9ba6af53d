// Pools: against the mutex calls that they must contain, and against other allocators. The spin
// lock: against the two instructions that it must contain, and against other spin locks.
#include <dlfcn.h>
#include <pthread.h>
#include <spinlock/fas.h>  // of Concurrency Kit; others of its headers are not C++
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/single_threaded.h>

#include <boost/pool/pool.hpp>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "velorin/sd_mgmt"
#include "velorin/sd_mpool"
#include "velorin/simplelock"

namespace {

constexpr bench::Limit kAhead = {1.0, 1.0};
constexpr bench::Limit kNone = {};

void check(bool ok, const char* what) {
  if (ok) return;
  fprintf(stderr, "memory_bench: %s\n", what);
  exit(1);
}

// ---- The sides of the pools' contests ----

constexpr int kElements = 1024;
constexpr int kElementSize = 64;
constexpr size_t kPairs = 1000;  // by each thread in a timed call: it is over before an interrupt
constexpr size_t kBurst = 64;    // elements held at a time

constexpr size_t kCacheLine = 64;

int pool_index = -1;
int uneven_index = -1;  // of elements whose size is no power of two
mpool_hdr_t* pool_block = nullptr;
alignas(kCacheLine) pthread_mutex_t peer_mutex = PTHREAD_MUTEX_INITIALIZER;

boost::pool<>& boostPool() {
  static boost::pool<> pool(kElementSize, kElements);
  return pool;
}

// An allocator that the process has loaded beside the C library's. All are called through a
// pointer, as the calls into a shared library are.
struct Allocator {
  void* (*allocate)(size_t) = nullptr;
  void (*release)(void*) = nullptr;
};
Allocator glibc, jemalloc, mimalloc;

Allocator allocatorOf(const char* library, const char* allocate, const char* release) {
  void* const handle = dlopen(library, RTLD_NOLOAD | RTLD_LAZY);
  check(handle != nullptr, library);
  Allocator found;
  found.allocate = reinterpret_cast<void* (*)(size_t)>(dlsym(handle, allocate));
  found.release = reinterpret_cast<void (*)(void*)>(dlsym(handle, release));
  check(found.allocate != nullptr && found.release != nullptr, allocate);
  return found;
}

void findAllocators() {
  glibc = allocatorOf("libc.so.6", "malloc", "free");
  jemalloc = allocatorOf("libjemalloc.so.2", "malloc", "free");
  mimalloc = allocatorOf("libmimalloc.so.2", "mi_malloc", "mi_free");
  check(glibc.allocate != jemalloc.allocate && jemalloc.allocate != mimalloc.allocate,
        "one allocator under two names");
}

struct ByIndex {
  static void* allocate() { return sd_elm_alloc(pool_index); }
  static void release(void* e) { (void)sd_elm_free(pool_index, e); }
};

struct ByUnevenIndex {
  static void* allocate() { return sd_elm_alloc(uneven_index); }
  static void release(void* e) { (void)sd_elm_free(uneven_index, e); }
};

struct OnBlock {
  static void* allocate() { return mpool_alloc_elm(pool_block); }
  static void release(void* e) { mpool_free_elm(pool_block, e); }
};

// As it is compiled into a program that uses it.
struct BoostPool {
  static void* allocate() {
    (void)pthread_mutex_lock(&peer_mutex);
    void* const e = boostPool().malloc();
    (void)pthread_mutex_unlock(&peer_mutex);
    return e;
  }
  static void release(void* e) {
    (void)pthread_mutex_lock(&peer_mutex);
    boostPool().free(e);
    (void)pthread_mutex_unlock(&peer_mutex);
  }
};

// As a program calls it that has it in a shared library, where ours is.
struct BoostCalled {
  static __attribute__((noinline)) void* boostAllocate() { return BoostPool::allocate(); }
  static __attribute__((noinline)) void boostRelease(void* e) { BoostPool::release(e); }
  static void* (*volatile const allocate)();
  static void (*volatile const release)(void*);
};
void* (*volatile const BoostCalled::allocate)() = BoostCalled::boostAllocate;
void (*volatile const BoostCalled::release)(void*) = BoostCalled::boostRelease;

// They take no mutex: each thread has a cache of its own.
template <const Allocator& allocator>
struct Malloc {
  static void* allocate() { return allocator.allocate(kElementSize); }
  static void release(void* e) { allocator.release(e); }
};

// What an allocation and a free cannot do without. No memory is handed out.
struct Locks {
  static void* allocate() {
    (void)pthread_mutex_lock(&peer_mutex);
    (void)pthread_mutex_unlock(&peer_mutex);
    return &peer_mutex;
  }
  static void release(void*) {
    (void)pthread_mutex_lock(&peer_mutex);
    (void)pthread_mutex_unlock(&peer_mutex);
  }
};

template <class Side, size_t pairs>
void oneAtATime() {
  for (size_t i = 0; i < pairs; ++i) {
    void* e = Side::allocate();
    bench::keep(e);
    Side::release(e);
  }
}

template <class Side, size_t pairs>
void inBursts() {
  void* held[kBurst];
  for (size_t i = 0; i < pairs; i += kBurst) {
    for (void*& e : held) e = Side::allocate();
    bench::keep(held);
    for (void* const e : held) Side::release(e);
  }
}

// Whether it hands out elements of their own that can be filled, and takes them back: the answer
// that all of them have in common.
template <class Side>
bool handsOutElements() {
  void* const first = Side::allocate();
  void* const second = Side::allocate();
  if (first == nullptr || second == nullptr) return false;
  memset(first, 1, kElementSize);
  memset(second, 2, kElementSize);
  const bool apart = static_cast<char*>(first)[kElementSize - 1] == 1;
  Side::release(second);
  Side::release(first);
  return apart;
}

template <>
bool handsOutElements<Locks>() {
  return pthread_mutex_trylock(&peer_mutex) == 0 && pthread_mutex_unlock(&peer_mutex) == 0;
}

// ---- The pools' contests ----

using Run = std::function<void()>;

template <class Ours, class Peer>
void contestAlone(bench::Contests& contests, const std::string& name, const char* peer_name,
                  bench::Limit limit) {
  contests.run({name, peer_name, limit, kPairs,
                [] { return handsOutElements<Ours>() && handsOutElements<Peer>(); },
                oneAtATime<Ours, kPairs>, oneAtATime<Peer, kPairs>});
}

template <class Ours>
void contestsAlone(bench::Contests& contests, const std::string& name, bench::Limit locks) {
  contestAlone<Ours, Locks>(contests, name, "two mutex pairs", locks);
  contestAlone<Ours, BoostCalled>(contests, name, "boost::pool", kAhead);
  contestAlone<Ours, BoostPool>(contests, name, "boost, inlined", kNone);
  contestAlone<Ours, Malloc<glibc>>(contests, name, "glibc malloc", kNone);
  contestAlone<Ours, Malloc<jemalloc>>(contests, name, "jemalloc", kNone);
  contestAlone<Ours, Malloc<mimalloc>>(contests, name, "mimalloc", kNone);
}

template <class Ours, class Peer>
void contestBursts(bench::Contests& contests, const std::string& name, const char* peer_name) {
  contests.run({name, peer_name, kNone, (kPairs + kBurst - 1) / kBurst * kBurst,
                [] { return handsOutElements<Ours>() && handsOutElements<Peer>(); },
                inBursts<Ours, kPairs>, inBursts<Peer, kPairs>});
}

template <class Ours>
void contestsBursts(bench::Contests& contests, const std::string& name) {
  contestBursts<Ours, Locks>(contests, name, "two mutex pairs");
  contestBursts<Ours, BoostCalled>(contests, name, "boost::pool");
  contestBursts<Ours, Malloc<glibc>>(contests, name, "glibc malloc");
  contestBursts<Ours, Malloc<jemalloc>>(contests, name, "jemalloc");
  contestBursts<Ours, Malloc<mimalloc>>(contests, name, "mimalloc");
}

template <class Ours, class Peer>
void contestShared(bench::Contests& contests, bench::TwoThreads& threads, const std::string& name,
                   const char* peer_name, bench::Limit limit) {
  contests.run({name, peer_name, limit, 2 * kPairs,
                [] { return handsOutElements<Ours>() && handsOutElements<Peer>(); },
                [&] { threads.run(oneAtATime<Ours, kPairs>); },
                [&] { threads.run(oneAtATime<Peer, kPairs>); }, [&] { threads.ready(); },
                [&] { return threads.disturbed(); }});
}

template <class Ours>
void contestsShared(bench::Contests& contests, bench::TwoThreads& threads, const std::string& name,
                    bench::Limit locks) {
  contestShared<Ours, Locks>(contests, threads, name, "two mutex pairs", locks);
  contestShared<Ours, BoostCalled>(contests, threads, name, "boost::pool", kAhead);
  contestShared<Ours, BoostPool>(contests, threads, name, "boost, inlined", kNone);
  contestShared<Ours, Malloc<glibc>>(contests, threads, name, "glibc malloc", kNone);
  contestShared<Ours, Malloc<jemalloc>>(contests, threads, name, "jemalloc", kNone);
  contestShared<Ours, Malloc<mimalloc>>(contests, threads, name, "mimalloc", kNone);
}

// ---- The spin lock ----

alignas(kCacheLine) uint32_t our_word = 0;
alignas(kCacheLine) uint32_t bare_word = 0;
alignas(kCacheLine) pthread_spinlock_t posix_lock;
alignas(kCacheLine) ck_spinlock_fas_t ck_lock = CK_SPINLOCK_FAS_INITIALIZER;

// The library's functions, which a caller gets that takes their addresses.
void (*volatile s_lock_called)(volatile uint32_t*) = nullptr;
void (*volatile s_unlock_called)(volatile uint32_t*) = nullptr;

struct Inlined {
  static void take() { s_lock(&our_word); }
  static void release() { s_unlock(&our_word); }
};

struct Called {
  void (*lock)(volatile uint32_t*) = s_lock_called;
  void (*unlock)(volatile uint32_t*) = s_unlock_called;
  void take() const { lock(&our_word); }
  void release() const { unlock(&our_word); }
};

// What taking and releasing a free lock cannot do without.
struct Bare {
  static void take() { (void)__atomic_exchange_n(&bare_word, 1, __ATOMIC_ACQUIRE); }
  static void release() { __atomic_store_n(&bare_word, 0, __ATOMIC_RELEASE); }
};

struct Posix {
  static void take() { (void)pthread_spin_lock(&posix_lock); }
  static void release() { (void)pthread_spin_unlock(&posix_lock); }
};

struct ConcurrencyKit {
  static void take() { ck_spinlock_fas_lock(&ck_lock); }
  static void release() { ck_spinlock_fas_unlock(&ck_lock); }
};

uint64_t counted = 0;  // guarded by the lock that is measured

// Takes the lock, does what it guards and releases it.
template <class Lock, size_t times>
void count() {
  const Lock lock;
  for (size_t i = 0; i < times; ++i) {
    lock.take();
    __atomic_store_n(&counted, __atomic_load_n(&counted, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
    lock.release();
  }
}

template <class Lock, size_t times>
void takeAndRelease() {
  const Lock lock;
  for (size_t i = 0; i < times; ++i) {
    lock.take();
    asm volatile("" : : : "memory");
    lock.release();
  }
}

bool locksFree() {
  return our_word == 0 && bare_word == 0 && !ck_spinlock_fas_locked(&ck_lock) &&
         pthread_spin_trylock(&posix_lock) == 0 && pthread_spin_unlock(&posix_lock) == 0;
}

template <class Ours, class Peer>
void contestLocks(bench::Contests& contests, const char* name, const char* peer_name,
                  bench::Limit limit) {
  const auto agree = [] {
    takeAndRelease<Ours, kPairs>();
    takeAndRelease<Peer, kPairs>();
    return locksFree();
  };
  contests.run({name, peer_name, limit, kPairs, agree, takeAndRelease<Ours, kPairs>,
                takeAndRelease<Peer, kPairs>});
}

template <class Ours>
void contestsLocks(bench::Contests& contests, const char* name, bench::Limit instructions) {
  contestLocks<Ours, Bare>(contests, name, "xchg and store", instructions);
  contestLocks<Ours, Posix>(contests, name, "pthread_spin", kNone);
  contestLocks<Ours, ConcurrencyKit>(contests, name, "ck_spinlock_fas", kNone);
}

// Whether no count of two threads is lost.
template <class Lock>
bool excludes(bench::TwoThreads& threads) {
  counted = 0;
  threads.ready();
  threads.run(count<Lock, kPairs>);
  return counted == 2 * kPairs && locksFree();
}

template <class Ours, class Peer>
void contestSharedLock(bench::Contests& contests, bench::TwoThreads& threads, const char* name,
                       const char* peer_name) {
  contests.run({name, peer_name, kNone, 2 * kPairs,
                [&] { return excludes<Ours>(threads) && excludes<Peer>(threads); },
                [&] { threads.run(count<Ours, kPairs>); },
                [&] { threads.run(count<Peer, kPairs>); }, [&] { threads.ready(); },
                [&] { return threads.disturbed(); }});
}

}  // namespace

int main(int argc, char** argv) {
  bench::Contests contests(argc, argv);
  findAllocators();
  pool_index = sd_create_mpool(kElements, kElementSize, /*do_erase=*/0);
  uneven_index = sd_create_mpool(kElements, kElementSize + 8, /*do_erase=*/0);
  check(pool_index >= 0 && uneven_index >= 0, "no pool");
  const int size = mpool_calculate_reqsize(kElements, kElementSize);
  void* const block = aligned_alloc(4096, static_cast<size_t>(size));
  check(block != nullptr && mpool_initialize(block, size, kElementSize) == 0, "no block");
  pool_block = static_cast<mpool_hdr_t*>(block);
  (void)pthread_spin_init(&posix_lock, PTHREAD_PROCESS_PRIVATE);
  s_lock_called = reinterpret_cast<void (*)(volatile uint32_t*)>(dlsym(RTLD_DEFAULT, "s_lock"));
  s_unlock_called = reinterpret_cast<void (*)(volatile uint32_t*)>(dlsym(RTLD_DEFAULT, "s_unlock"));
  check(s_lock_called != nullptr && s_unlock_called != nullptr, "the library has no spin lock");

  // The C library leaves the bus alone in a process that never had a second thread: its mutexes,
  // and so ours, are several times as fast there. Once there was one they never are again.
  check(__libc_single_threaded, "a library has started a thread");
  contestsAlone<ByIndex>(contests, "sd_elm/no threads", {1.4, 1.4});
  contestAlone<ByUnevenIndex, Locks>(contests, "sd_elm 72/no threads", "two mutex pairs",
                                     {1.4, 1.4});
  contestsAlone<OnBlock>(contests, "mpool/no threads", {1.4, 1.4});
  check(__libc_single_threaded, "a contest has started a thread");
  std::thread([] {}).join();

  contestsAlone<ByIndex>(contests, "sd_elm/one of threads", {1.15, 1.15});
  contestAlone<ByUnevenIndex, Locks>(contests, "sd_elm 72/one of threads", "two mutex pairs",
                                     {1.15, 1.15});
  contestsAlone<OnBlock>(contests, "mpool/one of threads", {1.15, 1.15});
  contestsBursts<ByIndex>(contests, "sd_elm/bursts of 64");
  contestsLocks<Inlined>(contests, "s_lock", {1.15, 1.25});
  contestsLocks<Called>(contests, "s_lock called", kNone);  // C and C++ callers get it inlined
  {
    bench::TwoThreads threads;
    contestsShared<ByIndex>(contests, threads, "sd_elm/two threads", {1.4, 1.4});
    contestsShared<OnBlock>(contests, threads, "mpool/two threads", {1.4, 1.4});
    contestSharedLock<Inlined, Posix>(contests, threads, "s_lock/two threads", "pthread_spin");
    contestSharedLock<Inlined, ConcurrencyKit>(contests, threads, "s_lock/two threads",
                                               "ck_spinlock_fas");
  }
  free(block);
  return contests.finish();
}
