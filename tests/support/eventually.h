// Waiting for what nothing announces.
#ifndef VELORIN_TESTS_eventually_
#define VELORIN_TESTS_eventually_

#include <poll.h>
#include <time.h>

#include <functional>

inline constexpr int kPatience = 20;  // seconds; only a failing test waits that long

// Looks until `holds`, at most kPatience. Returns: whether it did.
inline bool eventually(const std::function<bool()>& holds) {
  const time_t deadline = time(nullptr) + kPatience;
  while (!holds()) {
    if (time(nullptr) > deadline) return false;
    (void)poll(nullptr, 0, 1);
  }
  return true;
}

#endif  // VELORIN_TESTS_eventually_
