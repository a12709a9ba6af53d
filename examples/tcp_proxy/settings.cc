// What the proxy runs with. See settings.h.
#include "settings.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "address.h"
#include "upstream_server.h"
#include "velorin/Exception"
#include "velorin/elc"

namespace {

constexpr char kYes[] = "yes";
constexpr char kNo[] = "no";

struct Setting {
  const char* name;  // of the option
  const char* default_text;
  const char* file_name;  // in the settings file; null: not to be had there
  elc_type file_type;
};
constexpr Setting kSettings[kSettingCount] = {
    {"listen", nullptr, "listen", ELC_STR},
    {"upstream", nullptr, "upstream", ELC_STR},
    {"spawn-upstream", nullptr, nullptr, ELC_STR},
    {"routes", nullptr, "routes", ELC_STR},
    {"prefix", nullptr, "prefix", ELC_STR},
    {"digests", kNo, "digests", ELC_BOOL},
    {"name", "tcp_proxy", "name", ELC_STR},
    {"connections", "512", "connections", ELC_UINT},
    {"crash-action", "coredump", "crash_action", ELC_STR},
    {"crash-on-signal", kNo, "crash_on_signal", ELC_BOOL}};

constexpr const char* kSourceNames[] = {"default", "file", "option"};

// The library cuts longer names, and then reads another file than it was told.
constexpr size_t kLongestFileName = 9;

constexpr int kConnectionsMax = 60000;
constexpr size_t kLongestPrefix = 1000;

struct CrashAction {
  const char* name;
  sig_signal_action action;
};
constexpr CrashAction kCrashActions[] = {{"coredump", SIGNAL_ACTION_COREDUMP},
                                         {"debug", SIGNAL_ACTION_DEBUG},
                                         {"none", SIGNAL_ACTION_NO_COREDUMP}};

// ---- The file ----

// The text of an entry that the file has set, as an option would have it.
std::string textOf(const elc_entry& entry) {
  if (entry.type == ELC_BOOL) return entry.value.BOOL_type ? kYes : kNo;
  if (entry.type == ELC_UINT) return std::to_string(entry.value.UINT_type);
  return entry.value.STR_type;
}

// Settings that a file may hold, in the form in which the library reads them.
class FileEntries {
 public:
  FileEntries() {
    for (int id = 0; id < kSettingCount; ++id) {
      if (kSettings[id].file_name == nullptr) continue;
      entries_[count_].name = kSettings[id].file_name;
      entries_[count_].type = kSettings[id].file_type;
      ids_[count_++] = static_cast<SettingId>(id);
    }
  }
  ~FileEntries() {
    for (const elc_entry& entry : entries_) {
      if (entry.is_set && entry.type == ELC_STR) free(entry.value.STR_type);
    }
  }
  FileEntries(const FileEntries&) = delete;
  FileEntries& operator=(const FileEntries&) = delete;

  // Throws an Exception that says what is wrong.
  void read(const std::string& name) {
    const char* const error = _elc_init(name.c_str(), entries_, count_);
    if (error != nullptr) throw Exception(error);
  }

  void putInto(SettingTexts* texts) const {
    for (unsigned i = 0; i < count_; ++i) {
      SettingText& setting = texts->of[ids_[i]];
      if (entries_[i].is_set && setting.source != Source::kOption)
        setting = {textOf(entries_[i]), Source::kFile};
    }
  }

