// The digests of bytes that pass by, for those who compare copies of a file.
#ifndef TCP_PROXY_digests_
#define TCP_PROXY_digests_

#include <stddef.h>

#include <string>
#include <string_view>

#include "velorin/md5"
#include "velorin/sha"

// MD5 and SHA-1 of one stream.
class Digests {
 public:
  // Makes room for those of `count` streams. They hold the last bytes of their streams, which a
  // core that a crash leaves does not show. Called once, before there are any. Throws Exception.
  static void reserve(int count);

  // From that room; throws std::bad_alloc when it is used up.
  static void* operator new(size_t size);
  static void operator delete(void* memory) noexcept;

  Digests();
  void add(std::string_view bytes);

  // Ends them. Returns: "MD5 " and 32 hexadecimal digits, ", SHA-1 " and 28 characters of Base64,
  // as fields of HTTP heads have it.
  std::string finish();

 private:
  MD5_CTX md5_;
  SHA1Context sha1_;
};

#endif  // TCP_PROXY_digests_
