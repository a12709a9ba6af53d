// Takes secrets out of memory.
#ifndef VELORIN_INTERNAL_forget_
#define VELORIN_INTERNAL_forget_

#include <stddef.h>
#include <string.h>

namespace velorin::internal {

// Overwrites `*secret` with zeros, though the compiler knows that nobody reads them. Small pieces,
// as a call or a string instruction for the whole is felt by those who digest short messages.
template <class T>
inline void forget(T* secret) {
  constexpr size_t kPiece = 16;
  static_assert(sizeof *secret >= kPiece);
  auto* const bytes = reinterpret_cast<unsigned char*>(secret);
  for (size_t i = 0; i < sizeof *secret - kPiece; i += kPiece) {
    memset(bytes + i, 0, kPiece);
    asm volatile("" : : "r"(bytes) : "memory");
  }
  memset(bytes + sizeof *secret - kPiece, 0, kPiece);
  asm volatile("" : : "r"(bytes) : "memory");
}

}  // namespace velorin::internal

#endif  // VELORIN_INTERNAL_forget_
