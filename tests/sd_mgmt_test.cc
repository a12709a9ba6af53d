// Pools by index: what users get, what lies in the register, what faults, what a core dump would
// hold. The register is the process's, so that each case runs in a child of its own.
#include "velorin/sd_mgmt"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/crash_calls.h"
#include "support/memory_calls.h"
#include "support/pool_mutex.h"
#include "support/private_world.h"
#include "velorin/sd_mpool"
#include "velorin/sig_handler"

namespace {

constexpr bool kNarrow = sizeof(void*) == 4;
constexpr int kPage = 4096;
constexpr int kHeader = kNarrow ? 36 : 64;
constexpr int kLink = kNarrow ? 4 : 8;
constexpr int kMostPools = kNarrow ? 203 : 169;

#if defined(__SANITIZE_THREAD__)
constexpr int kOperations = 20000;  // each costs a hundred times as much
#else
constexpr int kOperations = 1000000;
#endif
constexpr int kThreads = 8;

template <typename Value>
Value valueAt(const void* address) {
  Value value;
  memcpy(&value, address, sizeof value);
  return value;
}

// Runs `body` in a child and fails the test when an expectation fails there.
void inChild(const std::function<void()>& body) {
  const ChildResult child = runInChild(body);
  EXPECT_EQ(child.exitCode(), 0) << child;
}

// Runs `body` in a child that a write to `address()` is to end.
void expectFault(const std::function<volatile char*()>& address) {
  const ChildResult child = runInChild([&] {
    (void)::signal(SIGSEGV, SIG_DFL);  // sanitizers catch it
    volatile char* const target = address();
    printf("about to write");
    fflush(stdout);
    *target = 'x';
    printf(", written");
  });
  EXPECT_EQ(child.signal(), SIGSEGV) << child;
  EXPECT_EQ(child.out, "about to write");
}

char* allocate(int pool) {
  return static_cast<char*>(sd_elm_alloc(pool));
}

std::vector<char*> allocateAll(int pool) {
  std::vector<char*> elements;
  while (char* const element = allocate(pool)) elements.push_back(element);
  return elements;
}

// The mappings in the order in which they were made: the first pool, the register, other pools.
char* mapping(size_t number) {
  return memory_calls.mapped.at(number).start;
}

char* registerPage() {
  return mapping(1);
}

// One pool as it stands in the register.
struct Descriptor {
  char* pool_base;
  uint32_t pool_len;
  int32_t elm_sz;
  int32_t n_elms;
  int32_t do_erase;
};

Descriptor descriptor(int index) {
  const char* const at = registerPage() + (kNarrow ? 8 + 20 * index : 16 + 24 * index);
  const char* const rest = at + sizeof(void*);
  return {valueAt<char*>(at), valueAt<uint32_t>(rest), valueAt<int32_t>(rest + 4),
          valueAt<int32_t>(rest + 8), valueAt<int32_t>(rest + 12)};
}

int32_t registeredPools() {
  return valueAt<int32_t>(registerPage());
}

class sd_mgmtTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(getpagesize(), kPage); }
};

// ---- Creating ----

TEST_F(sd_mgmtTest, NoElementsAreRefusedAsInvalid) {
  inChild([] {
    for (const int nelms : {0, -1, INT_MIN}) {
      errno = 0;
      EXPECT_EQ(sd_create_mpool(nelms, 8, 0), -1) << nelms;
      EXPECT_EQ(errno, EINVAL) << nelms;
    }
    EXPECT_TRUE(memory_calls.mapped.empty());
  });
}

TEST_F(sd_mgmtTest, ElementsWithoutSizeAreRefusedAsInvalid) {
  inChild([] {
    for (const int elm_sz : {0, -1, INT_MIN}) {
      errno = 0;
      EXPECT_EQ(sd_create_mpool(8, elm_sz, 0), -1) << elm_sz;
      EXPECT_EQ(errno, EINVAL) << elm_sz;
    }
    EXPECT_TRUE(memory_calls.mapped.empty());
  });
}

