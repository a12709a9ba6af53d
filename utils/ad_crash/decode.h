// A trace's addresses as functions and source lines.
#ifndef VELORIN_AD_CRASH_decode_
#define VELORIN_AD_CRASH_decode_

#include "object.h"
#include "trace.h"

// Prints the objects and the addresses. What cannot be decoded is "??" with the reason.
// Returns: false when a program that it needs fails, a build id is not the one wanted or cannot be
// checked, or the trace holds no address; standard error then says so.
bool decode(const Trace& trace, const Origin& origin, const Hints& hints);

#endif  // VELORIN_AD_CRASH_decode_
