// What the two sources of the syslog service's messages share.
#ifndef VELORIN_Logger_syslog_
#define VELORIN_Logger_syslog_

#include <stdint.h>

constexpr uint32_t kZamModule = 84;  // everything that does not name a module of its own
constexpr uint32_t kSyslogZero = 0;  // the word that the client is always passed as 0
constexpr char kNullMessage[] = "(null message)";

#endif  // VELORIN_Logger_syslog_
