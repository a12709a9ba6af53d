// Log statements: against an empty branch and a bare send, and against other loggers.
#define SPDLOG_ACTIVE_LEVEL SPDLOG_LEVEL_DEBUG
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sched.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "velorin/Exception"
#include "velorin/ad_debug"

// Visible outside, as the words are that a program's statements test.
uint32_t branch_word = 0;
std::shared_ptr<spdlog::logger> spdlog_logger;

namespace {

constexpr bench::Limit kAhead = {1.0, 1.0};

void check(bool ok, const std::string& what) {
  if (ok) return;
  fprintf(stderr, "diagnostics_bench: %s: %s\n", what.c_str(), strerror(errno));
  exit(1);
}

// ---- A machine of its own: the sockets' paths are fixed ----

void put(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  check(fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
  (void)close(fd);
}

void enterPrivateWorld() {
  const std::string user = "0 " + std::to_string(geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(getegid()) + " 1";
  check(unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWNET) == 0,
        "user, mount, IPC and network namespaces are needed: unshare");
  put("/proc/self/setgroups", "deny");
  put("/proc/self/uid_map", user);
  put("/proc/self/gid_map", group);
  check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount /");
  // A dump of 1500 bytes is 95 lines, more than a queue of the kernel's default length holds.
  put("/proc/sys/net/unix/max_dgram_qlen", "512");
  for (const char* dir : {"/tmp", "/run", "/dev"})
    check(mount("tmpfs", dir, "tmpfs", MS_NOSUID | MS_NODEV, nullptr) == 0, dir);
  for (const char* dir : {"/run/systemd", "/run/systemd/journal"})
    check(mkdir(dir, 0755) == 0, dir);
  for (const char* name : {"DEBUG_LEVEL", "DEBUG_CLIENT_IP", "DEBUG_SERVER_IP"}) unsetenv(name);
}

int datagramSocket() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  check(fd >= 0, "socket");
  return fd;
}

// A daemon's socket, and one to send to it with.
class Listener {
 public:
  explicit Listener(const std::string& path) {
    check(path.size() < sizeof address_.sun_path, path);
    memcpy(address_.sun_path, path.data(), path.size());
    check(bind(fd_, reinterpret_cast<const sockaddr*>(&address_), sizeof address_) == 0, path);
  }
  ~Listener() {
    (void)close(fd_);
    (void)close(sender_);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void send(const void* bytes, size_t len) const {
    (void)sendto(sender_, bytes, len, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address_),
                 sizeof address_);
  }

  // Returns: the next datagram; empty when none is waiting.
  std::string next() {
    char bytes[4096];
    const ssize_t len = recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT);
    return std::string(bytes, len > 0 ? static_cast<size_t>(len) : 0);
  }

  void drain() {
    while (!next().empty()) {
    }
  }

 private:
  sockaddr_un address_ = {AF_UNIX, ""};
  const int fd_ = datagramSocket();
  const int sender_ = datagramSocket();
};

// ---- Suppressed statements ----

constexpr size_t kStatements = 100000;

int evaluated = 0;

__attribute__((noinline, cold)) void takeBranch(int argument) {
  evaluated += argument;
}

// Runs a statement often; nothing that it read may be kept for the next time.
template <class Statement>
__attribute__((noinline)) void repeat(Statement statement) {
  for (size_t i = 0; i < kStatements; ++i) {
    statement();
    asm volatile("" : : : "memory");
  }
}

void emptyBranch() {
  repeat([] {
    if (__builtin_expect(__atomic_load_n(&branch_word, __ATOMIC_RELAXED) != 0, 0))
      takeBranch(++evaluated);
  });
}

void suppressedTrace() {
  repeat([] { AD_TRCE("%d\n", ++evaluated); });
}

void suppressedError() {
  repeat([] { AD_ERRO("%d\n", ++evaluated); });
}

