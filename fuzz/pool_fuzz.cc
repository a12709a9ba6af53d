// Pools on the caller's memory, against a model that does to a copy of the bytes what the interface
// says: after every operation each byte in and around the block is what the model holds, the
// mutex's own apart. Addresses that the validity test takes though no element is there are freed
// too, the header's included; what the caller may not do, to free twice or to let elements overlap,
// is left out. The input: the size of the elements, the size of the block in two bytes, operations.
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "fuzz.h"
#include "velorin/sd_mpool"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define WATCHED 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define WATCHED 1
#endif
#ifdef WATCHED
#include <sanitizer/asan_interface.h>
#define NOT_WATCHED __attribute__((no_sanitize("address")))
#else
#define NOT_WATCHED
#endif

namespace {

constexpr bool kNarrow = sizeof(void*) == 4;
constexpr int kHeader = kNarrow ? 36 : 64;
constexpr int kLink = sizeof(void*);
constexpr int kElmSz = kNarrow ? 4 : 8;
constexpr int kFreeElms = kNarrow ? 8 : 16;
constexpr int kLock = kNarrow ? 12 : 24;

constexpr int kMargin = 512;     // bytes around the block that may be freed as elements
constexpr int kMostBytes = 700;  // of a block
constexpr int kArena = kMargin + kMostBytes + kMargin;

class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}

  bool empty() const { return at_ == end_; }
  uint8_t byte() { return empty() ? uint8_t{0} : *at_++; }
  template <typename Integer>
  Integer integer() {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(Integer); ++i) value |= uint64_t{byte()} << (8 * i);
    return static_cast<Integer>(value);
  }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
};

// Whether the `size` bytes are the same, of memory that may be poisoned; in words, for speed.
NOT_WATCHED bool are_same(const char* a, const char* b, int size) {
  const auto* const a_words = reinterpret_cast<const volatile uint32_t*>(a);
  const auto* const b_words = reinterpret_cast<const volatile uint32_t*>(b);
  uint32_t differences = 0;
  for (int i = 0; i < size / 4; ++i) differences |= a_words[i] ^ b_words[i];
  return differences == 0;
}

// The block between its margins, and what the model says that they hold. Places are offsets from
// the block's start; the model's pointers are the real addresses.
class Model {
 public:
  Model() : arena_(new char[kArena]), bytes_(kArena, '\x5A') {
    memset(arena_.get(), '\x5A', kArena);
  }

  char* block() const { return arena_.get() + kMargin; }
  mpool_hdr_t* pool() const { return reinterpret_cast<mpool_hdr_t*>(block()); }
  char* address(int place) const { return block() + place; }
  int place(const char* address) const { return static_cast<int>(address - block()); }
  int step() const { return step_; }
  int size() const { return size_; }

  // Takes back what a former pool poisoned, in the block and in the margins.
  void takeBack() {
#ifdef WATCHED
    __asan_unpoison_memory_region(arena_.get(), kArena);
#endif
  }

  // What mpool_initialize has to do and to return.
  int initialize(int size, int elm_sz) {
    const int step = std::max(elm_sz, kLink);
    if (step + kHeader > size) return -1;
    step_ = step;
    size_ = size;
    free_.clear();
    memset(model(0), 0, kHeader);
    memcpy(model(kElmSz), &step_, sizeof step_);
    setPointer(0, address(kHeader));
    setPointer(kFreeElms, address(kHeader));
    int last = kHeader;
    free_.push_back(last);
    while (last + 2 * step < size) {
      setPointer(last, address(last + step));
      last += step;
      free_.push_back(last);
    }
    setPointer(last, nullptr);
    std::reverse(free_.begin(), free_.end());  // the head of the list is at the back
    return 0;
  }

  char* allocate() {
    if (free_.empty()) return nullptr;
    const int popped = free_.back();
    free_.pop_back();
    setPointer(kFreeElms, free_.empty() ? nullptr : address(free_.back()));
    setPointer(popped, nullptr);
    return address(popped);
  }

  void free(int place) {
    setPointer(place, free_.empty() ? nullptr : address(free_.back()));
    setPointer(kFreeElms, address(place));
    free_.push_back(place);
  }

  // Whether a caller may free this: in our memory, clear of what is free already and of the header,
  // unless it is the header itself.
  bool mayFree(int place) const {
    if (place < -kMargin || place + step_ > kArena - kMargin) return false;
    if (place != 0 && overlaps(place, kLink, 0, kHeader)) return false;
    return isClear(place);
  }

  // Whether nothing free lies in the element at `place`.
  bool isClear(int place) const {
    return std::none_of(free_.begin(), free_.end(),
                        [&](int other) { return overlaps(place, step_, other, step_); });
  }

  // Fills an element that nothing else lies in.
  void fill(int place, char byte) {
    if (overlaps(place, step_, 0, kHeader) || !isClear(place)) return;
    memset(address(place), byte, static_cast<size_t>(step_));
    memset(model(place), byte, static_cast<size_t>(step_));
  }

