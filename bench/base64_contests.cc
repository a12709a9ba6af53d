// Base64: against memcpy and strlen of the same input, and against OpenSSL, GLib and APR.
#include <apr_base64.h>
#include <glib.h>
#include <openssl/evp.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>

#include "base64_contests.h"
#include "velorin/base64"

namespace {

struct Size {
  size_t bytes;
  const char* name;
  size_t calls;  // in a row, so that the clock is not what is measured
  bench::Limit encode, decode, lines;
};
constexpr Size kSizes[] = {
    {16, "16 B", 256, {5, 4}, {6, 5.5}, {8, 8}},
    {1024, "1 KiB", 16, {5.5, 3.5}, {7, 5}, {14, 14}},
    {1 << 20, "1 MiB", 1, {1.6, 1.6}, {2.2, 2.3}, {5, 5}},
};
constexpr bench::Limit kOfStrlen = {6, 6};
constexpr bench::Limit kNeverBehind = {1, 1};
constexpr size_t kLine = 76;

std::string randomBytes(size_t size) {
  std::mt19937 random(33);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

std::string randomText(size_t size) {
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::mt19937 random(34);
  std::string text(size, '\0');
  for (char& c : text) c = kAlphabet[random() % 64];
  return text;
}

// Of `size` characters in all, in lines as mail has them; 16 characters have two lines as well.
std::string textWithLines(size_t size) {
  const size_t line = size < kLine ? 8 : kLine;
  std::string text = randomText(size);
  for (size_t i = 0; i < size; i += line + 2) {
    const size_t end = std::min(i + line, size - 2);
    text[end] = '\r';
    text[end + 1] = '\n';
  }
  return text;
}

// What a way of doing it needs and leaves.
struct Job {
  std::string in;
  std::string out;
  size_t calls;

  Job(std::string input, size_t repeated)
      : in(std::move(input)), out(2 * in.size() + 64, '\0'), calls(repeated) {}
};

template <class Function>
std::function<void()> repeated(Job& job, Function function) {
  return [&job, function] {
    for (size_t i = 0; i < job.calls; ++i) bench::keep(function(job));
  };
}

// Whether both leave the same bytes. The peer finds none of ours.
template <class Ours, class Peer>
bool agree(Job& job, Ours ours, Peer peer) {
  const std::string our_result(job.out.data(), ours(job));
  std::fill(job.out.begin(), job.out.end(), '\0');
  const std::string peer_result(job.out.data(), peer(job));
  return our_result == peer_result;
}

template <class Ours, class Peer>
void contest(bench::Contests& contests, const std::string& name, const char* peer_name, Job& job,
             Ours ours, Peer peer) {
  contests.run({name, peer_name, kNeverBehind, job.calls, [&] { return agree(job, ours, peer); },
                repeated(job, ours), repeated(job, peer)});
}

// Against a yardstick, which gives no answer to compare; `right` tells whether ours is.
template <class Ours, class Yardstick>
void measure(bench::Contests& contests, const std::string& name, const char* peer_name,
             bench::Limit limit, Job& job, Ours ours, Yardstick yardstick,
             std::function<bool()> right) {
  contests.run({name, peer_name, limit, job.calls, std::move(right), repeated(job, ours),
                repeated(job, yardstick)});
}

// ---- Ours and theirs. All return the length of what they leave in `out`. ----

unsigned char* bytesOf(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

size_t copy(Job& job) {
  memcpy(job.out.data(), job.in.data(), job.in.size());
  return job.in.size();
}

size_t length(Job& job) {
  return strlen(job.in.c_str());
}

size_t ourEncode(Job& job) {
  (void)U_base64_encode(job.in.data(), job.out.data(), static_cast<int>(job.in.size()));
  return (job.in.size() + 2) / 3 * 4;
}

size_t ourDecode(Job& job) {
  int size;
  (void)U_base64_decode(job.in.c_str(), job.out.data(), &size);
  return static_cast<size_t>(size);
}

size_t ourCheck(Job& job) {
  return static_cast<size_t>(is_base64_string(job.in.c_str()));
}

size_t opensslEncode(Job& job) {
  return static_cast<size_t>(
      EVP_EncodeBlock(bytesOf(job.out), bytesOf(job.in), static_cast<int>(job.in.size())));
}

size_t opensslDecode(Job& job) {
  return static_cast<size_t>(
      EVP_DecodeBlock(bytesOf(job.out), bytesOf(job.in), static_cast<int>(job.in.size())));
}

size_t opensslDecodeLines(Job& job) {
  static EVP_ENCODE_CTX* const context = EVP_ENCODE_CTX_new();
  EVP_DecodeInit(context);
  int size = 0;
  int last = 0;
  (void)EVP_DecodeUpdate(context, bytesOf(job.out), &size, bytesOf(job.in),
                         static_cast<int>(job.in.size()));
  (void)EVP_DecodeFinal(context, bytesOf(job.out) + size, &last);
  return static_cast<size_t>(size + last);
}

size_t glibEncode(Job& job) {
  int state = 0;
  int save = 0;
  const size_t size =
      g_base64_encode_step(bytesOf(job.in), job.in.size(), FALSE, job.out.data(), &state, &save);
  return size + g_base64_encode_close(FALSE, job.out.data() + size, &state, &save);
}

size_t glibDecode(Job& job) {
  int state = 0;
  unsigned save = 0;
  return g_base64_decode_step(job.in.data(), job.in.size(), bytesOf(job.out), &state, &save);
}

size_t aprEncode(Job& job) {
  return static_cast<size_t>(apr_base64_encode_binary(job.out.data(), bytesOf(job.in),
                                                      static_cast<int>(job.in.size()))) -
         1;
}

size_t aprDecode(Job& job) {
  return static_cast<size_t>(apr_base64_decode_binary(bytesOf(job.out), job.in.c_str()));
}

}  // namespace

void bench::runBase64Contests(Contests* to) {
  Contests& contests = *to;
  for (const Size& size : kSizes) {
    const std::string name = std::string("/") + size.name;

    Job encode(randomBytes(size.bytes), size.calls);
    measure(contests, "base64_encode" + name, "memcpy", size.encode, encode, ourEncode, copy,
            [&] { return agree(encode, ourEncode, opensslEncode); });
    contest(contests, "base64_encode" + name, "OpenSSL", encode, ourEncode, opensslEncode);
    contest(contests, "base64_encode" + name, "GLib", encode, ourEncode, glibEncode);
    contest(contests, "base64_encode" + name, "APR", encode, ourEncode, aprEncode);

    Job decode(randomText(size.bytes), size.calls);
    measure(contests, "base64_decode" + name, "memcpy", size.decode, decode, ourDecode, copy,
            [&] { return agree(decode, ourDecode, opensslDecode); });
    contest(contests, "base64_decode" + name, "OpenSSL", decode, ourDecode, opensslDecode);
    contest(contests, "base64_decode" + name, "GLib", decode, ourDecode, glibDecode);
    contest(contests, "base64_decode" + name, "APR", decode, ourDecode, aprDecode);

    Job lines(textWithLines(size.bytes), size.calls);
    measure(contests, "base64_decode lines" + name, "memcpy", size.lines, lines, ourDecode, copy,
            [&] { return agree(lines, ourDecode, opensslDecodeLines); });
    contest(contests, "base64_decode lines" + name, "OpenSSL", lines, ourDecode,
            opensslDecodeLines);
    contest(contests, "base64_decode lines" + name, "GLib", lines, ourDecode, glibDecode);

    measure(contests, "is_base64_string" + name, "strlen", kOfStrlen, decode, ourCheck, length,
            [&] { return ourCheck(decode) == 1; });
  }
  printf("%-28s not measured: Debian 12 has no C library for it\n", "Base64 against SIMD peers");
}