void suppressedVlog() {
  repeat([] { VLOG(2) << ++evaluated; });
}

// Its macro evaluates the arguments of a suppressed statement too.
void suppressedSpdlog() {
  repeat([] { SPDLOG_LOGGER_DEBUG(spdlog_logger, "{}", evaluated); });
}

// The test alone that such a statement makes of the level that is common to the program.
void suppressedShouldLog() {
  repeat([] {
    if (spdlog::should_log(spdlog::level::debug)) takeBranch(++evaluated);
  });
}

struct LevelTest {
  const char* name;
  bench::Limit limit;
  void (*run)();
};

void suppressedContests(bench::Contests& contests, Listener& daemon, const char* name,
                        void (*ours)(), const std::vector<LevelTest>& peers) {
  for (const LevelTest& peer : peers) {
    const auto agree = [&] {
      daemon.drain();
      ours();
      peer.run();
      return evaluated == 0 && daemon.next().empty();
    };
    contests.run({name, peer.name, peer.limit, kStatements, agree, ours, peer.run});
  }
}

// Statements below the level, and such as the connection filter drops. The peers have no filter:
// what they take for the level alone is shown beside it.
void suppressedContests(bench::Contests& contests, Listener& daemon) {
  const bench::Limit branches = {2.2, 2.2};
  const bench::Limit none = {};
  suppressedContests(contests, daemon, "TRCE below its level", suppressedTrace,
                     {{"an empty branch", branches, emptyBranch},
                      {"glog VLOG(2)", kAhead, suppressedVlog},
                      {"spdlog DEBUG", kAhead, suppressedSpdlog},
                      {"spdlog's level", kAhead, suppressedShouldLog}});

  const uint32_t wanted = inet_addr("192.0.2.8");
  const uint32_t served = inet_addr("192.0.2.7");
  ad_debug_set_debug_parameter_directly(wanted, /*sip=*/0, /*level=*/-1);
  ad_current_client_ip = served;
  suppressedContests(contests, daemon, "ERRO of another client", suppressedError,
                     {{"an empty branch", branches, emptyBranch},
                      {"glog VLOG(2)", none, suppressedVlog},
                      {"spdlog DEBUG", kAhead, suppressedSpdlog},
                      {"spdlog's level", none, suppressedShouldLog}});

  ad_debug_set_debug_parameter_directly(/*cip=*/0, wanted, /*level=*/-1);
  ad_current_server_ip = served;
  suppressedContests(contests, daemon, "ERRO of another server", suppressedError,
                     {{"an empty branch", none, emptyBranch}});
  ad_debug_set_debug_parameter_directly(/*cip=*/0, /*sip=*/0, /*level=*/-1);
}

// ---- Emitted lines ----

constexpr char kProcess[] = "proxy";
constexpr int kPort = 8080;
constexpr size_t kTextLen = 74;  // of a line, with its newline
constexpr size_t kTimeLen = 8;   // at the end of a datagram of ours, behind a zero byte
constexpr size_t kLines = 10;    // sent by one timed call: what a queue of the default length holds

using Datagrams = std::vector<std::string>;

constexpr int kLine = __LINE__ + 2;
void sendOurs(const char* host) {
  AD_ERRO("%s: port %d\n", host, kPort);
}

// A sink that sends what our daemon gets: the text, a zero byte, and the time.
class DatagramSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  explicit DatagramSink(const Listener& to) : to_(to) {
    set_pattern_(std::string(kProcess) + "(%P)ERRO:%s:%#-> %v");
  }

 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    using std::chrono::duration_cast, std::chrono::microseconds;
    const auto us = duration_cast<microseconds>(message.time.time_since_epoch()).count();
    const uint32_t time[] = {static_cast<uint32_t>(us / 1000000),
                             static_cast<uint32_t>(us % 1000000)};
    static_assert(sizeof time == kTimeLen);
    spdlog::memory_buf_t text;
    formatter_->format(message, text);
    text.push_back('\0');
    text.append(reinterpret_cast<const char*>(time), reinterpret_cast<const char*>(time + 2));
    to_.send(text.data(), text.size());
  }
  void flush_() override {}

  const Listener& to_;
};

