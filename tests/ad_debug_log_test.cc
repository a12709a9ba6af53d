// The error log: lines and datagrams at real sockets, their copies, and what happens on standard
// error when no daemon is there. Each case runs the library in a child process of its own, where
// nothing has touched it yet.
#include <errno.h>
#include <fcntl.h>
#include <ku_syslog.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"
#include "support/system_calls.h"
#include "velorin/ad_debug"

namespace {

// Where the records of the syslog client go: a socket in the form of the log daemon's.
const char* syslog_path = "/tmp/syslog";

}  // namespace

// In place of the appliance's client: shows the test what is recorded.
extern "C" int ku_syslog(int priority, uint32_t module, uint32_t zero, uint32_t message_id,
                         const char* format, ...) {
  char record[8192];
  const int head =
      snprintf(record, sizeof record, "%d/%u/%u/%u ", priority, module, zero, message_id);
  va_list ap;
  va_start(ap, format);
  const int len = head + vsnprintf(record + head, 5000, format, ap);
  va_end(ap);
  memset(record + len, 0, 9);
  sockaddr_un to = {AF_UNIX, ""};
  strcpy(to.sun_path, syslog_path);
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 ||
      send(fd, record, static_cast<size_t>(len) + 9, 0) < 0)
    abort();
  close(fd);
  return 0;
}

// So that malloc answers null for sizes it cannot serve, as without the sanitizers.
#pragma GCC visibility push(default)
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}
#pragma GCC visibility pop

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kDaemon[] = "/tmp/ad_errorlog";      // before initialisation
constexpr char kSpecial[] = "/tmp/ad_errorlog_sp";  // before initialisation
constexpr char kBase[] = "/tmp/log";                // what the tests hand to ad_init_debug_lib
constexpr char kSocket[] = "/tmp/log.0";            // the socket that root gets from it
constexpr char kUnreachable[] =
    "WARNING: cannot contact ad_logd, will keep trying. Output redirected to stderr.\n";
constexpr char kNoSocket[] =
    "WARNING: ad_logd is NOT enabled, no error will be logged in this session.\n";
constexpr size_t kTextMax = 4086;
constexpr uid_t kUser = 1234;

// What this process writes to standard error, readable by itself, as long as this object lives.
class StandardError {
 public:
  StandardError() : file_(memfd_create("standard error", MFD_CLOEXEC)), saved_(dup(STDERR_FILENO)) {
    dup2(file_, STDERR_FILENO);
  }
  ~StandardError() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    close(file_);
  }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;

  // What was written since the last call.
  std::string take() {
    std::string text;
    char room[4096];
    for (ssize_t count; (count = pread(file_, room, sizeof room, taken_)) > 0; taken_ += count)
      text.append(room, static_cast<size_t>(count));
    return text;
  }

 private:
  const int file_;
  const int saved_;
  off_t taken_ = 0;
};

// "(PID)TAG:FILE:LINE-> " of a statement in this file.
std::string prefix(const char* tag, int line) {
  return "(" + std::to_string(getpid()) + ")" + tag +
         ":ad_debug_log_test.cc:" + std::to_string(line) + "-> ";
}

// Makes the private copy the configuration in force.
ad_debug_cfg_t* configure(int32_t level) {
  ad_read_debug_cfg_direct_read_from_env();
  ad_debug_cfg_p->ad_debug_level = level;
  return ad_debug_cfg_p;
}

// One statement of each tag; `argument` is evaluated by each that is written.
void statement(ad_debug_tag_t tag, const std::function<int()>& argument) {
  switch (tag) {
    case AD_DEBUG_ERRO:
      AD_ERRO("erro %d\n", argument());
      return;
    case AD_DEBUG_CRTC:
      AD_CRTC("crtc %d\n", argument());
      return;
    case AD_DEBUG_TRCE:
      AD_TRCE("trce %d\n", argument());
      return;
    case AD_DEBUG_DETL:
      AD_DETL("detl %d\n", argument());
      return;
  }
}
constexpr ad_debug_tag_t kTags[] = {AD_DEBUG_ERRO, AD_DEBUG_CRTC, AD_DEBUG_TRCE, AD_DEBUG_DETL};

void print(const std::string& text) {
  if (::write(STDOUT_FILENO, text.data(), text.size()) < 0) abort();
}

class ad_debugLogTest : public PrivateWorld {
 protected:
  ad_debugLogTest() : syslog_(syslog_path) {}

  LogListener& syslog() { return syslog_; }

 private:
  LogListener syslog_;
};

// ---- The line ----

TEST_F(ad_debugLogTest, LineToTheDaemonHasNameProcessTagFileAndLine) {
  errorsOf([&] {
    ad_debug_set_process_name("proxy");
    configure(3);
    AD_ERRO("number %d\n", 1);
    EXPECT_EQ(daemon().next().text, "proxy" + prefix("ERRO", __LINE__ - 1) + "number 1\n");
    AD_CRTC("number %d\n", 2);
    EXPECT_EQ(daemon().next().text, "proxy" + prefix("CRTC", __LINE__ - 1) + "number 2\n");
    AD_TRCE("number %d\n", 3);
    EXPECT_EQ(daemon().next().text, "proxy" + prefix("TRCE", __LINE__ - 1) + "number 3\n");
    AD_DETL("number %d\n", 4);
    EXPECT_EQ(daemon().next().text, "proxy" + prefix("DETL", __LINE__ - 1) + "number 4\n");
  });
}

TEST_F(ad_debugLogTest, CopiesToTheSpecialLogAndToSyslogHaveNoName) {
  LogListener special(kSpecial);
  errorsOf([&] {
    ad_debug_set_process_name("proxy");
    ad_debug_set_default_module_id(84);
    ad_debug_syslog_critical_msg_only = 0;
    configure(4);
    AD_ERRO("number %d\n", 1);
    const std::string error = prefix("ERRO", __LINE__ - 1) + "number 1\n";
    EXPECT_EQ(daemon().next().text, "proxy" + error);
    EXPECT_EQ(special.next().text, error);
    EXPECT_EQ(syslog().next().text, "7/84/0/100000 " + error);
    AD_CRTC("number %d\n", 2);
    const std::string critical = prefix("CRTC", __LINE__ - 1) + "number 2\n";
    EXPECT_EQ(daemon().next().text, "proxy" + critical);
    EXPECT_EQ(special.next().text, critical);
    EXPECT_EQ(syslog().next().text, "7/84/0/100000 " + critical);
  });
}

TEST_F(ad_debugLogTest, CopiesAreMadeInOrderSyslogDaemonSpecial) {
  ASSERT_EQ(symlink(kDaemon, kSpecial), 0);  // one queue shows the order
  errorsOf([] {
    syslog_path = kDaemon;
    ad_debug_set_process_name("proxy");
    configure(4);
    AD_CRTC("x");
  });
  EXPECT_THAT(daemon().waiting(),
              ElementsAre(StartsWith("7/0/0/100000 ("), StartsWith("proxy("), StartsWith("(")));
}

TEST_F(ad_debugLogTest, ProcessNameIsTakenLiterally) {
  errorsOf([&] {
    ad_debug_set_process_name("100%s %n");
    AD_ERRO("x");
    EXPECT_EQ(daemon().next().text, "100%s %n" + prefix("ERRO", __LINE__ - 1) + "x");
  });
}

TEST_F(ad_debugLogTest, MessageKeepsTheLineEndOfItsFormat) {
  errorsOf([&] {
    const std::string text = "ready\n";
    AD_ERRO("none");
    EXPECT_EQ(daemon().next().text, prefix("ERRO", __LINE__ - 1) + "none");
    AD_ERRO("two\n\n");
    EXPECT_EQ(daemon().next().text, prefix("ERRO", __LINE__ - 1) + "two\n\n");
    AD_ERRO("%s", text.c_str());
    EXPECT_EQ(daemon().next().text, prefix("ERRO", __LINE__ - 1) + "ready\n");
    AD_ERRO("%s", "");
    EXPECT_EQ(daemon().next().text, prefix("ERRO", __LINE__ - 1));
  });
}

