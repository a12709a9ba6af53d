// Numbers as text: against building the string from ready digits, and against fmt, to_chars, printf
// and ecvt. HTTP dates: against bare calendar arithmetic, and against apr, curl and the system.
#include <apr_date.h>
#include <apr_time.h>
#include <ctype.h>
#include <curl/curl.h>
#include <fmt/format.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <charconv>
#include <cmath>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "bench.h"
#include "velorin/String"
#include "velorin/time_str"

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

// ---- Real numbers ----

struct Real {
  double v;
  int ndigits;
};

// Numbers as they are measured and reported: up to nine digits, with few decimals.
std::vector<Real> reportedReals() {
  std::mt19937_64 random(22);
  std::vector<Real> reals;
  for (size_t i = 0; i < kNumbers; ++i) {
    const auto digits = static_cast<double>(random() % 1000000000);
    const double scale = std::pow(10, static_cast<double>(random() % 9));
    reals.push_back({digits / scale, static_cast<int>(1 + random() % 6)});
  }
  return reals;
}

// Numbers of all the bits there are, between 0 and 1000.
std::vector<Real> longReals() {
  std::mt19937_64 random(23);
  std::vector<Real> reals;
  for (size_t i = 0; i < kNumbers; ++i)
    reals.push_back({static_cast<double>(random() >> 11) * 0x1p-53 * 1000,
                     static_cast<int>(1 + random() % 15)});
  return reals;
}

// A number's text in a buffer.
struct Buffer {
  char text[400];
};

char* toChars(Buffer* buffer, const Real& real) {
  return std::to_chars(buffer->text, buffer->text + sizeof buffer->text, real.v,
                       std::chars_format::fixed, real.ndigits)
      .ptr;
}

int printFixed(Buffer* buffer, const Real& real) {
  return snprintf(buffer->text, sizeof buffer->text, "%.*f", real.ndigits, real.v);
}

struct Digits {
  char text[32];
  int point, negative;
};

void ecvtDigits(Digits* digits, const Real& real) {
  (void)ecvt_r(real.v, real.ndigits, &digits->point, &digits->negative, digits->text,
               sizeof digits->text);
}

// What Flt leaves of the text of a whole number with decimals.
std::string shortened(std::string text) {
  if (text.find('.') != std::string::npos) {
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
  }
  if (text.compare(0, 2, "0.") == 0) text.erase(0, 1);
  if (text.compare(0, 3, "-0.") == 0) text.erase(1, 1);
  return text;
}

// Whether Flt's texts are those that `peer` wrote, without what Flt leaves out.
template <class Peer>
bool sameFixed(const std::vector<Real>& reals, Peer peer) {
  for (const Real& real : reals) {
    Buffer buffer = {};
    (void)peer(&buffer, real);
    if (Flt(real.v, real.ndigits) != shortened(buffer.text)) return false;
  }
  return true;
}

// Whether Eng's texts have the digits that ecvt gives.
bool sameDigits(const std::vector<Real>& reals) {
  for (const Real& real : reals) {
    Digits digits = {};
    ecvtDigits(&digits, real);
    const std::string peer = std::string("0.") + digits.text + "e" + std::to_string(digits.point);
    if (strtod(Eng(real.v, real.ndigits).c_str(), nullptr) != strtod(peer.c_str(), nullptr))
      return false;
  }
  return true;
}