TEST_F(sd_mgmtTest, SizeThatOverflowsIsRefusedWithNothingMapped) {
  inChild([] {
    const int pairs[][2] = {{INT_MAX, INT_MAX}, {0x10000, 0x10000}, {0x10000, 0x10001},
                            {0x40000001, 4},    {1, INT_MAX},       {INT_MAX, 1}};
    for (const auto& pair : pairs) {
      errno = 0;
      EXPECT_EQ(sd_create_mpool(pair[0], pair[1], 0), -1) << pair[0] << " of " << pair[1];
      EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_TRUE(memory_calls.mapped.empty());
    EXPECT_EQ(memory_calls.callbacks_stored, 0);
  });
}

TEST_F(sd_mgmtTest, IndicesCountFromZero) {
  inChild([] {
    EXPECT_EQ(sd_create_mpool(10, 100, 0), 0);
    EXPECT_EQ(sd_create_mpool(10, 100, 0), 1);
    EXPECT_EQ(sd_create_mpool(10, 100, 0), 2);
  });
}

TEST_F(sd_mgmtTest, RegisterHoldsADescriptorOfEachPool) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(100, 100, 7), 0);
    ASSERT_EQ(sd_create_mpool(3, 17, 0), 1);
    EXPECT_EQ(registeredPools(), 2);
    EXPECT_EQ(valueAt<void*>(registerPage() + sizeof(void*)), nullptr);
    EXPECT_EQ(memory_calls.mapped.at(1).size, size_t{kPage});

    const Descriptor first = descriptor(0);
    EXPECT_EQ(first.pool_base, mapping(0));
    EXPECT_EQ(first.pool_len, 3u * kPage);  // 10000 bytes and the header
    EXPECT_EQ(first.elm_sz, 100);
    EXPECT_EQ(first.n_elms, 100);
    EXPECT_EQ(first.do_erase, 7);
    const Descriptor second = descriptor(1);
    EXPECT_EQ(second.pool_base, mapping(2));
    EXPECT_EQ(second.pool_len, size_t{kPage});
    EXPECT_EQ(second.elm_sz, 17);
    EXPECT_EQ(second.n_elms, 3);
    EXPECT_EQ(second.do_erase, 0);
  });
}

TEST_F(sd_mgmtTest, PoolIsOneMappingWithAPageMore) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(100, 100, 0), 0);
    EXPECT_EQ(memory_calls.mapped.at(0).size, 4u * kPage);
    EXPECT_EQ(allocate(0), mapping(0) + kHeader);
  });
}

TEST_F(sd_mgmtTest, TinyElementsAreRaisedButRegisteredAsRequested) {
  inChild([] {
    for (const int elm_sz : {1, 2, 3}) {
      const int pool = sd_create_mpool(5, elm_sz, 0);
      ASSERT_GE(pool, 0);
      EXPECT_EQ(descriptor(pool).elm_sz, elm_sz);
      const char* const first = allocate(pool);
      EXPECT_EQ(allocate(pool), first + kLink);
    }
  });
}

TEST_F(sd_mgmtTest, KeptRequestThatFillsItsPageExactlyYieldsOneElementFewer) {
  inChild([] {
    const int fitting = kNarrow ? 1015 : 504;  // 4060 + 36, 4032 + 64
    const int exact = sd_create_mpool(fitting, kLink, 0);
    EXPECT_EQ(descriptor(exact).pool_len, size_t{kPage});
    EXPECT_EQ(allocateAll(exact).size(), static_cast<size_t>(fitting) - 1);
    const int less = sd_create_mpool(fitting - 1, kLink, 0);
    EXPECT_EQ(descriptor(less).pool_len, size_t{kPage});
    EXPECT_EQ(allocateAll(less).size(), static_cast<size_t>(fitting) - 1);
    const int more = sd_create_mpool(fitting + 1, kLink, 0);
    EXPECT_EQ(descriptor(more).pool_len, 2u * kPage);
  });
}

TEST_F(sd_mgmtTest, OneElementThatFillsItsPageExactlyIsThere) {
  inChild([] {
    const int pool = sd_create_mpool(1, kPage - kHeader, 0);
    char* const element = allocate(pool);
    ASSERT_NE(element, nullptr);
    memset(element, 'x', kPage - kHeader);
    EXPECT_EQ(allocate(pool), nullptr);
  });
}

TEST_F(sd_mgmtTest, RequestThatLeavesRoomInItsLastPageYieldsMore) {
  inChild([] {
    EXPECT_EQ(allocateAll(sd_create_mpool(10, 100, 0)).size(), 40u);
    EXPECT_EQ(allocateAll(sd_create_mpool(41, 100, 0)).size(), 81u);
  });
}

