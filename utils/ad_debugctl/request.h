// What the user asked for.
#ifndef VELORIN_AD_DEBUGCTL_request_
#define VELORIN_AD_DEBUGCTL_request_

#include <stdint.h>

#include <string>
#include <vector>

struct Request {
  std::string base;                // of the daemon's socket; empty: the socket itself was named
  bool base_is_option = false;     // and not the environment's or the default
  std::vector<std::string> paths;  // the daemon's socket, in the order tried
  std::string special_base = "/tmp/ad_errorlog_sp";
  bool json = false;
  uint32_t value = 0;                // that a setter stores
  std::vector<std::string> targets;  // pids and names of the processes to reload; empty: all
};

#endif  // VELORIN_AD_DEBUGCTL_request_
