// Text whose every byte can be printed. See velorin/String.
#include <string>

#include "String_digits.h"
#include "String_printable.h"
#include "velorin/String"

using velorin::internal::digits;
using velorin::internal::isAlphanumeric;
using velorin::internal::isPrintable;

std::string plain(const std::string& s) {
  std::string text;
  text.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    const bool ambiguous = c == '%' && i + 1 < s.size() && isAlphanumeric(s[i + 1]);
    if (isPrintable(c) && !ambiguous) {
      text += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      text += {'%', digits[byte >> 4], digits[byte & 15]};
    }
  }
  return text;
}
