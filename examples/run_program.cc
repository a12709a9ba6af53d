// Runs a command for as long as its standard input is open, in either way that the library has; see
// docs/process.md.
//
//   example_run_program record|object COMMAND
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <velorin/Launcher>
#include <velorin/ad_debug>

namespace {

void awaitEndOfInput() {
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) continue;
}

// Comes back when the command has ended, which takes a second, or minutes if it is stubborn.
void runAsRecord(const char* command) {
  Launcher_t* const helper = Launcher_new(command);
  awaitEndOfInput();
  Launcher_delete(helper);
  puts("has ended");
}

// Comes back at once, unless trace lines are written; whoever wants the end has to wait for it.
void runAsObject(const char* command) {
  {
    const Launcher helper(command);
    awaitEndOfInput();
  }
  puts("was told to end");
  while (wait(nullptr) > 0) continue;
  puts("has ended");
}

}  // namespace

int main(int argc, char** argv) {
  const bool object = argc == 3 && strcmp(argv[1], "object") == 0;
  if (argc != 3 || (!object && strcmp(argv[1], "record") != 0)) {
    fputs("usage: example_run_program record|object COMMAND\n", stderr);
    return 2;
  }
  ad_debug_set_process_name("run_program");
  if (ad_init_debug_lib(nullptr) != 0 && ad_init_debug_lib("/tmp/ad_errorlog") != 0) return 1;

  (object ? runAsObject : runAsRecord)(argv[2]);
  return 0;
}
