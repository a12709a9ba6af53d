// Keeps the compiler from being clever.
#ifndef VELORIN_INTERNAL_settled_
#define VELORIN_INTERNAL_settled_

namespace velorin::internal {

// Returns: `v`, computed as the expression stands, in a register, and of a value that the compiler
// knows nothing about. Costs no instruction.
template <class Int>
[[gnu::always_inline]] inline Int settled(Int v) {
  asm("" : "+r"(v));
  return v;
}

}  // namespace velorin::internal

#endif  // VELORIN_INTERNAL_settled_
