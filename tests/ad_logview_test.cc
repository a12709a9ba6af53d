// ad_logview as a program: which lines of a log it shows, how it shows them, and how it follows.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

using Texts = std::vector<std::string>;

constexpr char kProgram[] = VELORIN_BIN "/ad_logview";
constexpr char kLog[] = "/tmp/ad.log";

constexpr char kSample[] =
    R"(2026-03-05 14:07:31.042317 tcp_proxy(4711)TRCE:main.cc:120-> 10.0.0.7 connected
2026-03-05 14:07:31.042391[special] (4711)TRCE:main.cc:120-> 10.0.0.7 connected
2026-03-05 14:07:31.042544[malformed] no time\x01
2026-03-05 14:07:31.500000 launcher(77)ERRO:Launcher.cc:9-> fork: Cannot allocate memory
2026-03-05 14:07:32.000120[ad_logd] 17 lines lost here
2026-03-05 14:07:33.000000 (4711)DETL:connection.cc:88-> DUMP length = 0x12 (from the client)
2026-03-05 14:07:33.000001 (4711)DETL: 0x000: 0x47,0x45,0x54,0x20,0x2f,0x20,0x48,0x54,  0x54,0x50,0x2f,0x31,0x2e,0x30,0x0d,0x0a
2026-03-05 14:07:33.000002 tcp_proxy(4712)CRTC:pool.cc:7-> Malloc fail at pool.cc:7
2026-03-05 14:07:33.000003 (4711)DETL: 0x010: 0x0d,0x0a
2026-03-05 14:07:34.000000 reset special log
)";

Texts linesOf(const std::string& text) {
  std::istringstream stream(text);
  Texts lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

Texts commandLine(Texts arguments) {
  arguments.insert(arguments.begin(), kProgram);
  return arguments;
}

ChildResult view(const Texts& arguments, const Texts& environment = {}) {
  return runProgram(commandLine(arguments), environment);
}

[[noreturn]] void become(const Texts& arguments) {
  Texts texts = commandLine(arguments);
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);
  execv(kProgram, argv.data());
  perror(kProgram);
  _exit(127);
}

void append(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
}

// A line as the daemon writes it.
std::string line(const std::string& text) {
  return "2026-03-05 14:07:31.042317 p(1)TRCE:f.cc:1-> " + text + "\n";
}

class ad_logviewTest : public PrivateWorld {
 protected:
  // What is shown of a log with this text.
  static ChildResult viewOf(const std::string& text, Texts arguments = {},
                            const Texts& environment = {}) {
    write(kLog, text);
    arguments.emplace_back(kLog);
    return view(arguments, environment);
  }

  // The numbers, from 0 on, of the sample's lines that are shown.
  static std::vector<size_t> shownOfSample(const Texts& arguments) {
    const ChildResult result = viewOf(kSample, arguments);
    EXPECT_EQ(result.err, "");
    const Texts all = linesOf(kSample);
    std::vector<size_t> numbers;
    for (const std::string& shown : linesOf(result.out)) {
      const auto found = std::find(all.begin(), all.end(), shown);
      EXPECT_NE(found, all.end()) << shown;
      numbers.push_back(static_cast<size_t>(found - all.begin()));
    }
    return numbers;
  }
};

using Numbers = std::vector<size_t>;

// ---- Which lines ----

TEST_F(ad_logviewTest, ALogIsShownAsItIs) {
  const ChildResult result = viewOf(kSample);
  EXPECT_EQ(result.out, kSample);
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_logviewTest, PartsOfJsonLinesAreNotKnown) {
  const std::string log =
      "{\"time\":\"2026-03-05T14:07:31.042317+00:00\",\"tag\":\"TRCE\",\"text\":\"opened\"}\n";
  EXPECT_EQ(viewOf(log).out, log);
  EXPECT_EQ(viewOf(log, {"--text", "opened"}).exitCode(), 0);
  for (const Texts& arguments : {Texts{"-t", "TRCE"}, {"-p", "a"}, {"--since", "10m"}}) {
    const ChildResult result = viewOf(log, arguments);
    EXPECT_EQ(result.exitCode(), 2) << result;
    EXPECT_EQ(result.err,
              "ad_logview: tags, processes and times are looked for in ad_logd's text form only, "
              "not in JSON\n");
  }
}

TEST_F(ad_logviewTest, TagsSelectLines) {
  EXPECT_EQ(shownOfSample({"--tag", "ERRO"}), (Numbers{3, 4}));
  EXPECT_EQ(shownOfSample({"-t", "CRTC"}), (Numbers{4, 7}));
  EXPECT_EQ(shownOfSample({"-t", "trce"}), (Numbers{0, 1, 4}));
  EXPECT_EQ(shownOfSample({"-t", "DETL"}), (Numbers{4, 5, 6, 8}));
  EXPECT_EQ(shownOfSample({"-t", "ERRO,CRTC"}), (Numbers{3, 4, 7}));
  EXPECT_EQ(shownOfSample({"-t", "ERRO", "--tag=CRTC"}), (Numbers{3, 4, 7}));
}

