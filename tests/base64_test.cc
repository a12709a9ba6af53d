// Base64: what the functions promise, and the loops of every instruction set against a peer that
// works on strings of bits, with unreadable pages around what they may touch.
#include "velorin/base64"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base64_kernels.h"
#include "support/child.h"
#include "support/guarded.h"

namespace {

using velorin::base64::Kernel;
using velorin::base64::kFastestFirst;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Called before this program's other objects are made: nothing of the library's may need a
// constructor.
struct Early {
  char text[5] = {};
  char bytes[3] = {};
  int size = -1;
  int is_base64 = -1;

  Early() {
    (void)U_base64_encode("Man", text, 3);
    (void)U_base64_decode("TWFu", bytes, &size);
    is_base64 = is_base64_string("TWFu");
  }
};
[[gnu::init_priority(101)]] const Early early;

// ---- The peer ----

void append(std::string* bits, unsigned value, int count) {
  while (count-- > 0) bits->push_back((value >> count & 1) != 0 ? '1' : '0');
}

size_t valueOf(const std::string& bits, size_t from, size_t count) {
  size_t value = 0;
  for (size_t i = from; i < from + count; ++i) value = 2 * value + (bits[i] == '1' ? 1 : 0);
  return value;
}

std::string peerEncoded(const std::string& bytes) {
  std::string bits;
  for (const char c : bytes) append(&bits, static_cast<unsigned char>(c), 8);
  while (bits.size() % 6 != 0) bits += '0';
  std::string text;
  for (size_t i = 0; i < bits.size(); i += 6) text += kAlphabet[valueOf(bits, i, 6)];
  while (text.size() % 4 != 0) text += '=';
  return text;
}

// Decodes the characters of the alphabet up to the first "=".
std::string peerDecoded(const std::string& text) {
  std::string bits;
  for (const char c : text.substr(0, text.find('='))) {
    const char* const place = strchr(kAlphabet, c);
    if (place != nullptr) append(&bits, static_cast<unsigned>(place - kAlphabet), 6);
  }
  // A rest of 12 or 18 bits ends in bits that make no byte; a single character is filled up.
  if (bits.size() % 24 == 6) bits += "00";
  std::string bytes;
  for (size_t i = 0; i + 8 <= bits.size(); i += 8) bytes += static_cast<char>(valueOf(bits, i, 8));
  return bytes;
}

bool peerIsBase64(const std::string& text) {
  return text.substr(0, text.find('=')).find_first_not_of(kAlphabet) == std::string::npos;
}

// ---- Inputs ----

std::mt19937& randomness() {
  static std::mt19937 random(51);
  return random;
}

size_t randomBelow(size_t end) {
  return randomness()() % end;
}

std::string randomBytes(size_t size) {
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(randomBelow(256));
  return bytes;
}

std::string randomText(size_t size) {
  std::string text(size, '\0');
  for (char& c : text) c = kAlphabet[randomBelow(64)];
  return text;
}

// With foreign bytes in place of every `every`th character, on the average.
std::string randomMixture(size_t size, size_t every) {
  std::string text = randomText(size);
  for (char& c : text) {
    if (randomBelow(every) != 0) continue;
    do c = static_cast<char>(1 + randomBelow(255));
    while (c == '=' || strchr(kAlphabet, c) != nullptr);
  }
  return text;
}

std::string inLines(const std::string& text, size_t width, const std::string& end) {
  std::string lines;
  for (size_t i = 0; i < text.size(); i += width) lines += text.substr(i, width) + end;
  return lines;
}

std::string shown(const std::string& text) {
  return testing::PrintToString(text) + " (" + std::to_string(text.size()) + " bytes)";
}

// ---- The loops of one instruction set ----

class base64KernelTest : public testing::TestWithParam<const Kernel*> {
 protected:
  void SetUp() override {
    if (!kernel().runs())
      GTEST_SKIP() << "not run, because this processor has no " << kernel().name;
  }

  static const Kernel& kernel() { return *GetParam(); }

