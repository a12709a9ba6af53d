// Division as the processor does it.
#ifndef VELORIN_FileUtilities_divide_
#define VELORIN_FileUtilities_divide_

#include <stdint.h>

namespace {

// The processor's own division, which ends in SIGFPE for a divisor of 0; the language leaves that
// case open.
inline uint32_t divide(uint32_t dividend, uint32_t divisor) {
  uint32_t quotient = dividend;
  uint32_t high = 0;
  asm volatile("divl %2" : "+a"(quotient), "+d"(high) : "r"(divisor) : "cc");
  return quotient;
}

}  // namespace

#endif  // VELORIN_FileUtilities_divide_
