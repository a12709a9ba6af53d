/* What programs of another build, language or width take for granted of our records and types. */
#ifndef VELORIN_TESTS_ABI_layouts_
#define VELORIN_TESTS_ABI_layouts_

#include <assert.h>
#include <stdalign.h>
#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#include "velorin/ad_debug"

/* Shared between processes of both widths. */
static_assert(offsetof(ad_debug_cfg_t, ad_debug_level) == 0, "ad_debug_level");
static_assert(offsetof(ad_debug_cfg_t, debug_target_client_ip) == 4, "debug_target_client_ip");
static_assert(offsetof(ad_debug_cfg_t, debug_target_server_ip) == 8, "debug_target_server_ip");
static_assert(offsetof(ad_debug_cfg_t, para) == 12, "para");
static_assert(sizeof(ad_debug_cfg_t) == 140, "ad_debug_cfg_t");
static_assert(alignof(ad_debug_cfg_t) == 4, "ad_debug_cfg_t");

/* The globals: 32-bit words and a name. */
static_assert(sizeof ad_debug_to_syslogd == 4, "ad_debug_to_syslogd");
static_assert(sizeof ad_debug_syslog_critical_msg_only == 4, "ad_debug_syslog_critical_msg_only");
static_assert(sizeof ad_debug_in_sighandler == 4, "ad_debug_in_sighandler");
static_assert(sizeof ad_current_client_ip == 4, "ad_current_client_ip");
static_assert(sizeof ad_current_server_ip == 4, "ad_current_server_ip");
static_assert(sizeof ad_debug_module_id == 4, "ad_debug_module_id");
static_assert(sizeof ad_debug_process_name == 256, "ad_debug_process_name");

static_assert(AD_DEBUG_ERRO == 0 && AD_DEBUG_CRTC == 1, "ad_debug_tag_t");
static_assert(AD_DEBUG_TRCE == 2 && AD_DEBUG_DETL == 3, "ad_debug_tag_t");

/* The system's types with the flags that all our code is compiled with. */
static_assert(sizeof(off_t) == 8, "64-bit file offsets on both targets");
static_assert(sizeof(time_t) == (sizeof(void*) == 4 ? 4 : 8), "time_t of the target's own width");

#endif /* VELORIN_TESTS_ABI_layouts_ */
