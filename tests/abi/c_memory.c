/* A C11 program that uses all of the C interface of the pools and the spin lock, both the inlined
   functions of the lock and those that the library holds. It exits with 0 when all was as
   expected. */
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "expect.h"
#include "velorin/sd_mgmt"
#include "velorin/sd_mpool"
#include "velorin/simplelock"

static void pool_on_own_memory(void) {
  const int size = mpool_calculate_reqsize(10, 100);
  EXPECT(size > 1000 && size % 4096 == 0);
  EXPECT(mpool_calculate_reqsize(-1, 100) == -1);

  mpool_hdr_t* const pool = malloc((size_t)size);
  EXPECT(pool != NULL);
  if (pool == NULL) return;
  EXPECT(mpool_initialize(pool, 100, 100) == -1);
  EXPECT(mpool_initialize(pool, size, 100) == 0);
  char* const element = mpool_alloc_elm(pool);
  EXPECT(element != NULL);
  EXPECT(mpool_is_elm_valid(pool, size, element) == 1);
  EXPECT(mpool_is_elm_valid(pool, size, element + 1) == 0);
  memset(element, 'x', 100);
  mpool_free_elm(pool, element);
  EXPECT(mpool_alloc_elm(pool) == element);
  free(pool);
}

static void pools_by_index(void) {
  EXPECT(sd_elm_alloc(0) == NULL);
  errno = 0;
  EXPECT(sd_create_mpool(0, 100, 0) == -1);
  EXPECT(errno == EINVAL);
  EXPECT(sd_create_mpool(10, 100, 0) == 0);
  EXPECT(sd_create_mpool(10, 100, 1) == 1);
  char* const element = sd_elm_alloc(1);
  EXPECT(element != NULL);
  EXPECT(sd_elm_free(1, element + 1) == -1);
  EXPECT(sd_elm_free(2, element) == -1);
  EXPECT(sd_elm_free(1, element) == 0);
  EXPECT(sd_elm_alloc(1) == element);
}

static void inlined_lock(void) {
  volatile uint32_t word = 7;
  s_lock_init(&word);
  EXPECT(word == 0);
  s_lock(&word);
  EXPECT(word == 1);
  EXPECT(s_lock_try(&word) == 0);
  s_unlock(&word);
  EXPECT(word == 0);
  EXPECT(s_lock_try(&word) == 1);
}

static void lock_by_address(void) {
  void (*volatile init)(volatile uint32_t*) = s_lock_init;
  void (*volatile lock)(volatile uint32_t*) = s_lock;
  int (*volatile try_lock)(volatile uint32_t*) = s_lock_try;
  void (*volatile unlock)(volatile uint32_t*) = s_unlock;
  volatile uint32_t word = 7;
  init(&word);
  EXPECT(word == 0);
  lock(&word);
  EXPECT(word == 1);
  EXPECT(try_lock(&word) == 0);
  unlock(&word);
  EXPECT(word == 0);
  EXPECT(try_lock(&word) == 1);
}

int main(void) {
  pool_on_own_memory();
  pools_by_index();
  inlined_lock();
  lock_by_address();
  return failures == 0 ? 0 : 1;
}
