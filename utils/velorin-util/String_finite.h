// The words for real numbers that are not finite, shared by both notations.
#ifndef VELORIN_String_finite_
#define VELORIN_String_finite_

#include <limits>

namespace velorin::internal {

// Returns: the word for `v`; null for a finite number.
inline const char* nonFiniteWord(double v) {
  constexpr double kMost = std::numeric_limits<double>::max();
  if (v != v) return "NaN";
  if (v > kMost) return "Infinity";
  if (v < -kMost) return "-Infinity";
  return nullptr;
}

}  // namespace velorin::internal

#endif  // VELORIN_String_finite_
