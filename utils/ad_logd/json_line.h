// One datagram as a JSON object on a line of its own.
#ifndef VELORIN_AD_LOGD_json_line_
#define VELORIN_AD_LOGD_json_line_

#include <stdint.h>

#include "log_line.h"

// Puts the object of a datagram and a newline. `received` and `sent` make the texts of its times.
// Room: kLineMax bytes. Returns: the end.
char* putJsonLine(char* at, const LogDatagram& datagram, bool special, SecondText* received,
                  SecondText* sent);

// Puts the object that stands in the place of `count` lost lines. Room and result as above.
char* putJsonLoss(char* at, uint64_t count, SecondText* received);

#endif  // VELORIN_AD_LOGD_json_line_
