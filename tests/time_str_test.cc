// HTTP dates and the date command's: written and read, against the system's own calendar.
#include "velorin/time_str"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/guarded.h"

namespace {

constexpr bool kWideTime = sizeof(time_t) == 8;
constexpr time_t kDay = 86400;
constexpr time_t kLastDay = 24854;  // 2038-01-18, in days from 1970
constexpr time_t kSample = 784111777;
constexpr size_t kLongest = 16384;  // of the texts that are read

time_t http(const std::string& text) {
  static Guarded guarded(kLongest);
  char* const str = guarded.take(text + '\0');
  const time_t t = parse_http_time(str);
  EXPECT_STREQ(str, text.c_str());
  return t;
}

time_t dateCommand(const std::string& text) {
  static Guarded guarded(kLongest);
  char* const str = guarded.take(text + '\0');
  const time_t t = parse_unix_time(str);
  EXPECT_STREQ(str, text.c_str());
  return t;
}

// The peer: any format, two-digit years too.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string formatted(const tm& t, const char* format) {
  char text[128];
  return std::string(text, strftime(text, sizeof text, format, &t));
}
#pragma GCC diagnostic pop

tm brokenDown(time_t t) {
  tm broken_down = {};
  EXPECT_NE(gmtime_r(&t, &broken_down), nullptr) << t;
  return broken_down;
}

std::string gmt(time_t t) {
  char text[64];
  EXPECT_EQ(get_gmt_time_str(t, text), text);
  return text;
}

std::string local(time_t t) {
  char text[64];
  EXPECT_EQ(get_local_time_str(t, text), text);
  return text;
}

// A failure tells which texts are read wrongly, with all that was expected.
struct Reading {
  const char* text;
  time_t expected;
};

void expectHttp(const std::vector<Reading>& readings) {
  for (const Reading& r : readings) EXPECT_EQ(http(r.text), r.expected) << r.text;
}

// ---- Data ----

TEST(time_strTest, TheNamesAreInTheOrderOfStructTm) {
  tm t = {};
  for (int i = 0; i < 7; ++i) {
    t.tm_wday = i;
    EXPECT_EQ(wkdays[i], formatted(t, "%a"));
  }
  for (int i = 0; i < 12; ++i) {
    t.tm_mon = i;
    EXPECT_EQ(month_names[i], formatted(t, "%b"));
  }
}

// ---- Writing ----

class time_strZoneTest : public testing::Test {
 protected:
  ~time_strZoneTest() override { (void)unsetenv("TZ"); }
};

