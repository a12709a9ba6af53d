/* A C11 program that uses the C interface of the process family; exit status 0 when all is as
   expected. Run it where nobody else uses TCP port 8008. */
#define _POSIX_C_SOURCE 200809L /* siginfo_t */

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>

#include "expect.h"
#include "velorin/Launcher"
#include "velorin/box"
#include "velorin/sig_handler"

static void launch_and_delete(void) {
  Launcher_t* const launcher = Launcher_new("sleep 1000");
  EXPECT(launcher->pid > 0);
  EXPECT(strcmp(launcher->name, "sleep 1000") == 0);
  Launcher_delete(launcher);
}

static void take_the_port_of_the_web_server(void) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(8008);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT(bind(fd, (const struct sockaddr*)&address, sizeof address) == 0);
  EXPECT(listen(fd, 8) == 0);
  EXPECT(Launcher_newHttpd("-d /tmp") == NULL);
}

static void ask_for_the_role(void) {
  const box_personality_t role = get_box_personality();
  EXPECT(role >= TARN_BOX && role <= VESK_BOX);
  EXPECT(TARN_BOX == 1 && KU_BOX == 2 && MIVE_BOX == 3 && OSKO_BOX == 4);
  EXPECT(PLIV_BOX == 5 && DRUNE_BOX == 6 && VESK_BOX == 7);
}

static void at_coredump(void) {}

static int print_nothing(const char* format, ...) {
  (void)format;
  return 0;
}

static void set_up_the_crash_handler(void) {
  sig_set_action(SIGNAL_ACTION_NO_COREDUMP);
  sig_set_action(SIGNAL_ACTION_COREDUMP);
  set_at_coredump_cb(at_coredump);
  set_at_coredump_cb(NULL);
  EXPECT(one_of_threads_is_dead == 0);
  const void* volatile at = &jmp_env;
  EXPECT(at != NULL);
  EXPECT(sig_init(NULL) == 0);
  EXPECT(sig_init(print_nothing) == 1);
  struct sigaction installed;
  EXPECT(sigaction(SIGSEGV, NULL, &installed) == 0);
  EXPECT(installed.sa_sigaction == sigcore_handler);
}

int main(void) {
  launch_and_delete();
  take_the_port_of_the_web_server();
  ask_for_the_role();
  set_up_the_crash_handler();
  return failures == 0 ? 0 : 1;
}
