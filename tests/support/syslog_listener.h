// The syslog server's end of /dev/log, for tests.
#ifndef VELORIN_TESTS_syslog_listener_
#define VELORIN_TESTS_syslog_listener_

#include <optional>
#include <string>
#include <vector>

// One record as syslog(3) sends it: "<PRI>TIME IDENT[PID]: TEXT".
struct SyslogRecord {
  std::string bytes;  // all of it
  int facility = -1;  // as in <syslog.h>, LOG_DAEMON for instance
  int priority = -1;  // 0 to 7
  std::string ident;
  int pid = -1;  // -1: none
  std::string text;
};

// Binds a datagram socket at "/dev/log". Call it in a PrivateWorld whose /dev is covered.
class SyslogListener {
 public:
  // Throws std::runtime_error when the path cannot be bound.
  SyslogListener();
  ~SyslogListener();
  SyslogListener(const SyslogListener&) = delete;
  SyslogListener& operator=(const SyslogListener&) = delete;

  // The next record if one is waiting: sending is synchronous, so what was sent is here. Fails the
  // test when it is not of the form above.
  std::optional<SyslogRecord> poll();

  // All records that are waiting.
  std::vector<SyslogRecord> waiting();

 private:
  int fd_;
};

#endif  // VELORIN_TESTS_syslog_listener_