TEST_F(sd_mgmtTest, KeptLastSlotOfTheRegisterIsNeverTaken) {
  inChild([] {
    for (int i = 0; i < kMostPools; ++i) ASSERT_EQ(sd_create_mpool(1, 8, 0), i);
    const size_t mapped = memory_calls.mapped.size();
    EXPECT_EQ(sd_create_mpool(1, 8, 0), -1);
    EXPECT_EQ(sd_create_mpool(1, 8, 0), -1);
    EXPECT_EQ(memory_calls.mapped.size(), mapped);  // the new pool is gone
    EXPECT_EQ(registeredPools(), kMostPools);
    const Descriptor unused = descriptor(kMostPools);
    EXPECT_EQ(unused.pool_base, nullptr);
    EXPECT_EQ(unused.pool_len, 0u);

    EXPECT_EQ(allocate(kMostPools), nullptr);
    char* const element = allocate(kMostPools - 1);
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(sd_elm_free(kMostPools - 1, element), 0);
  });
}

TEST_F(sd_mgmtTest, NegativeCountOfPoolsTakesNoMore) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(1, 8, 0), 0);
    ASSERT_EQ(mprotect(registerPage(), kPage, PROT_READ | PROT_WRITE), 0);
    const int32_t ruined = -1;
    memcpy(registerPage(), &ruined, sizeof ruined);
    EXPECT_EQ(sd_create_mpool(1, 8, 0), -1);
    EXPECT_EQ(registeredPools(), -1);
    EXPECT_EQ(allocate(0), nullptr);
  });
}

// ---- What fails in the system ----

TEST_F(sd_mgmtTest, PoolThatCannotBeMappedKeepsTheSystemsErrno) {
  inChild([] {
    memory_calls.map.fails_at = 1;
    errno = 0;
    EXPECT_EQ(sd_create_mpool(1, 8, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(memory_calls.mapped.empty());
    EXPECT_EQ(sd_create_mpool(1, 8, 0), 0);
  });
}

TEST_F(sd_mgmtTest, GuardPageThatCannotBeProtectedUnmapsThePool) {
  inChild([] {
    memory_calls.protect.fails_at = 1;
    errno = 0;
    EXPECT_EQ(sd_create_mpool(1, 8, 0), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(memory_calls.mapped.empty());
  });
}

TEST_F(sd_mgmtTest, MutexThatCannotBeMadeUnmapsThePool) {
  inChild([] {
    memory_calls.mutex_init.fails_at = 1;
    const int pool = sd_create_mpool(1, 8, 0);
    EXPECT_EQ(pool, -1);
    EXPECT_TRUE(memory_calls.mapped.empty());
  });
}

TEST_F(sd_mgmtTest, RegistrationMutexThatCannotBeTakenUnmapsThePool) {
  inChild([] {
    memory_calls.mutex_lock.fails_at = 1;
    const int pool = sd_create_mpool(1, 8, 0);
    EXPECT_EQ(pool, -1);
    EXPECT_TRUE(memory_calls.mapped.empty());
    EXPECT_EQ(memory_calls.callbacks_stored, 0);
  });
}

TEST_F(sd_mgmtTest, RegisterThatCannotBeMappedUnmapsThePoolAndIsTriedAgain) {
  inChild([] {
    memory_calls.map.fails_at = 2;
    errno = 0;
    EXPECT_EQ(sd_create_mpool(1, 8, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(memory_calls.mapped.empty());
    EXPECT_EQ(memory_calls.callbacks_stored, 0);
    EXPECT_EQ(sd_create_mpool(1, 8, 0), 0);  // the mutex was released
    EXPECT_EQ(memory_calls.callbacks_stored, 1);
  });
}

TEST_F(sd_mgmtTest, RegisterThatCannotBeMadeWritableUnmapsThePool) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(1, 8, 0), 0);
    memory_calls.protect.fails_at = 2;  // behind the guard page
    errno = 0;
    EXPECT_EQ(sd_create_mpool(1, 8, 0), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(memory_calls.mapped.size(), 2u);
    EXPECT_EQ(registeredPools(), 1);
    EXPECT_EQ(sd_create_mpool(1, 8, 0), 1);
  });
}

TEST_F(sd_mgmtTest, RegisterThatCannotBeProtectedAgainDoesNotMatter) {
  inChild([] {
    memory_calls.protect.fails_at = 2;
    EXPECT_EQ(sd_create_mpool(1, 8, 0), 0);
    EXPECT_NE(allocate(0), nullptr);
  });
}

// ---- Allocating and freeing ----

TEST_F(sd_mgmtTest, NoPoolMeansNoElement) {
  inChild([] {
    EXPECT_EQ(allocate(0), nullptr);
    EXPECT_EQ(allocate(-1), nullptr);
    char byte;
    EXPECT_EQ(sd_elm_free(0, &byte), -1);
    EXPECT_TRUE(memory_calls.mapped.empty());
  });
}

TEST_F(sd_mgmtTest, IndexOutsideTheRegisterIsRefused) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, 8, 0), 0);
    ASSERT_EQ(sd_create_mpool(10, 8, 0), 1);
    char* const element = allocate(0);
    for (const int index : {-1, 2, 3, 1000000, INT_MAX, INT_MIN}) {
      EXPECT_EQ(allocate(index), nullptr) << index;
      EXPECT_EQ(sd_elm_free(index, element), -1) << index;
    }
    EXPECT_EQ(sd_elm_free(0, element), 0);
  });
}

