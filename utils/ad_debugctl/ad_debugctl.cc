// ad_debugctl: shows and changes the debug record that a log daemon's processes share.
#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "common/command.h"
#include "internal/log_datagram.h"
#include "velorin/ad_debug"

namespace {

constexpr char kDefaultBase[] = "/tmp/ad_errorlog";
constexpr char kDefaultSpecialBase[] = "/tmp/ad_errorlog_sp";
constexpr int kProjectId = 'd';  // of the record's key
constexpr uint32_t kSpecialLevel = 4;
constexpr timespec kWatchInterval = {0, 200'000'000};

constexpr char kHelp[] =
    R"(Usage: ad_debugctl [OPTION]... COMMAND
Shows and changes the debug record that a log daemon's processes share.

Commands:
  show                 print the record
  level 0..4           0 errors, 1 errors to syslog too, 2 trace, 3 detail,
                       4 detail, and every line to the special log too
  client ADDRESS|off   of all connections, log only this client's
  server ADDRESS|off   of all connections, log only those to this server
  watch                print the record, then each change, until interrupted

Options:
  --base BASE     the daemon's socket is BASE.UID, else BASE.0
                  (default: $ERROR_LOG_SOCKET, else /tmp/ad_errorlog)
  --path SOCKET   the daemon's socket itself
  --special BASE  the special log, which is told when level 4 ends
                  (default: /tmp/ad_errorlog_sp)
  --json          print one JSON object per line
  --help          print this text
  --version       print the version

Exit status: 0 done, 1 failed, 2 wrong usage.
)";

// What the user asked for.
struct Request {
  std::vector<std::string> paths;  // the daemon's socket, in the order tried
  std::string special_base = kDefaultSpecialBase;
  bool json = false;
  uint32_t value = 0;  // that a setter stores
};

// ---- The record's words ----

enum Field { kLevel, kClient, kServer };
constexpr const char* kFieldNames[] = {"level", "client", "server"};
constexpr Field kFields[] = {kLevel, kClient, kServer};
using Words = std::array<uint32_t, 3>;  // by Field

uint32_t* word_of(ad_debug_cfg_t* cfg, Field field) {
  if (field == kClient) return &cfg->debug_target_client_ip;
  if (field == kServer) return &cfg->debug_target_server_ip;
  return reinterpret_cast<uint32_t*>(&cfg->ad_debug_level);
}

Words read_words(ad_debug_cfg_t* cfg) {
  Words words;
  for (const Field field : kFields)
    words[field] = __atomic_load_n(word_of(cfg, field), __ATOMIC_RELAXED);
  return words;
}

uint32_t exchange_word(ad_debug_cfg_t* cfg, Field field, uint32_t value) {
  return __atomic_exchange_n(word_of(cfg, field), value, __ATOMIC_RELAXED);
}

// As users write it, and as JSON has it.
std::string text_of(Field field, uint32_t value, bool json) {
  if (field == kLevel) return std::to_string(static_cast<int32_t>(value));
  if (value == 0) return json ? "null" : "off";
  char text[INET_ADDRSTRLEN];
  (void)inet_ntop(AF_INET, &value, text, sizeof text);
  return json ? '"' + std::string(text) + '"' : text;
}

uint32_t parse_level(const std::string& text) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '4')
    refuse("the level is a number from 0 to 4, not '" + text + "'");
  return static_cast<uint32_t>(text[0] - '0');
}

uint32_t parse_address(const std::string& text) {
  if (text == "off") return 0;
  in_addr address;
  if (inet_pton(AF_INET, text.c_str(), &address) != 1)
    refuse("an address has the form 10.0.0.1, or is 'off', not '" + text + "'");
  if (address.s_addr == INADDR_NONE)
    refuse("255.255.255.255 cannot be a filter: all bits set means \"no change\"");
  return address.s_addr;
}

// ---- The record ----

struct Record {
  std::string path;  // the socket that it belongs to
  int id;            // of its segment
  ad_debug_cfg_t* cfg;
};

void add_reason(std::string* reasons, const std::string& path, const std::string& why) {
  if (!reasons->empty()) *reasons += "; ";
  *reasons += path + ": " + why;
}

// The segment that belongs to the socket `path`; -1, with the reason in `*why`, when there is none.
int find_segment(const std::string& path, std::string* why) {
  const key_t key = ftok(path.c_str(), kProjectId);
  const int id = key == -1 ? -1 : shmget(key, 0, 0);
  if (id != -1) return id;
  *why = key != -1 && errno == ENOENT ? "no record belongs to it" : strerror(errno);
  return -1;
}

