/* Defines symbols of the library itself: the library must use the program's, as it does unless it
   is linked with -Bsymbolic. Usage: interposing DAEMON, the base path of a log daemon. */
#include <signal.h>
#include <string.h>

#include "expect.h"
#include "velorin/ad_debug"

/* AddressSanitizer takes a datum that two files define for a mistake; here it is the point. */
const char* __asan_default_options(void) __attribute__((visibility("default")));
const char* __asan_default_options(void) {
  return "detect_odr_violation=0";
}

uint32_t ad_debug_module_id = 4711;
char ad_debug_process_name[256] = "interposing";

static int settings_read;

void ad_read_debug_cfg(const char* path, int32_t* level, uint32_t* cip, uint32_t* sip) {
  (void)path;
  ++settings_read;
  *level = 2;
  *cip = 0;
  *sip = 0;
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  EXPECT(getprocname() == ad_debug_process_name);
  EXPECT(strcmp(getprocname(), "interposing") == 0);
  EXPECT(ad_init_debug_lib(argv[1]) == 0);
  EXPECT(settings_read == 1);
  EXPECT(ad_debug_cfg_p->ad_debug_level == 2);
  raise(SIGUSR1);
  EXPECT(settings_read == 2);
  AD_CRTC("the program's name and module\n");
  ad_debug_set_default_module_id(12);
  EXPECT(ad_debug_module_id == 12);
  return failures == 0 ? 0 : 1;
}