TEST_F(sd_mgmtTest, ExhaustedPoolGivesNullUntilAnElementComesBack) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, 100, 0), 0);
    const std::vector<char*> elements = allocateAll(0);
    EXPECT_EQ(allocate(0), nullptr);
    EXPECT_EQ(sd_elm_free(0, elements[7]), 0);
    EXPECT_EQ(allocate(0), elements[7]);
    EXPECT_EQ(allocate(0), nullptr);
  });
}

TEST_F(sd_mgmtTest, ElementsLieBackToBackBehindTheHeader) {
  inChild([] {
    const int odd = kNarrow ? 6 : 10;
    ASSERT_EQ(sd_create_mpool(100, odd, 0), 0);
    const std::vector<char*> elements = allocateAll(0);
    EXPECT_EQ(elements.size(), kNarrow ? 676u : 403u);
    for (size_t i = 0; i < elements.size(); ++i)
      ASSERT_EQ(elements[i], mapping(0) + kHeader + static_cast<int>(i) * odd);
  });
}

TEST_F(sd_mgmtTest, AllocationClearsTheFirstWordOnly) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, 24, 0), 0);
    char* const element = allocate(0);
    EXPECT_EQ(std::string(element, 24), std::string(24, '\0'));  // fresh memory
    memset(element, 'x', 24);
    ASSERT_EQ(sd_elm_free(0, element), 0);
    ASSERT_EQ(allocate(0), element);
    const size_t link = kLink;
    EXPECT_EQ(std::string(element, 24), std::string(link, '\0') + std::string(24 - link, 'x'));
  });
}

TEST_F(sd_mgmtTest, AddressAtOrAboveTheEndIsRefused) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, kPage / 4, 0), 0);  // 3 pages
    char* const base = mapping(0);
    EXPECT_EQ(descriptor(0).pool_len, 3u * kPage);
    for (int i = 0; i < 2 * kPage; ++i) ASSERT_EQ(sd_elm_free(0, base + 3 * kPage + i), -1) << i;
    EXPECT_EQ(sd_elm_free(0, reinterpret_cast<void*>(UINTPTR_MAX)), -1);
    EXPECT_EQ(allocate(0), base + kHeader);
  });
}

TEST_F(sd_mgmtTest, AddressBetweenElementsIsRefused) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, 24, 0), 0);
    char* const element = allocate(0);
    for (int i = 1; i < 24; ++i) EXPECT_EQ(sd_elm_free(0, element + i), -1) << i;
    EXPECT_EQ(sd_elm_free(0, element), 0);
  });
}

TEST_F(sd_mgmtTest, ElementOfAnotherPoolAboveIsRefused) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, 24, 0), 0);
    ASSERT_EQ(sd_create_mpool(10, 24, 0), 1);
    const bool ascending = mapping(0) < mapping(2);
    EXPECT_EQ(sd_elm_free(ascending ? 0 : 1, allocate(ascending ? 1 : 0)), -1);
  });
}

TEST_F(sd_mgmtTest, KeptHeaderIsTakenBackWhenItIsAWholeNumberOfElements) {
  inChild([] {
    for (const int elm_sz :
         kNarrow ? std::vector<int>{4, 6, 9, 12, 18, 36} : std::vector<int>{8, 16, 32, 64}) {
      const int pool = sd_create_mpool(10, elm_sz, 0);
      char* const header = descriptor(pool).pool_base;
      EXPECT_EQ(sd_elm_free(pool, header), 0) << elm_sz;
      EXPECT_EQ(allocate(pool), header) << elm_sz;
      EXPECT_EQ(allocate(pool), header + kHeader) << elm_sz;
    }
    for (const int elm_sz : kNarrow ? std::vector<int>{5, 7, 8, 24, 35, 37, 72}
                                    : std::vector<int>{9, 12, 24, 36, 63, 65, 128}) {
      const int pool = sd_create_mpool(10, elm_sz, 0);
      EXPECT_EQ(sd_elm_free(pool, descriptor(pool).pool_base), -1) << elm_sz;
    }
  });
}

