// MD5 and SHA-1 against coreutils, their text forms, digests of files, and the string hash.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sha_blocks.h"
#include "support/child.h"
#include "support/guarded.h"
#include "support/private_world.h"
#include "support/system_calls.h"
#include "velorin/Md5"
#include "velorin/hashmisc"
#include "velorin/md5"
#include "velorin/sha"

namespace {

using testing::Each;
using testing::EndsWith;
using testing::MatchesRegex;

// ---- Digests of whole messages, as hexadecimal text ----

unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
}

std::string hex(const unsigned char* bytes, size_t size) {
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    char two[3];
    (void)snprintf(two, sizeof two, "%02x", bytes[i]);
    text += two;
  }
  return text;
}

// Pieces of `pieces` bytes each, the last perhaps shorter.
std::string md5Of(const std::string& message, size_t pieces = UINT_MAX) {
  MD5_CTX context;
  MD5Init(&context);
  for (size_t i = 0; i < message.size(); i += pieces)
    MD5Update(&context, bytesOf(message) + i,
              static_cast<unsigned>(std::min(pieces, message.size() - i)));
  unsigned char digest[16];
  MD5Final(digest, &context);
  return hex(digest, sizeof digest);
}

std::string sha1Of(const std::string& message, size_t pieces = UINT_MAX) {
  SHA1Context context;
  EXPECT_EQ(SHA1Reset(&context), shaSuccess);
  for (size_t i = 0; i < message.size(); i += pieces)
    EXPECT_EQ(SHA1Input(&context, bytesOf(message) + i,
                        static_cast<unsigned>(std::min(pieces, message.size() - i))),
              shaSuccess);
  uint8_t digest[SHA1HashSize];
  EXPECT_EQ(SHA1Result(&context, digest), shaSuccess);
  return hex(digest, sizeof digest);
}

// SHA-1 by one kernel, whatever the processor's choice is.
std::string sha1By(velorin::internal::Sha1Blocks* kernel, std::string message) {
  const uint64_t bits = uint64_t{message.size()} * 8;
  message += '\x80';
  while (message.size() % 64 != 56) message += '\0';
  for (int shift = 56; shift >= 0; shift -= 8) message += static_cast<char>(bits >> shift);
  uint32_t state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  kernel(state, bytesOf(message), message.size() / 64);
  unsigned char digest[SHA1HashSize];
  for (size_t i = 0; i < sizeof digest; ++i)
    digest[i] = static_cast<unsigned char>(state[i / 4] >> (24 - 8 * (i % 4)));
  return hex(digest, sizeof digest);
}

std::string digitsTimes(size_t times, const std::string& text = "1234567890") {
  std::string result;
  for (size_t i = 0; i < times; ++i) result += text;
  return result;
}

// ---- The peer ----

std::string randomBytes(std::mt19937* random, size_t size) {
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>((*random)());
  return bytes;
}

// Of every length from 0 to 300.
std::vector<std::string> shortMessages() {
  std::mt19937 random(51);
  std::vector<std::string> messages;
  for (size_t size = 0; size <= 300; ++size) messages.push_back(randomBytes(&random, size));
  return messages;
}

// What coreutils' `program` prints for the messages, in files of the private world.
std::vector<std::string> sumsBy(const std::string& program,
                                const std::vector<std::string>& messages) {
  const std::string folder = "/tmp/messages";
  std::filesystem::create_directory(folder);
  std::vector<std::string> command = {program};
  for (size_t i = 0; i < messages.size(); ++i) {
    command.push_back(folder + "/" + std::to_string(i));
    std::ofstream(command.back(), std::ios::binary) << messages[i];
  }
  const ChildResult peer = runProgram(command);
  EXPECT_EQ(peer.exitCode(), 0) << peer;

  std::vector<std::string> sums;
  std::istringstream lines(peer.out);
  for (std::string sum, name; lines >> sum >> name;) sums.push_back(sum);
  EXPECT_EQ(sums.size(), messages.size());
  sums.resize(messages.size());
  std::filesystem::remove_all(folder);
  return sums;
}

template <class Ours>
void expectSumsOf(const std::string& program, const std::vector<std::string>& messages, Ours ours) {
  const std::vector<std::string> sums = sumsBy(program, messages);
  for (size_t i = 0; i < messages.size(); ++i)
    ASSERT_EQ(ours(messages[i]), sums[i]) << "message " << i << ", bytes: " << messages[i].size();
}

// 10^5 messages of up to 700 bytes, and what `ours` makes of them.
template <class Ours>
void expectSumsOfRandomMessages(const std::string& program, Ours ours) {
  std::mt19937 random(52);
  for (int batch = 0; batch < 25; ++batch) {
    std::vector<std::string> messages;
    for (int i = 0; i < 4000; ++i) messages.push_back(randomBytes(&random, random() % 701));
    expectSumsOf(program, messages, ours);
    if (testing::Test::HasFatalFailure()) return;
  }
}

// ---- Results ----

// Room for a result, with bytes in front and behind that must stay.
template <size_t bytes>
struct Room {
  unsigned char front[16], result[bytes], behind[16];

  Room() { memset(this, 0xA5, sizeof *this); }
  void expectNeighboursUntouched() const {
    EXPECT_THAT(front, Each(0xA5));
    EXPECT_THAT(behind, Each(0xA5));
  }
};

// ---- What more than one test needs ----

