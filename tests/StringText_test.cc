// Characters, strings, spans and times as text.
#include <ctype.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/locales.h"
#include "velorin/String"

namespace {

constexpr bool kWideTime = sizeof(time_t) == 8;

// ---- Str(char) ----

TEST(StringCharTest, WhatCanBePrintedStandsBetweenQuotes) {
  EXPECT_EQ(Str('A'), "'A'");
  EXPECT_EQ(Str(' '), "' '");
  EXPECT_EQ(Str('~'), "'~'");
  EXPECT_EQ(Str('"'), "'\"'");
  for (char c = ' '; c <= '~'; ++c) {
    if (c == '\\') continue;
    EXPECT_EQ(Str(c), std::string("'") + c + "'");
  }
}

TEST(StringCharTest, KeptTheSingleQuoteIsNotEscaped) {
  EXPECT_EQ(Str('\''), "'''");
}

TEST(StringCharTest, KeptTheDoubleQuoteHasNoEscape) {
  EXPECT_EQ(Str('"'), "'\"'");
}

TEST(StringCharTest, SevenCharactersHaveALetterOfTheirOwn) {
  EXPECT_EQ(Str('\a'), "'\\a'");
  EXPECT_EQ(Str('\t'), "'\\t'");
  EXPECT_EQ(Str('\n'), "'\\n'");
  EXPECT_EQ(Str('\v'), "'\\v'");
  EXPECT_EQ(Str('\f'), "'\\f'");
  EXPECT_EQ(Str('\r'), "'\\r'");
  EXPECT_EQ(Str('\\'), "'\\\\'");
}

TEST(StringCharTest, OtherControlCharactersAreOctal) {
  EXPECT_EQ(Str('\0'), "'\\0'");
  EXPECT_EQ(Str('\1'), "'\\1'");
  EXPECT_EQ(Str('\16'), "'\\16'");
  EXPECT_EQ(Str('\33'), "'\\33'");
  EXPECT_EQ(Str('\177'), "'\\177'");
}

TEST(StringCharTest, KeptBackspaceIsOctal) {
  EXPECT_EQ(Str('\b'), "'\\10'");
}

TEST(StringCharTest, KeptBytesFrom0x80AreTheirSignedValueIn32BitsOnBothTargets) {
  EXPECT_EQ(Str('\x80'), "'\\37777777600'");
  EXPECT_EQ(Str('\xE9'), "'\\37777777751'");
  EXPECT_EQ(Str('\xFF'), "'\\37777777777'");
  for (int v = 0x80; v <= 0xFF; ++v) {
    char expected[32];
    snprintf(expected, sizeof expected, "'\\%o'", 0xFFFFFF00u | static_cast<unsigned>(v));
    EXPECT_EQ(Str(static_cast<char>(v)), expected);
  }
}

// ---- plain ----

// What a reader of plain's texts does.
std::string undone(const std::string& text) {
  std::string s;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && isalnum(static_cast<unsigned char>(text[i + 1]))) {
      s += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      s += text[i];
    }
  }
  return s;
}

TEST(StringPlainTest, WhatCanBePrintedStays) {
  EXPECT_EQ(plain(""), "");
  EXPECT_EQ(plain("a b~"), "a b~");
  EXPECT_EQ(plain("'\"\\"), "'\"\\");
}

TEST(StringPlainTest, WhatCannotBePrintedIsEscapedInUpperCase) {
  EXPECT_EQ(plain("a\nb"), "a%0Ab");
  EXPECT_EQ(plain("\t"), "%09");
  EXPECT_EQ(plain("\x7F\x1F"), "%7F%1F");
  EXPECT_EQ(plain("\xE9"), "%E9");
  EXPECT_EQ(plain("\x80\xFF"), "%80%FF");
  EXPECT_EQ(plain(std::string("a\0b", 3)), "a%00b");
}

TEST(StringPlainTest, APercentBeforeALetterOrDigitIsEscaped) {
  EXPECT_EQ(plain("%d"), "%25d");
  EXPECT_EQ(plain("50%off"), "50%25off");
  EXPECT_EQ(plain("%41"), "%2541");
  EXPECT_EQ(plain("%Z%9"), "%25Z%259");
}

TEST(StringPlainTest, AnyOtherPercentStays) {
  EXPECT_EQ(plain("100%"), "100%");
  EXPECT_EQ(plain("% d"), "% d");
  EXPECT_EQ(plain("%%"), "%%");
  EXPECT_EQ(plain("%%d"), "%%25d");
  EXPECT_EQ(plain("%\n"), "%%0A");
  EXPECT_EQ(plain("%\xE9"), "%%E9");
  EXPECT_EQ(plain(std::string("%\0", 2)), "%%00");
}

TEST(StringPlainTest, EveryByteIsCopiedOrEscaped) {
  for (int v = 0; v <= 0xFF; ++v) {
    char escaped[8];
    snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned>(v));
    const std::string text(1, static_cast<char>(v));
    EXPECT_EQ(plain(text), v >= ' ' && v <= '~' ? text : escaped);
  }
}