void contestsOfReals(bench::Contests& contests) {
  const struct {
    const char* name;
    std::vector<Real> reals;
  } sets[] = {{"reported", reportedReals()}, {"longest", longReals()}};

  for (const auto& set : sets) {
    const std::vector<Real>& reals = set.reals;
    const std::string inputs = std::string("/") + set.name;
    const auto flt = [&](size_t i) { bench::keep(Flt(reals[i].v, reals[i].ndigits)); };
    contests.run({"Flt" + inputs,
                  "to_chars",
                  {1.6, 1.35},
                  kAtATime,
                  [&] { return sameFixed(reals, toChars); },
                  inTurn(flt),
                  inTurn([&](size_t i) {
                    Buffer buffer;
                    bench::keep(toChars(&buffer, reals[i]));
                    bench::keep(buffer);
                  })});
    contests.run({"Flt" + inputs, "snprintf", kNeverBehind, kAtATime,
                  [&] { return sameFixed(reals, printFixed); }, inTurn(flt), inTurn([&](size_t i) {
                    Buffer buffer;
                    bench::keep(printFixed(&buffer, reals[i]));
                    bench::keep(buffer);
                  })});
    contests.run({"Eng" + inputs,
                  "ecvt_r",
                  {1.25, 1.25},
                  kAtATime,
                  [&] { return sameDigits(reals); },
                  inTurn([&](size_t i) { bench::keep(Eng(reals[i].v, reals[i].ndigits)); }),
                  inTurn([&](size_t i) {
                    Digits digits;
                    ecvtDigits(&digits, reals[i]);
                    bench::keep(digits);
                  })});
  }
}

// ---- HTTP dates ----

constexpr time_t kDay = 86400;

// From 1970 to 2037, where all peers agree with a 32-bit time_t.
std::vector<time_t> dates() {
  constexpr uint64_t kDays = 24837;
  std::mt19937_64 random(24);
  std::vector<time_t> times;
  for (size_t i = 0; i < kNumbers; ++i)
    times.push_back(static_cast<time_t>(random() % (kDays * kDay)));
  return times;
}

struct Text {
  char text[32];
};

struct Fields {
  int year, month, day, weekday, hour, minute, second;
};

// The civil calendar without a text: the well-known way, in eras of 400 years.
[[gnu::noinline]] Fields civil(time_t t) {
  const auto days = static_cast<int>(t / kDay);
  const auto rest = static_cast<int>(t % kDay);
  const int z = days + 719468;
  const int era = z / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  Fields f;
  f.day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  f.month = static_cast<int>(mp < 10 ? mp + 2 : mp - 10);
  f.year = static_cast<int>(yoe) + era * 400 + (f.month <= 1 ? 1 : 0);
  f.weekday = (days + 4) % 7;
  f.hour = rest / 3600;
  f.minute = rest / 60 % 60;
  f.second = rest % 60;
  return f;
}

void writeCivil(Text* text, time_t t) {
  const Fields f = civil(t);
  (void)snprintf(text->text, sizeof text->text, "%s, %02d %s %d %02d:%02d:%02d GMT",
                 wkdays[f.weekday], f.day, month_names[f.month], f.year, f.hour, f.minute,
                 f.second);
}

void writeApr(Text* text, time_t t) {
  (void)apr_rfc822_date(text->text, apr_time_from_sec(apr_time_t{t}));
}

void writeStrftime(Text* text, time_t t) {
  tm broken_down;
  (void)gmtime_r(&t, &broken_down);
  (void)strftime(text->text, sizeof text->text, "%a, %d %b %Y %H:%M:%S GMT", &broken_down);
}

template <class Peer>
bool sameTexts(const std::vector<time_t>& times, Peer peer) {
  for (const time_t t : times) {
    Text ours, other;
    get_gmt_time_str(t, ours.text);
    peer(&other, t);
    if (strcmp(ours.text, other.text) != 0) return false;
  }
  return true;
}

void contestsOfWriting(bench::Contests& contests) {
  const std::vector<time_t> times = dates();
  const auto ours = [&](size_t i) {
    Text text;
    bench::keep(get_gmt_time_str(times[i], text.text));
    bench::keep(text);
  };
  const auto against = [&](const char* peer_name, bench::Limit limit, auto peer) {
    contests.run({"get_gmt_time_str", peer_name, limit, kAtATime,
                  [&] { return sameTexts(times, peer); }, inTurn(ours), inTurn([&](size_t i) {
                    Text text;
                    peer(&text, times[i]);
                    bench::keep(text);
                  })});
  };
  contests.run({"get_gmt_time_str",
                "civil date",
                {1.6, 1.6},
                kAtATime,
                [&] { return sameTexts(times, writeCivil); },
                inTurn(ours),
                inTurn([&](size_t i) { bench::keep(civil(times[i])); })});
  against("apr_rfc822_date", kNeverBehind, writeApr);
  against("strftime", kNeverBehind, writeStrftime);
}

