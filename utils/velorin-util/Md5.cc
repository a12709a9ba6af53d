// MD5 of strings and files as Base64 text. See velorin/Md5.
#include "velorin/Md5"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "internal/target.h"
#include "velorin/String"
#include "velorin/ad_debug"
#include "velorin/base64"
#include "velorin/md5"

namespace {

constexpr size_t kDigestBytes = 16;
constexpr size_t kTextBytes = 24;
constexpr size_t kReadBytes = 4096;

// A length of MD5Update's is an unsigned int, whatever the target.
void add(MD5_CTX* context, const void* data, size_t size) {
  constexpr size_t kAtOnce = size_t{1} << 30;
  auto* bytes = static_cast<const unsigned char*>(data);
  while (size > 0) {
    const size_t taken = std::min(size, kAtOnce);
    MD5Update(context, const_cast<unsigned char*>(bytes), static_cast<unsigned>(taken));
    bytes += taken;
    size -= taken;
  }
}

std::string GetBase64Encode(const MD5_CTX& ctx, bool bReplace) {
  MD5_CTX last = ctx;
  unsigned char digest[kDigestBytes];
  MD5Final(digest, &last);
  char text[kTextBytes + 1];
  U_base64_encode(reinterpret_cast<const char*>(digest), text, kDigestBytes);
  if (bReplace) {
    std::replace(text, text + kTextBytes, '/', '#');
    std::replace(text, text + kTextBytes, '=', '.');
  }
  return text;
}

}  // namespace

// Kept: with substitutions here, without in GetFileMD5. Both forms are stored and compared.
std::string Md5::GetMD5(const std::string& str) {
  MD5_CTX context;
  MD5Init(&context);
  add(&context, str.data(), str.size());
  return GetBase64Encode(context, /*bReplace=*/true);
}

std::string Md5::GetMD5(const std::string& str, long long val) {
  static_assert(sizeof val == 8, "the same digest on both targets");
  MD5_CTX context;
  MD5Init(&context);
  add(&context, str.data(), str.size());
  add(&context, &val, sizeof val);
  return GetBase64Encode(context, /*bReplace=*/true);
}

int Md5::GetFileMD5(const std::string& fileName, std::string& md5) {
  const int fd = open(fileName.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    const int err = errno;
    AD_ERRO("Failed to open file: %s, for read, error%s", fileName.c_str(), Dec(err).c_str());
    return err;
  }
  MD5_CTX context;
  MD5Init(&context);
  unsigned char buf[kReadBytes];
  ssize_t got;
  // Kept: a short read is taken for the end, and an error too, without a word.
  do {
    got = read(fd, buf, sizeof buf);
    if (got > 0) add(&context, buf, static_cast<size_t>(got));
  } while (got == static_cast<ssize_t>(sizeof buf));
  (void)close(fd);
  md5 = GetBase64Encode(context, /*bReplace=*/false);
  return 0;
}