  // All of these give the buffers no byte more than the result takes.
  testing::AssertionResult encodes(const std::string& bytes) {
    const std::string expected = peerEncoded(bytes) + '\0';
    const char* const from = in_.take(bytes);
    char* const to = out_.take(expected.size());
    if (velorin::base64::encode(kernel(), from, to, static_cast<int>(bytes.size())) != to)
      return testing::AssertionFailure() << "does not return its result";
    return same("encoding", bytes, std::string(to, expected.size()), expected);
  }

  testing::AssertionResult decodes(const std::string& text) {
    const std::string expected = peerDecoded(text);
    const char* const from = in_.take(text + '\0');
    char* const to = out_.take(expected.size());
    int size = -1;
    if (velorin::base64::decode(kernel(), from, to, &size) != to)
      return testing::AssertionFailure() << "does not return its result";
    if (size != static_cast<int>(expected.size()))
      return testing::AssertionFailure() << "decoding " << shown(text) << " gives " << size
                                         << " bytes, not " << expected.size();
    return same("decoding", text, std::string(to, expected.size()), expected);
  }

  testing::AssertionResult decodesInPlace(const std::string& text) {
    const std::string expected = peerDecoded(text);
    char* const p = out_.take(text + '\0');
    int size = -1;
    (void)velorin::base64::decode(kernel(), p, p, &size);
    if (size != static_cast<int>(expected.size()))
      return testing::AssertionFailure() << "decoding " << shown(text) << " gives " << size
                                         << " bytes, not " << expected.size();
    const std::string behind = (text + '\0').substr(expected.size());
    return same("decoding in place", text, std::string(p, text.size() + 1), expected + behind);
  }

  testing::AssertionResult checks(const std::string& text) {
    const int is = velorin::base64::isBase64(kernel(), in_.take(text + '\0'));
    if (is != (peerIsBase64(text) ? 1 : 0))
      return testing::AssertionFailure() << "is_base64_string of " << shown(text) << " is " << is;
    return testing::AssertionSuccess();
  }

  testing::AssertionResult reads(const std::string& text) {
    const testing::AssertionResult result = decodes(text);
    return result ? checks(text) : result;
  }

 private:
  testing::AssertionResult same(const char* what, const std::string& input,
                                const std::string& result, const std::string& expected) {
    if (result != expected)
      return testing::AssertionFailure() << what << " " << shown(input) << " gives "
                                         << shown(result) << ", not " << shown(expected);
    if (!out_.canariesAlive())
      return testing::AssertionFailure()
             << what << " " << shown(input) << " writes in front of its result";
    return testing::AssertionSuccess();
  }

