// The loops of Base64 for the vector instructions of x86: SSSE3, AVX2, and AVX-512 where a
// processor can permute and compress bytes. Each function is compiled for its own instruction set
// and runs only where the processor has it.
//
// Characters and 6-bit values are turned into each other by arithmetic: what is added depends on
// the part of the alphabet that the character is in. With 64 bytes to permute, a look-up does.
#ifndef __clang__
// GCC 12 warns of its own vectors that are undefined on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#else
#include <immintrin.h>
#endif

#include "base64_kernels.h"

#define FOR_SSSE3 [[gnu::target("ssse3")]]
#define FOR_AVX2 [[gnu::target("avx2")]]
#define FOR_AVX512 [[gnu::target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vbmi2")]]
#define INLINED [[gnu::always_inline]] inline

namespace velorin::base64 {

namespace {

// ---- Tables of 16 bytes, computed from the alphabet ----

struct alignas(16) Table {
  int8_t of[16] = {};
};

// Tells the characters of the alphabet from all others. Every high nibble that some of them have
// stands for a set of low nibbles, and every set for a bit; a bit in `low` tells that the nibble is
// not in that set. Both tables give a common bit exactly for the foreign bytes.
struct Foreign {
  Table high;
  Table low;
};

// LCOV_EXCL_START: only the compiler runs this
constexpr bool inAlphabet(size_t high, size_t low) {
  const int value = base64_value[high << 4 | low];
  return value >= 0 && (high << 4 | low) != static_cast<uint8_t>(kPad);
}

constexpr unsigned lowNibbles(size_t high) {
  unsigned set = 0;
  for (size_t low = 0; low < 16; ++low)
    if (inAlphabet(high, low)) set |= 1u << low;
  return set;
}

constexpr Foreign makeForeign() {
  unsigned sets[8] = {};
  size_t count = 0;
  Foreign foreign;
  for (size_t high = 0; high < 16; ++high) {
    size_t i = 0;
    while (i < count && sets[i] != lowNibbles(high)) ++i;
    if (i == count) sets[count++] = lowNibbles(high);
    foreign.high.of[high] = static_cast<int8_t>(1 << i);
  }
  for (size_t low = 0; low < 16; ++low) {
    unsigned bits = 0;
    for (size_t i = 0; i < count; ++i)
      if ((sets[i] >> low & 1) == 0) bits |= 1u << i;
    foreign.low.of[low] = static_cast<int8_t>(bits);
  }
  return foreign;
}
constexpr Foreign kForeign = makeForeign();

constexpr int8_t valueLess(char character) {
  return static_cast<int8_t>(base64_value[static_cast<uint8_t>(character)] - character);
}

// From characters to values: what to add, by the high nibble; for "/", which shares its own with
// "+", one place before.
constexpr Table makeToValue() {
  Table table;
  table.of[1] = valueLess('/');
  table.of[2] = valueLess('+');
  table.of[3] = valueLess('0');
  table.of[4] = table.of[5] = valueLess('A');
  table.of[6] = table.of[7] = valueLess('a');
  return table;
}
constexpr Table kToValue = makeToValue();

// From values to characters: 0 to 25 add the last entry, 26 to 51 the first; every value from 52 on
// has its own.
constexpr int kFirstDigit = 52;
constexpr int kCapitals = 13;
constexpr Table makeToCharacter() {
  Table table;
  table.of[0] = static_cast<int8_t>(-valueLess('a'));
  for (int value = kFirstDigit; value < 64; ++value)
    table.of[value - kFirstDigit + 1] = static_cast<int8_t>(-valueLess(base64_code[value]));
  table.of[kCapitals] = static_cast<int8_t>(-valueLess('A'));
  return table;
}
// LCOV_EXCL_STOP
constexpr Table kToCharacter = makeToCharacter();

// Four groups of three bytes, each as the two middle bytes of a 32-bit word with a neighbour: every
// 6-bit part then lies within 16 bits.
constexpr Table kSpread = {{1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10}};

// The three bytes of four 24-bit groups, each in a 32-bit word, most significant first.
constexpr Table kPack = {{2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1}};

// ---- SSSE3: 12 bytes, 16 characters ----

FOR_SSSE3 INLINED __m128i load(const Table& table) {
  return _mm_load_si128(reinterpret_cast<const __m128i*>(&table));
}

FOR_SSSE3 INLINED __m128i load(const uint8_t* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

FOR_SSSE3 INLINED void store(void* p, __m128i v) {
  _mm_storeu_si128(static_cast<__m128i*>(p), v);
}

FOR_SSSE3 INLINED void encode12(const uint8_t* bytes, char* text) {
  const __m128i in = _mm_shuffle_epi8(load(bytes), load(kSpread));
  // Multiplications stand for shifts by different widths.
  const __m128i odd =
      _mm_mulhi_epu16(_mm_and_si128(in, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
  const __m128i even =
      _mm_mullo_epi16(_mm_and_si128(in, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
  const __m128i values = _mm_or_si128(odd, even);
  const __m128i is_capital = _mm_cmpgt_epi8(_mm_set1_epi8(26), values);
  const __m128i part = _mm_or_si128(_mm_subs_epu8(values, _mm_set1_epi8(kFirstDigit - 1)),
                                    _mm_and_si128(is_capital, _mm_set1_epi8(kCapitals)));
  store(text, _mm_add_epi8(values, _mm_shuffle_epi8(load(kToCharacter), part)));
}

FOR_SSSE3 INLINED __m128i highNibbles(__m128i characters) {
  return _mm_and_si128(_mm_srli_epi32(characters, 4), _mm_set1_epi8(15));
}

// Returns: a bit for every character that is foreign.
FOR_SSSE3 INLINED unsigned foreignOf16(__m128i characters) {
  const __m128i high = _mm_shuffle_epi8(load(kForeign.high), highNibbles(characters));
  const __m128i low =
      _mm_shuffle_epi8(load(kForeign.low), _mm_and_si128(characters, _mm_set1_epi8(15)));
  const __m128i ours = _mm_cmpeq_epi8(_mm_and_si128(high, low), _mm_setzero_si128());
  return static_cast<unsigned>(_mm_movemask_epi8(ours)) ^ 0xFFFF;
}

// Returns: the 12 bytes of 16 characters, none of which is foreign.
FOR_SSSE3 INLINED __m128i bytesOf16(__m128i characters) {
  const __m128i is_slash = _mm_cmpeq_epi8(characters, _mm_set1_epi8('/'));
  const __m128i part = _mm_add_epi8(highNibbles(characters), is_slash);
  const __m128i values = _mm_add_epi8(characters, _mm_shuffle_epi8(load(kToValue), part));
  const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
  const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
  return _mm_shuffle_epi8(groups, load(kPack));
}

FOR_SSSE3 INLINED void decode16(__m128i characters, uint8_t* bytes) {
  const __m128i decoded = bytesOf16(characters);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(bytes), decoded);
  const int last = _mm_cvtsi128_si32(_mm_srli_si128(decoded, 8));
  __builtin_memcpy(bytes + 8, &last, sizeof last);
}

FOR_SSSE3 void encodeSsse3(const uint8_t* bytes, size_t size, char* text) {
  for (; size >= 16; size -= 12, bytes += 12, text += 16) encode12(bytes, text);
  encodePortable(bytes, size, text);
}

// Copies `size` bytes, fewer than there are, by few branches, which lines of one length all take
// alike.
template <size_t room>
INLINED void copyPart(const uint8_t (&from)[room], size_t size, uint8_t* to) {
  if (room > 16 && size >= 16) {
    __builtin_memcpy(to, from, 16);
    __builtin_memcpy(to + size - 8, from + size - 8, 8);
  } else if (size >= 8) {
    __builtin_memcpy(to, from, 8);
    __builtin_memcpy(to + size - 8, from + size - 8, 8);
  } else if (size >= 4) {
    __builtin_memcpy(to, from, 4);
    __builtin_memcpy(to + size - 4, from + size - 4, 4);
  } else if (size == 3) {
    __builtin_memcpy(to, from, 2);
    to[2] = from[2];
  }
}

// Goes on behind the first foreign bytes of a vector, whose `clean` characters before them gave the
// bytes at `decoded`. Returns: false at the padding, and when the bytes split a group.
template <size_t room>
INLINED bool passForeign(const uint8_t* text, size_t size, size_t clean,
                         const uint8_t (&decoded)[room], uint8_t* bytes, Progress* done) {
  const size_t written = clean / 4 * 3;
  copyPart(decoded, written, bytes + done->written);
  done->read += clean / 4 * 4;
  done->written += written;
  if (clean % 4 != 0) return false;
  const size_t before = done->read;
  while (done->read < size && base64_value[text[done->read]] < 0) ++done->read;
  return done->read > before;
}

// Decodes behind what was `done` with the portable loop.
INLINED Progress decodeRest(const uint8_t* text, size_t size, uint8_t* bytes, Progress done) {
  if (done.read == size) return done;
  const Progress rest = decodePortable(text + done.read, size - done.read, bytes + done.written);
  return {done.read + rest.read, done.written + rest.written};
}

// Decodes vectors of 16 characters behind what was `done`, and the rest with the portable loop.
FOR_SSSE3 INLINED Progress decode16s(const uint8_t* text, size_t size, uint8_t* bytes,
                                     Progress done) {
  while (size - done.read >= 16) {
    const __m128i characters = load(text + done.read);
    const unsigned foreign = foreignOf16(characters);
    if (foreign != 0) {
      uint8_t decoded[12];
      decode16(characters, decoded);
      const auto clean = static_cast<size_t>(__builtin_ctz(foreign));
      if (!passForeign(text, size, clean, decoded, bytes, &done)) break;
      continue;
    }
    decode16(characters, bytes + done.written);
    done.read += 16;
    done.written += 12;
  }
  return decodeRest(text, size, bytes, done);
}

FOR_SSSE3 Progress decodeSsse3(const uint8_t* text, size_t size, uint8_t* bytes) {
  return decode16s(text, size, bytes, {0, 0});
}

FOR_SSSE3 size_t spanSsse3(const uint8_t* text, size_t size) {
  size_t i = 0;
  for (; size - i >= 16; i += 16) {
    const unsigned foreign = foreignOf16(load(text + i));
    if (foreign != 0) return i + static_cast<unsigned>(__builtin_ctz(foreign));
  }
  return i + spanPortable(text + i, size - i);
}

// ---- AVX2: 24 bytes, 32 characters ----

FOR_AVX2 INLINED __m256i load32(const Table& table) {
  return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(&table)));
}

FOR_AVX2 INLINED __m256i load32(const uint8_t* p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

FOR_AVX2 INLINED void encode24(const uint8_t* bytes, char* text) {
  const __m256i halves = _mm256_set_m128i(load(bytes + 12), load(bytes));
  const __m256i in = _mm256_shuffle_epi8(halves, load32(kSpread));
  const __m256i odd = _mm256_mulhi_epu16(_mm256_and_si256(in, _mm256_set1_epi32(0x0FC0FC00)),
                                         _mm256_set1_epi32(0x04000040));
  const __m256i even = _mm256_mullo_epi16(_mm256_and_si256(in, _mm256_set1_epi32(0x003F03F0)),
                                          _mm256_set1_epi32(0x01000010));
  const __m256i values = _mm256_or_si256(odd, even);
  const __m256i is_capital = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
  const __m256i part = _mm256_or_si256(_mm256_subs_epu8(values, _mm256_set1_epi8(kFirstDigit - 1)),
                                       _mm256_and_si256(is_capital, _mm256_set1_epi8(kCapitals)));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(text),
                      _mm256_add_epi8(values, _mm256_shuffle_epi8(load32(kToCharacter), part)));
}

FOR_AVX2 INLINED __m256i highNibbles(__m256i characters) {
  return _mm256_and_si256(_mm256_srli_epi32(characters, 4), _mm256_set1_epi8(15));
}

FOR_AVX2 INLINED unsigned foreignOf32(__m256i characters) {
  const __m256i high = _mm256_shuffle_epi8(load32(kForeign.high), highNibbles(characters));
  const __m256i low =
      _mm256_shuffle_epi8(load32(kForeign.low), _mm256_and_si256(characters, _mm256_set1_epi8(15)));
  const __m256i ours = _mm256_cmpeq_epi8(_mm256_and_si256(high, low), _mm256_setzero_si256());
  return ~static_cast<unsigned>(_mm256_movemask_epi8(ours));
}

FOR_AVX2 INLINED void decode32(__m256i characters, uint8_t* bytes) {
  const __m256i is_slash = _mm256_cmpeq_epi8(characters, _mm256_set1_epi8('/'));
  const __m256i part = _mm256_add_epi8(highNibbles(characters), is_slash);
  const __m256i values = _mm256_add_epi8(characters, _mm256_shuffle_epi8(load32(kToValue), part));
  const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
  const __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
  const __m256i halves = _mm256_shuffle_epi8(groups, load32(kPack));
  const __m256i packed =
      _mm256_permutevar8x32_epi32(halves, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
  store(bytes, _mm256_castsi256_si128(packed));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(bytes + 16), _mm256_extracti128_si256(packed, 1));
}

FOR_AVX2 void encodeAvx2(const uint8_t* bytes, size_t size, char* text) {
  for (; size >= 28; size -= 24, bytes += 24, text += 32) encode24(bytes, text);
  for (; size >= 16; size -= 12, bytes += 12, text += 16) encode12(bytes, text);
  encodePortable(bytes, size, text);
}

FOR_AVX2 Progress decodeAvx2(const uint8_t* text, size_t size, uint8_t* bytes) {
  Progress done = {0, 0};
  while (size - done.read >= 32) {
    const __m256i characters = load32(text + done.read);
    const unsigned foreign = foreignOf32(characters);
    if (foreign != 0) {
      uint8_t decoded[24];
      decode32(characters, decoded);
      const auto clean = static_cast<size_t>(__builtin_ctz(foreign));
      if (!passForeign(text, size, clean, decoded, bytes, &done)) break;
      continue;
    }
    decode32(characters, bytes + done.written);
    done.read += 32;
    done.written += 24;
  }
  return decode16s(text, size, bytes, done);
}

FOR_AVX2 size_t spanAvx2(const uint8_t* text, size_t size) {
  size_t i = 0;
  for (; size - i >= 32; i += 32) {
    const unsigned foreign = foreignOf32(load32(text + i));
    if (foreign != 0) return i + static_cast<unsigned>(__builtin_ctz(foreign));
  }
  if (size - i >= 16) {
    const unsigned foreign = foreignOf16(load(text + i));
    if (foreign != 0) return i + static_cast<unsigned>(__builtin_ctz(foreign));
    i += 16;
  }
  return i + spanPortable(text + i, size - i);
}

// ---- AVX-512: 48 bytes, 64 characters ----
//
// Loads and stores take a mask: an end shorter than a vector needs no other loop, and foreign bytes
// are squeezed out.

struct alignas(64) Permutation {
  uint8_t of[64] = {};
};

// LCOV_EXCL_START: only the compiler runs this
constexpr Permutation makeSpread() {
  Permutation spread;
  for (size_t i = 0; i < 64; ++i)
    spread.of[i] = static_cast<uint8_t>(i / 16 * 12 + static_cast<size_t>(kSpread.of[i % 16]));
  return spread;
}
constexpr Permutation kSpread48 = makeSpread();

constexpr Permutation makePack() {
  Permutation pack;
  for (size_t i = 0; i < 48; ++i)
    pack.of[i] = static_cast<uint8_t>(i / 12 * 16 + static_cast<size_t>(kPack.of[i % 12]));
  return pack;
}
constexpr Permutation kPack48 = makePack();

constexpr Permutation makeAlphabet() {
  Permutation alphabet;
  for (size_t i = 0; i < 64; ++i) alphabet.of[i] = static_cast<uint8_t>(base64_code[i]);
  return alphabet;
}
constexpr Permutation kAlphabet = makeAlphabet();

// The values of the characters below 128, the highest bit for the foreign ones, in two halves.
constexpr Permutation makeHalf(size_t first) {
  Permutation half;
  for (size_t i = 0; i < 64; ++i) {
    const size_t c = first + i;
    half.of[i] = inAlphabet(c >> 4, c & 15) ? static_cast<uint8_t>(base64_value[c]) : 0x80;
  }
  return half;
}
// LCOV_EXCL_STOP
constexpr Permutation kLowHalf = makeHalf(0);
constexpr Permutation kHighHalf = makeHalf(64);

// Where the 6-bit parts begin in the bits of two spread groups.
constexpr long long kPartsBegin = 0x3036242A1016040A;

FOR_AVX512 INLINED __m512i load64(const Permutation& permutation) {
  return _mm512_load_si512(&permutation);
}

// LCOV_EXCL_START: only the compiler runs this
constexpr Permutation makePlaces() {
  Permutation places;
  for (size_t i = 0; i < 64; ++i) places.of[i] = static_cast<uint8_t>(i);
  return places;
}
// LCOV_EXCL_STOP
constexpr Permutation kPlaces = makePlaces();

// The mask of the first `count` bytes, of 0 to 64. Compared, not shifted: in 32-bit code a mask of
// 64 bits from two registers goes through memory and waits there.
FOR_AVX512 INLINED __mmask64 first(size_t count) {
  return _mm512_cmplt_epu8_mask(load64(kPlaces), _mm512_set1_epi8(static_cast<char>(count)));
}

FOR_AVX512 INLINED bool any(__mmask64 mask) {
  return _kortestz_mask64_u8(mask, mask) == 0;
}

FOR_AVX512 INLINED bool anyHigh(__m512i bytes) {
  return any(_mm512_movepi8_mask(bytes));
}

// The highest bits of all bytes, in halves: what 32-bit code does with 64 bits goes through memory
// too, or through the compiler's library.
struct HighBits {
  unsigned low;
  unsigned high;
};

FOR_AVX512 INLINED HighBits highBits(__m512i bytes) {
  return {static_cast<unsigned>(_mm256_movemask_epi8(_mm512_castsi512_si256(bytes))),
          static_cast<unsigned>(_mm256_movemask_epi8(_mm512_extracti64x4_epi64(bytes, 1)))};
}

FOR_AVX512 INLINED size_t countOf(HighBits bits) {
  return static_cast<size_t>(__builtin_popcount(bits.low) + __builtin_popcount(bits.high));
}

// Returns: the place of the first bit; there must be one.
FOR_AVX512 INLINED size_t firstOf(HighBits bits) {
  return static_cast<size_t>(bits.low != 0 ? __builtin_ctz(bits.low)
                                           : 32 + __builtin_ctz(bits.high));
}

FOR_AVX512 INLINED __m512i encode48(__m512i bytes) {
  const __m512i in = _mm512_permutexvar_epi8(load64(kSpread48), bytes);
  const __m512i values = _mm512_multishift_epi64_epi8(_mm512_set1_epi64(kPartsBegin), in);
  return _mm512_permutexvar_epi8(values, load64(kAlphabet));
}

FOR_AVX512 void encodeAvx512(const uint8_t* bytes, size_t size, char* text) {
  for (; size >= 64; size -= 48, bytes += 48, text += 64)
    _mm512_storeu_si512(text, encode48(_mm512_loadu_si512(bytes)));
  while (size > 0) {
    const size_t now = size < 48 ? size : 48;
    const size_t padded = (now + 2) / 3 * 4;
    const __mmask64 pads = _knot_mask64(first((now * 4 + 2) / 3));
    const __m512i characters = encode48(_mm512_maskz_loadu_epi8(first(now), bytes));
    _mm512_mask_storeu_epi8(text, first(padded),
                            _mm512_mask_blend_epi8(pads, characters, _mm512_set1_epi8(kPad)));
    size -= now;
    bytes += now;
    text += padded;
  }
  *text = '\0';
}

// Looks characters up.
FOR_AVX512 INLINED __m512i valuesOf(__m512i characters) {
  return _mm512_permutex2var_epi8(load64(kLowHalf), characters, load64(kHighHalf));
}

// Returns: a vector with the highest bit of each foreign character: one above 127 has it itself.
FOR_AVX512 INLINED __m512i foreignOf64(__m512i characters, __m512i values) {
  return _mm512_or_si512(characters, values);
}

// Writes the first `count` bytes of the 48.
FOR_AVX512 INLINED void decode64(__m512i values, uint8_t* bytes, size_t count) {
  const __m512i pairs = _mm512_maddubs_epi16(values, _mm512_set1_epi32(0x01400140));
  const __m512i groups = _mm512_madd_epi16(pairs, _mm512_set1_epi32(0x00011000));
  _mm512_mask_storeu_epi8(bytes, first(count), _mm512_permutexvar_epi8(load64(kPack48), groups));
}

// Decodes behind what was `done` up to the padding or the end of the `size` characters, with
// foreign ones among them. The values of ours are put together first: where a block's go then
// depends on nothing but how many there were before.
[[gnu::noinline]] FOR_AVX512 Progress squeezeAvx512(const uint8_t* text, size_t size,
                                                    uint8_t* bytes, Progress done) {
  constexpr size_t kBatch = 1024;
  uint8_t values[kBatch + 64];
  size_t count = 0;
  while (done.read < size) {
    while (done.read < size && count <= kBatch) {
      const size_t now = size - done.read < 64 ? size - done.read : 64;
      const __m512i characters = now == 64 ? _mm512_loadu_si512(text + done.read)
                                           : _mm512_maskz_loadu_epi8(first(now), text + done.read);
      const __mmask64 pads = _mm512_cmpeq_epi8_mask(characters, _mm512_set1_epi8(kPad));
      if (any(pads)) {  // the text ends there
        size = done.read + firstOf(highBits(_mm512_movm_epi8(pads)));
        continue;
      }
      const __m512i found = valuesOf(characters);
      const __m512i foreign = foreignOf64(characters, found);
      const __mmask64 ours = _knot_mask64(_mm512_movepi8_mask(foreign));
      _mm512_storeu_si512(values + count, _mm512_maskz_compress_epi8(ours, found));
      count += 64 - countOf(highBits(foreign));
      done.read += now;
    }
    size_t i = 0;
    for (; count - i >= 64; i += 64, done.written += 48)
      decode64(_mm512_loadu_si512(values + i), bytes + done.written, 48);
    const size_t whole = count / 4 * 4;
    if (whole > i) {
      const __m512i last = _mm512_maskz_loadu_epi8(first(whole - i), values + i);
      decode64(last, bytes + done.written, (whole - i) / 4 * 3);
      done.written += (whole - i) / 4 * 3;
    }
    for (i = whole; i < count; ++i) values[i - whole] = values[i];
    count -= whole;
  }
  // The last group is not whole: back to its first character.
  while (count > 0) {
    const uint8_t c = text[--done.read];
    if (base64_value[c] >= 0 && c != kPad) --count;
  }
  return done;
}

// Decodes fewer than 20 characters behind what was `done`. A wide load would wait for bytes just
// written near a short text, even where its mask is 0.
FOR_AVX512 INLINED Progress decodeShort(const uint8_t* text, size_t size, uint8_t* bytes,
                                        Progress done) {
  const size_t rest = (size - done.read) / 4 * 4;
  const auto there = static_cast<__mmask16>((1u << rest) - 1);
  __m128i characters = _mm_maskz_loadu_epi8(there, text + done.read);
  const unsigned foreign = foreignOf16(characters) & there;
  size_t count = rest;
  if (foreign != 0) {
    const auto ours = static_cast<__mmask16>(there & ~foreign);
    count = static_cast<size_t>(__builtin_popcount(ours));
    const bool padded = _mm_cmpeq_epi8_mask(characters, _mm_set1_epi8(kPad)) != 0;
    if (padded || count % 4 != 0) return decodeRest(text, size, bytes, done);
    characters = _mm_maskz_compress_epi8(ours, characters);
  }
  const size_t written = count / 4 * 3;
  _mm_mask_storeu_epi8(bytes + done.written, static_cast<__mmask16>((1u << written) - 1),
                       bytesOf16(characters));
  return decodeRest(text, size, bytes, {done.read + rest, done.written + written});
}

[[gnu::noinline]] FOR_AVX512 Progress decodeLong(const uint8_t* text, size_t size, uint8_t* bytes) {
  Progress done = {0, 0};
  for (; size - done.read >= 64; done.read += 64, done.written += 48) {
    const __m512i characters = _mm512_loadu_si512(text + done.read);
    const __m512i values = valuesOf(characters);
    if (anyHigh(foreignOf64(characters, values))) return squeezeAvx512(text, size, bytes, done);
    decode64(values, bytes + done.written, 48);
  }
  const size_t rest = (size - done.read) / 4 * 4;
  if (rest <= 16) return decodeShort(text, size, bytes, done);
  const size_t written = rest / 4 * 3;
  const __mmask64 there = first(rest);
  const __m512i characters = _mm512_maskz_loadu_epi8(there, text + done.read);
  const __m512i values = valuesOf(characters);
  const __m512i foreign = _mm512_maskz_mov_epi8(there, foreignOf64(characters, values));
  if (anyHigh(foreign)) return squeezeAvx512(text, size, bytes, done);
  decode64(values, bytes + done.written, written);
  return decodeRest(text, size, bytes, {done.read + rest, done.written + written});
}

// Apart from the long ones, so that short texts need no aligned stack.
FOR_AVX512 Progress decodeAvx512(const uint8_t* text, size_t size, uint8_t* bytes) {
  if (size < 20) return decodeShort(text, size, bytes, {0, 0});
  return decodeLong(text, size, bytes);
}

FOR_AVX512 size_t spanAvx512(const uint8_t* text, size_t size) {
  size_t i = 0;
  for (; size - i >= 64; i += 64) {
    const __m512i characters = _mm512_loadu_si512(text + i);
    const __m512i foreign = foreignOf64(characters, valuesOf(characters));
    if (anyHigh(foreign)) return i + firstOf(highBits(foreign));
  }
  if (i == size) return size;
  // Zeros fill the vector behind the end, and they are foreign.
  const __m512i characters = _mm512_maskz_loadu_epi8(first(size - i), text + i);
  return i + firstOf(highBits(foreignOf64(characters, valuesOf(characters))));
}

// ---- What the processor says ----

bool runsSsse3() {
  __builtin_cpu_init();  // for the constructors of static objects
  return __builtin_cpu_supports("ssse3");
}

bool runsAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}

bool runsAvx512() {
  __builtin_cpu_init();
  // LCOV_EXCL_START: one processor answers one way
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi") &&
         __builtin_cpu_supports("avx512vbmi2");
  // LCOV_EXCL_STOP
}

}  // namespace

const Kernel kSsse3 = {"SSSE3", runsSsse3, encodeSsse3, decodeSsse3, spanSsse3};
const Kernel kAvx2 = {"AVX2", runsAvx2, encodeAvx2, decodeAvx2, spanAvx2};
const Kernel kAvx512 = {"AVX-512", runsAvx512, encodeAvx512, decodeAvx512, spanAvx512};

}  // namespace velorin::base64