// The months by the sum of their names' second and third letters.
struct FixedMonths {
  int8_t month[256] = {};

  constexpr FixedMonths() {
    const char names[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    for (int i = 0; i < 12; ++i)
      month[names[3 * i + 1] + names[3 * i + 2]] = static_cast<int8_t>(i);
  }
};
constexpr FixedMonths kFixedMonths;

int fixedMonth(const char* p) {
  return kFixedMonths.month[(p[1] + p[2]) & 255];
}

int fixedPair(const char* p) {
  return (p[0] - '0') * 10 + (p[1] - '0');
}

// Reads the fields of an RFC 1123 date where they stand, and nothing else.
[[gnu::noinline]] time_t readFixed(const char* text) {
  int year = fixedPair(text + 12) * 100 + fixedPair(text + 14);
  const int month = fixedMonth(text + 8);
  const int mp = month > 1 ? month - 2 : month + 10;
  if (month <= 1) --year;
  const int era = year / 400;
  const int yoe = year - era * 400;
  const int doy = (153 * mp + 2) / 5 + fixedPair(text + 5) - 1;
  const int days = era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
  return ((days * 24 + fixedPair(text + 17)) * 60 + fixedPair(text + 20)) * 60 +
         fixedPair(text + 23);
}

time_t readOurs(const char* text) {
  return parse_http_time(const_cast<char*>(text));
}

time_t readApr(const char* text) {
  return static_cast<time_t>(apr_time_sec(apr_date_parse_http(text)));
}

time_t readCurl(const char* text) {
  return curl_getdate(text, nullptr);
}

time_t readStrptime(const char* text) {
  tm broken_down = {};
  if (strptime(text, "%a, %d %b %Y %H:%M:%S GMT", &broken_down) == nullptr) return -1;
  return timegm(&broken_down);
}

void contestsOfReading(bench::Contests& contests) {
  std::vector<Text> texts;
  for (const time_t t : dates()) {
    texts.emplace_back();
    get_gmt_time_str(t, texts.back().text);
  }
  const auto against = [&](const char* peer_name, bench::Limit limit, auto peer) {
    const auto agree = [&] {
      for (const Text& text : texts)
        if (readOurs(text.text) != peer(text.text)) return false;
      return true;
    };
    contests.run({"parse_http_time", peer_name, limit, kAtATime, agree,
                  inTurn([&](size_t i) { bench::keep(readOurs(texts[i].text)); }),
                  inTurn([&](size_t i) { bench::keep(peer(texts[i].text)); })});
  };
  against("fixed fields", {2.1, 2.4}, readFixed);
  against("apr_date_parse_http", {1 / 3.0, 1 / 3.0}, readApr);
  against("curl_getdate", {1 / 20.0, 1 / 20.0}, readCurl);
  against("strptime", {1 / 20.0, 1 / 20.0}, readStrptime);
}

}  // namespace

int main(int argc, char** argv) {
  bench::Contests contests(argc, argv);
  const bench::Limit binary = {1.35, 1.25};
  contestsOf<uint32_t>(contests, "uint32", {{2.5, 1.2}, {2.4, 1.2}, binary});
  contestsOf<unsigned long long>(contests, "uint64", {{2.3, 1.45}, {2.0, 1.3}, binary});
  contestsOfReals(contests);
  contestsOfWriting(contests);
  contestsOfReading(contests);
  return contests.finish();
}