void sendSpdlog(const char* host) {
  spdlog_logger->log({__FILE__, kLine, __func__}, spdlog::level::err, "{}: port {}", host, kPort);
}

// What glog writes a line to in the place of a log file: the text with glog's own prefix is sent.
class DatagramLogger final : public google::base::Logger {
 public:
  explicit DatagramLogger(const Listener* to) : to_(to) {}

  void Write(bool, time_t, const char* text, size_t len) override {
    if (to_ != nullptr) to_->send(text, len);
  }
  void Flush() override {}
  google::uint32 LogSize() override { return 0; }

 private:
  const Listener* const to_;  // null: for the copy of a line that a lower severity gets
};

void sendGlog(const char* host) {
  LOG(ERROR) << host << ": port " << kPort;
}

void sendJournal(const char* host) {
  (void)sd_journal_send("MESSAGE=%s: port %d", host, kPort, "PRIORITY=%d", LOG_ERR, nullptr);
}

void sendSyslog(const char* host) {
  syslog(LOG_ERR, "%s: port %d", host, kPort);
}

// Calls `send` as often as a timed call does.
template <class Send>
std::function<void()> lines(Send send) {
  return [send] {
    for (size_t i = 0; i < kLines; ++i) send();
  };
}

Datagrams sentBy(const std::function<void()>& send, Listener& listener) {
  listener.drain();
  send();
  Datagrams sent;
  for (std::string one = listener.next(); !one.empty(); one = listener.next()) sent.push_back(one);
  return sent;
}

// The host that makes the first datagram that `send` sends for it `len` bytes long.
template <class Send>
std::string hostFor(size_t len, Send send, Listener& listener) {
  const Datagrams sent = sentBy([&] { send(""); }, listener);
  check(sent.size() == 1 && sent[0].size() < len, "a line without a host is too long already");
  return std::string(len - sent[0].size(), 'h');
}

std::string withoutTime(const std::string& datagram) {
  return datagram.substr(0, datagram.size() - std::min(datagram.size(), kTimeLen));
}

