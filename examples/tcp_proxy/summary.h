// What a proxy has done since it started.
#ifndef TCP_PROXY_summary_
#define TCP_PROXY_summary_

#include <stdint.h>
#include <time.h>

#include <chrono>
#include <string>

// Counts from its construction on.
class Summary {
 public:
  // A connection has ended, of so many bytes in both directions.
  void add(uint64_t bytes);

  // In a sentence: how much, since when, how long and how fast.
  std::string text() const;

 private:
  using Clock = std::chrono::steady_clock;  // which goes on when somebody sets the time

  const time_t start_time_ = time(nullptr);
  const Clock::time_point start_ = Clock::now();
  uint64_t connections_ = 0;
  uint64_t bytes_ = 0;
};

#endif  // TCP_PROXY_summary_