TEST_F(ad_logviewTest, ALevelSelectsTheTagsThatAreWrittenAtIt) {
  EXPECT_EQ(shownOfSample({"--level", "0"}), (Numbers{3, 4, 7}));
  EXPECT_EQ(shownOfSample({"--level", "1"}), (Numbers{3, 4, 7}));
  EXPECT_EQ(shownOfSample({"--level", "2"}), (Numbers{0, 1, 3, 4, 7}));
  EXPECT_EQ(shownOfSample({"--level", "3"}), (Numbers{0, 1, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(shownOfSample({"--level", "4"}), (Numbers{0, 1, 3, 4, 5, 6, 7, 8}));
}

TEST_F(ad_logviewTest, ProcessesSelectLinesByNameNumberOrBoth) {
  EXPECT_EQ(shownOfSample({"-p", "launcher"}), (Numbers{3, 4}));
  EXPECT_EQ(shownOfSample({"--process", "77"}), (Numbers{3, 4}));
  EXPECT_EQ(shownOfSample({"-p", "tcp_proxy(4712)"}), (Numbers{4, 7}));
  EXPECT_EQ(shownOfSample({"-p", "launcher(4712)"}), (Numbers{4}));
  EXPECT_EQ(shownOfSample({"-p", "launcher", "-p", "4712"}), (Numbers{3, 4, 7}));
  EXPECT_EQ(shownOfSample({"-p", "tcp"}), (Numbers{4})) << "a part of a name is no name";
}

TEST_F(ad_logviewTest, LinesWithoutANameAreOfTheProcessThatHadTheirNumberLast) {
  EXPECT_EQ(shownOfSample({"-p", "tcp_proxy"}), (Numbers{0, 1, 4, 5, 6, 7, 8}));
  EXPECT_EQ(shownOfSample({"-p", "tcp_proxy(4711)"}), (Numbers{0, 1, 4, 5, 6, 8}));
  const std::string taken_over =
      "2026-03-05 14:07:31.000000 a(5)ERRO:f.c:1-> 1\n"
      "2026-03-05 14:07:32.000000 b(5)ERRO:f.c:1-> 2\n"
      "2026-03-05 14:07:33.000000[special] (5)ERRO:f.c:1-> 2\n";
  EXPECT_EQ(linesOf(viewOf(taken_over, {"-p", "a"}).out).size(), 1u);
  EXPECT_EQ(linesOf(viewOf(taken_over, {"-p", "b"}).out).size(), 2u);
}

TEST_F(ad_logviewTest, ANameMayBeANumberOrHaveParentheses) {
  const std::string log =
      "2026-03-05 14:07:31.000000 12(5)ERRO:f.c:1-> a\n"
      "2026-03-05 14:07:31.000000 x(12)ERRO:f.c:1-> b\n"
      "2026-03-05 14:07:31.000000 y(z)(9)(6)ERRO:f.c:1-> c\n";
  EXPECT_EQ(linesOf(viewOf(log, {"-p", "12"}).out).size(), 2u);
  EXPECT_THAT(viewOf(log, {"-p", "12(5)"}).out, EndsWith("-> a\n"));
  EXPECT_THAT(viewOf(log, {"-p", "y(z)(9)(6)"}).out, EndsWith("-> c\n"));
  EXPECT_EQ(viewOf(log, {"-p", "y"}).exitCode(), 1);
}

TEST_F(ad_logviewTest, TextsSelectLinesThatHaveAllOfThem) {
  EXPECT_EQ(shownOfSample({"--text", "10.0.0.7"}), (Numbers{0, 1}));
  EXPECT_EQ(shownOfSample({"--text", "10.0.0.7", "--text", "tcp"}), (Numbers{0}));
  EXPECT_EQ(shownOfSample({"--text", "main.cc:120"}), (Numbers{0, 1}));
  EXPECT_EQ(shownOfSample({"--text", "1.0.0.7"}), Numbers{}) << "a dot is a dot";
  EXPECT_EQ(shownOfSample({"--text", "lost"}), (Numbers{4}));
  EXPECT_EQ(shownOfSample({"--text", "14:07"}), Numbers{}) << "the time is not searched";
  EXPECT_EQ(shownOfSample({"--text", "\\x01"}), (Numbers{2}));
}

TEST_F(ad_logviewTest, ExtendedRegularExpressionsSelectLinesThatMatchAllOfThem) {
  EXPECT_EQ(shownOfSample({"--regex", "1.0.0.7"}), Numbers{});
  EXPECT_EQ(shownOfSample({"--regex", "^tcp_proxy\\("}), (Numbers{0, 7}));
  EXPECT_EQ(shownOfSample({"--regex", "(memory|here)$"}), (Numbers{3, 4}));
  EXPECT_EQ(shownOfSample({"--regex", "TRCE|CRTC", "--regex", "^t"}), (Numbers{0, 7}));
  EXPECT_EQ(shownOfSample({"--regex", "[0-9]{4}.*pool", "--text", "4712"}), (Numbers{7}));
}

TEST_F(ad_logviewTest, ADumpsDataGoWithItsHeader) {
  EXPECT_EQ(shownOfSample({"--text", "from the client"}), (Numbers{5, 6, 8}));
  EXPECT_EQ(shownOfSample({"--until", "2026-03-05 14:07:33.000000"}),
            (Numbers{0, 1, 2, 3, 4, 5, 6, 8}));
  EXPECT_EQ(shownOfSample({"--text", "0x0d,0x0a", "--since", "2026-03-05 14:07:33.000003"}),
            (Numbers{8}))
      << "a line of data can be found by itself";
  const std::string two =
      "2026-03-05 14:07:33.000000 (5)DETL:f.c:8-> DUMP length = 0x1 (first)\n"
      "2026-03-05 14:07:33.000000[special] (5)DETL:f.c:8-> DUMP length = 0x1 (second)\n"
      "2026-03-05 14:07:33.000000 (6)DETL:f.c:8-> DUMP length = 0x1 (third)\n"
      "2026-03-05 14:07:33.000000 (5)DETL: 0x000: 0x01\n"
      "2026-03-05 14:07:33.000000[special] (5)DETL: 0x000: 0x02\n"
      "2026-03-05 14:07:33.000000 (6)DETL: 0x000: 0x03\n"
      "2026-03-05 14:07:33.000000 (5)DETL: 0x000: 0x04\n";
  EXPECT_THAT(linesOf(viewOf(two, {"--text", "first"}).out),
              ElementsAre(EndsWith("(first)"), EndsWith("0x01")));
  EXPECT_THAT(linesOf(viewOf(two, {"--text", "second"}).out),
              ElementsAre(EndsWith("(second)"), EndsWith("0x02")));
  EXPECT_THAT(linesOf(viewOf(two, {"--text", "third"}).out),
              ElementsAre(EndsWith("(third)"), EndsWith("0x03")));
}

TEST_F(ad_logviewTest, MoreProcessesAndDumpsThanAreRememberedAreStillFoundByTheirOwnLines) {
  std::string log;
  for (int i = 0; i < 70000; ++i) {
    const std::string pid = "(" + std::to_string(i) + ")";
    log += "2026-03-05 14:07:31.000000 p" + pid + "DETL:f.c:1-> DUMP length = 0x1 (d)\n";
  }
  const std::string last = "2026-03-05 14:07:31.000000 (69999)DETL: 0x000: 0x01\n";
  EXPECT_TRUE(viewOf(log + last, {"-p", "p"}).out == log + last);
  EXPECT_TRUE(viewOf(log + last, {"--text", "(d)"}).out == log + last);
}

TEST_F(ad_logviewTest, EmptyDumpsAndDumpsOfNegativeLengthHaveNoData) {
  for (const std::string length : {"0x0", "0xffffffff"}) {
    const std::string log = "2026-03-05 14:07:33.000000 (5)DETL:f.c:8-> DUMP length = " + length +
                            " (d)\n2026-03-05 14:07:33.000000 (5)DETL: 0x000: 0x01\n";
    EXPECT_EQ(linesOf(viewOf(log, {"--text", "(d)"}).out).size(), 1u) << length;
  }
}

TEST_F(ad_logviewTest, ALineWithoutATimeGoesWithTheLineBeforeIt) {
  const std::string log =
      "2026-03-05 14:07:31.000000 a(5)ERRO:f.c:1-> one\n  of two lines\n"
      "2026-03-05 14:07:31.000000 b(6)ERRO:f.c:1-> two\n  of two lines\n\n"
      "(6)TRCE:f.c:1-> on standard error\n";
  EXPECT_THAT(linesOf(viewOf(log, {"-p", "a"}).out),
              ElementsAre(EndsWith("one"), "  of two lines"));
  EXPECT_THAT(linesOf(viewOf(log, {"-p", "b"}).out),
              ElementsAre(EndsWith("two"), "  of two lines", "", EndsWith("error")));
  EXPECT_THAT(linesOf(viewOf(log, {"-t", "TRCE"}).out), ElementsAre(EndsWith("error")));
}

TEST_F(ad_logviewTest, OtherTextIsJudgedLineByLine) {
  EXPECT_EQ(viewOf("one\nthree\n\ntwo\n", {"--text", "o"}).out, "one\ntwo\n");
}

TEST_F(ad_logviewTest, TextsThatLookAlmostLikeAStatementHaveNoTag) {
  for (const std::string& text : Texts{"p(1)ERRO",
                                       "p(1)ERRO:",
                                       "p(1)ERRO:f.c:1",
                                       "p(1)ERRO:f.c:-> x",
                                       "p(1)ERRO:1-> x",
                                       "p(1)ERRO::1-> x",
                                       "p()ERRO:f.c:1-> x",
                                       "p(1ERRO:f.c:1-> x",
                                       "p(99999999999)ERRO:f.c:1-> x",
                                       "p(4294967296)ERRO:f.c:1-> x",
                                       "p(1):f.c:1-> x",
                                       "p(1) ERRO:f.c:1-> x",
                                       "p(",
                                       "p(1)ERRO: 0x: 0x00",
                                       "p(1)ERRO: 0x000 0x00",
                                       "p(1)",
                                       "p(1)ERRO f.c:1-> x",
                                       "p(1)Err_2:f.c:1-> x",
                                       "p(1)" + std::string(33, 'E') + ":f.c:1-> x",

                                       "p(1)ERRO:f.c-1-> x",
                                       "p(1)ERRO:f.c-> x"}) {
    const std::string log = "2026-03-05 14:07:31.000000 " + text + "\n";
    EXPECT_EQ(viewOf(log, {"-t", "ERRO"}).exitCode(), 1) << text;
    EXPECT_EQ(viewOf(log).out, log);
  }
  for (const std::string text : {"p(1)ERRO:f.c:1-> ", "p(4294967295)ERRO:f.c:1-> x",
                                 "(p(1)ERRO:f.c:1-> x", "p q(1)ERRO:f g.c:1-> x"}) {
    const std::string log = "2026-03-05 14:07:31.000000 " + text + "\n";
    EXPECT_EQ(viewOf(log, {"-t", "ERRO"}).exitCode(), 0) << text;
  }
}

TEST_F(ad_logviewTest, LostLinesAreShownBesideWhatTagsAndProcessesSelectButAreNotFound) {
  const std::string log = "2026-03-05 14:07:32.000120[ad_logd] 17 lines lost here\n";
  const ChildResult result = viewOf(log, {"-t", "ERRO", "-p", "x"});
  EXPECT_EQ(result.out, log);
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(viewOf(log, {"-t", "ERRO", "--text", "x"}).out, "");
  EXPECT_EQ(viewOf(log, {"-t", "ERRO", "--since", "2026-03-06"}).out, "");
  EXPECT_EQ(viewOf(log, {"--text", "lost"}).exitCode(), 0);
}

// ---- Times ----

TEST_F(ad_logviewTest, TimesOfTheLogAreTakenFromTheirFront) {
  const std::string log =
      "2026-03-04 23:59:59.999999 0\n2026-03-05 00:00:00.000000 1\n"
      "2026-03-05 14:07:30.999999 2\n2026-03-05 14:07:31.000000 3\n"
      "2026-03-05 14:07:31.042317 4\n2026-03-05 14:07:31.049999 5\n"
      "2026-03-05 14:07:31.1000000 6\n2026-03-05 14:07:59.999999 7\n"
      "2026-03-05 14:08:00.000000 8\n2026-03-06 00:00:00.000000 9\n";
  const struct {
    Texts arguments;
    std::string shown;
  } cases[] = {
      {{"--since", "2026-03-05"}, "123456789"},
      {{"--since", "2026-03-05 14:07"}, "23456789"},
      {{"--since", "2026-03-05 14:07:31"}, "3456789"},
      {{"--since", "2026-03-05T14:07:31.042317"}, "456789"},
      {{"--since", "2026-03-05 14:07:31.05"}, "6789"},
      {{"--until", "2026-03-05"}, "012345678"},
      {{"--until", "2026-03-05 14:07"}, "01234567"},
      {{"--until", "2026-03-05 14:07:31"}, "012345"},
      {{"--until", "2026-03-05 14:07:31.04"}, "012345"},
      {{"--until", "2026-03-05 14:07:31.042317"}, "01234"},
      {{"--since", "2026-03-05 14:07:31", "--until", "2026-03-05 14:07:31"}, "345"},
  };
  for (const auto& each : cases) {
    std::string shown;
    for (const std::string& text : linesOf(viewOf(log, each.arguments).out)) shown += text.back();
    EXPECT_EQ(shown, each.shown) << each.arguments[0] << " " << each.arguments[1];
  }
}

TEST_F(ad_logviewTest, WhatLooksAlmostLikeATimeIsNone) {
  const std::string before = "2026-03-05 14:07:31.000000 a\n";
  const Texts since = {"--since", "2026-03-05 14:08"};
  EXPECT_EQ(viewOf(before + "2026-03-05 14:09:00.000000[special] b\n", since).exitCode(), 0);
  for (const std::string rest :
       {"00000 b", "00000000000 b", "000000", "000000b", "000000Zb", "000000[] b", "000000[special",
        "000000[special b", "000000[", "000000[special]", "000000[A] b", "000000[~] b"}) {
    EXPECT_EQ(viewOf(before + "2026-03-05 14:09:00." + rest + "\n", since).exitCode(), 1) << rest;
  }
}

TEST_F(ad_logviewTest, HeadersOfDumpsWithoutALengthAreNone) {
  for (const std::string length : {"0x (x)", "0xX (x)", "0x1", "0x1(x)"}) {
    const std::string log = "p(5)DETL:f.c:8-> DUMP length = " + length +
                            "\n(5)DETL: 0x000: 0x01\n(5)DETL: 0x000: 0x0~\n";
    EXPECT_EQ(linesOf(viewOf(log, {"--text", "DUMP"}).out).size(), 1u) << length;
  }
}

TEST_F(ad_logviewTest, TimesAreLocalOrWithAZInUtcAndSoAreThoseOfTheLog) {
  const std::string log = "2026-03-05 14:00:00.000000 local\n2026-03-05 12:00:00.000000Z utc\n";
  const Texts east = {"TZ=EAST-2"};
  for (const std::string last : {"2026-03-05 14:00:00", "2026-03-05 12:00:00Z"}) {
    EXPECT_EQ(viewOf(log, {"--since", last}, east).out, log) << last;
    EXPECT_EQ(viewOf(log, {"--until", last}, east).out, log) << last;
  }
  for (const std::string behind : {"2026-03-05 14:00:00.000001", "2026-03-05 12:00:00.000001Z"})
    EXPECT_EQ(viewOf(log, {"--since", behind}, east).exitCode(), 1) << behind;
  for (const std::string before : {"2026-03-05 13:59:59", "2026-03-05 11:59:59Z"})
    EXPECT_EQ(viewOf(log, {"--until", before}, east).exitCode(), 1) << before;
}

// The time so many seconds before now, as a line begins with it.
std::string stampOf(int64_t seconds_ago) {
  const time_t then = time(nullptr) - static_cast<time_t>(seconds_ago);
  tm parts;
  char text[64];
  const size_t size = strftime(text, sizeof text, "%F %T.000000", localtime_r(&then, &parts));
  return {text, size};
}

TEST_F(ad_logviewTest, TimesCanBeSoLongAgo) {
  const std::string log = stampOf(20 * 86400) + " a\n" + stampOf(3 * 86400) + " b\n" +
                          stampOf(5 * 3600) + " c\n" + stampOf(40 * 60) + " d\n" + stampOf(0) +
                          " e\n";
  const struct {
    const char* since;
    size_t count;
  } cases[] = {{"600s", 1},
               {"10m", 1},
               {"1h", 2},
               {"1h30m", 2},
               {"6h", 3},
               {"1d", 3},
               {"1w", 4},
               {"2w5d23h", 4},
               {"3w", 5},
               {"99999w", 5},
               {"0d1h", 2},
               {"36000s", 3},
               {"99999999999999999999w", 5}};
  for (const auto& each : cases) {
    EXPECT_EQ(linesOf(viewOf(log, {"--since", each.since}).out).size(), each.count) << each.since;
    EXPECT_EQ(linesOf(viewOf(log, {"--until", each.since}).out).size(), 5 - each.count)
        << each.since;
  }
}

TEST_F(ad_logviewTest, ATimeOfDayIsOneOfToday) {
  const std::string today = stampOf(0).substr(0, 10);
  const std::string log = stampOf(3 * 86400).substr(0, 10) + " 23:59:59.000000 old\n" + today +
                          " 00:00:00.000000 new\n";
  EXPECT_THAT(viewOf(log, {"--since", "00:00"}).out, EndsWith("new\n"));
  EXPECT_THAT(viewOf(log, {"--since", "00:00:00.000"}).out, Not(HasSubstr("old")));
}

TEST_F(ad_logviewTest, WhatIsNoTimeIsRefused) {
  for (const std::string text : {"",
                                 "x",
                                 "10",
                                 "m",
                                 "10x",
                                 "1h30",
                                 "-1h",
                                 "2026-03-05 ",
                                 "2026-02-30",
                                 "2026-13-01",
                                 "2026-00-01",
                                 "2026-3-5",
                                 "26-03-05",
                                 "24:00",
                                 "12:60",
                                 "12:00:60",
                                 "12",
                                 "12:0",
                                 "12:00:",
                                 "12:00:00.",
                                 "12:00:00.1234567",
                                 "12:00x",
                                 "2026-03-05 14",
                                 "2026-03-05x14:00",
                                 "Z"}) {
    const ChildResult result = view({"--since", text, kLog});
    EXPECT_EQ(result.exitCode(), 2) << text;
    EXPECT_EQ(result.err,
              "ad_logview: a time has the form 2026-03-05 14:07:31, 14:07, 90s or "
              "1h30m, not '" +
                  text + "'; see ad_logview --help\n");
  }
}

TEST_F(ad_logviewTest, LinesWithoutATimeHaveThatOfTheLineBefore) {
  const std::string log =
      "(5)ERRO:f.c:1-> first\n2026-03-04 00:00:00.000000 p(5)ERRO:f.c:1-> a\n"
      "(5)ERRO:f.c:1-> old\n2026-03-06 00:00:00.000000 p(5)ERRO:f.c:1-> b\n"
      "(5)ERRO:f.c:1-> new\n";
  EXPECT_THAT(linesOf(viewOf(log, {"--since", "2026-03-05"}).out),
              ElementsAre(EndsWith("first"), EndsWith("-> b"), EndsWith("new")));
}

// ---- The last lines ----

TEST_F(ad_logviewTest, TheLastLinesOfAFile) {
  std::string log;
  for (int i = 0; i < 100000; ++i) log += line(std::to_string(i));  // more than one block
  for (const size_t count : {0u, 1u, 3u, 50000u, 99999u, 100000u, 100001u}) {
    std::string expected;
    const size_t first = count < 100000 ? 100000 - count : 0;
    for (size_t i = first; i < 100000; ++i) expected += line(std::to_string(i));
    const ChildResult result = viewOf(log, {"-n", std::to_string(count)});
    EXPECT_TRUE(result.out == expected) << count << ": " << result.out.size();
    EXPECT_EQ(result.exitCode(), count == 0 ? 1 : 0);
  }
}

TEST_F(ad_logviewTest, TheLastLinesOfAFileWithoutANewlineAtItsEnd) {
  EXPECT_EQ(viewOf("a\nb\nc", {"-n1"}).out, "c\n");
  EXPECT_EQ(viewOf("a\nb\nc", {"-n2"}).out, "b\nc\n");
  EXPECT_EQ(viewOf("a\nb\nc", {"-n4"}).out, "a\nb\nc\n");
  EXPECT_EQ(viewOf("c", {"-n1"}).out, "c\n");
  EXPECT_EQ(viewOf("\n", {"-n1"}).out, "\n");
  EXPECT_EQ(viewOf("", {"-n1"}).out, "");
  EXPECT_EQ(viewOf("\n\n", {"-n1"}).out, "\n");
}

TEST_F(ad_logviewTest, TheLastLinesOfThoseThatAreSelected) {
  EXPECT_EQ(shownOfSample({"-n", "1", "-t", "TRCE"}), (Numbers{4}));
  EXPECT_EQ(shownOfSample({"--lines=2", "-t", "TRCE"}), (Numbers{1, 4}));
  EXPECT_EQ(shownOfSample({"-n", "3", "--level", "3"}), (Numbers{6, 7, 8}));
  EXPECT_EQ(shownOfSample({"-n", "100", "-t", "TRCE"}), (Numbers{0, 1, 4}));
  EXPECT_EQ(shownOfSample({"-n", "0", "-t", "TRCE"}), Numbers{});
}

TEST_F(ad_logviewTest, SeveralFilesAreOneLog) {
  write("/tmp/1", "a\nb\nc");
  write("/tmp/2", "d\ne\n");
  EXPECT_EQ(view({"/tmp/1", "/tmp/2"}).out, "a\nb\nc\nd\ne\n");
  EXPECT_EQ(view({"-n3", "/tmp/1", "/tmp/2"}).out, "c\nd\ne\n");
  EXPECT_EQ(view({"/tmp/2", "/tmp/1"}).out, "d\ne\na\nb\nc\n");
}

TEST_F(ad_logviewTest, StandardInputIsReadWithoutAFileAndForADash) {
  const std::string program = kProgram;
  write("/tmp/1", "from the file\n");
  const std::string echo = "printf 'a\\nb\\nc' | " + program;
  EXPECT_EQ(runProgram({"sh", "-c", echo}).out, "a\nb\nc\n");
  EXPECT_EQ(runProgram({"sh", "-c", echo + " -n2"}).out, "b\nc\n");
  EXPECT_EQ(runProgram({"sh", "-c", echo + " /tmp/1 -"}).out, "from the file\na\nb\nc\n");
  EXPECT_EQ(runProgram({"sh", "-c", program + " -n1 </tmp/1"}).out, "from the file\n");
}

TEST_F(ad_logviewTest, LinesFromAPipeAreShownAsTheyCome) {
  ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
  Child viewer(commandLine({"/tmp/pipe"}));
  const int fd = open("/tmp/pipe", O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(::write(fd, "one\ntw", 6), 6);
  EXPECT_TRUE(viewer.waitForOut("one\n"));
  ASSERT_EQ(::write(fd, "o\n", 2), 2);
  EXPECT_TRUE(viewer.waitForOut("two\n"));
  ASSERT_EQ(::write(fd, "three", 5), 5);
  close(fd);
  const ChildResult result = viewer.wait();
  EXPECT_EQ(result.out, "one\ntwo\nthree\n");
  EXPECT_EQ(result.exitCode(), 0);
}

// ---- Long lines ----

TEST_F(ad_logviewTest, LinesOfAnyLengthAreShownWhole) {
  for (const size_t size : {262144u, 1048575u, 1048576u, 1048577u, 1310720u, 5000001u}) {
    std::string text = line("");
    text.pop_back();
    while (text.size() < size)
      text += "\xc3\xa4";  // cut between two reads, and not escaped for that
    text += '\n';
    const std::string log = text + line("next") + text;
    EXPECT_TRUE(viewOf(log).out == log) << size;
    EXPECT_TRUE(viewOf(log, {"-p", "p"}).out == log) << size;
    EXPECT_TRUE(viewOf(log, {"--text", "next"}).out == line("next")) << size;
    EXPECT_TRUE(viewOf(log, {"-n1"}).out == text) << size;
    EXPECT_TRUE(viewOf(log, {"-n2", "-p", "p"}).out == line("next") + text) << size;
    EXPECT_TRUE(viewOf(text.substr(0, text.size() - 1)).out == text) << size;
  }
}

TEST_F(ad_logviewTest, TheLastNoLinesOfALongLineAreNone) {
  write(kLog, std::string(3000000, 'x') + "\n");
  const ChildResult result =
      runProgram({"sh", "-c", std::string("cat /tmp/ad.log | ") + kProgram + " -n0"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_logviewTest, MemoryStaysBoundedForALineWithoutAnEnd) {
  const std::string command = "ulimit -v 65536; head -c 300000000 /dev/zero | tr '\\0' x | " +
                              std::string(kProgram) + " | tail -c 1 | od -c";
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer needs more address space than a limit leaves";
#endif
  const ChildResult result = runProgram({"sh", "-c", command});
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, HasSubstr("\\n"));
}

// ---- What is shown of a line ----

TEST_F(ad_logviewTest, ControlCharactersAndWhatIsNoTextAreEscaped) {
  const struct {
    std::string text;
    std::string shown;
  } cases[] = {
      {"tab\there", "tab\there"},
      {"\x1b[2J", "\\x1b[2J"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"\r\b\a\x7f", "\\x0d\\x08\\x07\\x7f"},
      {"\\x1b as the daemon wrote it", "\\x1b as the daemon wrote it"},
      {"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80",
       "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"\xc2\x9b[2J", "\\xc2\\x9b[2J"},  // C1 in UTF-8
      {"\x9b[2J", "\\x9b[2J"},           // C1 as a byte
      {"\xc2\x80\xc2\x9f\xc2\xa0", "\\xc2\\x80\\xc2\\x9f\xc2\xa0"},
      {"\xff\xfe", "\\xff\\xfe"},
      {"\xc3", "\\xc3"},
      {"\xe2\x82", "\\xe2\\x82"},
      {"\xe2\x82z", "\\xe2\\x82z"},
      {"\xc0\xaf \xc1\x9b", "\\xc0\\xaf \\xc1\\x9b"},  // overlong
      {"\xe0\x82\x9b", "\\xe0\\x82\\x9b"},             // overlong C1
      {"\xf0\x80\x82\x9b", "\\xf0\\x80\\x82\\x9b"},    // overlong C1
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},             // surrogate
      {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // behind the last character
      {"\xf8\x88\x80\x80\x80", "\\xf8\\x88\\x80\\x80\\x80"},
      {"\xe2\x80\xae"
       "abc",
       "\\xe2\\x80\\xae"
       "abc"},  // right-to-left override
      {"\xe2\x81\xa6\xe2\x80\xa8\xd8\x9c", "\\xe2\\x81\\xa6\\xe2\\x80\\xa8\\xd8\\x9c"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(viewOf(each.text + "\n").out, each.shown + "\n");
    EXPECT_EQ(viewOf(each.text).out, each.shown + "\n");
    const ChildResult coloured = viewOf(line(each.text), {"--color=always"});
    EXPECT_THAT(coloured.out, EndsWith(":f.cc:1-> " + each.shown + "\n"));
  }
}

TEST_F(ad_logviewTest, NoByteAndNoPairOfBytesDrivesATerminal) {
  std::string log;
  for (int first = 0; first < 256; ++first)
    for (int second = 0; second < 256; ++second) {
      log += static_cast<char>(first);
      log += static_cast<char>(second);
      log += "\n";
    }
  const std::string out = viewOf(log).out;
  ASSERT_FALSE(out.empty());
  for (size_t i = 0; i < out.size(); ++i) {
    const auto byte = static_cast<unsigned char>(out[i]);
    const bool harmless = byte == '\n' || byte == '\t' || (byte >= 0x20 && byte != 0x7f);
    ASSERT_TRUE(harmless) << i;
    const auto previous = static_cast<unsigned char>(i > 0 ? out[i - 1] : '\n');
    const bool c1 = byte >= 0x80 && byte < 0xa0 && previous <= 0xc2;
    ASSERT_FALSE(c1) << i;
  }
}

TEST_F(ad_logviewTest, TimeMarksProcessAndTagAreColouredWhenAskedFor) {
  const std::string time = "\33[2m2026-03-05 14:07:31.000000\33[m";
  const std::string log = "2026-03-05 14:07:31.000000";
  const struct {
    std::string text;
    std::string shown;
  } cases[] = {
      {" p(5)ERRO:f.c:1-> m", " \33[36mp(5)\33[m\33[31mERRO\33[m:f.c:1-> m"},
      {" p(5)CRTC:f.c:1-> m", " \33[36mp(5)\33[m\33[1;31mCRTC\33[m:f.c:1-> m"},
      {" p(5)TRCE:f.c:1-> m", " \33[36mp(5)\33[m\33[32mTRCE\33[m:f.c:1-> m"},
      {" (5)DETL: 0x000: 0x01", " \33[36m(5)\33[m\33[34mDETL\33[m: 0x000: 0x01"},
      {" p(5)NOTE:f.c:1-> m", " \33[36mp(5)\33[mNOTE:f.c:1-> m"},
      {"[special][malformed] m", "\33[35m[special][malformed]\33[m m"},
      {" m", " m"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(viewOf(log + each.text + "\n", {"--color=always"}).out, time + each.shown + "\n");
    EXPECT_EQ(viewOf(log + each.text + "\n", {"--color"}).out, time + each.shown + "\n");
    EXPECT_EQ(viewOf(log + each.text + "\n", {"--color=never"}).out, log + each.text + "\n");
    EXPECT_EQ(viewOf(log + each.text + "\n", {"--color=auto"}).out, log + each.text + "\n");
  }
  EXPECT_EQ(viewOf("no time\n", {"--color"}).out, "no time\n");
}

// What the program writes to a terminal.
std::string onTerminal(const Texts& arguments, const Texts& environment) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_GE(terminal, 0) << strerror(errno);
  EXPECT_EQ(grantpt(terminal), 0);
  EXPECT_EQ(unlockpt(terminal), 0);
  const int slave = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_GE(slave, 0) << strerror(errno);
  Child viewer([&] {
    for (const char* name : {"NO_COLOR", "TERM", "LC_ALL", "LC_CTYPE", "LANG"}) unsetenv(name);
    for (const std::string& text : environment) putenv(const_cast<char*>(text.c_str()));
    dup2(slave, STDOUT_FILENO);
    become(arguments);
  });
  const ChildResult result = viewer.wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  close(slave);
  std::string text(65536, '\0');
  const ssize_t count = read(terminal, text.data(), text.size());
  EXPECT_GT(count, 0);
  close(terminal);
  text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  return text;
}

TEST_F(ad_logviewTest, ATerminalGetsColourUnlessTheEnvironmentOrTheUserDoesNotWantIt) {
  write(kLog, line("m"));
  const std::string coloured =
      "\33[2m2026-03-05 14:07:31.042317\33[m \33[36mp(1)\33[m\33[32mTRCE\33[m:f.cc:1-> m\n";
  const std::string plain = line("m");
  EXPECT_EQ(onTerminal({kLog}, {"TERM=xterm"}), coloured);
  EXPECT_EQ(onTerminal({kLog}, {"TERM=xterm", "NO_COLOR="}), coloured) << "empty is not set";
  EXPECT_EQ(onTerminal({kLog}, {"TERM=xterm", "NO_COLOR=1"}), plain);
  EXPECT_EQ(onTerminal({kLog}, {"TERM=xterm", "NO_COLOR=0"}), plain) << "any value";
  EXPECT_EQ(onTerminal({kLog}, {"TERM=dumb"}), plain);
  EXPECT_EQ(onTerminal({kLog}, {}), plain);
  EXPECT_EQ(onTerminal({"--color=never", kLog}, {"TERM=xterm"}), plain);
  EXPECT_EQ(onTerminal({"--color=always", kLog}, {"TERM=dumb", "NO_COLOR=1"}), coloured);
}

TEST_F(ad_logviewTest, ATerminalGetsOnlyTheCharactersThatItKnows) {
  write(kLog, "\xc3\x9b \xe2\x82\xac\n");  // 0x9b is a control character in ISO-8859-1
  const std::string utf8 = "\xc3\x9b \xe2\x82\xac\n";
  const std::string ascii = "\\xc3\\x9b \\xe2\\x82\\xac\n";
  EXPECT_EQ(onTerminal({kLog}, {"LANG=de_DE.UTF-8"}), utf8);
  EXPECT_EQ(onTerminal({kLog}, {"LC_ALL=C.utf8", "LANG=C"}), utf8);
  EXPECT_EQ(onTerminal({kLog}, {"LC_ALL=", "LC_CTYPE=C", "LANG=C.UTF-8"}), ascii);
  EXPECT_EQ(onTerminal({kLog}, {"LANG=de_DE.ISO-8859-1"}), ascii);
  EXPECT_EQ(onTerminal({kLog}, {}), ascii);
  EXPECT_EQ(view({kLog}, {"LC_ALL=C"}).out, utf8) << "not a terminal";
}

// ---- Following ----

class Follower : public Child {
 public:
  explicit Follower(Texts arguments = {}) : Child(commandLine(with(arguments))) {}

 private:
  static Texts with(Texts arguments) {
    arguments.insert(arguments.begin(), "-f");
    arguments.emplace_back(kLog);
    return arguments;
  }
};

// The time-out, in hexadecimal, with which a process sleeps in poll.
std::string timeoutOf(pid_t pid) {
  for (;;) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/syscall");
    std::string number;
    std::string fds;
    std::string count;
    std::string timeout;
    file >> number >> fds >> count >> timeout;
    if (!file.is_open()) return "";
    if ((number == "7" || number == "168") && count == "0x2") return timeout;  // of both widths
  }
}

TEST_F(ad_logviewTest, FollowingShowsWhatComes) {
  write(kLog, line("one"));
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  append(kLog, line("two"));
  EXPECT_TRUE(follower.waitForOut("two\n"));
  append(kLog, line("three"));
  EXPECT_TRUE(follower.waitForOut("three\n"));
  EXPECT_EQ(follower.out(), line("one") + line("two") + line("three"));
  follower.signal(SIGTERM);
  const ChildResult result = follower.wait();
  EXPECT_EQ(result.signal(), SIGTERM);
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_logviewTest, FollowingAFileOfTheWorkingDirectory) {
  write(kLog, "one\n");
  Child follower({"sh", "-c", std::string("cd /tmp && exec ") + kProgram + " -f ad.log"});
  EXPECT_TRUE(follower.waitForOut("one\n"));
  ASSERT_EQ(rename(kLog, "/tmp/ad.log.1"), 0);
  append(kLog, "two\n");
  EXPECT_TRUE(follower.waitForOut("two\n"));
}

TEST_F(ad_logviewTest, FollowingAppliesTheFilters) {
  write(kLog, line("one"));
  Follower follower({"--text", "o"});
  EXPECT_TRUE(follower.waitForOut("one\n"));
  append(kLog, line("three") + line("two"));
  EXPECT_TRUE(follower.waitForOut("two\n"));
  EXPECT_EQ(follower.out(), line("one") + line("two"));
}

TEST_F(ad_logviewTest, FollowingShowsALineWhenItIsWhole) {
  write(kLog, "one\n");
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  append(kLog, "two\nthr");  // read at once
  EXPECT_TRUE(follower.waitForOut("two\n"));
  EXPECT_EQ(follower.out(), "one\ntwo\n");
  append(kLog, "e");
  append(kLog, "e\n");
  EXPECT_TRUE(follower.waitForOut("three\n"));
  EXPECT_EQ(follower.out(), "one\ntwo\nthree\n");
}

TEST_F(ad_logviewTest, FollowingGoesOnInTheFileThatTakesTheOldOnesPlace) {
  write(kLog, "one\n");
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  for (int i = 0; i < 5; ++i) {
    const std::string number = std::to_string(i);
    append(kLog, "last " + number + "\n");
    ASSERT_EQ(rename(kLog, "/tmp/ad.log.1"), 0);
    append("/tmp/ad.log.1", "behind " + number + "\n");
    append(kLog, "first " + number + "\n");
    EXPECT_TRUE(follower.waitForOut("first " + number + "\n"));
  }
  std::string expected = "one\n";
  for (const std::string number : {"0", "1", "2", "3", "4"})
    expected += "last " + number + "\nbehind " + number + "\nfirst " + number + "\n";
  EXPECT_EQ(follower.out(), expected);
  EXPECT_EQ(follower.err(), "");
}

TEST_F(ad_logviewTest, FollowingStaysWithTheOldFileWhileTheNewOneIsEmpty) {
  write(kLog, "one\n");
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  ASSERT_EQ(rename(kLog, "/tmp/ad.log.1"), 0);
  write(kLog, "");
  append("/tmp/ad.log.1", "two\n");
  EXPECT_TRUE(follower.waitForOut("two\n"));
  append("/tmp/ad.log.1", "three\n");
  EXPECT_TRUE(follower.waitForOut("three\n"));
  append(kLog, "four\n");
  EXPECT_TRUE(follower.waitForOut("four\n"));
  append(kLog, "five\n");
  EXPECT_TRUE(follower.waitForOut("five\n"));
  EXPECT_EQ(follower.out(), "one\ntwo\nthree\nfour\nfive\n");
}

TEST_F(ad_logviewTest, FollowingEndsALineThatTheOldFileHasOnlyInPart) {
  write(kLog, "one\ntw");
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  ASSERT_EQ(rename(kLog, "/tmp/ad.log.1"), 0);
  append(kLog, "two\n");
  EXPECT_TRUE(follower.waitForOut("two\n"));
  EXPECT_EQ(follower.out(), "one\ntw\ntwo\n");
}

TEST_F(ad_logviewTest, FollowingPassesOverWhatIsNoFile) {
  write(kLog, "one\n");
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  ASSERT_EQ(rename(kLog, "/tmp/ad.log.1"), 0);
  ASSERT_EQ(mkdir(kLog, 0755), 0);
  append("/tmp/ad.log.1", "two\n");
  EXPECT_TRUE(follower.waitForOut("two\n"));
  ASSERT_EQ(rmdir(kLog), 0);
  append(kLog, "three\n");
  EXPECT_TRUE(follower.waitForOut("three\n"));
  EXPECT_EQ(follower.err(), "");
}

TEST_F(ad_logviewTest, FollowingWaitsForAFileThatWasRemoved) {
  write(kLog, "one\n");
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  ASSERT_EQ(unlink(kLog), 0);
  append(kLog, "two\n");
  EXPECT_TRUE(follower.waitForOut("two\n"));
  EXPECT_EQ(follower.err(), "");
}

TEST_F(ad_logviewTest, FollowingWaitsForAFileThatDoesNotExistYet) {
  Follower follower({"-n1"});
  EXPECT_TRUE(follower.waitForErr("ad_logview: /tmp/ad.log: does not exist yet, waiting for it\n"));
  append(kLog, "one\ntwo\n");
  EXPECT_TRUE(follower.waitForOut("one\ntwo\n"));
}

TEST_F(ad_logviewTest, FollowingWaitsForADirectoryThatDoesNotExistYet) {
  Child follower(commandLine({"-f", "/tmp/logs/ad.log"}));
  EXPECT_TRUE(follower.waitForErr("waiting for it\n"));
  EXPECT_EQ(timeoutOf(follower.pid()), "0x3e8") << "where nothing can be watched";
  ASSERT_EQ(mkdir("/tmp/logs", 0755), 0);
  append("/tmp/logs/ad.log", "one\n");
  EXPECT_TRUE(follower.waitForOut("one\n"));
}

TEST_F(ad_logviewTest, FollowingBeginsAnewInAFileThatWasCut) {
  write(kLog, "one\ntwo\nthr");
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("two\n"));
  ASSERT_EQ(truncate(kLog, 0), 0);
  EXPECT_TRUE(follower.waitForErr("ad_logview: /tmp/ad.log: was cut, showing it from its start\n"));
  append(kLog, "four\n");
  EXPECT_TRUE(follower.waitForOut("four\n"));
  EXPECT_EQ(follower.out(), "one\ntwo\nthr\nfour\n");
}

TEST_F(ad_logviewTest, FollowingSeesThatALinkLeadsToAnotherFile) {
  cover("/mnt");
  write("/mnt/1", "one\n");
  ASSERT_EQ(symlink("/mnt/1", kLog), 0);
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  ASSERT_EQ(rename("/mnt/1", "/mnt/2"), 0);
  write("/mnt/1", "two\n");
  EXPECT_TRUE(follower.waitForOut("two\n"));
}

TEST_F(ad_logviewTest, FollowingBeginsWithTheLastLines) {
  write(kLog, "one\ntwo\nthr");
  Follower one({"-n1"});
  Follower found({"-n1", "--text", "o"});
  Follower all({"-n9"});
  for (Follower* each : {&one, &found, &all}) EXPECT_TRUE(each->waitForOut("two\n"));
  append(kLog, "ee\nfour\n");
  for (Follower* each : {&one, &found, &all}) EXPECT_TRUE(each->waitForOut("four\n"));
  EXPECT_EQ(one.out(), "two\nthree\nfour\n");
  EXPECT_EQ(found.out(), "two\nfour\n");
  EXPECT_EQ(all.out(), "one\ntwo\nthree\nfour\n");
}

TEST_F(ad_logviewTest, FollowingWithoutTheLastLinesBeginsWithTheLineThatIsNotWhole) {
  for (const std::string start : {"one\nthr", "thr"}) {
    write(kLog, start);
    Follower follower({"-n0"});
    EXPECT_THAT(timeoutOf(follower.pid()), EndsWith("ffffffff"));
    append(kLog, "ee\nfour\n");
    EXPECT_TRUE(follower.waitForOut("four\n"));
    EXPECT_EQ(follower.out(), "three\nfour\n");
  }
}

TEST_F(ad_logviewTest, FollowingALongLineThatIsNotWholeGoesOnInIt) {
  const std::string half(2000000, 'x');
  write(kLog, "one\n" + half);
  Follower follower({"-n1", "--text", "x"});
  EXPECT_TRUE(follower.waitForOut(half));
  append(kLog, half + "\ntwo x\n");
  EXPECT_TRUE(follower.waitForOut("two x\n"));
  EXPECT_TRUE(follower.out() == half + half + "\ntwo x\n");
}

TEST_F(ad_logviewTest, FollowingTheLastLinesThatAreSelectedGoesOnInTheLongOne) {
  const std::string part(3000000, 'o');
  write(kLog, "one\ntwo\nthree\n" + part);
  Follower follower({"-n2", "--text", "o"});
  EXPECT_TRUE(follower.waitForOut(part));
  append(kLog, "x\n");
  EXPECT_TRUE(follower.waitForOut("x\n"));
  EXPECT_EQ(follower.out(), "two\n" + part + "x\n");
}

TEST_F(ad_logviewTest, TheLastOfSeveralFilesIsFollowed) {
  write("/tmp/1", "one\n");
  write(kLog, "two\n");
  Follower follower({"/tmp/1"});
  EXPECT_TRUE(follower.waitForOut("one\ntwo\n"));
  append("/tmp/1", "nothing\n");
  append(kLog, "three\n");
  EXPECT_TRUE(follower.waitForOut("three\n"));
  EXPECT_EQ(follower.out(), "one\ntwo\nthree\n");
}

TEST_F(ad_logviewTest, FollowingSleepsUntilSomethingChanges) {
  write(kLog, "one\n");
  Follower follower;
  EXPECT_TRUE(follower.waitForOut("one\n"));
  EXPECT_THAT(timeoutOf(follower.pid()), EndsWith("ffffffff"));
  ASSERT_EQ(symlink(kLog, "/tmp/link"), 0);
  Child link(commandLine({"-f", "/tmp/link"}));
  EXPECT_TRUE(link.waitForOut("one\n"));
  EXPECT_EQ(timeoutOf(link.pid()), "0x3e8") << "where a link leads is looked up each second";
}

TEST_F(ad_logviewTest, FollowingEndsWhenNobodyReads) {
  write(kLog, "one\ntwo\n");
  const ChildResult result = runProgram(
      {"bash", "-c", std::string(kProgram) + " -f /tmp/ad.log | head -n1; echo $PIPESTATUS"});
  EXPECT_EQ(result.out, "one\n0\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_logviewTest, WhatCannotBeFollowedIsRefused) {
  ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
  const ChildResult pipe = view({"-f", "/tmp/pipe"});
  EXPECT_EQ(pipe.exitCode(), 2);
  EXPECT_EQ(pipe.err, "ad_logview: /tmp/pipe: is no regular file and cannot be followed\n");
  EXPECT_EQ(view({"-f", "/tmp"}).err,
            "ad_logview: /tmp: is no regular file and cannot be followed\n");
  write(kLog, "a\n");
  const ChildResult below = view({"-f", "/tmp/ad.log/below"});
  EXPECT_EQ(below.exitCode(), 2);
  EXPECT_EQ(below.err, "ad_logview: /tmp/ad.log/below: Not a directory\n");
  const ChildResult input = view({"-f"});
  EXPECT_EQ(input.exitCode(), 2);
  EXPECT_EQ(input.err,
            "ad_logview: --follow needs a file: standard input is read to its end in any "
            "case; see ad_logview --help\n");
  EXPECT_EQ(view({"-f", "--until", "12:00", kLog}).err,
            "ad_logview: --follow and --until exclude each other; see ad_logview --help\n");
}

// ---- How it ends ----

TEST_F(ad_logviewTest, ExitStatusTellsWhetherThereAreLines) {
  EXPECT_EQ(viewOf("a\n", {"--text", "a"}).exitCode(), 0);
  EXPECT_EQ(viewOf("a\n", {"--text", "b"}).exitCode(), 1);
  EXPECT_EQ(viewOf("").exitCode(), 1);
  EXPECT_EQ(view({"/tmp/none"}).exitCode(), 2);
}

TEST_F(ad_logviewTest, AFileThatCannotBeReadIsNamedAndTheOthersAreShown) {
  write(kLog, "a\n");
  const ChildResult result = view({"/tmp/none\33", "/tmp", kLog});
  EXPECT_EQ(result.out, "a\n");
  EXPECT_EQ(result.err,
            "ad_logview: /tmp/none\\x1b: No such file or directory\n"
            "ad_logview: /tmp: Is a directory\n");
  EXPECT_EQ(result.exitCode(), 2);
}

TEST_F(ad_logviewTest, AFileThatIsTheOutputIsNotRead) {
  write(kLog, "a\n");
  for (const std::string how : {" /tmp/ad.log >>/tmp/ad.log", " -f /tmp/ad.log >>/tmp/ad.log",
                                " </tmp/ad.log >>/tmp/ad.log"}) {
    const ChildResult result = runProgram({"sh", "-c", kProgram + how});
    EXPECT_EQ(result.exitCode(), 2) << how;
    EXPECT_THAT(result.err, EndsWith(": is what standard output is written to\n")) << how;
    EXPECT_EQ(read(kLog), "a\n");
  }
}

TEST_F(ad_logviewTest, AReaderThatGoesEndsItQuietly) {
  std::string log;
  for (int i = 0; i < 100000; ++i) log += line(std::to_string(i));
  write(kLog, log);
  const std::string command = std::string(kProgram) + " /tmp/ad.log | head -n1; echo $PIPESTATUS";
  const ChildResult result = runProgram({"bash", "-c", command});
  EXPECT_EQ(result.out, line("0") + "0\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_logviewTest, OutputThatCannotBeWrittenIsTrouble) {
  write(kLog, "a\n");
  const ChildResult result =
      runProgram({"sh", "-c", std::string(kProgram) + " /tmp/ad.log >/dev/full"});
  EXPECT_EQ(result.err, "ad_logview: standard output: No space left on device\n");
  EXPECT_EQ(result.exitCode(), 2);
}

TEST_F(ad_logviewTest, OutputThatDoesNotBlockIsWaitedFor) {
  std::string log;
  for (int i = 0; i < 20000; ++i) log += line(std::to_string(i));
  write(kLog, log);
  Child viewer([] {
    fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
    become({kLog});
  });
  EXPECT_TRUE(viewer.wait().out == log);
}

TEST_F(ad_logviewTest, WrongUsageIsRefused) {
  const struct {
    Texts arguments;
    std::string message;
  } cases[] = {
      {{"-t", "ERROR"}, "a tag is ERRO, CRTC, TRCE or DETL, not 'ERROR'"},
      {{"-t", "ERRO,"}, "a tag is ERRO, CRTC, TRCE or DETL, not ''"},
      {{"--level", "5"}, "the level is a number from 0 to 4, not '5'"},
      {{"--level", ""}, "the level is a number from 0 to 4, not ''"},
      {{"--level", "2", "-t", "ERRO"}, "--tag and --level exclude each other"},
      {{"-p", ""}, "the process has no name"},
      {{"-n", "x"}, "a number of lines is wanted, not 'x'"},
      {{"-n", "-1"}, "a number of lines is wanted, not '-1'"},
      {{"-n", "4294967296"}, "a number of lines is wanted, not '4294967296'"},
      {{"--color=red\33"}, "colour is wanted always, never or auto, not 'red\\x1b'"},
      {{"--regex", "("}, "'(' is no regular expression: Unmatched ( or \\("},
  };
  for (const auto& each : cases) {
    const ChildResult result = view(each.arguments);
    EXPECT_EQ(result.exitCode(), 2) << each.message;
    EXPECT_EQ(result.err, "ad_logview: " + each.message + "; see ad_logview --help\n");
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(view({"--none"}).exitCode(), 2);
}

TEST_F(ad_logviewTest, HelpAndVersionAreShown) {
  const ChildResult help = view({"--help"});
  EXPECT_EQ(help.exitCode(), 0);
  EXPECT_THAT(help.out, StartsWith("Usage: ad_logview [OPTION]... [FILE]...\n"));
  const ChildResult version = view({"--version"});
  EXPECT_EQ(version.exitCode(), 0);
  EXPECT_THAT(version.out, testing::MatchesRegex("ad_logview [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

}  // namespace