// What the daemon has to get for a line of ours, but for its time.
std::string expectedText(const std::string& host) {
  char text[kTextLen + 1];
  const int len = snprintf(text, sizeof text, "%s(%d)ERRO:diagnostics_bench.cc:%d-> %s: port %d\n",
                           kProcess, static_cast<int>(getpid()), kLine, host.c_str(), kPort);
  check(len == static_cast<int>(kTextLen), "the line has another length");
  return std::string(text, sizeof text);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

void emittedContests(bench::Contests& contests, Listener& daemon) {
  Listener journal("/run/systemd/journal/socket");
  Listener syslog_daemon("/dev/log");
  google::base::SetLogger(google::GLOG_ERROR, new DatagramLogger(&daemon));  // glog owns it
  google::base::SetLogger(google::GLOG_WARNING, new DatagramLogger(nullptr));
  google::base::SetLogger(google::GLOG_INFO, new DatagramLogger(nullptr));
  FLAGS_stderrthreshold = google::GLOG_FATAL;
  openlog(kProcess, LOG_PID | LOG_NDELAY, LOG_USER);

  const std::string our_host = hostFor(kTextLen + 1 + kTimeLen, sendOurs, daemon);
  const std::string glog_host = hostFor(kTextLen, sendGlog, daemon);
  const std::string syslog_host = hostFor(kTextLen, sendSyslog, syslog_daemon);
  const char* const host = our_host.c_str();
  const auto ours = lines([host] { sendOurs(host); });
  const std::string expected = expectedText(our_host);
  const std::string datagram = sentBy(ours, daemon).at(0);

  const auto sameText = [&](const std::string& sent) { return withoutTime(sent) == expected; };
  const auto sameLength = [&](const std::string& sent) { return sent.size() == kTextLen; };
  const auto sameMessage = [&](const std::string& sent) {
    return contains(sent, "MESSAGE=" + our_host + ": port 8080\n");
  };
  const struct {
    const char* name;
    bench::Limit limit;
    Listener& listener;
    std::function<bool(const std::string& sent)> agrees;
    std::function<void()> send;
  } peers[] = {
      {"a bare sendto", {1.25, 1.28}, daemon, sameText, lines([&] {
         daemon.send(datagram.data(), datagram.size());
       })},
      {"spdlog", kAhead, daemon, sameText, lines([host] { sendSpdlog(host); })},
      {"glog", kAhead, daemon, sameLength, lines([&] { sendGlog(glog_host.c_str()); })},
      {"sd_journal_send", kAhead, journal, sameMessage, lines([host] { sendJournal(host); })},
      // Without a limit: it sends on a connected socket, where no path is looked up for each line.
      {"syslog", {}, syslog_daemon, sameLength, lines([&] { sendSyslog(syslog_host.c_str()); })},
  };
  for (const auto& peer : peers) {
    const auto agree = [&] {
      const Datagrams our_lines = sentBy(ours, daemon);
      const Datagrams peer_lines = sentBy(peer.send, peer.listener);
      return our_lines.size() == kLines && peer_lines.size() == kLines &&
             std::all_of(our_lines.begin(), our_lines.end(), sameText) &&
             std::all_of(peer_lines.begin(), peer_lines.end(), peer.agrees);
    };
    contests.run({"ERRO/74 bytes", peer.name, peer.limit, kLines, agree, ours, peer.send, [&] {
                    daemon.drain();
                    peer.listener.drain();
                  }});
  }
}

// ---- Packet dumps ----

constexpr int kDumpWidth = 16;
constexpr char kDumped[] = "packet";

// The dump's texts by a formatting call for each value.
template <class Append>
Datagrams dumpTexts(const std::vector<unsigned char>& bytes, int line, Append append) {
  const std::string who = "(" + std::to_string(getpid()) + ")DETL";
  Datagrams texts = {who + ":diagnostics_bench.cc:" + std::to_string(line) + "-> DUMP length = 0x"};
  append(&texts[0], "%zx", bytes.size());
  texts[0] += std::string(" (") + kDumped + ")\n";
  for (size_t offset = 0; offset < bytes.size(); offset += kDumpWidth) {
    std::string text = who + ": 0x";
    append(&text, "%03zx", offset);
    text += ": ";
    const size_t end = std::min(bytes.size(), offset + kDumpWidth);
    for (size_t i = offset; i < end; ++i) {
      if (i > offset) text += i - offset == 8 ? ",  " : ",";
      append(&text, "0x%02zx", size_t{bytes[i]});
    }
    texts.push_back(text + "\n");
  }
  return texts;
}

void appendSnprintf(std::string* text, const char* format, size_t value) {
  char room[24];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  text->append(room, static_cast<size_t>(snprintf(room, sizeof room, format, value)));
#pragma GCC diagnostic pop
}

// The same three formats in fmt's own language.
void appendFmt(std::string* text, const char* format, size_t value) {
  const auto to = std::back_inserter(*text);
  if (format[0] == '0')
    fmt::format_to(to, "0x{:02x}", value);
  else if (format[1] == '0')
    fmt::format_to(to, "{:03x}", value);
  else
    fmt::format_to(to, "{:x}", value);
}

void sendTexts(const Listener& daemon, const Datagrams& texts) {
  for (const std::string& text : texts) {
    timeval now;
    (void)gettimeofday(&now, nullptr);
    const uint32_t stamp[] = {static_cast<uint32_t>(now.tv_sec),
                              static_cast<uint32_t>(now.tv_usec)};
    std::string datagram = text + '\0';
    datagram.append(reinterpret_cast<const char*>(stamp), sizeof stamp);
    daemon.send(datagram.data(), datagram.size());
  }
}

void dumpContests(bench::Contests& contests, Listener& daemon) {
  ad_debug_set_debug_level_directly(3);
  daemon.drain();
  const struct {
    size_t size;
    bench::Limit limit;
  } rows[] = {{16, {1.2, 1.2}}, {1500, {1.08, 1.10}}};
  for (const auto& row : rows) {
    std::vector<unsigned char> bytes(row.size);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 37);
    const auto ours = [&] { AD_DUMP(3, bytes.data(), static_cast<int>(bytes.size()), kDumped); };
    const int line = __LINE__ - 1;
    const Datagrams sent = sentBy(ours, daemon);

    const struct {
      std::string name;
      bench::Limit limit;
      std::function<void()> send;
    } peers[] = {
        {std::to_string(sent.size()) + " bare sendto", row.limit,
         [&] {
           for (const std::string& datagram : sent) daemon.send(datagram.data(), datagram.size());
         }},
        {"snprintf a value", kAhead,
         [&] { sendTexts(daemon, dumpTexts(bytes, line, appendSnprintf)); }},
        {"fmt a value", kAhead, [&] { sendTexts(daemon, dumpTexts(bytes, line, appendFmt)); }},
    };
    for (const auto& peer : peers) {
      const auto agree = [&] {
        const Datagrams theirs = sentBy(peer.send, daemon);
        return theirs.size() == sent.size() &&
               std::equal(sent.begin(), sent.end(), theirs.begin(),
                          [](const std::string& a, const std::string& b) {
                            return a.size() == b.size() && a.compare(0, a.size() - kTimeLen, b, 0,
                                                                     b.size() - kTimeLen) == 0;
                          });
      };
      contests.run({"AD_DUMP/" + std::to_string(row.size) + " bytes", peer.name, peer.limit, 1,
                    agree, ours, peer.send, [&] { daemon.drain(); }});
    }
  }
}

