// The logger objects, Logger and zam::Logger, and the unified log.
#include "velorin/Logger"

#include <errno.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "support/child.h"
#include "support/private_world.h"
#include "support/syslog_recorder.h"
#include "support/system_calls.h"
#include "velorin/ad_debug"
#include "zam/Logger"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

// ---- Logger ----

class loggerTest : public PrivateWorld {
 protected:
  static void configure(int32_t level) {
    ad_read_debug_cfg_direct_read_from_env();
    ad_debug_cfg_p->ad_debug_level = level;
  }
};

TEST_F(loggerTest, PrintAndInfoAreTraceLinesFromLevelTwo) {
  ad_debug_set_process_name("svc");
  configure(1);
  Logger::print("not yet");
  Logger::info("not yet");
  EXPECT_THAT(daemon().waiting(), IsEmpty());
  configure(2);
  Logger::print("printed");
  Logger::info("informed\n");
  EXPECT_THAT(daemon().waiting(),
              ElementsAre(MatchesRegex("svc\\([0-9]+\\)TRCE:logger.cc:[0-9]+-> printed"),
                          MatchesRegex("svc\\([0-9]+\\)TRCE:logger.cc:[0-9]+-> informed\n")));
  EXPECT_THAT(takeSyslogCalls(), IsEmpty());
}

TEST_F(loggerTest, WarnIsAnErrorLineThatNamesTheHeader) {
  configure(0);
  Logger::warn("100% odd: %s %n");
  EXPECT_THAT(daemon().next().text,
              MatchesRegex("\\([0-9]+\\)ERRO:Logger:[0-9]+-> 100% odd: %s %n"));
}

TEST_F(loggerTest, DieWritesACriticalLineWithoutCopyAndARecordAndExits) {
  const ChildResult child = runInChild([] {
    ad_debug_set_process_name("svc");
    ad_debug_module_id = 31;
    Logger::die(512001, "no more disks");
  });
  EXPECT_EQ(child.exitCode(), 1) << child;
  EXPECT_EQ(child.out, "syslog 2 31 0 512001 no more disks\n");
  EXPECT_THAT(daemon().next().text,
              MatchesRegex("svc\\([0-9]+\\)CRTC:logger.cc:[0-9]+-> no more disks"));
}

TEST_F(loggerTest, DieExitsEvenWhenTheFilterHidesItsLine) {
  const ChildResult child = runInChild([] {
    configure(1);
    ad_debug_cfg_p->debug_target_client_ip = 1;
    ad_current_client_ip = 2;
    Logger::die(-1, "hidden");
  });
  EXPECT_EQ(child.exitCode(), 1) << child;
  EXPECT_EQ(child.out, "syslog 2 0 0 4294967295 hidden\n");
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

TEST_F(loggerTest, DieRecordsTheWholeOfALongMessage) {
  const std::string message(9000, 'm');
  const ChildResult child = runInChild([&] { Logger::die(4, message); });
  EXPECT_EQ(child.exitCode(), 1) << child;
  EXPECT_EQ(child.out, "syslog 2 0 0 4 " + message + "\n");
  EXPECT_EQ(daemon().next().text.size(), 4086u);
}

TEST_F(loggerTest, DieMakesItsRecordWithCopiesSwitchedOff) {
  const ChildResult child = runInChild([] {
    ad_debug_to_syslogd = 0;
    ad_debug_in_sighandler = 1;
    Logger::die(3, "x");
  });
  EXPECT_EQ(child.exitCode(), 1) << child;
  EXPECT_EQ(child.out, "syslog 2 0 0 3 x\n");
}

// ---- zam::Logger ----

class zamLoggerTest : public PrivateWorld {};

SyslogCall call(int priority, uint32_t id, const std::string& text) {
  return {priority, 84, 0, id, "%s", text};
}

TEST_F(zamLoggerTest, EachOperationHasItsPriorityAndDefaultMessageId) {
  zam::Logger::initialize();
  EXPECT_EQ(syslog_init_calls, 0);
  zam::Logger::put(0, 1, "emergency");
  zam::Logger::warn(2, "warn");
  zam::Logger::warn("warn alone");
  zam::Logger::notice(3, "notice");
  zam::Logger::notice("notice alone");
  zam::Logger::info(4, "info");
  zam::Logger::debug(5, "debug");
  zam::Logger::debug("debug alone");
  EXPECT_THAT(takeSyslogCalls(), ElementsAre(call(0, 1, "emergency"), call(4, 2, "warn"),
                                             call(4, 700001, "warn alone"), call(5, 3, "notice"),
                                             call(5, 700001, "notice alone"), call(6, 4, "info"),
                                             call(7, 5, "debug"), call(7, 700000, "debug alone")));
  EXPECT_EQ(syslog_init_calls, 1);
  EXPECT_EQ(zam::Logger::DEBUG_MNEMONIC, 700000);
  EXPECT_EQ(zam::Logger::UNDOCUMENTED, 700001);
  EXPECT_THAT(daemon().waiting(), IsEmpty()) << "nothing goes to the debug log";
}

TEST_F(zamLoggerTest, MessagesAreArgumentsAndNotFormats) {
  zam::Logger::put(3, 1, "100%s %n");
  const auto calls = takeSyslogCalls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].format, "%s");
  EXPECT_EQ(calls[0].text, "100%s %n");
}

