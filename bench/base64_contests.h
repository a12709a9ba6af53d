// Base64 against copying and measuring its text, and other libraries.
#ifndef VELORIN_BENCH_base64_contests_
#define VELORIN_BENCH_base64_contests_

#include "bench.h"

namespace bench {

void runBase64Contests(Contests* contests);

}  // namespace bench

#endif  // VELORIN_BENCH_base64_contests_
