// The command line, and how the program ends.
#ifndef VELORIN_AD_LOGVIEW_options_
#define VELORIN_AD_LOGVIEW_options_

#include <stddef.h>

#include <optional>
#include <string>
#include <vector>

#include "common/command.h"
#include "escape.h"
#include "filter.h"

// As programs that search do, so that a script can ask whether something is in a log. Wrong usage
// ends like trouble.
constexpr ExitCode kShown = kDone;
constexpr ExitCode kNothingShown = kFailed;
constexpr ExitCode kTrouble = kUsage;

constexpr char kStandardInput[] = "-";

struct Options {
  Criteria criteria;
  std::vector<std::string> files;  // one at least
  std::optional<size_t> last;      // how many of the lines
  bool follow = false;
  bool colour = false;
  Charset charset = Charset::kUtf8;
};

// Reads the command line. Ends the process when it asks for a text (status 0) or is wrong (2).
Options parseOptions(int argc, char** argv);

#endif  // VELORIN_AD_LOGVIEW_options_
