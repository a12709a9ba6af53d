/* Typed settings of a service from /local/local1/elc/proxy.elc, with defaults. */
#include <stdio.h>
#include <stdlib.h>
#include <velorin/elc>

enum { PORT, VERBOSE, GREETING, OFFSET, COUNT };

int main(void) {
  static char hello[] = "hello";
  elc_entry settings[COUNT] = {
      [PORT] = {.type = ELC_UINT, .name = "port", .value.UINT_type = 8080},
      [VERBOSE] = {.type = ELC_BOOL, .name = "verbose", .value.BOOL_type = false},
      [GREETING] = {.type = ELC_STR, .name = "greeting", .value.STR_type = hello},
      [OFFSET] = {.type = ELC_INT, .name = "offset", .value.INT_type = 0},
  };
  const char* const fault = _elc_init("proxy", settings, COUNT);
  if (fault != NULL) printf("%s\n", fault); /* what stands before it holds nevertheless */

  printf("port %u%s\n", settings[PORT].value.UINT_type, settings[PORT].is_set ? "" : " (default)");
  printf("verbose %s\n", settings[VERBOSE].value.BOOL_type ? "yes" : "no");
  printf("greeting %s\n", settings[GREETING].value.STR_type);
  printf("offset %d\n", settings[OFFSET].value.INT_type);
  if (settings[GREETING].is_set) free(settings[GREETING].value.STR_type);
  return fault != NULL;
}
