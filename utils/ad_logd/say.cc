// What the daemon has to say about itself.
#include "say.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

void say(const char* fmt, ...) {
  char line[8192] = "ad_logd: ";  // room for two longest paths and a message
  const size_t head = strlen(line);
  va_list ap;
  va_start(ap, fmt);
  (void)vsnprintf(line + head, sizeof line - head - 1, fmt, ap);
  va_end(ap);
  const size_t len = strlen(line);
  line[len] = '\n';
  // Nobody is left to tell that standard error cannot be written.
  const ssize_t wrote = write(STDERR_FILENO, line, len + 1);
  (void)wrote;
}
