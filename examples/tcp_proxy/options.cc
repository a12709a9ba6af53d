// What the command line asks for. See options.h.
#include "options.h"

#include <getopt.h>
#include <stdio.h>

#include "address.h"

namespace {

constexpr char kHelp[] =
    "Usage: tcp_proxy --listen ADDR:PORT --upstream ADDR:PORT [--name NAME]\n"
    "\n"
    "Accepts TCP connections and passes their bytes to and from the upstream server, until\n"
    "SIGTERM or SIGINT. Logs through the log daemon of the machine; signal 10 (SIGUSR1)\n"
    "reloads the log settings.\n"
    "\n"
    "  --listen ADDR:PORT    accept connections here; port 0 takes a free one, and the\n"
    "                        address in use is printed when the proxy is ready\n"
    "  --upstream ADDR:PORT  the server behind the proxy\n"
    "  --name NAME           the process name in the log (default: tcp_proxy)\n"
    "  --help                show this text and exit\n"
    "  --version             show the version and exit\n"
    "\n"
    "Addresses are IPv4, as in 127.0.0.1:8080.\n"
    "\n"
    "Environment: ERROR_LOG_SOCKET, the base path of the log daemon's socket (default:\n"
    "/tmp/ad_errorlog); DEBUG_LEVEL, DEBUG_CLIENT_IP, DEBUG_SERVER_IP, the log settings to\n"
    "start with.\n"
    "\n"
    "Exit status: 0 after a stop, 1 when the proxy cannot start or go on, 2 for a wrong\n"
    "command line.\n";

enum { kListen = 1, kUpstream, kName, kShowHelp, kShowVersion };
constexpr option kOptions[] = {{"listen", required_argument, nullptr, kListen},
                               {"upstream", required_argument, nullptr, kUpstream},
                               {"name", required_argument, nullptr, kName},
                               {"help", no_argument, nullptr, kShowHelp},
                               {"version", no_argument, nullptr, kShowVersion},
                               {}};

// Prints and ends; what could not be printed is a failure.
std::nullopt_t show(const char* text, int* exit_status) {
  (void)fputs(text, stdout);
  *exit_status = flushOutput() ? 0 : kExitFailure;
  return std::nullopt;
}

std::nullopt_t refuse(const char* what, const char* value, int* exit_status) {
  if (what != nullptr) fprintf(stderr, "tcp_proxy: %s%s\n", what, value);
  fputs("Try 'tcp_proxy --help'.\n", stderr);
  *exit_status = kExitUsage;
  return std::nullopt;
}

}  // namespace

bool flushOutput() {
  return fflush(stdout) == 0 && ferror(stdout) == 0;
}

std::optional<Options> parseOptions(int argc, char** argv, int* exit_status) {
  Options options;
  std::optional<sockaddr_in> listen;
  std::optional<sockaddr_in> upstream;
  int chosen;
  while ((chosen = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (chosen) {
      case kListen:
        listen = parseAddress(optarg);
        if (!listen) return refuse("not an IPv4 address and port: ", optarg, exit_status);
        break;
      case kUpstream:
        upstream = parseAddress(optarg);
        if (!upstream) return refuse("not an IPv4 address and port: ", optarg, exit_status);
        if (upstream->sin_port == 0) return refuse("no port to connect to: ", optarg, exit_status);
        break;
      case kName:
        options.name = optarg;
        break;
      case kShowHelp:
        return show(kHelp, exit_status);
      case kShowVersion:
        return show("tcp_proxy " VELORIN_VERSION "\n", exit_status);
      default:  // getopt_long has said what is wrong
        return refuse(nullptr, nullptr, exit_status);
    }
  }
  if (optind < argc) return refuse("unexpected argument: ", argv[optind], exit_status);
  if (!listen) return refuse("--listen is missing", "", exit_status);
  if (!upstream) return refuse("--upstream is missing", "", exit_status);
  options.listen = *listen;
  options.upstream = *upstream;
  return options;
}
