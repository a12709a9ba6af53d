// Real numbers as text: what both notations promise, and both against the system's ecvt and printf.
#include <fenv.h>
#include <float.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <locale.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <filesystem>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/locales.h"
#include "velorin/String"

namespace {

constexpr char kRoomText[] = "Assertion `length < sizeof buf' failed";
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// Sanitizers make each number cost several times as much: they see fewer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kPatterns = 100000;
#else
constexpr int kPatterns = 1000000;
#endif

struct Example {
  const char* call;
  std::string text;
  const char* expected;
};

#define EXAMPLE(call, expected) \
  Example {                     \
#call, call, expected       \
  }

void expectTexts(const std::vector<Example>& examples) {
  for (const Example& example : examples) EXPECT_EQ(example.text, example.expected) << example.call;
}

// Numbers of any bits: all exponents alike, infinities and NaNs among them.
class Patterns {
 public:
  double next() {
    const uint64_t bits = random_();
    double v;
    memcpy(&v, &bits, sizeof v);
    return v;
  }
  // Numbers as they are met, of few digits around 1.
  double nextUsual() {
    const auto digits = static_cast<double>(static_cast<int64_t>(random_() % 2000001) - 1000000);
    return digits / pow(10, static_cast<double>(random_() % 10));
  }
  int nextDigits(int least, int most) {
    return least + static_cast<int>(random_() % static_cast<uint64_t>(most - least + 1));
  }

