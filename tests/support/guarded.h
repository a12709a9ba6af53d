// Memory whose neighbours cannot be touched: for texts and results that end where they should.
#ifndef VELORIN_TESTS_guarded_
#define VELORIN_TESTS_guarded_

#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>

class Guarded {
 public:
  // Room for pieces of up to `most` bytes, one at a time.
  explicit Guarded(size_t most) : page_(static_cast<size_t>(getpagesize())) {
    room_ = (most + 2 * page_ - 1) / page_ * page_;
    void* const memory =
        mmap(nullptr, room_ + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) abort();
    begin_ = static_cast<char*>(memory) + page_;
    if (mprotect(begin_, room_, PROT_READ | PROT_WRITE) != 0) abort();
  }

  explicit Guarded(const std::string& content) : Guarded(content.size()) { (void)take(content); }

  ~Guarded() { (void)munmap(begin_ - page_, room_ + 2 * page_); }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;

  // Returns: `size` bytes right before an unreadable page, with canaries in front of them.
  char* take(size_t size) {
    if (size + kCanaries > room_) abort();
    taken_ = begin_ + room_ - size;
    memset(taken_ - kCanaries, kCanary, kCanaries);
    return taken_;
  }
  char* take(const std::string& content) {
    return static_cast<char*>(memcpy(take(content.size()), content.data(), content.size()));
  }

  // What was taken last.
  char* get() const { return taken_; }
  unsigned char* bytes() const { return reinterpret_cast<unsigned char*>(taken_); }

  bool canariesAlive() const {
    return std::all_of(taken_ - kCanaries, taken_, [](char c) { return c == kCanary; });
  }

 private:
  static constexpr char kCanary = '\x5A';
  static constexpr size_t kCanaries = 256;  // less than the page that is left free for them

  size_t page_;
  size_t room_;
  char* begin_;
  char* taken_ = nullptr;
};

#endif  // VELORIN_TESTS_guarded_
