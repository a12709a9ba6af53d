// Lets processes read their settings anew.
#ifndef VELORIN_AD_DEBUGCTL_reload_
#define VELORIN_AD_DEBUGCTL_reload_

#include "request.h"

// Sends the reload signal to the processes asked for, or to all that use the debug log, but never
// to one that would die of it. Returns: the exit status.
int reload(const Request& request);

#endif  // VELORIN_AD_DEBUGCTL_reload_
