// The proxy's crashes. See crash.h.
#include "crash.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "velorin/Exception"
#include "velorin/ad_debug"

namespace {

// The log as it may be used in a signal handler: to the daemon, never to syslog.
__attribute__((format(printf, 1, 2))) int logLine(const char* format, ...) {
  char line[512];
  va_list ap;
  va_start(ap, format);
  const int length = vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  ad_debug_in_sighandler = 1;
  AD_CRTC("%s", line);
  return length;
}

alignas(16) char stack[SIG_ALTERNATE_STACK_SIZE];

}  // namespace

void handleCrashes(sig_signal_action action) {
  sig_set_action(action);
  if (sig_init(logLine) == 0) throw Exception(std::string("sig_init: ") + strerror(errno));
  if (sig_use_alternate_stack(stack, sizeof stack) == 0)
    throw Exception(std::string("sig_use_alternate_stack: ") + strerror(errno));
}

__attribute__((no_sanitize("undefined"))) void crash() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
  abort();
}
