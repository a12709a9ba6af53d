// The daemon's command line. See options.h.
#include "options.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "say.h"

namespace {

constexpr int kUsageError = 2;
constexpr char kDefaultBase[] = "/tmp/ad_errorlog";
constexpr char kHelp[] =
    "Usage: ad_logd [OPTION]...\n"
    "Receive log lines on a local datagram socket and write each with its time.\n"
    "\n"
    "  --base BASE     listen at BASE.UID, UID being the real user id\n"
    "                  (default: /tmp/ad_errorlog)\n"
    "  --special BASE  listen at this BASE.UID too; its lines are marked [special]\n"
    "  --output FILE   append to FILE instead of writing to standard output\n"
    "  --format=text|json\n"
    "                  write lines as text (default) or as one JSON object each\n"
    "  --forward=syslog\n"
    "                  send each line to the syslog server too\n"
    "  --utc           show times in UTC instead of local time\n"
    "  --help          show this text and exit\n"
    "  --version       show the version and exit\n"
    "\n"
    "Sockets that a service manager hands over (LISTEN_FDS) are used when they are\n"
    "bound at these paths.\n"
    "Signals: HUP opens FILE again, USR2 shows the counts, TERM and INT stop.\n"
    "Exit status: 0 stopped by a signal, 1 cannot run, 2 wrong usage.\n";

[[noreturn]] void refuseUsage() {
  (void)fprintf(stderr, "Try 'ad_logd --help'.\n");
  exit(kUsageError);
}

void setBase(LogSocket* socket, const char* base) {
  if (socket->setBase(base)) return;
  say("no socket can be named \"%s.UID\"", base);
  refuseUsage();
}

Format parseFormat(const char* name) {
  if (strcmp(name, "text") == 0) return Format::kText;
  if (strcmp(name, "json") == 0) return Format::kJson;
  say("the format is text or json, not '%s'", name);
  refuseUsage();
}

bool parseForward(const char* name) {
  if (strcmp(name, "syslog") == 0) return true;
  say("lines are forwarded to syslog only, not to '%s'", name);
  refuseUsage();
}

}  // namespace

Options parseOptions(int argc, char** argv) {
  enum { kBase = 1, kSpecial, kOutput, kFormat, kForward, kUtc, kShowHelp, kShowVersion };
  constexpr option kOptions[] = {{"base", required_argument, nullptr, kBase},
                                 {"special", required_argument, nullptr, kSpecial},
                                 {"output", required_argument, nullptr, kOutput},
                                 {"format", required_argument, nullptr, kFormat},
                                 {"forward", required_argument, nullptr, kForward},
                                 {"utc", no_argument, nullptr, kUtc},
                                 {"help", no_argument, nullptr, kShowHelp},
                                 {"version", no_argument, nullptr, kShowVersion},
                                 {}};
  Options options;
  setBase(&options.log, kDefaultBase);
  int chosen;
  while ((chosen = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (chosen) {
      case kBase:
        setBase(&options.log, optarg);
        break;
      case kSpecial:
        setBase(&options.special, optarg);
        break;
      case kOutput:
        options.output = optarg;
        break;
      case kFormat:
        options.format = parseFormat(optarg);
        break;
      case kForward:
        options.syslog = parseForward(optarg);
        break;
      case kUtc:
        options.utc = true;
        break;
      case kShowHelp:
        (void)fputs(kHelp, stdout);
        exit(0);
      case kShowVersion:
        (void)puts("ad_logd " VELORIN_VERSION);
        exit(0);
      default:
        refuseUsage();
    }
  }
  if (optind < argc) {
    say("unexpected argument: %s", argv[optind]);
    refuseUsage();
  }
  if (strcmp(options.log.path(), options.special.path()) == 0) {
    say("the special log needs a socket of its own");
    refuseUsage();
  }
  return options;
}