TEST(StringPlainTest, EveryTextCanBeUndone) {
  for (int first = 0; first <= 0xFF; ++first) {
    for (int second = 0; second <= 0xFF; ++second) {
      const std::string s = {static_cast<char>(first), static_cast<char>(second), '4', '1'};
      ASSERT_EQ(undone(plain(s)), s) << first << " " << second;
    }
  }
  std::mt19937 random(4711);
  for (int i = 0; i < 20000; ++i) {
    std::string s;
    for (size_t n = random() % 12; n > 0; --n)
      s += random() % 3 == 0 ? '%' : static_cast<char>(random());
    ASSERT_EQ(undone(plain(s)), s);
  }
}

// ---- toLower ----

TEST(StringToLowerTest, CapitalsBecomeSmall) {
  EXPECT_EQ(toLower("Content-LENGTH: 5"), "content-length: 5");
  EXPECT_EQ(toLower(""), "");
  EXPECT_EQ(toLower(std::string("A\0B", 3)), std::string("a\0b", 3));
  EXPECT_EQ(toLower("@[`{"), "@[`{");
}

TEST(StringToLowerTest, BytesFrom0x80StayInTheCLocale) {
  std::string high;
  for (int v = 0x80; v <= 0xFF; ++v) high += static_cast<char>(v);
  EXPECT_EQ(toLower(high), high);
}

class StringLocaleTest : public testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove_all(folder_); }

  void in(const std::string& language, const std::string& charset,
          const std::function<void()>& body) const {
    const ChildResult child = runInChild([&] {
      useLocale(folder_, language, charset);
      body();
    });
    EXPECT_EQ(child.exitCode(), 0) << child;
  }

 private:
  char path_[32] = "/tmp/StringText_test.XXXXXX";
  const std::string folder_ = mkdtemp(path_);
};

TEST_F(StringLocaleTest, ToLowerKnowsTheLocalesLetters) {
  in("de_DE", "ISO-8859-1", [] { EXPECT_EQ(toLower("\xC4PFEL"), "\xE4pfel"); });
}

TEST_F(StringLocaleTest, KeptTheByte0xFFIsNeverACapital) {
  in("ru_RU", "KOI8-R", [] {
    EXPECT_EQ(tolower(0xFF), 0xDF);
    EXPECT_EQ(toLower("\xE1\xFF"), "\xC1\xFF");
    for (int v = 0; v <= 0xFF; ++v) {
      const char c = static_cast<char>(v);
      EXPECT_EQ(toLower(std::string(1, c))[0],
                static_cast<char>(tolower(static_cast<signed char>(c))));
    }
  });
}

TEST_F(StringLocaleTest, KeptBytesFrom0x80AreEscapedInEveryLocale) {
  in("de_DE", "ISO-8859-1", [] {
    EXPECT_TRUE(isprint(0xE4));
    EXPECT_EQ(plain("\xE4"), "%E4");
    EXPECT_EQ(plain("%\xE4"), "%%E4");
    EXPECT_EQ(Str('\xE4'), "'\\37777777744'");
  });
}

// ---- UrlStripScheme, VelorinHome ----

TEST(StringUrlStripSchemeTest, TheTextBehindTheSeparatorIsLeft) {
  EXPECT_EQ(UrlStripScheme("http://host/path"), "host/path");
  EXPECT_EQ(UrlStripScheme("://x"), "x");
  EXPECT_EQ(UrlStripScheme("http://"), "");
}

TEST(StringUrlStripSchemeTest, WithoutASeparatorAllIsLeft) {
  for (const char* url : {"", "host/path", "mailto:x", "a:/b", ":/", "//host"})
    EXPECT_EQ(UrlStripScheme(url), url);
}

TEST(StringUrlStripSchemeTest, TheFirstSeparatorCountsWhereverItStands) {
  EXPECT_EQ(UrlStripScheme("/go?to=http://a://b"), "a://b");
  EXPECT_EQ(UrlStripScheme(":://x"), "x");
}

TEST(StringVelorinHomeTest, TheEnvironmentNamesIt) {
  ASSERT_EQ(setenv("VELORIN_HOME", "/opt/v", 1), 0);
  EXPECT_EQ(VelorinHome(), "/opt/v");
  ASSERT_EQ(setenv("VELORIN_HOME", "", 1), 0);
  EXPECT_EQ(VelorinHome(), "");
  ASSERT_EQ(unsetenv("VELORIN_HOME"), 0);
  EXPECT_EQ(VelorinHome(), "/sw/velorin");
}

// ---- TimeSpanStr ----

TEST(StringTimeSpanStrTest, BelowAMinuteAndNegativeItIsSeconds) {
  EXPECT_EQ(TimeSpanStr(0), "0 seconds");
  EXPECT_EQ(TimeSpanStr(59), "59 seconds");
  EXPECT_EQ(TimeSpanStr(-30), "-30 seconds");
  EXPECT_EQ(TimeSpanStr(-86400), "-86400 seconds");
  EXPECT_EQ(TimeSpanStr(INT_MIN), "-2147483648 seconds");
}

