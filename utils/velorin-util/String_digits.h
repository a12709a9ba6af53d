// The digits of a number and the text around them, shared by both widths of String.
//
// A text is built in the string that is returned. The string starts as a copy of the text's head
// (sign and radix prefix) with zeros behind it, and the digits are written over the zeros. Built in
// a buffer beside it they would be copied while their stores, two digits each, are still on the
// way; processors stall there, and a number of ten digits takes twice as long. Only padded numbers,
// which may exceed their buffer, are built in one.
#ifndef VELORIN_String_digits_
#define VELORIN_String_digits_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <limits>
#include <string>
#include <type_traits>

#include "internal/always_assert.h"

namespace velorin::internal {

constexpr char digits[] = "0123456789ABCDEF";

constexpr int kLeastRadix = 2;
constexpr int kGreatestRadix = 16;
constexpr size_t kMostDigits = 127;
constexpr size_t kBlock = 8;  // digits written at a time

// A radix that is known when compiling: divisions by it become multiplications and shifts.
template <int radix>
using FixedRadix = std::integral_constant<int, radix>;

// The type of 32 or 64 bits for the magnitudes of an integer type.
template <class Int>
using Magnitude = std::conditional_t<sizeof(Int) == 8, uint64_t, uint32_t>;

template <class Int>
constexpr Magnitude<Int> magnitude(Int v) {
  const auto u = static_cast<Magnitude<Int>>(v);
  return v < 0 ? 0 - u : u;
}

// LCOV_EXCL_START: only the compiler runs this
constexpr uint64_t power(uint64_t radix, size_t exponent) {
  uint64_t result = 1;
  while (exponent-- > 0) result *= radix;
  return result;
}
// LCOV_EXCL_STOP

// ---- Heads ----

constexpr size_t kMostHead = 4;   // "-12#"
constexpr size_t kMostRoom = 71;  // for what is not padded; see startFor

// What stands before the digits, and zeros behind it.
struct Head {
  char text[kMostRoom];
  uint8_t length;
};

// LCOV_EXCL_START: only the compiler runs this
constexpr Head makeHead(bool negative, int radix) {
  Head head = {};
  for (char& c : head.text) c = '0';
  if (negative) head.text[head.length++] = '-';
  if (radix == 8 || radix == 16) ++head.length;
  if (radix == 16) head.text[head.length++] = 'x';
  if (radix == 8 || radix == 10 || radix == 16) return head;
  if (radix > 10) head.text[head.length++] = '1';
  head.text[head.length++] = digits[radix % 10];
  head.text[head.length++] = '#';
  return head;
}

struct Heads {
  Head of[2][kGreatestRadix + 1];  // by sign and radix; for radix 10 the sign alone
};

constexpr Heads makeHeads() {
  Heads heads = {};
  for (int radix = kLeastRadix; radix <= kGreatestRadix; ++radix) {
    heads.of[false][radix] = makeHead(false, radix);
    heads.of[true][radix] = makeHead(true, radix);
  }
  return heads;
}
// LCOV_EXCL_STOP

inline constexpr Heads kHeads = makeHeads();

constexpr const Head& signHead(bool negative) {
  return kHeads.of[negative][10];
}

// ---- Lengths ----

// How many digits the numbers have whose highest bit is the index: `length` up to `last`, above it
// one more.
template <class UInt>
struct Lengths {
  static constexpr int kBits = std::numeric_limits<UInt>::digits;
  UInt last[kBits];
  uint8_t length[kBits];
};

template <class UInt>
struct AllLengths {
  Lengths<UInt> of[kGreatestRadix + 1];  // by radix
};

// LCOV_EXCL_START: only the compiler runs this
template <class UInt>
constexpr AllLengths<UInt> makeLengths() {
  constexpr UInt kMost = std::numeric_limits<UInt>::max();
  AllLengths<UInt> lengths = {};
  for (UInt radix = kLeastRadix; radix <= kGreatestRadix; ++radix) {
    UInt last = radix - 1;
    uint8_t length = 1;
    for (int bit = 0; bit < Lengths<UInt>::kBits; ++bit) {
      for (; last < UInt{1} << bit; ++length)
        last = last > kMost / radix ? kMost : last * radix + (radix - 1);
      lengths.of[radix].last[bit] = last;
      lengths.of[radix].length[bit] = length;
    }
  }
  return lengths;
}
// LCOV_EXCL_STOP

template <class UInt>
inline constexpr AllLengths<UInt> kLengths = makeLengths<UInt>();

// Returns: the index of the highest bit that is set; 0 for 0.
constexpr int highestBit(uint32_t v) {
  return 31 - __builtin_clz(v | 1);
}
constexpr int highestBit(uint64_t v) {
  return 63 - __builtin_clzll(v | 1);
}

// Returns: how many digits `v` has; 0 has one.
template <class UInt>
constexpr size_t lengthOf(UInt v, int radix) {
  const Lengths<UInt>& lengths = kLengths<UInt>.of[radix];
  const int bit = highestBit(v);
  return size_t{lengths.length[bit]} + (v > lengths.last[bit] ? 1 : 0);
}

// ---- Digits ----

// All numbers of `width` digits, in order.
template <uint32_t radix, size_t width>
struct Numbers {
  char text[power(radix, width)][width] = {};

