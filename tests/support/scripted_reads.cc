// A definition of read that comes before the system library's. See scripted_reads.h.
#undef _FORTIFY_SOURCE  // its inline form cannot be defined again
#include "support/scripted_reads.h"

#include <dlfcn.h>
#include <errno.h>
#include <unistd.h>

#include <algorithm>

std::deque<ScriptedRead> scripted_reads;

#pragma GCC visibility push(default)

extern "C" ssize_t read(int fd, void* room, size_t len) {
  static const auto real = reinterpret_cast<decltype(&read)>(dlsym(RTLD_NEXT, "read"));
  if (scripted_reads.empty()) return real(fd, room, len);
  const ScriptedRead script = scripted_reads.front();
  scripted_reads.pop_front();
  if (script.error == 0) return real(fd, room, std::min(len, script.bytes));
  errno = script.error;
  return -1;
}

#pragma GCC visibility pop
