// What the command line asks for.
#ifndef TCP_PROXY_options_
#define TCP_PROXY_options_

#include <optional>

#include "settings.h"

constexpr int kExitFailure = 1;  // something went wrong
constexpr int kExitUsage = 2;    // the command line or a file that it names is wrong

// Returns: nothing when the program is to end at once with `*exit_status`: the help, the version or
// the settings were printed, or what is wrong with the command line or a file that it names.
std::optional<Settings> parseOptions(int argc, char** argv, int* exit_status);

// Sends off what was printed so far; false when standard output does not take it.
bool flushOutput();

#endif  // TCP_PROXY_options_
