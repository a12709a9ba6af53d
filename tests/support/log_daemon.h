// The log daemon as a program, for tests: starting it, sending to it, taking its lines apart.
#ifndef VELORIN_TESTS_log_daemon_
#define VELORIN_TESTS_log_daemon_

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "velorin/ad_debug"

using Texts = std::vector<std::string>;

constexpr char kProgram[] = VELORIN_BIN "/ad_logd";
constexpr char kBase[] = "/tmp/ad_errorlog";
constexpr char kSocket[] = "/tmp/ad_errorlog.0";
constexpr char kSpecialBase[] = "/tmp/ad_errorlog_sp";
constexpr char kSpecialSocket[] = "/tmp/ad_errorlog_sp.0";
constexpr char kListening[] = "ad_logd: listening at ";

// A daemon that is ready.
class Logd : public Child {
 public:
  explicit Logd(const Texts& arguments = {}, const Texts& environment = {})
      : Child(commandLine(arguments), environment) {
    waitForErr(kListening);
  }

  // Waits until all that was sent so far is received and written, as far as that can be.
  bool settle(const std::string& counts) {
    signal(SIGUSR2);
    return waitForErr("ad_logd: " + counts + "\n");
  }

  ChildResult stop() {
    signal(SIGTERM);
    return wait();
  }

  static Texts commandLine(Texts arguments) {
    arguments.insert(arguments.begin(), kProgram);
    return arguments;
  }
};

// A process that sends datagrams of any form.
class Sender {
 public:
  Sender() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const timeval limit = {20, 0};
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  }
  ~Sender() { close(fd_); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  // Sends, waiting while the queue is full; to where it is connected when `path` is empty.
  // Returns: 0 or an error number.
  int trySend(const std::string& bytes, const std::string& path = kSocket) const {
    const sockaddr_un to = address(path);
    const ssize_t sent = sendto(fd_, bytes.data(), bytes.size(), 0,
                                path.empty() ? nullptr : reinterpret_cast<const sockaddr*>(&to),
                                path.empty() ? 0 : sizeof to);
    return sent < 0 ? errno : 0;
  }

  void connectTo(const std::string& path) const {
    const sockaddr_un to = address(path);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0) << path;
  }

  void send(const std::string& bytes, const std::string& path = kSocket) const {
    const int err = trySend(bytes, path);
    EXPECT_EQ(err, 0) << path << ": " << strerror(err);
  }

 private:
  static sockaddr_un address(const std::string& path) {
    sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    path.copy(to.sun_path, sizeof to.sun_path - 1);
    return to;
  }

  int fd_;
};

constexpr uint32_t kSecond = 1000000000;  // 2001-09-09 01:46:40 UTC

inline std::string datagram(const std::string& text, uint32_t sec = kSecond, uint32_t usec = 123) {
  std::string bytes = text + '\0';
  bytes.append(reinterpret_cast<const char*>(&sec), sizeof sec);
  bytes.append(reinterpret_cast<const char*>(&usec), sizeof usec);
  return bytes;
}

// The lines of a text; what stands behind the last newline is one too, with "(torn)" behind it.
inline Texts lines(const std::string& text) {
  Texts result;
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = text.find('\n', at);
    result.push_back(end == std::string::npos ? text.substr(at) + "(torn)"
                                              : text.substr(at, end - at));
    at = end == std::string::npos ? text.size() : end + 1;
  }
  return result;
}

// What stands behind the time in a line.
inline std::string behindTime(const std::string& line) {
  constexpr size_t kTime = sizeof "2001-09-09 01:46:40.000123" - 1;
  return line.size() < kTime ? "(short) " + line : line.substr(kTime);
}

inline Texts behindTimes(const std::string& text) {
  Texts result;
  for (const std::string& line : lines(text)) result.push_back(behindTime(line));
  return result;
}

// What a daemon writes that gets these datagrams.
inline std::string linesOf(const Texts& datagrams, const Texts& arguments = {"--utc"},
                           const Texts& environment = {}) {
  Logd logd(arguments, environment);
  const Sender sender;
  for (const std::string& bytes : datagrams) sender.send(bytes);
  const ChildResult result = logd.stop();
  EXPECT_EQ(result.exitCode(), 0) << result;
  return result.out;
}

// A process of the library that does one thing each time that it is told to.
class Worker {
 public:
  explicit Worker(const std::function<void(char command)>& act) {
    if (pipe2(commands_, O_CLOEXEC) != 0) abort();
    child_ = std::make_unique<Child>([this, &act] {
      close(commands_[1]);
      char command;
      while (read(commands_[0], &command, 1) == 1) {
        act(command);
        if (write(STDOUT_FILENO, &command, 1) != 1) break;
      }
    });
    close(commands_[0]);
  }
  ~Worker() { close(commands_[1]); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void tell(char command) {
    done_ += command;
    ASSERT_EQ(write(commands_[1], &command, 1), 1);
    child_->waitForOut(done_);
  }

  const std::string& err() const { return child_->err(); }
  void signal(int number) const { child_->signal(number); }

 private:
  int commands_[2];
  std::string done_;
  std::unique_ptr<Child> child_;
};

inline void connectToDaemon() {
  ad_debug_set_process_name("worker");
  ad_init_debug_lib(kBase);
}

inline ad_debug_cfg_t* recordOf(const char* path) {
  ad_debug_cfg_t* record = nullptr;
  EXPECT_EQ(ad_get_ad_debug_cfg_p_no_create(path, &record), 0) << path;
  return record;
}

inline void setLevel(ad_debug_cfg_t* record, int32_t level) {
  __atomic_store_n(&record->ad_debug_level, level, __ATOMIC_RELAXED);
}

// The keys of the files that are made next in /tmp: its files are numbered in the order made.
inline std::vector<key_t> nextKeys() {
  const char* const path = "/tmp/numbered";
  close(open(path, O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  const key_t key = ftok(path, 100);
  std::vector<key_t> keys;
  for (int i = 1; i <= 8; ++i) keys.push_back(key + i);
  return keys;
}

// The reading end of a FIFO that a daemon writes to.
class FifoReader {
 public:
  FifoReader() {
    mkfifo("/tmp/fifo", 0600);
    open();
  }
  ~FifoReader() { close(fd_); }
  FifoReader(const FifoReader&) = delete;
  FifoReader& operator=(const FifoReader&) = delete;

  void open() { fd_ = ::open("/tmp/fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC); }
  void leave() { close(fd_); }

  // Reads until `count` lines are there; fails the test when they do not come.
  const std::string& readLines(size_t count) {
    char room[65536];
    while (newlines_ < count) {
      pollfd input = {fd_, POLLIN, 0};
      const ssize_t size = poll(&input, 1, 20000) > 0 ? ::read(fd_, room, sizeof room) : 0;
      if (size <= 0) {
        ADD_FAILURE() << "only " << newlines_ << " of " << count << " lines came";
        break;
      }
      text_.append(room, static_cast<size_t>(size));
      newlines_ += static_cast<size_t>(std::count(room, room + size, '\n'));
    }
    return text_;
  }

 private:
  int fd_;
  size_t newlines_ = 0;
  std::string text_;
};

#endif  // VELORIN_TESTS_log_daemon_
