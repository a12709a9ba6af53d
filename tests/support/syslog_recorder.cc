// A recording syslog client. See syslog_recorder.h.
#include "support/syslog_recorder.h"

#include <stdarg.h>
#include <stdio.h>

#include <mutex>
#include <ostream>
#include <utility>

#include "ku_syslog.h"

int syslog_init_result = 0;
int syslog_init_calls = 0;

namespace {

std::mutex mutex;

// Shows what is left when the process exits.
struct Calls {
  ~Calls() {
    for (const SyslogCall& call : list)
      printf("syslog %d %u %u %u %s\n", call.priority, call.module, call.zero, call.message_id,
             call.text.c_str());
  }
  std::vector<SyslogCall> list;
};

Calls& calls() {
  static Calls calls;
  return calls;
}

}  // namespace

bool SyslogCall::operator==(const SyslogCall& other) const {
  return priority == other.priority && module == other.module && zero == other.zero &&
         message_id == other.message_id && text == other.text;
}

std::ostream& operator<<(std::ostream& to, const SyslogCall& call) {
  return to << "priority " << call.priority << " module " << call.module << " zero " << call.zero
            << " id " << call.message_id << " \"" << call.text << "\"";
}

std::vector<SyslogCall> takeSyslogCalls() {
  const std::lock_guard<std::mutex> lock(mutex);
  return std::exchange(calls().list, {});
}

int ku_syslog_init(void) {
  const std::lock_guard<std::mutex> lock(mutex);
  ++syslog_init_calls;
  return syslog_init_result;
}

int ku_syslog(int priority, uint32_t module, uint32_t zero, uint32_t message_id, const char* format,
              ...) {
  char text[16384];
  va_list ap;
  va_start(ap, format);
  (void)vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  const std::lock_guard<std::mutex> lock(mutex);
  calls().list.push_back({priority, module, zero, message_id, format, text});
  return 0;
}