// Digests before this program's other objects are made, the library's among them, which is linked
// into it: nothing of the library's may need a constructor.
struct Early {
  unsigned char md5[16];
  uint8_t sha1[SHA1HashSize];

  Early() {
    unsigned char abc[] = {'a', 'b', 'c'};
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, abc, sizeof abc);
    MD5Final(md5, &context);
    SHA1Context sha_context;
    (void)SHA1Reset(&sha_context);
    (void)SHA1Input(&sha_context, abc, sizeof abc);
    (void)SHA1Result(&sha_context, sha1);
  }
};
[[gnu::init_priority(101)]] const Early early;

// Zeros without memory of their own.
class ManyZeros {
 public:
  explicit ManyZeros(size_t size) : size_(size) {
    memory_ = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_NE(memory_, MAP_FAILED);
  }
  ~ManyZeros() { (void)munmap(memory_, size_); }
  ManyZeros(const ManyZeros&) = delete;
  ManyZeros& operator=(const ManyZeros&) = delete;

  unsigned char* get() const { return static_cast<unsigned char*>(memory_); }

 private:
  void* memory_;
  size_t size_;
};

// A pipe whose reader gets one write of its writer at a time, and the path to open it by.
class Packets {
 public:
  Packets() {
    EXPECT_EQ(pipe2(ends_, O_DIRECT | O_CLOEXEC), 0);
    path_ = "/proc/self/fd/" + std::to_string(ends_[0]);
  }
  ~Packets() {
    finish();
    (void)close(ends_[0]);
  }
  Packets(const Packets&) = delete;
  Packets& operator=(const Packets&) = delete;

  const std::string& path() const { return path_; }
  void write(const std::string& packet) {
    EXPECT_EQ(::write(ends_[1], packet.data(), packet.size()), static_cast<ssize_t>(packet.size()));
  }
  void finish() {
    if (ends_[1] >= 0) (void)close(ends_[1]);
    ends_[1] = -1;
  }

 private:
  int ends_[2];
  std::string path_;
};

size_t openFiles() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(files), end(files)));
}

void makeSparse(const std::string& path, off_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(ftruncate(fd, size), 0) << strerror(errno);
  (void)close(fd);
}

struct Vector {
  std::string message;
  const char* digest;
};

// What coreutils print for so many zeros.
constexpr off_t k512MiB = off_t{512} << 20;
constexpr char kMd5Of512MiBAnd3[] = "f477dd2300ffb741b990c4eac208d915";
constexpr char kSha1Of512MiBAnd3[] = "b28134b042220c2b14020c385afce20377858cf2";
constexpr off_t k4GiB = off_t{4} << 30;
constexpr char kMd5Of4GiBAnd5[] = "968a8809aa0886d87f385d88733a98d2";

// ---- md5 ----

class md5Test : public PrivateWorld {};

TEST_F(md5Test, AnswersAreThoseOfRfc1321) {
  const Vector vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {digitsTimes(8), "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const Vector& vector : vectors) EXPECT_EQ(md5Of(vector.message), vector.digest);
}

TEST_F(md5Test, EveryLengthUpTo300AgreesWithMd5sum) {
  expectSumsOf("md5sum", shortMessages(), [](const std::string& m) { return md5Of(m); });
}

TEST_F(md5Test, SlowHundredThousandRandomMessagesAgreeWithMd5sum) {
  expectSumsOfRandomMessages("md5sum", [](const std::string& m) { return md5Of(m); });
}

TEST_F(md5Test, HowAMessageIsCutChangesNothing) {
  std::mt19937 random(53);
  const std::string message = randomBytes(&random, 300);
  const std::string whole = sumsBy("md5sum", {message})[0];
  for (size_t pieces = 1; pieces <= 300; ++pieces) EXPECT_EQ(md5Of(message, pieces), whole);
  for (size_t cut = 0; cut <= 300; ++cut) {
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, bytesOf(message), static_cast<unsigned>(cut));
    MD5Update(&context, bytesOf(message) + cut, static_cast<unsigned>(300 - cut));
    unsigned char digest[16];
    MD5Final(digest, &context);
    EXPECT_EQ(hex(digest, 16), whole) << cut;
  }
}

TEST_F(md5Test, NoBytesAtANullAddressChangeNothing) {
  MD5_CTX context;
  MD5Init(&context);
  MD5Update(&context, nullptr, 0);
  MD5Update(&context, bytesOf("a"), 1);
  MD5Update(&context, nullptr, 0);
  unsigned char digest[16];
  MD5Final(digest, &context);
  EXPECT_EQ(hex(digest, 16), "0cc175b9c0f1b6a831c399e269772661");
}

TEST_F(md5Test, FinalWritesSixteenBytesAndClearsTheContext) {
  Room<sizeof(MD5_CTX)> place;
  auto* const context = reinterpret_cast<MD5_CTX*>(place.result);
  MD5Init(context);
  MD5Update(context, bytesOf("abc"), 3);
  Room<16> digest;
  MD5Final(digest.result, context);
  EXPECT_EQ(hex(digest.result, 16), "900150983cd24fb0d6963f7d28e17f72");
  digest.expectNeighboursUntouched();
  EXPECT_THAT(place.result, Each(0));
  place.expectNeighboursUntouched();
}

TEST_F(md5Test, InputIsReadToItsEndAndNotChanged) {
  std::mt19937 random(54);
  for (const size_t size : {1u, 3u, 63u, 64u, 65u, 127u, 128u, 300u}) {
    const std::string message = randomBytes(&random, size);
    const Guarded input(message);
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, input.bytes(), static_cast<unsigned>(size));
    unsigned char digest[16];
    MD5Final(digest, &context);
    EXPECT_EQ(hex(digest, 16), md5Of(message));
    EXPECT_EQ(memcmp(input.bytes(), message.data(), size), 0);
  }
}

