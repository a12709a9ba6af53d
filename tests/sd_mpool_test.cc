// Pools on the caller's memory: what lies where in the block, and the list of the free elements.
#include "velorin/sd_mpool"

#include <gmock/gmock.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/memory_calls.h"
#include "support/pool_mutex.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr bool kNarrow = sizeof(void*) == 4;
constexpr int kHeader = kNarrow ? 36 : 64;
constexpr int kLink = kNarrow ? 4 : 8;

// Offsets in the header.
constexpr int kElmSz = kNarrow ? 4 : 8;
constexpr int kFreeElms = kNarrow ? 8 : 16;
constexpr int kLock = kNarrow ? 12 : 24;

template <typename Value>
Value valueAt(const void* address) {
  Value value;
  memcpy(&value, address, sizeof value);
  return value;
}

// A pool in a block of its own, with foreign bytes around it and in it.
class Pool {
 public:
  Pool(int size, int elm_sz, unsigned char garbage = 0xA5)
      : size_(size), memory_(new char[static_cast<size_t>(size) + 2 * kMargin]) {
    memset(memory_.get(), garbage, static_cast<size_t>(size) + 2 * kMargin);
    result_ = mpool_initialize(block(), size, elm_sz);
  }

  char* block() const { return memory_.get() + kMargin; }
  char* first() const { return block() + kHeader; }
  char* end() const { return block() + size_; }
  mpool_hdr_t* get() const { return reinterpret_cast<mpool_hdr_t*>(block()); }
  int result() const { return result_; }

  char* allocate() const { return static_cast<char*>(mpool_alloc_elm(get())); }
  void free(void* element) const { mpool_free_elm(get(), element); }
  bool accepts(void* element) const { return mpool_is_elm_valid(get(), size_, element) == 1; }

  // Offsets of the elements in the order in which they are allocated, until none is left.
  std::vector<int> allocateAll() const {
    std::vector<int> offsets;
    while (const char* const element = allocate())
      offsets.push_back(static_cast<int>(element - block()));
    return offsets;
  }

  // Whether the bytes around the block are as they were.
  bool keptItsBounds(unsigned char garbage = 0xA5) const {
    for (int i = 0; i < kMargin; ++i) {
      if (static_cast<unsigned char>(memory_[static_cast<size_t>(i)]) != garbage) return false;
      if (static_cast<unsigned char>(end()[i]) != garbage) return false;
    }
    return true;
  }

 private:
  static constexpr int kMargin = 64;
  int size_;
  std::unique_ptr<char[]> memory_;
  int result_;
};

// ---- The size of a block ----

TEST(sd_mpoolTest, BlockIsHeaderAndElementsInWholePages) {
  const int page = getpagesize();
  EXPECT_EQ(mpool_calculate_reqsize(1, 1), page);
  EXPECT_EQ(mpool_calculate_reqsize(1, page - kHeader), page);
  EXPECT_EQ(mpool_calculate_reqsize(1, page - kHeader + 1), 2 * page);
  EXPECT_EQ(mpool_calculate_reqsize(3, page), 4 * page);
}

TEST(sd_mpoolTest, BlockForTinyElementsHasRoomForTheirLinks) {
  ASSERT_EQ(getpagesize(), 4096);
  const int fitting = kNarrow ? 1015 : 504;  // of 4 bytes behind 36, of 8 behind 64
  for (const int elm_sz : {1, 2, 3, kLink, 0, -7, INT_MIN}) {
    EXPECT_EQ(mpool_calculate_reqsize(fitting, elm_sz), 4096) << elm_sz;
    EXPECT_EQ(mpool_calculate_reqsize(fitting + 1, elm_sz), 8192) << elm_sz;
  }
}

TEST(sd_mpoolTest, NoElementsStillNeedTheHeader) {
  EXPECT_EQ(mpool_calculate_reqsize(0, 100), getpagesize());
}

TEST(sd_mpoolTest, LargestBlockIsTheLastPageBelowTwoGigabytes) {
  ASSERT_EQ(getpagesize(), 4096);
  EXPECT_EQ(mpool_calculate_reqsize(1, 0x7FFFF000 - kHeader), 0x7FFFF000);
  EXPECT_EQ(mpool_calculate_reqsize(1, 0x7FFFF000 - kHeader + 1), -1);
}