TEST_F(zamLoggerTest, EmptyMessageIsRecordedAsNullMessage) {
  zam::Logger::put(6, 9, "");
  EXPECT_THAT(takeSyslogCalls(), ElementsAre(call(6, 9, "(null message)")));
}

TEST_F(zamLoggerTest, PrioritiesOutsideZeroToSevenArePassedOn) {
  zam::Logger::put(-1, 1, "low");
  zam::Logger::put(1000, 1, "high");
  EXPECT_THAT(takeSyslogCalls(), ElementsAre(call(-1, 1, "low"), call(1000, 1, "high")));
}

TEST_F(zamLoggerTest, FailedInitialisationDropsEverythingForGood) {
  syslog_init_result = -1;
  zam::Logger::warn("dropped");
  syslog_init_result = 0;
  zam::Logger::warn("dropped too");
  EXPECT_EQ(init_logger(), 0);
  EXPECT_THAT(takeSyslogCalls(), IsEmpty());
  EXPECT_EQ(syslog_init_calls, 1);
}

TEST_F(zamLoggerTest, PrintAndDieStillWriteWhenTheClientFails) {
  const ChildResult child = runInChild([] {
    syslog_init_result = 1;
    setenv("VELORIN_LOGID", "svc", 1);
    zam::Logger::print(1, "to be seen");
    zam::Logger::die(5, "x");
  });
  EXPECT_EQ(child.exitCode(), 1);
  EXPECT_EQ(child.out, "to be seen\n");
  EXPECT_EQ(child.err, "svc: x\n");
}

TEST_F(zamLoggerTest, EmptyMessagesArePrintedAsTheyAre) {
  const ChildResult child = runInChild([] {
    zam::Logger::print(1, "");
    EXPECT_EQ(takeSyslogCalls(), std::vector{call(6, 1, "(null message)")});
    zam::Logger::die(2, "");
  });
  EXPECT_EQ(child.exitCode(), 1);
  EXPECT_EQ(child.err, "Logger_test: \n");
  EXPECT_EQ(child.out, "\nsyslog 3 84 0 2 (null message)\n");
}

TEST_F(zamLoggerTest, DieRecordsAtPriorityThreeAndExits) {
  const ChildResult child = runInChild([] {
    setenv("VELORIN_LOGID", "box", 1);
    zam::Logger::die(5, "x");
  });
  EXPECT_EQ(child.exitCode(), 1);
  EXPECT_EQ(child.err, "box: x\n");
  EXPECT_EQ(child.out, "syslog 3 84 0 5 x\n");
}

