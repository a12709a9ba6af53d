// What the command line asks for. See options.h.
#include "options.h"

#include <getopt.h>
#include <stdio.h>

#include <string>

#include "velorin/Exception"

namespace {

// The launcher cuts the server's command at 1023 bytes, its fixed part included.
constexpr size_t kLongestDirectory = 900;

constexpr char kHelp[] =
    "Usage: tcp_proxy --listen ADDR:PORT --upstream ADDR:PORT [OPTION...]\n"
    "       tcp_proxy --listen ADDR:PORT --spawn-upstream[=DIR] [OPTION...]\n"
    "       tcp_proxy --elc NAME [OPTION...]\n"
    "\n"
    "Accepts TCP connections and passes their bytes to and from the upstream server, until\n"
    "SIGTERM or SIGINT. Logs through the log daemon of the machine; signal 10 (SIGUSR1)\n"
    "reloads the log settings.\n"
    "\n"
    "  --listen ADDR:PORT    accept connections here; port 0 takes a free one, and the\n"
    "                        address in use is printed when the proxy is ready\n"
    "  --upstream ADDR:PORT  the server behind the proxy\n"
    "  --spawn-upstream[=DIR]\n"
    "                        start the web server thttpd, which must be in PATH, as the\n"
    "                        server behind the proxy, and stop it with the proxy; it\n"
    "                        listens at port 8008, serves DIR (default: the working\n"
    "                        directory) and writes thttpd.log to the working directory\n"
    "  --routes FILE         servers for some of the clients, a line each: CLIENT=ADDR:PORT,\n"
    "                        where CLIENT is an address, a network as in 10.1.0.0/16, or\n"
    "                        default; the longest network counts, and --upstream serves\n"
    "                        those that no line is for\n"
    "  --prefix URL          put URL in front of the links to http, mms and rtsp servers in\n"
    "                        SMIL and ASX playlists of at most 1 MiB that HTTP servers send\n"
    "  --digests[=yes|no]    log the MD5 and SHA-1 of what each client got, at the end of its\n"
    "                        connection (default: no; yes without a word)\n"
    "  --name NAME           the process name in the log (default: tcp_proxy)\n"
    "  --connections N       serve N clients at most, 1 to 60000 (default: 512); more have to\n"
    "                        wait\n"
    "  --crash-action ACTION what follows the trace of a crash: coredump (the default),\n"
    "                        debug (wait for a debugger) or none\n"
    "  --crash-on-signal[=yes|no]\n"
    "                        crash when SIGUSR2 comes, for drills (default: no; yes without\n"
    "                        a word)\n"
    "  --elc NAME            take settings that no option gives from the file\n"
    "                        /local/local1/elc/NAME.elc, lines of a name and a value: listen,\n"
    "                        upstream, routes, prefix, digests, name, connections,\n"
    "                        crash_action, crash_on_signal\n"
    "  --check               show the settings, where they come from, and the routes, and exit\n"
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
    "command line or a wrong file that it names.\n";

enum { kElc = kSettingCount, kCheck, kShowHelp, kShowVersion };  // behind the settings
constexpr option kOptions[] = {{"listen", required_argument, nullptr, kListen},
                               {"upstream", required_argument, nullptr, kUpstream},
                               {"spawn-upstream", optional_argument, nullptr, kSpawnUpstream},
                               {"routes", required_argument, nullptr, kRoutes},
                               {"prefix", required_argument, nullptr, kPrefix},
                               {"digests", optional_argument, nullptr, kDigests},
                               {"name", required_argument, nullptr, kName},
                               {"connections", required_argument, nullptr, kConnections},
                               {"crash-action", required_argument, nullptr, kCrashAction},
                               {"crash-on-signal", optional_argument, nullptr, kCrashOnSignal},
                               {"elc", required_argument, nullptr, kElc},
                               {"check", no_argument, nullptr, kCheck},
                               {"help", no_argument, nullptr, kShowHelp},
                               {"version", no_argument, nullptr, kShowVersion},
                               {}};

// Prints and ends; what could not be printed is a failure.
std::nullopt_t show(const std::string& text, int* exit_status) {
  (void)fputs(text.c_str(), stdout);
  *exit_status = flushOutput() ? 0 : kExitFailure;
  return std::nullopt;
}

std::nullopt_t refuse(const std::string& complaint, int* exit_status) {
  if (!complaint.empty()) fprintf(stderr, "tcp_proxy: %s\n", complaint.c_str());
  fputs("Try 'tcp_proxy --help'.\n", stderr);
  *exit_status = kExitUsage;
  return std::nullopt;
}

// Whether the name survives the launcher, which splits commands at blanks and knows no quotes.
bool canBeServed(const std::string& directory) {
  return !directory.empty() && directory.size() <= kLongestDirectory &&
         directory.find(' ') == std::string::npos;
}

}  // namespace

bool flushOutput() {
  return fflush(stdout) == 0 && ferror(stdout) == 0;
}

std::optional<Settings> parseOptions(int argc, char** argv, int* exit_status) {
  SettingTexts texts;
  const char* file = nullptr;
  bool check = false;
  int chosen;
  while ((chosen = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (chosen) {
      case kElc:
        file = optarg;
        break;
      case kCheck:
        check = true;
        break;
      case kSpawnUpstream:
        if (optarg != nullptr && !canBeServed(optarg))
          return refuse(
              std::string("not a directory name without blanks, of 1 to 900 bytes: ") + optarg,
              exit_status);
        texts.setOption(kSpawnUpstream, optarg != nullptr ? optarg : "");
        break;
      case kDigests:
      case kCrashOnSignal:
        texts.setOption(static_cast<SettingId>(chosen), optarg != nullptr ? optarg : "yes");
        break;
      case kShowHelp:
        return show(kHelp, exit_status);
      case kShowVersion:
        return show("tcp_proxy " VELORIN_VERSION "\n", exit_status);
      case '?':  // getopt_long has said what is wrong
        return refuse("", exit_status);
      default:
        texts.setOption(static_cast<SettingId>(chosen), optarg);
    }
  }
  if (optind < argc)
    return refuse(std::string("unexpected argument: ") + argv[optind], exit_status);
  try {
    if (file != nullptr) readSettingsFile(file, &texts);
    Settings settings = understand(texts);
    if (check) return show(report(texts, settings), exit_status);
    return settings;
  } catch (const Exception& e) {
    return refuse(e.details(), exit_status);
  }
}