TEST_F(sd_mgmtTest, MutexThatCannotBeTakenGivesNoElement) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, 24, 0), 0);
    {
      const RefusedMutex refused(mapping(0));
      EXPECT_EQ(allocate(0), nullptr);
    }
    EXPECT_NE(allocate(0), nullptr);
  });
}

TEST_F(sd_mgmtTest, MutexThatCannotBeTakenLosesTheElementWithoutAWord) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, 24, 0), 0);
    char* const element = allocate(0);
    {
      const RefusedMutex refused(mapping(0));
      EXPECT_EQ(sd_elm_free(0, element), 0);
    }
    EXPECT_EQ(allocate(0), element + 24);
  });
}

// ---- What faults ----

TEST_F(sd_mgmtTest, FirstByteBehindThePoolFaults) {
  expectFault([] {
    EXPECT_EQ(sd_create_mpool(1, kPage - kHeader, 0), 0);
    char* const element = allocate(0);
    memset(element, 'x', kPage - kHeader);
    return element + kPage - kHeader;
  });
}

TEST_F(sd_mgmtTest, LastByteOfTheGuardPageFaults) {
  expectFault([] {
    EXPECT_EQ(sd_create_mpool(1, 8, 0), 0);
    return mapping(0) + 2 * kPage - 1;
  });
}

TEST_F(sd_mgmtTest, GuardPageCanBeRead) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(1, 8, 0), 0);
    for (int i = 0; i < kPage; ++i) ASSERT_EQ(mapping(0)[kPage + i], '\0');
  });
}

TEST_F(sd_mgmtTest, RegisterFaultsAfterTheFirstPool) {
  expectFault([] {
    EXPECT_EQ(sd_create_mpool(1, 8, 0), 0);
    return registerPage();
  });
}

TEST_F(sd_mgmtTest, RegisterFaultsAfterMorePools) {
  expectFault([] {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(sd_create_mpool(1, 8, 0), i);
    return registerPage() + kPage - 1;
  });
}

TEST_F(sd_mgmtTest, FullRegisterFaultsAfterARefusal) {
  expectFault([] {
    for (int i = 0; i < kMostPools; ++i) EXPECT_EQ(sd_create_mpool(1, 8, 0), i);
    EXPECT_EQ(sd_create_mpool(1, 8, 0), -1);
    return registerPage() + 8;
  });
}

// ---- The core dump ----

TEST_F(sd_mgmtTest, FirstPoolStoresTheCallbackAndNoOtherDoes) {
  inChild([] {
    set_at_coredump_cb([] {});
    EXPECT_EQ(sd_create_mpool(0, 0, 0), -1);
    EXPECT_EQ(memory_calls.callbacks_stored, 1);
    const at_coredump_handler own = memory_calls.callback;
    ASSERT_EQ(sd_create_mpool(1, 8, 0), 0);  // without the flag too
    EXPECT_EQ(memory_calls.callbacks_stored, 2);
    EXPECT_NE(memory_calls.callback, own);
    ASSERT_EQ(sd_create_mpool(1, 8, 1), 1);
    EXPECT_EQ(memory_calls.callbacks_stored, 2);
  });
}

TEST_F(sd_mgmtTest, PoolsWithTheFlagAreZerosBeforeTheDumpAndNoOthers) {
  inChild([] {
    const int flags[] = {1, 0, -1, 0, 4711};
    const int count = 5;
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(sd_create_mpool(100, 100, flags[i]), i);
      for (char* const element : allocateAll(i)) memset(element, 'x', 100);
      if (flags[i] != 0) sd_elm_free(i, descriptor(i).pool_base + kHeader);
    }
    memory_calls.callback();
    for (int i = 0; i < count; ++i) {
      const Descriptor pool = descriptor(i);
      ASSERT_EQ(pool.pool_len, 3u * kPage);
      const std::string bytes(pool.pool_base, pool.pool_len);
      const std::string zeros(pool.pool_len, '\0');
      EXPECT_EQ(bytes == zeros, flags[i] != 0) << i;  // header and mutex included
    }
    char* const kept = descriptor(1).pool_base + kHeader;
    EXPECT_EQ(std::string(kept, 100), std::string(100, 'x'));
    EXPECT_EQ(sd_elm_free(1, kept), 0);
    EXPECT_EQ(allocate(1), kept);
  });
}