TEST_F(zamLoggerTest, PrintRecordsAtPrioritySixAndWritesOneLine) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
  const ChildResult child = runInChild([&] {
    dup2(pair[1], STDOUT_FILENO);
    zam::Logger::print(8, "one write");
    _exit(takeSyslogCalls() == std::vector{call(6, 8, "one write")} ? 0 : 1);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
  char packet[64];
  EXPECT_EQ(std::string(packet, static_cast<size_t>(recv(pair[0], packet, sizeof packet, 0))),
            "one write\n");
  close(pair[0]);
  close(pair[1]);
}

TEST_F(zamLoggerTest, DieWritesToStandardErrorInOneWrite) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
  const ChildResult child = runInChild([&] {
    dup2(pair[1], STDERR_FILENO);
    setenv("VELORIN_LOGID", "box", 1);
    zam::Logger::die(1, "gone");
  });
  EXPECT_EQ(child.exitCode(), 1) << child;
  char packet[64];
  EXPECT_EQ(std::string(packet, static_cast<size_t>(recv(pair[0], packet, sizeof packet, 0))),
            "box: gone\n");
  close(pair[0]);
  close(pair[1]);
}

TEST_F(zamLoggerTest, IdIsTheEnvironmentsOrTheProgramsShortName) {
  EXPECT_EQ(zam::Logger::id(), "Logger_test");
  setenv("VELORIN_LOGID", "", 1);
  EXPECT_EQ(zam::Logger::id(), "Logger_test");
  setenv("VELORIN_LOGID", "proxy 2", 1);
  EXPECT_EQ(zam::Logger::id(), "proxy 2");
}

// ---- The unified log ----

class unifiedLogTest : public PrivateWorld {};

TEST_F(unifiedLogTest, DatagramIsTextZeroAndTime) {
  LogListener log("/tmp/zam-errorlog");
  timeval before;
  gettimeofday(&before, nullptr);
  send_to_unifiedlog("%s %d", "text", 5);
  timeval after;
  gettimeofday(&after, nullptr);
  const LogDatagram datagram = log.next();
  EXPECT_EQ(datagram.text, "text 5");
  EXPECT_EQ(datagram.bytes.size(), 6u + 9u);
  EXPECT_GE(static_cast<time_t>(datagram.sec), before.tv_sec);
  EXPECT_LE(static_cast<time_t>(datagram.sec), after.tv_sec);
  EXPECT_LT(datagram.usec, 1000000u);
}

TEST_F(unifiedLogTest, TextsAreCutAt4086Bytes) {
  LogListener log("/tmp/zam-errorlog");
  const std::string whole(4086, 'a');
  send_to_unifiedlog("%s", whole.c_str());
  EXPECT_EQ(log.next().text, whole);
  send_to_unifiedlog("%sbc", whole.c_str());
  EXPECT_EQ(log.next().text, whole);
  send_to_unifiedlog("%s", "");
  EXPECT_FALSE(log.poll());
}

TEST_F(unifiedLogTest, InitPutsTheUserIdBehindTheBasePath) {
  LogListener fallback("/tmp/zam-errorlog.0");
  LogListener named("/tmp/mine.0");
  EXPECT_EQ(init_zam_unifiedlog("/tmp/mine"), 0);
  send_to_unifiedlog("to mine");
  EXPECT_EQ(named.next().text, "to mine");
  EXPECT_EQ(init_zam_unifiedlog(nullptr), 0);
  send_to_unifiedlog("to the default");
  EXPECT_EQ(fallback.next().text, "to the default");
}

TEST_F(unifiedLogTest, InitUsesTheRealUserId) {
  LogListener real("/tmp/mine.1234");
  LogListener effective("/tmp/mine.0");
  errorsOf([] {
    if (setresuid(1234, 0, 0) != 0) FAIL() << "this test needs a second user: " << strerror(errno);
    EXPECT_EQ(init_zam_unifiedlog("/tmp/mine"), 0);
    send_to_unifiedlog("x");
  });
  EXPECT_THAT(real.waiting(), ElementsAre("x"));
  EXPECT_THAT(effective.waiting(), IsEmpty());
}

TEST_F(unifiedLogTest, InterruptedSendIsRepeated) {
  LogListener log("/tmp/zam-errorlog");
  const std::string err = errorsOf([] {
    system_calls.interrupted_sends = 5;
    send_to_unifiedlog("x");
    EXPECT_EQ(system_calls.interrupted_sends, 0);
  });
  EXPECT_EQ(err, "");
  EXPECT_THAT(log.waiting(), ElementsAre("x"));
}

