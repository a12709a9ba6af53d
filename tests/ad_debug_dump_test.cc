// The packet dump, observed at the daemon's and the special log's socket and at the syslog client.
#include <errno.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"
#include "support/syslog_recorder.h"
#include "velorin/ad_debug"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ad_debugDumpTest : public PrivateWorld {
 protected:
  ad_debugDumpTest() { configure(3); }

  static void configure(int32_t level) {
    ad_read_debug_cfg_direct_read_from_env();
    ad_debug_cfg_p->ad_debug_level = level;
  }

  // The prefix of every line: "(PID)TAG".
  static std::string who(const std::string& tag = "DETL") {
    return "(" + std::to_string(getpid()) + ")" + tag;
  }

  // The data lines of a dump of the bytes 0, 1, 2 and so on, behind their prefixes; at most nine
  // lines, as the kernel's queue holds no more.
  std::vector<std::string> data(int len) {
    std::vector<uint8_t> bytes(static_cast<size_t>(len));
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    std::vector<std::string> lines;
    ad_debug_print_pkt_impl(3, "DETL", bytes.data(), len, "f.c", 1, "d");
    for (std::string& line : daemon().waiting()) {
      EXPECT_EQ(line.compare(0, who().size(), who()), 0) << line;
      lines.push_back(line.substr(who().size()));
    }
    EXPECT_FALSE(lines.empty());
    if (!lines.empty()) lines.erase(lines.begin());
    return lines;
  }
};

TEST_F(ad_debugDumpTest, HeaderNamesLengthAndDescription) {
  ad_debug_print_pkt_impl(3, "DETL", "abc", 3, "/src/net/in.c", 12, "from 10.0.0.1");
  EXPECT_THAT(daemon().waiting(),
              ElementsAre(who() + ":in.c:12-> DUMP length = 0x3 (from 10.0.0.1)\n",
                          who() + ": 0x000: 0x61,0x62,0x63\n"));
}

TEST_F(ad_debugDumpTest, LinesCarryNoProcessName) {
  ad_debug_set_process_name("named");
  ad_debug_print_pkt_impl(3, "DETL", "a", 1, "f.c", 1, "d");
  EXPECT_THAT(daemon().waiting(),
              ElementsAre(who() + ":f.c:1-> DUMP length = 0x1 (d)\n", who() + ": 0x000: 0x61\n"));
}

TEST_F(ad_debugDumpTest, FileIsWhatStandsBehindTheLastSlash) {
  struct {
    const char* file;
    const char* printed;
  } const rows[] = {
      {"plain.c", "plain.c"}, {"/a/b.c", "b.c"}, {"a/", ""}, {"", ""}, {nullptr, "(null)"}};
  for (const auto& row : rows) {
    ad_debug_print_pkt_impl(3, "DETL", nullptr, 0, row.file, -7, "d");
    EXPECT_THAT(daemon().waiting(),
                ElementsAre(who() + ":" + row.printed + ":-7-> DUMP length = 0x0 (d)\n"));
  }
}

TEST_F(ad_debugDumpTest, EmptyAndNegativeLengthsAreAHeaderOnly) {
  ad_debug_print_pkt_impl(3, "DETL", nullptr, 0, "f.c", 1, "none");
  ad_debug_print_pkt_impl(3, "DETL", nullptr, -1, "f.c", 1, "negative");
  ad_debug_print_pkt_impl(3, "DETL", nullptr, INT_MIN, "f.c", 1, "lowest");
  EXPECT_THAT(daemon().waiting(),
              ElementsAre(who() + ":f.c:1-> DUMP length = 0x0 (none)\n",
                          who() + ":f.c:1-> DUMP length = 0xffffffff (negative)\n",
                          who() + ":f.c:1-> DUMP length = 0x80000000 (lowest)\n"));
}

TEST_F(ad_debugDumpTest, EveryLineShapeFromOneToSixteenBytes) {
  // Literal bytes: 0x00 to 0x0f behind the offset.
  const std::string first = "0x00,0x01,0x02,0x03,0x04,0x05,0x06,0x07";
  const std::string second = "0x08,0x09,0x0a,0x0b,0x0c,0x0d,0x0e,0x0f";
  for (int len = 1; len <= 16; ++len) {
    const size_t shown = static_cast<size_t>(len) * 5 - 1;
    const std::string expected =
        len <= 8 ? first.substr(0, shown) : first + ",  " + second.substr(0, shown - 40);
    EXPECT_THAT(data(len), ElementsAre(": 0x000: " + expected + "\n")) << len;
  }
}

TEST_F(ad_debugDumpTest, NineBytesHaveTheDoubleBlankBetweenTheEighthAndTheNinth) {
  EXPECT_THAT(data(9), ElementsAre(": 0x000: 0x00,0x01,0x02,0x03,0x04,0x05,0x06,0x07,  0x08\n"));
}

