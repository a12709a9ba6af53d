// What the proxy runs with.
#ifndef TCP_PROXY_settings_
#define TCP_PROXY_settings_

#include <netinet/in.h>

#include <optional>
#include <string>

#include "routes.h"
#include "velorin/sig_handler"

enum SettingId {
  kListen,
  kUpstream,
  kSpawnUpstream,
  kRoutes,
  kPrefix,
  kDigests,
  kName,
  kConnections,
  kCrashAction,
  kCrashOnSignal,
  kSettingCount
};

enum class Source { kDefault, kFile, kOption };  // a later one wins over an earlier one

// One setting as it was written; without a text it was not given and has no default.
struct SettingText {
  std::optional<std::string> text;
  Source source = Source::kDefault;
};

struct SettingTexts {
  SettingTexts();  // the defaults

  // A text from the command line.
  void setOption(SettingId id, const char* text);

  SettingText of[kSettingCount];
  std::string file;  // where those of Source::kFile come from
};

// The settings, understood.
struct Settings {
  sockaddr_in listen = {};
  Routes routes;                   // to the upstream servers; every client has one
  bool spawn_upstream = false;     // the upstream server is ours to start and stop
  std::string upstream_directory;  // what it serves; empty: the working directory
  std::string prefix;              // of the links in playlists; empty: they are left alone
  bool digests = false;            // of what clients get are logged
  std::string name;                // at the head of every log line
  int connections = 0;             // so many clients at most
  sig_signal_action crash_action = SIGNAL_ACTION_COREDUMP;
  bool crash_on_signal = false;  // SIGUSR2 crashes the proxy
};

// Puts the texts of /local/local1/elc/NAME.elc in the place of the defaults; those of options
// stay. A file that is not there changes nothing. Throws an Exception that says what is wrong.
void readSettingsFile(const std::string& name, SettingTexts* texts);

// Reads the routes, too. Throws an Exception that says what is wrong.
Settings understand(const SettingTexts& texts);

// Every setting with its source, a line each, then the routes.
std::string report(const SettingTexts& texts, const Settings& settings);

#endif  // TCP_PROXY_settings_
