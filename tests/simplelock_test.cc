// The spin lock, between threads and between processes.
#include "velorin/simplelock"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sched.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/lock_words.h"

namespace {

#ifdef __SANITIZE_THREAD__
constexpr int kTimes = 20000;
#else
constexpr int kTimes = 300000;
#endif

// The inlined functions, and those that the library exports.
struct Functions {
  const char* name;
  void (*init)(volatile uint32_t*);
  void (*lock)(volatile uint32_t*);
  int (*try_lock)(volatile uint32_t*);
  void (*unlock)(volatile uint32_t*);
};
const Functions kInlined = {"Inlined", [](volatile uint32_t* word) { s_lock_init(word); },
                            [](volatile uint32_t* word) { s_lock(word); },
                            [](volatile uint32_t* word) { return s_lock_try(word); },
                            [](volatile uint32_t* word) { s_unlock(word); }};

// From the library itself: an address taken here is that of a copy in this program.
template <typename Function>
Function exported(const char* name, Function) {
  static void* const library = dlopen("libvelorin-util.so.1", RTLD_NOW);
  return reinterpret_cast<Function>(dlsym(library, name));
}
const Functions kExported = {"Exported", exported("s_lock_init", s_lock_init),
                             exported("s_lock", s_lock), exported("s_lock_try", s_lock_try),
                             exported("s_unlock", s_unlock)};

TEST(simplelockExportsTest, LibraryHoldsEachFunctionOutOfLine) {
  EXPECT_NE(kExported.init, nullptr);
  EXPECT_NE(kExported.lock, nullptr);
  EXPECT_NE(kExported.try_lock, nullptr);
  EXPECT_NE(kExported.unlock, nullptr);
}

TEST(simplelockExportsTest, KeptTheSpinHasNoPause) {
  Dl_info info;
  void* symbol = nullptr;
  void* const code = reinterpret_cast<void*>(kExported.lock);
  ASSERT_NE(dladdr1(code, &info, &symbol, RTLD_DL_SYMENT), 0);
  ASSERT_NE(symbol, nullptr);
  const size_t size = static_cast<const ElfW(Sym)*>(symbol)->st_size;
  ASSERT_GT(size, 0u);
  const std::string bytes(static_cast<const char*>(code), size);
  EXPECT_EQ(bytes.find("\xF3\x90"), std::string::npos);  // the instruction pause
}

class simplelockTest : public testing::TestWithParam<Functions> {
 protected:
  const Functions& f() const { return GetParam(); }
};

TEST_P(simplelockTest, InitMakesAnyWordFree) {
  for (const uint32_t before : {0u, 1u, 2u, 0xFFFFFFFFu}) {
    volatile uint32_t word = before;
    f().init(&word);
    EXPECT_EQ(word, 0u) << before;
  }
}

TEST_P(simplelockTest, TryTakesAFreeLockOnce) {
  volatile uint32_t word = 0;
  EXPECT_EQ(f().try_lock(&word), 1);
  EXPECT_EQ(word, 1u);
  EXPECT_EQ(f().try_lock(&word), 0);
  EXPECT_EQ(word, 1u);
  f().unlock(&word);
  EXPECT_EQ(f().try_lock(&word), 1);
}

TEST_P(simplelockTest, LockTakesAFreeLock) {
  volatile uint32_t word = 0;
  f().lock(&word);
  EXPECT_EQ(word, 1u);
  EXPECT_EQ(f().try_lock(&word), 0);
}

TEST_P(simplelockTest, UnlockOfAFreeLockLeavesItFree) {
  volatile uint32_t word = 0;
  f().unlock(&word);
  EXPECT_EQ(word, 0u);
}

TEST_P(simplelockTest, OnlyTheWordIsTouched) {
  volatile uint32_t words[] = {0xA5A5A5A5, 7, 0xA5A5A5A5};
  f().init(&words[1]);
  f().lock(&words[1]);
  EXPECT_EQ(f().try_lock(&words[1]), 0);
  f().unlock(&words[1]);
  EXPECT_EQ(words[0], 0xA5A5A5A5u);
  EXPECT_EQ(words[1], 0u);
  EXPECT_EQ(words[2], 0xA5A5A5A5u);
}

TEST_P(simplelockTest, LockOfAHeldLockReturnsOnlyAfterTheUnlock) {
  volatile uint32_t word = 0;
  int written_before_unlock = 0;
  std::atomic<bool> waits{false};
  f().lock(&word);
  std::thread waiter([&] {
    waits = true;
    f().lock(&word);
    EXPECT_EQ(written_before_unlock, 4711);
    EXPECT_EQ(word, 1u);
  });
  while (!waits) sched_yield();
  for (int i = 0; i < 100; ++i) sched_yield();  // lets the waiter try in vain
  written_before_unlock = 4711;
  f().unlock(&word);
  waiter.join();
  EXPECT_EQ(word, 1u);
}

TEST_P(simplelockTest, OneThreadAtATimeHoldsTheLock) {
  constexpr int kThreads = 8;
  volatile uint32_t word;
  f().init(&word);
  uint64_t count = 0;  // a plain variable
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int times = 0; times < kTimes / kThreads; ++times) {
        f().lock(&word);
        ++count;
        f().unlock(&word);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count, uint64_t{kThreads} * (kTimes / kThreads));
  EXPECT_EQ(word, 0u);
}

INSTANTIATE_TEST_SUITE_P(, simplelockTest, testing::Values(kInlined, kExported),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- Between processes ----

// A file without a name that this process and its children share.
class SharedWords {
 public:
  SharedWords() : fd_(memfd_create("lock_words", MFD_CLOEXEC)) {
    if (ftruncate(fd_, sizeof(LockWords)) != 0) ADD_FAILURE() << "ftruncate";
    words_ = static_cast<LockWords*>(
        mmap(nullptr, sizeof(LockWords), PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
  }
  ~SharedWords() {
    munmap(words_, sizeof(LockWords));
    close(fd_);
  }
  SharedWords(const SharedWords&) = delete;
  SharedWords& operator=(const SharedWords&) = delete;

  LockWords* operator->() const { return words_; }
  LockWords* get() const { return words_; }
  std::string path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_);
  }

 private:
  int fd_;
  LockWords* words_;
};

TEST(simplelockSharedTest, TwoProcessesHoldTheLockInTurn) {
  const SharedWords words;
  Child peer([&] { EXPECT_TRUE(count_with_another(words.get(), kTimes)); });
  EXPECT_TRUE(count_with_another(words.get(), kTimes));
  EXPECT_EQ(peer.wait().exitCode(), 0);
  EXPECT_EQ(words->count[0], 2u * kTimes);
  EXPECT_EQ(words->count[1], 2u * kTimes);
  EXPECT_EQ(words->lock, 0u);
}

#ifdef VELORIN_OTHER_WIDTH

TEST(simplelockSharedTest, ProcessesOfBothWidthsHoldTheLockInTurn) {
  ASSERT_EQ(access(VELORIN_OTHER_WIDTH, X_OK), 0)
      << VELORIN_OTHER_WIDTH << " is missing: build both targets (scripts/test does)";
  const SharedWords words;
  Child peer({VELORIN_OTHER_WIDTH, words.path(), std::to_string(kTimes)});
  EXPECT_TRUE(count_with_another(words.get(), kTimes));
  const ChildResult result = peer.wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(words->count[0], 2u * kTimes);
  EXPECT_EQ(words->count[1], 2u * kTimes);
  EXPECT_EQ(words->lock, 0u);
}

#endif  // VELORIN_OTHER_WIDTH

}  // namespace