TEST_F(ad_debugLogTest, ProcessIdIsRightAfterEveryKindOfFork) {
  errorsOf([&] {
    const auto log = [] { AD_ERRO("x"); };
    const auto expect_from = [&](long pid) {
      ASSERT_GT(pid, 0);
      EXPECT_EQ(waitpid(static_cast<pid_t>(pid), nullptr, 0), pid);
      EXPECT_THAT(daemon().next().text, StartsWith("(" + std::to_string(pid) + ")"));
    };
    log();
    (void)daemon().next();
    const pid_t forked = fork();
    if (forked == 0) {
      log();
      _exit(0);
    }
    expect_from(forked);
    const long cloned = syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr);
    if (cloned == 0) {
      log();
      _exit(0);
    }
    expect_from(cloned);
    const pid_t vforked = vfork();
    if (vforked == 0) {
      log();
      _exit(0);
    }
    expect_from(vforked);
    log();
    EXPECT_THAT(daemon().next().text, StartsWith("(" + std::to_string(getpid()) + ")"));
  });
}

TEST_F(ad_debugLogTest, StatementIsOneStatementOfTheLanguage) {
  errorsOf([&] {
    for (const bool yes : {true, false}) {
      if (yes)
        AD_ERRO("yes");
      else
        AD_ERRO("no");
    }
    EXPECT_THAT(daemon().next().text, EndsWith("-> yes"));
    EXPECT_THAT(daemon().next().text, EndsWith("-> no"));
  });
}

// ---- What is written when ----

TEST_F(ad_debugLogTest, LevelDecidesWhatIsWrittenWhere) {
  struct Copies {
    bool daemon, special, syslog;
  };
  const struct {
    int32_t level;
    Copies erro, crtc, trce, detl;
  } rows[] = {
      // daemon, special, syslog
      {INT32_MIN, {1, 0, 0}, {1, 0, 1}, {0, 0, 0}, {0, 0, 0}},
      {-1, {1, 0, 0}, {1, 0, 1}, {0, 0, 0}, {0, 0, 0}},
      {0, {1, 0, 0}, {1, 0, 1}, {0, 0, 0}, {0, 0, 0}},
      {1, {1, 0, 1}, {1, 0, 1}, {0, 0, 0}, {0, 0, 0}},
      {2, {1, 0, 1}, {1, 0, 1}, {1, 0, 0}, {0, 0, 0}},
      {3, {1, 0, 1}, {1, 0, 1}, {1, 0, 0}, {1, 0, 0}},
      {4, {1, 1, 1}, {1, 1, 1}, {1, 1, 0}, {1, 1, 0}},
      {5, {1, 0, 1}, {1, 0, 1}, {1, 0, 0}, {1, 0, 0}},
      {INT32_MAX, {1, 0, 1}, {1, 0, 1}, {1, 0, 0}, {1, 0, 0}},
  };
  LogListener special(kSpecial);
  const std::string err = errorsOf([&] {
    ad_debug_syslog_critical_msg_only = 0;
    for (const auto& row : rows) {
      const Copies expected[] = {row.erro, row.crtc, row.trce, row.detl};
      for (const ad_debug_tag_t tag : kTags) {
        SCOPED_TRACE(testing::Message() << "level " << row.level << " tag " << tag);
        configure(row.level);
        int evaluated = 0;
        statement(tag, [&] { return ++evaluated; });
        EXPECT_EQ(daemon().waiting().size(), expected[tag].daemon);
        EXPECT_EQ(special.waiting().size(), expected[tag].special);
        EXPECT_EQ(syslog().waiting().size(), expected[tag].syslog);
        EXPECT_EQ(evaluated, expected[tag].daemon);
      }
    }
  });
  EXPECT_EQ(err, "");
}

TEST_F(ad_debugLogTest, SyslogCopiesFollowTheirSwitches) {
  const struct {
    uint32_t critical_only, in_handler, to_syslogd;
    bool erro, crtc;
  } rows[] = {
      {0, 0, 1, true, true},   {0, 0, 9, true, true},   {1, 0, 1, false, true},
      {7, 0, 1, false, true},  {0, 1, 1, false, false}, {0, 0, 0, false, false},
      {1, 1, 1, false, false}, {1, 0, 0, false, false}, {0, 1, 0, false, false},
      {1, 1, 0, false, false},
  };
  errorsOf([&] {
    configure(3);
    for (const auto& row : rows) {
      SCOPED_TRACE(testing::Message() << row.critical_only << row.in_handler << row.to_syslogd);
      ad_debug_syslog_critical_msg_only = row.critical_only;
      ad_debug_in_sighandler = row.in_handler;
      ad_debug_to_syslogd = row.to_syslogd;
      for (const ad_debug_tag_t tag : kTags) {
        const bool copied =
            (tag == AD_DEBUG_ERRO && row.erro) || (tag == AD_DEBUG_CRTC && row.crtc);
        statement(tag, [] { return 0; });
        EXPECT_EQ(daemon().waiting().size(), 1u);
        EXPECT_EQ(syslog().waiting().size(), copied);
      }
    }
  });
}

TEST_F(ad_debugLogTest, ErrorsAreNotCopiedToSyslogByDefault) {
  errorsOf([&] {
    configure(3);
    AD_ERRO("x");
    EXPECT_THAT(syslog().waiting(), IsEmpty());
    AD_CRTC("x");
    EXPECT_EQ(syslog().waiting().size(), 1u);
  });
}

TEST_F(ad_debugLogTest, LineOfAnotherConnectionIsWrittenNowhere) {
  const struct {
    uint32_t target, current;
    bool passes;
  } sides[] = {{0, 0, true}, {0, 7, true},  {5, 0, true},
               {5, 5, true}, {5, 7, false}, {5, 8, false}};
  LogListener special(kSpecial);
  const std::string err = errorsOf([&] {
    ad_debug_syslog_critical_msg_only = 0;
    ad_debug_cfg_t* const cfg = configure(4);
    for (const auto& client : sides) {
      for (const auto& server : sides) {
        cfg->debug_target_client_ip = client.target;
        cfg->debug_target_server_ip = server.target;
        ad_current_client_ip = client.current;
        ad_current_server_ip = server.current;
        const bool passes = client.passes && server.passes;
        for (const ad_debug_tag_t tag : kTags) {
          SCOPED_TRACE(testing::Message()
                       << "tag " << tag << " client " << client.target << " " << client.current
                       << " server " << server.target << " " << server.current);
          int evaluated = 0;
          statement(tag, [&] { return ++evaluated; });
          EXPECT_EQ(daemon().waiting().size(), passes);
          EXPECT_EQ(special.waiting().size(), passes);
          EXPECT_EQ(syslog().waiting().size(), passes && tag <= AD_DEBUG_CRTC);
          EXPECT_EQ(evaluated, passes);
        }
      }
    }
  });
  EXPECT_EQ(err, "");
}

TEST_F(ad_debugLogTest, FilterHoldsForStatementsAndNotForBareTexts) {
  errorsOf([&] {
    ad_debug_cfg_t* const cfg = configure(1);
    cfg->debug_target_client_ip = 5;
    ad_current_client_ip = 7;
    ad_errorlog_printf("bare");
    EXPECT_THAT(daemon().waiting(), ElementsAre("bare"));
  });
}