  Guarded in_{65536};
  Guarded out_{65536};
};

TEST_P(base64KernelTest, EveryLengthUpTo300IsEncodedAndDecoded) {
  for (size_t size = 0; size <= 300; ++size) {
    const std::string bytes = randomBytes(size);
    ASSERT_TRUE(encodes(bytes));
    ASSERT_TRUE(reads(peerEncoded(bytes)));
    ASSERT_TRUE(reads(randomText(size)));
  }
}

TEST_P(base64KernelTest, EveryByteValueIsEncodedInEveryPlace) {
  for (size_t place = 0; place < 100; ++place) {
    for (int value = 0; value < 256; ++value) {
      std::string bytes(100, '\x55');
      bytes[place] = static_cast<char>(value);
      ASSERT_TRUE(encodes(bytes));
    }
  }
}

// The padding, 0x80 to 0xFF and all characters of the alphabet among them.
TEST_P(base64KernelTest, EveryCharacterIsReadInEveryPlace) {
  const std::string text = randomText(134);  // two vectors of 64, a group, and two more
  for (size_t place = 0; place < text.size(); ++place) {
    for (int value = 1; value < 256; ++value) {
      std::string changed = text;
      changed[place] = static_cast<char>(value);
      ASSERT_TRUE(reads(changed));
    }
  }
}

TEST_P(base64KernelTest, ForeignByteIsSkippedInEveryPlaceOfEveryLength) {
  for (size_t size = 1; size <= 140; ++size) {
    const std::string text = randomText(size);
    for (size_t place = 0; place < size; ++place) {
      for (const char* foreign : {"\n", "\r\n", "\x80", "\xFF", "-", "@"}) {
        std::string changed = text;
        changed.insert(place, foreign);
        ASSERT_TRUE(reads(changed));
      }
    }
  }
}

TEST_P(base64KernelTest, PaddingEndsTheTextInEveryPlaceOfEveryLength) {
  for (size_t size = 1; size <= 140; ++size) {
    const std::string text = randomText(size);
    for (size_t place = 0; place < size; ++place) {
      for (const char* padding : {"=", "==", "=\n="}) {
        std::string changed = text;
        changed.insert(place, padding);
        ASSERT_TRUE(reads(changed));
      }
      std::string both = text;
      both[place] = '=';
      both[randomBelow(size)] = '\n';
      ASSERT_TRUE(reads(both));
    }
  }
}

TEST_P(base64KernelTest, LinesOfEveryLengthAreRead) {
  const std::string text = randomText(1001);
  for (size_t width = 1; width <= 100; ++width)
    for (const char* end : {"\n", "\r\n", "\r\n\t ", "=\n"})
      ASSERT_TRUE(reads(inLines(text, width, end))) << width;
}

// Texts are looked at in pieces of 8192 characters.
TEST_P(base64KernelTest, TextsAroundTheSizeOfAPieceAreRead) {
  const std::string text = randomText(16500);
  for (const size_t size :
       {8190u, 8191u, 8192u, 8193u, 8194u, 8195u, 8196u, 16383u, 16384u, 16385u, 16389u}) {
    const std::string shorter = text.substr(0, size);
    ASSERT_TRUE(reads(shorter));
    for (const size_t place : {size_t{0}, size_t{8187}, size - 2, size - 1}) {
      for (const char c : {'\n', '=', '\xC3'}) {
        std::string changed = shorter;
        changed[place] = c;
        ASSERT_TRUE(reads(changed));
        changed[place / 2] = ' ';
        ASSERT_TRUE(reads(changed));
      }
    }
    ASSERT_TRUE(reads(inLines(shorter, 76, "\r\n")));
    ASSERT_TRUE(reads(inLines(shorter, 75, "\n")));
  }
}

TEST_P(base64KernelTest, ManyForeignBytesInARowAreSkipped) {
  for (const size_t count : {1u, 63u, 64u, 65u, 1000u, 8192u, 20000u}) {
    const std::string foreign(count, ' ');
    ASSERT_TRUE(reads(foreign));
    ASSERT_TRUE(reads("TW" + foreign + "Fu"));
    ASSERT_TRUE(reads(randomText(70) + foreign + randomText(71) + foreign));
  }
}

TEST_P(base64KernelTest, TextIsDecodedInPlace) {
  for (size_t size = 0; size <= 300; ++size) ASSERT_TRUE(decodesInPlace(randomText(size)));
  for (size_t width = 1; width <= 100; ++width)
    ASSERT_TRUE(decodesInPlace(inLines(randomText(2000), width, "\n"))) << width;
  for (int i = 0; i < 500; ++i)
    ASSERT_TRUE(decodesInPlace(randomMixture(randomBelow(3000), 1 + randomBelow(100))));
  ASSERT_TRUE(decodesInPlace(inLines(randomText(40000), 75, "\n")));
}

TEST_P(base64KernelTest, SlowRandomBuffersAgreeWithThePeer) {
  for (int i = 0; i < 100000; ++i) {
    const std::string bytes = randomBytes(randomBelow(130));
    ASSERT_TRUE(encodes(bytes));
    ASSERT_TRUE(reads(i % 2 == 0 ? peerEncoded(bytes)
                                 : randomMixture(randomBelow(200), 1 + randomBelow(60))));
  }
}

INSTANTIATE_TEST_SUITE_P(All, base64KernelTest, testing::ValuesIn(kFastestFirst),
                         [](const testing::TestParamInfo<const Kernel*>& param) {
                           std::string name = param.param->name;
                           name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                           return name;
                         });

// ---- The functions ----

std::string encoded(const std::string& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '?');
  EXPECT_EQ(U_base64_encode(bytes.data(), text.data(), static_cast<int>(bytes.size())),
            text.data());
  EXPECT_EQ(text.back(), '\0');
  text.pop_back();
  return text;
}

