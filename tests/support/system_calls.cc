// Definitions that come before those of the system library. See system_calls.h.
#undef _FORTIFY_SOURCE  // its inline forms cannot be defined again
#include "support/system_calls.h"

#include <dlfcn.h>
#include <errno.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

SystemCalls system_calls;

namespace {

template <typename Function>
Function* lookUp(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct RealCalls {
  decltype(sendto)* send_to = lookUp<decltype(sendto)>("sendto");
  decltype(read)* read_from = lookUp<decltype(read)>("read");
  decltype(shmat)* attach = lookUp<decltype(shmat)>("shmat");
};
// Looked up before anything else runs: signal handlers make these calls too.
__attribute__((init_priority(101))) RealCalls real;

bool interrupted(int* count) {
  if (*count == 0) return false;
  --*count;
  errno = EINTR;
  return true;
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" ssize_t sendto(int fd, const void* data, size_t len, int flags, const sockaddr* address,
                          socklen_t address_len) {
  if (system_calls.before_send) system_calls.before_send(flags, address_len);
  if (interrupted(&system_calls.interrupted_sends)) return -1;
  return real.send_to(fd, data, len, flags, address, address_len);
}

extern "C" ssize_t read(int fd, void* room, size_t len) {
  if (interrupted(&system_calls.interrupted_reads)) return -1;
  return real.read_from(fd, room, len);
}

extern "C" void* shmat(int id, const void* address, int flags) noexcept {
  return system_calls.shmat_gives_null ? nullptr : real.attach(id, address, flags);
}

#pragma GCC visibility pop