// Why the segment is no record that can be attached; empty when it is one. Asked before the library
// attaches it, which would speak on standard error itself and remove what it cannot attach.
std::string objection(int id) {
  shmid_ds status = {};
  if (shmctl(id, IPC_STAT, &status) != 0) return strerror(errno);
  if (status.shm_segsz != sizeof(ad_debug_cfg_t))
    return "the segment holds " + std::to_string(status.shm_segsz) + " bytes, a record " +
           std::to_string(sizeof(ad_debug_cfg_t));
  void* const at = shmat(id, nullptr, 0);
  if (at == reinterpret_cast<void*>(-1)) return strerror(errno);
  (void)shmdt(at);
  return "";
}

std::optional<Record> attach(const std::string& path, std::string* why) {
  Record record = {path, find_segment(path, why), nullptr};
  if (record.id == -1) return std::nullopt;
  *why = objection(record.id);
  if (!why->empty()) return std::nullopt;
  if (ad_get_ad_debug_cfg_p_no_create(path.c_str(), &record.cfg) == 0) return record;
  *why = "cannot be attached";
  return std::nullopt;
}

Record attach_first(const std::vector<std::string>& paths) {
  std::string reasons;
  for (const std::string& path : paths) {
    std::string why;
    if (const std::optional<Record> record = attach(path, &why)) return *record;
    add_reason(&reasons, path, why);
  }
  fail(kFailed, "no debug record: " + reasons);
}

// The rule of ad_init_debug_lib: the user's own daemon first, then the superuser's.
std::vector<std::string> sockets_of(const std::string& base) {
  // Cut as an address of a Unix-domain socket cuts it, which is what all processes attach by.
  constexpr size_t kPathMax = sizeof(sockaddr_un::sun_path) - 1;
  std::vector<std::string> paths;
  paths.push_back((base + "." + std::to_string(static_cast<int>(getuid()))).substr(0, kPathMax));
  if (getuid() != 0) paths.push_back((base + ".0").substr(0, kPathMax));
  return paths;
}

// ---- Output ----

std::string json_string(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20) {
      char escape[7];
      (void)snprintf(escape, sizeof escape, "\\u%04x", c);
      quoted += escape;
      continue;
    }
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

// Prints records and changes: as lines for people or as one JSON object each, stamped with the time
// or not.
class Printer {
 public:
  Printer(bool json, bool stamped) : json_(json), stamped_(stamped) {}

  void state(const Record& record, const Words& words) const {
    if (json_) {
      std::string object = open_object(record);
      for (const Field field : kFields)
        object +=
            std::string(",\"") + kFieldNames[field] + "\":" + text_of(field, words[field], json_);
      print(object + "}");
    } else {
      const std::string stamp = now();
      print(stamp + "record: " + record.path);
      for (const Field field : kFields)
        print(stamp + kFieldNames[field] + ": " + text_of(field, words[field], json_));
    }
    finish_output();
  }

  void change(const Record& record, Field field, uint32_t before, uint32_t after) const {
    const std::string from = text_of(field, before, json_);
    const std::string to = text_of(field, after, json_);
    if (json_) {
      print(open_object(record) + ",\"field\":\"" + kFieldNames[field] + "\",\"old\":" + from +
            ",\"new\":" + to + "}");
    } else {
      print(now() + kFieldNames[field] + ": " + from + " -> " + to);
    }
    finish_output();
  }

 private:
  // The time as a line or an object begins with it.
  std::string now() const {
    if (!stamped_) return "";
    timespec time;
    (void)clock_gettime(CLOCK_REALTIME, &time);
    const int milliseconds = static_cast<int>(time.tv_nsec / 1'000'000);
    char text[64];
    if (json_) {
      (void)snprintf(text, sizeof text, "\"time\":%lld.%03d,", static_cast<long long>(time.tv_sec),
                     milliseconds);
      return text;
    }
    tm local;
    const size_t len = strftime(text, sizeof text, "%F %T", localtime_r(&time.tv_sec, &local));
    (void)snprintf(text + len, sizeof text - len, ".%03d ", milliseconds);
    return text;
  }

  std::string open_object(const Record& record) const {
    return "{" + now() + "\"record\":" + json_string(record.path);
  }

