// What the command line asks for.
#ifndef TCP_PROXY_options_
#define TCP_PROXY_options_

#include <netinet/in.h>

#include <optional>
#include <string>

constexpr int kExitFailure = 1;  // something went wrong
constexpr int kExitUsage = 2;    // the command line is wrong

struct Options {
  sockaddr_in listen = {};
  sockaddr_in upstream = {};
  std::string name = "tcp_proxy";  // at the head of every log line
};

// Returns: nothing when the program is to end at once with `*exit_status`: the help or the version
// was printed, or what is wrong with the command line.
std::optional<Options> parseOptions(int argc, char** argv, int* exit_status);

// Sends off what was printed so far; false when standard output does not take it.
bool flushOutput();

#endif  // TCP_PROXY_options_
