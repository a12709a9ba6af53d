// Who uses the records.
#ifndef VELORIN_AD_DEBUGCTL_who_
#define VELORIN_AD_DEBUGCTL_who_

#include "request.h"

// Prints the processes that have attached a record or hold the debug log. Changes nothing.
// Returns: the exit status.
int who(const Request& request);

#endif  // VELORIN_AD_DEBUGCTL_who_
