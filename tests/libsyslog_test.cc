// The syslog client, and what of the log reaches it: the bytes that arrive at a private /dev/log.
#include <errno.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>
#include <sys/mount.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ku_syslog.h"
#include "support/child.h"
#include "support/private_world.h"
#include "support/syslog_listener.h"
#include "velorin/ad_debug"

// So that malloc answers null for sizes it cannot serve, as without a sanitizer.
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

using testing::Each;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

class WorldWithSyslog : public PrivateWorld {
 protected:
  WorldWithSyslog() {
    cover("/dev");
    syslog_ = std::make_unique<SyslogListener>();
  }

  ~WorldWithSyslog() override {
    syslog_.reset();
    (void)umount2("/dev", MNT_DETACH);
  }

  // The one record that is waiting; fails the test, with an empty result, when it is not one.
  SyslogRecord onlyRecord() {
    const std::vector<SyslogRecord> records = syslog_->waiting();
    EXPECT_THAT(records, SizeIs(1));
    return records.size() == 1 ? records[0] : SyslogRecord();
  }

  std::unique_ptr<SyslogListener> syslog_;
};

// ---- The client ----

class libsyslogTest : public WorldWithSyslog {};

// The first: the library has not been initialised.
TEST_F(libsyslogTest, RecordHoldsProgramProcessModuleAndMessageId) {
  EXPECT_EQ(ku_syslog(4, 84, 0, 700000, "disk %s is %d %% full", "sda", 91), 0);
  const SyslogRecord record = onlyRecord();
  EXPECT_EQ(record.priority, LOG_WARNING);
  EXPECT_EQ(record.facility, LOG_DAEMON);
  EXPECT_EQ(record.ident, "libsyslog_test");
  EXPECT_EQ(record.pid, getpid());
  EXPECT_EQ(record.text, "[module 84 id 700000] disk sda is 91 % full");
}

TEST_F(libsyslogTest, InitSucceedsAndRecordsNothing) {
  EXPECT_EQ(ku_syslog_init(), 0);
  EXPECT_EQ(ku_syslog_init(), 0);
  EXPECT_THAT(syslog_->waiting(), IsEmpty());
}

TEST_F(libsyslogTest, ProcessNumberIsThatOfTheForkedChild) {
  ku_syslog(6, 1, 0, 2, "parent");
  EXPECT_EQ(onlyRecord().pid, getpid());
  Child child([] { ku_syslog(6, 1, 0, 2, "child"); });
  const int pid = child.pid();
  EXPECT_EQ(child.wait().exitCode(), 0);
  EXPECT_EQ(onlyRecord().pid, pid);
}

TEST_F(libsyslogTest, EveryPriorityIsRecordedUnderItsOwnNumber) {
  for (int priority = LOG_EMERG; priority <= LOG_DEBUG; ++priority) {
    EXPECT_EQ(ku_syslog(priority, 1, 0, 2, "text"), 0);
    const SyslogRecord record = onlyRecord();
    EXPECT_EQ(record.priority, priority);
    EXPECT_EQ(record.facility, LOG_DAEMON);
    EXPECT_EQ(record.text, "[module 1 id 2] text");
  }
}

TEST_F(libsyslogTest, WrongPriorityIsRecordedAsAnErrorThatNamesItAndKeepsTheFacility) {
  for (const int priority : {-1, 8, LOG_AUTHPRIV | LOG_ALERT, INT_MAX, INT_MIN}) {
    EXPECT_EQ(ku_syslog(priority, 1, 0, 2, "text"), 0);
    const SyslogRecord record = onlyRecord();
    EXPECT_EQ(record.priority, LOG_ERR);
    EXPECT_EQ(record.facility, LOG_DAEMON);
    EXPECT_EQ(record.text, "[module 1 id 2 priority " + std::to_string(priority) + "] text");
  }
}