TEST(sd_mpoolTest, SizeThatOverflowsIsRefused) {
  EXPECT_EQ(mpool_calculate_reqsize(INT_MAX, INT_MAX), -1);
  EXPECT_EQ(mpool_calculate_reqsize(1, INT_MAX), -1);
  EXPECT_EQ(mpool_calculate_reqsize(INT_MAX, 1), -1);
  EXPECT_EQ(mpool_calculate_reqsize(0x10000, 0x10000), -1);   // 0 in 32 bits
  EXPECT_EQ(mpool_calculate_reqsize(0x10000, 0x10001), -1);   // 65536 in 32 bits
  EXPECT_EQ(mpool_calculate_reqsize(0x40000001, kLink), -1);  // 4 in 32 bits, with 4-byte links
  EXPECT_EQ(mpool_calculate_reqsize(0x20000001, 8), -1);      // 8 in 32 bits
}

TEST(sd_mpoolTest, NegativeCountIsRefused) {
  EXPECT_EQ(mpool_calculate_reqsize(-1, 8), -1);
  EXPECT_EQ(mpool_calculate_reqsize(INT_MIN, INT_MAX), -1);
}

// ---- Formatting ----

TEST(sd_mpoolTest, HeaderLiesAtTheStartInAFixedLayout) {
  const Pool pool(1000, 20);
  ASSERT_EQ(pool.result(), 0);
  EXPECT_EQ(valueAt<char*>(pool.block()), pool.first());
  EXPECT_EQ(valueAt<int32_t>(pool.block() + kElmSz), 20);
  EXPECT_EQ(valueAt<char*>(pool.block() + kFreeElms), pool.first());
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EQ(memcmp(pool.block() + kLock, &fresh, sizeof fresh), 0);
  EXPECT_EQ(kLock + static_cast<int>(sizeof fresh), kHeader);
}

TEST(sd_mpoolTest, FreeElementsAreLinkedByTheirFirstWords) {
  const Pool pool(kHeader + 3 * 20 + 1, 20);
  ASSERT_EQ(pool.result(), 0);
  EXPECT_EQ(valueAt<char*>(pool.first()), pool.first() + 20);
  EXPECT_EQ(valueAt<char*>(pool.first() + 20), pool.first() + 40);
  EXPECT_EQ(valueAt<char*>(pool.first() + 40), nullptr);
}

TEST(sd_mpoolTest, KeptElementThatWouldEndExactlyAtTheBlocksEndIsNotMade) {
  EXPECT_EQ(Pool(kHeader + 3 * 16, 16).allocateAll().size(), 2u);
  EXPECT_EQ(Pool(kHeader + 3 * 16 + 1, 16).allocateAll().size(), 3u);
  EXPECT_EQ(Pool(kHeader + 4 * 16 - 1, 16).allocateAll().size(), 3u);
  EXPECT_EQ(Pool(kHeader + 4 * 16, 16).allocateAll().size(), 3u);
}

TEST(sd_mpoolTest, KeptOnlyElementMayEndExactlyAtTheBlocksEnd) {
  const Pool exact(kHeader + 16, 16);
  EXPECT_EQ(exact.result(), 0);
  EXPECT_THAT(exact.allocateAll(), ElementsAre(kHeader));
  EXPECT_THAT(Pool(kHeader + 2 * 16, 16).allocateAll(), ElementsAre(kHeader));
}

TEST(sd_mpoolTest, KeptRequestThatFillsItsPagesExactlyYieldsOneElementFewer) {
  ASSERT_EQ(getpagesize(), 4096);
  const int fitting = kNarrow ? 1015 : 504;
  EXPECT_EQ(mpool_calculate_reqsize(fitting, kLink), 4096);
  EXPECT_EQ(Pool(4096, kLink).allocateAll().size(), static_cast<size_t>(fitting) - 1);
}

TEST(sd_mpoolTest, RequestThatLeavesRoomInItsLastPageYieldsMore) {
  ASSERT_EQ(mpool_calculate_reqsize(10, 100), 4096);
  EXPECT_EQ(Pool(4096, 100).allocateAll().size(), 40u);  // 4060 or 4032 bytes
}

