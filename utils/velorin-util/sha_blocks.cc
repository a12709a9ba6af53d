// SHA-1's blocks, for every processor and for those with the SHA extensions. See sha_blocks.h.
#include "sha_blocks.h"

#include <cpuid.h>
#include <immintrin.h>
#include <string.h>

#include <atomic>
#include <utility>

#include "internal/rotated.h"
#include "internal/settled.h"

namespace velorin::internal {

namespace {

constexpr size_t kBlockBytes = 64;

// ---- On every processor ----

// Four words of the message schedule at once; registers of SSE2, which both targets have.
using Words = uint32_t __attribute__((vector_size(16)));
using Halves = uint16_t __attribute__((vector_size(16)));

constexpr uint32_t kConstants[4] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};

constexpr int kFours = 20;  // of the schedule, and of steps
constexpr int kKept = 8;    // as far back as the schedule looks
constexpr int kAhead = 2;   // as far as it runs before the steps, which then never wait for it

// The schedule's latest words, and their sums with the steps' constants.
struct Schedule {
  Words (&words)[kKept];
  uint32_t (&sums)[kKept][4];
};

// The words of messages: most significant byte first.
[[gnu::always_inline]] inline Words loaded(const uint8_t* bytes) {
  Words words;
  memcpy(&words, bytes, sizeof words);
  const Halves halves = reinterpret_cast<Halves>(words);
  return rotated(reinterpret_cast<Words>(halves << 8 | halves >> 8), 16);
}

// Computes the schedule's words 4 * `four` to 4 * `four` + 3.
template <int four>
[[gnu::always_inline]] inline void extend(const Schedule& schedule, const uint8_t* block) {
  const auto& w = schedule.words;
  Words next;
  if constexpr (four < 4) {
    next = loaded(block + 16 * four);
  } else {
    constexpr int now = four % kKept, before1 = (four + 7) % kKept, before2 = (four + 6) % kKept,
                  before3 = (four + 5) % kKept, before4 = (four + 4) % kKept,
                  before7 = (four + 1) % kKept;
    if constexpr (four < 8) {
      // W[t] = rotated(W[t-3] ^ W[t-8] ^ W[t-14] ^ W[t-16], 1): the last of the four needs the
      // first, which is put in behind the others.
      const Words zero = {};
      next = w[before4] ^ __builtin_shufflevector(w[before4], w[before3], 2, 3, 4, 5) ^ w[before2] ^
             __builtin_shufflevector(w[before1], zero, 1, 2, 3, 4);
      const Words first = __builtin_shufflevector(next, zero, 4, 4, 4, 0);
      next = rotated(next, 1) ^ rotated(first, 2);
    } else {
      // The same put into itself: W[t] = rotated(W[t-6] ^ W[t-16] ^ W[t-28] ^ W[t-32], 2).
      next = __builtin_shufflevector(w[before2], w[before1], 2, 3, 4, 5) ^ w[before4] ^ w[before7] ^
             w[now];
      next = rotated(next, 2);
    }
  }
  schedule.words[four % kKept] = next;
  const Words sum = next + kConstants[four / 5];
  auto& stored = schedule.sums[four % kKept];
  memcpy(stored, &sum, sizeof sum);
  // Through memory is the short way from vectors to the steps' registers; compilers take others.
  asm("" : "+m"(stored));
}

// Each step waits for what the step before computed last, `a`. The sums are settled so that what is
// ready early is added early.
template <int step>
[[gnu::always_inline]] inline void doStep(uint32_t a, uint32_t& b, uint32_t c, uint32_t d,
                                          uint32_t& e, const Schedule& schedule,
                                          const uint8_t* block) {
  if constexpr (step % 4 == 0 && step / 4 + kAhead < kFours)
    extend<step / 4 + kAhead>(schedule, block);

  e += schedule.sums[step / 4 % kKept][step % 4];
  if constexpr (step < 20) {
    e += settled(d ^ (b & settled(c ^ d)));
  } else if constexpr (step >= 40 && step < 60) {
    // The majority: bits that `c` and `d` share, and of `b` where these differ.
    e = settled(e + (c & d));
    e += settled(b & settled(c ^ d));
  } else {
    e += settled(b ^ c ^ d);
  }
  b = rotated(b, 30);
  e = settled(e) + rotated(a, 5);
}

template <int step>
[[gnu::always_inline]] inline void doFiveSteps(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d,
                                               uint32_t& e, const Schedule& schedule,
                                               const uint8_t* block) {
  doStep<step>(a, b, c, d, e, schedule, block);
  doStep<step + 1>(e, a, b, c, d, schedule, block);
  doStep<step + 2>(d, e, a, b, c, schedule, block);
  doStep<step + 3>(c, d, e, a, b, schedule, block);
  doStep<step + 4>(b, c, d, e, a, schedule, block);
}

template <int... i>
[[gnu::always_inline]] inline void doAllSteps(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d,
                                              uint32_t& e, const uint8_t* block,
                                              std::integer_sequence<int, i...>) {
  Words words[kKept];
  alignas(Words) uint32_t sums[kKept][4];
  const Schedule schedule = {words, sums};
  extend<0>(schedule, block);
  extend<1>(schedule, block);
  static_assert(kAhead == 2, "what the first step finds computed");
  (doFiveSteps<5 * i>(a, b, c, d, e, schedule, block), ...);
}

// ---- With the SHA extensions ----

#define VELORIN_SHA_EXTENSIONS [[gnu::target("sha,ssse3,sse4.1")]]

// The schedule's next four words go round in `w`; of the state, `abcd` holds four words, the first
// on top, and `e` has the fifth on top, already rotated when it comes from `abcd`.
template <int four>
VELORIN_SHA_EXTENSIONS [[gnu::always_inline]] inline void doFourSteps(__m128i& abcd, __m128i& e,
                                                                      __m128i (&w)[4],
                                                                      const uint8_t* block) {
  constexpr int now = four % 4, before1 = (four + 3) % 4, before2 = (four + 2) % 4,
                before3 = (four + 1) % 4;
  if constexpr (four < 4) {
    const __m128i reversed = _mm_set_epi64x(0x0001020304050607, 0x08090A0B0C0D0E0F);
    __m128i bytes;
    memcpy(&bytes, block + 16 * four, sizeof bytes);
    w[now] = _mm_shuffle_epi8(bytes, reversed);
  } else {
    w[now] = _mm_sha1msg2_epu32(_mm_xor_si128(_mm_sha1msg1_epu32(w[now], w[before3]), w[before2]),
                                w[before1]);
  }
  const __m128i sum = four == 0 ? _mm_add_epi32(e, w[now]) : _mm_sha1nexte_epu32(e, w[now]);
  e = abcd;
  abcd = _mm_sha1rnds4_epu32(abcd, sum, four / 5);
}

template <int... four>
VELORIN_SHA_EXTENSIONS [[gnu::always_inline]] inline void doAllFours(
    __m128i& abcd, __m128i& e, const uint8_t* block, std::integer_sequence<int, four...>) {
  __m128i w[4];
  (doFourSteps<four>(abcd, e, w, block), ...);
}

// ---- The choice ----

Sha1Blocks chooseThenAdd;

// Constant from the start, so that static initialisers may digest too. Threads that come here
// together all choose the same.
std::atomic<Sha1Blocks*> chosen = chooseThenAdd;

void chooseThenAdd(uint32_t* state, const uint8_t* block, size_t count) {
  // LCOV_EXCL_BR_NEXT: one processor answers one way
  Sha1Blocks* const fastest = hasShaExtensions() ? sha1BlocksExtensions : sha1BlocksPortable;
  chosen.store(fastest, std::memory_order_relaxed);
  fastest(state, block, count);
}

}  // namespace

