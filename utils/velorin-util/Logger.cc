// The syslog service's messages and the unified log. See zam/Logger.
#include "zam/Logger"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Logger_syslog.h"
#include "internal/log_datagram.h"
#include "ku_syslog.h"

using velorin::internal::deliver;
using velorin::internal::ErrnoKeeper;
using velorin::internal::format_text;
using velorin::internal::kDatagramRoom;
using velorin::internal::LogSender;
using velorin::internal::open_sender;
using velorin::internal::write_all;

namespace {

constexpr int kError = 3;  // syslog priorities
constexpr int kWarning = 4;
constexpr int kNotice = 5;
constexpr int kInfo = 6;
constexpr int kDebug = 7;

constexpr char kUnifiedLog[] = "/tmp/zam-errorlog";
constexpr int kDieExit = 1;

// Whether the syslog client was initialised, and with success; threads that are first together may
// both initialise it.
int init = 0;
int ok = 0;

sockaddr_un zam_errorlog = {AF_UNIX, "/tmp/zam-errorlog"};
// Kept: unlike the debug log's, every failed send says so, and the text goes nowhere else.
void report_unsent(bool /*first*/, const char* /*text*/, size_t /*len*/) {
  perror("sendto()");
}

LogSender sender = {
    "WARNING: logging to zam_errorlog is NOT enabled, no error will be logged in this session.\n",
    report_unsent};

void initialise_client() {
  // Kept: a client that fails is not tried again; all that is for it is dropped without a word.
  __atomic_store_n(&ok, ku_syslog_init() == 0, __ATOMIC_RELAXED);
  __atomic_store_n(&init, 1, __ATOMIC_RELEASE);
}

bool initialised() {
  return __atomic_load_n(&init, __ATOMIC_ACQUIRE) != 0;
}

bool usable() {
  return __atomic_load_n(&ok, __ATOMIC_RELAXED) != 0;
}

// Threads that are first together all set the same path, and one of them may send while another
// still sets it: byte for byte what is there already.
void set_path(const char (&path)[sizeof zam_errorlog.sun_path]) {
  for (size_t i = 0; i < sizeof path; ++i)
    __atomic_store_n(&zam_errorlog.sun_path[i], path[i], __ATOMIC_RELAXED);
}

sockaddr_un address() {
  sockaddr_un to = {AF_UNIX, ""};
  for (size_t i = 0; i < sizeof to.sun_path; ++i)
    to.sun_path[i] = __atomic_load_n(&zam_errorlog.sun_path[i], __ATOMIC_RELAXED);
  return to;
}

}  // namespace

namespace zam {

std::string Logger::id() {
  const char* const id = getenv("VELORIN_LOGID");
  return id != nullptr && *id != '\0' ? id : program_invocation_short_name;
}

void Logger::initialize() {}

void Logger::put(int priority, int id, const std::string& message) {
  if (!initialised()) initialise_client();
  if (!usable()) return;
  // Kept: an empty message is recorded as one that was null.
  (void)ku_syslog(priority, kZamModule, kSyslogZero, static_cast<uint32_t>(id), "%s",
                  message.empty() ? kNullMessage : message.c_str());
}

void Logger::warn(int id, const std::string& message) {
  put(kWarning, id, message);
}

void Logger::warn(const std::string& message) {
  put(kWarning, UNDOCUMENTED, message);
}

void Logger::notice(int id, const std::string& message) {
  put(kNotice, id, message);
}

void Logger::notice(const std::string& message) {
  put(kNotice, UNDOCUMENTED, message);
}

void Logger::info(int id, const std::string& message) {
  put(kInfo, id, message);
}

void Logger::debug(int id, const std::string& message) {
  put(kDebug, id, message);
}

void Logger::debug(const std::string& message) {
  put(kDebug, DEBUG_MNEMONIC, message);
}

void Logger::print(int id, const std::string& message) {
  put(kInfo, id, message);
  const std::string line = message + "\n";
  write_all(STDOUT_FILENO, line.data(), line.size());
}

void Logger::die(int id, const std::string& message) {
  put(kError, id, message);
  const std::string line = Logger::id() + ": " + message + "\n";
  write_all(STDERR_FILENO, line.data(), line.size());
  exit(kDieExit);
}

}  // namespace zam

int init_zam_unifiedlog(const char* send_path) {
  char path[sizeof zam_errorlog.sun_path] = {};
  // A longer path is cut, as the address has no more room.
  (void)snprintf(path, sizeof path, "%s.%d", send_path != nullptr ? send_path : kUnifiedLog,
                 static_cast<int>(getuid()));
  set_path(path);
  return 0;
}

int init_logger(void) {
  if (!initialised()) {
    // Kept: zam::Logger shares the client's state but not this, so that a process whose first
    // message is one of zam::Logger's stays with the path without a user id.
    (void)init_zam_unifiedlog(nullptr);
    initialise_client();
  }
  return usable();
}

void send_to_unifiedlog(const char* format, ...) {
  const ErrnoKeeper keeper;
  if (!open_sender(&sender)) return;
  char text[kDatagramRoom];
  va_list ap;
  va_start(ap, format);
  const size_t len = format_text(text, format, ap);
  va_end(ap);
  if (len > 0) deliver(&sender, address(), text, len);
}