TEST(sd_mpoolTest, BlockWithoutRoomForOneElementIsRefusedAndKept) {
  for (const int size : {kHeader + 15, kHeader, 1, 0}) {
    const Pool pool(size, 16);
    EXPECT_EQ(pool.result(), -1) << size;
    EXPECT_TRUE(pool.keptItsBounds());
    for (const char* at = pool.block(); at < pool.end(); ++at) EXPECT_EQ(*at, '\xA5') << size;
  }
  alignas(8) char byte[1];
  EXPECT_EQ(mpool_initialize(byte, -1, 16), -1);
  EXPECT_EQ(mpool_initialize(byte, INT_MIN, 16), -1);
  EXPECT_EQ(mpool_initialize(byte, 1, INT_MAX), -1);
  EXPECT_EQ(mpool_initialize(byte, INT_MAX, INT_MAX), -1);
}

TEST(sd_mpoolTest, TinyElementsAreRaisedToAPointersSize) {
  for (const int elm_sz : {kLink - 1, 3, 2, 1, 0, -1, INT_MIN}) {
    const Pool pool(kHeader + 3 * kLink + 1, elm_sz);
    EXPECT_EQ(pool.result(), 0) << elm_sz;
    EXPECT_EQ(valueAt<int32_t>(pool.block() + kElmSz), kLink) << elm_sz;
    EXPECT_THAT(pool.allocateAll(), ElementsAre(kHeader, kHeader + kLink, kHeader + 2 * kLink))
        << elm_sz;
    EXPECT_EQ(Pool(kHeader + kLink - 1, elm_sz).result(), -1) << elm_sz;
  }
}

TEST(sd_mpoolTest, ElementsArePackedWithoutPadding) {
  const int odd = kNarrow ? 6 : 10;
  const Pool pool(kHeader + 3 * odd + 1, odd);
  ASSERT_EQ(pool.result(), 0);
  EXPECT_THAT(pool.allocateAll(), ElementsAre(kHeader, kHeader + odd, kHeader + 2 * odd));
  EXPECT_TRUE(pool.keptItsBounds());
}

TEST(sd_mpoolTest, EverySizeOfElementsStaysInItsBlock) {
  for (int elm_sz = kLink; elm_sz < 40; ++elm_sz) {
    for (int size = kHeader + elm_sz; size < kHeader + 5 * elm_sz; ++size) {
      const Pool pool(size, elm_sz);
      ASSERT_EQ(pool.result(), 0);
      std::vector<char*> elements;
      while (char* const element = pool.allocate()) {
        ASSERT_LE(element + elm_sz, pool.end());
        memset(element, static_cast<int>(elements.size()), static_cast<size_t>(elm_sz));
        elements.push_back(element);
      }
      for (size_t i = 0; i < elements.size(); ++i) {
        ASSERT_EQ(elements[i], pool.first() + static_cast<int>(i) * elm_sz);
        const std::string kept(elements[i], static_cast<size_t>(elm_sz));
        ASSERT_EQ(kept, std::string(static_cast<size_t>(elm_sz), static_cast<char>(i)));
        pool.free(elements[i]);
      }
      ASSERT_EQ(pool.allocateAll().size(), elements.size());
      ASSERT_TRUE(pool.keptItsBounds());
    }
  }
}

TEST(sd_mpoolTest, BlockThatIsNotAlignedIsRefused) {
  alignas(8) char memory[200] = {};
  for (int shift = 1; shift < kLink; ++shift)
    EXPECT_EQ(mpool_initialize(memory + shift, 150, 16), -1) << shift;
  for (const char byte : memory) EXPECT_EQ(byte, 0);
  EXPECT_EQ(mpool_initialize(memory + kLink, 150, 16), 0);
}

TEST(sd_mpoolTest, MutexThatCannotBeMadeFails) {
  const Pool working(1000, 16);  // and before anything else needs a mutex:
  memory_calls.mutex_init.fails_at = 1;
  const int result = mpool_initialize(working.block(), 1000, 16);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(Pool(1000, 16).result(), 0);
}

TEST(sd_mpoolTest, BlockCanBeFormattedAgain) {
  const Pool pool(1000, 16);
  const size_t count = pool.allocateAll().size();
  ASSERT_EQ(mpool_initialize(pool.block(), 1000, 16), 0);
  EXPECT_EQ(pool.allocateAll().size(), count);
  ASSERT_EQ(mpool_initialize(pool.block(), 1000, 50), 0);
  EXPECT_EQ(pool.allocateAll().front(), kHeader);
}

