/* Assigns the debug globals and looks whether the library sees the same ones, and the reverse.
   Built position-independent and, where the data is copied into the program, at a fixed address.
   Usage: globals DAEMON, the base path of a log daemon. The lines go to "/tmp/ad_errorlog". */
#include <signal.h>
#include <string.h>

#include "expect.h"
#include "velorin/ad_debug"

static ad_debug_cfg_t own;

static void library_reads_what_the_program_stores(void) {
  EXPECT(ad_debug_inited() == 0);
  ad_debug_cfg_p = &own;
  EXPECT(ad_debug_inited() == 1);
  ad_debug_set_debug_parameter_directly(UINT32_MAX, UINT32_MAX, 1);
  EXPECT(own.ad_debug_level == 1);

  EXPECT(getprocname() == ad_debug_process_name);
  strcpy(ad_debug_process_name, "globals");
  ad_debug_module_id = 4711;
  AD_CRTC("name and module\n");
  ad_debug_to_syslogd = 0;
  AD_CRTC("syslog switched off\n");
  ad_debug_to_syslogd = 1;
  ad_debug_in_sighandler = 1;
  AD_CRTC("in a signal handler\n");
  ad_debug_in_sighandler = 0;
  AD_ERRO("critical lines only\n");
  ad_debug_syslog_critical_msg_only = 0;
  AD_ERRO("error lines too\n");
}

/* The two lines of ad_debug_set_syslog_critical_msg_only are statements of the library itself. */
static void library_filters_by_the_program_s_connection(void) {
  own.debug_target_client_ip = 1;
  ad_current_client_ip = 2;
  ad_debug_set_syslog_critical_msg_only(1);
  ad_current_client_ip = 0;
  own.debug_target_server_ip = 1;
  ad_current_server_ip = 2;
  ad_debug_set_syslog_critical_msg_only(1);
  ad_current_server_ip = 1;
  ad_debug_set_syslog_critical_msg_only(1);
}

static void program_reads_what_the_library_stores(void) {
  EXPECT(ad_debug_syslog_critical_msg_only == 1);
  ad_debug_set_syslog_critical_msg_only(0);
  EXPECT(ad_debug_syslog_critical_msg_only == 0);
  ad_debug_set_default_module_id(12);
  EXPECT(ad_debug_module_id == 12);
  ad_debug_set_process_name("renamed");
  EXPECT(strcmp(ad_debug_process_name, "renamed") == 0);

  ad_debug_cfg_no_share_mem.debug_target_server_ip = 5;
  ad_read_debug_cfg_direct_read_from_env();
  EXPECT(ad_debug_cfg_p == &ad_debug_cfg_no_share_mem);
  EXPECT(ad_debug_cfg_no_share_mem.ad_debug_level == 1);
  EXPECT(ad_debug_cfg_no_share_mem.debug_target_server_ip == 5);
}

static void both_know_a_function_by_the_same_address(const char* base) {
  struct sigaction action;
  EXPECT(ad_init_debug_lib(base) == 0);
  EXPECT(sigaction(SIGUSR1, NULL, &action) == 0);
  EXPECT(action.sa_handler == sig_user2);
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  library_reads_what_the_program_stores();
  library_filters_by_the_program_s_connection();
  program_reads_what_the_library_stores();
  both_know_a_function_by_the_same_address(argv[1]);
  return failures == 0 ? 0 : 1;
}