// ---- Reports of exceptions: one line each ----

void reportContests(bench::Contests& contests, Listener& daemon) {
  const Exception failure(7, "disk full");
  const auto ours = [&] { failure.caught("store.cc", 12); };
  const auto peer = [] {
    AD_ERRO("%s", "Caught an exception at \"store.cc\" line 12: 7 \"disk full\"");
  };
  const auto agree = [&] {
    const auto text = [](const std::string& datagram) {
      return datagram.substr(datagram.find("-> "),
                             datagram.size() - datagram.find("-> ") - kTimeLen);
    };
    const Datagrams our_lines = sentBy(ours, daemon);
    const Datagrams peer_lines = sentBy(peer, daemon);
    return our_lines.size() == 1 && peer_lines.size() == 1 &&
           text(our_lines[0]) == text(peer_lines[0]);
  };
  contests.run({"Exception::caught", "AD_ERRO of its text", {}, 1, agree, ours, peer, [&] {
                  daemon.drain();
                }});
}

}  // namespace

int main(int argc, char** argv) {
  enterPrivateWorld();
  Listener daemon("/tmp/ad_errorlog.0");
  google::InitGoogleLogging(argv[0]);
  spdlog_logger =
      std::make_shared<spdlog::logger>(kProcess, std::make_shared<DatagramSink>(daemon));
  ad_debug_set_process_name(kProcess);
  check(ad_init_debug_lib("/tmp/ad_errorlog") == 0 && ad_debug_cfg_p != &ad_debug_cfg_no_share_mem,
        "the shared record");
  ad_debug_set_debug_level_directly(1);

  bench::Contests contests(argc, argv);
  suppressedContests(contests, daemon);
  emittedContests(contests, daemon);
  dumpContests(contests, daemon);
  reportContests(contests, daemon);
  return contests.finish();
}