  static void print(const std::string& line) { (void)puts(line.c_str()); }

  const bool json_;
  const bool stamped_;
};

// ---- Commands ----

// Tells the special log that level 4 ends, as the library's setter does. Not through that setter:
// it tells the special log of its own process, and this one has not switched any on.
void reset_special_log(const std::string& base) {
  using namespace velorin::internal;
  constexpr char kReset[] = "reset special log";
  LogSender sender = {""};
  std::string reasons;
  for (const std::string& path : sockets_of(base)) {
    sockaddr_un to = {AF_UNIX, ""};
    path.copy(to.sun_path, sizeof to.sun_path - 1);
    char text[sizeof kReset + kDatagramTrailer];
    memcpy(text, kReset, sizeof kReset);
    if (open_sender(&sender) && send_text(&sender, to, text, strlen(kReset))) return;
    add_reason(&reasons, path, strerror(errno));
  }
  (void)fprintf(stderr, "ad_debugctl: the special log was not told: %s\n", reasons.c_str());
}

void show(const Request& request, const Record& record) {
  Printer(request.json, /*stamped=*/false).state(record, read_words(record.cfg));
}

void set(const Request& request, const Record& record, Field field) {
  const uint32_t before = exchange_word(record.cfg, field, request.value);
  Printer(request.json, /*stamped=*/false).change(record, field, before, request.value);
}

void set_level(const Request& request, const Record& record) {
  if (read_words(record.cfg)[kLevel] == kSpecialLevel && request.value != kSpecialLevel)
    reset_special_log(request.special_base);
  set(request, record, kLevel);
}

void set_client(const Request& request, const Record& record) {
  set(request, record, kClient);
}
void set_server(const Request& request, const Record& record) {
  set(request, record, kServer);
}

// The record that the socket leads to now, when it is another one: a daemon that starts anew makes
// a new socket and so a new record.
std::optional<Record> replacement(const Record& record) {
  std::string why;
  if (find_segment(record.path, &why) == record.id) return std::nullopt;
  return attach(record.path, &why);
}

void watch(const Request& request, const Record& first) {
  sigset_t stop;
  (void)sigemptyset(&stop);
  (void)sigaddset(&stop, SIGINT);
  (void)sigaddset(&stop, SIGTERM);
  (void)sigprocmask(SIG_BLOCK, &stop, nullptr);

  const Printer printer(request.json, /*stamped=*/true);
  Record record = first;
  Words before = read_words(record.cfg);
  printer.state(record, before);
  while (sigtimedwait(&stop, nullptr, &kWatchInterval) == -1) {
    if (const std::optional<Record> next = replacement(record)) {
      (void)ad_return_ad_debug_cfg_p(record.cfg);
      record = *next;
      before = read_words(record.cfg);
      printer.state(record, before);
    }
    const Words after = read_words(record.cfg);
    for (const Field field : kFields)
      if (after[field] != before[field]) printer.change(record, field, before[field], after[field]);
    before = after;
  }
}

struct Command {
  const char* name;
  uint32_t (*parse)(const std::string& argument);  // null: takes none
  void (*run)(const Request& request, const Record& record);
};
constexpr Command kCommands[] = {
    {"show", nullptr, show},
    {"level", parse_level, set_level},
    {"client", parse_address, set_client},
    {"server", parse_address, set_server},
    {"watch", nullptr, watch},
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
  if (base == nullptr) base = getenv("ERROR_LOG_SOCKET");
  if (base == nullptr) base = kDefaultBase;
  request.paths = path != nullptr ? std::vector<std::string>{path} : sockets_of(base);
  return request;
}

const Command& parse_command(const std::vector<std::string>& words, Request* request) {
  if (words.empty()) refuse("a command is missing");
  for (const Command& command : kCommands) {
    if (words[0] != command.name) continue;
    const size_t wanted = command.parse != nullptr ? 2 : 1;
    if (words.size() != wanted)
      refuse("'" + words[0] + "' takes " + (wanted == 2 ? "one argument" : "no argument"));
    if (command.parse != nullptr) request->value = command.parse(words[1]);
    return command;
  }
  refuse("there is no command '" + words[0] + "'");
}

}  // namespace

int main(int argc, char** argv) {
  Request request = parse_options(argc, argv);
  const Command& command = parse_command({argv + optind, argv + argc}, &request);
  command.run(request, attach_first(request.paths));
  return kDone;
}
