// The proxy as a running program, and both ends of its connections, for the tests of it.
#ifndef VELORIN_TESTS_tcp_proxy_fixture_
#define VELORIN_TESTS_tcp_proxy_fixture_

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/eventually.h"
#include "support/log_listener.h"
#include "support/private_world.h"
#include "velorin/ad_debug"

inline constexpr char kProgram[] = VELORIN_BIN "/tcp_proxy";
inline constexpr char kDaemonSocket[] = "/tmp/ad_errorlog.0";

inline sockaddr_in addressOf(const std::string& ip, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

// A blocking TCP socket whose calls give up after kPatience.
class Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {
    if (fd_ < 0) throw std::runtime_error(std::string("socket: ") + strerror(errno));
    const timeval limit = {kPatience, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  }
  Socket(Socket&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Socket& operator=(Socket&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Socket() {
    if (fd_ >= 0) close(fd_);
  }

  int fd() const { return fd_; }

  int port() const {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }

  Socket accepted() const { return Socket(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)); }

  void send(const std::string& text) const {
    size_t sent = 0;
    while (sent < text.size()) {
      const ssize_t n = ::send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
      if (n < 0) return ADD_FAILURE() << "send: " << strerror(errno), void();
      sent += static_cast<size_t>(n);
    }
  }

  // Exactly `size` bytes, or fewer when the stream ends before.
  std::string receive(size_t size) const {
    std::string text(size, '\0');
    const ssize_t n = recv(fd_, text.data(), size, MSG_WAITALL);
    text.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return text;
  }

  // Everything up to the end of the stream; `*err` gets 0, or the errno that it ended with.
  std::string receiveAll(int* err) const {
    std::string text;
    std::string room(65536, '\0');
    ssize_t n;
    while ((n = recv(fd_, room.data(), room.size(), 0)) > 0)
      text.append(room, 0, static_cast<size_t>(n));
    *err = n < 0 ? errno : 0;
    return text;
  }

  std::string receiveAll() const {
    int err;
    const std::string text = receiveAll(&err);
    EXPECT_EQ(err, 0) << strerror(err);
    return text;
  }

  // How the stream ends, with nothing before: 0, or an errno.
  int ending() const {
    int err;
    EXPECT_EQ(receiveAll(&err), "");
    return err;
  }

  // Bytes that the other end's kernel has not taken yet.
  int unacknowledged() const {
    int count = -1;
    ioctl(fd_, SIOCOUTQ, &count);
    return count;
  }

  int state() const {
    tcp_info info = {};
    socklen_t size = sizeof info;
    getsockopt(fd_, IPPROTO_TCP, TCP_INFO, &info, &size);
    return info.tcpi_state;
  }

  void endOutput() const { shutdown(fd_, SHUT_WR); }

  void reset() {
    const linger none = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

inline Socket listening(int backlog = 1024) {
  Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = addressOf("127.0.0.1", 0);
  if (bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(socket.fd(), backlog) != 0)
    throw std::runtime_error(std::string("listen: ") + strerror(errno));
  return socket;
}

inline Socket connected(int port, const std::string& source = "127.0.0.1") {
  Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in from = addressOf(source, 0);
  const sockaddr_in to = addressOf("127.0.0.1", port);
  if (bind(socket.fd(), reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0 ||
      connect(socket.fd(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
    throw std::runtime_error(std::string("connect: ") + strerror(errno));
  return socket;
}

// A port that nobody listens at.
inline int refusingPort() {
  return listening().port();
}

inline std::string randomBytes(size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

inline void limitDescriptors(rlim_t count) {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = count;
  setrlimit(RLIMIT_NOFILE, &limit);
}

inline std::string textOf(const sockaddr_in& address) {
  char ip[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address.sin_addr, ip, sizeof ip);
  return std::string(ip) + ":" + std::to_string(ntohs(address.sin_port));
}

inline std::string localAddress(const Socket& socket) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &size);
  return textOf(address);
}

// A proxy that runs on a free port.
class Proxy {
 public:
  using Setup = std::function<void()>;

  // In front of `upstream_port`. `in_child` runs in the new process before the program is started
  // there.
  explicit Proxy(
      int upstream_port, const Setup& in_child = [] {})
      : Proxy({"--upstream=127.0.0.1:" + std::to_string(upstream_port)}, in_child) {}

  // In front of what the options tell.
  explicit Proxy(
      const std::vector<std::string>& options, const Setup& in_child = [] {})
      : child_([=] {
          closefrom(3);  // so that its descriptors can be counted
          in_child();
          std::vector<std::string> words = {kProgram, "--listen=127.0.0.1:0", "--name=proxy"};
          words.insert(words.end(), options.begin(), options.end());
          std::vector<char*> argv;
          for (std::string& word : words) argv.push_back(word.data());
          argv.push_back(nullptr);
          execv(kProgram, argv.data());
          _exit(127);
        }) {
    const std::string announcement = "listening on 127.0.0.1:";
    if (!child_.waitForOut("\n") || child_.out().compare(0, announcement.size(), announcement) != 0)
      throw std::runtime_error("the proxy did not start: " + child_.out() + child_.err());
    port_ = std::stoi(child_.out().substr(announcement.size()));
  }

  int port() const { return port_; }
  pid_t pid() const { return child_.pid(); }
  Child& child() { return child_; }
  Socket client(const std::string& source = "127.0.0.1") const { return connected(port_, source); }

  // A log line that it wrote, as a regular expression.
  std::string line(const std::string& tag, const std::string& file, const std::string& rest) const {
    return "proxy\\(" + std::to_string(pid()) + "\\)" + tag + ":" + file + "\\.cc:[0-9]+-> " + rest;
  }

  int openDescriptors() const {
    int count = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid()) + "/fd")) {
      (void)entry;
      ++count;
    }
    return count;
  }

  // Whether it is waiting in the kernel now.
  bool sleeps() const {
    const int fd = open(("/proc/" + std::to_string(pid()) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
    char stat[512] = "";
    const ssize_t size = read(fd, stat, sizeof stat - 1);
    close(fd);
    const char* const name_end = size > 0 ? strrchr(stat, ')') : nullptr;
    return name_end != nullptr && name_end[2] == 'S';
  }

  // Ends it with SIGTERM; it must not have complained.
  void stop() {
    child_.signal(SIGTERM);
    const ChildResult result = child_.wait();
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_EQ(result.err, "");
  }

 private:
  Child child_;
  int port_ = 0;
};

// What lies unread in the socket at `local_port` that is connected to `remote_port`.
inline unsigned long unreadBytes(int local_port, int remote_port) {
  std::ifstream table("/proc/net/tcp");
  std::string row;
  while (std::getline(table, row)) {
    unsigned local, remote;
    unsigned long unread;
    if (sscanf(row.c_str(), " %*d: %*x:%x %*x:%x %*x %*x:%lx", &local, &remote, &unread) == 3 &&
        local == static_cast<unsigned>(local_port) && remote == static_cast<unsigned>(remote_port))
      return unread;
  }
  return 0;
}

class tcp_proxyTest : public PrivateWorld {
 protected:
  tcp_proxyTest() : log_(std::make_unique<LogListener>(kDaemonSocket)) {}

  LogListener& log() { return *log_; }
  void removeLog() { log_.reset(); }

  // The record that all processes of this daemon share.
  ad_debug_cfg_t& record() {
    if (record_ == nullptr) {
      EXPECT_EQ(ad_get_ad_debug_cfg_p(kDaemonSocket, &record_), 0);
    }
    return *record_;
  }
  void setLevel(int level) { __atomic_store_n(&record().ad_debug_level, level, __ATOMIC_RELAXED); }

 private:
  std::unique_ptr<LogListener> log_;
  ad_debug_cfg_t* record_ = nullptr;
};

#endif  // VELORIN_TESTS_tcp_proxy_fixture_
