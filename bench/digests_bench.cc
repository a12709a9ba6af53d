// The digests and Base64 against their limits and peers.
#include "base64_contests.h"
#include "bench.h"
#include "digest_contests.h"

int main(int argc, char** argv) {
  bench::Contests contests(argc, argv);
  bench::runDigestContests(&contests);
  bench::runBase64Contests(&contests);
  return contests.finish();
}
