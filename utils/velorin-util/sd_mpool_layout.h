// How pools and their register lie in memory, and the operations that both layers inline. Debuggers
// and tools that read core files know the names and the layout.
#ifndef VELORIN_sd_mpool_layout_
#define VELORIN_sd_mpool_layout_

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "sd_mpool_mutex.h"
#include "sd_mpool_poison.h"
#include "velorin/sd_mpool"

// What a free element begins with. Elements need not be aligned: never access one through this
// type, but with load_next and store_next.
struct mpool_elm_t {
  mpool_elm_t* next;  // null: the last one
};

// What a pool begins with; the elements follow.
struct mpool_hdr_t {
  void* elms_base;  // the first element
  int32_t elm_sz;   // not below that of mpool_elm_t
  mpool_elm_t* pfree_elms;
  pthread_mutex_t lock;  // guards pfree_elms and the list
};

// One pool as the register describes it. It never changes once it is counted.
struct sd_pool_hdr_t {
  mpool_hdr_t* pool_base;
  uint32_t pool_len;  // without the guard page
  int32_t elm_sz;     // as requested
  int32_t n_elms;     // as requested
  int32_t do_erase;
};

// The register: one page.
struct sd_mgmt_page_t {
  int32_t numpools;          // stored after the descriptor that it counts
  sd_mgmt_page_t* nextpage;  // always null
  sd_pool_hdr_t pools[];
};

#define SAME_ON_BOTH(condition) static_assert(condition, "the layout is fixed")
#define BY_WIDTH(narrow, wide) (sizeof(void*) == 4 ? size_t{narrow} : size_t{wide})

SAME_ON_BOTH(offsetof(mpool_elm_t, next) == 0);
SAME_ON_BOTH(sizeof(mpool_elm_t) == BY_WIDTH(4, 8));

SAME_ON_BOTH(offsetof(mpool_hdr_t, elms_base) == 0);
SAME_ON_BOTH(offsetof(mpool_hdr_t, elm_sz) == BY_WIDTH(4, 8));
SAME_ON_BOTH(offsetof(mpool_hdr_t, pfree_elms) == BY_WIDTH(8, 16));
SAME_ON_BOTH(offsetof(mpool_hdr_t, lock) == BY_WIDTH(12, 24));
SAME_ON_BOTH(sizeof(mpool_hdr_t) == BY_WIDTH(36, 64));

SAME_ON_BOTH(offsetof(sd_pool_hdr_t, pool_base) == 0);
SAME_ON_BOTH(offsetof(sd_pool_hdr_t, pool_len) == BY_WIDTH(4, 8));
SAME_ON_BOTH(offsetof(sd_pool_hdr_t, elm_sz) == BY_WIDTH(8, 12));
SAME_ON_BOTH(offsetof(sd_pool_hdr_t, n_elms) == BY_WIDTH(12, 16));
SAME_ON_BOTH(offsetof(sd_pool_hdr_t, do_erase) == BY_WIDTH(16, 20));
SAME_ON_BOTH(sizeof(sd_pool_hdr_t) == BY_WIDTH(20, 24));

SAME_ON_BOTH(offsetof(sd_mgmt_page_t, numpools) == 0);
SAME_ON_BOTH(offsetof(sd_mgmt_page_t, nextpage) == BY_WIDTH(4, 8));
SAME_ON_BOTH(offsetof(sd_mgmt_page_t, pools) == BY_WIDTH(8, 16));
SAME_ON_BOTH(sizeof(sd_mgmt_page_t) == BY_WIDTH(8, 16));

#undef BY_WIDTH
#undef SAME_ON_BOTH

