// Poisoning of memory for AddressSanitizer; nothing where the build is without it. Both calls may
// end amid a granule of the shadow memory: bytes beyond the range stay usable, for which a part of
// the granule may stay unpoisoned.
#ifndef VELORIN_sd_mpool_poison_
#define VELORIN_sd_mpool_poison_

#include <stddef.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELORIN_POISONS 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define VELORIN_POISONS 1
#endif

#ifdef VELORIN_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace velorin::internal {

inline void poison([[maybe_unused]] void* start, [[maybe_unused]] size_t size) {
#ifdef VELORIN_POISONS
  __asan_poison_memory_region(start, size);
#endif
}

inline void unpoison([[maybe_unused]] void* start, [[maybe_unused]] size_t size) {
#ifdef VELORIN_POISONS
  __asan_unpoison_memory_region(start, size);
#endif
}

}  // namespace velorin::internal

#undef VELORIN_POISONS

#endif  // VELORIN_sd_mpool_poison_