TEST_F(sd_mgmtTest, WipedPoolHasNoElementsForThreadsThatStillRun) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(10, 16, 1), 0);
    char* const element = allocate(0);
    memory_calls.callback();
    EXPECT_EQ(allocate(0), nullptr);
    EXPECT_EQ(sd_elm_free(0, element), -1);
  });
}

TEST_F(sd_mgmtTest, CallbackWithoutAnyPoolInTheRegisterDoesNothing) {
  inChild([] {
    memory_calls.protect.fails_at = 2;
    ASSERT_EQ(sd_create_mpool(1, 8, 1), 0);
    const int32_t none = 0;
    memcpy(registerPage(), &none, sizeof none);
    memory_calls.callback();
    EXPECT_NE(valueAt<char*>(mapping(0)), nullptr);
  });
}

// A text that stands nowhere as a whole: neither in the program nor, once used, on a stack.
constexpr size_t kSecretSize = 48;
void writeSecret(volatile char* to, unsigned seed) {
  for (size_t i = 0; i < kSecretSize; ++i) {
    seed = seed * 1664525 + 1013904223;
    to[i] = static_cast<char>(seed >> 24);
  }
}

int occurrencesOf(unsigned seed, const std::vector<char>& bytes) {
  char secret[kSecretSize];
  writeSecret(secret, seed);
  int found = 0;
  for (auto at = bytes.begin();; ++at, ++found) {
    at = std::search(at, bytes.end(), secret, secret + kSecretSize);
    if (at == bytes.end()) return found;
  }
}

