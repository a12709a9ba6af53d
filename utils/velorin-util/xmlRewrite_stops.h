// Searching a text for the first of a few characters, sixteen at a time where the processor can.
#ifndef VELORIN_xmlRewrite_stops_
#define VELORIN_xmlRewrite_stops_

#include <stddef.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

// A set of `kCount` characters and the zero at the end of a text.
template <size_t kCount>
class Stops {
 public:
  constexpr explicit Stops(const char (&characters)[kCount + 1]) {
    has_[0] = true;
    for (size_t i = 0; i < kCount; ++i) {
      characters_[i] = characters[i];
      has_[static_cast<unsigned char>(characters[i])] = true;
    }
  }

  bool has(char c) const { return has_[static_cast<unsigned char>(c)]; }

  // Both return the first of these at or behind `from`, in a text that ends in a zero (at `end`).
  // This one is for where it is near.
  const char* first(const char* from) const {
    while (!has(*from)) ++from;
    return from;
  }

  const char* first(const char* from, const char* end) const {
#ifdef __SSE2__
    for (; end - from >= 16; from += 16) {
      const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
      __m128i found = _mm_cmpeq_epi8(text, _mm_set1_epi8(characters_[0]));
#pragma GCC unroll 8
      for (size_t i = 1; i < kCount; ++i)
        found = _mm_or_si128(found, _mm_cmpeq_epi8(text, _mm_set1_epi8(characters_[i])));
      const int places = _mm_movemask_epi8(found);
      if (places != 0) return from + __builtin_ctz(static_cast<unsigned>(places));
    }
#endif
    (void)end;
    return first(from);
  }

 private:
  char characters_[kCount] = {};
  bool has_[256] = {};
};

template <size_t kSize>
Stops(const char (&)[kSize]) -> Stops<kSize - 1>;

// Returns: the first place at or behind `from`, in a text that ends in a zero at `end`, that holds
// that zero, a ">", or, in any case, an "h" or, with `kWithS`, an "s", when behind it is an "r" or
// when nobody knows: all attributes with links begin with such two letters, and few other words
// hold them.
template <bool kWithS>
const char* firstHintOfAttribute(const char* from, const char* end) {
#ifdef __SSE2__
  const __m128i case_bit = _mm_set1_epi8(' ');
  for (; end - from >= 16; from += 16) {
    const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + 1));
    const __m128i letters = _mm_or_si128(text, case_bit);
    __m128i found = _mm_cmpeq_epi8(letters, _mm_set1_epi8('h'));
    if (kWithS) found = _mm_or_si128(found, _mm_cmpeq_epi8(letters, _mm_set1_epi8('s')));
    found = _mm_and_si128(found, _mm_cmpeq_epi8(_mm_or_si128(next, case_bit), _mm_set1_epi8('r')));
    found = _mm_or_si128(found, _mm_cmpeq_epi8(text, _mm_set1_epi8('>')));
    const int places = _mm_movemask_epi8(found);
    if (places != 0) return from + __builtin_ctz(static_cast<unsigned>(places));
  }
#endif
  (void)end;
  static constexpr Stops kEach(kWithS ? ">sShH" : ">hHhH");
  return kEach.first(from);
}

#endif  // VELORIN_xmlRewrite_stops_
