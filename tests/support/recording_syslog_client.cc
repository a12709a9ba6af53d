// The four operations of libsyslog, each of which records its call as a line of a file. See
// recording_syslog.h.
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "ku_syslog.h"

namespace {

constexpr char kFile[] = "RECORDING_SYSLOG_FILE";
constexpr char kInitResult[] = "RECORDING_SYSLOG_INIT_RESULT";
constexpr char kDebugResult[] = "RECORDING_SYSLOG_DEBUG_RESULT";

// A record that is lost would make a test pass that must fail.
[[noreturn]] void refuse(const char* what) {
  perror(what);
  abort();
}

const char* setting(const char* name) {
  const char* const value = getenv(name);
  if (value == nullptr) refuse(name);
  return value;
}

int number(const char* name) {
  return static_cast<int>(strtol(setting(name), nullptr, 10));
}

// One write per line, so that those of several threads and processes never mix.
void record(std::string line) {
  line += '\n';
  const int fd = open(setting(kFile), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd < 0) refuse(kFile);
  if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) refuse(kFile);
  (void)close(fd);
}

std::string escaped(const char* text) {
  std::string out;
  for (; *text != '\0'; ++text) {
    const unsigned byte = static_cast<unsigned char>(*text);
    char hex[8];
    if (byte == '\\') {
      out += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f) {
      (void)snprintf(hex, sizeof hex, "\\x%02X", byte);
      out += hex;
    } else {
      out += *text;
    }
  }
  return out;
}

std::string words(const char* operation, uint32_t module, uint32_t zero) {
  return std::string(operation) + ' ' + std::to_string(module) + ' ' + std::to_string(zero);
}

}  // namespace

int ku_syslog_init(void) {
  record("ku_syslog_init");
  return number(kInitResult);
}

int ku_syslog(int priority, uint32_t module, uint32_t zero, uint32_t message_id, const char* format,
              ...) {
  char* text = nullptr;
  va_list ap;
  va_start(ap, format);
  const int len = vasprintf(&text, format, ap);
  va_end(ap);
  if (len < 0) refuse("ku_syslog");
  const std::string operation = "ku_syslog " + std::to_string(priority);
  record(words(operation.c_str(), module, zero) + ' ' + std::to_string(message_id) + ' ' +
         escaped(text));
  free(text);
  return 0;
}

int is_debug_enabled(uint32_t module, uint32_t zero) {
  record(words("is_debug_enabled", module, zero));
  return number(kDebugResult);
}

int set_debug(uint32_t module, uint32_t zero, int on) {
  record(words("set_debug", module, zero) + ' ' + std::to_string(on));
  return 0;
}
