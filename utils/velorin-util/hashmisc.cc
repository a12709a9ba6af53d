// Digests of files, their hexadecimal texts, and the string hash. See velorin/hashmisc.
#include "velorin/hashmisc"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "internal/target.h"
#include "velorin/md5"

#include "internal/always_assert.h"

namespace {

constexpr size_t kDigestBytes = 16;
constexpr size_t kBlockBytes = 16384;

// Kept: upper-case letters are not digits, so texts of other programs may read as other digests;
// what was stored under such a text is found under it.
unsigned digitValue(unsigned char digit) {
  if (digit >= '0' && digit <= '9') return digit - unsigned{'0'};
  if (digit >= 'a' && digit <= 'f') return digit - unsigned{'a'} + 10;
  return 0;
}

}  // namespace

unsigned long hash_pjw(const char* str) {
  constexpr uint32_t kTopBits = 0xF0000000;
  uint32_t hash = 0;
  for (; *str != '\0'; ++str) {
    // Kept: the factor 13, which the textbook's hash has not, and the sign of the characters:
    // hashes are compared with stored ones.
    const int32_t addend = static_cast<signed char>(*str) * 13;
    hash = (hash << 4) + static_cast<uint32_t>(addend);
    const uint32_t top = hash & kTopBits;
    hash ^= top >> 24;
    hash ^= top;
  }
  return hash;
}

int md5sum_file(const char* filename, unsigned char* md5sum) {
  memset(md5sum, 0, kDigestBytes);
  const int fd = open(filename, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -errno;

  MD5_CTX context;
  MD5Init(&context);
  unsigned char databuf[kBlockBytes];
  ssize_t got;
  // Kept: a read that a signal interrupts is a failure, so that callers with a deadline get
  // control.
  while ((got = read(fd, databuf, sizeof databuf)) > 0)
    MD5Update(&context, databuf, static_cast<unsigned>(got));
  const int result = got < 0 ? -errno : 0;
  if (result == 0) MD5Final(md5sum, &context);
  (void)close(fd);
  return result;
}

void rawmd5_to_humanmd5(unsigned char* human_md5sum, unsigned char* raw_md5sum) {
  constexpr char kDigits[] = "0123456789abcdef";
  human_md5sum[2 * kDigestBytes] = '\0';
  // From the end, so that the text may be written over the bytes.
  for (size_t i = kDigestBytes; i-- > 0;) {
    const unsigned byte = raw_md5sum[i];
    human_md5sum[2 * i] = static_cast<unsigned char>(kDigits[byte >> 4]);
    human_md5sum[2 * i + 1] = static_cast<unsigned char>(kDigits[byte & 15]);
  }
}

void humanmd5_to_rawmd5(unsigned char* raw_md5sum, unsigned char* human_md5sum) {
  const unsigned char* digit = human_md5sum;
  // A text that is too short is not read behind its end; its terminating zero,
  // worth 0, stands for the rest.
  const auto next = [&digit] { return *digit == '\0' ? 0 : digitValue(*digit++); };
  for (size_t i = 0; i < kDigestBytes; ++i) {
    const unsigned high = next();
    const unsigned low = next();
    // Kept: cannot fail, as every character has a value below 16.
    assert(high < 16 && low < 16);
    raw_md5sum[i] = static_cast<unsigned char>(high << 4 | low);
  }
}
