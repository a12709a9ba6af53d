// The packet dump: its lines parse back to the bytes, for any length and level, and go where the
// level says. The first two bytes of an input choose the dump's and the configured level.
#include <stdarg.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz.h"
#include "ku_syslog.h"
#include "velorin/ad_debug"

namespace {

constexpr size_t kTrailer = 9;
constexpr char kDaemon[] = "/tmp/ad_errorlog";
constexpr char kSpecial[] = "/tmp/ad_errorlog_sp";

std::vector<std::string> to_daemon, to_special, to_syslog;

void clear() {
  for (auto* lines : {&to_daemon, &to_special, &to_syslog}) lines->clear();
}

// Takes `expected` off the front of `*text`.
void skip(std::string* text, const std::string& expected) {
  REQUIRE(text->compare(0, expected.size(), expected) == 0);
  text->erase(0, expected.size());
}

unsigned hex(std::string* text, size_t least_digits) {
  skip(text, "0x");
  const size_t digits = text->find_first_not_of("0123456789abcdef");
  REQUIRE(digits != std::string::npos && digits >= least_digits);
  REQUIRE(digits == least_digits || text->front() != '0');
  const unsigned value = static_cast<unsigned>(std::stoul(text->substr(0, digits), nullptr, 16));
  text->erase(0, digits);
  return value;
}

// The bytes that the lines of a dump show.
std::string parsed(const std::vector<std::string>& lines, const std::string& who, size_t size) {
  REQUIRE(!lines.empty());
  std::string header = lines[0];
  skip(&header, who + ":fuzz.c:7-> DUMP length = ");
  REQUIRE(hex(&header, 1) == size);
  skip(&header, " (bytes)\n");
  REQUIRE(header.empty());

  std::string bytes;
  for (size_t i = 1; i < lines.size(); ++i) {
    std::string line = lines[i];
    skip(&line, who + ": ");
    REQUIRE(bytes.size() % 16 == 0);
    REQUIRE(hex(&line, 3) == bytes.size());
    skip(&line, ": ");
    for (int column = 0; column < 16 && line != "\n"; ++column) {
      if (column > 0) skip(&line, column == 8 ? ",  " : ",");
      const std::string before = line;
      bytes.push_back(static_cast<char>(hex(&line, 2)));
      REQUIRE(before.size() - line.size() == 4);
    }
    REQUIRE(line == "\n");
    REQUIRE(bytes.size() == size || i + 1 < lines.size());
  }
  return bytes;
}

}  // namespace

// In the system's place: keeps what is sent.
extern "C" ssize_t sendto(int, const void* bytes, size_t size, int, const sockaddr* to, socklen_t) {
  REQUIRE(size > kTrailer);
  const std::string path = reinterpret_cast<const sockaddr_un*>(to)->sun_path;
  const std::string text(static_cast<const char*>(bytes), size - kTrailer);
  REQUIRE(path == kDaemon || path == kSpecial);
  (path == kDaemon ? to_daemon : to_special).push_back(text);
  return static_cast<ssize_t>(size);
}

int ku_syslog_init(void) {
  return 0;
}

int ku_syslog(int, uint32_t, uint32_t, uint32_t, const char* format, ...) {
  char text[8192];
  va_list ap;
  va_start(ap, format);
  (void)vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  to_syslog.emplace_back(text);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int level = static_cast<int8_t>(data[0]);
  const int configured = data[1] % 5;
  const std::string bytes(reinterpret_cast<const char*>(data + 2), size - 2);
  ad_debug_cfg_p = &ad_debug_cfg_no_share_mem;
  ad_debug_cfg_p->ad_debug_level = configured;
  ad_debug_syslog_critical_msg_only = 0;

  clear();
  ad_debug_print_pkt_impl(level, "TAGG", bytes.data(), static_cast<int>(bytes.size()), "/a/fuzz.c",
                          7, "bytes");

  const bool wanted = level <= 1 || configured >= level;
  const std::string who = "(" + std::to_string(getpid()) + ")TAGG";
  REQUIRE(to_daemon.empty() == !(wanted && level <= 3));
  REQUIRE(to_special.empty() == !(wanted && configured == 4));
  REQUIRE(to_syslog.empty() == !(level <= 0 || (level == 1 && configured >= 1)));
  for (const auto* lines : {&to_daemon, &to_special, &to_syslog})
    if (!lines->empty()) REQUIRE(parsed(*lines, who, bytes.size()) == bytes);
  return 0;
}
