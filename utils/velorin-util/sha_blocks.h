// The step of SHA-1 that costs: adding whole blocks to a digest.
#ifndef VELORIN_sha_blocks_
#define VELORIN_sha_blocks_

#include <stddef.h>
#include <stdint.h>

namespace velorin::internal {

// Adds `count` blocks of 64 bytes, at any address, to the five words of `state`.
// Threads: any, one per state. Signals: safe.
using Sha1Blocks = void(uint32_t* state, const uint8_t* block, size_t count);

// By whichever of the following is the fastest that this processor runs; asks it once.
Sha1Blocks sha1Blocks;

// On every processor.
Sha1Blocks sha1BlocksPortable;

// With the SHA extensions; only where hasShaExtensions says so.
Sha1Blocks sha1BlocksExtensions;

// Returns: whether this processor has the SHA extensions, and the other instructions needed there.
bool hasShaExtensions();

}  // namespace velorin::internal

#endif  // VELORIN_sha_blocks_