TEST_F(libsyslogTest, ModuleAndMessageIdTakeTheWholeRangeOfAWord) {
  ku_syslog(6, UINT32_MAX, 0, UINT32_MAX, "text");
  EXPECT_EQ(onlyRecord().text, "[module 4294967295 id 4294967295] text");
}

TEST_F(libsyslogTest, NewlinesAtTheEndAreLeftOutAndOthersKept) {
  const struct {
    const char* message;
    const char* recorded;
  } rows[] = {{"text\n", "text"}, {"text\n\n", "text"}, {"a\nb\n", "a\nb"}, {"\n", ""}, {"", ""}};
  for (const auto& row : rows) {
    EXPECT_EQ(ku_syslog(6, 1, 0, 2, "%s", row.message), 0);
    EXPECT_EQ(onlyRecord().text, std::string("[module 1 id 2] ") + row.recorded);
  }
}

TEST_F(libsyslogTest, MessageIsNeverTakenForAFormat) {
  ku_syslog(6, 1, 0, 2, "%s", "%s%n%d 100%");
  EXPECT_EQ(onlyRecord().text, "[module 1 id 2] %s%n%d 100%");
}

TEST_F(libsyslogTest, PercentMIsTheCallersErrno) {
  errno = ENOENT;
  ku_syslog(6, 1, 0, 2, "open: %m");
  EXPECT_EQ(onlyRecord().text, "[module 1 id 2] open: No such file or directory");
}

TEST_F(libsyslogTest, LongMessageIsCutAt8191Bytes) {
  const std::string fits(8191, 'a');
  ku_syslog(6, 1, 0, 2, "%s", fits.c_str());
  EXPECT_EQ(onlyRecord().text, "[module 1 id 2] " + fits);
  ku_syslog(6, 1, 0, 2, "%s", (fits + "bc").c_str());
  EXPECT_EQ(onlyRecord().text, "[module 1 id 2] " + fits);
}

TEST_F(libsyslogTest, FormatThatCannotBePrintedIsRefused) {
  EXPECT_EQ(ku_syslog(6, 1, 0, 2, "%ls", L"\xdc80"), -1);  // not in the C locale's character set
  EXPECT_THAT(syslog_->waiting(), IsEmpty());
}

TEST_F(libsyslogTest, WithoutAServerNothingIsSaidAndTheNextServerGetsTheNextRecord) {
  syslog_.reset();
  const ChildResult child = runInChild([] { EXPECT_EQ(ku_syslog(2, 1, 0, 2, "lost"), 0); });
  EXPECT_EQ(child.exitCode(), 0) << child;
  EXPECT_EQ(child.out + child.err, "");

  ku_syslog(2, 1, 0, 2, "lost");
  syslog_ = std::make_unique<SyslogListener>();
  ku_syslog(2, 1, 0, 2, "found");
  EXPECT_EQ(onlyRecord().text, "[module 1 id 2] found");
}

TEST_F(libsyslogTest, DebugMessagesAreRecordedWhateverTheSwitchSays) {
  ku_syslog(7, 84, 0, 2, "off");
  EXPECT_EQ(onlyRecord().text, "[module 84 id 2] off");
  EXPECT_EQ(runInChild([] {
              set_debug(84, 0, 1);
              ku_syslog(7, 84, 0, 2, "on");
            }).exitCode(),
            0);
  EXPECT_EQ(onlyRecord().text, "[module 84 id 2] on");
}

// Each in a child: switches stay as they are for the rest of a process's life.
class libsyslogSwitchTest : public PrivateWorld {};