 private:
  std::mt19937_64 random_{4711};
};

// ---- The peers ----

std::string peerWord(double v) {
  return isnan(v) ? "NaN" : v > 0 ? "Infinity" : "-Infinity";
}

// Engineering notation out of ecvt's digits: the digits as a number below 1000, then the exponent.
std::string peerEng(double v, int ndigits) {
  if (!isfinite(v)) return peerWord(v);
  int point = 0;
  int negative = 0;
  std::string digits = ecvt(v, ndigits < 1 ? 1 : ndigits > 15 ? 15 : ndigits, &point, &negative);
  int exponent = 0;
  for (; point > 3; point -= 3) exponent += 3;
  for (; point < 1; point += 3) exponent -= 3;
  while (digits.size() < static_cast<size_t>(point)) digits += "0";
  digits.insert(static_cast<size_t>(point), ".");
  digits.erase(digits.find_last_not_of('0') + 1);
  if (digits.back() == '.') digits.pop_back();
  return (negative ? "-" : "") + digits + (exponent != 0 ? "e" + std::to_string(exponent) : "");
}

std::string printed(double v, int ndigits) {
  std::vector<char> text(2000);
  EXPECT_LT(snprintf(text.data(), text.size(), "%.*f", ndigits, v), static_cast<int>(text.size()));
  return text.data();
}

// Fixed notation out of printf's text.
std::string peerFlt(std::string text) {
  const bool negative = text[0] == '-';
  if (negative) text.erase(0, 1);
  if (text.find('.') != std::string::npos) {
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    if (text.compare(0, 2, "0.") == 0) text.erase(0, 1);
  }
  return (negative ? "-" : "") + text;
}

std::string peerFlt(double v, int ndigits) {
  return isfinite(v) ? peerFlt(printed(v, ndigits)) : peerWord(v);
}

// ---- Eng ----

TEST(StringEngTest, TheExponentIsAMultipleOfThree) {
  expectTexts({
      EXAMPLE(Eng(1234.5, 3), "1.23e3"),
      EXAMPLE(Eng(12345.0, 3), "12.3e3"),
      EXAMPLE(Eng(123456.0, 4), "123.5e3"),
      EXAMPLE(Eng(1234567.0, 4), "1.235e6"),
      EXAMPLE(Eng(0.5, 3), "500e-3"),
      EXAMPLE(Eng(0.05, 3), "50e-3"),
      EXAMPLE(Eng(0.005, 3), "5e-3"),
      EXAMPLE(Eng(0.0005, 3), "500e-6"),
      EXAMPLE(Eng(-0.001234, 3), "-1.23e-3"),
      EXAMPLE(Eng(1e-300, 2), "1e-300"),
      EXAMPLE(Eng(1e-301, 2), "100e-303"),
      EXAMPLE(Eng(1e300, 2), "1e300"),
  });
}

TEST(StringEngTest, AnExponentOfZeroIsNotWritten) {
  expectTexts({
      EXAMPLE(Eng(500, 3), "500"),
      EXAMPLE(Eng(1, 1), "1"),
      EXAMPLE(Eng(1.5, 15), "1.5"),
      EXAMPLE(Eng(999.5, 4), "999.5"),
      EXAMPLE(Eng(-12.25, 5), "-12.25"),
  });
}

TEST(StringEngTest, ZerosBeforeThePointStayAndThoseBehindItGo) {
  expectTexts({
      EXAMPLE(Eng(123456.0, 2), "120e3"),
      EXAMPLE(Eng(123456.0, 1), "100e3"),
      EXAMPLE(Eng(1e6, 1), "1e6"),
      EXAMPLE(Eng(1e7, 1), "10e6"),
      EXAMPLE(Eng(1e8, 15), "100e6"),
      EXAMPLE(Eng(100, 1), "100"),
      EXAMPLE(Eng(1.500, 9), "1.5"),
  });
}

TEST(StringEngTest, NdigitsIsTakenAs1To15) {
  expectTexts({
      EXAMPLE(Eng(1234.5, 0), "1e3"),
      EXAMPLE(Eng(1234.5, -1), "1e3"),
      EXAMPLE(Eng(1234.5, INT_MIN), "1e3"),
      EXAMPLE(Eng(1234.5, 40), "1.2345e3"),
      EXAMPLE(Eng(0.1, 16), "100e-3"),
      EXAMPLE(Eng(1.0 / 3, 40), "333.333333333333e-3"),
      EXAMPLE(Eng(1.0 / 3, INT_MAX), "333.333333333333e-3"),
  });
}

TEST(StringEngTest, ACarryGivesTheNextPowerOfTen) {
  expectTexts({
      EXAMPLE(Eng(999.96, 3), "1e3"),
      EXAMPLE(Eng(9.96, 2), "10"),
      EXAMPLE(Eng(99.6, 2), "100"),
      EXAMPLE(Eng(9.6, 1), "10"),
      EXAMPLE(Eng(0.00099996, 4), "1e-3"),
      EXAMPLE(Eng(-999999.9, 6), "-1e6"),
  });
}

TEST(StringEngTest, ZeroKeepsItsSign) {
  expectTexts({
      EXAMPLE(Eng(0.0, 1), "0"),
      EXAMPLE(Eng(0.0, 3), "0"),
      EXAMPLE(Eng(0.0, 15), "0"),
      EXAMPLE(Eng(-0.0, 3), "-0"),
  });
}

TEST(StringEngTest, WhatIsNotFiniteIsAWord) {
  expectTexts({
      EXAMPLE(Eng(kNan, 3), "NaN"),
      EXAMPLE(Eng(-kNan, 3), "NaN"),
      EXAMPLE(Eng(kInfinity, 3), "Infinity"),
      EXAMPLE(Eng(-kInfinity, 3), "-Infinity"),
      EXAMPLE(Str(kInfinity, 3), "Infinity"),
      EXAMPLE(Str(std::numeric_limits<float>::quiet_NaN(), 3), "NaN"),
      EXAMPLE(Str(-std::numeric_limits<float>::infinity(), 3), "-Infinity"),
  });
}

TEST(StringEngTest, TheGreatestAndTheLeastNumbersAreFinite) {
  expectTexts({
      EXAMPLE(Eng(DBL_MAX, 5), "179.77e306"),
      EXAMPLE(Eng(-DBL_MAX, 5), "-179.77e306"),
      EXAMPLE(Eng(DBL_MIN, 5), "22.251e-309"),
  });
  for (const double v : {DBL_TRUE_MIN, -DBL_TRUE_MIN, nextafter(DBL_MIN, 0)})
    for (int ndigits = 1; ndigits <= 15; ++ndigits) EXPECT_EQ(Eng(v, ndigits), peerEng(v, ndigits));
}

TEST(StringEngTest, StrOfADoubleIsEng) {
  expectTexts({
      EXAMPLE(Str(1234.5, 3), "1.23e3"),
      EXAMPLE(Str(1.0 / 3, 40), "333.333333333333e-3"),
      EXAMPLE(Str(-0.5, 0), "-500e-3"),
  });
}

TEST(StringEngTest, AFloatNeverShowsMoreThanSixDigits) {
  expectTexts({
      EXAMPLE(Str(1.0f / 3, 10), "333.333e-3"),
      EXAMPLE(Str(1.0f / 3, 7), "333.333e-3"),
      EXAMPLE(Str(1.0f / 3, 6), "333.333e-3"),
      EXAMPLE(Str(1.0f / 3, 5), "333.33e-3"),
      EXAMPLE(Str(1.0f / 3, INT_MAX), "333.333e-3"),
      EXAMPLE(Str(1.0f / 3, 0), "300e-3"),
      EXAMPLE(Str(0.1f, 15), "100e-3"),
      EXAMPLE(Str(16777216.0f, 15), "16.7772e6"),
      EXAMPLE(Str(FLT_MAX, 3), "340e36"),
  });
}

TEST(StringEngTest, KeptTheLastDigitIsThatOfTheTargetsEcvt) {
  constexpr bool kIs64Bit = sizeof(void*) == 8;
  EXPECT_EQ(Eng(54299915.5, 8), kIs64Bit ? "54.299915e6" : "54.299916e6");
  const uint64_t bits = 0xB19392A8D11210EF;
  double v;
  memcpy(&v, &bits, sizeof v);
  EXPECT_EQ(Eng(v, 15), kIs64Bit ? "-708.983185365881e-72" : "-708.98318536588e-72");
}

TEST(StringEngTest, SlowRandomBitsAgreeWithEcvt) {
  Patterns patterns;
  for (int i = 0; i < kPatterns; ++i) {
    const double v = patterns.next();
    const int ndigits = patterns.nextDigits(-1, 17);
    ASSERT_EQ(Eng(v, ndigits), peerEng(v, ndigits)) << printed(v, 20) << " with " << ndigits;
  }
}

TEST(StringEngTest, UsualNumbersAgreeWithEcvt) {
  Patterns patterns;
  for (int i = 0; i < kPatterns / 10; ++i) {
    const double v = patterns.nextUsual();
    const int ndigits = patterns.nextDigits(-1, 17);
    ASSERT_EQ(Eng(v, ndigits), peerEng(v, ndigits)) << printed(v, 20) << " with " << ndigits;
  }
}

TEST(StringEngTest, SlowTheTextReadsBackAsTheNumberRounded) {
  Patterns patterns;
  for (int i = 0; i < kPatterns / 4; ++i) {
    const double v = patterns.next();
    if (!isnormal(v) || fabs(v) > 1e307) continue;
    const int ndigits = patterns.nextDigits(1, 15);
    const double read = strtod(Eng(v, ndigits).c_str(), nullptr);
    // Half a unit of the last digit, and what ecvt loses when it scales the number.
    const double most = 0.5 * pow(10, 1 - ndigits) + 1e-14;
    ASSERT_LE(fabs(read / v - 1), most) << printed(v, 20) << " with " << ndigits;
  }
}

// ---- Flt ----

TEST(StringFltTest, ZerosAtTheEndBehindThePointGo) {
  expectTexts({
      EXAMPLE(Flt(2.5, 3), "2.5"),
      EXAMPLE(Flt(1.10, 2), "1.1"),
      EXAMPLE(Flt(2.0, 2), "2"),
      EXAMPLE(Flt(3.0, 0), "3"),
      EXAMPLE(Flt(100, 0), "100"),
      EXAMPLE(Flt(100, 5), "100"),
      EXAMPLE(Flt(10.01, 3), "10.01"),
      EXAMPLE(Flt(1e20, 1), "100000000000000000000"),
      EXAMPLE(Flt(1234.5678, 2), "1234.57"),
      EXAMPLE(Flt(-1234.5, 2), "-1234.5"),
  });
}

TEST(StringFltTest, KeptAZeroAloneBeforeThePointGoes) {
  expectTexts({
      EXAMPLE(Flt(0.5, 1), ".5"),
      EXAMPLE(Flt(0.5, 9), ".5"),
      EXAMPLE(Flt(-0.5, 1), "-.5"),
      EXAMPLE(Flt(-0.25, 2), "-.25"),
      EXAMPLE(Flt(0.001, 3), ".001"),
      EXAMPLE(Flt(10.5, 1), "10.5"),
      EXAMPLE(Flt(-10.5, 1), "-10.5"),
  });
}

TEST(StringFltTest, AZeroThatIsTheWholeNumberStays) {
  expectTexts({
      EXAMPLE(Flt(0.0, 2), "0"),
      EXAMPLE(Flt(0.0, 0), "0"),
      EXAMPLE(Flt(-0.0, 2), "-0"),
      EXAMPLE(Flt(-0.001, 2), "-0"),
      EXAMPLE(Flt(0.001, 2), "0"),
      EXAMPLE(Flt(0.4, 0), "0"),
      EXAMPLE(Flt(-0.4, 0), "-0"),
  });
}

TEST(StringFltTest, RoundingIsPrintfs) {
  expectTexts({
      EXAMPLE(Flt(0.5, 0), "0"),
      EXAMPLE(Flt(1.5, 0), "2"),
      EXAMPLE(Flt(2.5, 0), "2"),
      EXAMPLE(Flt(0.125, 2), ".12"),
      EXAMPLE(Flt(0.375, 2), ".38"),
      EXAMPLE(Flt(1.005, 2), "1"),
      EXAMPLE(Flt(9.995, 2), "9.99"),
      EXAMPLE(Flt(0.999, 2), "1"),
      EXAMPLE(Flt(0.1, 25), ".1000000000000000055511151"),
  });
}

TEST(StringFltTest, ANegativePrecisionIsSixAsForPrintf) {
  expectTexts({
      EXAMPLE(Flt(1.0 / 3, -1), ".333333"),
      EXAMPLE(Flt(1.0 / 3, INT_MIN), ".333333"),
      EXAMPLE(Flt(2.5, -7), "2.5"),
  });
}

TEST(StringFltTest, WhatIsNotFiniteIsAWord) {
  expectTexts({
      EXAMPLE(Flt(kNan, 3), "NaN"),
      EXAMPLE(Flt(-kNan, 3), "NaN"),
      EXAMPLE(Flt(kInfinity, 3), "Infinity"),
      EXAMPLE(Flt(-kInfinity, 3), "-Infinity"),
      EXAMPLE(Flt(-kInfinity, 1000), "-Infinity"),
  });
}

TEST(StringFltTest, TextsOf99CharactersAreTheLongest) {
  EXPECT_EQ(Flt(2e98, 0), printed(2e98, 0));
  EXPECT_EQ(printed(2e98, 0).size(), 99u);
  EXPECT_EQ(Flt(-2e97, 0), printed(-2e97, 0));
  EXPECT_EQ(Flt(1.0, 97), "1");
  EXPECT_EQ(Flt(-1.0, 96), "-1");
  EXPECT_EQ(Flt(0.1, 97), peerFlt(0.1, 97));
  EXPECT_EQ(Flt(DBL_TRUE_MIN, 97), "0");
}

TEST(StringFltDeathTest, TextsOf100CharactersEndTheProcess) {
  EXPECT_DEATH(Flt(1e95, 10), kRoomText);
  EXPECT_DEATH(Flt(2e99, 0), kRoomText);
  EXPECT_DEATH(Flt(-2e98, 0), kRoomText);
  EXPECT_DEATH(Flt(1.0, 98), kRoomText);
  EXPECT_DEATH(Flt(-1.0, 97), kRoomText);
  EXPECT_DEATH(Flt(0.0, 98), kRoomText);
  EXPECT_DEATH(Flt(DBL_MAX, 0), kRoomText);
  EXPECT_DEATH(Flt(1.0, 2000), kRoomText);
  EXPECT_DEATH(Flt(1.0, INT_MAX), kRoomText);
}

TEST(StringFltTest, SlowRandomBitsAgreeWithPrintf) {
  Patterns patterns;
  for (int compared = 0; compared < kPatterns;) {
    const double v = patterns.next();
    const int ndigits = patterns.nextDigits(-1, 97);
    const std::string text = isfinite(v) ? printed(v, ndigits) : "";
    if (text.size() >= 100) continue;  // ends the process
    ASSERT_EQ(Flt(v, ndigits), isfinite(v) ? peerFlt(text) : peerWord(v)) << text;
    ++compared;
  }
}

TEST(StringFltTest, UsualNumbersAgreeWithPrintf) {
  Patterns patterns;
  for (int i = 0; i < kPatterns / 10; ++i) {
    const double v = patterns.nextUsual();
    const int ndigits = patterns.nextDigits(-1, 40);
    ASSERT_EQ(Flt(v, ndigits), peerFlt(v, ndigits)) << printed(v, 20) << " with " << ndigits;
  }
}

// ---- What the process has set ----

TEST(StringFltTest, TheRoundingModeIsPrintfsToo) {
  Patterns patterns;
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    ASSERT_EQ(fesetround(mode), 0);
    for (const double v : {0.25, -0.25, 0.5, 2.5, 0.1, -0.1, 9.99, 1e22 / 3})
      for (int ndigits = 0; ndigits < 4; ++ndigits)
        EXPECT_EQ(Flt(v, ndigits), peerFlt(v, ndigits)) << v << " with " << ndigits;
    for (int i = 0; i < 2000; ++i) {
      const double v = patterns.nextUsual();
      EXPECT_EQ(Flt(v, 3), peerFlt(v, 3)) << printed(v, 20);
    }
    EXPECT_EQ(Flt(1.0, 97), "1");
    EXPECT_DEATH(Flt(1.0, 98), kRoomText);
    EXPECT_DEATH(Flt(1.0, INT_MAX), kRoomText);
    ASSERT_EQ(fesetround(FE_TONEAREST), 0);
  }
}