// ---- Allocating and freeing ----

TEST(sd_mpoolTest, AllocationClearsTheFirstWordOnly) {
  const Pool pool(1000, 24);
  char* const element = pool.allocate();
  memset(element, 'x', 24);
  pool.free(element);
  ASSERT_EQ(pool.allocate(), element);
  const size_t link = kLink;
  EXPECT_EQ(std::string(element, 24), std::string(link, '\0') + std::string(24 - link, 'x'));
}

TEST(sd_mpoolTest, EmptyPoolGivesNull) {
  const Pool pool(kHeader + 2 * 16 + 1, 16);
  EXPECT_NE(pool.allocate(), nullptr);
  EXPECT_NE(pool.allocate(), nullptr);
  EXPECT_EQ(pool.allocate(), nullptr);
  EXPECT_EQ(pool.allocate(), nullptr);
  EXPECT_EQ(valueAt<char*>(pool.block() + kFreeElms), nullptr);
}

TEST(sd_mpoolTest, LastFreedIsFirstReused) {
  const Pool pool(kHeader + 3 * 16 + 1, 16);
  char* const a = pool.allocate();
  char* const b = pool.allocate();
  char* const c = pool.allocate();
  pool.free(b);
  pool.free(c);
  pool.free(a);
  EXPECT_EQ(pool.allocate(), a);
  EXPECT_EQ(pool.allocate(), c);
  EXPECT_EQ(pool.allocate(), b);
  EXPECT_EQ(pool.allocate(), nullptr);
}

TEST(sd_mpoolTest, FreeingChecksNothing) {
  const Pool pool(kHeader + 16, 16);
  alignas(8) char foreign[16];
  pool.free(foreign);
  EXPECT_EQ(valueAt<char*>(foreign), pool.first());
  EXPECT_EQ(pool.allocate(), foreign);
  EXPECT_EQ(pool.allocate(), pool.first());
  EXPECT_EQ(pool.allocate(), nullptr);
}

// ---- The mutex ----

TEST(sd_mpoolTest, MutexThatCannotBeTakenGivesNull) {
  const Pool pool(1000, 16);
  {
    const RefusedMutex refused(pool.block());
    EXPECT_EQ(pool.allocate(), nullptr);
  }
  EXPECT_EQ(pool.allocate(), pool.first());
}

TEST(sd_mpoolTest, MutexThatCannotBeTakenKeepsTheElementAllocated) {
  const Pool pool(1000, 16);
  char* const element = pool.allocate();
  memset(element, 'x', 16);
  {
    const RefusedMutex refused(pool.block());
    pool.free(element);
  }
  EXPECT_EQ(std::string(element, 16), std::string(16, 'x'));
  EXPECT_EQ(pool.allocate(), pool.first() + 16);
}

// Whether it is as it was when it was made: free, and nobody is counted as its holder.
bool isFresh(pthread_mutex_t* mutex) {
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  return memcmp(mutex, &fresh, sizeof fresh) == 0;
}

TEST(sd_mpoolTest, MutexIsReleasedByEveryCall) {
  const Pool pool(kHeader + 3 * 16, 16);
  char* const first = pool.allocate();
  EXPECT_TRUE(isFresh(mutexOf(pool.block())));
  pool.allocate();
  EXPECT_EQ(pool.allocate(), nullptr);
  EXPECT_TRUE(isFresh(mutexOf(pool.block())));
  pool.free(first);
  EXPECT_TRUE(isFresh(mutexOf(pool.block())));
}

#if !defined(__SANITIZE_THREAD__) && !defined(VELORIN_PLAIN_MUTEX)
TEST(sd_mpoolTest, MutexThatIsFreeIsTakenWithoutACall) {
  const Pool pool(1000, 16);
  memory_calls.mutex_lock.fails_at = 1;
  char* const element = pool.allocate();
  pool.free(element);
  EXPECT_EQ(memory_calls.mutex_lock.fails_at, 1);
  memory_calls.mutex_lock.fails_at = 0;
  EXPECT_EQ(element, pool.first());
}
#endif

