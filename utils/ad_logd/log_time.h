// Points of time as lines show them.
#ifndef VELORIN_AD_LOGD_log_time_
#define VELORIN_AD_LOGD_log_time_

#include <stdint.h>

#include "internal/log_datagram.h"

using velorin::internal::timeval32;

timeval32 now();

// A second as text, in Coordinated Universal Time or in local time as tzset found it. The last one
// is remembered, as many lines share it.
class SecondText {
 public:
  explicit SecondText(bool utc) : utc_(utc) {}

  void set(uint32_t sec);

  const char* date() const { return date_; }    // "2026-03-05"
  const char* clock() const { return clock_; }  // "14:07:31"
  const char* zone() const { return zone_; }    // behind UTC, as in "+01:00"; "Z" for UTC itself

 private:
  const bool utc_;
  bool is_set_ = false;
  uint32_t sec_ = 0;
  char date_[48] = "";
  char clock_[48] = "";
  char zone_[48] = "";
};

#endif  // VELORIN_AD_LOGD_log_time_
