// Base64: the portable loops, the choice among the loops of this processor, and what all of them
// have in common. See velorin/base64.
#include "velorin/base64"

#include <limits.h>
#include <string.h>

#include <algorithm>
#include <atomic>

#include "base64_kernels.h"

namespace velorin::base64 {

namespace {

constexpr size_t kChunk = 8192;  // of a text whose end is not known: small enough for the cache
constexpr size_t kMostBytes = INT_MAX - INT_MAX % 3;  // whole groups that an int can count

// ---- Portable ----

void encodeGroup(uint32_t group, char* text) {
  text[0] = base64_code[group >> 18];
  text[1] = base64_code[group >> 12 & 63];
  text[2] = base64_code[group >> 6 & 63];
  text[3] = base64_code[group & 63];
}

bool hasPad(const uint8_t* text) {
  return text[0] == kPad || text[1] == kPad || text[2] == kPad || text[3] == kPad;
}

// Writes the first `count` bytes of a group.
void writeBytes(uint32_t group, size_t count, uint8_t* bytes) {
  bytes[0] = static_cast<uint8_t>(group >> 16);
  if (count > 1) bytes[1] = static_cast<uint8_t>(group >> 8);
  if (count > 2) bytes[2] = static_cast<uint8_t>(group);
}

bool runsEverywhere() {
  return true;
}

// ---- The choice ----

// Null until the first call. Needs no constructor, so that constructors of static objects may call
// us; threads that choose at the same time store the same.
std::atomic<const Kernel*> chosen{nullptr};

[[gnu::noinline, gnu::cold]] const Kernel& choose() {
  const Kernel* const* kernel = kFastestFirst;
  while (!(*kernel)->runs()) ++kernel;
  chosen.store(*kernel, std::memory_order_relaxed);
  return **kernel;
}

const Kernel& fastest() {
  const Kernel* kernel = chosen.load(std::memory_order_relaxed);
  return kernel != nullptr ? *kernel : choose();
}

// ---- Lenient decoding ----

// The characters of a group that is not complete yet.
struct Partial {
  uint32_t bits = 0;
  size_t count = 0;

  void add(int value) {
    bits = bits << 6 | static_cast<uint32_t>(value);
    ++count;
  }

  // Writes what the characters give and starts anew. Returns: how many bytes that were.
  size_t flush(uint8_t* bytes) {
    // Kept: a single character yields a byte too, of its six bits and two zero bits; a strict
    // decoder would drop it.
    const size_t size = count < 3 ? 1 : count - 1;
    writeBytes(bits << (24 - 6 * count), size, bytes);
    *this = Partial();
    return size;
  }
};

// Returns: how many of the `most` characters at `p` stand before the terminating zero. Reads
// nothing behind it; memchr, which makes the same promise, is faster here than strnlen.
size_t lengthUpTo(const uint8_t* p, size_t most) {
  const void* const zero = memchr(p, '\0', most);
  return zero != nullptr ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - p) : most;
}

// Decodes the rest of a text, at `p`, whose beginning gave the first `written` bytes.
[[gnu::noinline]] size_t decodeFrom(const Kernel& kernel, const uint8_t* p, uint8_t* bytes,
                                    size_t written) {
  size_t most;
  Partial partial;
  const auto finish = [&] {
    return written + (partial.count > 0 ? partial.flush(bytes + written) : 0);
  };
  while ((most = std::min(kChunk, (kMostBytes - written) / 3 * 4 - partial.count)) > 0) {
    const size_t size = lengthUpTo(p, most);
    const uint8_t* const end = p + size;
    while (p != end) {
      if (partial.count == 0) {
        const Progress run = kernel.decode(p, static_cast<size_t>(end - p), bytes + written);
        p += run.read;
        written += run.written;
        if (p == end) break;
      }
      // The loop leaves to us the padding, a group cut short, and perhaps one with foreign bytes.
      // Kept: whatever stands behind a "=" is ignored, further groups included.
      if (*p == kPad) return finish();
      const int value = base64_value[*p++];
      if (value >= 0) partial.add(value);
      if (partial.count == 4) written += partial.flush(bytes + written);
    }
    if (size < most) break;
  }
  return finish();
}

// Most texts are short, and the kernel's loop decodes all of them.
[[gnu::always_inline]] inline size_t decodeText(const Kernel& kernel, const uint8_t* p,
                                                uint8_t* bytes) {
  const size_t size = lengthUpTo(p, kChunk);
  const Progress run = kernel.decode(p, size, bytes);
  if (run.read == size && size < kChunk) return run.written;
  return decodeFrom(kernel, p + run.read, bytes, run.written);
}

// ---- The functions, inlined: a short text takes no longer than a few calls ----

[[gnu::always_inline]] inline char* encodeWith(const Kernel& kernel, const char* bytes, char* text,
                                               int size) {
  if (bytes == nullptr) return nullptr;
  kernel.encode(reinterpret_cast<const uint8_t*>(bytes), size > 0 ? static_cast<size_t>(size) : 0,
                text);
  return text;
}

[[gnu::always_inline]] inline char* decodeWith(const Kernel& kernel, const char* text, char* bytes,
                                               int* size) {
  size_t written = 0;
  if (text != nullptr)
    // Kept: no zero is written behind the bytes.
    written = decodeText(kernel, reinterpret_cast<const uint8_t*>(text),
                         reinterpret_cast<uint8_t*>(bytes));
  if (size != nullptr) *size = static_cast<int>(written);
  return text != nullptr ? bytes : nullptr;
}

[[gnu::always_inline]] inline int isBase64With(const Kernel& kernel, const char* text) {
  if (text == nullptr) return 0;
  const auto* p = reinterpret_cast<const uint8_t*>(text);
  for (;;) {
    const size_t size = lengthUpTo(p, kChunk);
    const size_t good = kernel.span(p, size);
    // Kept: neither the length nor what stands behind the first "=" is looked at.
    if (good < size) return p[good] == kPad;
    if (size < kChunk) return 1;
    p += size;
  }
}

}  // namespace