TEST_F(unifiedLogTest, InitLoggerInitialisesOnceAndSetsThePath) {
  LogListener log("/tmp/zam-errorlog.0");
  EXPECT_EQ(init_logger(), 1);
  EXPECT_EQ(init_logger(), 1);
  EXPECT_EQ(syslog_init_calls, 1);
  send_to_unifiedlog("x");
  EXPECT_EQ(log.next().text, "x");
}

TEST_F(unifiedLogTest, InitLoggerBehindAMessageOfZamLoggerKeepsThePathWithoutUserId) {
  LogListener with_user("/tmp/zam-errorlog.0");
  LogListener without("/tmp/zam-errorlog");
  zam::Logger::info(1, "first");
  EXPECT_EQ(init_logger(), 1);
  EXPECT_EQ(syslog_init_calls, 1);
  send_to_unifiedlog("x");
  EXPECT_EQ(without.next().text, "x");
  EXPECT_FALSE(with_user.poll());
}

TEST_F(unifiedLogTest, InitLoggerSetsTheDefaultOverAnEarlierPath) {
  LogListener log("/tmp/zam-errorlog.0");
  init_zam_unifiedlog("/tmp/mine");
  EXPECT_EQ(init_logger(), 1);
  send_to_unifiedlog("x");
  EXPECT_EQ(log.next().text, "x");
}

TEST_F(unifiedLogTest, PathsAreCutAt107Bytes) {
  const std::string base = "/tmp/" + std::string(200, 'p');
  LogListener log(base.substr(0, 107));
  init_zam_unifiedlog(base.c_str());
  send_to_unifiedlog("x");
  EXPECT_EQ(log.next().text, "x");
}

TEST_F(unifiedLogTest, EveryFailureIsPrintedAlsoBehindASuccess) {
  const ChildResult child = runInChild([] {
    send_to_unifiedlog("fails");
    {
      LogListener log("/tmp/zam-errorlog");
      send_to_unifiedlog("works");
      EXPECT_EQ(log.next().text, "works");
    }
    send_to_unifiedlog("fails");
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.err,
            "sendto(): No such file or directory\nsendto(): No such file or directory\n");
}

TEST_F(unifiedLogTest, FailedSendPrintsWithPerrorEachTimeAndTheTextGoesNowhere) {
  const ChildResult child = runInChild([] {
    errno = EPERM;
    send_to_unifiedlog("one\n");
    send_to_unifiedlog("two\n");
    EXPECT_EQ(errno, EPERM);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.err,
            "sendto(): No such file or directory\nsendto(): No such file or directory\n");
}

TEST_F(unifiedLogTest, NoSocketIsOneWarningAndSilenceForGood) {
  LogListener log("/tmp/zam-errorlog");
  const ChildResult child = runInChild([] {
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    const rlimit none = {0, files.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    send_to_unifiedlog("one");
    setrlimit(RLIMIT_NOFILE, &files);
    send_to_unifiedlog("two");
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.err,
            "WARNING: logging to zam_errorlog is NOT enabled, no error will be logged in this "
            "session.\n");
  EXPECT_FALSE(log.poll());
}

TEST_F(unifiedLogTest, TheDebugLogHasASocketAndAStateOfItsOwn) {
  LogListener log("/tmp/zam-errorlog");
  removeDaemon();
  const ChildResult child = runInChild([] {
    ad_errorlog_printf("fails\n");
    send_to_unifiedlog("works");
    ad_errorlog_printf("fails again\n");
  });
  EXPECT_EQ(child.err,
            "WARNING: cannot contact ad_logd, will keep trying. Output redirected to stderr.\n"
            "fails\nfails again\n");
  EXPECT_EQ(log.next().text, "works");
}

TEST_F(unifiedLogTest, ThreadsNeverMixTheirTexts) {
  LogListener log("/tmp/zam-errorlog");
  std::thread threads[4];
  for (int i = 0; i < 4; ++i) threads[i] = std::thread([i] { send_to_unifiedlog("thread %d", i); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(log.waiting(),
              testing::UnorderedElementsAre("thread 0", "thread 1", "thread 2", "thread 3"));
}

}  // namespace