// How often the secret stands in the memory of process `pid` that it could have written.
int secretsInMemory(pid_t pid, unsigned seed) {
  const std::string folder = "/proc/" + std::to_string(pid);
  const int fd = open((folder + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  std::ifstream maps(folder + "/maps");
  int found = 0;
  for (std::string line; std::getline(maps, line);) {
    unsigned long long start, end;
    char rights[5];
    if (sscanf(line.c_str(), "%llx-%llx %4s", &start, &end, rights) != 3) continue;
    // The sanitizers' shadow is terabytes, and holds no bytes of the program's.
    if (rights[0] != 'r' || rights[1] != 'w' || end - start > (1ULL << 30)) continue;
    std::vector<char> bytes(static_cast<size_t>(end - start));
    const ssize_t count = pread64(fd, bytes.data(), bytes.size(), static_cast<off64_t>(start));
    if (count < 0) continue;
    bytes.resize(static_cast<size_t>(count));
    found += occurrencesOf(seed, bytes);
  }
  close(fd);
  return found;
}

// The seeds for the pool with the flag and the one without. Whoever looks for a secret has copies
// of it, which later children inherit: each test has secrets of its own.
struct Secrets {
  unsigned erased;
  unsigned shown;
};

Secrets newSecrets() {
  static unsigned last = 0;
  last += 2;
  return {last - 1, last};
}

// Makes both pools; each holds its secret twice, in an element and in one that was given back.
void fillPoolsWith(const Secrets& secrets) {
  for (const unsigned seed : {secrets.erased, secrets.shown}) {
    const int pool = sd_create_mpool(10, 100, seed == secrets.erased ? 1 : 0);
    writeSecret(allocate(pool), seed);
    char* const freed = allocate(pool);
    writeSecret(freed + 2 * kLink, seed);
    sd_elm_free(pool, freed);
  }
}

TEST_F(sd_mgmtTest, SecretsAreGoneFromTheProcessesMemoryBeforeTheDump) {
  const Secrets secrets = newSecrets();
  Child child([&secrets] {
    fillPoolsWith(secrets);
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigprocmask(SIG_BLOCK, &usr1, nullptr);
    printf("waiting\n");
    fflush(stdout);
    int number;
    sigwait(&usr1, &number);
    memory_calls.callback();
    printf("erased\n");
    fflush(stdout);
    sigwait(&usr1, &number);
  });
  ASSERT_TRUE(child.waitForOut("waiting"));
  EXPECT_EQ(secretsInMemory(child.pid(), secrets.erased), 2);
  EXPECT_EQ(secretsInMemory(child.pid(), secrets.shown), 2);
  child.signal(SIGUSR1);
  ASSERT_TRUE(child.waitForOut("erased"));
  EXPECT_EQ(secretsInMemory(child.pid(), secrets.erased), 0);
  EXPECT_EQ(secretsInMemory(child.pid(), secrets.shown), 2);
  child.signal(SIGUSR1);
  EXPECT_EQ(child.wait().exitCode(), 0);
}

// A crash from the fault to the core file.
class sd_mgmtCrashTest : public PrivateWorld {
 protected:
  sd_mgmtCrashTest() {
    cover("/local");
    std::filesystem::create_directory("/local/local1");
  }
  ~sd_mgmtCrashTest() override { (void)umount2("/local", MNT_DETACH); }

  // Why no core file can be looked at here.
  static const char* refusal() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return "not run, because a sanitizer's process has terabytes of shadow to dump";
#endif
    rlimit limit;
    getrlimit(RLIMIT_CORE, &limit);
    if (limit.rlim_max != RLIM_INFINITY)
      return "not run, because the hard core limit is not unlimited";
    const std::string pattern = read("/proc/sys/kernel/core_pattern");
    if (pattern.rfind("core", 0) != 0 || pattern.find('/') != std::string::npos)
      return "not run, because the machine's core pattern leads out of the working directory";
    return nullptr;
  }

  // Crashes in /tmp; what remains there is the core file, when there is one.
  static ChildResult crashWith(const Secrets& secrets) {
    return runInChild([&secrets] {
      (void)!chdir("/tmp");
      prctl(PR_SET_DUMPABLE, 1);
      crash_calls.hard_core_limit_stays = true;
      if (sig_init(printf) != 1) _exit(98);
      sig_set_action(SIGNAL_ACTION_COREDUMP);
      fillPoolsWith(secrets);
      volatile char* volatile nowhere = nullptr;
      *nowhere = 'x';
    });
  }

  static std::string coreFile() {
    for (const auto& entry : std::filesystem::directory_iterator("/tmp"))
      if (entry.path().filename().string().rfind("core", 0) == 0) return entry.path();
    return "";
  }
};

TEST_F(sd_mgmtCrashTest, CoreFileHoldsTheSecretsOfPoolsWithoutTheFlagOnly) {
  if (refusal() != nullptr) GTEST_SKIP() << refusal();
  const Secrets secrets = newSecrets();
  const ChildResult crash = crashWith(secrets);
  EXPECT_EQ(crash.signal(), SIGQUIT) << crash;
  ASSERT_TRUE(WCOREDUMP(crash.status)) << crash;
  ASSERT_NE(coreFile(), "");
  const std::string core = read(coreFile());
  const std::vector<char> bytes(core.begin(), core.end());
  EXPECT_EQ(occurrencesOf(secrets.erased, bytes), 0);
  EXPECT_EQ(occurrencesOf(secrets.shown, bytes), 2);
}

// The erasing hides nothing but the pools: without the callback both secrets would be found.
TEST_F(sd_mgmtCrashTest, CoreFileWithoutTheCallbackHoldsAllSecrets) {
  if (refusal() != nullptr) GTEST_SKIP() << refusal();
  const Secrets secrets = newSecrets();
  const ChildResult crash = runInChild([&secrets] {
    (void)!chdir("/tmp");
    prctl(PR_SET_DUMPABLE, 1);
    fillPoolsWith(secrets);
    rlimit limit;
    getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_CORE, &limit);
    (void)raise(SIGQUIT);
  });
  ASSERT_TRUE(WCOREDUMP(crash.status)) << crash;
  ASSERT_NE(coreFile(), "");
  const std::string core = read(coreFile());
  const std::vector<char> bytes(core.begin(), core.end());
  EXPECT_EQ(occurrencesOf(secrets.erased, bytes), 2);
  EXPECT_EQ(occurrencesOf(secrets.shown, bytes), 2);
}

// ---- Threads ----

// Takes and gives back elements of `pool`, up to four at a time; nobody else may hold what this
// thread holds. All threads begin together.
void use(int pool, int thread, std::atomic<int>* come, std::atomic<bool>* torn) {
  ++*come;
  while (come->load() < kThreads) std::this_thread::yield();
  struct Held {
    char* element;
    int mark;
  };
  std::vector<Held> held;
  for (int i = 0; i < kOperations; ++i) {
    const bool full = held.size() == 4;
    if (!full && (held.empty() || (i / 3) % 2 == 0)) {
      char* const element = allocate(pool);
      if (element == nullptr) continue;
      if (valueAt<void*>(element) != nullptr) torn->store(true);
      const int mark = thread * kOperations + i;
      memcpy(element + sizeof(void*), &mark, sizeof mark);
      held.push_back({element, mark});
    } else {
      const Held last = held.back();
      held.pop_back();
      if (valueAt<int>(last.element + sizeof(void*)) != last.mark) torn->store(true);
      if (sd_elm_free(pool, last.element) != 0) torn->store(true);
    }
  }
  for (const Held& each : held) sd_elm_free(pool, each.element);
}

