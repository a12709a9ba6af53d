// Pools on the caller's memory. See velorin/sd_mpool.
#include "velorin/sd_mpool"

#include <limits.h>
#include <unistd.h>

#include <algorithm>

#include "sd_mpool_layout.h"

namespace {

constexpr int64_t kHeader = sizeof(mpool_hdr_t);

int64_t real_element_size(int elm_sz) {
  return std::max(int64_t{elm_sz}, int64_t{sizeof(mpool_elm_t)});
}

}  // namespace

int mpool_calculate_reqsize(int nelms, int elm_sz) {
  if (nelms < 0) return -1;
  const int64_t page = getpagesize();
  const int64_t used = real_element_size(elm_sz) * nelms + kHeader;
  const int64_t rounded = (used + page - 1) / page * page;
  return rounded <= INT_MAX ? static_cast<int>(rounded) : -1;
}

int mpool_initialize(void* base, int size, int elm_sz) {
  const int64_t step = real_element_size(elm_sz);
  if (step + kHeader > size) return -1;
  // A mutex that straddles two words of the hardware does not work.
  if (reinterpret_cast<uintptr_t>(base) % alignof(mpool_hdr_t) != 0) return -1;

  velorin::internal::unpoison(base, static_cast<size_t>(size));
  char* const block = static_cast<char*>(base);
  auto* const pool = static_cast<mpool_hdr_t*>(memset(base, 0, sizeof(mpool_hdr_t)));
  pool->elm_sz = static_cast<int32_t>(step);
  pool->elms_base = block + kHeader;
  pool->pfree_elms = reinterpret_cast<mpool_elm_t*>(block + kHeader);
  if (pthread_mutex_init(&pool->lock, nullptr) != 0) return -1;

  int64_t at = kHeader;
  // Kept: strictly below. An element that would end exactly at the block's end is not made, unless
  // it is the only one: sizes of pools in the field count on it.
  for (; at + 2 * step < size; at += step) {
    velorin::internal::store_next(block + at, reinterpret_cast<mpool_elm_t*>(block + at + step));
    velorin::internal::poison_element(pool, block + at);
  }
  velorin::internal::store_next(block + at, nullptr);
  velorin::internal::poison_element(pool, block + at);
  return 0;
}

void* mpool_alloc_elm(mpool_hdr_t* pool) {
  return velorin::internal::allocate_element(pool);
}

void mpool_free_elm(mpool_hdr_t* pool, void* e) {
  // Kept: nothing is checked, not even that the element is allocated.
  velorin::internal::free_element(pool, e);
}

int mpool_is_elm_valid(mpool_hdr_t* pool, int pool_len, void* e) {
  return velorin::internal::is_element_valid(pool, pool_len, e) ? 1 : 0;
}
