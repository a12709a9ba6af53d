// The spin lock out of line. See velorin/simplelock.
#include <stdint.h>

// Before the header, so that its inline definitions are emitted here and exported, though nothing
// in this file calls them.
#define EXPORTED __attribute__((used, visibility("default")))
extern "C" {
EXPORTED void s_lock_init(volatile uint32_t* word);
EXPORTED void s_lock(volatile uint32_t* word);
EXPORTED int s_lock_try(volatile uint32_t* word);
EXPORTED void s_unlock(volatile uint32_t* word);
}

#include "velorin/simplelock"