  // What mpool_is_elm_valid has to return, from the words of the rule.
  bool isValid(int pool_len, uintptr_t e) const {
    const uintptr_t end = reinterpret_cast<uintptr_t>(block()) + static_cast<uintptr_t>(pool_len);
    if (end <= e) return false;
    const uintptr_t base = reinterpret_cast<uintptr_t>(pointer(0));
    const intptr_t quotient = static_cast<intptr_t>(e - base) / step_;
    return base + static_cast<uintptr_t>(quotient) * static_cast<uintptr_t>(step_) == e;
  }

  void requireSameBytes() const {
    REQUIRE(are_same(arena_.get(), bytes_.data(), kMargin + kLock));
    REQUIRE(
        are_same(address(kHeader), bytes_.data() + kMargin + kHeader, kArena - kMargin - kHeader));
  }

 private:
  static bool overlaps(int a, int a_size, int b, int b_size) {
    return a < b + b_size && b < a + a_size;
  }
  char* model(int place) {
    return bytes_.data() + kMargin + place;
  }
  void setPointer(int place, const char* value) {
    memcpy(model(place), &value, sizeof value);
  }
  const char* pointer(int place) const {
    const char* value;
    memcpy(&value, bytes_.data() + kMargin + place, sizeof value);
    return value;
  }

  std::unique_ptr<char[]> arena_;
  std::vector<char> bytes_;
  int step_ = 0;  // 0: no pool yet
  int size_ = 0;
  std::vector<int> free_;
};

void require_sane_size(int nelms, int elm_sz) {
  const int64_t page = getpagesize();
  const int64_t needed = int64_t{std::max(elm_sz, kLink)} * nelms + kHeader;
  const int size = mpool_calculate_reqsize(nelms, elm_sz);
  if (size == -1) {
    REQUIRE(nelms < 0 || needed > INT_MAX - (page - 1));
    return;
  }
  REQUIRE(nelms >= 0);
  REQUIRE(size % page == 0);
  REQUIRE(size >= needed && size - needed < page);
}

// A pool and those of its elements that the caller holds.
class Session {
 public:
  bool initialize(int size, int elm_sz) {
    const int expected = model_.initialize(size, elm_sz);
    if (expected == 0) model_.takeBack();
    REQUIRE(mpool_initialize(model_.block(), size, elm_sz) == expected);
    if (expected == 0) held_.clear();
    model_.requireSameBytes();
    return expected == 0;
  }

  void run(Input* input) {
    switch (input->byte() % 7) {
      case 0:
        return allocate();
      case 1:
        return free_held(input->byte());
      case 2:
        return free_if_valid(input->integer<int16_t>() % kArena);
      case 3:
        return free_unchecked(input->integer<int16_t>() % kArena);
      case 4:
        return fill_held(input->byte(), static_cast<char>(input->byte()));
      case 5:
        return require_same_validity(input->integer<int32_t>(), input->integer<uintptr_t>());
      default: {
        const int size = input->integer<uint16_t>() % (kMostBytes + 1);
        (void)initialize(size, input->integer<int8_t>());
      }
    }
  }

  void requireSameBytes() const { model_.requireSameBytes(); }

 private:
  void allocate() {
    char* const expected = model_.allocate();
    REQUIRE(mpool_alloc_elm(model_.pool()) == expected);
    if (expected != nullptr) held_.push_back(model_.place(expected));
  }

  void free(int place) {
    held_.erase(std::remove(held_.begin(), held_.end(), place), held_.end());
    model_.free(place);
    mpool_free_elm(model_.pool(), model_.address(place));
  }

  void free_held(size_t choice) {
    if (held_.empty()) return;
    const int place = held_[choice % held_.size()];
    if (model_.mayFree(place)) free(place);
  }

  void free_if_valid(int place) {
    char* const address = model_.address(place);
    require_same_validity(model_.size(), reinterpret_cast<uintptr_t>(address));
    const bool valid = mpool_is_elm_valid(model_.pool(), model_.size(), address) == 1;
    if (valid && model_.mayFree(place)) free(place);
  }

  void free_unchecked(int place) {
    if (model_.mayFree(place)) free(place);
  }

  void fill_held(size_t choice, char byte) {
    if (!held_.empty()) model_.fill(held_[choice % held_.size()], byte);
  }

  void require_same_validity(int pool_len, uintptr_t e) {
    const int valid = mpool_is_elm_valid(model_.pool(), pool_len, reinterpret_cast<void*>(e));
    REQUIRE(valid == (model_.isValid(pool_len, e) ? 1 : 0));
  }

  Model model_;
  std::vector<int> held_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input sizes(data, size);
  const int nelms = sizes.integer<int32_t>();
  require_sane_size(nelms, sizes.integer<int32_t>());

  Input input(data, size);
  Session session;
  const int elm_sz = input.integer<int8_t>();
  if (!session.initialize(input.integer<uint16_t>() % (kMostBytes + 1), elm_sz)) return 0;
  while (!input.empty()) {
    session.run(&input);
    session.requireSameBytes();
  }
  return 0;
}
