// assert() that stays in every build: the texts of failed assertions are part of the interface.
// Include it last: it overrides NDEBUG for what follows.
#undef NDEBUG
#include <assert.h>
