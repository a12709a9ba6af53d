// The ".cfg" file beside a daemon's socket: what in it has no effect, or another one than it seems.
#ifndef VELORIN_AD_DEBUGCTL_settings_
#define VELORIN_AD_DEBUGCTL_settings_

#include <string>
#include <vector>

#include "report.h"

// What is wrong with a file of that name that begins with `text`. More than 1024 bytes of it need
// not be given, as the library reads no more.
std::vector<Finding> findings_in_settings(const std::string& name, const std::string& text);

#endif  // VELORIN_AD_DEBUGCTL_settings_
