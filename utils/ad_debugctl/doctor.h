// Why no log line arrives.
#ifndef VELORIN_AD_DEBUGCTL_doctor_
#define VELORIN_AD_DEBUGCTL_doctor_

#include "request.h"

// Looks at all that lies between a log statement and the log, and at what a crash needs, prints
// what it finds, and changes nothing. Returns: the exit status.
int doctor(const Request& request);

#endif  // VELORIN_AD_DEBUGCTL_doctor_