TEST_F(ad_debugLogTest, FirstStatementFindsTheFilterOfTheEnvironment) {
  setenv("DEBUG_CLIENT_IP", "10.0.0.1", 1);
  errorsOf([] {
    ad_current_client_ip = 7;
    AD_ERRO("x");
  });
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

// ---- Arguments and errno ----

TEST_F(ad_debugLogTest, ArgumentsOfALineWithEveryCopyAreEvaluatedOnce) {
  const std::string err = errorsOf([] {
    configure(4);
    int evaluated = 0;
    AD_CRTC("%d", ++evaluated);  // to syslog, to the daemon, and the special log on standard error
    EXPECT_EQ(evaluated, 1);
  });
  EXPECT_THAT(err, EndsWith("-> 1\n"));
  EXPECT_EQ(daemon().waiting().size(), 1u);
  EXPECT_EQ(syslog().waiting().size(), 1u);
}

TEST_F(ad_debugLogTest, ErrnoReachesArgumentsAndFormatAndIsKept) {
  const std::string edom = strerror(EDOM);
  const auto check = [&](const std::function<std::string()>& shown) {
    for (int i = 0; i < 2; ++i) {
      errno = EDOM;
      AD_CRTC("%d %m %s", errno, strerror(errno));
      EXPECT_EQ(errno, EDOM);
      EXPECT_THAT(shown(), HasSubstr("-> " + std::to_string(EDOM) + " " + edom + " " + edom));
      errno = EDOM;
      ad_errorlog_printf("%d %m", errno);
      EXPECT_EQ(errno, EDOM);
      EXPECT_THAT(shown(), HasSubstr(std::to_string(EDOM) + " " + edom));
      errno = EDOM;
      AD_DETL("suppressed");
      EXPECT_EQ(errno, EDOM);
    }
  };
  errorsOf([&] { check([&] { return daemon().next().text; }); });
  (void)syslog().waiting();
  removeDaemon();
  errorsOf([&] {
    StandardError errors;
    check([&] { return errors.take(); });
  });
}

TEST_F(ad_debugLogTest, ErrnoIsKeptWhenNoSocketCanBeMade) {
  errorsOf([] {
    const rlimit none = {0, 100};
    const rlimit some = {100, 100};
    ad_debug_in_sighandler = 1;  // no syslog copy
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    for (int i = 0; i < 2; ++i) {
      errno = EDOM;
      AD_ERRO("x");
      EXPECT_EQ(errno, EDOM);
      ad_errorlog_printf("x");
      EXPECT_EQ(errno, EDOM);
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &some), 0);
  });
}

// ---- Without a configuration ----

TEST_F(ad_debugLogTest, StatementWhoseArgumentTakesTheConfigurationAwayGoesToStandardError) {
  LogListener special(kSpecial);
  errorsOf([&] {
    StandardError errors;
    const auto gone = [] {
      ad_debug_cfg_p = nullptr;
      return "gone\n";
    };
    ad_debug_set_process_name("proxy");
    ad_debug_in_sighandler = 1;  // no syslog copy
    configure(4);
    AD_ERRO("%s line\n", gone());
    EXPECT_EQ(errors.take(), prefix("ERRO", __LINE__ - 1) + "gone\n line\n");
    configure(4);
    AD_CRTC("%s no line end", gone());
    EXPECT_EQ(errors.take(), prefix("CRTC", __LINE__ - 1) + "gone\n no line end\n");
    configure(4);
    AD_DETL("%s", gone());  // the format counts, not the text
    EXPECT_EQ(errors.take(), prefix("DETL", __LINE__ - 1) + "gone\n\n");
    EXPECT_THAT(daemon().waiting(), IsEmpty());
    EXPECT_THAT(special.waiting(), IsEmpty());
  });
}

TEST_F(ad_debugLogTest, StatementWithoutInitialisationGoesToTheInitialPaths) {
  LogListener special(kSpecial);
  errorsOf([] {
    AD_ERRO("x");
    ad_debug_cfg_p->ad_debug_level = 4;
    AD_ERRO("y");
  });
  EXPECT_THAT(daemon().waiting(), ElementsAre(EndsWith("-> x"), EndsWith("-> y")));
  EXPECT_THAT(special.waiting(), ElementsAre(EndsWith("-> y")));
}

// ---- The datagram ----

