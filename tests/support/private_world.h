// A test's own machine: namespaces of its own and fresh file systems over the fixed paths.
#ifndef VELORIN_TESTS_private_world_
#define VELORIN_TESTS_private_world_

#include <gmock/gmock.h>
#include <sys/types.h>

#include <memory>
#include <string>

#include "support/log_listener.h"

// The whole test program runs in new user, mount, IPC, network and PID namespaces (its main sees to
// that); each test of this fixture finds
// - an empty /tmp, a System V IPC namespace without segments, a loopback interface that is up;
// - an environment without the variables that the library reads;
// - a log daemon's socket at "/tmp/ad_errorlog", where a process that has not called
//   ad_init_debug_lib sends its lines.
// Where the kernel refuses namespaces the program fails and says so.
class PrivateWorld : public testing::Test {
 protected:
  PrivateWorld();
  ~PrivateWorld() override;

  // The listener at "/tmp/ad_errorlog". reset it to take the daemon away.
  LogListener& daemon() { return *daemon_; }
  void removeDaemon() { daemon_.reset(); }

  // Puts a fresh, empty tmpfs over `dir`, which is made if it does not exist.
  static void cover(const std::string& dir);

  static void write(const std::string& path, const std::string& text);
  static std::string read(const std::string& path);

  // Makes the calling process an unprivileged user for good; call it in a child. Fails the test
  // where this program was not started by root, which alone may map a second user.
  static void becomeUser(uid_t uid);

 private:
  std::unique_ptr<LogListener> daemon_;
};

#endif  // VELORIN_TESTS_private_world_
