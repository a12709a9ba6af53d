// Commands that show and change the record. See record_commands.h.
#include "record_commands.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/un.h>
#include <time.h>

#include <optional>
#include <string>

#include "common/command.h"
#include "internal/log_datagram.h"

namespace {

constexpr timespec kWatchInterval = {0, 200'000'000};

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

void set(const Request& request, const Record& record, Field field) {
  const uint32_t before = exchange_word(record.cfg, field, request.value);
  Printer(request.json, /*stamped=*/false).change(record, field, before, request.value);
}

// The record that the socket leads to now, when it is another one: a daemon that starts anew makes
// a new socket and so a new record.
std::optional<Record> replacement(const Record& record) {
  std::string why;
  if (find_segment(record.path, &why) == record.id) return std::nullopt;
  return attach(record.path, &why);
}

}  // namespace

void show(const Request& request, const Record& record) {
  Printer(request.json, /*stamped=*/false).state(record, read_words(record.cfg));
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
