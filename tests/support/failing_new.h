// Memory that runs out: the program's operator new fails on request, in libraries too.
#ifndef VELORIN_TESTS_failing_new_
#define VELORIN_TESTS_failing_new_

#include <stddef.h>

// Allocations of this size in bytes or more throw std::bad_alloc; 0: none does.
extern size_t allocations_fail_from;

#endif  // VELORIN_TESTS_failing_new_
