/* For programs that look at the library from outside: what does not hold is counted and shown. */
#ifndef VELORIN_TESTS_ABI_expect_
#define VELORIN_TESTS_ABI_expect_

#include <stdio.h>

static int failures;

#define EXPECT(condition)                                                     \
  do {                                                                        \
    if (!(condition)) {                                                       \
      ++failures;                                                             \
      fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
    }                                                                         \
  } while (0)

#endif /* VELORIN_TESTS_ABI_expect_ */