TEST_F(libsyslogSwitchTest, ModulesAreSwitchedEachByItself) {
  const ChildResult child = runInChild([] {
    const std::vector<uint32_t> modules = {0, 1, 84, 0x80000000, UINT32_MAX};
    for (const uint32_t module : modules) EXPECT_EQ(is_debug_enabled(module, 0), 0) << module;
    for (const uint32_t module : modules) {
      EXPECT_EQ(set_debug(module, 0, 1), 0);
      for (const uint32_t other : modules)
        EXPECT_EQ(is_debug_enabled(other, 0), other <= module) << other;
    }
    EXPECT_EQ(set_debug(84, 0, 0), 0);
    for (const uint32_t module : modules) EXPECT_EQ(is_debug_enabled(module, 0), module != 84);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
}

TEST_F(libsyslogSwitchTest, AnyFlagButZeroSwitchesOnAndShowsInTheLowByte) {
  const ChildResult child = runInChild([] {
    for (const int on : {1, -1, 0x100, INT_MIN}) {
      EXPECT_EQ(set_debug(84, 0, on), 0);
      EXPECT_NE(is_debug_enabled(84, 0) & 0xff, 0) << on;
      EXPECT_EQ(set_debug(84, 0, 0), 0);
      EXPECT_EQ(is_debug_enabled(84, 0), 0);
    }
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
}

TEST_F(libsyslogSwitchTest, The257thModuleIsRefusedAndStaysOff) {
  const ChildResult child = runInChild([] {
    for (uint32_t module = 0; module < 256; ++module) EXPECT_EQ(set_debug(module, 0, 1), 0);
    EXPECT_EQ(set_debug(256, 0, 1), -1);
    EXPECT_EQ(is_debug_enabled(256, 0), 0);
    EXPECT_EQ(set_debug(256, 0, 0), 0);
    // A place belongs to its module for good: switched off, it is not given to another.
    EXPECT_EQ(set_debug(255, 0, 0), 0);
    EXPECT_EQ(set_debug(256, 0, 1), -1);
    EXPECT_EQ(set_debug(255, 0, 1), 0);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
}

TEST_F(libsyslogSwitchTest, SwitchingOffAModuleThatWasNeverOnTakesNoPlace) {
  const ChildResult child = runInChild([] {
    for (uint32_t module = 1000; module < 2000; ++module) EXPECT_EQ(set_debug(module, 0, 0), 0);
    for (uint32_t module = 0; module < 256; ++module) EXPECT_EQ(set_debug(module, 0, 1), 0);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
}

// Many rounds, as a lost race is rare.
TEST_F(libsyslogSwitchTest, ThreadsSwitchTheSameModulesAtOnceAndEachModuleTakesOnePlace) {
  constexpr uint32_t kThreads = 4;
  for (int round = 0; round < 20; ++round) {
    const ChildResult child = runInChild([] {
      std::atomic<uint32_t> started{0};
      std::vector<std::thread> threads;
      for (uint32_t first = 0; first < kThreads; ++first) {
        threads.emplace_back([first, &started] {
          ++started;
          while (started != kThreads) continue;
          // Each in an order of its own, so that places are fought for.
          for (uint32_t i = 0; i < 256; ++i) {
            const uint32_t module = (i * (2 * first + 1) + first) % 256;
            EXPECT_EQ(set_debug(module, 0, 1), 0);
            EXPECT_EQ(is_debug_enabled(module, 0), 1);
          }
        });
      }
      for (std::thread& thread : threads) thread.join();
      for (uint32_t module = 0; module < 256; ++module) EXPECT_EQ(is_debug_enabled(module, 0), 1);
      EXPECT_EQ(set_debug(256, 0, 1), -1);
    });
    EXPECT_EQ(child.exitCode(), 0) << child;
  }
}

// ---- The log's copies ----

constexpr uint32_t kModule = 4711;
constexpr uint32_t kClient = 0x0100007f;  // an address that no connection here has

// What decides whether a line is written and copied.
struct Conditions {
  int32_t level;
  uint32_t critical_only;
  uint32_t in_sighandler;
  uint32_t to_syslogd;
  bool filtered;  // the connection filter drops the line
};

constexpr Conditions kErrorsCopied = {1, 0, 0, 1, false};

std::ostream& operator<<(std::ostream& to, const Conditions& c) {
  return to << "level " << c.level << ", critical only " << c.critical_only << ", in sighandler "
            << c.in_sighandler << ", to syslogd " << c.to_syslogd << ", filtered " << c.filtered;
}

std::vector<Conditions> allConditions() {
  std::vector<Conditions> all;
  for (const int32_t level : {0, 1, 2, 3, 4})
    for (const uint32_t critical_only : {0u, 1u})
      for (const uint32_t in_sighandler : {0u, 1u})
        for (const uint32_t to_syslogd : {0u, 1u})
          for (const bool filtered : {false, true})
            all.push_back({level, critical_only, in_sighandler, to_syslogd, filtered});
  return all;
}

void establish(const Conditions& c) {
  ad_debug_cfg_p = &ad_debug_cfg_no_share_mem;
  ad_debug_cfg_p->ad_debug_level = c.level;
  ad_debug_cfg_p->debug_target_client_ip = kClient;
  ad_current_client_ip = c.filtered ? kClient + 1 : kClient;
  ad_debug_syslog_critical_msg_only = c.critical_only;
  ad_debug_in_sighandler = c.in_sighandler;
  ad_debug_to_syslogd = c.to_syslogd;
}

class SyslogCopyTest : public WorldWithSyslog {
 protected:
  SyslogCopyTest() : special_("/tmp/ad_errorlog_sp") { ad_debug_set_default_module_id(kModule); }

  ~SyslogCopyTest() override {
    establish(kErrorsCopied);
    ad_debug_syslog_critical_msg_only = 1;
    ad_current_client_ip = 0;
    ad_debug_cfg_p = nullptr;
  }

  // What the daemon got.
  std::vector<std::string> written() {
    (void)special_.waiting();  // its queue must not fill
    return daemon().waiting();
  }

 private:
  LogListener special_;  // where the library sends level 4's copies before it is initialised
};

std::string prefix(const char* tag, int line) {
  return "(" + std::to_string(getpid()) + ")" + tag + ":libsyslog_test.cc:" + std::to_string(line) +
         "-> ";
}

TEST_F(SyslogCopyTest, ErrorsAreCopiedFromLevel1UnlessCriticalOnlyInAHandlerOrSwitchedOff) {
  for (const Conditions& c : allConditions()) {
    establish(c);
    const int line = __LINE__ + 1;
    AD_ERRO("lost %d\n", 5);
    EXPECT_THAT(written(), SizeIs(c.filtered ? 0 : 1)) << c;
    const bool copied =
        c.level >= 1 && c.critical_only == 0 && c.in_sighandler == 0 && c.to_syslogd != 0;
    const std::vector<SyslogRecord> records = syslog_->waiting();
    ASSERT_THAT(records, SizeIs(copied && !c.filtered ? 1 : 0)) << c;
    if (records.empty()) continue;
    EXPECT_EQ(records[0].priority, 7) << c;
    EXPECT_EQ(records[0].text, "[module 4711 id 100000] " + prefix("ERRO", line) + "lost 5") << c;
  }
}

TEST_F(SyslogCopyTest, CriticalLinesAreCopiedUnlessInAHandlerOrSwitchedOff) {
  for (const Conditions& c : allConditions()) {
    establish(c);
    const int line = __LINE__ + 1;
    AD_CRTC("down %s", "now");
    EXPECT_THAT(written(), SizeIs(c.filtered ? 0 : 1)) << c;
    const bool copied = c.in_sighandler == 0 && c.to_syslogd != 0;
    const std::vector<SyslogRecord> records = syslog_->waiting();
    ASSERT_THAT(records, SizeIs(copied && !c.filtered ? 1 : 0)) << c;
    if (records.empty()) continue;
    EXPECT_EQ(records[0].priority, 7) << c;
    EXPECT_EQ(records[0].text, "[module 4711 id 100000] " + prefix("CRTC", line) + "down now") << c;
  }
}

TEST_F(SyslogCopyTest, TraceAndDetailLinesAreNeverCopied) {
  for (const Conditions& c : allConditions()) {
    establish(c);
    AD_TRCE("opened\n");
    EXPECT_THAT(written(), SizeIs(c.level >= 2 && !c.filtered ? 1 : 0)) << c;
    AD_DETL("read\n");
    EXPECT_THAT(written(), SizeIs(c.level >= 3 && !c.filtered ? 1 : 0)) << c;
    EXPECT_THAT(syslog_->waiting(), IsEmpty()) << c;
  }
}

// A fatal statement's record is not a copy of its line: no condition keeps it back.
TEST_F(SyslogCopyTest, FatalStatementsAlwaysRecordTheBareTextAtPriority2AndMakeNoCopy) {
  for (const Conditions& c : allConditions()) {
    establish(c);
    Child child([] { AD_FATAL(17, 512001, "no route: %s\n", "eth0"); });
    EXPECT_EQ(child.wait().exitCode(), 17) << c;
    const std::vector<std::string> lines = written();
    EXPECT_THAT(lines, SizeIs(c.filtered ? 0 : 1)) << c;
    EXPECT_THAT(lines, Each(EndsWith("-> no route: eth0\n")));
    const SyslogRecord record = onlyRecord();
    EXPECT_EQ(record.priority, 2) << c;
    EXPECT_EQ(record.pid, child.pid()) << c;
    EXPECT_EQ(record.text, "[module 4711 id 512001] no route: eth0") << c;
  }
}

TEST_F(SyslogCopyTest, ExhaustedMemoryIsAlwaysRecordedAtPriority2AndEndsTheProcessWith126) {
  for (const Conditions& c : allConditions()) {
    establish(c);
    Child child([] { (void)my_xmalloc(SIZE_MAX - 65536, "cache.cc", 33); });
    EXPECT_EQ(child.wait().exitCode(), 126) << c;
    const std::vector<std::string> lines = written();
    EXPECT_THAT(lines, SizeIs(c.filtered ? 0 : 1)) << c;
    EXPECT_THAT(
        lines,
        Each(MatchesRegex("\\([0-9]+\\)CRTC:ad_debug.cc:[0-9]+-> Malloc fail at cache.cc:33\n")));
    const SyslogRecord record = onlyRecord();
    EXPECT_EQ(record.priority, 2) << c;
    EXPECT_EQ(record.text, "[module 4711 id 512035] Malloc fail at cache.cc:33") << c;
  }
}

TEST_F(SyslogCopyTest, CopyIsMadeWhenNoDaemonTakesTheLine) {
  establish(kErrorsCopied);
  removeDaemon();
  const ChildResult child = runInChild([] { AD_ERRO("alone\n"); });
  EXPECT_THAT(child.err, EndsWith("-> alone\n"));
  EXPECT_THAT(onlyRecord().text, EndsWith("-> alone"));
}

TEST_F(SyslogCopyTest, LevelThatChangesBetweenStatementsCountsAtOnce) {
  establish(kErrorsCopied);
  ad_debug_cfg_p->ad_debug_level = 0;
  AD_ERRO("quiet\n");
  EXPECT_THAT(syslog_->waiting(), IsEmpty());
  ad_debug_cfg_p->ad_debug_level = 1;
  AD_ERRO("loud\n");
  EXPECT_THAT(onlyRecord().text, EndsWith("-> loud"));
}

TEST_F(SyslogCopyTest, LongestLineIsCopiedWholeAndLongerOnesAreCutAt4086Bytes) {
  establish(kErrorsCopied);
  const std::string text(5000, 'x');
  const int line = __LINE__ + 1;
  AD_ERRO("%s", text.c_str());
  const std::string whole = prefix("ERRO", line) + text;
  EXPECT_EQ(onlyRecord().text, "[module 4711 id 100000] " + whole.substr(0, 4086));
}

TEST_F(SyslogCopyTest, TheTwoLinesOfTheCriticalOnlySwitchAreNotCopied) {
  establish(kErrorsCopied);
  ad_debug_set_syslog_critical_msg_only(1);
  EXPECT_THAT(written(), SizeIs(2));
  EXPECT_THAT(syslog_->waiting(), IsEmpty());
}

}  // namespace