std::string decoded(const std::string& text) {
  std::string bytes((text.size() + 3) / 4 * 3, '?');
  int size = -1;
  EXPECT_EQ(U_base64_decode(text.c_str(), bytes.data(), &size), bytes.data());
  return bytes.substr(0, static_cast<size_t>(size));
}

TEST(base64Test, VectorsOfRfc4648AreEncodedAndDecoded) {
  const struct {
    const char* bytes;
    const char* text;
  } vectors[] = {{"", ""},
                 {"f", "Zg=="},
                 {"fo", "Zm8="},
                 {"foo", "Zm9v"},
                 {"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="},
                 {"foobar", "Zm9vYmFy"}};
  for (const auto& vector : vectors) {
    EXPECT_EQ(encoded(vector.bytes), vector.text);
    EXPECT_EQ(decoded(vector.text), vector.bytes);
  }
}

TEST(base64Test, ThreeTwoAndOneByteMakeFourCharacters) {
  EXPECT_EQ(encoded("Man"), "TWFu");
  EXPECT_EQ(encoded("Ma"), "TWE=");
  EXPECT_EQ(encoded("M"), "TQ==");
}

TEST(base64Test, AlphabetIsInItsOrder) {
  EXPECT_STREQ(velorin::base64::base64_code, kAlphabet);
  const std::string bytes(
      "\x00\x10\x83\x10\x51\x87\x20\x92\x8B\x30\xD3\x8F\x41\x14\x93\x51"
      "\x55\x97\x61\x96\x9B\x71\xD7\x9F\x82\x18\xA3\x92\x59\xA7\xA2\x9A"
      "\xAB\xB2\xDB\xAF\xC3\x1C\xB3\xD3\x5D\xB7\xE3\x9E\xBB\xF3\xDF\xBF",
      48);
  EXPECT_EQ(encoded(bytes), kAlphabet);
  EXPECT_EQ(decoded(kAlphabet), bytes);
}

TEST(base64Test, ValuesAreThePlacesInTheAlphabetAndZeroForThePadding) {
  for (int c = 0; c < 256; ++c) {
    const char* const place = c != 0 ? strchr(kAlphabet, c) : nullptr;
    const int expected = place != nullptr ? static_cast<int>(place - kAlphabet) : c == '=' ? 0 : -1;
    EXPECT_EQ(velorin::base64::base64_value[c], expected) << c;
  }
}

TEST(base64Test, LengthOfZeroOrLessGivesTheEmptyText) {
  for (const int len : {0, -1, -3, INT_MIN}) {
    char text[] = "???";
    EXPECT_EQ(U_base64_encode("Man", text, len), text);
    EXPECT_EQ(std::string(text, 3), std::string("\0??", 3)) << len;
  }
}

TEST(base64Test, NullIsEncodedAsNullAndNothingIsWritten) {
  for (const int len : {3, 0, -1}) {
    char text[] = "?";
    EXPECT_EQ(U_base64_encode(nullptr, text, len), nullptr);
    EXPECT_EQ(text[0], '?');
  }
  EXPECT_EQ(U_base64_encode(nullptr, nullptr, 1), nullptr);
}

TEST(base64Test, NullIsDecodedAsNullWithALengthOfZero) {
  char bytes[] = "???";
  int size = 7;
  EXPECT_EQ(U_base64_decode(nullptr, bytes, &size), nullptr);
  EXPECT_EQ(size, 0);
  EXPECT_STREQ(bytes, "???");
  EXPECT_EQ(U_base64_decode(nullptr, bytes, nullptr), nullptr);
}

TEST(base64Test, LengthNeedNotBeAskedFor) {
  char bytes[] = "....!";
  EXPECT_EQ(U_base64_decode("TWFu", bytes, nullptr), bytes);
  EXPECT_STREQ(bytes, "Man.!");
}

TEST(base64Test, EmptyTextGivesNoByte) {
  char bytes[] = "?";
  int size = 7;
  EXPECT_EQ(U_base64_decode("", bytes, &size), bytes);
  EXPECT_EQ(size, 0);
  EXPECT_STREQ(bytes, "?");
}