class StringRealLocaleTest : public testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove_all(folder_); }

  // Runs `body` in a process whose locale writes a comma before decimals.
  void inGerman(const std::function<void()>& body) const {
    const ChildResult child = runInChild([&] {
      useLocale(folder_, "de_DE", "ISO-8859-1");
      body();
    });
    EXPECT_EQ(child.exitCode(), 0) << child;
  }

 private:
  char path_[32] = "/tmp/StringReal_test.XXXXXX";
  const std::string folder_ = mkdtemp(path_);
};

TEST_F(StringRealLocaleTest, KeptWithAnotherDecimalPointPrintfsTextStaysWhole) {
  inGerman([] {
    expectTexts({
        EXAMPLE(Flt(2.5, 3), "2,500"),
        EXAMPLE(Flt(0.5, 1), "0,5"),
        EXAMPLE(Flt(-0.25, 2), "-0,25"),
        EXAMPLE(Flt(100, 0), "100"),
    });
  });
}

TEST_F(StringRealLocaleTest, EngHasItsPointInEveryLocale) {
  inGerman([] {
    expectTexts({
        EXAMPLE(Eng(1234.5, 3), "1.23e3"),
        EXAMPLE(Eng(-0.001234, 3), "-1.23e-3"),
        EXAMPLE(Str(1.0f / 3, 10), "333.333e-3"),
    });
  });
}

// ---- Threads ----

TEST(StringRealTest, ManyThreadsFormatAtOnce) {
  Patterns patterns;
  std::vector<double> numbers;
  std::vector<std::string> eng, flt;
  for (int i = 0; i < 500; ++i) {
    numbers.push_back(patterns.nextUsual());
    eng.push_back(peerEng(numbers.back(), 7));
    flt.push_back(peerFlt(numbers.back(), 7));
  }
  std::atomic<size_t> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int turn = 0; turn < 10; ++turn)
        for (size_t n = 0; n < numbers.size(); ++n)
          if (Eng(numbers[n], 7) != eng[n] || Flt(numbers[n], 7) != flt[n]) ++wrong;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
