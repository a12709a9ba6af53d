/* What programs of another build, language or width take for granted of our records and types. */
#ifndef VELORIN_TESTS_ABI_layouts_
#define VELORIN_TESTS_ABI_layouts_

#include <assert.h>
#include <stdalign.h>
#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#include "velorin/Launcher"
#include "velorin/ad_debug"
#include "velorin/box"
#include "velorin/md5"
#include "velorin/sha"

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

static_assert(offsetof(Launcher_t, pid) == 0, "pid");
static_assert(sizeof(((Launcher_t*)0)->pid) == 4, "pid");
static_assert(offsetof(Launcher_t, name) == sizeof(void*), "name");
static_assert(sizeof(Launcher_t) == 2 * sizeof(void*), "Launcher_t");

static_assert(TARN_BOX == 1 && KU_BOX == 2 && MIVE_BOX == 3, "box_personality_t");
static_assert(OSKO_BOX == 4 && PLIV_BOX == 5 && DRUNE_BOX == 6, "box_personality_t");
static_assert(VESK_BOX == 7 && sizeof(box_personality_t) == 4, "box_personality_t");
/* On the stacks of their users. */
static_assert(offsetof(MD5_CTX, state) == 0, "state");
static_assert(offsetof(MD5_CTX, count) == 16, "count");
static_assert(offsetof(MD5_CTX, buffer) == 24, "buffer");
static_assert(sizeof(MD5_CTX) == 88, "MD5_CTX");
static_assert(alignof(MD5_CTX) == 4, "MD5_CTX");
static_assert(offsetof(SHA1Context, Intermediate_Hash) == 0, "Intermediate_Hash");
static_assert(offsetof(SHA1Context, Length_Low) == 20, "Length_Low");
static_assert(offsetof(SHA1Context, Length_High) == 24, "Length_High");
static_assert(offsetof(SHA1Context, Message_Block_Index) == 28, "Message_Block_Index");
static_assert(offsetof(SHA1Context, Message_Block) == 30, "Message_Block");
static_assert(offsetof(SHA1Context, Computed) == 96, "Computed");
static_assert(offsetof(SHA1Context, Corrupted) == 100, "Corrupted");
static_assert(sizeof(SHA1Context) == 104, "SHA1Context");
static_assert(alignof(SHA1Context) == 4, "SHA1Context");

/* The system's types with the flags that all our code is compiled with. */
static_assert(sizeof(off_t) == 8, "64-bit file offsets on both targets");
static_assert(sizeof(time_t) == (sizeof(void*) == 4 ? 4 : 8), "time_t of the target's own width");

#endif /* VELORIN_TESTS_ABI_layouts_ */
