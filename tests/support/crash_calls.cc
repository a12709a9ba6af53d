// Definitions that come before those of the system library. See crash_calls.h.
#undef _FORTIFY_SOURCE  // its inline forms cannot be defined again
#include "support/crash_calls.h"

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

CrashCalls crash_calls;

namespace {

template <typename Function>
Function* lookUp(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct RealCalls {
  decltype(readlink)* read_link = lookUp<decltype(readlink)>("readlink");
  decltype(strdup)* duplicate = lookUp<decltype(strdup)>("strdup");
  int (*set_action)(int, const struct sigaction*, struct sigaction*) =
      lookUp<int(int, const struct sigaction*, struct sigaction*)>("sigaction");
  decltype(setrlimit)* set_limit = lookUp<decltype(setrlimit)>("setrlimit64");
  decltype(sleep)* sleep_for = lookUp<decltype(sleep)>("sleep");
  decltype(sigdescr_np)* describe = lookUp<decltype(sigdescr_np)>("sigdescr_np");
  int (*format)(char*, size_t, const char*,
                va_list) = lookUp<int(char*, size_t, const char*, va_list)>("vsnprintf");
};

// Looked up by the first call: those of the sanitizers come before any constructor.
const RealCalls& real() {
  static const RealCalls calls;
  return calls;
}

int fail(int error) {
  errno = error;
  return -1;
}

__attribute__((format(printf, 3, 0))) int format_into(char* room, size_t size, const char* format,
                                                      va_list arguments) {
  if (crash_calls.refused_format == nullptr || strcmp(format, crash_calls.refused_format) != 0)
    return real().format(room, size, format, arguments);
  memset(room, 'x', size);
  return -1;
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" ssize_t readlink(const char* path, char* room, size_t size) noexcept {
  if (strcmp(path, "/proc/self/exe") == 0) {
    if (crash_calls.readlink_errno != 0) return fail(crash_calls.readlink_errno);
    if (crash_calls.program_link != nullptr) {
      const size_t length = std::min(strlen(crash_calls.program_link), size);
      memcpy(room, crash_calls.program_link, length);
      return static_cast<ssize_t>(length);
    }
  }
  return real().read_link(path, room, size);
}

extern "C" char* strdup(const char* text) noexcept {
  if (!crash_calls.no_memory_for_strdup) return real().duplicate(text);
  errno = ENOMEM;
  return nullptr;
}

extern "C" int sigaction(int number, const struct sigaction* action,
                         struct sigaction* previous) noexcept {
  if (action != nullptr && number == crash_calls.refused_signal) return fail(EPERM);
  return real().set_action(number, action, previous);
}

// With 64-bit file offsets its name is setrlimit64.
extern "C" int setrlimit(__rlimit_resource_t resource, const struct rlimit* limit) noexcept {
  if (resource != RLIMIT_CORE) return real().set_limit(resource, limit);
  if (crash_calls.setrlimit_errno != 0) return fail(crash_calls.setrlimit_errno);
  rlimit changed = *limit;
  rlimit present;
  if (crash_calls.hard_core_limit_stays && getrlimit(RLIMIT_CORE, &present) == 0)
    changed.rlim_max = present.rlim_max;
  return real().set_limit(resource, &changed);
}

extern "C" unsigned sleep(unsigned seconds) {
  if (crash_calls.on_sleep == nullptr) return real().sleep_for(seconds);
  crash_calls.on_sleep(seconds);
  return std::exchange(crash_calls.left_of_sleep, 0);
}

extern "C" const char* sigdescr_np(int number) noexcept {
  if (crash_calls.signal_description != nullptr) return crash_calls.signal_description;
  return real().describe(number);
}

extern "C" __attribute__((format(printf, 3, 0))) int vsnprintf(char* room, size_t size,
                                                               const char* format,
                                                               va_list arguments) noexcept {
  return format_into(room, size, format, arguments);
}

// What vsnprintf is in code with fortified sources.
extern "C" __attribute__((format(printf, 5, 0))) int __vsnprintf_chk(char* room, size_t size, int,
                                                                     size_t, const char* format,
                                                                     va_list arguments) noexcept {
  return format_into(room, size, format, arguments);
}

#pragma GCC visibility pop