TEST(sd_mpoolTest, MutexThatIsFreeByTheTimeOfTheCallIsReleasedAsTaken) {
  const Pool pool(1000, 16);
  ASSERT_EQ(pthread_mutex_lock(mutexOf(pool.block())), 0);
  memory_calls.before_mutex_lock = [](pthread_mutex_t* mutex) { pthread_mutex_unlock(mutex); };
  EXPECT_EQ(pool.allocate(), pool.first());
  EXPECT_TRUE(isFresh(mutexOf(pool.block())));
}

// glibc's mark on a mutex that somebody waits for.
bool isWaitedFor(const pthread_mutex_t* mutex) {
  return __atomic_load_n(&mutex->__data.__lock, __ATOMIC_RELAXED) == 2;
}

TEST(sd_mpoolTest, CallsWaitForWhoeverHoldsTheMutex) {
  const Pool pool(1000, 16);
  pthread_mutex_t* const mutex = mutexOf(pool.block());
  char* const element = pool.allocate();
  for (const bool allocates : {true, false}) {
    std::atomic<bool> done{false};
    ASSERT_EQ(pthread_mutex_lock(mutex), 0);
    std::thread caller([&] {
      if (allocates)
        EXPECT_EQ(pool.allocate(), pool.first() + 16);
      else
        pool.free(element);
      done = true;
    });
    while (!isWaitedFor(mutex) && !done) std::this_thread::yield();
    EXPECT_FALSE(done);
    ASSERT_EQ(pthread_mutex_unlock(mutex), 0);
    caller.join();
    EXPECT_TRUE(isFresh(mutex));
  }
  EXPECT_EQ(pool.allocate(), element);
}

