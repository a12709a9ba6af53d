// MD5 as RFC 1321 has it. See velorin/md5.
#include "velorin/md5"

#include <stddef.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "internal/forget.h"
#include "internal/rotated.h"
#include "internal/settled.h"
#include "internal/target.h"

namespace {

using velorin::internal::forget;
using velorin::internal::rotated;
using velorin::internal::settled;

constexpr size_t kBlockBytes = sizeof(MD5_CTX::buffer);
constexpr size_t kLengthBytes = 8;  // at the end of the last block

// The RFC's table T: 2^32 times the absolute values of the sines of 1 to 64.
constexpr uint32_t kSines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391,
};

// What the four rounds of 16 steps differ in, besides their functions.
struct Round {
  int shifts[4];           // by turns
  int first_word, stride;  // of the block's words, modulo 16
};
constexpr Round kRounds[4] = {
    {{7, 12, 17, 22}, 0, 1},
    {{5, 9, 14, 20}, 1, 5},
    {{4, 11, 16, 23}, 5, 3},
    {{6, 10, 15, 21}, 0, 7},
};

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words lie in memory as in messages");

// A word of a message, at any address.
uint32_t decoded(const unsigned char* bytes) {
  uint32_t word;
  memcpy(&word, bytes, sizeof word);
  return word;
}

// Each step needs what the step before computed last, `b`. The sums are settled so that nothing
// else is left to do once it is there.
template <int step>
[[gnu::always_inline]] inline void doStep(uint32_t& a, uint32_t b, uint32_t c, uint32_t d,
                                          const unsigned char* block) {
  constexpr Round round = kRounds[step / 16];
  constexpr int word = (round.first_word + round.stride * step) % 16;

  uint32_t sum = settled(a + decoded(block + 4 * word) + kSines[step]);
  if constexpr (step < 16) {
    sum += d ^ (b & settled(c ^ d));
  } else if constexpr (step < 32) {
    // Bits of `c` where `d` has none and of `b` where it has some: no carries, so an addition.
    sum = settled(sum + (c & ~d)) + (b & d);
  } else if constexpr (step < 48) {
    sum += b ^ settled(c ^ d);
  } else {
    sum += c ^ (b | ~d);
  }
  a = rotated(sum, round.shifts[step % 4]) + b;
}

template <int step>
[[gnu::always_inline]] inline void doFourSteps(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d,
                                               const unsigned char* block) {
  doStep<step>(a, b, c, d, block);
  doStep<step + 1>(d, a, b, c, block);
  doStep<step + 2>(c, d, a, b, block);
  doStep<step + 3>(b, c, d, a, block);
}

template <int... i>
[[gnu::always_inline]] inline void doAllSteps(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d,
                                              const unsigned char* block,
                                              std::integer_sequence<int, i...>) {
  (doFourSteps<4 * i>(a, b, c, d, block), ...);
}

// Adds `count` blocks to the digest.
void MD5Transform(uint32_t (&state)[4], const unsigned char* block, size_t count) {
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (; count > 0; --count, block += kBlockBytes) {
    const uint32_t before[] = {a, b, c, d};
    doAllSteps(a, b, c, d, block, std::make_integer_sequence<int, 16>());
    a += before[0];
    b += before[1];
    c += before[2];
    d += before[3];
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
}

// Word by word: the processor makes a wide load wait that follows narrow stores of the same bytes.
template <size_t words>
void Encode(unsigned char* output, const uint32_t (&input)[words]) {
  for (const uint32_t stored : input) {
    const uint32_t word = settled(stored);
    memcpy(output, &word, sizeof word);
    output += sizeof word;
  }
}

size_t waitingBytes(const MD5_CTX& context) {
  return context.count[0] / 8 % kBlockBytes;
}

void countBits(MD5_CTX* context, uint64_t bits) {
  uint64_t count;
  static_assert(sizeof count == sizeof context->count);
  memcpy(&count, context->count, sizeof count);
  count += bits;
  memcpy(context->count, &count, sizeof count);
}

}  // namespace

void MD5Init(MD5_CTX* context) {
  context->state[0] = 0x67452301;
  context->state[1] = 0xEFCDAB89;
  context->state[2] = 0x98BADCFE;
  context->state[3] = 0x10325476;
  context->count[0] = 0;
  context->count[1] = 0;
}

void MD5Update(MD5_CTX* context, unsigned char* input, unsigned int inputLen) {
  if (inputLen == 0) return;
  const size_t waiting = waitingBytes(*context);
  countBits(context, uint64_t{inputLen} * 8);

  size_t left = inputLen;
  if (waiting > 0) {
    const size_t taken = std::min(left, kBlockBytes - waiting);
    memcpy(context->buffer + waiting, input, taken);
    if (waiting + taken < kBlockBytes) return;
    MD5Transform(context->state, context->buffer, 1);
    input += taken;
    left -= taken;
  }
  const size_t blocks = left / kBlockBytes;
  if (blocks > 0) MD5Transform(context->state, input, blocks);
  // Of a size that the compiler does not know to be small: it would copy in narrow pieces.
  memcpy(context->buffer, input + blocks * kBlockBytes, settled(left % kBlockBytes));
}

void MD5Final(unsigned char* digest, MD5_CTX* context) {
  constexpr size_t kMostWaiting = kBlockBytes - kLengthBytes - 1;
  // The end of the message and the zeros behind it, written at once for words that hold both.
  constexpr unsigned char kEnd[kLengthBytes] = {0x80};
  unsigned char* const buffer = context->buffer;
  const size_t waiting = waitingBytes(*context);
  if (waiting <= kMostWaiting) {
    memset(buffer + waiting, 0, settled(kBlockBytes - waiting));
    memcpy(buffer + waiting, kEnd, sizeof kEnd);
  } else {
    buffer[waiting] = 0x80;
    memset(buffer + waiting + 1, 0, kBlockBytes - waiting - 1);
    MD5Transform(context->state, buffer, 1);
    memset(buffer, 0, kBlockBytes - kLengthBytes);
  }
  Encode(buffer + kBlockBytes - kLengthBytes, context->count);
  MD5Transform(context->state, buffer, 1);
  Encode(digest, context->state);
  forget(context);
}