 private:
  elc_entry entries_[kSettingCount] = {};
  SettingId ids_[kSettingCount];
  unsigned count_ = 0;
};

// ---- Values ----

// Throws for a text that cannot be used; one that stands in a file is named with its file.
[[noreturn]] void refuse(const SettingTexts& texts, SettingId id, const char* complaint) {
  const SettingText& setting = texts.of[id];
  const std::string place = setting.source == Source::kFile ? texts.file + ": " : "";
  throw Exception(place + complaint + setting.text.value_or(""));
}

// Empty when it was not given.
std::string textOf(const SettingTexts& texts, SettingId id) {
  return texts.of[id].text.value_or("");
}

std::optional<sockaddr_in> addressOf(const SettingTexts& texts, SettingId id) {
  if (!texts.of[id].text) return std::nullopt;
  const std::optional<sockaddr_in> address = parseAddress(*texts.of[id].text);
  if (!address) refuse(texts, id, "not an IPv4 address and port: ");
  return address;
}

std::optional<sockaddr_in> upstreamOf(const SettingTexts& texts) {
  const std::optional<sockaddr_in> address = addressOf(texts, kUpstream);
  if (address && address->sin_port == 0) refuse(texts, kUpstream, "no port to connect to: ");
  return address;
}

// A number from 1 to kConnectionsMax, in decimal digits alone.
int connectionsOf(const SettingTexts& texts) {
  const std::string text = textOf(texts, kConnections);
  char* end;
  const long number = strtol(text.c_str(), &end, 10);
  const bool digits = text[0] >= '0' && text[0] <= '9' && *end == '\0';
  if (!digits || number < 1 || number > kConnectionsMax)
    refuse(texts, kConnections, "not a number of connections, 1 to 60000: ");
  return static_cast<int>(number);
}

sig_signal_action crashActionOf(const SettingTexts& texts) {
  const std::string name = textOf(texts, kCrashAction);
  for (const CrashAction& known : kCrashActions) {
    if (name == known.name) return known.action;
  }
  refuse(texts, kCrashAction, "not an action after a crash: ");
}

bool isYes(const SettingTexts& texts, SettingId id) {
  const std::string text = textOf(texts, id);
  if (text != kYes && text != kNo) refuse(texts, id, "not yes or no: ");
  return text == kYes;
}

// What would end the quoted value that it is put into, or the playlist's element, is no prefix.
bool canStandInALink(char c) {
  return c > ' ' && c < '\x7f' && strchr("\"'<>", c) == nullptr;
}

std::string prefixOf(const SettingTexts& texts) {
  std::string prefix = textOf(texts, kPrefix);
  if (prefix.size() > kLongestPrefix || !std::all_of(prefix.begin(), prefix.end(), canStandInALink))
    refuse(texts, kPrefix,
           "not a prefix of links, at most 1000 characters without blanks, quotes and angle "
           "brackets: ");
  return prefix;
}

Routes routesOf(const SettingTexts& texts, const std::optional<sockaddr_in>& upstream) {
  Routes routes;
  const std::string file = textOf(texts, kRoutes);
  if (!file.empty()) routes.load(file);
  if (upstream) routes.addDefault(*upstream);
  if (!routes.hasDefault()) throw Exception("--upstream is missing");
  return routes;
}

std::string shown(SettingId id, const SettingText& setting) {
  if (!setting.text) return "none";
  if (id == kSpawnUpstream && setting.text->empty()) return "the working directory";
  return setting.text->empty() ? "none" : *setting.text;
}

}  // namespace

SettingTexts::SettingTexts() {
  for (int id = 0; id < kSettingCount; ++id) {
    if (kSettings[id].default_text != nullptr) of[id].text = kSettings[id].default_text;
  }
}

void SettingTexts::setOption(SettingId id, const char* text) {
  of[id] = {text, Source::kOption};
}

void readSettingsFile(const std::string& name, SettingTexts* texts) {
  if (name.empty() || name.size() > kLongestFileName || name.find('/') != std::string::npos)
    throw Exception("not the name of a settings file, of 1 to 9 characters: " + name);
  texts->file = "/local/local1/elc/" + name + ".elc";

  FileEntries entries;
  entries.read(name);
  entries.putInto(texts);
}

Settings understand(const SettingTexts& texts) {
  const SettingText& spawn = texts.of[kSpawnUpstream];
  const std::optional<sockaddr_in> listen = addressOf(texts, kListen);
  std::optional<sockaddr_in> upstream = upstreamOf(texts);
  Settings settings;
  settings.spawn_upstream = spawn.text.has_value();
  settings.upstream_directory = spawn.text.value_or("");
  settings.prefix = prefixOf(texts);
  settings.digests = isYes(texts, kDigests);
  settings.name = textOf(texts, kName);
  settings.connections = connectionsOf(texts);
  settings.crash_action = crashActionOf(texts);
  settings.crash_on_signal = isYes(texts, kCrashOnSignal);

  if (!listen) throw Exception("--listen is missing");
  settings.listen = *listen;
  if (settings.spawn_upstream) {
    if (texts.of[kUpstream].source == Source::kOption)
      throw Exception("--upstream and --spawn-upstream exclude each other");
    upstream = parseAddress(UpstreamServer::kAddress);
  }
  settings.routes = routesOf(texts, upstream);
  return settings;
}

std::string report(const SettingTexts& texts, const Settings& settings) {
  std::string lines;
  if (!texts.file.empty()) {
    const bool is_there = access(texts.file.c_str(), F_OK) == 0;
    lines += "settings file: " + texts.file + (is_there ? "\n" : " (not there)\n");
  }
  for (int id = 0; id < kSettingCount; ++id) {
    const SettingText& setting = texts.of[id];
    lines += std::string(kSettings[id].name) + ": " + shown(static_cast<SettingId>(id), setting) +
             " (" + kSourceNames[static_cast<int>(setting.source)] + ")\n";
  }
  return lines + settings.routes.report();
}