TEST(base64Test, SpacesLineBreaksAndForeignBytesAreSkipped) {
  EXPECT_EQ(decoded("TW Fu"), "Man");
  EXPECT_EQ(decoded("TW\nFu"), "Man");
  EXPECT_EQ(decoded("TW\r\nFu\r\n"), "Man");
  EXPECT_EQ(decoded("T-W_F\x80u\xFF"), "Man");
  EXPECT_EQ(decoded("\x01\x7F!"), "");
}

TEST(base64Test, KeptWhatStandsBehindThePaddingIsIgnored) {
  EXPECT_EQ(decoded("TQ==garbage"), "M");
  EXPECT_EQ(decoded("TQ=TWFu"), "M");
  EXPECT_EQ(decoded("TWFu=TWFu"), "Man");
  EXPECT_EQ(decoded("=TWFu"), "");
  EXPECT_EQ(decoded("="), "");
}

TEST(base64Test, KeptASingleLeftoverCharacterYieldsOneByte) {
  char out[] = "??";
  int len = 0;
  U_base64_decode("T", out, &len);
  ASSERT_EQ(len, 1);
  EXPECT_EQ(out[0], '\x4C');
  EXPECT_EQ(out[1], '?');
  EXPECT_EQ(decoded("TWFuT"), "Man\x4C");
  EXPECT_EQ(decoded("TWFu/="), "Man\xFC");
}

TEST(base64Test, TwoLeftoverCharactersYieldOneByteAndThreeYieldTwo) {
  EXPECT_EQ(decoded("TW"), "M");
  EXPECT_EQ(decoded("T///"), "O\xFF\xFF");
  EXPECT_EQ(decoded("//"), "\xFF");
  EXPECT_EQ(decoded("TWE"), "Ma");
  EXPECT_EQ(decoded("///"), "\xFF\xFF");
}

TEST(base64Test, BytesAreNotEndedWithAZero) {
  char out[] = "?????";
  int len = 0;
  U_base64_decode("TWFu", out, &len);
  EXPECT_EQ(len, 3);
  EXPECT_STREQ(out, "Man??");
}

TEST(base64Test, TextOfTheAlphabetAloneIsBase64) {
  EXPECT_EQ(is_base64_string(""), 1);
  EXPECT_EQ(is_base64_string("ab+/"), 1);
  EXPECT_EQ(is_base64_string(kAlphabet), 1);
}

TEST(base64Test, UrlSafeLettersAndOtherForeignBytesAreNotBase64) {
  EXPECT_EQ(is_base64_string("ab-_"), 0);
  EXPECT_EQ(is_base64_string("ab c"), 0);
  EXPECT_EQ(is_base64_string("abc\n"), 0);
  EXPECT_EQ(is_base64_string("\n"), 0);
  EXPECT_EQ(is_base64_string("ab\x80"), 0);
  EXPECT_EQ(is_base64_string("!="), 0);
}

TEST(base64Test, KeptNothingBehindThePaddingIsExaminedForBase64) {
  EXPECT_EQ(is_base64_string("ab=!!"), 1);
  EXPECT_EQ(is_base64_string("="), 1);
  EXPECT_EQ(is_base64_string("=\n"), 1);
  EXPECT_EQ(is_base64_string("ab==="), 1);
}

TEST(base64Test, KeptTheLengthOfBase64NeedNotBeAMultipleOfFour) {
  EXPECT_EQ(is_base64_string("a"), 1);
  EXPECT_EQ(is_base64_string("abcde"), 1);
  EXPECT_EQ(is_base64_string("a="), 1);
}

TEST(base64Test, NullIsNotBase64) {
  EXPECT_EQ(is_base64_string(nullptr), 0);
}

TEST(base64Test, WorksInConstructorsOfStaticObjects) {
  EXPECT_STREQ(early.text, "TWFu");
  EXPECT_EQ(std::string(early.bytes, 3), "Man");
  EXPECT_EQ(early.size, 3);
  EXPECT_EQ(early.is_base64, 1);
}

