// Definitions that come before those of the libraries. See memory_calls.h.
#include "support/memory_calls.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>

MemoryCalls memory_calls;

namespace {

template <typename Function>
Function* lookUp(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct RealCalls {
  decltype(mmap)* map = lookUp<decltype(mmap)>("mmap64");  // what the library calls: 64-bit offsets
  decltype(munmap)* unmap = lookUp<decltype(munmap)>("munmap");
  decltype(mprotect)* protect = lookUp<decltype(mprotect)>("mprotect");
  decltype(pthread_mutex_init)* init = lookUp<decltype(pthread_mutex_init)>("pthread_mutex_init");
  decltype(pthread_mutex_lock)* lock = lookUp<decltype(pthread_mutex_lock)>("pthread_mutex_lock");
  decltype(set_at_coredump_cb)* store = lookUp<decltype(set_at_coredump_cb)>("set_at_coredump_cb");
};

// Guards the account of the mappings; no mutex, as those are counted here.
class AccountLock {
 public:
  AccountLock() {
    while (held_.test_and_set(std::memory_order_acquire)) continue;
  }
  ~AccountLock() { held_.clear(std::memory_order_release); }

 private:
  static inline std::atomic_flag held_ = ATOMIC_FLAG_INIT;
};

// Looked up by the first call, which may come before our constructors run.
const RealCalls& real() {
  static const RealCalls calls;
  return calls;
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" void* mmap(void* address, size_t size, int protection, int flags, int fd,
                      off_t offset) noexcept {
  if (memory_calls.map.failsNow()) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  void* const start = real().map(address, size, protection, flags, fd, offset);
  if (start == MAP_FAILED) return start;
  const AccountLock lock;
  memory_calls.mapped.push_back({static_cast<char*>(start), size});
  return start;
}

extern "C" int munmap(void* start, size_t size) noexcept {
  {
    const AccountLock lock;
    std::vector<Mapping>& mapped = memory_calls.mapped;
    const auto is_it = [&](const Mapping& each) {
      return each.start == start && each.size == size;
    };
    mapped.erase(std::remove_if(mapped.begin(), mapped.end(), is_it), mapped.end());
  }
  return real().unmap(start, size);
}

extern "C" int mprotect(void* start, size_t size, int protection) noexcept {
  if (memory_calls.protect.failsNow()) {
    errno = EACCES;
    return -1;
  }
  return real().protect(start, size, protection);
}

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attributes) noexcept {
  return memory_calls.mutex_init.failsNow() ? EAGAIN : real().init(mutex, attributes);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  if (auto* const before = memory_calls.before_mutex_lock) {
    memory_calls.before_mutex_lock = nullptr;
    before(mutex);
  }
  return memory_calls.mutex_lock.failsNow() ? EINVAL : real().lock(mutex);
}

void set_at_coredump_cb(at_coredump_handler callback) {
  ++memory_calls.callbacks_stored;
  memory_calls.callback = callback;
  real().store(callback);
}

#pragma GCC visibility pop