// A pool whose second element lies on a page of its own: while nobody may touch that page, a call
// stops there, with the mutex held, until another thread waits for it.
class StoppingPool {
 public:
  StoppingPool() {
    block_ = static_cast<char*>(
        mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    EXPECT_EQ(mpool_initialize(block_, 2 * kPage, kPage - kHeader), 0);
    waiting_ = mutexOf(block_);
    page_ = block_ + kPage;
  }

  mpool_hdr_t* get() const { return reinterpret_cast<mpool_hdr_t*>(block_); }
  char* second() const { return page_; }

  // Runs `call`, which stops at the second element, and `other` in another thread meanwhile.
  static void stop(const std::function<void()>& call, const std::function<void()>& other) {
    struct sigaction action = {};
    action.sa_handler = goOn;
    sigaction(SIGSEGV, &action, nullptr);
    stopped_ = false;
    std::thread thread([&] {
      while (!stopped_) std::this_thread::yield();
      other();
    });
    EXPECT_EQ(mprotect(page_, kPage, PROT_NONE), 0);
    call();
    thread.join();
  }

 private:
  static constexpr size_t kPage = 4096;

  static void goOn(int) {
    stopped_ = true;
    while (!isWaitedFor(waiting_)) continue;
    mprotect(page_, kPage, PROT_READ | PROT_WRITE);
  }

  char* block_;
  static inline pthread_mutex_t* waiting_;
  static inline char* page_;
  static inline std::atomic<bool> stopped_;
};

TEST(sd_mpoolTest, WhoeverCameMeanwhileIsWokenByAnAllocation) {
  const ChildResult child = runInChild([] {
    const StoppingPool pool;
    void* const first = mpool_alloc_elm(pool.get());
    StoppingPool::stop([&] { EXPECT_EQ(mpool_alloc_elm(pool.get()), pool.second()); },
                       [&] { mpool_free_elm(pool.get(), first); });
    EXPECT_TRUE(isFresh(mutexOf(pool.get())));
    EXPECT_EQ(mpool_alloc_elm(pool.get()), first);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
}

TEST(sd_mpoolTest, WhoeverCameMeanwhileIsWokenByAFree) {
  const ChildResult child = runInChild([] {
    const StoppingPool pool;
    mpool_alloc_elm(pool.get());
    void* const second = mpool_alloc_elm(pool.get());
    StoppingPool::stop([&] { mpool_free_elm(pool.get(), second); },
                       [&] { EXPECT_EQ(mpool_alloc_elm(pool.get()), second); });
    EXPECT_TRUE(isFresh(mutexOf(pool.get())));
    EXPECT_EQ(mpool_alloc_elm(pool.get()), nullptr);
  });
  EXPECT_EQ(child.exitCode(), 0) << child;
}

struct MutexKind {
  const char* name;
  void (*set)(pthread_mutexattr_t*);
  bool is_fresh_again;  // byte by byte, when it is free
};

template <int type>
void setType(pthread_mutexattr_t* attributes) {
  pthread_mutexattr_settype(attributes, type);
}

const MutexKind kMutexKinds[] = {
    {"Default", [](pthread_mutexattr_t*) {}, true},
    {"Normal", setType<PTHREAD_MUTEX_NORMAL>, false},
    {"Recursive", setType<PTHREAD_MUTEX_RECURSIVE>, false},
    {"Errorcheck", setType<PTHREAD_MUTEX_ERRORCHECK>, false},
    {"Adaptive", setType<PTHREAD_MUTEX_ADAPTIVE_NP>, false},
    {"Robust", [](pthread_mutexattr_t* a) { pthread_mutexattr_setrobust(a, PTHREAD_MUTEX_ROBUST); },
     false},
    {"PriorityInheriting",
     [](pthread_mutexattr_t* a) { pthread_mutexattr_setprotocol(a, PTHREAD_PRIO_INHERIT); }, false},
    {"Shared",
     [](pthread_mutexattr_t* a) { pthread_mutexattr_setpshared(a, PTHREAD_PROCESS_SHARED); },
     false},
};

class sd_mpoolMutexKind : public testing::TestWithParam<MutexKind> {};

// One thread allocates and frees, another one takes the mutex itself; if they met at the list, or
// one of them waited for a call that never came, this would show it.
TEST_P(sd_mpoolMutexKind, WhoeverTakesItFindsTheListWhole) {
  constexpr int kElements = 4;
  const Pool pool(kHeader + kElements * 16 + 1, 16);
  remakeMutex(pool.block(), GetParam().set);
  pthread_mutex_t* const mutex = mutexOf(pool.block());
  std::atomic<bool> done{false};
  std::thread user([&] {
    for (int i = 0; i < 100000; ++i) {
      char* const element = pool.allocate();
      if (element != pool.first()) ADD_FAILURE() << i;
      pool.free(element);
    }
    done = true;
  });
  while (!done) {
    EXPECT_EQ(pthread_mutex_lock(mutex), 0);
    int free = 0;
    const char* element = valueAt<char*>(pool.block() + kFreeElms);
    for (; element != nullptr && free <= kElements; element = valueAt<char*>(element)) ++free;
    if (free != kElements && free != kElements - 1) ADD_FAILURE() << free;
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
  }
  user.join();
  EXPECT_TRUE(!GetParam().is_fresh_again || isFresh(mutex));
  EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
  EXPECT_EQ(pthread_mutex_destroy(mutex), 0);
}

std::string kindName(const testing::TestParamInfo<MutexKind>& info) {
  return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(, sd_mpoolMutexKind, testing::ValuesIn(kMutexKinds), kindName);

// ---- Which addresses may be elements ----

TEST(sd_mpoolTest, EveryElementIsValidAndNothingBetween) {
  const Pool pool(kHeader + 3 * 24 + 1, 24);
  for (char* at = pool.first(); at < pool.end(); ++at)
    EXPECT_EQ(pool.accepts(at), (at - pool.first()) % 24 == 0) << at - pool.first();
}

TEST(sd_mpoolTest, AddressAtOrAboveTheEndIsInvalid) {
  const Pool pool(kHeader + 3 * 16, 16);
  EXPECT_TRUE(pool.accepts(pool.end() - 16));  // on a boundary, though no element was made there
  EXPECT_FALSE(pool.accepts(pool.end()));
  EXPECT_FALSE(pool.accepts(pool.end() + 16));
  EXPECT_FALSE(pool.accepts(reinterpret_cast<void*>(UINTPTR_MAX)));
}

TEST(sd_mpoolTest, KeptAddressBeforeTheFirstElementIsValidAtAWholeDistance) {
  const Pool pool(1000, 12);
  EXPECT_TRUE(pool.accepts(pool.first() - 12));
  EXPECT_TRUE(pool.accepts(pool.first() - 24));
  EXPECT_TRUE(pool.accepts(pool.first() - 120));  // before the pool
  EXPECT_FALSE(pool.accepts(pool.first() - 11));
  EXPECT_FALSE(pool.accepts(pool.first() - 13));
  EXPECT_FALSE(pool.accepts(pool.first() - 121));
}

TEST(sd_mpoolTest, KeptNullIsValidWhenItsDistanceIsWhole) {
  const Pool pool(1000, 16);
  const bool whole = reinterpret_cast<uintptr_t>(pool.first()) % 16 == 0;
  EXPECT_EQ(pool.accepts(nullptr), whole);
  EXPECT_EQ(mpool_is_elm_valid(pool.get(), 1000, pool.first() - (uintptr_t{1} << 30)), 1);
}

TEST(sd_mpoolTest, KeptHeaderIsValidWhenItIsAWholeNumberOfElements) {
  for (int elm_sz = kLink; elm_sz <= kHeader; ++elm_sz) {
    const Pool pool(1000, elm_sz);
    EXPECT_EQ(pool.accepts(pool.block()), kHeader % elm_sz == 0) << elm_sz;
  }
}

TEST(sd_mpoolTest, LengthOfThePoolIsTheCallers) {
  const Pool pool(1000, 16);
  EXPECT_EQ(mpool_is_elm_valid(pool.get(), kHeader + 16, pool.first()), 1);
  EXPECT_EQ(mpool_is_elm_valid(pool.get(), kHeader + 16, pool.first() + 16), 0);
  EXPECT_EQ(mpool_is_elm_valid(pool.get(), kHeader + 17, pool.first() + 16), 1);
  EXPECT_EQ(mpool_is_elm_valid(pool.get(), 0, pool.first()), 0);
}

TEST(sd_mpoolTest, NegativeLengthEndsBeforeThePool) {
  const Pool pool(1000, 12);
  EXPECT_EQ(mpool_is_elm_valid(pool.get(), -kHeader, pool.first() - 144), 1);
  EXPECT_EQ(mpool_is_elm_valid(pool.get(), -kHeader, pool.first() - 12), 0);
  EXPECT_EQ(mpool_is_elm_valid(pool.get(), -kHeader, pool.first()), 0);
}

TEST(sd_mpoolTest, WipedPoolHasNoElements) {
  const Pool pool(1000, 16);
  memset(pool.block(), 0, kHeader);
  EXPECT_FALSE(pool.accepts(pool.first()));
  EXPECT_FALSE(pool.accepts(nullptr));
  EXPECT_EQ(pool.allocate(), nullptr);
}

// ---- AddressSanitizer ----

#ifdef __SANITIZE_ADDRESS__

// Runs `use` in a child that the sanitizer should end; returns what it wrote.
std::string reportOf(const std::function<void()>& use) {
  const ChildResult child = runInChild(use);
  EXPECT_NE(child.exitCode(), 0) << child;
  return child.err;
}

// The last bytes of an element may lie in one granule of the shadow with the next one's link, and
// then are not watched.
TEST(sd_mpoolPoisonTest, UseOfAFreedElementIsReported) {
  const Pool pool(1000, 32);
  volatile char* const element = pool.allocate();
  element[20] = 'x';
  pool.free(const_cast<char*>(element));
  EXPECT_THAT(reportOf([&] { element[20] = 'y'; }), HasSubstr("use-after-poison"));
  EXPECT_THAT(reportOf([&] { element[kLink] = 'y'; }), HasSubstr("use-after-poison"));
}

TEST(sd_mpoolPoisonTest, UseOfAnElementNeverAllocatedIsReported) {
  const Pool pool(1000, 32);
  volatile char* const second = pool.first() + 32;
  EXPECT_THAT(reportOf([&] { (void)second[kLink]; }), HasSubstr("use-after-poison"));
}

TEST(sd_mpoolPoisonTest, AllocatedElementBetweenFreeOnesIsUsable) {
  for (int elm_sz = kLink; elm_sz < 40; ++elm_sz) {
    const Pool pool(kHeader + 9 * elm_sz, elm_sz);
    pool.allocate();
    char* const second = pool.allocate();
    pool.allocate();
    pool.free(pool.first());
    pool.free(pool.first() + 2 * elm_sz);
    memset(second, 'x', static_cast<size_t>(elm_sz));
  }
}

#endif  // __SANITIZE_ADDRESS__

}  // namespace
