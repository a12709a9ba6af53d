// How commands end. See command.h.
#include "command.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void complain(const std::string& message) {
  (void)fprintf(stderr, "%s: %s\n", program_invocation_short_name, message.c_str());
}

void fail(ExitCode code, const std::string& message) {
  complain(message);
  exit(code);
}

void refuse(const std::string& message) {
  fail(kUsage, message + "; see " + program_invocation_short_name + " --help");
}

void finish_output() {
  // LCOV_EXCL_BR_NEXT: an error without one of flush is of output that was longer than the buffer
  if (fflush(stdout) != 0 || ferror(stdout) != 0)
    fail(kFailed, std::string("standard output: ") + strerror(errno));
}

void print_and_exit(const char* text) {
  (void)fputs(text, stdout);
  finish_output();
  exit(kDone);
}
