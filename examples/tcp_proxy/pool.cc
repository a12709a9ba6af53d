// Memory for things of one size. See pool.h.
#include "pool.h"

#include <errno.h>
#include <string.h>

#include <new>
#include <string>

#include "velorin/Exception"
#include "velorin/sd_mgmt"

void Pool::create(int count, size_t size, bool secret) {
  // One more: a pool that fills its pages exactly has one element fewer than it was asked for.
  index_ = sd_create_mpool(count + 1, static_cast<int>(size), secret ? 1 : 0);
  if (index_ < 0) throw Exception(std::string("sd_create_mpool: ") + strerror(errno));
}

void* Pool::take() {
  void* const element = sd_elm_alloc(index_);
  if (element == nullptr) throw std::bad_alloc();
  return element;
}

void Pool::giveBack(void* element) noexcept {
  (void)sd_elm_free(index_, element);
}
