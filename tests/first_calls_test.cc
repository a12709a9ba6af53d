// The first calls of a process, by several threads at once: the choice among the loops of this
// processor is then made by all of them. Nothing here may digest or encode in the parent.
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "velorin/base64"
#include "velorin/sha"

namespace {

constexpr unsigned kThreads = 8;
constexpr int kProcesses = 20;

// Each returns whether the answer is right.

bool encodes() {
  char text[9];
  return std::string(U_base64_encode("foobar", text, 6)) == "Zm9vYmFy";
}

bool decodes() {
  char bytes[6];
  int size = -1;
  return U_base64_decode("Zm9vYmFy", bytes, &size) == bytes && size == 6 &&
         memcmp(bytes, "foobar", 6) == 0;
}

bool checks() {
  return is_base64_string("Zm9vYmFy") == 1 && is_base64_string("Zm9v-mFy") == 0;
}

bool digests() {
  constexpr uint8_t kOfAbc[] = {0xA9, 0x99, 0x3E, 0x36, 0x47, 0x06, 0x81, 0x6A, 0xBA, 0x3E,
                                0x25, 0x71, 0x78, 0x50, 0xC2, 0x6C, 0x9C, 0xD0, 0xD8, 0x9D};
  SHA1Context context;
  (void)SHA1Reset(&context);
  (void)SHA1Input(&context, reinterpret_cast<const uint8_t*>("abc"), 3);
  uint8_t digest[SHA1HashSize];
  return SHA1Result(&context, digest) == shaSuccess && memcmp(digest, kOfAbc, sizeof digest) == 0;
}

// Runs `call` for the first time on many threads, which start together; in many processes.
void expectRightFromTheFirst(bool (*call)()) {
  for (int i = 0; i < kProcesses; ++i) {
    const ChildResult child = runInChild([call] {
      pthread_barrier_t start;
      (void)pthread_barrier_init(&start, nullptr, kThreads);
      bool right[kThreads] = {};
      std::vector<std::thread> threads;
      for (bool& its : right) {
        threads.emplace_back([&its, &start, call] {
          (void)pthread_barrier_wait(&start);
          its = call();
        });
      }
      for (std::thread& thread : threads) thread.join();
      for (const bool its : right) EXPECT_TRUE(its);
      (void)pthread_barrier_destroy(&start);
    });
    ASSERT_EQ(child.exitCode(), 0) << child;
  }
}

TEST(firstCallsTest, ThreadsMayEncodeAtOnce) {
  expectRightFromTheFirst(encodes);
}

TEST(firstCallsTest, ThreadsMayDecodeAtOnce) {
  expectRightFromTheFirst(decodes);
}

TEST(firstCallsTest, ThreadsMayCheckAtOnce) {
  expectRightFromTheFirst(checks);
}

TEST(firstCallsTest, ThreadsMayDigestAtOnce) {
  expectRightFromTheFirst(digests);
}

}  // namespace
