// A log file that grows, is renamed and begun anew, or is cut.
#ifndef VELORIN_AD_LOGVIEW_follow_
#define VELORIN_AD_LOGVIEW_follow_

#include <string>

#include "input.h"
#include "line_splitter.h"
#include "view.h"

// Shows what comes; `input` is the file as far as it was read, or not open when there was none.
// Returns: when nobody reads standard output any more; false, having said why, when the file cannot
// be read.
bool follow(const std::string& path, Input* input, LineSplitter* lines, View* view);

#endif  // VELORIN_AD_LOGVIEW_follow_
