// ad_debugctl: shows and changes the debug record that a log daemon's processes share, tells who
// they are, and finds out why no line arrives.
#include <arpa/inet.h>
#include <getopt.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/command.h"
#include "doctor.h"
#include "record.h"
#include "record_commands.h"
#include "reload.h"
#include "request.h"
#include "who.h"

namespace {

constexpr char kDefaultBase[] = "/tmp/ad_errorlog";

constexpr char kHelp[] =
    R"(Usage: ad_debugctl [OPTION]... COMMAND
Shows and changes the debug record that a log daemon's processes share, tells
who they are, and finds out why their log lines do not arrive.

Commands:
  show                 print the record
  level 0..4           0 errors, 1 errors to syslog too, 2 trace, 3 detail,
                       4 detail, and every line to the special log too
  client ADDRESS|off   of all connections, log only this client's
  server ADDRESS|off   of all connections, log only those to this server
  watch                print the record, then each change, until interrupted
  who                  print the processes that use a record or the library
  reload [PID|NAME]... let these processes, or all, read their settings anew
  doctor               find out why log lines do not arrive, and say what to do

Options:
  --base BASE     the daemon's socket is BASE.UID, else BASE.0
                  (default: $ERROR_LOG_SOCKET, else /tmp/ad_errorlog)
  --path SOCKET   the daemon's socket itself
  --special BASE  the special log, which is told when level 4 ends
                  (default: /tmp/ad_errorlog_sp)
  --json          print one JSON object per line (not: who, reload, doctor)
  --help          print this text
  --version       print the version

Exit status: 0 done, 1 failed or something found wrong, 2 wrong usage.
)";

// ---- Arguments ----

void parse_level(const std::vector<std::string>& words, Request* request) {
  const std::string& text = words[0];
  if (text.size() != 1 || text[0] < '0' || text[0] > '4')
    refuse("the level is a number from 0 to 4, not '" + text + "'");
  request->value = static_cast<uint32_t>(text[0] - '0');
}

void parse_address(const std::vector<std::string>& words, Request* request) {
  const std::string& text = words[0];
  request->value = 0;
  if (text == "off") return;
  in_addr address;
  if (inet_pton(AF_INET, text.c_str(), &address) != 1)
    refuse("an address has the form 10.0.0.1, or is 'off', not '" + text + "'");
  if (address.s_addr == INADDR_NONE)
    refuse("255.255.255.255 cannot be a filter: all bits set means \"no change\"");
  request->value = address.s_addr;
}

void parse_targets(const std::vector<std::string>& words, Request* request) {
  for (const std::string& word : words)
    if (word.empty()) refuse("a process has a pid or a name, not ''");
  request->targets = words;
}

// ---- Commands ----

enum class Arguments { kNone, kOne, kAny };

struct Command {
  const char* name;
  Arguments arguments;
  void (*parse)(const std::vector<std::string>& words, Request* request);  // the arguments
  // One of these: what shows or changes the record, or what comes to an exit status without one.
  void (*of_record)(const Request& request, const Record& record);
  int (*on_its_own)(const Request& request);
};
constexpr Command kCommands[] = {
    {"show", Arguments::kNone, nullptr, show, nullptr},
    {"level", Arguments::kOne, parse_level, set_level, nullptr},
    {"client", Arguments::kOne, parse_address, set_client, nullptr},
    {"server", Arguments::kOne, parse_address, set_server, nullptr},
    {"watch", Arguments::kNone, nullptr, watch, nullptr},
    {"who", Arguments::kNone, nullptr, nullptr, who},
    {"reload", Arguments::kAny, parse_targets, nullptr, reload},
    {"doctor", Arguments::kNone, nullptr, nullptr, doctor},
};

// ---- The command line ----

// Takes the options; what is left of the arguments begins at optind.
Request parse_options(int argc, char** argv) {
  enum { kBase = 1, kPath, kSpecial, kJson, kShowHelp, kVersion };
  constexpr option kOptions[] = {
      {"base", required_argument, nullptr, kBase},
      {"path", required_argument, nullptr, kPath},
      {"special", required_argument, nullptr, kSpecial},
      {"json", no_argument, nullptr, kJson},
      {"help", no_argument, nullptr, kShowHelp},
      {"version", no_argument, nullptr, kVersion},
      {},
  };
  Request request;
  const char* base = nullptr;
  const char* path = nullptr;
  for (int found; (found = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (found) {
      case kBase:
        base = optarg;
        break;
      case kPath:
        path = optarg;
        break;
      case kSpecial:
        request.special_base = optarg;
        break;
      case kJson:
        request.json = true;
        break;
      case kShowHelp:
        print_and_exit(kHelp);
      case kVersion:
        print_and_exit("ad_debugctl " VELORIN_VERSION "\n");
      default:
        exit(kUsage);  // getopt_long has said why
    }
  }
  if (base != nullptr && path != nullptr) refuse("--base and --path exclude each other");
  request.base_is_option = base != nullptr;
  if (base == nullptr) base = getenv("ERROR_LOG_SOCKET");
  if (base == nullptr) base = kDefaultBase;
  if (path == nullptr) request.base = base;
  request.paths = path != nullptr ? std::vector<std::string>{path} : sockets_of(base);
  return request;
}

const Command& parse_command(const std::vector<std::string>& words, Request* request) {
  if (words.empty()) refuse("a command is missing");
  for (const Command& command : kCommands) {
    if (words[0] != command.name) continue;
    if (request->json && command.of_record == nullptr) refuse("'" + words[0] + "' has no JSON");
    const size_t arguments = words.size() - 1;
    if (command.arguments == Arguments::kNone && arguments != 0)
      refuse("'" + words[0] + "' takes no argument");
    if (command.arguments == Arguments::kOne && arguments != 1)
      refuse("'" + words[0] + "' takes one argument");
    if (command.parse != nullptr) command.parse({words.begin() + 1, words.end()}, request);
    return command;
  }
  refuse("there is no command '" + words[0] + "'");
}

}  // namespace

int main(int argc, char** argv) {
  Request request = parse_options(argc, argv);
  const Command& command = parse_command({argv + optind, argv + argc}, &request);
  if (command.on_its_own != nullptr) return command.on_its_own(request);
  command.of_record(request, attach_first(request.paths));
  return kDone;
}
