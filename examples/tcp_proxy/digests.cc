// The digests of bytes that pass by. See digests.h.
#include "digests.h"

#include "pool.h"
#include "velorin/base64"
#include "velorin/hashmisc"

namespace {

constexpr size_t kMd5Size = 16;
constexpr size_t kMd5Text = 2 * kMd5Size + 1;
constexpr size_t kSha1Text = 4 * ((SHA1HashSize + 2) / 3) + 1;

Pool pool;

}  // namespace

void Digests::reserve(int count) {
  pool.create(count, sizeof(Digests), /*secret=*/true);
}

void* Digests::operator new(size_t) {
  return pool.take();
}

void Digests::operator delete(void* memory) noexcept {
  pool.giveBack(memory);
}

Digests::Digests() {
  MD5Init(&md5_);
  (void)SHA1Reset(&sha1_);
}

void Digests::add(std::string_view bytes) {
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto size = static_cast<unsigned>(bytes.size());
  MD5Update(&md5_, const_cast<unsigned char*>(data), size);  // which only reads them
  (void)SHA1Input(&sha1_, data, size);
}

std::string Digests::finish() {
  unsigned char md5[kMd5Text];
  MD5Final(md5, &md5_);
  rawmd5_to_humanmd5(md5, md5);

  uint8_t sha1[SHA1HashSize] = {};
  char sha1_text[kSha1Text];
  (void)SHA1Result(&sha1_, sha1);
  (void)U_base64_encode(reinterpret_cast<const char*>(sha1), sha1_text, SHA1HashSize);
  return std::string("MD5 ") + reinterpret_cast<const char*>(md5) + ", SHA-1 " + sha1_text;
}
