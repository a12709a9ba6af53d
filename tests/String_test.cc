// Integers as text: what every form promises, and all forms against std::to_chars.
#include "velorin/String"

#include <ctype.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <charconv>
#include <limits>
#include <new>
#include <random>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

std::atomic<size_t> allocations = 0;

}  // namespace

// Counted, whoever allocates: the library and the standard library use these too. Inlined, they
// would look to the compiler like malloc beside delete.
[[gnu::noinline]] void* operator new(size_t size) {
  ++allocations;
  if (void* memory = malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  free(memory);
}

namespace {

constexpr char kRadixText[] = "Assertion `radix >= 2 && radix <= 16' failed";
constexpr char kRoomText[] = "Assertion `p != buffer' failed";

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

// ---- The peer ----

// The digits of `v` as std::to_chars gives them, upper-case; none for 0; padded to `mindigits`.
std::string peerDigits(uint64_t v, int radix, int mindigits) {
  char text[64] = {};
  char* end = text;
  if (v != 0) end = std::to_chars(text, text + sizeof text, v, radix).ptr;
  for (char* p = text; p != end; ++p) *p = static_cast<char>(toupper(*p));
  const std::string digits(text, end);
  const size_t wanted = mindigits > 0 ? static_cast<size_t>(mindigits) : 0;
  return std::string(wanted > digits.size() ? wanted - digits.size() : 0, '0') + digits;
}

std::string peerPrefix(int radix) {
  switch (radix) {
    case 8:
      return "0";
    case 10:
      return "";
    case 16:
      return "0x";
    default:
      return std::to_string(radix) + "#";
  }
}

template <class Int>
constexpr bool kIsLongLong =
    std::is_same_v<Int, long long> || std::is_same_v<Int, unsigned long long>;

template <class Int>
uint64_t peerMagnitude(Int v) {
  return v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
}

template <class Int>
std::string peerSigned(Int v, int radix, int mindigits) {
  return (v < 0 ? "-" : "") + peerDigits(peerMagnitude(v), radix, mindigits);
}

template <class Int>
std::string peerStr(Int v, int radix, int mindigits) {
  const int positive = abs(radix);
  const uint64_t u = peerMagnitude(v);
  const bool one_digit = u < static_cast<uint64_t>(positive);
  const bool bare = radix < 0 || (one_digit && (u <= 9 || kIsLongLong<Int>));
  return (v < 0 ? "-" : "") + (bare ? "" : peerPrefix(positive)) +
         peerDigits(u, positive, mindigits);
}

// Compares every form for `v` in `radix`. Returns: whether all are as the peer's.
template <class Int>
testing::AssertionResult agrees(Int v, int radix, int mindigits) {
  for (const int signed_radix : {radix, -radix}) {
    const std::string text = Str(v, signed_radix, mindigits);
    const std::string expected = peerStr(v, signed_radix, mindigits);
    if (text != expected)
      return testing::AssertionFailure() << "Str(" << +v << ", " << signed_radix << ", "
                                         << mindigits << ") is " << text << ", not " << expected;
  }
  if constexpr (std::is_same_v<Int, long> || std::is_same_v<Int, long long>) {
    const std::string text = Signed(v, radix, mindigits);
    if (text != peerSigned(v, radix, mindigits))
      return testing::AssertionFailure()
             << "Signed(" << v << ", " << radix << ", " << mindigits << ") is " << text;
  }
  if (const std::string text = Dec(v); text != std::to_string(v))
    return testing::AssertionFailure() << "Dec(" << +v << ") is " << text;
  return testing::AssertionSuccess();
}

// The 32-bit and 64-bit numbers around which lengths and paths change: the powers of 2 to 16 with
// their neighbours, and both ends.
const std::vector<uint64_t>& boundaries() {
  static const std::vector<uint64_t> numbers = [] {
    std::vector<uint64_t> made = {0, UINT32_MAX, UINT64_MAX, INT64_MAX, uint64_t{INT64_MAX} + 1};
    for (uint64_t radix = 2; radix <= 16; ++radix) {
      for (uint64_t power = radix;; power *= radix) {
        made.insert(made.end(), {power - 1, power, power + 1});
        if (power > UINT64_MAX / radix) break;
      }
    }
    return made;
  }();
  return numbers;
}

// Numbers whose lengths in bits are spread evenly.
std::vector<uint64_t> randomNumbers(size_t count) {
  std::mt19937_64 random(4711);
  std::vector<uint64_t> numbers;
  for (size_t i = 0; i < count; ++i) {
    const unsigned bits = static_cast<unsigned>(1 + random() % 64);
    numbers.push_back(random() >> (64 - bits));
  }
  return numbers;
}

template <class Int>
class StringEachTypeTest : public testing::Test {};

using Integers = testing::Types<unsigned long, unsigned int, unsigned short, unsigned char, long,
                                int, short, signed char, unsigned long long, long long>;
TYPED_TEST_SUITE(StringEachTypeTest, Integers);

TYPED_TEST(StringEachTypeTest, BoundariesAgreeWithThePeerInEveryRadix) {
  for (const uint64_t number : boundaries())
    for (int radix = 2; radix <= 16; ++radix)
      for (const int mindigits : {1, 0, 20})
        ASSERT_TRUE(agrees(static_cast<TypeParam>(number), radix, mindigits));
}

TYPED_TEST(StringEachTypeTest, RandomNumbersAgreeWithThePeerInEveryRadix) {
  for (const uint64_t number : randomNumbers(2000))
    for (int radix = 2; radix <= 16; ++radix)
      ASSERT_TRUE(agrees(static_cast<TypeParam>(number), radix, 1));
}

TYPED_TEST(StringEachTypeTest, EveryNumberOf16BitsAgreesWithThePeer) {
  for (uint32_t number = 0; number <= UINT16_MAX; ++number)
    for (const int radix : {2, 8, 10, 12, 16})
      ASSERT_TRUE(agrees(static_cast<TypeParam>(number), radix, 1));
}

TYPED_TEST(StringEachTypeTest, EveryMindigitsUpTo127AgreesWithThePeer) {
  const TypeParam least = std::numeric_limits<TypeParam>::min();
  const TypeParam most = std::numeric_limits<TypeParam>::max();
  for (int mindigits = -2; mindigits <= 127; ++mindigits)
    for (int radix = 2; radix <= 16; ++radix)
      for (const TypeParam v : {least, most, TypeParam{0}, TypeParam{1}})
        ASSERT_TRUE(agrees(v, radix, mindigits));
}

TYPED_TEST(StringEachTypeTest, ItsOwnWidthIsKept) {
  const TypeParam least = std::numeric_limits<TypeParam>::min();
  const TypeParam most = std::numeric_limits<TypeParam>::max();
  EXPECT_EQ(Dec(least), std::to_string(least));
  EXPECT_EQ(Dec(most), std::to_string(most));
  EXPECT_EQ(Str(most, -16), peerDigits(static_cast<uint64_t>(most), 16, 1));
}

TYPED_TEST(StringEachTypeTest, RadixIs10AndOneDigitIsEnoughByDefault) {
  EXPECT_EQ(Str(TypeParam{0}), "0");
  EXPECT_EQ(Str(TypeParam{42}), "42");
  EXPECT_EQ(Str(TypeParam{42}, 16), "0x2A");
}

// ---- Str ----

TEST(StringTest, ASingleDecimalDigitHasNoPrefix) {
  expectTexts({
      EXAMPLE(Str(0UL, 16, 1), "0"),
      EXAMPLE(Str(9UL, 16, 1), "9"),
      EXAMPLE(Str(7UL, 8, 1), "7"),
      EXAMPLE(Str(1UL, 2, 1), "1"),
      EXAMPLE(Str(9ULL, 16, 1), "9"),
  });
}

TEST(StringTest, ADigitOfTheRadixItselfHasThePrefix) {
  expectTexts({
      EXAMPLE(Str(8UL, 8, 1), "010"),
      EXAMPLE(Str(2UL, 2, 1), "2#10"),
      EXAMPLE(Str(3UL, 3, 1), "3#10"),
      EXAMPLE(Str(16ULL, 16, 1), "0x10"),
      EXAMPLE(Str(12ULL, 12, 1), "12#10"),
  });
}

TEST(StringTest, KeptALetterHasAPrefixUpToLongOnly) {
  expectTexts({
      EXAMPLE(Str(10UL, 16, 1), "0xA"),
      EXAMPLE(Str(10U, 16, 1), "0xA"),
      EXAMPLE(Str(10L, 16, 1), "0xA"),
      EXAMPLE(Str(15UL, 16, 1), "0xF"),
      EXAMPLE(Str(10UL, 12, 1), "12#A"),
      EXAMPLE(Str(-10L, 12, 1), "-12#A"),
      EXAMPLE(Str(10ULL, 16, 1), "A"),
      EXAMPLE(Str(15ULL, 16, 1), "F"),
      EXAMPLE(Str(10ULL, 12, 1), "A"),
      EXAMPLE(Str(-10LL, 12, 1), "-A"),
      EXAMPLE(Str(10ULL, 16, 3), "00A"),
  });
}

TEST(StringTest, ThePrefixTellsTheRadix) {
  expectTexts({
      EXAMPLE(Str(255UL, 16, 1), "0xFF"),    EXAMPLE(Str(255UL, 10, 1), "255"),
      EXAMPLE(Str(255UL, 8, 1), "0377"),     EXAMPLE(Str(5UL, 2, 1), "2#101"),
      EXAMPLE(Str(10UL, 2, 1), "2#1010"),    EXAMPLE(Str(255UL, 3, 1), "3#100110"),
      EXAMPLE(Str(255UL, 4, 1), "4#3333"),   EXAMPLE(Str(255UL, 5, 1), "5#2010"),
      EXAMPLE(Str(255UL, 6, 1), "6#1103"),   EXAMPLE(Str(255UL, 7, 1), "7#513"),
      EXAMPLE(Str(255UL, 9, 1), "9#313"),    EXAMPLE(Str(255UL, 11, 1), "11#212"),
      EXAMPLE(Str(255UL, 12, 1), "12#193"),  EXAMPLE(Str(255UL, 13, 1), "13#168"),
      EXAMPLE(Str(255UL, 14, 1), "14#143"),  EXAMPLE(Str(255UL, 15, 1), "15#120"),
      EXAMPLE(Str(255ULL, 16, 1), "0xFF"),   EXAMPLE(Str(255ULL, 8, 1), "0377"),
      EXAMPLE(Str(255ULL, 12, 1), "12#193"),
  });
}

TEST(StringTest, TheSignStandsBeforeThePrefix) {
  expectTexts({
      EXAMPLE(Str(-255L, 16, 1), "-0xFF"),
      EXAMPLE(Str(-5, 2, 1), "-2#101"),
      EXAMPLE(Str(-8, 8, 1), "-010"),
      EXAMPLE(Str(-5, 16, 1), "-5"),
      EXAMPLE(Str(-5, 10, 3), "-005"),
      EXAMPLE(Str(-255LL, 16, 1), "-0xFF"),
  });
}

TEST(StringTest, ANegativeRadixAsksForBareDigits) {
  expectTexts({
      EXAMPLE(Str(255UL, -16, 1), "FF"),
      EXAMPLE(Str(255UL, -8, 1), "377"),
      EXAMPLE(Str(255UL, -10, 1), "255"),
      EXAMPLE(Str(5UL, -2, 4), "0101"),
      EXAMPLE(Str(10UL, -16, 1), "A"),
      EXAMPLE(Str(-255L, -16, 1), "-FF"),
      EXAMPLE(Str(255ULL, -16, 1), "FF"),
      EXAMPLE(Str(-255LL, -12, 1), "-193"),
  });
}

TEST(StringTest, ThePrefixAndTheSignDoNotCountAsDigits) {
  expectTexts({
      EXAMPLE(Str(255UL, 16, 4), "0x00FF"),
      EXAMPLE(Str(8UL, 8, 2), "010"),
      EXAMPLE(Str(8UL, 8, 3), "0010"),
      EXAMPLE(Str(-255L, 16, 4), "-0x00FF"),
      EXAMPLE(Str(255ULL, 12, 4), "12#0193"),
  });
}

TEST(StringTest, MindigitsPadsWithZeros) {
  expectTexts({
      EXAMPLE(Str(3UL, 10, 4), "0003"),
      EXAMPLE(Str(3UL, 16, 4), "0003"),
      EXAMPLE(Str(1234UL, 10, 4), "1234"),
      EXAMPLE(Str(12345UL, 10, 4), "12345"),
      EXAMPLE(Str(0UL, 10, 3), "000"),
      EXAMPLE(Str(0ULL, 2, 3), "000"),
  });
}

TEST(StringTest, KeptZeroWithoutADigitAskedForIsEmpty) {
  expectTexts({
      EXAMPLE(Str(0UL, 10, 0), ""),
      EXAMPLE(Str(0UL, 16, 0), ""),
      EXAMPLE(Str(0UL, -16, -1), ""),
      EXAMPLE(Str(0, 2, INT_MIN), ""),
      EXAMPLE(Str(0ULL, 10, 0), ""),
      EXAMPLE(Str(0LL, 10, -7), ""),
      EXAMPLE(Signed(0L, 10, 0), ""),
      EXAMPLE(Signed(0LL, 16, 0), ""),
  });
}

TEST(StringTest, MindigitsOfZeroOrLessLeavesOtherNumbersAlone) {
  expectTexts({
      EXAMPLE(Str(7UL, 10, 0), "7"),
      EXAMPLE(Str(-7, 10, -3), "-7"),
      EXAMPLE(Str(255UL, 16, INT_MIN), "0xFF"),
      EXAMPLE(Str(255ULL, -2, INT_MIN), "11111111"),
      EXAMPLE(Signed(-255L, 16, INT_MIN), "-FF"),
  });
}

TEST(StringTest, TruthIsOneAndZero) {
  EXPECT_EQ(Str(true), "1");
  EXPECT_EQ(Str(false), "0");
}

TEST(StringTest, A64BitNumberInRadix2Has64Digits) {
  EXPECT_EQ(Str(ULLONG_MAX, -2), std::string(64, '1'));
  EXPECT_EQ(Str(LLONG_MIN, 2), "-2#1" + std::string(63, '0'));
  EXPECT_EQ(Str(ULLONG_MAX, 2, 70), "2#000000" + std::string(64, '1'));
}

// ---- Dec ----

TEST(StringTest, DecIsPlainDecimal) {
  expectTexts({
      EXAMPLE(Dec(0U), "0"),
      EXAMPLE(Dec(0ULL), "0"),
      EXAMPLE(Dec(9U), "9"),
      EXAMPLE(Dec(-1), "-1"),
      EXAMPLE(Dec(UINT_MAX), "4294967295"),
      EXAMPLE(Dec(INT_MIN), "-2147483648"),
      EXAMPLE(Dec(ULLONG_MAX), "18446744073709551615"),
      EXAMPLE(Dec(LLONG_MIN), "-9223372036854775808"),
      EXAMPLE(Dec(LLONG_MAX), "9223372036854775807"),
      EXAMPLE(Dec(static_cast<unsigned short>(65535)), "65535"),
      EXAMPLE(Dec(static_cast<short>(-32768)), "-32768"),
      EXAMPLE(Dec(static_cast<unsigned char>(255)), "255"),
      EXAMPLE(Dec(static_cast<signed char>(-128)), "-128"),
  });
}

TEST(StringTest, TheMostNegativeLongPrintsItsTrueMagnitude) {
  const bool is32 = sizeof(long) == 4;
  EXPECT_EQ(Dec(LONG_MIN), is32 ? "-2147483648" : "-9223372036854775808");
  EXPECT_EQ(Str(LONG_MIN, 16), is32 ? "-0x80000000" : "-0x8000000000000000");
  EXPECT_EQ(Signed(LONG_MIN, 16), is32 ? "-80000000" : "-8000000000000000");
  EXPECT_EQ(Dec(ULONG_MAX), is32 ? "4294967295" : "18446744073709551615");
}

TEST(StringTest, KeptAPlainCharIsASignedNumber) {
  EXPECT_EQ(Dec('\xFF'), "-1");
  EXPECT_EQ(Dec('\x80'), "-128");
  EXPECT_EQ(Dec('A'), "65");
  EXPECT_EQ(Dec('\0'), "0");
  for (int v = -128; v <= 127; ++v) EXPECT_EQ(Dec(static_cast<char>(v)), std::to_string(v));
}

TEST(StringTest, DecAndStrInRadix10AreTheSame) {
  for (const uint64_t number : boundaries()) {
    ASSERT_EQ(Dec(static_cast<unsigned int>(number)),
              Str(static_cast<unsigned int>(number), 10, 1));
    ASSERT_EQ(Dec(static_cast<int>(number)), Str(static_cast<int>(number), 10, 1));
    ASSERT_EQ(Dec(static_cast<long long>(number)), Str(static_cast<long long>(number), 10, 1));
  }
}

// ---- Signed ----

TEST(StringTest, SignedNeverHasAPrefix) {
  expectTexts({
      EXAMPLE(Signed(255L, 16, 1), "FF"),
      EXAMPLE(Signed(-255L, 16, 1), "-FF"),
      EXAMPLE(Signed(8L, 8, 1), "10"),
      EXAMPLE(Signed(-5LL, 2, 4), "-0101"),
      EXAMPLE(Signed(255LL, 12, 1), "193"),
      EXAMPLE(Signed(LLONG_MIN, 16, 1), "-8000000000000000"),
      EXAMPLE(Signed(-7L), "-7"),
      EXAMPLE(Signed(7LL), "7"),
  });
}

// ---- Limits ----

TEST(StringTest, A127DigitNumberIsTheLongest) {
  EXPECT_EQ(Str(1UL, 16, 127), std::string(126, '0') + "1");
  EXPECT_EQ(Str(-16L, 16, 127), "-0x" + std::string(125, '0') + "10");
  EXPECT_EQ(Str(-12, 12, 127), "-12#" + std::string(125, '0') + "10");
  EXPECT_EQ(Str(0ULL, 10, 127), std::string(127, '0'));
  EXPECT_EQ(Str(ULLONG_MAX, 2, 127), "2#" + std::string(63, '0') + std::string(64, '1'));
  EXPECT_EQ(Signed(-1LL, 2, 127), "-" + std::string(126, '0') + "1");
}

TEST(StringDeathTest, MoreThan127DigitsEndTheProcess) {
  EXPECT_DEATH(Str(1UL, 16, 128), kRoomText);
  EXPECT_DEATH(Str(0UL, 10, 128), kRoomText);
  EXPECT_DEATH(Str(-1, 2, 128), kRoomText);
  EXPECT_DEATH(Str(255UL, 12, INT_MAX), kRoomText);
  EXPECT_DEATH(Str(ULLONG_MAX, 2, 128), kRoomText);
  EXPECT_DEATH(Str(1LL, -8, 128), kRoomText);
  EXPECT_DEATH(Signed(1L, 10, 128), kRoomText);
  EXPECT_DEATH(Signed(-1LL, 10, INT_MAX), kRoomText);
}

TEST(StringDeathTest, ARadixOutside2To16EndsTheProcess) {
  EXPECT_DEATH(Str(12UL, 17, 1), kRadixText);
  EXPECT_DEATH(Str(0UL, 1, 1), kRadixText);
  for (const int radix : {0, 1, 17, -1, -17, INT_MAX, INT_MIN, INT_MIN + 1}) {
    EXPECT_DEATH(Str(5U, radix, 1), kRadixText) << radix;
    EXPECT_DEATH(Str(-5L, radix, 1), kRadixText) << radix;
    EXPECT_DEATH(Str(static_cast<signed char>(5), radix, 1), kRadixText) << radix;
    EXPECT_DEATH(Str(5ULL, radix, 1), kRadixText) << radix;
    EXPECT_DEATH(Str(-5LL, radix, 1), kRadixText) << radix;
    EXPECT_DEATH(Signed(5L, radix, 1), kRadixText) << radix;
    EXPECT_DEATH(Signed(-5LL, radix, 1), kRadixText) << radix;
  }
}

TEST(StringDeathTest, SignedAcceptsNoNegativeRadix) {
  EXPECT_DEATH(Signed(5L, -10, 1), kRadixText);
  EXPECT_DEATH(Signed(5L, -16, 1), kRadixText);
  EXPECT_DEATH(Signed(-5LL, -8, 1), kRadixText);
}

TEST(StringDeathTest, TheRadixIsCheckedBeforeTheRoom) {
  EXPECT_DEATH(Str(1UL, 17, 128), kRadixText);
  EXPECT_DEATH(Signed(1LL, 1, INT_MAX), kRadixText);
}

// ---- Cost and threads ----

TEST(StringTest, NothingIsAllocatedButTheText) {
  const auto allocationsOf = [](auto format) {
    const size_t before = allocations;
    const std::string text = format();
    const size_t made = allocations - before;
    return std::pair(text.size() > 15 ? size_t{1} : size_t{0}, made);
  };
  for (int radix = 2; radix <= 16; ++radix) {
    for (const unsigned long long v : {0ULL, 42ULL, 1000000000ULL, ULLONG_MAX}) {
      for (const int mindigits : {0, 1, 12, 127}) {
        const auto [needed, made] = allocationsOf([&] { return Str(v, radix, mindigits); });
        EXPECT_EQ(made, needed) << v << " in radix " << radix << ", " << mindigits << " digits";
      }
    }
  }
  const auto [needed, made] = allocationsOf([] { return Dec(LLONG_MIN); });
  EXPECT_EQ(made, needed);
}

TEST(StringTest, ManyThreadsFormatAtOnce) {
  const std::vector<uint64_t> numbers = randomNumbers(500);
  std::atomic<size_t> wrong = 0;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (const uint64_t number : numbers)
        for (int radix = 2; radix <= 16; ++radix)
          if (!agrees(static_cast<unsigned long long>(number), radix, 1)) ++wrong;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