void useFromThreads(const std::function<int(int thread)>& pool_of) {
  std::atomic<int> come{0};
  std::atomic<bool> torn{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(use, pool_of(i), i, &come, &torn);
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(torn.load());
}

TEST_F(sd_mgmtTest, OnePoolServesManyThreads) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(100, 17, 0), 0);  // 239 or 237 elements
    const size_t count = allocateAll(0).size();
    for (size_t i = 0; i < count; ++i) ASSERT_EQ(sd_elm_free(0, mapping(0) + kHeader + 17 * i), 0);
    useFromThreads([](int) { return 0; });
    const std::vector<char*> after = allocateAll(0);
    EXPECT_EQ(after.size(), count);
    EXPECT_EQ(std::set<char*>(after.begin(), after.end()).size(), count);
  });
}

TEST_F(sd_mgmtTest, SmallPoolIsExhaustedByManyThreads) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(1, kPage / 5, 0), 0);
    const std::vector<char*> all = allocateAll(0);
    ASSERT_EQ(all.size(), 4u);
    for (char* const element : all) sd_elm_free(0, element);
    useFromThreads([](int) { return 0; });
    EXPECT_EQ(allocateAll(0).size(), 4u);
  });
}

TEST_F(sd_mgmtTest, ManyPoolsServeManyThreads) {
  inChild([] {
    for (int i = 0; i < kThreads; ++i) ASSERT_EQ(sd_create_mpool(10, 16 + i, 0), i);
    useFromThreads([](int thread) { return thread; });
    for (int i = 0; i < kThreads; ++i)
      EXPECT_EQ(allocateAll(i).size(), static_cast<size_t>((kPage - 1 - kHeader) / (16 + i))) << i;
  });
}

TEST_F(sd_mgmtTest, PoolsAreUsedWhileOthersAreAdded) {
  inChild([] {
    ASSERT_EQ(sd_create_mpool(1, 16, 1), 0);
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&done] {
        for (int pool = sd_create_mpool(1, 16, 1); pool >= 0; pool = sd_create_mpool(1, 16, 1)) {
          char* const element = allocate(pool);
          EXPECT_NE(element, nullptr);
          EXPECT_EQ(sd_elm_free(pool, element), 0);
        }
        ++done;
      });
    }
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&done] {
        while (done.load() < 3) {
          for (int pool = 0;; ++pool) {
            char* const element = allocate(pool);
            if (element == nullptr) break;  // not there yet
            EXPECT_EQ(sd_elm_free(pool, element), 0);
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(registeredPools(), kMostPools);
    EXPECT_EQ(memory_calls.callbacks_stored, 1);
    std::set<char*> bases;
    for (int i = 0; i < kMostPools; ++i) bases.insert(descriptor(i).pool_base);
    EXPECT_EQ(bases.size(), static_cast<size_t>(kMostPools));
  });
}

// ---- AddressSanitizer ----

#ifdef __SANITIZE_ADDRESS__

TEST_F(sd_mgmtTest, UseOfAFreedElementIsReported) {
  const ChildResult child = runInChild([] {
    EXPECT_EQ(sd_create_mpool(10, 32, 0), 0);
    volatile char* const element = allocate(0);
    element[20] = 'x';
    EXPECT_EQ(sd_elm_free(0, const_cast<char*>(element)), 0);
    element[20] = 'y';
  });
  EXPECT_NE(child.exitCode(), 0) << child;
  EXPECT_THAT(child.err, testing::HasSubstr("use-after-poison"));
}

TEST_F(sd_mgmtTest, RefusedPoolLeavesItsAddressesUsable) {
  inChild([] {
    memory_calls.mutex_lock.fails_at = 1;
    const int pool = sd_create_mpool(1000, 100, 0);
    EXPECT_EQ(pool, -1);
    const size_t size = 26 * kPage;
    for (int i = 0; i < 8; ++i) {
      void* const memory =
          mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      ASSERT_NE(memory, MAP_FAILED);
      memset(memory, 'x', size);
    }
  });
}

#endif  // __SANITIZE_ADDRESS__

}  // namespace
