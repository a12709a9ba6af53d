// What a proxy has done since it started. See summary.h.
#include "summary.h"

#include <limits.h>

#include <algorithm>

#include "velorin/String"
#include "velorin/time_str"

namespace {

constexpr size_t kDateRoom = 37;        // for any year
constexpr double kShortestTime = 1e-3;  // seconds; for a rate
constexpr int kRateDigits = 3;

}  // namespace

void Summary::add(uint64_t bytes) {
  ++connections_;
  bytes_ += bytes;
}

std::string Summary::text() const {
  char date[kDateRoom];
  const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  const auto whole_seconds = static_cast<int>(std::min<double>(seconds, INT_MAX));
  const double rate = static_cast<double>(bytes_) / std::max(seconds, kShortestTime);
  return "served " + Dec(connections_) + " connections and " + Dec(bytes_) + " bytes since " +
         get_gmt_time_str(start_time_, date) + ", for " + TimeSpanStr(whole_seconds) + ": " +
         Eng(rate, kRateDigits) + " bytes a second";
}
