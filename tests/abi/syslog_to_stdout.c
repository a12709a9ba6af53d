/* In libsyslog's place: shows the records on standard output. A program's own definition wins over
   a shared library's. */
#include <stdarg.h>
#include <stdio.h>

#include "ku_syslog.h"

int ku_syslog(int priority, uint32_t module, uint32_t zero, uint32_t message_id, const char* format,
              ...) {
  va_list ap;
  va_start(ap, format);
  printf("syslog %d %u %u %u ", priority, (unsigned)module, (unsigned)zero, (unsigned)message_id);
  vprintf(format, ap);
  va_end(ap);
  return 0;
}