void sha1Blocks(uint32_t* state, const uint8_t* block, size_t count) {
  chosen.load(std::memory_order_relaxed)(state, block, count);
}

void sha1BlocksPortable(uint32_t* state, const uint8_t* block, size_t count) {
  for (; count > 0; --count, block += kBlockBytes) {
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    doAllSteps(a, b, c, d, e, block, std::make_integer_sequence<int, 16>());
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
  }
}

VELORIN_SHA_EXTENSIONS void sha1BlocksExtensions(uint32_t* state, const uint8_t* block,
                                                 size_t count) {
  constexpr int kReversed = 0x1B;
  __m128i abcd;
  memcpy(&abcd, state, sizeof abcd);
  abcd = _mm_shuffle_epi32(abcd, kReversed);
  __m128i e = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);

  for (; count > 0; --count, block += kBlockBytes) {
    const __m128i abcd_before = abcd;
    __m128i e_before = e;
    // A copy in memory leaves `e` itself in a register, however few there are: the first steps wait
    // for it.
    asm("" : "+m"(e_before));
    doAllFours(abcd, e, block, std::make_integer_sequence<int, kFours>());
    e = _mm_sha1nexte_epu32(e, e_before);
    abcd = _mm_add_epi32(abcd, abcd_before);
  }

  abcd = _mm_shuffle_epi32(abcd, kReversed);
  memcpy(state, &abcd, sizeof abcd);
  state[4] = static_cast<uint32_t>(_mm_extract_epi32(e, 3));
}

bool hasShaExtensions() {
  unsigned a, b, c, d;
  // LCOV_EXCL_START: one processor answers one way
  if (!__get_cpuid(1, &a, &b, &c, &d) || !(c & bit_SSSE3) || !(c & bit_SSE4_1)) return false;
  return __get_cpuid_count(7, 0, &a, &b, &c, &d) && (b & bit_SHA);
  // LCOV_EXCL_STOP
}

}  // namespace velorin::internal