  constexpr Numbers() {
    for (uint32_t v = 0; v < power(radix, width); ++v) {
      uint32_t rest = v;
      for (size_t i = width; i-- > 0; rest /= radix) text[v][i] = digits[rest % radix];
    }
  }
};

template <uint32_t radix, size_t width>
inline constexpr Numbers<radix, width> kNumbers;

// Writes `v` as exactly `width` digits: two a step, eight for radix 2.
template <uint32_t radix, size_t width>
[[gnu::always_inline]] inline void writeBlock(char* p, uint32_t v) {
  if constexpr (width == (radix == 2 ? kBlock : 2)) {
    memcpy(p, kNumbers<radix, width>.text[v], width);
  } else {
    constexpr auto half = static_cast<uint32_t>(power(radix, width / 2));
    writeBlock<radix, width / 2>(p, v / half);
    writeBlock<radix, width / 2>(p + width / 2, v % half);
  }
}

// What makes a number of `width` digits out of a shorter one, by its length.
template <uint32_t radix, size_t width>
struct Scales {
  uint32_t by[width + 1] = {};

  constexpr Scales() {
    for (size_t i = 1; i <= width; ++i) by[i] = static_cast<uint32_t>(power(radix, width - i));
  }
};

template <uint32_t radix, size_t width>
inline constexpr Scales<radix, width> kScales;

// Writes the `length` digits of `v`, and zeros behind them up to `width` characters in all: a
// branch for each length would be mispredicted too often.
template <uint32_t radix, size_t width>
[[gnu::always_inline]] inline void writeLeading(char* p, uint32_t v, size_t length) {
  writeBlock<radix, width>(p, v * kScales<radix, width>.by[length]);
}

// How many digits are cut off a number of more than 32 bits at a time: all that 32 bits hold, in
// whole blocks, so that what follows is divided in 32 bits.
// LCOV_EXCL_START: only the compiler runs this
constexpr size_t cutDigits(uint32_t radix) {
  return radix == 2 ? 32 : radix <= 4 ? 16 : kBlock;
}
// LCOV_EXCL_STOP

// The type for numbers up to `most`.
template <uint64_t most>
using UIntFor = std::conditional_t<(most > UINT32_MAX), uint64_t, uint32_t>;

// Writes the `length` digits of `v`, which is at most `most`. May write zeros behind them, up to
// `room` characters in all.
template <uint32_t radix, uint64_t most, size_t room = kBlock>
[[gnu::always_inline]] inline void writeNumber(char* p, UIntFor<most> v, size_t length) {
  if constexpr (most < power(radix, room)) {
    constexpr size_t width = most < power(radix, 2)        ? 2
                             : most < power(radix, 4)      ? 4
                             : most < power(radix, kBlock) ? kBlock
                                                           : room;
    writeLeading<radix, width>(p, v, length);
  } else {
    constexpr size_t cut = most > UINT32_MAX ? cutDigits(radix) : kBlock;
    constexpr auto unit = static_cast<UIntFor<most>>(power(radix, cut));
    if (v < unit) {
      writeNumber<radix, unit - 1, room>(p, static_cast<uint32_t>(v), length);
    } else {
      constexpr uint64_t most_above = most / unit;
      const auto above = static_cast<UIntFor<most_above>>(v / unit);
      writeNumber<radix, most_above, cut>(p, above, length - cut);
      writeBlock<radix, cut>(p + length - cut, static_cast<uint32_t>(v % unit));
    }
  }
}

template <class UInt, int radix>
[[gnu::always_inline]] inline void writeDigits(char* p, UInt v, size_t length, FixedRadix<radix>) {
  writeNumber<radix, std::numeric_limits<UInt>::max()>(p, v, length);
}

template <class UInt>
void writeDigits(char* p, UInt v, size_t length, int radix) {
  switch (radix) {
    case 2:
      return writeDigits(p, v, length, FixedRadix<2>());
    case 3:
      return writeDigits(p, v, length, FixedRadix<3>());
    case 4:
      return writeDigits(p, v, length, FixedRadix<4>());
    case 5:
      return writeDigits(p, v, length, FixedRadix<5>());
    case 6:
      return writeDigits(p, v, length, FixedRadix<6>());
    case 7:
      return writeDigits(p, v, length, FixedRadix<7>());
    case 8:
      return writeDigits(p, v, length, FixedRadix<8>());
    case 9:
      return writeDigits(p, v, length, FixedRadix<9>());
    case 10:
      return writeDigits(p, v, length, FixedRadix<10>());
    case 11:
      return writeDigits(p, v, length, FixedRadix<11>());
    case 12:
      return writeDigits(p, v, length, FixedRadix<12>());
    case 13:
      return writeDigits(p, v, length, FixedRadix<13>());
    case 14:
      return writeDigits(p, v, length, FixedRadix<14>());
    case 15:
      return writeDigits(p, v, length, FixedRadix<15>());
    default:
      return writeDigits(p, v, length, FixedRadix<16>());
  }
}

// ---- Texts ----
//
// All but paddedText are inlined: a function that calls one returning a string cannot end in a jump
// to it and needs a stack guard besides, which is a good part of what a short number takes.

// Flattened, so that the copy has a size known when compiling and calls nothing.
template <size_t room>
[[gnu::flatten]] inline std::string start(const Head& head) {
  return std::string(head.text, room);
}

// Returns: a string of `length` characters or more, `most` being the greatest that is asked for; it
// starts with the head, zeros follow. A string has room for 15 characters itself; the other rooms
// fill a block of the allocator with their final zero: 24, 40 and 72 bytes.
template <size_t most, size_t room = 15>
[[gnu::always_inline]] inline std::string startFor(const Head& head, size_t length) {
  if constexpr (most <= room) {
    return start<room>(head);
  } else {
    constexpr size_t next = 2 * room - 7;
    return length <= room ? start<room>(head) : startFor<most, next>(head, length);
  }
}

// Returns: how long a number's text can be that is not padded.
// LCOV_EXCL_START: only the compiler runs this
template <class UInt, int radix>
constexpr size_t mostLength(FixedRadix<radix>) {
  return makeHead(true, radix).length + lengthOf(std::numeric_limits<UInt>::max(), radix);
}
template <class UInt>
constexpr size_t mostLength(int) {
  return mostLength<UInt>(FixedRadix<kLeastRadix>());
}
// LCOV_EXCL_STOP

template <class UInt, class Radix>
[[gnu::always_inline]] inline std::string text(const Head& head, UInt v, Radix radix) {
  const size_t length = lengthOf(v, radix);
  const size_t end = head.length + length;
  std::string s = startFor<mostLength<UInt>(Radix())>(head, end);
  writeDigits(s.data() + head.length, v, length, radix);
  s.erase(end);
  return s;
}

template <class UInt>
[[gnu::noinline]] std::string paddedText(const Head& head, UInt v, int radix, int mindigits) {
  char room[kMostHead + kMostDigits + kBlock];
  char* const buffer = room + kMostHead;
  char* const end = buffer + kMostDigits;
  char* p = end;
  // Kept: 0 has no digit of its own, only what `mindigits` asks for.
  if (v != 0) {
    const size_t length = lengthOf(v, radix);
    p -= length;
    writeDigits(p, v, length, radix);
  }
  while (end - p < mindigits) {
    assert(p != buffer);
    *--p = '0';
  }
  p -= head.length;
  memcpy(p, head.text, head.length);
  return std::string(p, end);
}

// Returns: `v` in decimal, behind a minus sign when it is `negative`.
template <class UInt>
[[gnu::always_inline]] inline std::string decimalText(bool negative, UInt v) {
  return text(signHead(negative), v, FixedRadix<10>());
}

// Returns: the head and the digits of `v` in any radix.
template <class UInt>
[[gnu::always_inline]] inline std::string anyText(const Head& head, UInt v, int radix,
                                                  int mindigits) {
  if (mindigits != 1 && (v == 0 || mindigits > static_cast<int>(lengthOf(v, radix))))
    return paddedText(head, v, radix, mindigits);
  return text(head, v, radix);
}

// Returns: the digits of `v` in `radix`, behind a minus sign when it is `negative`.
template <class UInt>
[[gnu::always_inline]] inline std::string signedText(bool negative, UInt v, int radix,
                                                     int mindigits) {
  if (radix == 10 && mindigits == 1) return decimalText(negative, v);
  // Kept: a negative radix ends the process here, though Str takes one for "no prefix".
  assert(radix >= 2 && radix <= 16);
  return anyText(signHead(negative), v, radix, mindigits);
}

// Returns: the same with the prefix that tells the radix. A negative radix `asked` for means no
// prefix; a single digit up to `last_bare` has none either. What most callers ask for comes first
// and has code of its own.
template <class UInt>
[[gnu::always_inline]] inline std::string prefixedText(bool negative, UInt v, int asked,
                                                       int mindigits, unsigned last_bare) {
  if (asked == 10 && mindigits == 1) return decimalText(negative, v);
  const auto head = [&](int radix) -> const Head& {
    const bool bare = asked < 0 || (v <= last_bare && v < static_cast<unsigned>(radix));
    return bare ? signHead(negative) : kHeads.of[negative][radix];
  };
  if (mindigits == 1) {
    switch (asked) {
      case 16:
      case -16:
        return text(head(16), v, FixedRadix<16>());
      case 8:
      case -8:
        return text(head(8), v, FixedRadix<8>());
      default:
        break;
    }
  }
  // Unsigned, as the least int has no opposite; it stays negative and fails.
  const int radix = asked < 0 ? static_cast<int>(0 - static_cast<unsigned>(asked)) : asked;
  assert(radix >= 2 && radix <= 16);
  return anyText(head(radix), v, radix, mindigits);
}

}  // namespace velorin::internal

#endif  // VELORIN_String_digits_
