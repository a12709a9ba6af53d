// A syslog client that records its calls, in libsyslog's place: preloaded into a program, or linked
// with a test program (the CMake target recording_syslog_client).
#ifndef VELORIN_TESTS_recording_syslog_
#define VELORIN_TESTS_recording_syslog_

#include <string>
#include <vector>

// The file that a recording client writes to, and what its operations are to return. Without one
// the recording client ends the process that calls it.
class RecordingSyslog {
 public:
  // Makes `file` anew, writable for every user, so that a PrivateWorld's /tmp takes it away.
  explicit RecordingSyslog(const std::string& file = "/tmp/recorded_syslog");

  // From here on, for programs that are started and for this process: initially both return 0.
  void initReturns(int result);
  void isDebugEnabledReturns(int result);

  // Records the calls of this process and of its forks, when it is linked with the client.
  void recordHere() const;

  // NAME=VALUE texts that make a program record its calls, for Child.
  std::vector<std::string> environment() const;

  // All calls so far, in the order made, of all processes that record here:
  //   ku_syslog_init
  //   ku_syslog PRIORITY MODULE ZERO MESSAGE_ID TEXT
  //   is_debug_enabled MODULE ZERO
  //   set_debug MODULE ZERO ON
  // In TEXT a backslash is "\\" and a control character "\xHH".
  std::vector<std::string> calls() const;

  // Forgets the calls so far.
  void clear();

 private:
  std::vector<std::string> settings() const;

  std::string file_;
  int init_result_ = 0;
  int debug_result_ = 0;
};

#endif  // VELORIN_TESTS_recording_syslog_