TEST(StringTimeSpanStrTest, TheGreatestUnitNeededComesFirst) {
  EXPECT_EQ(TimeSpanStr(119), "1 minutes and 59 seconds");
  EXPECT_EQ(TimeSpanStr(3599), "59 minutes and 59 seconds");
  EXPECT_EQ(TimeSpanStr(3661), "1 hours, 1 minutes and 1 seconds");
  EXPECT_EQ(TimeSpanStr(86399), "23 hours, 59 minutes and 59 seconds");
  EXPECT_EQ(TimeSpanStr(93784), "1 days, 2 hours, 3 minutes and 4 seconds");
  EXPECT_EQ(TimeSpanStr(INT_MAX), "24855 days, 3 hours, 14 minutes and 7 seconds");
}

TEST(StringTimeSpanStrTest, KeptUnitsAreInThePlural) {
  EXPECT_EQ(TimeSpanStr(1), "1 seconds");
  EXPECT_EQ(TimeSpanStr(61), "1 minutes and 1 seconds");
}

TEST(StringTimeSpanStrTest, KeptCountsOfZeroAreWritten) {
  EXPECT_EQ(TimeSpanStr(60), "1 minutes and 0 seconds");
  EXPECT_EQ(TimeSpanStr(3600), "1 hours, 0 minutes and 0 seconds");
  EXPECT_EQ(TimeSpanStr(86400), "1 days, 0 hours, 0 minutes and 0 seconds");
}

// ---- GMTTimeStr, LocalTimeStr ----

class StringTimeTest : public testing::Test {
 protected:
  ~StringTimeTest() override { (void)unsetenv("TZ"); }
};

std::string formatted(const tm* t) {
  char text[64];
  return std::string(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", t));
}

TEST_F(StringTimeTest, GMTTimeStrIsUtc) {
  ASSERT_EQ(setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1), 0);
  EXPECT_EQ(GMTTimeStr(0), "1970-01-01 00:00:00");
  EXPECT_EQ(GMTTimeStr(1709211909), "2024-02-29 13:05:09");
  EXPECT_EQ(GMTTimeStr(-1), "1969-12-31 23:59:59");
  EXPECT_EQ(GMTTimeStr(INT32_MAX), "2038-01-19 03:14:07");
  EXPECT_EQ(GMTTimeStr(INT32_MIN), "1901-12-13 20:45:52");
}

TEST_F(StringTimeTest, LocalTimeStrFollowsAChangedZone) {
  const time_t winter = 1700000000, summer = 1690000000;
  for (const char* zone : {"EST5EDT,M3.2.0,M11.1.0", "CET-1CEST,M3.5.0,M10.5.0/3", "UTC0", "",
                           "nonsense", "<+0530>-5:30", "EST5EDT,M3.2.0,M11.1.0"}) {
    ASSERT_EQ(setenv("TZ", zone, 1), 0);
    const std::string first = LocalTimeStr(winter);
    const std::string second = LocalTimeStr(summer);
    EXPECT_EQ(first, formatted(localtime(&winter))) << zone;
    EXPECT_EQ(second, formatted(localtime(&summer))) << zone;
  }
  EXPECT_EQ(LocalTimeStr(winter), "2023-11-14 17:13:20");
  EXPECT_EQ(LocalTimeStr(summer), "2023-07-22 00:26:40");
  ASSERT_EQ(setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1), 0);
  EXPECT_EQ(LocalTimeStr(winter), "2023-11-14 23:13:20");
  EXPECT_EQ(LocalTimeStr(summer), "2023-07-22 06:26:40");
}

TEST_F(StringTimeTest, YearsHaveFourDigitsOrMore) {
  if constexpr (kWideTime) {
    EXPECT_EQ(GMTTimeStr(static_cast<time_t>(-62135596800)), "0001-01-01 00:00:00");
    EXPECT_EQ(GMTTimeStr(static_cast<time_t>(253402300800)), "10000-01-01 00:00:00");
    EXPECT_EQ(GMTTimeStr(static_cast<time_t>(67768036191676799)), "2147485547-12-31 23:59:59");
  } else {
    EXPECT_EQ(GMTTimeStr(INT32_MIN).size(), 19u);
  }
}

TEST_F(StringTimeTest, AYearThatStructTmCannotHoldIsEmpty) {
  const time_t end = std::numeric_limits<time_t>::max();
  EXPECT_EQ(GMTTimeStr(end), kWideTime ? "" : "2038-01-19 03:14:07");
  ASSERT_EQ(setenv("TZ", "UTC0", 1), 0);
  EXPECT_EQ(LocalTimeStr(end), kWideTime ? "" : "2038-01-19 03:14:07");
}

TEST_F(StringTimeTest, ManyThreadsFormatAtOnce) {
  ASSERT_EQ(setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1), 0);
  std::atomic<size_t> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {  // the years before the first with a leap day
    threads.emplace_back([&wrong, i] {
      const time_t t = 86400 * 365 * i;
      const std::string gmt = std::to_string(1970 + i) + "-01-01 00:00:00";
      const std::string local = std::to_string(1970 + i) + "-01-01 01:00:00";
      for (int turn = 0; turn < 2000; ++turn)
        if (GMTTimeStr(t) != gmt || LocalTimeStr(t) != local) ++wrong;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
