// The daemon's command line.
#ifndef VELORIN_AD_LOGD_options_
#define VELORIN_AD_LOGD_options_

#include "log_line.h"
#include "log_socket.h"

struct Options {
  LogSocket log;
  LogSocket special;             // not named: none is wanted
  const char* output = nullptr;  // null: standard output
  Format format = Format::kText;
  bool syslog = false;  // forward the lines
  bool utc = false;
};

// Reads the command line. Ends the process when it asks for a text (status 0) or is wrong (2).
Options parseOptions(int argc, char** argv);

#endif  // VELORIN_AD_LOGD_options_