void encodePortable(const uint8_t* bytes, size_t size, char* text) {
  for (; size >= 3; size -= 3, bytes += 3, text += 4)
    encodeGroup(uint32_t{bytes[0]} << 16 | uint32_t{bytes[1]} << 8 | bytes[2], text);
  if (size > 0) {
    encodeGroup(uint32_t{bytes[0]} << 16 | (size > 1 ? uint32_t{bytes[1]} << 8 : 0), text);
    if (size < 2) text[2] = kPad;
    text[3] = kPad;
    text += 4;
  }
  *text = '\0';
}

Progress decodePortable(const uint8_t* text, size_t size, uint8_t* bytes) {
  Progress done = {0, 0};
  while (done.read < size) {
    const uint8_t* const p = text + done.read;
    const int first = base64_value[p[0]];
    if (first < 0) {
      ++done.read;
      continue;
    }
    if (size - done.read < 4) break;
    const int others[] = {base64_value[p[1]], base64_value[p[2]], base64_value[p[3]]};
    if ((others[0] | others[1] | others[2]) < 0 || hasPad(p)) break;
    writeBytes(static_cast<uint32_t>(first << 18 | others[0] << 12 | others[1] << 6 | others[2]), 3,
               bytes + done.written);
    done.read += 4;
    done.written += 3;
  }
  return done;
}

size_t spanPortable(const uint8_t* text, size_t size) {
  size_t i = 0;
  while (i < size && base64_value[text[i]] >= 0 && text[i] != kPad) ++i;
  return i;
}

const Kernel kPortable = {"portable", runsEverywhere, encodePortable, decodePortable, spanPortable};
const Kernel* const kFastestFirst[kKernels] = {&kAvx512, &kAvx2, &kSsse3, &kPortable};

char* encode(const Kernel& kernel, const char* bytes, char* text, int size) {
  return encodeWith(kernel, bytes, text, size);
}

char* decode(const Kernel& kernel, const char* text, char* bytes, int* size) {
  return decodeWith(kernel, text, bytes, size);
}

int isBase64(const Kernel& kernel, const char* text) {
  return isBase64With(kernel, text);
}

}  // namespace velorin::base64

char* U_base64_encode(const char* decoded_str, char* result_str, int len) {
  return velorin::base64::encodeWith(velorin::base64::fastest(), decoded_str, result_str, len);
}

char* U_base64_decode(const char* p, char* result_str, int* result_len) {
  return velorin::base64::decodeWith(velorin::base64::fastest(), p, result_str, result_len);
}

int is_base64_string(const char* p) {
  return velorin::base64::isBase64With(velorin::base64::fastest(), p);
}
