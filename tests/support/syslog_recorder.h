// A recording syslog client, in libsyslog's place for the test program that is linked with it.
#ifndef VELORIN_TESTS_syslog_recorder_
#define VELORIN_TESTS_syslog_recorder_

#include <stdint.h>

#include <string>
#include <vector>

struct SyslogCall {
  int priority;
  uint32_t module;
  uint32_t zero;
  uint32_t message_id;
  std::string format;
  std::string text;

  bool operator==(const SyslogCall& other) const;
};
std::ostream& operator<<(std::ostream& to, const SyslogCall& call);

// What ku_syslog was called with, by this process, since it was last taken.
std::vector<SyslogCall> takeSyslogCalls();

// A process that exits with records not taken writes them to standard output, a line each:
// "syslog PRIORITY MODULE ZERO ID TEXT".

// What ku_syslog_init returns, and how often it was called.
extern int syslog_init_result;
extern int syslog_init_calls;

#endif  // VELORIN_TESTS_syslog_recorder_
