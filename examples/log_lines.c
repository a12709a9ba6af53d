/* Logs one line of each kind; see docs/diagnostics.md. */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <velorin/ad_debug>

int main(void) {
  ad_debug_set_process_name("log_lines");
  ad_debug_set_default_module_id(12);
  if (ad_init_debug_lib(NULL) != 0 && ad_init_debug_lib("/tmp/ad_errorlog") != 0) return 1;

  const char* const path = "/nonexistent/list";
  FILE* const list = fopen(path, "r");
  if (list == NULL) {
    const int err = errno;
    AD_ERRO("open %s: %s\n", path, strerror(err));
  } else {
    fclose(list);
  }
  AD_CRTC("no list: every client is refused\n");
  AD_TRCE("starting with level %d\n", (int)ad_debug_cfg_p->ad_debug_level);
  AD_DETL("the record lies at %p\n", (void*)ad_debug_cfg_p);
  return 0;
}
