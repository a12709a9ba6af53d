// The digests: how a message is cut into calls changes nothing, whichever code adds the blocks, and
// the text forms read back. The first byte of an input chooses the cuts, the others are the
// message.
#include <string.h>

#include <algorithm>
#include <string>

#include "fuzz.h"
#include "sha_blocks.h"
#include "velorin/Md5"
#include "velorin/base64"
#include "velorin/hashmisc"
#include "velorin/md5"
#include "velorin/sha"

namespace {

constexpr size_t kMd5Bytes = 16;

unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
}

// Calls `add` with piece after piece; their lengths follow from `seed`.
template <class Add>
void cut(const std::string& message, unsigned seed, Add add) {
  for (size_t i = 0; i < message.size();) {
    seed = seed * 1103515245 + 12345;
    const size_t size = std::min(size_t{seed >> 16 & 0xFF}, message.size() - i);
    add(bytesOf(message) + i, static_cast<unsigned>(size));
    i += size;
  }
}

std::string md5Of(const std::string& message) {
  MD5_CTX context;
  MD5Init(&context);
  MD5Update(&context, bytesOf(message), static_cast<unsigned>(message.size()));
  unsigned char digest[kMd5Bytes];
  MD5Final(digest, &context);
  return std::string(reinterpret_cast<char*>(digest), sizeof digest);
}

std::string md5InPieces(const std::string& message, unsigned seed) {
  MD5_CTX context;
  MD5Init(&context);
  cut(message, seed, [&](auto* bytes, unsigned size) { MD5Update(&context, bytes, size); });
  unsigned char digest[kMd5Bytes];
  MD5Final(digest, &context);
  return std::string(reinterpret_cast<char*>(digest), sizeof digest);
}

std::string sha1Of(const std::string& message) {
  SHA1Context context;
  uint8_t digest[SHA1HashSize];
  REQUIRE(SHA1Reset(&context) == shaSuccess);
  REQUIRE(SHA1Input(&context, bytesOf(message), static_cast<unsigned>(message.size())) ==
          shaSuccess);
  REQUIRE(SHA1Result(&context, digest) == shaSuccess);
  return std::string(reinterpret_cast<char*>(digest), sizeof digest);
}

std::string sha1InPieces(const std::string& message, unsigned seed) {
  SHA1Context context;
  uint8_t digest[SHA1HashSize];
  REQUIRE(SHA1Reset(&context) == shaSuccess);
  cut(message, seed,
      [&](auto* bytes, unsigned size) { REQUIRE(SHA1Input(&context, bytes, size) == shaSuccess); });
  REQUIRE(SHA1Result(&context, digest) == shaSuccess);
  return std::string(reinterpret_cast<char*>(digest), sizeof digest);
}

void requireTheSameBlocks(const std::string& message) {
  if (!velorin::internal::hasShaExtensions()) return;
  uint32_t portable[5] = {1, 2, 3, 4, 5};
  uint32_t extensions[5] = {1, 2, 3, 4, 5};
  velorin::internal::sha1BlocksPortable(portable, bytesOf(message), message.size() / 64);
  velorin::internal::sha1BlocksExtensions(extensions, bytesOf(message), message.size() / 64);
  REQUIRE(memcmp(portable, extensions, sizeof portable) == 0);
}

// Text to bytes to text: what a digit stands for stays, all else is 0.
void requireReadableHex(const std::string& text, const std::string& digest) {
  unsigned char human[33], raw[kMd5Bytes];
  rawmd5_to_humanmd5(human, bytesOf(digest));
  humanmd5_to_rawmd5(raw, human);
  REQUIRE(memcmp(raw, digest.data(), sizeof raw) == 0);

  // As much memory as the text has, so that a sanitizer sees what is read behind it.
  std::string given(text.c_str());
  given.resize(std::min(given.size(), size_t{32}));
  const std::string exact(given.c_str(), given.size() + (given.size() < 32));
  unsigned char* const copy = new unsigned char[exact.size()];
  memcpy(copy, exact.data(), exact.size());
  humanmd5_to_rawmd5(raw, copy);
  delete[] copy;
  rawmd5_to_humanmd5(human, raw);
  REQUIRE(human[32] == '\0');
  given.resize(32, '0');
  for (size_t i = 0; i < given.size(); ++i) {
    const bool digit = memchr("0123456789abcdef", given[i], 16) != nullptr;
    REQUIRE(human[i] == static_cast<unsigned char>(digit ? given[i] : '0'));
  }
}

void requireReadableBase64(const std::string& message, const std::string& digest) {
  std::string text = Md5::GetMD5(message);
  REQUIRE(text.size() == 24 && text.compare(22, 2, "..") == 0);
  std::replace(text.begin(), text.end(), '#', '/');
  std::replace(text.begin(), text.end(), '.', '=');
  char raw[18];
  int size = 0;
  (void)U_base64_decode(text.c_str(), raw, &size);
  REQUIRE(std::string(raw, static_cast<size_t>(size)) == digest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const unsigned seed = data[0];
  const std::string message(reinterpret_cast<const char*>(data + 1), size - 1);

  const std::string md5 = md5Of(message);
  REQUIRE(md5InPieces(message, seed) == md5);
  REQUIRE(sha1InPieces(message, seed) == sha1Of(message));
  requireTheSameBlocks(message);
  requireReadableHex(message, md5);
  requireReadableBase64(message, md5);
  REQUIRE(hash_pjw(message.c_str()) >> 28 == 0);
  return 0;
}
