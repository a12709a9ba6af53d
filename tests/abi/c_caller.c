/* A C11 program that uses all of the C interface: every function, datum and macro at least once.
   Usage: c_caller configuration|statements|copies DAEMON SPECIAL, the base paths of two log
   daemons; run by the superuser of a private world, so that their sockets are DAEMON.0 and
   SPECIAL.0. It ends with a fatal statement: exit status 3 when all was as expected, else 1. */
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "expect.h"
#include "velorin/ad_debug"

enum { kSigusr1 = 10 };

static void become_known(const char* base) {
  EXPECT(ad_debug_inited() == 0);
  EXPECT(ad_debug_cfg_p == NULL);
  EXPECT(ad_debug_to_syslogd == 1);
  EXPECT(ad_debug_syslog_critical_msg_only == 1);
  EXPECT(ad_debug_in_sighandler == 0);
  EXPECT(ad_debug_module_id == 0);

  ad_debug_set_process_name("c_caller");
  EXPECT(getprocname() == ad_debug_process_name);
  EXPECT(strcmp(ad_debug_process_name, "c_caller") == 0);
  ad_debug_set_default_module_id(4711);
  EXPECT(ad_debug_module_id == 4711);

  EXPECT(ad_init_debug_lib(base) == 0);
  EXPECT(ad_debug_inited() == 1);
  EXPECT(ad_debug_cfg_p != &ad_debug_cfg_no_share_mem);
}

static void share_the_record(const char* socket) {
  ad_debug_cfg_t* again = NULL;
  EXPECT(ad_get_ad_debug_cfg_p(socket, &again) == 0);
  EXPECT(again != NULL && again != ad_debug_cfg_p);
  if (again == NULL) return;
  again->ad_debug_level = 2;
  EXPECT(ad_debug_cfg_p->ad_debug_level == 2);
  EXPECT(ad_return_ad_debug_cfg_p(again) == 0);

  EXPECT(ad_get_ad_debug_cfg_p_no_create(socket, &again) == 0);
  EXPECT(ad_return_ad_debug_cfg_p(again) == 0);
  EXPECT(ad_get_ad_debug_cfg_p_impl("/nowhere", &again, 1) == 1);
  EXPECT(again == &ad_debug_cfg_no_share_mem);
  EXPECT(ad_return_ad_debug_cfg_p(again) == 1);
}

static void change_the_settings(const char* socket) {
  int32_t level = 7;
  uint32_t cip = 7;
  uint32_t sip = 7;
  ad_read_debug_cfg(socket, &level, &cip, &sip);
  EXPECT(level == -1 && cip == UINT32_MAX && sip == UINT32_MAX);

  ad_set_debug_parameter(1, 2, 3, ad_debug_cfg_p);
  EXPECT(ad_debug_cfg_p->debug_target_client_ip == 1);
  EXPECT(ad_debug_cfg_p->debug_target_server_ip == 2);
  ad_debug_set_debug_parameter_directly(0, 0, 0);
  EXPECT(ad_debug_cfg_p->debug_target_client_ip == 0);
  ad_debug_set_debug_level_directly(2);
  EXPECT(ad_debug_cfg_p->ad_debug_level == 2);
  EXPECT(ad_debug_syslog_critical_msg_only == 1);
  sig_user2(kSigusr1);
  EXPECT(ad_debug_cfg_p->ad_debug_level == 2);
  EXPECT(ad_debug_syslog_critical_msg_only == 0);
  ad_debug_set_syslog_critical_msg_only(0);
}

static void print_list(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

static void print_list(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  ad_errorlog_vprintf(fmt, ap);
  va_end(ap);
}

static void write_each_statement(void) {
  ad_debug_set_debug_parameter_directly(0, 0, 2);
  AD_ERRO("error\n");
  AD_CRTC("critical\n");
  AD_TRCE("trace\n");
  AD_DETL("not from level 2\n");
  ad_debug_set_debug_parameter_directly(0, 0, 3);
  AD_DETL("detail\n");
  ad_debug_statement(AD_DEBUG_TRCE, "elsewhere.c", 12, "by hand %d\n", 1);
  ad_errorlog_printf("as it is %d\n", 1);
  print_list("a list %d\n", 1);
}

static void write_arguments(void) {
  AD_ERRO("error %d\n", 1);
  AD_CRTC("critical %s\n", "text");
  AD_TRCE("trace %zu\n", sizeof(ad_debug_cfg_t));
  AD_DETL("detail %c%%\n", '5');
}

static void write_for_one_connection(void) {
  const uint32_t one = 1;
  const uint32_t two = 2;
  EXPECT(ad_debug_passes(&one, &one));
  EXPECT(!ad_debug_passes(&one, &two));
  EXPECT(ad_debug_wanted(3));
  EXPECT(!ad_debug_wanted(4));

  ad_debug_set_debug_parameter_directly(1, 2, 3);
  ad_current_client_ip = 1;
  ad_current_server_ip = 2;
  AD_ERRO("the filter's connection\n");
  ad_current_client_ip = 2;
  AD_ERRO("another client\n");
  ad_current_client_ip = 1;
  ad_current_server_ip = 1;
  AD_ERRO("another server\n");
}

static void write_to_the_special_log(const char* base) {
  EXPECT(ad_set_special_log_path(base) == 0);
  ad_errorlog_printf_special("special %d\n", 1);
  ad_debug_cfg_p->ad_debug_level = 4;
  AD_TRCE("to both\n");
}

static void allocate(void) {
  void* const memory = my_xmalloc(16, __FILE__, __LINE__);
  EXPECT(memory != NULL);
  free(memory);
}

static void dump(void) {
  AD_DUMP(9, "", 0, "above every level");
  ad_debug_print_pkt_impl(9, "DETL", "", 0, __FILE__, __LINE__, "above every level");
}

static void give_up_the_record(void) {
  ad_read_debug_cfg_direct_read_from_env();
  EXPECT(ad_debug_cfg_p == &ad_debug_cfg_no_share_mem);
}

/* Each stage writes fewer lines than a socket's queue holds. */
static int run(const char* stage, const char* daemon, const char* special) {
  if (strcmp(stage, "configuration") == 0) {
    char socket[64];
    snprintf(socket, sizeof socket, "%s.0", daemon);
    share_the_record(socket);
    change_the_settings(socket);
    allocate();
    dump();
    give_up_the_record();
    return 0;
  }
  if (strcmp(stage, "statements") == 0) {
    write_each_statement();
    return 0;
  }
  if (strcmp(stage, "copies") == 0) {
    ad_debug_set_debug_parameter_directly(0, 0, 3);
    write_arguments();
    write_for_one_connection();
    write_to_the_special_log(special);
    return 0;
  }
  return -1;
}

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  become_known(argv[2]);
  if (run(argv[1], argv[2], argv[3]) != 0) return 2;
  AD_FATAL(failures == 0 ? 3 : 1, 512001, "fatal\n");
}
