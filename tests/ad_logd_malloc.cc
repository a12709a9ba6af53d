// Preloaded into a program: says at its end how many times it allocated memory.
#include <stddef.h>
#include <stdio.h>
#include <unistd.h>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

unsigned allocations = 0;

__attribute__((destructor)) void tell() {
  char text[64];
  const int len = snprintf(text, sizeof text, "%u allocations\n", allocations);
  if (write(STDERR_FILENO, text, static_cast<size_t>(len)) < 0) return;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

void* malloc(size_t size) {
  ++allocations;
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  ++allocations;
  return __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
  ++allocations;
  return __libc_memalign(alignment, size);
}

}  // extern "C"
#pragma GCC visibility pop
