// Doubles as text. See velorin/String.
#include "velorin/String"

std::string Str(double v, int ndigits) {
  return Eng(v, ndigits);
}
