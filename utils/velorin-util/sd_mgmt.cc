// Pools by index, each in a mapping of its own. See velorin/sd_mgmt.
#include "velorin/sd_mgmt"

#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include "sd_mpool_layout.h"
#include "velorin/sig_handler"

// Debuggers and tools that read core files look these up by name: hidden, but outside of any
// namespace and not mangled.
extern "C" {
sd_mgmt_page_t* gcSdMgmtROPage = nullptr;  // released by the thread that made it
pthread_mutex_t gsSdPgLk = PTHREAD_MUTEX_INITIALIZER;
void sd_erase();
}

namespace {

constexpr int kNoIndex = -1;

size_t page_size() {
  return static_cast<size_t>(getpagesize());
}

// Null, with errno set, when there is no memory.
void* map(size_t size) {
  void* const start =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return start != MAP_FAILED ? start : nullptr;
}

// With the guard page, and with errno as it was.
void unmap_pool(void* start, size_t pool_len) {
  const int err = errno;
  velorin::internal::unpoison(start, pool_len);
  (void)munmap(start, pool_len + page_size());
  errno = err;
}

// A pool of `pool_len` bytes with its guard page; null when it cannot be had.
void* map_pool(size_t pool_len, int elm_sz) {
  void* const start = map(pool_len + page_size());
  if (start == nullptr) return nullptr;
  if (mprotect(static_cast<char*>(start) + pool_len, page_size(), PROT_READ) == 0 &&
      mpool_initialize(start, static_cast<int>(pool_len), elm_sz) == 0)
    return start;
  unmap_pool(start, pool_len);
  return nullptr;
}

// The register, writable; null when it cannot be.
sd_mgmt_page_t* open_register() {
  if (gcSdMgmtROPage != nullptr)
    return mprotect(gcSdMgmtROPage, page_size(), PROT_READ | PROT_WRITE) == 0 ? gcSdMgmtROPage
                                                                              : nullptr;
  auto* const page = static_cast<sd_mgmt_page_t*>(map(page_size()));  // the kernel gives zeros
  if (page == nullptr) return nullptr;
  __atomic_store_n(&gcSdMgmtROPage, page, __ATOMIC_RELEASE);
  // Kept: takes the place of a callback that the program has stored before.
  set_at_coredump_cb(sd_erase);
  return page;
}

// Returns: the index of the pool; kNoIndex when the page is full.
int append(sd_mgmt_page_t* page, const sd_pool_hdr_t& pool) {
  // Kept: one less than would fit. The last slot is never used; limits in the field count on it.
  const size_t limit = (page_size() - sizeof(sd_mgmt_page_t)) / sizeof(sd_pool_hdr_t) - 1;
  const int32_t index = page->numpools;
  if (index < 0 || static_cast<size_t>(index) >= limit) return kNoIndex;
  page->pools[index] = pool;
  // Other threads look pools up without the mutex: they see the descriptor before they see it
  // counted.
  __atomic_store_n(&page->numpools, index + 1, __ATOMIC_RELEASE);
  return index;
}

// Called with gsSdPgLk held.
int enter(const sd_pool_hdr_t& pool) {
  sd_mgmt_page_t* const page = open_register();
  if (page == nullptr) return kNoIndex;
  const int index = append(page, pool);
  (void)mprotect(page, page_size(), PROT_READ);  // a register left writable still works
  return index;
}

const sd_pool_hdr_t* find(int mpidx) {
  const sd_mgmt_page_t* const page = __atomic_load_n(&gcSdMgmtROPage, __ATOMIC_ACQUIRE);
  if (page == nullptr || mpidx < 0) return nullptr;
  if (mpidx >= __atomic_load_n(&page->numpools, __ATOMIC_ACQUIRE)) return nullptr;
  return &page->pools[mpidx];
}

}  // namespace

// Runs in the crash handler: what the secret pools hold must not reach the core file. Their headers
// and mutexes go too, as the process is about to end.
void sd_erase() {
  for (int i = 0;; ++i) {
    const sd_pool_hdr_t* const pool = find(i);
    if (pool == nullptr) return;
    if (pool->do_erase == 0) continue;
    velorin::internal::unpoison(pool->pool_base, pool->pool_len);
    explicit_bzero(pool->pool_base, pool->pool_len);  // a memset before the end could be dropped
  }
}

int sd_create_mpool(int nelms, int elm_sz, int do_erase) {
  const int size = nelms < 1 || elm_sz < 1 ? -1 : mpool_calculate_reqsize(nelms, elm_sz);
  if (size < 0) {
    errno = EINVAL;
    return kNoIndex;
  }
  const size_t pool_len = static_cast<size_t>(size);
  void* const start = map_pool(pool_len, elm_sz);
  if (start == nullptr) return kNoIndex;
  const sd_pool_hdr_t pool = {static_cast<mpool_hdr_t*>(start), static_cast<uint32_t>(pool_len),
                              elm_sz, nelms, do_erase};

  if (pthread_mutex_lock(&gsSdPgLk) != 0) {
    unmap_pool(start, pool_len);
    return kNoIndex;
  }
  const int index = enter(pool);
  if (index == kNoIndex) unmap_pool(start, pool_len);
  (void)pthread_mutex_unlock(&gsSdPgLk);
  return index;
}

void* sd_elm_alloc(int mpidx) {
  const sd_pool_hdr_t* const pool = find(mpidx);
  return pool != nullptr ? velorin::internal::allocate_element(pool->pool_base) : nullptr;
}

int sd_elm_free(int mpidx, void* e) {
  const sd_pool_hdr_t* const pool = find(mpidx);
  if (pool == nullptr) return -1;
  if (!velorin::internal::is_element_valid(pool->pool_base, static_cast<int>(pool->pool_len), e))
    return -1;
  velorin::internal::free_element(pool->pool_base, e);
  return 0;
}