TEST_F(md5Test, InputAndDigestMayLieAtAnyAddress) {
  const std::string message = digitsTimes(8);
  for (size_t offset = 0; offset < 16; ++offset) {
    unsigned char input[96], digest[32];
    memcpy(input + offset, message.data(), message.size());
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, input + offset, 80);
    MD5Final(digest + offset, &context);
    EXPECT_EQ(hex(digest + offset, 16), "57edf4a22be3c955ac49da2e2107b67a");
  }
}

TEST_F(md5Test, ACopyOfTheContextGoesOnByItself) {
  MD5_CTX context;
  MD5Init(&context);
  MD5Update(&context, bytesOf("a"), 1);
  MD5_CTX copy = context;
  MD5Update(&copy, bytesOf("bc"), 2);
  unsigned char digest[16];
  MD5Final(digest, &copy);
  EXPECT_EQ(hex(digest, 16), "900150983cd24fb0d6963f7d28e17f72");
  MD5Final(digest, &context);
  EXPECT_EQ(hex(digest, 16), "0cc175b9c0f1b6a831c399e269772661");
}

TEST_F(md5Test, TheContextHoldsStateBitCountAndWhatWaits) {
  MD5_CTX context;
  MD5Init(&context);
  EXPECT_THAT(context.state, testing::ElementsAre(0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476));
  MD5Update(&context, bytesOf("abc"), 3);
  EXPECT_THAT(context.count, testing::ElementsAre(24, 0));
  EXPECT_EQ(memcmp(context.buffer, "abc", 3), 0);
}

TEST_F(md5Test, TheBitCountCarriesIntoItsHighWordAndWrapsThere) {
  const std::string block(64, 'x');
  MD5_CTX context;
  MD5Init(&context);
  context.count[0] = 0xFFFFFE00;
  MD5Update(&context, bytesOf(block), 64);
  EXPECT_THAT(context.count, testing::ElementsAre(0, 1));
  context.count[0] = 0xFFFFFE00;
  context.count[1] = UINT32_MAX;
  MD5Update(&context, bytesOf(block), 64);
  EXPECT_THAT(context.count, testing::ElementsAre(0, 0));
}

TEST_F(md5Test, SlowOneCallOf512MiBHasTheRightLength) {
  const ManyZeros zeros(k512MiB + 3);
  MD5_CTX context;
  MD5Init(&context);
  MD5Update(&context, zeros.get(), k512MiB + 3);
  EXPECT_THAT(context.count, testing::ElementsAre(24, 1));
  unsigned char digest[16];
  MD5Final(digest, &context);
  EXPECT_EQ(hex(digest, 16), kMd5Of512MiBAnd3);
}

// ---- sha ----

class shaTest : public PrivateWorld {};

