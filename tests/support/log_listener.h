// The receiving end of a log daemon's socket, for tests.
#ifndef VELORIN_TESTS_log_listener_
#define VELORIN_TESTS_log_listener_

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

// One datagram as it came: the text, the zero byte and the time behind it.
struct LogDatagram {
  std::string bytes;  // all of it
  std::string text;   // what stands before the last nine bytes
  uint32_t sec = 0;
  uint32_t usec = 0;
};

// Binds a datagram socket at a path, world-writable, and removes it in the end.
class LogListener {
 public:
  // Throws std::runtime_error when the path cannot be bound.
  explicit LogListener(const std::string& path);
  ~LogListener();
  LogListener(const LogListener&) = delete;
  LogListener& operator=(const LogListener&) = delete;

  // The next datagram. Waits for it at most `seconds`; fails the test, with an empty result, when
  // none comes or when it is not text, zero byte and time.
  LogDatagram next(int seconds = 20);

  // Its text without the newline at its end.
  std::string nextLine(int seconds = 20);

  // The next datagram if one is waiting: sending is synchronous, so what was sent is here.
  std::optional<LogDatagram> poll();

  // The texts of all datagrams that are waiting.
  std::vector<std::string> waiting();

  const std::string& path() const { return path_; }
  int fd() const { return fd_; }

 private:
  std::optional<LogDatagram> receive(int flags);

  std::string path_;
  int fd_;
};

#endif  // VELORIN_TESTS_log_listener_
