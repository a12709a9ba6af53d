// Base64: bytes survive a round trip, the loops of every instruction set give what the portable
// ones give, and a text that is_base64_string accepts decodes to as many bytes as it has characters
// for. An input serves as bytes, and up to its first zero as a text.
#include <string.h>

#include <string>

#include "base64_kernels.h"
#include "fuzz.h"
#include "velorin/base64"

namespace {

using velorin::base64::Kernel;
using velorin::base64::kFastestFirst;
using velorin::base64::kPortable;

constexpr char kUntouched = '\x5A';
constexpr size_t kBehind = 64;  // where vectors would write

std::string encoded(const Kernel& kernel, const std::string& bytes) {
  const size_t size = (bytes.size() + 2) / 3 * 4 + 1;
  std::string text(size + kBehind, kUntouched);
  REQUIRE(velorin::base64::encode(kernel, bytes.data(), text.data(),
                                  static_cast<int>(bytes.size())) == text.data());
  REQUIRE(strlen(text.c_str()) == size - 1);
  REQUIRE(text.substr(size) == std::string(kBehind, kUntouched));
  return text.substr(0, size - 1);
}

std::string decoded(const Kernel& kernel, const std::string& text) {
  const size_t room = (text.size() + 3) / 4 * 3;
  std::string bytes(room + kBehind, kUntouched);
  int size = -1;
  REQUIRE(velorin::base64::decode(kernel, text.c_str(), bytes.data(), &size) == bytes.data());
  REQUIRE(size >= 0 && static_cast<size_t>(size) <= room);
  const size_t length = static_cast<size_t>(size);
  REQUIRE(bytes.find_first_not_of(kUntouched, length) == std::string::npos);
  return bytes.substr(0, length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string text(bytes.c_str());

  const std::string as_text = encoded(kPortable, bytes);
  REQUIRE(decoded(kPortable, as_text) == bytes);
  REQUIRE(velorin::base64::isBase64(kPortable, as_text.c_str()) == 1);

  const std::string as_bytes = decoded(kPortable, text);
  const int is_base64 = velorin::base64::isBase64(kPortable, text.c_str());
  if (is_base64 == 1) {
    const size_t count = text.substr(0, text.find('=')).size();
    REQUIRE(as_bytes.size() == count / 4 * 3 + (count % 4 + 1) / 2);
  }

  for (const Kernel* kernel : kFastestFirst) {
    if (!kernel->runs()) continue;
    REQUIRE(encoded(*kernel, bytes) == as_text);
    REQUIRE(decoded(*kernel, text) == as_bytes);
    REQUIRE(velorin::base64::isBase64(*kernel, text.c_str()) == is_base64);
    std::string in_place = text;
    int length = -1;
    (void)velorin::base64::decode(*kernel, in_place.c_str(), in_place.data(), &length);
    REQUIRE(in_place.substr(0, static_cast<size_t>(length)) == as_bytes);
  }
  return 0;
}