TEST(time_strTest, TheGmtTextIsRfc1123) {
  EXPECT_EQ(gmt(0), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(gmt(kSample), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(gmt(951782400), "Tue, 29 Feb 2000 00:00:00 GMT");
  EXPECT_EQ(gmt(951868799), "Tue, 29 Feb 2000 23:59:59 GMT");
  EXPECT_EQ(gmt(INT32_MAX), "Tue, 19 Jan 2038 03:14:07 GMT");
  EXPECT_EQ(gmt(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
  EXPECT_EQ(gmt(INT32_MIN), "Fri, 13 Dec 1901 20:45:52 GMT");
}

TEST_F(time_strZoneTest, TheGmtTextDoesNotDependOnTheZone) {
  ASSERT_EQ(setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1), 0);
  EXPECT_EQ(gmt(kSample), "Sun, 06 Nov 1994 08:49:37 GMT");
}

// A zone of a file made here, with the leap second of 1972 and no other.
class time_strLeapSecondTest : public time_strZoneTest {
 protected:
  time_strLeapSecondTest() {
    folder_ = testing::TempDir() + "time_str_test.XXXXXX";
    if (mkdtemp(folder_.data()) == nullptr) abort();
    std::ofstream(folder_ + "/zone") << "Zone Leaping 0 - UTC\n";
    std::ofstream(folder_ + "/leaps") << "Leap 1972 Jun 30 23:59:60 + S\n";
    const ChildResult zic =
        runProgram({"/usr/sbin/zic", "-d", folder_, "-L", folder_ + "/leaps", folder_ + "/zone"});
    EXPECT_EQ(zic.exitCode(), 0) << zic;
    (void)setenv("TZ", (":" + folder_ + "/Leaping").c_str(), 1);
    tzset();
  }
  ~time_strLeapSecondTest() override {
    (void)setenv("TZ", "UTC0", 1);
    tzset();
    std::filesystem::remove_all(folder_);
  }

 private:
  std::string folder_;
};

TEST_F(time_strLeapSecondTest, TheGmtTextHasNoLeapSecondsWhereGmtimeHas) {
  EXPECT_EQ(formatted(brokenDown(kSample), "%H:%M:%S"), "08:49:36");
  EXPECT_EQ(gmt(kSample), "Sun, 06 Nov 1994 08:49:37 GMT");
  // Times that are written the slow way do not differ from the others.
  EXPECT_EQ(gmt(INT32_MIN), "Fri, 13 Dec 1901 20:45:52 GMT");
  if constexpr (kWideTime) {
    EXPECT_EQ(formatted(brokenDown(static_cast<time_t>(253402300800)), "%H:%M:%S"), "23:59:59");
    EXPECT_EQ(gmt(static_cast<time_t>(253402300799)), "Fri, 31 Dec 9999 23:59:59 GMT");
    EXPECT_EQ(gmt(static_cast<time_t>(253402300800)), "Sat, 01 Jan 10000 00:00:00 GMT");
  }
}

TEST_F(time_strLeapSecondTest, TheLocalTextHasThemAsLocaltimeHas) {
  EXPECT_EQ(local(kSample), "Sun, 06 Nov 1994 08:49:36");
  EXPECT_EQ(local(78796800), "Fri, 30 Jun 1972 23:59:60");
}

TEST_F(time_strLeapSecondTest, TheParsersCountNone) {
  EXPECT_EQ(http("Sun, 06 Nov 1994 08:49:37 GMT"), kSample);
  EXPECT_EQ(dateCommand("Sun Nov  6 08:49:37 GMT 1994"), kSample);
}

TEST(time_strTest, RandomTimesOfAllYearsAreWrittenAsTheSystemDoes) {
  std::mt19937_64 random(4711);
  for (int i = 0; i < 20000; ++i) {
    // All magnitudes alike, both signs.
    const auto t = static_cast<time_t>(static_cast<int64_t>(random()) >> random() % 64);
    tm broken_down;
    const bool representable = gmtime_r(&t, &broken_down) != nullptr;
    // strftime would pad the year, and tm_year + 1900 may not fit its int.
    const std::string expected = representable
                                     ? formatted(broken_down, "%a, %d %b ") +
                                           std::to_string(int64_t{broken_down.tm_year} + 1900) +
                                           formatted(broken_down, " %H:%M:%S GMT")
                                     : "";
    ASSERT_EQ(gmt(t), expected) << t;
  }
}

TEST(time_strTest, EveryDayOf32BitsIsWrittenAsTheSystemDoes) {
  std::mt19937 random(4711);
  for (int64_t day = INT32_MIN / kDay - 1; day <= INT32_MAX / kDay; ++day) {
    const int64_t of_day[] = {0, kDay - 1, static_cast<int64_t>(random() % kDay)};
    for (const int64_t second : of_day) {
      const int64_t t = day * kDay + second;
      if (t < INT32_MIN || t > INT32_MAX) continue;
      const auto now = static_cast<time_t>(t);
      ASSERT_EQ(gmt(now), formatted(brokenDown(now), "%a, %d %b %Y %H:%M:%S GMT")) << t;
    }
  }
}

TEST(time_strTest, SlowEveryDayOfTheYears1To10000IsWrittenAsTheSystemDoes) {
  if constexpr (kWideTime) {
    for (int64_t day = -719162; day <= 2933262; ++day) {
      const auto t = static_cast<time_t>(day * kDay + (day * 7919 % kDay + kDay) % kDay);
      ASSERT_EQ(gmt(t), formatted(brokenDown(t), "%a, %d %b %Y %H:%M:%S GMT")) << day;
    }
  } else {
    // There are no such times: those that there are begin and end here.
    EXPECT_EQ(gmt(std::numeric_limits<time_t>::min()), "Fri, 13 Dec 1901 20:45:52 GMT");
    EXPECT_EQ(gmt(std::numeric_limits<time_t>::max()), "Tue, 19 Jan 2038 03:14:07 GMT");
  }
}

TEST(time_strTest, YearsHaveTheDigitsTheyNeed) {
  // As literals of 64 bits, so that both targets compile them.
  const struct {
    int64_t t;
    const char* expected;
  } years[] = {
      {-62135596800, "Mon, 01 Jan 1 00:00:00 GMT"},
      {-62167219200, "Sat, 01 Jan 0 00:00:00 GMT"},
      {-62167219201, "Fri, 31 Dec -1 23:59:59 GMT"},
      {-30610224001, "Tue, 31 Dec 999 23:59:59 GMT"},
      {-30610224000, "Wed, 01 Jan 1000 00:00:00 GMT"},
      {253402300799, "Fri, 31 Dec 9999 23:59:59 GMT"},
      {253402300800, "Sat, 01 Jan 10000 00:00:00 GMT"},
      {67768036191676799, "Wed, 31 Dec 2147485547 23:59:59 GMT"},
      {-67768040609740800, "Thu, 01 Jan -2147481748 00:00:00 GMT"},
  };
  for (const auto& year : years) {
    const auto t = static_cast<time_t>(year.t);
    if (t != year.t) continue;  // not with 32 bits
    EXPECT_EQ(gmt(t), year.expected);
  }
}

TEST_F(time_strZoneTest, AYearThatStructTmCannotHoldIsEmpty) {
  ASSERT_EQ(setenv("TZ", "UTC0", 1), 0);
  const time_t first = std::numeric_limits<time_t>::min();
  const time_t last = std::numeric_limits<time_t>::max();
  EXPECT_EQ(gmt(first), kWideTime ? "" : "Fri, 13 Dec 1901 20:45:52 GMT");
  EXPECT_EQ(gmt(last), kWideTime ? "" : "Tue, 19 Jan 2038 03:14:07 GMT");
  EXPECT_EQ(local(first), kWideTime ? "" : "Fri, 13 Dec 1901 20:45:52");
  EXPECT_EQ(local(last), kWideTime ? "" : "Tue, 19 Jan 2038 03:14:07");
}

TEST_F(time_strZoneTest, TheLocalTextFollowsAChangedZone) {
  const time_t winter = 1700000000, summer = 1690000000;
  for (const char* zone : {"EST5EDT,M3.2.0,M11.1.0", "CET-1CEST,M3.5.0,M10.5.0/3", "UTC0", "",
                           "nonsense", "<+0530>-5:30", "EST5EDT,M3.2.0,M11.1.0"}) {
    ASSERT_EQ(setenv("TZ", zone, 1), 0);
    const std::string texts[] = {local(winter), local(summer)};
    EXPECT_EQ(texts[0], formatted(*localtime(&winter), "%a, %d %b %Y %H:%M:%S")) << zone;
    EXPECT_EQ(texts[1], formatted(*localtime(&summer), "%a, %d %b %Y %H:%M:%S")) << zone;
  }
  EXPECT_EQ(local(winter), "Tue, 14 Nov 2023 17:13:20");
  EXPECT_EQ(local(summer), "Sat, 22 Jul 2023 00:26:40");
  ASSERT_EQ(unsetenv("TZ"), 0);
  const std::string unset = local(winter);
  EXPECT_EQ(unset, formatted(*localtime(&winter), "%a, %d %b %Y %H:%M:%S"));
  ASSERT_EQ(setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1), 0);
  EXPECT_EQ(local(summer), "Sat, 22 Jul 2023 06:26:40");
}

TEST_F(time_strZoneTest, RandomLocalTimesAreAsTheSystems) {
  ASSERT_EQ(setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1), 0);
  std::mt19937_64 random(4711);
  for (int i = 0; i < 20000; ++i) {
    const time_t t = static_cast<int32_t>(random());
    const std::string text = local(t);
    ASSERT_EQ(text, formatted(*localtime(&t), "%a, %d %b %Y %H:%M:%S")) << t;
  }
}

// Writes the text into a buffer of other bytes. Returns: how many were written.
template <class Write>
size_t touched(Write write) {
  size_t most = 0;
  for (const char fill : {'\x55', '\0', ' '}) {
    char buf[64];
    memset(buf, fill, sizeof buf);
    write(buf);
    for (size_t i = 0; i < sizeof buf; ++i)
      if (buf[i] != fill) most = std::max(most, i + 1);
  }
  return most;
}

TEST_F(time_strZoneTest, NothingBehindTheTextIsTouched) {
  ASSERT_EQ(setenv("TZ", "UTC0", 1), 0);
  for (const time_t t : {time_t{0}, kSample, time_t{INT32_MIN}, time_t{INT32_MAX}}) {
    EXPECT_EQ(touched([t](char* buf) { get_gmt_time_str(t, buf); }), 30u);
    EXPECT_EQ(touched([t](char* buf) { get_local_time_str(t, buf); }), 26u);
  }
  if constexpr (kWideTime) {
    const auto longest = static_cast<time_t>(-67768040609740800);
    EXPECT_EQ(touched([=](char* buf) { get_gmt_time_str(longest, buf); }), 37u);
    EXPECT_EQ(touched([=](char* buf) { get_local_time_str(longest, buf); }), 33u);
    const time_t none = std::numeric_limits<time_t>::max();
    EXPECT_EQ(touched([=](char* buf) { get_gmt_time_str(none, buf); }), 1u);
    EXPECT_EQ(touched([=](char* buf) { get_local_time_str(none, buf); }), 1u);
  }
}

// ---- Reading HTTP dates ----

TEST(parse_http_timeTest, TheThreeFormsAreRead) {
  expectHttp({
      {"Sun, 06 Nov 1994 08:49:37 GMT", kSample},
      {"Sunday, 06-Nov-94 08:49:37 GMT", kSample},
      {"Sunday, 06-Nov-1994 08:49:37 GMT", kSample},
      {"Sun Nov  6 08:49:37 1994", kSample},
      {"Sun Nov 06 08:49:37 1994", kSample},
  });
}

TEST(parse_http_timeTest, EveryDayUpTo2038IsAsTimegmHasIt) {
  std::mt19937 random(4711);
  for (time_t day = 0; day <= kLastDay; ++day) {
    tm t = brokenDown(day * kDay + static_cast<time_t>(random() % kDay));
    const time_t expected = timegm(&t);
    ASSERT_EQ(http(formatted(t, "%a, %d %b %Y %H:%M:%S GMT")), expected);
    ASSERT_EQ(http(formatted(t, "%A, %d-%b-%Y %H:%M:%S GMT")), expected);
    ASSERT_EQ(http(formatted(t, "%A, %d-%b-%y %H:%M:%S GMT")), expected);
    ASSERT_EQ(http(formatted(t, "%a %b %e %H:%M:%S %Y")), expected);
    ASSERT_EQ(http(gmt(expected)), expected);
  }
}

TEST(parse_http_timeTest, EverySecondOfADayIsRead) {
  for (time_t second = 0; second < kDay; ++second) ASSERT_EQ(http(gmt(second)), second);
}

TEST(parse_http_timeTest, TwoDigitsMeanTheYears1970To2069) {
  expectHttp({
      {"Thursday, 01-Jan-70 00:00:00 GMT", 0},
      {"Friday, 31-Dec-99 23:59:59 GMT", 946684799},
      {"Saturday, 01-Jan-00 00:00:00 GMT", 946684800},
      {"Thursday, 01-Jan-37 00:00:00 GMT", 2114380800},
      {"Monday, 18-Jan-38 23:59:59 GMT", 2147471999},
      {"Tuesday, 19-Jan-38 00:00:00 GMT", -1},
      {"Tuesday, 01-Jan-69 00:00:00 GMT", -1},  // of 2069
  });
}

TEST(parse_http_timeTest, KeptTheLastDayIs18January2038) {
  expectHttp({
      {"Mon, 18 Jan 2038 23:59:59 GMT", 2147471999},
      {"Tue, 19 Jan 2038 00:00:00 GMT", -1},
      {"Mon, 01 Feb 2038 00:00:00 GMT", -1},
      {"Fri, 31 Dec 2038 00:00:00 GMT", -1},
      {"Sat, 01 Jan 2039 00:00:00 GMT", -1},
      {"Mon Jan 18 23:59:59 2038", 2147471999},
      {"Tue Jan 19 00:00:00 2038", -1},
      {"Fri, 31 Dec 9999 23:59:59 GMT", -1},
  });
}

TEST(parse_http_timeTest, TimesBefore1970AreRefused) {
  expectHttp({
      {"Thu, 01 Jan 1970 00:00:00 GMT", 0},
      {"Wed, 31 Dec 1969 23:59:59 GMT", -1},
      {"Wednesday, 31-Dec-1969 23:59:59 GMT", -1},
      {"Wed Jan  1 00:00:00 1969", -1},
      {"Sat, 01 Jan 0000 00:00:00 GMT", -1},
  });
}

TEST(parse_http_timeTest, FieldsOutOfRangeAreRefused) {
  expectHttp({
      {"Sun, 06 Foo 1994 08:49:37 GMT", -1},
      {"Sun, 06 Nov 1994 24:49:37 GMT", -1},
      {"Sun, 06 Nov 1994 08:60:37 GMT", -1},
      {"Sun, 06 Nov 1994 08:49:60 GMT", -1},
      {"Sun, 00 Nov 1994 08:49:37 GMT", -1},
      {"Sun, 32 Nov 1994 08:49:37 GMT", -1},
      {"Sun, -1 Nov 1994 08:49:37 GMT", 783679777},  // a dash is no digit: 1
      {"Sun Foo  6 08:49:37 1994", -1},
      {"Sun Nov  0 08:49:37 1994", -1},
      {"Sun Nov  6 24:00:00 1994", -1},
  });
}

TEST(parse_http_timeTest, KeptADayThatTheMonthDoesNotHaveCountsOn) {
  EXPECT_EQ(http("Wed, 31 Feb 1999 00:00:00 GMT"), http("Wed, 03 Mar 1999 00:00:00 GMT"));
  EXPECT_EQ(http("Wed, 31 Apr 1999 00:00:00 GMT"), http("Sat, 01 May 1999 00:00:00 GMT"));
  EXPECT_EQ(http("Tue, 30 Feb 2000 00:00:00 GMT"), http("Wed, 01 Mar 2000 00:00:00 GMT"));
  EXPECT_EQ(http("Wed, 03 Mar 1999 00:00:00 GMT"), 920419200);
}

TEST(parse_http_timeTest, KeptOnlyTheFirstCharacterOfANumberMustBeADigit) {
  expectHttp({
      {"Sun,  6 Nov 1994 08:49:37 GMT", -1},        // the spaces behind the comma go together
      {"Sunday, x6-Nov-94 08:49:37 GMT", kSample},  // anything but a digit counts as none
      {"Sun Nov x6 x8:49:37 1994", kSample},
      {"Sun, 06 Nov 1994 08:49:3: GMT", kSample + 3},  // ':' lies ten behind '0'
      {"Sun, 06 Nov 1994 08:49:3/ GMT", kSample - 8},  // '/' one before it
      {"Sun, 06 Nov 1994 0\xFF:49:37 GMT", -1},
      {"Sun, 06 Nov 1994 08:49:\x80\x80 GMT", -1},
  });
}

TEST(parse_http_timeTest, WeekdaySeparatorsAndZoneAreNotLookedAt) {
  expectHttp({
      {"Mon, 06 Nov 1994 08:49:37 GMT", kSample},
      {", 06 Nov 1994 08:49:37 GMT", kSample},
      {"Sun,06 Nov 1994 08:49:37 GMT", kSample},
      {"Sun,      06 Nov 1994 08:49:37 GMT", kSample},
      {"Sun, 06xNovx1994x08x49x37xGMT", kSample},
      {"Sun, 06 Nov 1994 08:49:37", kSample},
      {"Sun, 06 Nov 1994 08:49:37 PST and more", kSample},
      {"Sun, 06 Nov 1994 08:49:37 -0800", kSample},
      {"Sunday, 06-Nov-94 08x49x37", kSample},
      {"xxxxNovx06x08x49x37x1994", kSample},
      {"   Sun Nov  6 08:49:37 1994", kSample},
      {"Sun Nov  6 08:49:37 1994 and more", kSample},
  });
}

TEST(parse_http_timeTest, KeptTheFirstCommaEndsTheWeekday) {
  expectHttp({
      {"Sun, Mon, 06 Nov 1994 08:49:37 GMT", -1},
      {"Sun Nov  6 08:49:37 1994, Sunday", -1},
      {"Sun Nov  6 08:49:37 1994, 06 Nov 1994 08:49:37 GMT", kSample},
      {"Sun, 06 Nov 1994 08:49:37 GMT, or later", kSample},
  });
}

TEST(parse_http_timeTest, KeptADashAnywhereMeansRfc850) {
  expectHttp({
      {"Sun, 06 Nov 94 08:49:37", -1},  // too short, and no year of four digits
      {"Sun, 06 Nov 94 08:49:37 GMT", -1},
      {"Sun, 06 Nov 94 08:49:37 -0800", kSample},
      {"A-B, 06 Nov 94 08:49:37 GMT", -1},  // only behind the comma
  });
}

TEST(parse_http_timeTest, AMonthIsItsFirstThreeLettersInAnyCase) {
  for (int month = 0; month < 12; ++month) {
    std::string name = month_names[month];
    char expected_text[40];
    snprintf(expected_text, sizeof expected_text, "x, 01 %s 1990 00:00:00 GMT", name.c_str());
    const time_t expected = http(expected_text);
    tm t = {};
    t.tm_year = 90;
    t.tm_mon = month;
    t.tm_mday = 1;
    ASSERT_EQ(expected, timegm(&t));
    for (size_t i = 0; i < 3; ++i) {
      for (int byte = 1; byte <= 0xFF; ++byte) {
        std::string other = name;
        other[i] = static_cast<char>(byte);
        if (other == "Jul" || other == "Jun" || other == "Mar" || other == "May") continue;
        const bool same = strcasecmp(other.c_str(), name.c_str()) == 0;
        const bool known =
            strcasecmp(other.c_str(), "jun") == 0 || strcasecmp(other.c_str(), "jul") == 0 ||
            strcasecmp(other.c_str(), "jan") == 0 || strcasecmp(other.c_str(), "mar") == 0 ||
            strcasecmp(other.c_str(), "may") == 0;
        if (known && !same) continue;
        EXPECT_EQ(http("x, 01 " + other + " 1990 00:00:00 GMT"), same ? expected : -1)
            << other << " for " << name;
      }
    }
  }
  expectHttp({
      {"Sun, 06 NOV 1994 08:49:37 GMT", kSample},
      {"Sun, 06 nOv 1994 08:49:37 GMT", kSample},
      {"Tue, 01 MAYBE94 08:49:37 GMT", -1},
      {"Sunday, 06 MAYB1994 08:49:37 GMT", 768214177},
  });
}

TEST(parse_http_timeTest, ShortTextsAreRefusedWithoutReadingOn) {
  const struct {
    const char* text;
    size_t needed;  // characters
  } forms[] = {
      {"Sun, 06 Nov 1994 08:49:37", 25},     {"Sunday, 06-Nov-94 08:49:37", 26},
      {"Sunday, 06-Nov-1994 08:49:37", 28},  {"Sun Nov  6 08:49:37 1994", 24},
      {"     Sun Nov  6 08:49:37 1994", 29},
  };
  for (const auto& form : forms) {
    const std::string text = form.text;
    ASSERT_EQ(text.size(), form.needed);
    EXPECT_EQ(http(text), kSample) << text;
    for (size_t length = 0; length < text.size(); ++length)
      EXPECT_EQ(http(text.substr(0, length)), -1) << text.substr(0, length);
  }
  expectHttp({{"", -1}, {",", -1}, {"-", -1}, {"    ", -1}, {"Sun,    ", -1}});
}

TEST(parse_http_timeTest, LongTextsAreReadToTheirEnd) {
  const std::string many(5000, 'x');
  EXPECT_EQ(http(many), -1);
  EXPECT_EQ(http(many + ", 06 Nov 1994 08:49:37 GMT"), kSample);
  EXPECT_EQ(http("Sun, 06 Nov 94 08:49:37 " + many + "-"), kSample);
  EXPECT_EQ(http("Sun Nov  6 08:49:37 1994 " + many), kSample);
  EXPECT_EQ(http("Sun Nov  6 08:49:37 1994 " + many + ","), -1);
}

// ---- Reading the date command's dates ----

TEST(parse_unix_timeTest, TheZoneIsIgnored) {
  EXPECT_EQ(dateCommand("Wed Jun 30 21:49:08 PDT 1993"), 741476948);
  EXPECT_EQ(dateCommand("Wed Jun 30 21:49:08 UTC 1993"), 741476948);
  EXPECT_EQ(dateCommand("  Wed Jun 30 21:49:08 ??? 1993 and more"), 741476948);
  EXPECT_EQ(dateCommand("Sun Nov  6 08:49:37 GMT 1994"), kSample);
}

TEST(parse_unix_timeTest, EveryDayUpTo2038IsAsTimegmHasIt) {
  std::mt19937 random(4711);
  for (time_t day = 0; day <= kLastDay; ++day) {
    tm t = brokenDown(day * kDay + static_cast<time_t>(random() % kDay));
    ASSERT_EQ(dateCommand(formatted(t, "%a %b %e %H:%M:%S UTC %Y")), timegm(&t));
  }
}

TEST(parse_unix_timeTest, InvalidTextsAre0) {
  for (const char* text :
       {"", " ", "nonsense", "Wed Foo 30 21:49:08 PDT 1993", "Wed Jun 32 21:49:08 PDT 1993",
        "Wed Jun 30 24:49:08 PDT 1993", "Wed Jun 30 21:60:08 PDT 1993",
        "Wed Jun 30 21:49:60 PDT 1993", "Wed Dec 31 23:59:59 UTC 1969",
        "Tue Jan 19 00:00:00 UTC 2038", "Wed Jun 30 21:49:08 CEST 1993"})
    EXPECT_EQ(dateCommand(text), 0) << text;
  EXPECT_EQ(dateCommand("Mon Jan 18 23:59:59 UTC 2038"), 2147471999);
}

TEST(parse_unix_timeTest, KeptTheBeginningOf1970LooksInvalid) {
  EXPECT_EQ(dateCommand("Thu Jan  1 00:00:00 UTC 1970"), 0);
  EXPECT_EQ(dateCommand("Thu Jan  1 00:00:01 UTC 1970"), 1);
}

TEST(parse_unix_timeTest, ATextThatEndsEarlyIsReadAsIfZeroBytesFollowed) {
  const std::string text = "Wed Jun 30 21:49:08 PDT 1993";
  for (size_t length = 0; length < text.size(); ++length)
    EXPECT_EQ(dateCommand(text.substr(0, length)), 0) << text.substr(0, length);
  // "3" and a zero byte are 30 - 48: 20 centuries less 18 years.
  EXPECT_EQ(dateCommand("Wed Jun 30 21:49:08 PDT 203"), http("Wed, 30 Jun 1982 21:49:08"));
  EXPECT_EQ(dateCommand("Wed Jun 30 21:49:08 PDT 203"), 394321748);
}

// ---- Threads ----

TEST_F(time_strZoneTest, ManyThreadsWriteAndReadAtOnce) {
  ASSERT_EQ(setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1), 0);
  std::atomic<size_t> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&wrong, i] {
      const time_t t = kSample + i;
      const std::string second = std::to_string(37 + i);
      for (int turn = 0; turn < 2000; ++turn) {
        char text[64];
        if (get_gmt_time_str(t, text) != "Sun, 06 Nov 1994 08:49:" + second + " GMT") ++wrong;
        if (parse_http_time(text) != t) ++wrong;
        if (get_local_time_str(t, text) != "Sun, 06 Nov 1994 09:49:" + second) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
