// MD5 and SHA-1 against the chain of instructions that nobody can shorten, and other libraries.
#ifndef VELORIN_BENCH_digest_contests_
#define VELORIN_BENCH_digest_contests_

#include "bench.h"

namespace bench {

void runDigestContests(Contests* contests);

}  // namespace bench

#endif  // VELORIN_BENCH_digest_contests_
