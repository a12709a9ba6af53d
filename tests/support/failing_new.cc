// Replaces operator new and delete. See failing_new.h.
#include "support/failing_new.h"

#include <stdlib.h>

#include <new>

size_t allocations_fail_from = 0;

#pragma GCC visibility push(default)

void* operator new(size_t size) {
  const bool fails = allocations_fail_from != 0 && size >= allocations_fail_from;
  void* const memory = fails ? nullptr : malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  free(memory);
}

#pragma GCC visibility pop
