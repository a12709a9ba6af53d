// What digests cost. See digest_contests.h.
#include "digest_contests.h"

#include <fcntl.h>
#include <immintrin.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "digest_peers.h"
#include "sha_blocks.h"
#include "velorin/Md5"
#include "velorin/hashmisc"
#include "velorin/md5"
#include "velorin/sha"

namespace bench {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr size_t kBlockBytes = 64;
constexpr size_t kLongestDigest = 20;
constexpr Limit kNeverBehind = {1.0, 1.0};

struct Size {
  size_t bytes;
  const char* name;
  size_t calls;  // by one timed call, which is over before it is interrupted
};
constexpr Size k16B = {16, "16 B", 256};
constexpr Size k1KiB = {1024, "1 KiB", 16};
constexpr Size k1MiB = {1 << 20, "1 MiB", 1};

// Of a padded message.
size_t blocksOf(size_t bytes) {
  return (bytes + 1 + 8 + kBlockBytes - 1) / kBlockBytes;
}

Bytes randomBytes(size_t size) {
  std::mt19937 random(61);
  Bytes bytes(size);
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  return bytes;
}

// ---- Ours ----

void ourMd5(const unsigned char* message, size_t size, unsigned char* digest) {
  MD5_CTX context;
  MD5Init(&context);
  MD5Update(&context, const_cast<unsigned char*>(message), static_cast<unsigned>(size));
  MD5Final(digest, &context);
}

void ourSha1(const unsigned char* message, size_t size, unsigned char* digest) {
  SHA1Context context;
  (void)SHA1Reset(&context);
  (void)SHA1Input(&context, message, static_cast<unsigned>(size));
  (void)SHA1Result(&context, digest);
}

// What ourSha1 is where the processor has no SHA extensions; messages of whole blocks.
void ourPortableSha1(const unsigned char* message, size_t size, unsigned char* digest) {
  uint32_t state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  velorin::internal::sha1BlocksPortable(state, message, size / kBlockBytes);
  unsigned char last[kBlockBytes] = {0x80};
  const uint64_t bits = __builtin_bswap64(uint64_t{size} * 8);
  memcpy(last + kBlockBytes - sizeof bits, &bits, sizeof bits);
  velorin::internal::sha1BlocksPortable(state, last, 1);
  for (uint32_t& word : state) word = __builtin_bswap32(word);
  memcpy(digest, state, sizeof state);
}

// ---- The chains ----

// One of MD5's steps, no more of it than waits for the step before: what F, G, H or I does to the
// latest word `b`, the addition to what is summed up already, the rotation, the addition of `b`.
// `x`, `y` and `sum` stand for what is ready by then.
#define STEP_OF_TWO(first, second)                         \
  asm volatile("mov %1, %0\n\t" first " %2, %0\n\t" second \
               " %3, %0\n\tadd %4, %0\n\t"                 \
               "rol $7, %0\n\tadd %1, %0"                  \
               : "=&r"(next)                               \
               : "r"(b), "r"(x), "r"(y), "r"(sum)          \
               : "cc");                                    \
  b = next
#define STEP_OF_ONE(first)                                                                \
  asm volatile("mov %1, %0\n\t" first " %2, %0\n\tadd %3, %0\n\trol $7, %0\n\tadd %1, %0" \
               : "=&r"(next)                                                              \
               : "r"(b), "r"(x), "r"(sum)                                                 \
               : "cc");                                                                   \
  b = next
#define FOUR_TIMES(what) \
  what;                  \
  what;                  \
  what;                  \
  what

void md5Chain(size_t blocks) {
  uint32_t b = 0xEFCDAB89, x = 0x98BADCFE, y = 0x10325476, sum = 0x67452301, next;
  for (; blocks > 0; --blocks) {
    for (int i = 0; i < 4; ++i) {  // d ^ (b & (c ^ d))
      FOUR_TIMES(STEP_OF_TWO("and", "xor"));
    }
    for (int i = 0; i < 4; ++i) {  // b & d, added to the rest
      FOUR_TIMES(STEP_OF_ONE("and"));
    }
    for (int i = 0; i < 4; ++i) {  // b ^ (c ^ d)
      FOUR_TIMES(STEP_OF_ONE("xor"));
    }
    for (int i = 0; i < 4; ++i) {  // c ^ (b | ~d)
      FOUR_TIMES(STEP_OF_TWO("or", "xor"));
    }
    b += x;
  }
  // A variable whose address is taken lives in memory: a copy takes its place.
  const uint32_t last = b;
  keep(last);
}

#undef STEP_OF_TWO
#undef STEP_OF_ONE
#undef FOUR_TIMES

// SHA-1's twenty instructions of four steps each, with nothing to wait for but one another.
[[gnu::target("sha")]] void sha1Chain(size_t blocks) {
  __m128i abcd = _mm_set1_epi32(0x67452301);
  const __m128i sum = _mm_set1_epi32(0x5A827999);
  for (; blocks > 0; --blocks) {
    for (int i = 0; i < 20; ++i) asm volatile("sha1rnds4 $1, %1, %0" : "+x"(abcd) : "x"(sum));
    asm volatile("paddd %1, %0" : "+x"(abcd) : "x"(sum));
  }
  const __m128i last = abcd;
  keep(last);
}

// ---- The contests ----

std::function<void()> repeated(Digest* digest, const Bytes& message, size_t calls) {
  return [digest, &message, calls] {
    unsigned char result[kLongestDigest];
    for (size_t i = 0; i < calls; ++i) {
      digest(message.data(), message.size(), result);
      keep(result);
    }
  };
}

bool agree(Digest* ours, Digest* peer, const Bytes& message) {
  unsigned char our_result[kLongestDigest] = {}, peer_result[kLongestDigest] = {};
  ours(message.data(), message.size(), our_result);
  peer(message.data(), message.size(), peer_result);
  return memcmp(our_result, peer_result, sizeof our_result) == 0;
}

void contest(Contests* contests, const char* name, const char* peer_name, Limit limit,
             const Size& size, Digest* ours, Digest* peer) {
  const Bytes message = randomBytes(size.bytes);
  contests->run({std::string(name) + "/" + size.name, peer_name, limit, size.calls,
                 [&] { return agree(ours, peer, message); }, repeated(ours, message, size.calls),
                 repeated(peer, message, size.calls)});
}

// `reference` gives the answers; a chain has none.
void contestChain(Contests* contests, const char* name, Limit limit, const Size& size, Digest* ours,
                  Digest* reference, void (*chain)(size_t blocks)) {
  const Bytes message = randomBytes(size.bytes);
  const size_t blocks = blocksOf(size.bytes);
  contests->run({std::string(name) + "/" + size.name, "its chain", limit, size.calls,
                 [&] { return agree(ours, reference, message); },
                 repeated(ours, message, size.calls),
                 [&] {
                   for (size_t i = 0; i < size.calls; ++i) chain(blocks);
                 }});
}

// A file in memory, which goes when this object does.
class File {
 public:
  explicit File(const Bytes& contents) {
    fd_ = memfd_create("digests_bench", MFD_CLOEXEC);
    if (fd_ < 0 ||
        write(fd_, contents.data(), contents.size()) != static_cast<ssize_t>(contents.size())) {
      perror("memfd");
      exit(1);
    }
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~File() { (void)close(fd_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const std::string& path() const { return path_; }

 private:
  int fd_;
  std::string path_;
};

// Base64 text of the digest, which no function of ours has a part in.
std::string opensslMd5Text(const Bytes& message) {
  unsigned char digest[16];
  opensslMd5(message.data(), message.size(), digest);
  return opensslBase64(digest, sizeof digest);
}

// Reads a file in blocks as large as ours, and digests as many bytes that are at hand already.
template <size_t block_bytes>
void readAndDigest(const std::string& path, const Bytes& message, unsigned char* digest) {
  unsigned char block[block_bytes];
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  while (read(fd, block, sizeof block) > 0) keep(block);
  (void)close(fd);
  ourMd5(message.data(), message.size(), digest);
}

void contestFiles(Contests* contests, const Size& size) {
  constexpr Limit kLimit = {1.2, 1.25};
  const Bytes message = randomBytes(size.bytes);
  const File file(message);
  unsigned char digest[16], peer_digest[16];
  std::string text;
  const auto agree = [&] {
    opensslMd5(message.data(), message.size(), peer_digest);
    return md5sum_file(file.path().c_str(), digest) == 0 &&
           memcmp(digest, peer_digest, sizeof digest) == 0;
  };
  contests->run({std::string("md5sum_file/") + size.name, "read and MD5", kLimit, size.calls, agree,
                 [&] {
                   for (size_t i = 0; i < size.calls; ++i)
                     keep(md5sum_file(file.path().c_str(), digest));
                 },
                 [&] {
                   for (size_t i = 0; i < size.calls; ++i)
                     readAndDigest<16384>(file.path(), message, peer_digest);
                 }});
  const auto texts_agree = [&] {
    return Md5::GetFileMD5(file.path(), text) == 0 && text == opensslMd5Text(message);
  };
  contests->run({std::string("GetFileMD5/") + size.name, "read and MD5", kLimit, size.calls,
                 texts_agree,
                 [&] {
                   for (size_t i = 0; i < size.calls; ++i) keep(Md5::GetFileMD5(file.path(), text));
                 },
                 [&] {
                   for (size_t i = 0; i < size.calls; ++i)
                     readAndDigest<4096>(file.path(), message, peer_digest);
                 }});
}

}  // namespace

void runDigestContests(Contests* contests) {
  contestChain(contests, "MD5", {1.25, 1.3}, k1KiB, ourMd5, opensslMd5, md5Chain);
  for (const Size& size : {k16B, k1KiB, k1MiB}) {
    contest(contests, "MD5", "OpenSSL", kNeverBehind, size, ourMd5, opensslMd5);
    contest(contests, "MD5", "nettle", kNeverBehind, size, ourMd5, nettleMd5);
  }

  if (velorin::internal::hasShaExtensions()) {
    contestChain(contests, "SHA-1", {1.2, 1.25}, k1KiB, ourSha1, opensslSha1, sha1Chain);
    contestChain(contests, "SHA-1", {1.05, 1.05}, k1MiB, ourSha1, opensslSha1, sha1Chain);
  } else {
    printf("%-28s not measured: this processor has no SHA extensions\n", "SHA-1 against its chain");
  }
  for (const Size& size : {k16B, k1KiB, k1MiB}) {
    contest(contests, "SHA-1", "OpenSSL", {}, size, ourSha1, opensslSha1);
    contest(contests, "SHA-1", "nettle", {}, size, ourSha1, nettleSha1);
  }
  for (const Size& size : {k1KiB, k1MiB})
    contest(contests, "SHA-1 portable", "OpenSSL portable", kNeverBehind, size, ourPortableSha1,
            opensslPortableSha1);

  contestFiles(contests, k1KiB);
  contestFiles(contests, k1MiB);
}

}  // namespace bench
