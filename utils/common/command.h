// What the commands that administrators run share: how they end, and what they say then. Messages
// go to standard error with the program's name in front.
#ifndef VELORIN_COMMON_command_
#define VELORIN_COMMON_command_

#include <string>

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2 };

void complain(const std::string& message);
[[noreturn]] void fail(ExitCode code, const std::string& message);

// Ends with kUsage; the message points to --help.
[[noreturn]] void refuse(const std::string& message);

// Writes out what was printed; fails when standard output does not take it.
void finish_output();
[[noreturn]] void print_and_exit(const char* text);

#endif  // VELORIN_COMMON_command_