TEST_F(ad_debugDumpTest, SeventeenBytesAreAFullLineAndOneOfOneValue) {
  EXPECT_THAT(data(17), ElementsAre(": 0x000: 0x00,0x01,0x02,0x03,0x04,0x05,0x06,0x07,  "
                                    "0x08,0x09,0x0a,0x0b,0x0c,0x0d,0x0e,0x0f\n",
                                    ": 0x010: 0x10\n"));
}

TEST_F(ad_debugDumpTest, BytesAreUnsigned) {
  ad_debug_print_pkt_impl(3, "DETL", "\x80\xff", 2, "f.c", 1, "d");
  EXPECT_EQ(daemon().waiting().back(), who() + ": 0x000: 0x80,0xff\n");
}

TEST_F(ad_debugDumpTest, OffsetsOf4096AndMoreHaveMoreDigits) {
  std::vector<uint8_t> bytes(0x10000 + 1, 0xab);
  // More lines than the kernel's queue holds; standard error takes them all.
  removeDaemon();
  const ChildResult child = runInChild([&] {
    ad_debug_print_pkt_impl(3, "DETL", bytes.data(), static_cast<int>(bytes.size()), "f.c", 1, "d");
  });
  EXPECT_THAT(child.err, testing::HasSubstr(": 0x0f0: 0xab"));
  EXPECT_THAT(child.err, testing::HasSubstr(": 0xff0: 0xab"));
  EXPECT_THAT(child.err, testing::HasSubstr(": 0x1000: 0xab"));
  EXPECT_THAT(child.err, testing::HasSubstr(": 0xfff0: 0xab"));
  EXPECT_THAT(child.err, testing::EndsWith(": 0x10000: 0xab\n"));
  EXPECT_EQ(std::count(child.err.begin(), child.err.end(), '\n'), 1 + 1 + 4096 + 1);
}

TEST_F(ad_debugDumpTest, WithoutAnyConfigurationNothingIsWrittenAndTheEnvironmentNotRead) {
  setenv("DEBUG_LEVEL", "3", 1);
  ad_debug_cfg_p = nullptr;
  ad_debug_print_pkt_impl(0, "CRTC", "a", 1, "f.c", 1, "d");
  AD_DUMP(0, "a", 1, "d");
  EXPECT_EQ(ad_debug_inited(), 0);
  EXPECT_THAT(daemon().waiting(), IsEmpty());
  EXPECT_THAT(takeSyslogCalls(), IsEmpty());
}

TEST_F(ad_debugDumpTest, LevelsDecideWhereADumpGoes) {
  LogListener special("/tmp/special.0");
  ad_set_special_log_path("/tmp/special");
  ad_debug_module_id = 5;
  struct {
    int level;
    int32_t configured;
    uint32_t critical_only;
    bool syslog, daemon, special;
  } const rows[] = {
      // Level 0 and below: whatever is configured.
      {-1, 0, 1, true, true, false},
      {0, 0, 1, true, true, false},
      {0, 3, 0, true, true, false},
      {0, 4, 1, true, true, true},
      // Level 1: always written, to syslog as an error line.
      {1, 0, 0, false, true, false},
      {1, 1, 1, false, true, false},
      {1, 1, 0, true, true, false},
      {1, 4, 0, true, true, true},
      // Level 2 and 3: from that level on.
      {2, 1, 0, false, false, false},
      {2, 2, 0, false, true, false},
      {3, 2, 0, false, false, false},
      {3, 3, 0, false, true, false},
      {3, 4, 0, false, true, true},
      // Level 4 and above: the special log alone, while 4 is configured.
      {4, 3, 0, false, false, false},
      {4, 4, 0, false, false, true},
      {5, 4, 0, false, false, false},
      // 4 exactly, and what nobody should configure.
      {3, 5, 0, false, true, false},
      {4, 5, 0, false, false, false},
      {0, 5, 1, true, true, false},
      {1, -1, 0, false, true, false},
      {INT_MIN, 0, 1, true, true, false},
  };
  for (const auto& row : rows) {
    ad_debug_cfg_p->ad_debug_level = row.configured;
    ad_debug_syslog_critical_msg_only = row.critical_only;
    ad_debug_print_pkt_impl(row.level, "ANYT", "a", 1, "f.c", 1, "d");
    const std::string what = "level " + std::to_string(row.level) + " configured " +
                             std::to_string(row.configured) + " critical only " +
                             std::to_string(row.critical_only);
    const std::string header = who("ANYT") + ":f.c:1-> DUMP length = 0x1 (d)\n";
    const std::string line = who("ANYT") + ": 0x000: 0x61\n";
    const std::vector<std::string> both = {header, line};
    const std::vector<std::string> none;
    EXPECT_EQ(daemon().waiting(), row.daemon ? both : none) << what;
    EXPECT_EQ(special.waiting(), row.special ? both : none) << what;
    const std::vector<SyslogCall> records = {{7, 5, 0, 100000, "", header},
                                             {7, 5, 0, 100000, "", line}};
    EXPECT_EQ(takeSyslogCalls(), row.syslog ? records : std::vector<SyslogCall>()) << what;
  }
}