void send_to_daemon(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void send_to_daemon(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  ad_errorlog_vprintf(fmt, ap);
  va_end(ap);
}

int64_t instant(int64_t sec, int64_t usec) {
  return sec * 1000000 + usec;
}

TEST_F(ad_debugLogTest, DatagramHoldsTextZeroByteAndTime) {
  LogListener special(kSpecial);
  const struct {
    size_t text, sent, datagram;
  } rows[] = {{1, 1, 10},         {2, 2, 11},         {4085, 4085, 4094},
              {4086, 4086, 4095}, {4087, 4086, 4095}, {4095, 4086, 4095},
              {4096, 4086, 4095}, {5000, 4086, 4095}, {100000, 4086, 4095}};
  const std::string err = errorsOf([&] {
    void (*const emitters[])(const char*, ...) = {ad_errorlog_printf, send_to_daemon,
                                                  ad_errorlog_printf_special};
    for (const auto& row : rows) {
      for (const auto emit : emitters) {
        SCOPED_TRACE(row.text);
        const std::string text = std::string(row.text - 1, 'a') + "z";
        timeval before;
        timeval after;
        gettimeofday(&before, nullptr);
        emit("%s", text.c_str());
        gettimeofday(&after, nullptr);
        const LogDatagram got = (emit == ad_errorlog_printf_special ? special : daemon()).next();
        EXPECT_EQ(got.bytes.size(), row.datagram);
        EXPECT_EQ(got.text, text.substr(0, row.sent));
        EXPECT_EQ(got.bytes[row.sent], '\0');
        EXPECT_GE(instant(got.sec, got.usec), instant(before.tv_sec, before.tv_usec));
        EXPECT_LE(instant(got.sec, got.usec), instant(after.tv_sec, after.tv_usec));
        EXPECT_LT(got.usec, 1000000u);
      }
    }
    EXPECT_THAT(daemon().waiting(), IsEmpty());
    EXPECT_THAT(special.waiting(), IsEmpty());
  });
  EXPECT_EQ(err, "");
}

TEST_F(ad_debugLogTest, AddressHas110BytesAndTheCallNeverBlocks) {
  errorsOf([&] {
    int sends = 0;
    system_calls.before_send = [&](int flags, size_t address_len) {
      ++sends;
      EXPECT_EQ(flags, MSG_DONTWAIT);
      EXPECT_EQ(address_len, 110u);
    };
    AD_ERRO("x");
    ad_errorlog_printf("x");
    ad_errorlog_printf_special("x");
    EXPECT_EQ(sends, 3);
  });
}

TEST_F(ad_debugLogTest, EmptyTextIsNeitherSentNorShown) {
  const char* const empty = "";
  const auto send_empty = [&] {
    ad_errorlog_printf("%s", empty);
    send_to_daemon("%s", empty);
    ad_errorlog_printf_special("%s", empty);
  };
  EXPECT_EQ(errorsOf(send_empty), "");
  EXPECT_THAT(daemon().waiting(), IsEmpty());
  removeDaemon();
  EXPECT_EQ(errorsOf(send_empty), "") << "no warning either";
}

TEST_F(ad_debugLogTest, TextThatCannotBeFormattedIsNeitherSentNorShown) {
  LogListener special(kSpecial);
  const std::string err = errorsOf([] {
    const wchar_t euro[] = {0x20ac, 0};  // not in the C locale
    ad_errorlog_printf("before %ls", euro);
    send_to_daemon("before %ls", euro);
    ad_errorlog_printf_special("before %ls", euro);
    configure(4);
    AD_CRTC("before %ls", euro);
  });
  EXPECT_EQ(err, "");
  EXPECT_THAT(daemon().waiting(), IsEmpty());
  EXPECT_THAT(special.waiting(), IsEmpty());
}

std::string byPrintf(const char* fmt, va_list ap) __attribute__((format(printf, 1, 0)));
std::string byPrintf(const char* fmt, va_list ap) {
  char text[kTextMax + 1];
  const int len = vsnprintf(text, sizeof text, fmt, ap);
  EXPECT_GE(len, 0);
  return {text, std::min(static_cast<size_t>(len), kTextMax)};
}

// What stdio makes of the same format and arguments.
void expectLikePrintf(LogListener& log, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void expectLikePrintf(LogListener& log, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  errno = EDOM;
  const std::string expected = byPrintf(fmt, ap);
  va_end(ap);
  va_start(ap, fmt);
  errno = EDOM;
  ad_errorlog_vprintf(fmt, ap);
  va_end(ap);
  EXPECT_EQ(log.next().text, expected) << fmt;
}

TEST_F(ad_debugLogTest, TextIsFormattedAsPrintfDoes) {
  errorsOf([&] {
    LogListener& log = daemon();
    const char* volatile null_text = nullptr;  // unknown to the compiler
    expectLikePrintf(log, "no conversion");
    expectLikePrintf(log, "100 %%, %%d %c%c", 'a', '%');
    expectLikePrintf(log, "%d %d %d %i", 0, INT_MIN, INT_MAX, -1);
    expectLikePrintf(log, "%u %x %X %o", UINT_MAX, UINT_MAX, 0xabcu, 8u);
    expectLikePrintf(log, "%ld %lu %lx %li", LONG_MIN, ULONG_MAX, ULONG_MAX, LONG_MAX);
    expectLikePrintf(log, "%lld %llu %llx", LLONG_MIN, ULLONG_MAX, ULLONG_MAX);
    expectLikePrintf(log, "%zd %zu %zx", static_cast<ssize_t>(-1), SIZE_MAX, SIZE_MAX);
    expectLikePrintf(log, "%hhd %hd %hu", 300, 70000, 70000u);
    expectLikePrintf(log, "%jd %td", static_cast<intmax_t>(-7), static_cast<ptrdiff_t>(-8));
    expectLikePrintf(log, "%5d|%-5d|%05d|%+d|% d|%#x|%#o", 1, 2, 3, 4, 5, 6u, 7u);
    expectLikePrintf(log, "%*d|%-*d|%.*s", 5, 1, 5, 2, 3, "abcdef");
    expectLikePrintf(log, "%10s|%-10s|%.2s|%10.2s", "abc", "abc", "abc", "abc");
    expectLikePrintf(log, "%f %.3e %g %Lf", 1.5, 12345.678, 1e100, 2.5L);
    expectLikePrintf(log, "%s %p", "mixed", static_cast<void*>(&log));
    expectLikePrintf(log, "%s then %m", "first");
    expectLikePrintf(log, "%ls %lc", L"wide", static_cast<wint_t>(L'w'));
    expectLikePrintf(log, "[%s]", null_text);
    expectLikePrintf(log, "%c%c", 'x', '\0');  // a zero byte in the text
    for (const size_t len : {0, 1, 31, 32, 33, 63, 64, 4000, 4084, 4085, 4086, 4087, 9000}) {
      const std::string text(len, 's');
      expectLikePrintf(log, "%s.", text.c_str());
      expectLikePrintf(log, "%s%d%c%5d", text.c_str(), 12345, 'c', 678);
      expectLikePrintf(log, "%s%d%c%d", text.c_str(), 12345, 'c', 678);
    }
  });
}

TEST_F(ad_debugLogTest, InterruptedSendIsRepeated) {
  const std::string err = errorsOf([] {
    system_calls.interrupted_sends = 5;
    ad_errorlog_printf("x");
    EXPECT_EQ(system_calls.interrupted_sends, 0);
  });
  EXPECT_EQ(err, "");
  EXPECT_THAT(daemon().waiting(), ElementsAre("x"));
}

TEST_F(ad_debugLogTest, OtherFailuresOfASendAreNotRepeated) {
  removeDaemon();
  errorsOf([] {
    int sends = 0;
    system_calls.before_send = [&](int, size_t) { ++sends; };
    ad_errorlog_printf("x");
    EXPECT_EQ(sends, 1);
  });
}

TEST_F(ad_debugLogTest, LongStatementIsCutInEachCopyByItself) {
  LogListener special(kSpecial);
  errorsOf([&] {
    StandardError errors;
    const std::string name(255, 'n');
    ad_debug_set_process_name(name.c_str());
    ad_debug_in_sighandler = 1;  // no syslog copy
    configure(4);
    // From a text that fits with its name to one that fits in no copy.
    for (const size_t len : {3700, 3783, 3790, 3800, 3900, 4000, 4030, 4040, 4050, 4086, 5000}) {
      SCOPED_TRACE(len);
      std::string message;
      for (size_t i = 0; i < len; ++i) message += static_cast<char>('a' + i % 26);
      AD_ERRO("%s", message.c_str());
      const std::string unnamed = prefix("ERRO", __LINE__ - 1) + message;
      EXPECT_EQ(daemon().next().text, (name + unnamed).substr(0, kTextMax));
      EXPECT_EQ(special.next().text, unnamed.substr(0, kTextMax));
    }
    EXPECT_EQ(errors.take(), "");
  });
}

TEST_F(ad_debugLogTest, LongStatementOnStandardErrorLeavesTheSpecialCopyWhole) {
  LogListener special(kSpecial);
  removeDaemon();
  errorsOf([&] {
    StandardError errors;
    const std::string name(255, 'n');
    const std::string message(4000, 'm');
    ad_debug_set_process_name(name.c_str());
    ad_debug_in_sighandler = 1;  // no syslog copy, no warning
    configure(4);
    AD_ERRO("%s", message.c_str());
    const std::string unnamed = prefix("ERRO", __LINE__ - 1) + message;
    EXPECT_EQ(errors.take(), (name + unnamed).substr(0, kTextMax) + "\n");
    EXPECT_EQ(special.next().text, unnamed);
  });
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

thread_local int allocations = 0;

}  // namespace

// The sanitizers have an allocator of their own.
extern "C" void* __libc_malloc(size_t size);
extern "C" __attribute__((visibility("default"))) void* malloc(size_t size) {
  ++allocations;
  return __libc_malloc(size);
}

namespace {

TEST_F(ad_debugLogTest, EmittedLineAllocatesNoMemory) {
  LogListener special(kSpecial);
  errorsOf([&] {
    free(malloc(1));
    ASSERT_GT(allocations, 0);
    ad_debug_in_sighandler = 1;  // no syslog copy
    for (int round = 0; round < 2; ++round) {
      const int before = allocations;
      AD_ERRO("%s %d %5.1f\n", "text", 1, 1.5);
      ad_debug_cfg_p->ad_debug_level = 4;
      AD_ERRO("%s %d\n", "text", 1);
      ad_errorlog_printf("%s %d\n", "text", 1);
      ad_debug_cfg_p->ad_debug_level = 0;
      AD_TRCE("%s %d\n", "text", 1);
      EXPECT_EQ(allocations, before);
      removeDaemon();
    }
  });
}

#endif

// ---- The fall-back ----

TEST_F(ad_debugLogTest, WarningComesOncePerChangeFromReachableToUnreachable) {
  removeDaemon();
  errorsOf([] {
    StandardError errors;
    ad_errorlog_printf("one\n");
    EXPECT_EQ(errors.take(), std::string(kUnreachable) + "one\n");
    ad_errorlog_printf("two\n");
    EXPECT_EQ(errors.take(), "two\n");
    {
      LogListener daemon(kDaemon);
      ad_errorlog_printf("three\n");
      EXPECT_EQ(errors.take(), "");
      EXPECT_THAT(daemon.waiting(), ElementsAre("three\n"));
    }
    ad_errorlog_printf("four\n");
    EXPECT_EQ(errors.take(), std::string(kUnreachable) + "four\n");
    ad_errorlog_printf("five\n");
    EXPECT_EQ(errors.take(), "five\n");
  });
}

TEST_F(ad_debugLogTest, StatementOnStandardErrorHasTheNameInItsPrefix) {
  removeDaemon();
  errorsOf([] {
    StandardError errors;
    ad_debug_set_process_name("proxy");
    AD_ERRO("x\n");
    EXPECT_EQ(errors.take(), kUnreachable + ("proxy" + prefix("ERRO", __LINE__ - 1)) + "x\n");
  });
}

TEST_F(ad_debugLogTest, TextOnStandardErrorEndsInOneNewline) {
  removeDaemon();
  const struct {
    const char* text;
    const char* shown;
  } rows[] = {{"a", "a\n"},       {"a\n", "a\n"}, {"a\n\n", "a\n\n"},
              {"a\nb", "a\nb\n"}, {"\n", "\n"},   {" ", " \n"}};
  errorsOf([&] {
    StandardError errors;
    ad_debug_in_sighandler = 1;  // no warning
    for (const auto& row : rows) {
      ad_errorlog_printf("%s", row.text);
      EXPECT_EQ(errors.take(), row.shown);
    }
    const std::string longest(kTextMax, 'x');
    ad_errorlog_printf("%s and more\n", longest.c_str());
    EXPECT_EQ(errors.take(), longest + "\n");
  });
}

// A pipe at standard error that is full until the signal ALRM comes, whose handler interrupts
// calls.
class FullPipe {
 public:
  FullPipe() : saved_(dup(STDERR_FILENO)) {
    if (pipe2(ends_, O_CLOEXEC) != 0) abort();
    (void)fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    dup2(ends_[1], STDERR_FILENO);
    struct sigaction action = {};
    action.sa_handler = [](int) { empty(); };
    (void)sigaction(SIGALRM, &action, nullptr);
  }

  // Full of zeros; the signals start in a tenth of a second.
  void fill() {
    (void)fcntl(ends_[1], F_SETFL, O_NONBLOCK);
    const char zeros[4096] = {};
    while (::write(ends_[1], zeros, sizeof zeros) > 0) continue;
    (void)fcntl(ends_[1], F_SETFL, 0);
    set_signals(100000);
  }

  // What came but zeros.
  std::string take() {
    set_signals(0);
    empty();
    return {text_, std::exchange(size_, 0)};
  }

  ~FullPipe() {
    dup2(saved_, STDERR_FILENO);
    for (const int fd : {ends_[0], ends_[1], saved_}) close(fd);
  }
  FullPipe(const FullPipe&) = delete;
  FullPipe& operator=(const FullPipe&) = delete;

 private:
  static void set_signals(suseconds_t every) {
    const itimerval times = {{0, every}, {0, every}};
    (void)setitimer(ITIMER_REAL, &times, nullptr);
  }

  static void empty() {
    char room[4096];
    for (ssize_t count; (count = read(ends_[0], room, sizeof room)) > 0;) {
      for (const char* c = room; c < room + count; ++c)
        if (*c != '\0' && size_ < sizeof text_) text_[size_++] = *c;
    }
  }

  static inline int ends_[2];
  static inline char text_[4096];  // no string, which is not for signal handlers
  static inline size_t size_ = 0;
  const int saved_;
};

TEST_F(ad_debugLogTest, SignalsThatInterruptAFullStandardErrorLoseNothing) {
  removeDaemon();
  errorsOf([] {
    FullPipe pipe;
    pipe.fill();
    ad_errorlog_printf("first\n");
    EXPECT_EQ(pipe.take(), std::string(kUnreachable) + "first\n");
    pipe.fill();
    ad_errorlog_printf("second\n");
    EXPECT_EQ(pipe.take(), "second\n");
  });
}

TEST_F(ad_debugLogTest, LineThatStandardErrorHasNoRoomForIsCutAndTheCallReturns) {
  removeDaemon();
  errorsOf([] {
    (void)signal(SIGXFSZ, SIG_IGN);
    ad_errorlog_printf("the warning goes first\n");
    StandardError errors;
    const rlimit three_bytes = {3, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &three_bytes), 0);
    ad_errorlog_printf("second\n");
    EXPECT_EQ(errors.take(), "sec");
    ad_errorlog_printf("third\n");
    EXPECT_EQ(errors.take(), "");
  });
}

TEST_F(ad_debugLogTest, LineOnStandardErrorIsOneWrite) {
  removeDaemon();
  errorsOf([] {
    int ends[2];  // keeps the bounds of writes
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    const int saved = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    const std::string longest(kTextMax, 'x');
    ad_errorlog_printf("with\n");
    ad_errorlog_printf("without");
    ad_errorlog_printf("%s", longest.c_str());
    configure(1);
    AD_ERRO("%s", (ad_debug_cfg_p = nullptr, "gone"));
    dup2(saved, STDERR_FILENO);
    std::vector<std::string> writes;
    char room[8192];
    for (ssize_t size; (size = recv(ends[0], room, sizeof room, MSG_DONTWAIT)) > 0;)
      writes.emplace_back(room, static_cast<size_t>(size));
    EXPECT_THAT(writes, ElementsAre(kUnreachable, "with\n", "without\n", longest + "\n",
                                    EndsWith("-> gone\n")));
  });
}

TEST_F(ad_debugLogTest, FullQueueCountsAsUnreachableAndLosesNothing) {
  constexpr int kLines = 300;  // far more than the kernel queues
  errorsOf([&] {
    StandardError errors;
    std::string expected;
    for (int i = 0; i < kLines; ++i) {
      ad_errorlog_printf("line %d\n", i);
      expected += "line " + std::to_string(i) + "\n";
    }
    std::string queued;
    for (const std::string& text : daemon().waiting()) queued += text;
    EXPECT_NE(queued, "");
    EXPECT_NE(queued, expected);
    const std::string shown = errors.take();
    ASSERT_THAT(shown, StartsWith(kUnreachable));
    EXPECT_EQ(queued + shown.substr(strlen(kUnreachable)), expected) << "warned once, in order";
    ad_errorlog_printf("room again\n");
    EXPECT_EQ(errors.take(), "");
    EXPECT_THAT(daemon().waiting(), ElementsAre("room again\n"));
  });
}

TEST_F(ad_debugLogTest, SocketThatNobodyReadsAnyMoreCountsAsUnreachable) {
  ASSERT_EQ(link(kDaemon, "/tmp/stale"), 0);
  removeDaemon();
  ASSERT_EQ(rename("/tmp/stale", kDaemon), 0);
  EXPECT_EQ(errorsOf([] { ad_errorlog_printf("x"); }), std::string(kUnreachable) + "x\n");
}

TEST_F(ad_debugLogTest, InsideASignalHandlerTheWarningIsLeftOutForGood) {
  removeDaemon();
  errorsOf([] {
    StandardError errors;
    ad_debug_in_sighandler = 1;
    ad_errorlog_printf("inside\n");
    EXPECT_EQ(errors.take(), "inside\n");
    ad_debug_in_sighandler = 0;
    ad_errorlog_printf("outside\n");
    EXPECT_EQ(errors.take(), "outside\n") << "the change was noticed before";
  });
}

TEST_F(ad_debugLogTest, InsideASignalHandlerLinesStillGoToTheDaemon) {
  errorsOf([] {
    ad_debug_in_sighandler = 1;
    AD_CRTC("x");
  });
  EXPECT_THAT(daemon().waiting(), ElementsAre(EndsWith("-> x")));
  EXPECT_THAT(syslog().waiting(), IsEmpty());
}

TEST_F(ad_debugLogTest, WithoutASocketThereIsOneWarningAndThenSilence) {
  LogListener special(kSpecial);
  errorsOf([&] {
    StandardError errors;
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    ad_errorlog_printf("one\n");
    EXPECT_EQ(errors.take(), kNoSocket);
    ad_errorlog_printf("two\n");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    ad_errorlog_printf("three\n");
    ad_errorlog_printf_special("four\n");
    send_to_daemon("five\n");
    configure(4);
    AD_CRTC("six\n");
    EXPECT_EQ(errors.take(), "");
    EXPECT_THAT(daemon().waiting(), IsEmpty());
    EXPECT_THAT(special.waiting(), IsEmpty());
    EXPECT_THAT(syslog().waiting(), ElementsAre(EndsWith("-> six\n"))) << "takes its own way";
  });
}

TEST_F(ad_debugLogTest, StatementWithoutASocketWarnsOnceForAllItsCopies) {
  errorsOf([] {
    StandardError errors;
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    configure(4);
    ad_debug_in_sighandler = 1;  // no syslog copy; this warning comes all the same
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    AD_ERRO("x\n");
    EXPECT_EQ(errors.take(), kNoSocket);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  });
}

TEST_F(ad_debugLogTest, UnreachableSpecialLogSharesTheDaemonsWarning) {
  errorsOf([&] {
    StandardError errors;
    configure(4);
    for (int i = 0; i < 2; ++i) {  // each line reaches the daemon and then not the special log
      AD_TRCE("x\n");
      EXPECT_EQ(errors.take(), kUnreachable + prefix("TRCE", __LINE__ - 1) + "x\n");
      EXPECT_EQ(daemon().waiting().size(), 1u);
    }
  });
}

TEST_F(ad_debugLogTest, PathThatWasEmptiedIsNobodysAddress) {
  // To the kernel, what is left behind the emptied first byte could be an abstract address.
  const std::string left[] = {"", kDaemon + 1, kSpecial + 1};
  std::vector<int> listeners;
  for (const std::string& name : left) {
    sockaddr_un address = {AF_UNIX, ""};
    name.copy(address.sun_path + 1, name.size());
    listeners.push_back(socket(AF_UNIX, SOCK_DGRAM, 0));
    ASSERT_EQ(bind(listeners.back(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  EXPECT_EQ(errorsOf([] {
              ad_init_debug_lib(nullptr);
              ad_errorlog_printf("x\n");
              ad_errorlog_printf_special("y\n");
            }),
            std::string(kUnreachable) + "x\ny\n");
  char byte;
  for (const int fd : listeners) {
    EXPECT_EQ(recv(fd, &byte, 1, MSG_DONTWAIT), -1);
    close(fd);
  }
}

// ---- The special log ----

TEST_F(ad_debugLogTest, SpecialTextGoesToTheSpecialSocketOnly) {
  LogListener special(kSpecial);
  errorsOf([] { ad_errorlog_printf_special("%s %d", "bare", 1); });
  EXPECT_THAT(special.waiting(), ElementsAre("bare 1"));
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

TEST_F(ad_debugLogTest, NullSpecialPathDoesNothing) {
  LogListener special(kSpecial);
  errorsOf([] {
    EXPECT_EQ(ad_set_special_log_path(nullptr), 0);
    EXPECT_EQ(ad_debug_inited(), 0);
    ad_errorlog_printf_special("still there");
  });
  EXPECT_THAT(special.waiting(), ElementsAre("still there"));
}

TEST_F(ad_debugLogTest, SpecialPathBringsItsOwnRecord) {
  LogListener log(kSocket);
  LogListener special("/tmp/sp.0");
  errorsOf([] {
    ad_init_debug_lib(kBase);
    ad_debug_cfg_t* const daemons = ad_debug_cfg_p;
    EXPECT_EQ(ad_set_special_log_path("/tmp/sp"), 0);
    ad_debug_cfg_t* specials = nullptr;
    ASSERT_EQ(ad_get_ad_debug_cfg_p_no_create("/tmp/sp.0", &specials), 0);
    specials->ad_debug_level = 4;
    EXPECT_NE(ad_debug_cfg_p, daemons);
    EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 4);
    EXPECT_EQ(daemons->ad_debug_level, 0);
    AD_TRCE("both\n");
  });
  EXPECT_THAT(log.waiting(), ElementsAre(EndsWith("-> both\n")));
  EXPECT_THAT(special.waiting(), ElementsAre(EndsWith("-> both\n")));
}

TEST_F(ad_debugLogTest, SpecialPathCarriesTheRealUserId) {
  LogListener own("/tmp/sp.1234");
  LogListener root("/tmp/sp.0");
  errorsOf([] {
    if (setresuid(kUser, 0, 0) != 0) FAIL() << "this test needs a second user: " << strerror(errno);
    EXPECT_EQ(ad_set_special_log_path("/tmp/sp"), 0);
    EXPECT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    ad_errorlog_printf_special("mine");
  });
  EXPECT_THAT(own.waiting(), ElementsAre("mine"));
  EXPECT_THAT(root.waiting(), IsEmpty());
}

TEST_F(ad_debugLogTest, SuperusersSpecialLogIsTheFallBack) {
  LogListener root("/tmp/sp.0");
  errorsOf([] {
    becomeUser(kUser);
    EXPECT_EQ(ad_set_special_log_path("/tmp/sp"), 0);
    EXPECT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    ad_errorlog_printf_special("root's");
  });
  EXPECT_THAT(root.waiting(), ElementsAre("root's"));
}

TEST_F(ad_debugLogTest, WithoutASpecialDaemonThePrivateCopyCounts) {
  const LogListener log(kSocket);
  std::optional<LogListener> late;
  const std::string err = errorsOf([&] {
    ad_init_debug_lib(kBase);
    ASSERT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    becomeUser(kUser);
    EXPECT_EQ(ad_set_special_log_path("/tmp/sp"), 0);
    EXPECT_EQ(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    late.emplace("/tmp/sp.0");
    ad_errorlog_printf_special("late");
    EXPECT_THAT(late->waiting(), ElementsAre("late"));
  });
  EXPECT_EQ(err, "");
}

TEST_F(ad_debugLogTest, SpecialPathIsCutAt107Characters) {
  const std::string base = "/tmp/" + std::string(115, 's');
  LogListener special(base.substr(0, 107));
  errorsOf([&] {
    EXPECT_EQ(ad_set_special_log_path(base.c_str()), 0);
    EXPECT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    ad_errorlog_printf_special("cut path");
  });
  EXPECT_THAT(special.waiting(), ElementsAre("cut path"));
}

// ---- The critical-only switch ----

TEST_F(ad_debugLogTest, CriticalOnlySwitchSaysSoInTwoErrorLines) {
  errorsOf([&] {
    ad_debug_set_process_name("proxy");
    ad_debug_syslog_critical_msg_only = 0;
    configure(3);
    ad_debug_set_syslog_critical_msg_only(7);
    EXPECT_EQ(ad_debug_syslog_critical_msg_only, 7u);
    const std::string head =
        "proxy\\(" + std::to_string(getpid()) + "\\)ERRO:ad_debug.cc:[0-9]+-> ";
    EXPECT_THAT(
        daemon().waiting(),
        ElementsAre(testing::MatchesRegex(head + "ad_debug_syslog_critical_msg_only set to true\n"),
                    testing::MatchesRegex(
                        head + "non-critical message won't be written to syslog in any case\n")));
    EXPECT_THAT(syslog().waiting(), IsEmpty()) << "the flag is stored first";
  });
}

TEST_F(ad_debugLogTest, ClearingTheCriticalOnlySwitchIsSilent) {
  const std::string err = errorsOf([] {
    ad_debug_set_syslog_critical_msg_only(0);
    EXPECT_EQ(ad_debug_syslog_critical_msg_only, 0u);
    EXPECT_EQ(ad_debug_inited(), 0);
  });
  EXPECT_EQ(err, "");
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

// ---- Fatal statements ----

constexpr size_t kTooMuch = SIZE_MAX - 65536;  // of the address space

TEST_F(ad_debugLogTest, AllocationSucceeds) {
  const std::string err = errorsOf([] {
    char* const memory = static_cast<char*>(my_xmalloc(100000, "caller.c", 77));
    ASSERT_NE(memory, nullptr);
    memset(memory, 'x', 100000);
    free(memory);
    free(my_xmalloc(0, "caller.c", 77));
    EXPECT_EQ(ad_debug_inited(), 0);
  });
  EXPECT_EQ(err, "");
}

TEST_F(ad_debugLogTest, FailedAllocationWritesACriticalLineAndARecordAndExits) {
  LogListener special(kSpecial);
  const ChildResult result = runInChild([] {
    atexit([] { print("exit handlers ran"); });
    ad_debug_set_process_name("proxy");
    ad_debug_set_default_module_id(84);
    configure(4);
    (void)my_xmalloc(kTooMuch, "caller.c", 77);
  });
  EXPECT_EQ(result.exitCode(), 126) << result;
  EXPECT_EQ(result.out, "exit handlers ran");
  EXPECT_THAT(daemon().waiting(),
              ElementsAre(testing::MatchesRegex(
                  "proxy\\([0-9]+\\)CRTC:ad_debug.cc:[0-9]+-> Malloc fail at caller.c:77\n")));
  EXPECT_THAT(special.waiting(),
              ElementsAre(testing::MatchesRegex(
                  "\\([0-9]+\\)CRTC:ad_debug.cc:[0-9]+-> Malloc fail at caller.c:77\n")));
  EXPECT_THAT(syslog().waiting(), ElementsAre("2/84/0/512035 Malloc fail at caller.c:77\n"))
      << "and no copy of priority 7";
}

TEST_F(ad_debugLogTest, FailedAllocationThatTheFilterHidesStillRecordsAndExits) {
  const ChildResult result = runInChild([] {
    ad_debug_cfg_t* const cfg = configure(1);
    cfg->debug_target_client_ip = 5;
    ad_current_client_ip = 7;
    ad_debug_in_sighandler = 1;
    ad_debug_to_syslogd = 0;
    (void)my_xmalloc(kTooMuch, "caller.c", 77);
  });
  EXPECT_EQ(result.exitCode(), 126) << result;
  EXPECT_EQ(result.err.find("Malloc"), std::string::npos) << result;
  EXPECT_THAT(daemon().waiting(), IsEmpty());
  EXPECT_THAT(syslog().waiting(), ElementsAre("2/0/0/512035 Malloc fail at caller.c:77\n"));
}

TEST_F(ad_debugLogTest, FailedAllocationWithoutADaemonIsShownOnStandardError) {
  removeDaemon();
  const ChildResult result = runInChild([] { (void)my_xmalloc(kTooMuch, "caller.c", 77); });
  EXPECT_EQ(result.exitCode(), 126) << result;
  EXPECT_THAT(result.err, HasSubstr(kUnreachable));
  EXPECT_THAT(result.err, HasSubstr("-> Malloc fail at caller.c:77\n"));
}

TEST_F(ad_debugLogTest, FatalRecordIsTheBareTextWhereverTheLineWent) {
  const auto fatal = [] { AD_FATAL(3, 512001, "no route"); };
  const struct {
    const char* what;
    std::function<void()> before;
  } rows[] = {
      {"no daemon", [] { ad_init_debug_lib("/tmp/nowhere"); }},
      {"no path", [] { ad_init_debug_lib(nullptr); }},
      {"no special log", [] { configure(4); }},
  };
  for (const auto& row : rows) {
    const ChildResult child = runInChild([&] {
      row.before();
      fatal();
    });
    EXPECT_EQ(child.exitCode(), 3) << row.what << child;
    EXPECT_THAT(child.err, EndsWith("-> no route\n")) << row.what;
    EXPECT_THAT(syslog().waiting(), ElementsAre("2/0/0/512001 no route")) << row.what;
  }
}

TEST_F(ad_debugLogTest, FatalStatementExitsWithItsStatusAfterLineAndRecord) {
  LogListener special(kSpecial);
  const ChildResult result = runInChild([] {
    configure(4);
    int evaluated = 0;
    errno = EDOM;
    AD_FATAL(3, 512001, "no route %d: %m", ++evaluated);
  });
  const std::string text = std::string("no route 1: ") + strerror(EDOM);
  EXPECT_EQ(result.exitCode(), 3) << result;
  EXPECT_THAT(daemon().waiting(), ElementsAre(testing::ContainsRegex(
                                      "^\\([0-9]+\\)CRTC:ad_debug_log_test.cc:[0-9]+-> " + text)));
  EXPECT_THAT(special.waiting(), ElementsAre(EndsWith("-> " + text)));
  EXPECT_THAT(syslog().waiting(), ElementsAre("2/0/0/512001 " + text));
}

TEST_F(ad_debugLogTest, FatalStatementThatTheFilterHidesEvaluatesItsArgumentsOnce) {
  const ChildResult result = runInChild([] {
    ad_debug_cfg_t* const cfg = configure(1);
    cfg->debug_target_server_ip = 5;
    ad_current_server_ip = 7;
    int evaluated = 0;
    AD_FATAL(1, 9, "%d", ++evaluated);
  });
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_THAT(daemon().waiting(), IsEmpty());
  EXPECT_THAT(syslog().waiting(), ElementsAre("2/0/0/9 1"));
}

TEST_F(ad_debugLogTest, FatalStatementOfAnUninitialisedProcessReadsTheEnvironment) {
  setenv("DEBUG_CLIENT_IP", "10.0.0.1", 1);
  const ChildResult result = runInChild([] {
    ad_current_client_ip = 7;
    AD_FATAL(1, 9, "x");
  });
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_THAT(daemon().waiting(), IsEmpty());
  EXPECT_THAT(syslog().waiting(), ElementsAre("2/0/0/9 x"));
}

// ---- A daemon that comes and goes ----

// A log daemon in a process of its own; it prints what it gets.
Child startDaemon() {
  return Child([] {
    unlink(kDaemon);
    LogListener listener(kDaemon);
    print("ready\n");
    for (;;) {
      pollfd waiting = {listener.fd(), POLLIN, 0};
      (void)poll(&waiting, 1, -1);
      for (const std::string& text : listener.waiting()) print(text);
    }
  });
}

TEST_F(ad_debugLogTest, DaemonThatIsStoppedKilledAndRestartedGetsTheLinesAgain) {
  removeDaemon();
  errorsOf([] {
    StandardError errors;
    Child first = startDaemon();
    ASSERT_TRUE(first.waitForOut("ready\n"));
    ad_errorlog_printf("running\n");
    ASSERT_TRUE(first.waitForOut("running\n"));

    first.signal(SIGSTOP);
    siginfo_t stopped = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(first.pid()), &stopped, WSTOPPED), 0);
    int queued = -1;
    for (int i = 0; i < 1000 && queued < 0; ++i) {
      ad_errorlog_printf("stopped %d\n", i);
      const std::string shown = errors.take();
      if (shown.empty()) continue;
      EXPECT_EQ(shown, kUnreachable + ("stopped " + std::to_string(i)) + "\n");
      queued = i;
    }
    ASSERT_GT(queued, 0);
    first.signal(SIGCONT);
    ASSERT_TRUE(first.waitForOut("stopped " + std::to_string(queued - 1) + "\n"));
    ad_errorlog_printf("continued\n");
    ASSERT_TRUE(first.waitForOut("continued\n"));
    EXPECT_EQ(errors.take(), "");

    first.signal(SIGKILL);
    EXPECT_EQ(first.wait().signal(), SIGKILL);
    ad_errorlog_printf("killed\n");
    EXPECT_EQ(errors.take(), std::string(kUnreachable) + "killed\n");

    Child second = startDaemon();
    ASSERT_TRUE(second.waitForOut("ready\n"));
    ad_errorlog_printf("restarted\n");
    ASSERT_TRUE(second.waitForOut("restarted\n"));
    EXPECT_EQ(second.out(), "ready\nrestarted\n");
    EXPECT_EQ(errors.take(), "");
  });
}

// ---- Many writers ----

// Everything that children write, from the daemon's socket and their common standard error.
class Collector {
 public:
  explicit Collector(LogListener* daemon) : daemon_(daemon) {
    if (pipe2(pipe_, O_CLOEXEC) != 0) ADD_FAILURE() << strerror(errno);
  }
  ~Collector() { close(pipe_[0]); }
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  // In a child: its standard error is the common one from now on.
  void join() const { dup2(pipe_[1], STDERR_FILENO); }

  // Hands every line, newline included, to `see` until all children are gone.
  void collect(const std::function<void(const std::string& line)>& see) {
    close(pipe_[1]);
    std::string text;
    for (bool open = true; open;) {
      pollfd fds[] = {{daemon_->fd(), POLLIN, 0}, {pipe_[0], POLLIN, 0}};
      if (poll(fds, 2, /*timeout=*/120000) <= 0) {
        ADD_FAILURE() << "nothing comes any more";
        return;
      }
      while (const auto datagram = daemon_->poll()) see(datagram->text);
      if (fds[1].revents == 0) continue;
      char room[65536];
      const ssize_t count = ::read(pipe_[0], room, sizeof room);
      open = count > 0;
      if (open) text.append(room, static_cast<size_t>(count));
      size_t begin = 0;
      for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
        see(text.substr(begin, end + 1 - begin));
      text.erase(0, begin);
    }
    while (const auto datagram = daemon_->poll()) see(datagram->text);
    EXPECT_EQ(text, "") << "a line without its end";
  }

 private:
  LogListener* const daemon_;
  int pipe_[2] = {-1, -1};
};

// Numbered lines of different lengths, some of them as long as a datagram takes.
std::string filling(int number) {
  return std::string(static_cast<size_t>(number % 50 == 0 ? 4000 : number % 97), 'x');
}

int writeNumberedLine(int process, int thread, int number) {
  AD_ERRO("process %d thread %d number %d %s\n", process, thread, number, filling(number).c_str());
  return __LINE__ - 1;
}

// Whether each of the numbers of each thread was seen once.
class Seen {
 public:
  Seen(int processes, int threads)
      : threads_(threads), numbers_(static_cast<size_t>(processes * threads)) {}

  // False when it is not a whole numbered line.
  bool mark(const std::string& line) {
    int pid;
    int source;
    int process;
    int thread;
    int number;
    int head = -1;
    if (sscanf(line.c_str(),
               "writer(%d)ERRO:ad_debug_log_test.cc:%d-> process %d thread %d number %d %n", &pid,
               &source, &process, &thread, &number, &head) != 5 ||
        head < 0)
      return false;
    if (thread < 0 || thread >= threads_ || number < 0 || number > 50000000) return false;
    const size_t index = static_cast<size_t>(process * threads_ + thread);
    if (index >= numbers_.size()) return false;
    std::ostringstream whole;
    whole << "writer(" << pid << ")ERRO:ad_debug_log_test.cc:" << source << "-> process " << process
          << " thread " << thread << " number " << number << " " << filling(number) << "\n";
    if (line != whole.str()) return false;
    std::vector<char>& seen = numbers_[index];
    if (seen.size() <= static_cast<size_t>(number)) seen.resize(static_cast<size_t>(number) + 1);
    ++seen[static_cast<size_t>(number)];
    return true;
  }

  // How many of the first `count` numbers of a thread were not seen exactly once, and all others.
  size_t wrong(size_t writer, size_t count) const {
    const std::vector<char>& seen = numbers_[writer];
    size_t wrong = seen.size() > count ? seen.size() - count : count - seen.size();
    for (size_t i = 0; i < seen.size() && i < count; ++i) wrong += seen[i] != 1;
    return wrong;
  }

 private:
  const int threads_;
  std::vector<std::vector<char>> numbers_;
};

TEST_F(ad_debugLogTest, SlowManyProcessesAndThreadsLoseAndTearNothing) {
  constexpr int kProcesses = 8;
  constexpr int kThreads = 4;
  constexpr int kLines = 5000;
  LogListener log(kSocket);
  Collector collector(&log);
  std::vector<std::unique_ptr<Child>> children;
  for (int process = 0; process < kProcesses; ++process) {
    children.push_back(std::make_unique<Child>([&, process] {
      collector.join();
      ad_debug_set_process_name("writer");
      ad_init_debug_lib(kBase);
      std::vector<std::thread> threads;
      for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([=] {
          for (int i = 0; i < kLines; ++i) (void)writeNumberedLine(process, thread, i);
        });
      for (std::thread& thread : threads) thread.join();
    }));
  }
  Seen seen(kProcesses, kThreads);
  std::string strange;  // torn lines, and what a sanitizer has to say
  collector.collect([&](const std::string& line) {
    if (line != kUnreachable && !seen.mark(line) && strange.size() < 10000) strange += line;
  });
  for (const auto& child : children) EXPECT_EQ(child->wait().exitCode(), 0);
  EXPECT_EQ(strange, "");
  for (size_t writer = 0; writer < kProcesses * kThreads; ++writer)
    EXPECT_EQ(seen.wrong(writer, kLines), 0u) << "writer " << writer;
}

TEST_F(ad_debugLogTest, ThreadsThatLogFirstAtTheSameMomentLoseNothing) {
  constexpr size_t kThreads = 8;  // fewer than the kernel queues
  for (int round = 0; round < 20; ++round) {
    const std::string err = errorsOf([] {
      pthread_barrier_t start;
      pthread_barrier_init(&start, nullptr, kThreads);
      std::vector<std::thread> threads;
      for (size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
          pthread_barrier_wait(&start);
          AD_ERRO("first\n");
        });
      }
      for (std::thread& thread : threads) thread.join();
      pthread_barrier_destroy(&start);
    });
    EXPECT_EQ(err, "");
    EXPECT_THAT(daemon().waiting(),
                AllOf(testing::SizeIs(kThreads), testing::Each(EndsWith("-> first\n"))));
  }
}

sem_t reloaded;  // posted by the handler that the program had before

TEST_F(ad_debugLogTest, SlowTenThousandReloadsWhileThreadsLogKeepEverythingConsistent) {
  constexpr int kSignals = 10000;
  constexpr size_t kThreads = 4;
  LogListener log(kSocket);
  Collector collector(&log);
  write("/tmp/even", "debug_level=2\ndebug_client_ip=10.0.0.2\n");
  write("/tmp/odd", "debug_level=3\ndebug_client_ip=10.0.0.3\n");
  setenv("DEBUG_LEVEL", "1", 1);  // once without a file: the handler itself logs two lines
  Child child([&] {
    collector.join();
    sem_init(&reloaded, 0, 0);
    signal(SIGUSR1, [](int) {
      sem_post(&reloaded);
      errno = EXDEV;
    });
    ad_debug_to_syslogd = 0;
    ASSERT_EQ(link("/tmp/even", "/tmp/log.0.cfg"), 0);
    ad_debug_set_process_name("writer");
    ad_init_debug_lib(kBase);
    bool done = false;
    std::array<int, kThreads> written = {};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        while (!__atomic_load_n(&done, __ATOMIC_RELAXED)) {
          errno = EDOM;
          (void)writeNumberedLine(0, static_cast<int>(i), written[i]++);
          if (errno != EDOM) ADD_FAILURE() << "errno " << errno;
        }
      });
    }
    sigset_t blocked;  // so that the signals hit the threads that log
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    for (int i = 0; i < kSignals; ++i) {
      const int kind = i % 10;
      const char* const file = kind % 2 == 0 ? "/tmp/even" : "/tmp/odd";
      unlink("/tmp/log.0.cfg");
      if (kind != 9 && link(file, "/tmp/log.0.cfg") != 0) ADD_FAILURE() << strerror(errno);
      kill(getpid(), 10);
      while (sem_wait(&reloaded) != 0) continue;
      const int32_t level = __atomic_load_n(&ad_debug_cfg_p->ad_debug_level, __ATOMIC_RELAXED);
      if (level != (kind == 9 ? 1 : kind % 2 == 0 ? 2 : 3)) ADD_FAILURE() << i << " " << level;
    }
    __atomic_store_n(&done, true, __ATOMIC_RELAXED);
    for (std::thread& thread : threads) thread.join();
    EXPECT_NE(sem_trywait(&reloaded), 0) << "one call of the predecessor per signal";
    for (const int count : written) printf("%d ", count);
  });
  Seen seen(1, kThreads);
  std::string strange;  // torn lines, and what a sanitizer has to say
  std::map<std::string, int> from_handler;
  collector.collect([&](const std::string& line) {
    if (line == kUnreachable || seen.mark(line)) return;
    if (line.find("ERRO:ad_debug.cc:") != std::string::npos)
      ++from_handler[line.substr(line.find("-> ") + 3)];
    else if (strange.size() < 10000)
      strange += line;
  });
  const ChildResult result = child.wait(200);
  ASSERT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(strange, "");
  EXPECT_THAT(
      from_handler,
      ElementsAre(testing::Pair("ad_debug_syslog_critical_msg_only set to true\n", kSignals / 10),
                  testing::Pair("non-critical message won't be written to syslog in any case\n",
                                kSignals / 10)));
  std::istringstream counts(result.out);
  size_t writer = 0;
  for (size_t count; counts >> count; ++writer) {
    EXPECT_GT(count, 0u);
    EXPECT_EQ(seen.wrong(writer, count), 0u) << "writer " << writer;
  }
  EXPECT_EQ(writer, kThreads);
}

}  // namespace
