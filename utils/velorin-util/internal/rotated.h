// Rotation of words, which the digests are made of.
#ifndef VELORIN_INTERNAL_rotated_
#define VELORIN_INTERNAL_rotated_

namespace velorin::internal {

// Returns: the 32 bits of `v`, or of each word of a vector, rotated left by 1 to 31.
template <class Word>
[[gnu::always_inline]] constexpr inline Word rotated(Word v, int bits) {
  return v << bits | v >> (32 - bits);
}

}  // namespace velorin::internal

#endif  // VELORIN_INTERNAL_rotated_