TEST(base64Test, ThreadsDoNotDisturbEachOther) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      const std::string bytes(1000, static_cast<char>('a' + i));
      const std::string expected = peerEncoded(bytes);
      for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(encoded(bytes), expected);
        EXPECT_EQ(decoded(expected), bytes);
        EXPECT_EQ(is_base64_string(expected.c_str()), 1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(base64Test, LoopsThatRunEverywhereAreTheLastChoice) {
  EXPECT_EQ(kFastestFirst[velorin::base64::kKernels - 1], &velorin::base64::kPortable);
  EXPECT_TRUE(velorin::base64::kPortable.runs());
}

// ---- Against another program ----

class File {
 public:
  explicit File(const std::string& content) {
    const int fd = mkstemp(name_.data());
    if (fd < 0) abort();
    (void)close(fd);
    std::ofstream(name_, std::ios::binary) << content;
  }
  ~File() { (void)unlink(name_.c_str()); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const std::string& name() const { return name_; }

 private:
  std::string name_ = testing::TempDir() + "base64_test.XXXXXX";
};

// `shell_command`'s output for the bytes in `files`, line by line.
std::vector<std::string> linesOf(const std::string& shell_command,
                                 const std::vector<const File*>& files) {
  std::vector<std::string> argv = {"/bin/sh", "-c", shell_command, "sh"};
  for (const File* file : files) argv.push_back(file->name());
  const ChildResult peer = runProgram(argv);
  EXPECT_EQ(peer.exitCode(), 0) << peer;
  std::vector<std::string> lines;
  std::istringstream all(peer.out);
  for (std::string line; std::getline(all, line);) lines.push_back(line);
  return lines;
}

// By the public functions and by the loops of every instruction set that runs here.
void expectEncodedAs(const std::string& bytes, const std::string& text) {
  ASSERT_EQ(encoded(bytes), text);
  ASSERT_EQ(decoded(text), bytes);
  for (const Kernel* const kernel : kFastestFirst) {
    if (!kernel->runs()) continue;
    std::string our_text(text.size() + 1, '?');
    (void)velorin::base64::encode(*kernel, bytes.data(), our_text.data(),
                                  static_cast<int>(bytes.size()));
    ASSERT_EQ(our_text, text + '\0') << kernel->name;
    std::string our_bytes(bytes.size() + 3, '?');
    int size = -1;
    (void)velorin::base64::decode(*kernel, text.c_str(), our_bytes.data(), &size);
    ASSERT_EQ(size, static_cast<int>(bytes.size())) << kernel->name;
    ASSERT_EQ(our_bytes, bytes + "???") << kernel->name;
  }
}

TEST(base64Test, EveryLengthUpTo300AgreesWithTheSystemsBase64Program) {
  std::vector<std::string> buffers;
  std::vector<std::unique_ptr<File>> owned;
  std::vector<const File*> files;
  for (size_t size = 0; size <= 300; ++size) {
    buffers.push_back(randomBytes(size));
    owned.push_back(std::make_unique<File>(buffers.back()));
    files.push_back(owned.back().get());
  }
  const std::vector<std::string> lines =
      linesOf("for file; do base64 -w0 \"$file\" && echo; done", files);
  ASSERT_EQ(lines.size(), buffers.size());
  for (size_t i = 0; i < lines.size(); ++i)
    ASSERT_NO_FATAL_FAILURE(expectEncodedAs(buffers[i], lines[i])) << i << " bytes";
}

// Buffers of 3 to 300 bytes, a thousand of each size. In whole groups, so that the program can
// write many behind each other, a line for each.
TEST(base64Test, SlowHundredThousandRandomBuffersAgreeWithTheSystemsBase64Program) {
  constexpr size_t kBuffers = 1000;
  for (size_t size = 3; size <= 300; size += 3) {
    std::vector<std::string> buffers;
    std::string all;
    for (size_t i = 0; i < kBuffers; ++i) all += buffers.emplace_back(randomBytes(size));
    const File file(all);
    const std::vector<std::string> lines =
        linesOf("base64 -w" + std::to_string(size / 3 * 4) + " \"$1\"", {&file});
    ASSERT_EQ(lines.size(), kBuffers);
    for (size_t i = 0; i < kBuffers; ++i)
      ASSERT_NO_FATAL_FAILURE(expectEncodedAs(buffers[i], lines[i])) << size << " bytes";
  }
}

TEST(base64Test, TextsAreThoseOfTheSystemsBase64Program) {
  for (const size_t size : {0u, 1u, 2u, 57u, 58u, 1000u, 100000u}) {
    const std::string bytes = randomBytes(size);
    const File file(bytes);
    const ChildResult one_line = runProgram({"/usr/bin/base64", "-w0", file.name()});
    const ChildResult lines = runProgram({"/usr/bin/base64", file.name()});
    ASSERT_EQ(one_line.exitCode(), 0) << one_line;
    ASSERT_EQ(lines.exitCode(), 0) << lines;
    EXPECT_EQ(encoded(bytes), one_line.out);
    EXPECT_EQ(decoded(one_line.out), bytes);
    EXPECT_EQ(decoded(lines.out), bytes);
    const File text(encoded(bytes));
    const ChildResult back = runProgram({"/usr/bin/base64", "-d", text.name()});
    EXPECT_EQ(back.out, bytes);
  }
}

// ---- What an int can count ----

// Memory of any size in which every 64 MiB are the same.
class Repeated {
 public:
  Repeated(size_t size, char content) : size_((size + kPiece) / kPiece * kPiece) {
    const int fd = memfd_create("base64_test", 0);
    void* const all =
        mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (fd < 0 || ftruncate(fd, kPiece) != 0 || all == MAP_FAILED) abort();
    begin_ = static_cast<char*>(all);
    for (size_t i = 0; i < size_; i += kPiece) {
      if (mmap(begin_ + i, kPiece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) ==
          MAP_FAILED)
        abort();
    }
    (void)close(fd);
    memset(begin_, content, kPiece);
  }
  ~Repeated() { (void)munmap(begin_, size_); }
  Repeated(const Repeated&) = delete;
  Repeated& operator=(const Repeated&) = delete;

  char* begin() { return begin_; }

 private:
  static constexpr size_t kPiece = size_t{64} << 20;
  size_t size_;
  char* begin_;
};

constexpr uint64_t kMostBytes = 2147483646;
constexpr char kNoRoom[] = "not run, because a 32-bit process has no room for a text of 3 GB";

TEST(base64Test, SlowMoreBytesThanAnIntCountsAreNotDecoded) {
  if (sizeof(size_t) < 8) GTEST_SKIP() << kNoRoom;
  Repeated bytes(size_t{kMostBytes}, '?');
  constexpr size_t kTextPage = 4096;
  Repeated text(static_cast<size_t>(kMostBytes / 3 * 4 + kTextPage), '/');
  // The text ends 2 pages behind what is decoded.
  char* const last = text.begin() + kMostBytes / 3 * 4;
  char* const end = last + 2 * kTextPage - reinterpret_cast<uintptr_t>(last) % kTextPage;
  ASSERT_EQ(mmap(end, kTextPage, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0), end);
  int size = -1;
  EXPECT_EQ(U_base64_decode(text.begin(), bytes.begin(), &size), bytes.begin());
  EXPECT_EQ(size, int{kMostBytes});
  EXPECT_EQ(std::string(bytes.begin() + kMostBytes - 2, 2), "\xFF\xFF");
  EXPECT_EQ(is_base64_string(text.begin()), 1);
}

TEST(base64Test, SlowAsManyBytesAsAnIntCountsAreEncoded) {
  if (sizeof(size_t) < 8) GTEST_SKIP() << kNoRoom;
  Repeated bytes(size_t{INT_MAX}, '\xFF');
  Repeated text(size_t{INT_MAX} / 3 * 4 + 5, '?');
  EXPECT_EQ(U_base64_encode(bytes.begin(), text.begin(), INT_MAX), text.begin());
  EXPECT_STREQ(text.begin() + size_t{INT_MAX} / 3 * 4 - 4, "/////w==");
}

}  // namespace
