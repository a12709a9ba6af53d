// Memory for things of one size, of which there is a fixed number.
#ifndef TCP_PROXY_pool_
#define TCP_PROXY_pool_

#include <stddef.h>

// A pool of the library. It is never given back, so it lives as long as the process: in a static
// object.
class Pool {
 public:
  // Makes room for at least `count` elements of `size` bytes; with `secret` they are wiped before a
  // core is dumped. Called once, before the others. Throws Exception.
  void create(int count, size_t size, bool secret);

  // Throws std::bad_alloc when all elements are taken.
  void* take();
  void giveBack(void* element) noexcept;

 private:
  int index_ = -1;
};

#endif  // TCP_PROXY_pool_
