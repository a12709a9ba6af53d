// Which characters can be shown as they are, for all of String.
#ifndef VELORIN_String_printable_
#define VELORIN_String_printable_

#include <ctype.h>

namespace velorin::internal {

// A byte of 0x80 or above is part of a character at best, so no locale's table is asked for it.
inline bool isAscii(char c) {
  return static_cast<unsigned char>(c) < 0x80;
}

// Kept: bytes from 0x80 on cannot be printed in any locale.
inline bool isPrintable(char c) {
  return isAscii(c) && isprint(c) != 0;
}

inline bool isAlphanumeric(char c) {
  return isAscii(c) && isalnum(c) != 0;
}

}  // namespace velorin::internal

#endif  // VELORIN_String_printable_
