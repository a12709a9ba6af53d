// Floats as text. See velorin/String.
#include <algorithm>

#include "velorin/String"

std::string Str(float v, int ndigits) {
  constexpr int kMostDigits = 6;  // all that a float keeps of any decimal number
  return Eng(double{v}, std::min(ndigits, kMostDigits));
}
