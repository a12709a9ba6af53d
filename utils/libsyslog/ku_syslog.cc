// The appliance's syslog client over syslog(3), for machines that do not have the appliance's own.
#include "ku_syslog.h"

#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <syslog.h>

namespace {

constexpr size_t kTextRoom = 8192;  // what syslog servers take by default; one datagram holds it
constexpr size_t kSwitches = 256;

// A module's debug switch: its number, kUsed and, when on, kOn. A word of 64 bits, so that one load
// sees all three; 0 is a free place. A place taken belongs to its module for good.
constexpr uint64_t kUsed = uint64_t{1} << 32;
constexpr uint64_t kOn = uint64_t{1} << 33;
alignas(sizeof(uint64_t)) uint64_t switches[kSwitches];

uint64_t load(const uint64_t& word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

// Takes the free place `word` for `value`, or tells what another thread took it for.
uint64_t take(uint64_t* word, uint64_t value) {
  uint64_t found = 0;
  return __atomic_compare_exchange_n(word, &found, value, /*weak=*/false, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED)
             ? value
             : found;
}

bool belongs_to(uint64_t word, uint32_t module) {
  return static_cast<uint32_t>(word) == module;
}

pthread_once_t opened = PTHREAD_ONCE_INIT;

// No name given: syslog(3) takes the program's.
void open_log() {
  openlog(nullptr, LOG_PID, LOG_DAEMON);
}

}  // namespace

int ku_syslog_init(void) {
  (void)pthread_once(&opened, open_log);
  return 0;
}

int ku_syslog(int priority, uint32_t module, uint32_t /*zero*/, uint32_t message_id,
              const char* format, ...) {
  char text[kTextRoom];
  va_list ap;
  va_start(ap, format);
  const int written = vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  if (written < 0) return -1;
  int len = written < static_cast<int>(kTextRoom) ? written : static_cast<int>(kTextRoom) - 1;
  // A record is one line; servers differ in what they make of a newline at its end.
  while (len > 0 && text[len - 1] == '\n') --len;

  (void)ku_syslog_init();
  // A caller's wrong number must not reach the bits that select the facility.
  if ((priority & LOG_PRIMASK) == priority) {
    syslog(priority, "[module %u id %u] %.*s", module, message_id, len, text);
  } else {
    syslog(LOG_ERR, "[module %u id %u priority %d] %.*s", module, message_id, priority, len, text);
  }
  return 0;
}

int is_debug_enabled(uint32_t module, uint32_t /*zero*/) {
  for (const uint64_t& place : switches) {
    const uint64_t word = load(place);
    if (word == 0) return 0;
    if (belongs_to(word, module)) return (word & kOn) != 0;
  }
  return 0;
}

int set_debug(uint32_t module, uint32_t /*zero*/, int on) {
  const uint64_t value = module | kUsed | (on != 0 ? kOn : 0);
  for (uint64_t& place : switches) {
    uint64_t word = load(place);
    if (word == 0 && on == 0) return 0;
    if (word == 0) word = take(&place, value);
    if (!belongs_to(word, module)) continue;
    __atomic_store_n(&place, value, __ATOMIC_RELAXED);
    return 0;
  }
  return on != 0 ? -1 : 0;
}
