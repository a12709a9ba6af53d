// assert() that stays in every build: the texts of failed assertions are part of the interface.
// Include it last: it overrides NDEBUG for what follows.
#undef NDEBUG
#include <assert.h>

// Behind a condition with a call that never returns, clang 14 takes lines for never run. Here the
// call's type does not tell that.
#ifdef VELORIN_COVERAGE
#undef assert
#define assert(condition)                                                             \
  ((condition)                                                                        \
       ? static_cast<void>(0)                                                         \
       : reinterpret_cast<void (*)(const char*, const char*, unsigned, const char*)>( \
             __assert_fail)(#condition, __FILE__, __LINE__, __extension__ __PRETTY_FUNCTION__))
#endif