namespace velorin::internal {

inline mpool_elm_t* load_next(const void* element) {
  mpool_elm_t* next;
  memcpy(&next, element, sizeof next);
  return next;
}

inline void store_next(void* element, mpool_elm_t* next) {
  memcpy(element, &next, sizeof next);
}

// Where AddressSanitizer watches, what a free element holds behind its link is poisoned: a use
// after the free is reported. The mutex is held meanwhile: elements beside each other may share a
// granule of the shadow memory. An address before the first element can be freed too; what lies
// there is not the pool's.
inline bool is_watched(const mpool_hdr_t* pool, const void* element) {
  return reinterpret_cast<uintptr_t>(element) >= reinterpret_cast<uintptr_t>(pool + 1);
}

inline void poison_element(const mpool_hdr_t* pool, void* element) {
  constexpr size_t kLink = sizeof(mpool_elm_t);
  if (!is_watched(pool, element)) return;
  poison(static_cast<char*>(element) + kLink, static_cast<size_t>(pool->elm_sz) - kLink);
}

inline void unpoison_element(const mpool_hdr_t* pool, void* element) {
  if (is_watched(pool, element)) unpoison(element, static_cast<size_t>(pool->elm_sz));
}

inline bool is_element_valid(const mpool_hdr_t* pool, int pool_len, const void* e) {
  const uintptr_t address = reinterpret_cast<uintptr_t>(e);
  // Unsigned, so that a sum or a distance beyond the address space wraps, as addresses do.
  const uintptr_t end = reinterpret_cast<uintptr_t>(pool) + static_cast<uintptr_t>(pool_len);
  if (end <= address) return false;
  // Kept: no lower bound. An address before the first element passes when its distance is a whole
  // number of elements: this sorts out what cannot be an element, it does not prove that one is.
  const uintptr_t base = reinterpret_cast<uintptr_t>(pool->elms_base);
  const intptr_t distance = static_cast<intptr_t>(address - base);
  const int32_t elm_sz = pool->elm_sz;
  if (elm_sz <= 0) return false;  // the pool was wiped; other threads still run
  // The quotient times the size is the distance exactly when nothing remains. In a pool, 32 bits
  // are enough, and dividing 64 costs a multiple on many processors.
  if (distance >= 0 && distance <= INT32_MAX)
    return static_cast<uint32_t>(distance) % static_cast<uint32_t>(elm_sz) == 0;
  return distance % elm_sz == 0;
}

// Both are called with the mutex held, and release it.
inline void* pop_element(mpool_hdr_t* pool) {
  mpool_elm_t* const element = pool->pfree_elms;
  if (element != nullptr) {
    pool->pfree_elms = load_next(element);
    unpoison_element(pool, element);
  }
  release_mutex(&pool->lock);
  // It is the caller's by now: others wait for the mutex a store less.
  if (element != nullptr) store_next(element, nullptr);
  return element;
}

inline void push_element(mpool_hdr_t* pool, void* e) {
  store_next(e, pool->pfree_elms);
  pool->pfree_elms = static_cast<mpool_elm_t*>(e);
  poison_element(pool, e);
  release_mutex(&pool->lock);
}

// What is rare stays out of the functions that call it: they need no stack.
[[gnu::cold, gnu::noinline]] inline void* wait_and_allocate_element(mpool_hdr_t* pool) {
  return pthread_mutex_lock(&pool->lock) == 0 ? pop_element(pool) : nullptr;
}

[[gnu::cold, gnu::noinline]] inline void wait_and_free_element(mpool_hdr_t* pool, void* e) {
  if (pthread_mutex_lock(&pool->lock) == 0) push_element(pool, e);
}

inline void* allocate_element(mpool_hdr_t* pool) {
  if (__builtin_expect(!try_mutex(&pool->lock), false)) return wait_and_allocate_element(pool);
  return pop_element(pool);
}

inline void free_element(mpool_hdr_t* pool, void* e) {
  if (__builtin_expect(!try_mutex(&pool->lock), false)) return wait_and_free_element(pool, e);
  push_element(pool, e);
}

}  // namespace velorin::internal

#endif  // VELORIN_sd_mpool_layout_
