// Numbers as text: against building the string from ready digits, and against fmt and to_chars.
#include <ctype.h>
#include <fmt/format.h>

#include <charconv>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "bench.h"
#include "velorin/String"

namespace {

constexpr size_t kNumbers = 32768;  // more than a branch predictor learns by heart
constexpr size_t kAtATime =
    1024;  // of these, so that a timed call is over before it is interrupted

// Calls `function` with the next indexes, round and round.
template <class Function>
auto inTurn(Function function) {
  return [function, next = size_t{0}]() mutable {
    for (size_t end = next + kAtATime; next < end; ++next) function(next);
    next %= kNumbers;
  };
}

// Numbers whose lengths in bits are spread evenly, as sizes, ids and counters are.
template <class UInt>
std::vector<UInt> mixedNumbers() {
  std::mt19937_64 random(20);
  std::vector<UInt> numbers;
  for (size_t i = 0; i < kNumbers; ++i) {
    const unsigned bits = static_cast<unsigned>(1 + random() % (8 * sizeof(UInt)));
    numbers.push_back(static_cast<UInt>(random() >> (64 - bits)));
  }
  return numbers;
}

// Numbers of all the bits there are.
template <class UInt>
std::vector<UInt> longestNumbers() {
  std::mt19937_64 random(21);
  std::vector<UInt> numbers;
  for (size_t i = 0; i < kNumbers; ++i)
    numbers.push_back(static_cast<UInt>(random() | UInt{1} << (8 * sizeof(UInt) - 1)));
  return numbers;
}

// The texts of many numbers, one behind the other.
class ReadyTexts {
 public:
  template <class UInt, class Format>
  ReadyTexts(const std::vector<UInt>& numbers, Format format) {
    std::vector<size_t> lengths;
    for (const UInt v : numbers) {
      const std::string text = format(v);
      all_ += text;
      lengths.push_back(text.size());
    }
    const char* p = all_.data();
    for (const size_t length : lengths) {
      texts_.emplace_back(p, length);
      p += length;
    }
  }
  ReadyTexts(const ReadyTexts&) = delete;
  ReadyTexts& operator=(const ReadyTexts&) = delete;

  const std::vector<std::string_view>& get() const { return texts_; }

 private:
  std::string all_;
  std::vector<std::string_view> texts_;
};

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(toupper(c));
  return text;
}

// Whether both make the same texts. Letters may differ in case: those of to_chars are small.
template <class UInt, class Ours, class Peer>
bool agree(const std::vector<UInt>& numbers, Ours ours, Peer peer) {
  for (const UInt v : numbers)
    if (upper(ours(v)) != upper(peer(v))) return false;
  return true;
}

template <class UInt, class Ours, class Peer>
void contest(bench::Contests& contests, const std::string& name, const char* peer_name,
             bench::Limit limit, const std::vector<UInt>& numbers, Ours ours, Peer peer) {
  contests.run({name, peer_name, limit, kAtATime, [&] { return agree(numbers, ours, peer); },
                inTurn([&](size_t i) { bench::keep(ours(numbers[i])); }),
                inTurn([&](size_t i) { bench::keep(peer(numbers[i])); })});
}

// Against building the strings from their digits, written by `digits` beforehand.
template <class UInt, class Ours, class Digits>
void contestReady(bench::Contests& contests, const std::string& name, bench::Limit limit,
                  const std::vector<UInt>& numbers, Ours ours, Digits digits) {
  const ReadyTexts ready(numbers, digits);
  const std::vector<std::string_view>& texts = ready.get();
  contests.run({name, "ready digits", limit, kAtATime, [&] { return agree(numbers, ours, digits); },
                inTurn([&](size_t i) { bench::keep(ours(numbers[i])); }),
                inTurn([&](size_t i) { bench::keep(std::string(texts[i])); })});
}

// Like ours, to_chars learns the radix when it runs.
struct ToChars {
  int radix;

  template <class UInt>
  std::string operator()(UInt v) const {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, v, radix);
    return std::string(text, result.ptr);
  }
};

struct FormatInt {
  template <class UInt>
  std::string operator()(UInt v) const {
    return fmt::format_int(v).str();
  }
};

struct StrIn {
  int radix;

  template <class UInt>
  std::string operator()(UInt v) const {
    return Str(v, radix);
  }
};

struct DecOf {
  template <class UInt>
  std::string operator()(UInt v) const {
    return Dec(v);
  }
};

constexpr bench::Limit kNeverBehind = {1.0, 1.0};

struct Limits {
  bench::Limit decimal, hexadecimal, binary;
};

template <class UInt>
void contestsOf(bench::Contests& contests, const std::string& width, const Limits& limits) {
  const struct {
    const char* name;
    std::vector<UInt> numbers;
  } sets[] = {{"mixed", mixedNumbers<UInt>()}, {"longest", longestNumbers<UInt>()}};

  for (const auto& set : sets) {
    const auto& numbers = set.numbers;
    const std::string inputs = "/" + width + " " + set.name;
    contestReady(contests, "Dec" + inputs, limits.decimal, numbers, DecOf(), FormatInt());
    contestReady(contests, "Str 10" + inputs, limits.decimal, numbers, StrIn{10}, FormatInt());
    contestReady(contests, "Str 16" + inputs, limits.hexadecimal, numbers, StrIn{16}, StrIn{16});
    contestReady(contests, "Str -16" + inputs, limits.hexadecimal, numbers, StrIn{-16},
                 ToChars{16});
    contestReady(contests, "Str -2" + inputs, limits.binary, numbers, StrIn{-2}, ToChars{2});

    contest(contests, "Dec" + inputs, "format_int", kNeverBehind, numbers, DecOf(), FormatInt());
    for (int radix = 2; radix <= 16; ++radix) {
      if (radix == 10) continue;
      contest(contests, "Str -" + std::to_string(radix) + inputs, "to_chars", kNeverBehind, numbers,
              StrIn{-radix}, ToChars{radix});
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  bench::Contests contests(argc, argv);
  const bench::Limit binary = {1.35, 1.25};
  contestsOf<uint32_t>(contests, "uint32", {{2.5, 1.2}, {2.4, 1.2}, binary});
  contestsOf<unsigned long long>(contests, "uint64", {{2.3, 1.45}, {2.0, 1.3}, binary});
  return contests.finish();
}
