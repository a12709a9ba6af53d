// What all fuzz targets use.
#ifndef VELORIN_FUZZ_fuzz_
#define VELORIN_FUZZ_fuzz_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Ends the process when a property does not hold, in every build.
#define REQUIRE(condition)                                                           \
  do {                                                                               \
    if (!(condition)) {                                                              \
      fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      abort();                                                                       \
    }                                                                                \
  } while (0)

#endif  // VELORIN_FUZZ_fuzz_
