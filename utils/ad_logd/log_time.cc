// Points of time as lines show them. See log_time.h.
#include "log_time.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

static_assert(sizeof(time_t) == 8, "holds any time of a datagram on both targets");

timeval32 now() {
  timeval time;
  (void)gettimeofday(&time, nullptr);
  return {static_cast<uint32_t>(time.tv_sec), static_cast<uint32_t>(time.tv_usec)};
}

void SecondText::set(uint32_t sec) {
  if (is_set_ && sec == sec_) return;
  const time_t time = sec;
  tm parts = {};
  (void)(utc_ ? gmtime_r(&time, &parts) : localtime_r(&time, &parts));
  (void)snprintf(date_, sizeof date_, "%04d-%02d-%02d", parts.tm_year + 1900, parts.tm_mon + 1,
                 parts.tm_mday);
  (void)snprintf(clock_, sizeof clock_, "%02d:%02d:%02d", parts.tm_hour, parts.tm_min,
                 parts.tm_sec);
  const char sign = parts.tm_gmtoff < 0 ? '-' : '+';
  const long offset = labs(parts.tm_gmtoff);
  (void)snprintf(zone_, sizeof zone_, "%c%02ld:%02ld", sign, offset / 3600, offset / 60 % 60);
  // No zone of today has an offset with seconds in it; those that had are shown exactly.
  const size_t len = strlen(zone_);
  if (offset % 60 != 0) (void)snprintf(zone_ + len, sizeof zone_ - len, ":%02ld", offset % 60);
  if (utc_) (void)strcpy(zone_, "Z");
  sec_ = sec;
  is_set_ = true;
}