TEST_F(ad_debugDumpTest, SyslogCopiesStopInSignalHandlersAndWhenSwitchedOff) {
  ad_debug_in_sighandler = 1;
  AD_DUMP(0, "a", 1, "d");
  ad_debug_in_sighandler = 0;
  ad_debug_to_syslogd = 0;
  AD_DUMP(0, "a", 1, "d");
  EXPECT_THAT(takeSyslogCalls(), IsEmpty());
  ad_debug_to_syslogd = 1;
  AD_DUMP(0, "a", 1, "d");
  EXPECT_THAT(takeSyslogCalls(), SizeIs(2));
  EXPECT_THAT(daemon().waiting(), SizeIs(6));
}

TEST_F(ad_debugDumpTest, ConnectionFilterHidesDumpsOfEveryLevel) {
  ad_debug_cfg_p->debug_target_client_ip = 1;
  ad_debug_cfg_p->debug_target_server_ip = 2;
  for (const uint32_t client : {0u, 1u, 9u}) {
    for (const uint32_t server : {0u, 2u, 9u}) {
      ad_current_client_ip = client;
      ad_current_server_ip = server;
      ad_debug_print_pkt_impl(0, "CRTC", "a", 1, "f.c", 1, "d");
      const size_t lines = client != 9 && server != 9 ? 2 : 0;
      EXPECT_THAT(daemon().waiting(), SizeIs(lines)) << client << " " << server;
      EXPECT_THAT(takeSyslogCalls(), SizeIs(lines)) << client << " " << server;
    }
  }
}

TEST_F(ad_debugDumpTest, MacroNamesItsSourceAndTheTagOfTheLevel) {
  struct {
    int level;
    const char* tag;
  } const rows[] = {{-5, "CRTC"}, {0, "CRTC"}, {1, "ERRO"},
                    {2, "TRCE"},  {3, "DETL"}, {INT_MIN, "CRTC"}};
  for (const auto& row : rows) {
    AD_DUMP(row.level, "", 0, "d");
    const std::string line = ":ad_debug_dump_test.cc:" + std::to_string(__LINE__ - 1);
    EXPECT_THAT(daemon().waiting(),
                ElementsAre(who(row.tag) + line + "-> DUMP length = 0x0 (d)\n"));
  }
}

TEST_F(ad_debugDumpTest, SuppressedMacroEvaluatesNothingButItsLevelAndThatOnce) {
  int levels = 0;
  int bufs = 0;
  int lens = 0;
  int descriptions = 0;
  configure(2);
  for (const int level : {3, 2}) {
    AD_DUMP((++levels, level), (++bufs, "a"), (++lens, 1), (++descriptions, "d"));
    const int others = level == 2 ? 1 : 0;
    EXPECT_EQ(bufs, others);
    EXPECT_EQ(lens, others);
    EXPECT_EQ(descriptions, others);
  }
  EXPECT_EQ(levels, 2);
}

TEST_F(ad_debugDumpTest, KeepsErrno) {
  removeDaemon();
  const ChildResult child = runInChild([] {
    errno = EDOM;
    AD_DUMP(3, "a", 1, "d");
    EXPECT_EQ(errno, EDOM);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
}

TEST_F(ad_debugDumpTest, OverlongTextsAreCutLikeAnyLine) {
  const std::string description(5000, 'd');
  ad_debug_print_pkt_impl(3, "DETL", "a", 1, "f.c", 1, description.c_str());
  auto lines = daemon().waiting();
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[0].size(), 4086u);
  EXPECT_EQ(lines[1], who() + ": 0x000: 0x61\n");

  const std::string tag(5000, 't');
  ad_debug_print_pkt_impl(3, tag.c_str(), "a", 1, "f.c", 1, "d");
  lines = daemon().waiting();
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[0], (who(tag)).substr(0, 4086));
  EXPECT_EQ(lines[1], (who(tag)).substr(0, 4086));

  // Room for a part of the line's own text.
  const std::string close(4086 - who("").size() - 12, 't');
  ad_debug_print_pkt_impl(3, close.c_str(), "abcdef", 6, "f.c", 1, "d");
  lines = daemon().waiting();
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[1], who(close) + ": 0x000: 0x6");
}

}  // namespace