const Vector kSha1Vectors[] = {
    {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    {digitsTimes(80, "01234567"), "dea356a2cddd90c7a7ecedc5ebb563934f460452"},
};

TEST_F(shaTest, AnswersAreThoseOfRfc3174) {
  for (const Vector& vector : kSha1Vectors) EXPECT_EQ(sha1Of(vector.message), vector.digest);
  EXPECT_EQ(sha1Of(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_F(shaTest, EveryLengthUpTo300AgreesWithSha1sum) {
  expectSumsOf("sha1sum", shortMessages(), [](const std::string& m) { return sha1Of(m); });
}

TEST_F(shaTest, SlowHundredThousandRandomMessagesAgreeWithSha1sum) {
  expectSumsOfRandomMessages("sha1sum", [](const std::string& m) { return sha1Of(m); });
}

// What a processor with the SHA extensions never chooses is tested on it nevertheless.
TEST_F(shaTest, PortableCodeAgreesWithRfcAndSha1sum) {
  const auto ours = [](const std::string& m) {
    return sha1By(velorin::internal::sha1BlocksPortable, m);
  };
  for (const Vector& vector : kSha1Vectors) EXPECT_EQ(ours(vector.message), vector.digest);
  expectSumsOf("sha1sum", shortMessages(), ours);
}

TEST_F(shaTest, SlowPortableCodeAgreesWithSha1sumOnHundredThousandRandomMessages) {
  expectSumsOfRandomMessages("sha1sum", [](const std::string& m) {
    return sha1By(velorin::internal::sha1BlocksPortable, m);
  });
}

TEST_F(shaTest, ExtensionsAgreeWithRfcAndSha1sum) {
  if (!velorin::internal::hasShaExtensions()) GTEST_SKIP() << "this processor has none";
  const auto ours = [](const std::string& m) {
    return sha1By(velorin::internal::sha1BlocksExtensions, m);
  };
  for (const Vector& vector : kSha1Vectors) EXPECT_EQ(ours(vector.message), vector.digest);
  expectSumsOf("sha1sum", shortMessages(), ours);
}

TEST_F(shaTest, ExtensionsAreUsedWhereTheKernelListsThem) {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line) && line.compare(0, 5, "flags") != 0) continue;
  ASSERT_EQ(line.compare(0, 5, "flags"), 0);
  line += ' ';
  bool all = true;
  for (const char* flag : {" sha_ni ", " ssse3 ", " sse4_1 "})
    all = all && line.find(flag) != std::string::npos;
  EXPECT_EQ(velorin::internal::hasShaExtensions(), all);
}

TEST_F(shaTest, KernelsLeaveTheStateAloneForNoBlocks) {
  uint32_t state[] = {1, 2, 3, 4, 5};
  velorin::internal::sha1Blocks(state, nullptr, 0);
  velorin::internal::sha1BlocksPortable(state, nullptr, 0);
  if (velorin::internal::hasShaExtensions())
    velorin::internal::sha1BlocksExtensions(state, nullptr, 0);
  EXPECT_THAT(state, testing::ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(shaTest, HowAMessageIsCutChangesNothing) {
  std::mt19937 random(55);
  const std::string message = randomBytes(&random, 300);
  const std::string whole = sumsBy("sha1sum", {message})[0];
  for (size_t pieces = 1; pieces <= 300; ++pieces) EXPECT_EQ(sha1Of(message, pieces), whole);
  for (size_t cut = 0; cut <= 300; ++cut) {
    SHA1Context context;
    SHA1Reset(&context);
    SHA1Input(&context, bytesOf(message), static_cast<unsigned>(cut));
    SHA1Input(&context, bytesOf(message) + cut, static_cast<unsigned>(300 - cut));
    uint8_t digest[SHA1HashSize];
    SHA1Result(&context, digest);
    EXPECT_EQ(hex(digest, sizeof digest), whole) << cut;
  }
}

TEST_F(shaTest, ResultCodesAreNumberedAsInTheRfc) {
  EXPECT_EQ(shaSuccess, 0);
  EXPECT_EQ(shaNull, 1);
  EXPECT_EQ(shaInputTooLong, 2);
  EXPECT_EQ(shaStateError, 3);
}

TEST_F(shaTest, NullArgumentsAreAnsweredWithShaNull) {
  SHA1Context context;
  uint8_t digest[SHA1HashSize];
  EXPECT_EQ(SHA1Reset(nullptr), shaNull);
  EXPECT_EQ(SHA1Reset(&context), shaSuccess);
  EXPECT_EQ(SHA1Input(nullptr, bytesOf("a"), 1), shaNull);
  EXPECT_EQ(SHA1Input(&context, nullptr, 1), shaNull);
  EXPECT_EQ(SHA1Result(nullptr, digest), shaNull);
  EXPECT_EQ(SHA1Result(&context, nullptr), shaNull);
  EXPECT_EQ(SHA1Result(&context, digest), shaSuccess);
  EXPECT_EQ(hex(digest, sizeof digest), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_F(shaTest, NoBytesSucceedWhateverElseIsGiven) {
  SHA1Context context;
  uint8_t digest[SHA1HashSize];
  SHA1Reset(&context);
  EXPECT_EQ(SHA1Input(nullptr, nullptr, 0), shaSuccess);
  EXPECT_EQ(SHA1Input(&context, nullptr, 0), shaSuccess);
  SHA1Result(&context, digest);
  EXPECT_EQ(SHA1Input(&context, bytesOf("a"), 0), shaSuccess);
  EXPECT_EQ(SHA1Result(&context, digest), shaSuccess);
}

TEST_F(shaTest, ResultMayBeAskedForAgain) {
  SHA1Context context;
  SHA1Reset(&context);
  SHA1Input(&context, bytesOf("abc"), 3);
  for (int i = 0; i < 3; ++i) {
    Room<SHA1HashSize> digest;
    EXPECT_EQ(SHA1Result(&context, digest.result), shaSuccess);
    EXPECT_EQ(hex(digest.result, SHA1HashSize), "a9993e364706816aba3e25717850c26c9cd0d89d");
    digest.expectNeighboursUntouched();
  }
}

TEST_F(shaTest, ResultForgetsTheMessage) {
  SHA1Context context;
  SHA1Reset(&context);
  SHA1Input(&context, bytesOf("secret"), 6);
  EXPECT_EQ(context.Length_Low, 48u);
  EXPECT_EQ(context.Message_Block_Index, 6);
  uint8_t digest[SHA1HashSize];
  SHA1Result(&context, digest);
  EXPECT_THAT(context.Message_Block, Each(0));
  EXPECT_EQ(context.Length_Low, 0u);
  EXPECT_EQ(context.Length_High, 0u);
  EXPECT_EQ(context.Message_Block_Index, 0);
  EXPECT_EQ(context.Computed, 1);
}

TEST_F(shaTest, InputBehindTheEndLosesTheDigestUntilReset) {
  SHA1Context context;
  SHA1Reset(&context);
  Room<SHA1HashSize> digest;
  SHA1Result(&context, digest.result);
  EXPECT_EQ(SHA1Input(&context, bytesOf("a"), 1), shaStateError);
  EXPECT_EQ(SHA1Input(&context, bytesOf("a"), 1), shaStateError);
  memset(digest.result, 0x77, sizeof digest.result);
  EXPECT_EQ(SHA1Result(&context, digest.result), shaStateError);
  EXPECT_THAT(digest.result, Each(0x77));

  SHA1Reset(&context);
  EXPECT_EQ(SHA1Input(&context, bytesOf("abc"), 3), shaSuccess);
  EXPECT_EQ(SHA1Result(&context, digest.result), shaSuccess);
  EXPECT_EQ(hex(digest.result, SHA1HashSize), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST_F(shaTest, TheLengthCarriesIntoItsHighWord) {
  const std::string block(64, 'x');
  SHA1Context context;
  SHA1Reset(&context);
  context.Length_Low = 0xFFFFFE00;
  EXPECT_EQ(SHA1Input(&context, bytesOf(block), 64), shaSuccess);
  EXPECT_EQ(context.Length_Low, 0u);
  EXPECT_EQ(context.Length_High, 1u);
  EXPECT_EQ(context.Corrupted, 0);
}

TEST_F(shaTest, KeptAMessageOf2To64BitsIsAnsweredWith1FromTheNextCallOn) {
  for (const unsigned more : {1u, 2u, 200u}) {
    const std::string bytes(200, 'x');
    SHA1Context context;
    SHA1Reset(&context);
    context.Length_Low = 0xFFFFFFF8;
    context.Length_High = 0xFFFFFFFF;
    EXPECT_EQ(SHA1Input(&context, bytesOf(bytes), more), shaSuccess);
    EXPECT_EQ(context.Corrupted, 1);
    EXPECT_EQ(context.Length_Low, 0u);
    EXPECT_EQ(context.Length_High, 0u);
    EXPECT_EQ(context.Message_Block_Index, 1);
    EXPECT_EQ(SHA1Input(&context, bytesOf(bytes), 1), 1);
    Room<SHA1HashSize> digest;
    EXPECT_EQ(SHA1Result(&context, digest.result), 1);
    EXPECT_THAT(digest.result, Each(0xA5));
  }
}

TEST_F(shaTest, AMessageOneByteShorterIsDigested) {
  SHA1Context context;
  SHA1Reset(&context);
  context.Length_Low = 0xFFFFFFF0;
  context.Length_High = 0xFFFFFFFF;
  EXPECT_EQ(SHA1Input(&context, bytesOf("a"), 1), shaSuccess);
  uint8_t digest[SHA1HashSize];
  EXPECT_EQ(SHA1Result(&context, digest), shaSuccess);
}

TEST_F(shaTest, AContextThatWasNeverResetDoesNotLeadOutsideItsBlock) {
  for (const int index : {-32768, -1, 64, 1000, 32767}) {
    Room<sizeof(SHA1Context)> place;
    auto* const context = reinterpret_cast<SHA1Context*>(place.result);
    SHA1Reset(context);
    context->Message_Block_Index = static_cast<int16_t>(index);
    const std::string bytes(100, 'x');
    EXPECT_EQ(SHA1Input(context, bytesOf(bytes), 100), shaSuccess);
    context->Message_Block_Index = static_cast<int16_t>(index);
    uint8_t digest[SHA1HashSize];
    EXPECT_EQ(SHA1Result(context, digest), shaSuccess);
    place.expectNeighboursUntouched();
  }
}

TEST_F(shaTest, InputIsReadToItsEndAndNoFurther) {
  std::mt19937 random(56);
  for (const size_t size : {1u, 3u, 63u, 64u, 65u, 127u, 128u, 300u}) {
    const std::string message = randomBytes(&random, size);
    const Guarded input(message);
    SHA1Context context;
    SHA1Reset(&context);
    SHA1Input(&context, input.bytes(), static_cast<unsigned>(size));
    uint8_t digest[SHA1HashSize];
    SHA1Result(&context, digest);
    EXPECT_EQ(hex(digest, sizeof digest), sha1Of(message));
    if (size % 64 != 0) continue;
    uint32_t state[5] = {};
    velorin::internal::sha1BlocksPortable(state, input.bytes(), size / 64);
  }
}

TEST_F(shaTest, InputMayLieAtAnyAddress) {
  const std::string message = digitsTimes(16, "01234567");
  for (size_t offset = 0; offset < 16; ++offset) {
    const std::string moved = std::string(offset, 'x') + message;
    SHA1Context context;
    SHA1Reset(&context);
    SHA1Input(&context, bytesOf(moved) + offset, 128);
    uint8_t digest[SHA1HashSize];
    SHA1Result(&context, digest);
    EXPECT_EQ(hex(digest, sizeof digest), "2249bd93900b5cb32bd4714a2be11e4c18450623") << offset;
  }
}

TEST_F(shaTest, SlowOneCallOf512MiBHasTheRightLength) {
  const ManyZeros zeros(k512MiB + 3);
  SHA1Context context;
  SHA1Reset(&context);
  EXPECT_EQ(SHA1Input(&context, zeros.get(), k512MiB + 3), shaSuccess);
  EXPECT_EQ(context.Length_Low, 24u);
  EXPECT_EQ(context.Length_High, 1u);
  uint8_t digest[SHA1HashSize];
  SHA1Result(&context, digest);
  EXPECT_EQ(hex(digest, sizeof digest), kSha1Of512MiBAnd3);
}

TEST_F(shaTest, StaticInitialisersMayDigest) {
  EXPECT_EQ(hex(early.md5, sizeof early.md5), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(hex(early.sha1, sizeof early.sha1), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST_F(shaTest, ThreadsDigestAtTheSameTime) {
  std::vector<std::string> digests(4);
  std::vector<std::thread> threads;
  for (std::string& digest : digests)
    threads.emplace_back([&digest] { digest = md5Of("abc") + " " + sha1Of("abc"); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(digests, Each("900150983cd24fb0d6963f7d28e17f72 "
                            "a9993e364706816aba3e25717850c26c9cd0d89d"));
}

// ---- hashmisc ----

class hashmiscTest : public PrivateWorld {};

TEST_F(hashmiscTest, HashesAreTheSameOnBothTargets) {
  const struct {
    std::string text;
    unsigned long hash;
  } examples[] = {
      {"", 0},
      {"a", 1261},
      {"Z", 1170},
      {"ab", 21450},
      {"abcdefgh", 266062568},
      {"/var/cache/media/film.asx", 128363880},
      {"the quick brown fox jumps over the lazy dog", 127363307},
      {std::string(1000, 'a'), 5509309},
      {std::string(9, '\x7f'), 18002355},
  };
  for (const auto& example : examples)
    EXPECT_EQ(hash_pjw(example.text.c_str()), example.hash) << example.text;
}

TEST_F(hashmiscTest, KeptTheHashMultipliesEachCharacterBy13) {
  EXPECT_EQ(hash_pjw("\x01"), 13ul);
  EXPECT_EQ(hash_pjw("a"), 97ul * 13);
  EXPECT_EQ(hash_pjw("ab"), 97ul * 13 * 16 + 98 * 13);
}

TEST_F(hashmiscTest, KeptTheHashTakesCharactersFrom0x80OnAsNegative) {
  EXPECT_EQ(hash_pjw("\x80"), 268433776ul);
  EXPECT_EQ(hash_pjw("\xff"), 268435203ul);
  EXPECT_EQ(hash_pjw("z\xe9ro"), 6444867ul);
  EXPECT_EQ(hash_pjw(std::string(9, '\xff').c_str()), 232599539ul);
  EXPECT_EQ(hash_pjw(std::string(9, '\x80').c_str()), 268042352ul);
}

TEST_F(hashmiscTest, HashReadsNothingBehindTheTerminatingZero) {
  const Guarded text(std::string("ab\0", 3));
  EXPECT_EQ(hash_pjw(text.get()), 21450ul);
}

TEST_F(hashmiscTest, HumanFormIsLowerCaseAndTerminated) {
  Room<33> human;
  unsigned char raw[16] = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00, 0xb2, 0x04,
                           0xe9, 0x80, 0x09, 0x98, 0xec, 0xf8, 0x42, 0x7e};
  rawmd5_to_humanmd5(human.result, raw);
  EXPECT_STREQ(reinterpret_cast<char*>(human.result), "d41d8cd98f00b204e9800998ecf8427e");
  human.expectNeighboursUntouched();
}

TEST_F(hashmiscTest, HumanFormReadsBackToTheSameBytes) {
  for (unsigned first = 0; first < 256; ++first) {
    unsigned char raw[16], human[33];
    for (unsigned i = 0; i < 16; ++i) raw[i] = static_cast<unsigned char>(first + 17 * i);
    rawmd5_to_humanmd5(human, raw);
    Room<16> again;
    humanmd5_to_rawmd5(again.result, human);
    EXPECT_EQ(memcmp(again.result, raw, 16), 0) << first;
    again.expectNeighboursUntouched();
  }
}

std::string rawOf(const std::string& human) {
  const Guarded text(human);
  Room<16> raw;
  humanmd5_to_rawmd5(raw.result, text.bytes());
  raw.expectNeighboursUntouched();
  return hex(raw.result, 16);
}

TEST_F(hashmiscTest, KeptUpperCaseLettersReadAsZero) {
  EXPECT_EQ(rawOf("D41D8CD98F00B204E9800998ECF8427E"), "04108009800002040980099800084270");
}

TEST_F(hashmiscTest, KeptEveryCharacterThatIsNoDigitReadsAsZeroAndFailsNoAssertion) {
  for (int c = 1; c < 256; ++c) {
    const std::string digits = "0123456789abcdef";
    const size_t value = digits.find(static_cast<char>(c));
    const std::string expected(1, value == std::string::npos ? '0' : static_cast<char>(c));
    EXPECT_EQ(rawOf(digitsTimes(32, std::string(1, static_cast<char>(c)))),
              digitsTimes(32, expected))
        << c;
  }
}

TEST_F(hashmiscTest, ShortTextsAreReadToTheirEndAndFilledWithZero) {
  EXPECT_EQ(rawOf(std::string("", 1)), "00000000000000000000000000000000");
  EXPECT_EQ(rawOf(std::string("d", 2)), "d0000000000000000000000000000000");
  EXPECT_EQ(rawOf(std::string("d4", 3)), "d4000000000000000000000000000000");
  EXPECT_EQ(rawOf(std::string("d41", 4)), "d4100000000000000000000000000000");
  EXPECT_EQ(rawOf(std::string("d41d8cd98f00b204e9800998ecf8427", 32)),
            "d41d8cd98f00b204e9800998ecf84270");
}

TEST_F(hashmiscTest, NothingBehindTheThirtySecondCharacterIsRead) {
  EXPECT_EQ(rawOf("d41d8cd98f00b204e9800998ecf8427e"), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST_F(hashmiscTest, BothFormsMayLieAtOnePlace) {
  unsigned char place[33] = "d41d8cd98f00b204e9800998ecf8427e";
  humanmd5_to_rawmd5(place, place);
  EXPECT_EQ(hex(place, 16), "d41d8cd98f00b204e9800998ecf8427e");
  rawmd5_to_humanmd5(place, place);
  EXPECT_STREQ(reinterpret_cast<char*>(place), "d41d8cd98f00b204e9800998ecf8427e");

  unsigned char brief[17] = "d41";
  humanmd5_to_rawmd5(brief, brief);
  EXPECT_EQ(hex(brief, 16), "d4100000000000000000000000000000");
}

// The result and the digest, behind each other.
std::string md5sumFile(const std::string& path) {
  Room<16> md5sum;
  const int result = md5sum_file(path.c_str(), md5sum.result);
  md5sum.expectNeighboursUntouched();
  return std::to_string(result) + " " + hex(md5sum.result, 16);
}

constexpr char kZeros[] = " 00000000000000000000000000000000";

TEST_F(hashmiscTest, FilesOfAllSizesAroundTheBlocksAgreeWithMd5sum) {
  std::mt19937 random(57);
  std::vector<std::string> contents;
  for (const size_t size : {0, 1, 4096, 16383, 16384, 16385, 32768, 50000, 1000000})
    contents.push_back(randomBytes(&random, size));
  const std::vector<std::string> sums = sumsBy("md5sum", contents);
  for (size_t i = 0; i < contents.size(); ++i) {
    write("/tmp/file", contents[i]);
    EXPECT_EQ(md5sumFile("/tmp/file"), "0 " + sums[i]) << contents[i].size();
  }
}

TEST_F(hashmiscTest, AFileThatCannotBeOpenedLeavesZerosAndMinusTheError) {
  EXPECT_EQ(md5sumFile("/tmp/missing"), std::to_string(-ENOENT) + kZeros);
  write("/tmp/file", "abc");
  EXPECT_EQ(md5sumFile("/tmp/file/below"), std::to_string(-ENOTDIR) + kZeros);
  EXPECT_EQ(md5sumFile(""), std::to_string(-ENOENT) + kZeros);
}

TEST_F(hashmiscTest, AFileThatCannotBeReadLeavesZerosAndMinusTheError) {
  EXPECT_EQ(md5sumFile("/tmp"), std::to_string(-EISDIR) + kZeros);
}

TEST_F(hashmiscTest, KeptAnInterruptedReadIsAFailure) {
  write("/tmp/file", "abc");
  system_calls.interrupted_reads = 1;
  EXPECT_EQ(md5sumFile("/tmp/file"), std::to_string(-EINTR) + kZeros);
  EXPECT_EQ(system_calls.interrupted_reads, 0);
  EXPECT_EQ(md5sumFile("/tmp/file"), "0 900150983cd24fb0d6963f7d28e17f72");
}

TEST_F(hashmiscTest, ShortReadsDoNotEndAFile) {
  Packets packets;
  packets.write("a");
  packets.write("bc");
  const std::string path = packets.path();
  // The open pipe would never end.
  packets.finish();
  EXPECT_EQ(md5sumFile(path), "0 900150983cd24fb0d6963f7d28e17f72");
}

int sum_on_small_stack = 1;
unsigned char digest_on_small_stack[16];

void sumOnSmallStack() {
  sum_on_small_stack = md5sum_file("/tmp/file", digest_on_small_stack);
}

TEST_F(hashmiscTest, FilesAreDigestedOnAStackOf20KiB) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VELORIN_COVERAGE)
  GTEST_SKIP() << "not run, because sanitizers and counters need a larger stack";
#endif
  constexpr size_t kStack = 20 * 1024;
  write("/tmp/file", "abc");
  Guarded stack(kStack);
  ucontext_t here, there;
  ASSERT_EQ(getcontext(&there), 0);
  there.uc_stack.ss_sp = stack.take(kStack);
  there.uc_stack.ss_size = kStack;
  there.uc_link = &here;
  makecontext(&there, sumOnSmallStack, 0);
  ASSERT_EQ(swapcontext(&here, &there), 0);
  EXPECT_EQ(sum_on_small_stack, 0);
  EXPECT_EQ(hex(digest_on_small_stack, 16), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_TRUE(stack.canariesAlive());
}

TEST_F(hashmiscTest, FilesAreClosedAgain) {
  write("/tmp/file", "abc");
  const size_t before = openFiles();
  (void)md5sumFile("/tmp/file");
  (void)md5sumFile("/tmp");
  (void)md5sumFile("/tmp/missing");
  EXPECT_EQ(openFiles(), before);
}

TEST_F(hashmiscTest, SlowFilesAbove4GiBAreReadToTheirEnd) {
  makeSparse("/tmp/file", k4GiB + 5);
  EXPECT_EQ(md5sumFile("/tmp/file"), std::string("0 ") + kMd5Of4GiBAnd5);
}

// ---- Md5 ----

class Md5Test : public PrivateWorld {
 protected:
  // The text of a file's digest, which must be had without an error.
  static std::string fileMd5(const std::string& path) {
    std::string md5 = "untouched";
    EXPECT_EQ(Md5::GetFileMD5(path, md5), 0);
    return md5;
  }

  static std::string fileMd5Of(const std::string& contents) {
    write("/tmp/file", contents);
    return fileMd5("/tmp/file");
  }
};

TEST_F(Md5Test, StringsGiveBase64WithSubstitutions) {
  EXPECT_EQ(Md5::GetMD5(""), "1B2M2Y8AsgTpgAmY7PhCfg..");
  EXPECT_EQ(Md5::GetMD5("1"), "xMpCOKC5I4INzFCab3WEmw..");
  EXPECT_EQ(Md5::GetMD5("7"), "jxTkX87qFnpaNt7dS+olQw..");
}

TEST_F(Md5Test, FilesGiveBase64WithoutSubstitutions) {
  EXPECT_EQ(fileMd5Of(""), "1B2M2Y8AsgTpgAmY7PhCfg==");
  EXPECT_EQ(fileMd5Of("1"), "xMpCOKC5I4INzFCab3WEmw==");
}

TEST_F(Md5Test, KeptStringsHaveSubstitutionsAndFilesHaveNone) {
  EXPECT_EQ(Md5::GetMD5("4"), "qH#2eaLz5x2RgaZ7dUISLA..");
  EXPECT_EQ(fileMd5Of("4"), "qH/2eaLz5x2RgaZ7dUISLA==");
  EXPECT_EQ(Md5::GetMD5("8"), "yfD4lfuYq5FZ9R#QKX4jbQ..");
  EXPECT_EQ(fileMd5Of("8"), "yfD4lfuYq5FZ9R/QKX4jbQ==");
}

TEST_F(Md5Test, StringsAreDigestedWithTheirZeroBytes) {
  EXPECT_EQ(Md5::GetMD5(std::string("a\1\0\0\0\0\0\0\0", 9)), "ev##GuT+e3cqgn8mOOhjyg..");
  EXPECT_EQ(Md5::GetMD5(std::string("a\0b", 3)), "cDUPYCe843E#a3ZHMIQwmw..");
}

TEST_F(Md5Test, ANumberIsDigestedAsEightBytesBehindTheString) {
  EXPECT_EQ(Md5::GetMD5("a", 1), "ev##GuT+e3cqgn8mOOhjyg..");
  for (const long long val : {0LL, -1LL, 258LL, LLONG_MIN, LLONG_MAX}) {
    std::string bytes = "name";
    for (int shift = 0; shift < 64; shift += 8)
      bytes += static_cast<char>(static_cast<unsigned long long>(val) >> shift);
    EXPECT_EQ(Md5::GetMD5("name", val), Md5::GetMD5(bytes)) << val;
  }
}

TEST_F(Md5Test, FilesOfAllSizesAroundTheBlocksAgreeWithMd5sum) {
  std::mt19937 random(58);
  std::vector<std::string> contents;
  for (const size_t size : {1, 4095, 4096, 4097, 8192, 20000, 1000000})
    contents.push_back(randomBytes(&random, size));
  const std::vector<std::string> sums = sumsBy("md5sum", contents);
  for (size_t i = 0; i < contents.size(); ++i) {
    write("/tmp/text", fileMd5Of(contents[i]));
    const ChildResult raw = runProgram({"base64", "--decode", "/tmp/text"});
    EXPECT_EQ(raw.exitCode(), 0) << raw;
    EXPECT_EQ(hex(bytesOf(raw.out), raw.out.size()), sums[i]) << contents[i].size();
  }
}

TEST_F(Md5Test, AFileThatCannotBeOpenedIsLoggedAndLeavesTheTextUntouched) {
  std::string md5 = "untouched";
  EXPECT_EQ(Md5::GetFileMD5("/tmp/missing 100%s", md5), ENOENT);
  EXPECT_EQ(md5, "untouched");
  EXPECT_THAT(daemon().waiting(),
              testing::ElementsAre(
                  MatchesRegex(".*ERRO:Md5.cc:[0-9]+-> "
                               "Failed to open file: /tmp/missing 100%s, for read, error2")));
  write("/tmp/file", "abc");
  EXPECT_EQ(Md5::GetFileMD5("/tmp/file/below", md5), ENOTDIR);
  EXPECT_THAT(daemon().nextLine(),
              EndsWith("-> Failed to open file: /tmp/file/below, for read, error20"));
}

TEST_F(Md5Test, ASuccessIsNotLogged) {
  (void)fileMd5Of("abc");
  EXPECT_THAT(daemon().waiting(), testing::IsEmpty());
}

TEST_F(Md5Test, KeptAShortReadEndsTheDigestThoughMoreWouldCome) {
  Packets packets;
  packets.write(std::string(4096, 'x'));
  packets.write("abc");
  packets.write("not read");
  EXPECT_EQ(fileMd5(packets.path()), fileMd5Of(std::string(4096, 'x') + "abc"));
  EXPECT_EQ(fileMd5(packets.path()), fileMd5Of("not read"));
}

TEST_F(Md5Test, KeptAReadErrorEndsTheDigestInSilence) {
  EXPECT_EQ(fileMd5("/tmp"), "1B2M2Y8AsgTpgAmY7PhCfg==");
  write("/tmp/file", "abc");
  system_calls.interrupted_reads = 1;
  EXPECT_EQ(fileMd5("/tmp/file"), "1B2M2Y8AsgTpgAmY7PhCfg==");
  EXPECT_EQ(system_calls.interrupted_reads, 0);
  EXPECT_THAT(daemon().waiting(), testing::IsEmpty());
}

TEST_F(Md5Test, TheNameAndTheTextMayBeOneString) {
  write("/tmp/file", "1");
  std::string both = "/tmp/file";
  EXPECT_EQ(Md5::GetFileMD5(both, both), 0);
  EXPECT_EQ(both, "xMpCOKC5I4INzFCab3WEmw==");
}

TEST_F(Md5Test, FilesAreClosedAgain) {
  const size_t before = openFiles();
  (void)fileMd5Of("abc");
  (void)fileMd5("/tmp");
  EXPECT_EQ(openFiles(), before);
}

TEST_F(Md5Test, SlowFilesAbove4GiBAreReadToTheirEnd) {
  makeSparse("/tmp/file", k4GiB + 5);
  EXPECT_EQ(fileMd5("/tmp/file"), "loqICaoIhth/OF2IczqY0g==");
}

}  // namespace
