// What all sources take for granted of the target they are compiled for.
#ifndef VELORIN_INTERNAL_target_
#define VELORIN_INTERNAL_target_

#include <sys/types.h>
#include <time.h>

static_assert(sizeof(int) == 4, "int is 32 bits on both targets");
static_assert(sizeof(long) == sizeof(void*), "long follows the target");
static_assert(sizeof(off_t) == 8, "files of any size on both targets");
static_assert(sizeof(time_t) == sizeof(long), "32-bit records hold a 32-bit time_t");

#endif  // VELORIN_INTERNAL_target_
