// The digests of other libraries, behind plain functions: their names and ours do not mix.
#ifndef VELORIN_BENCH_digest_peers_
#define VELORIN_BENCH_digest_peers_

#include <stddef.h>

#include <string>

namespace bench {

// A whole message into 16 or 20 bytes, by the quickest interface that the library has for it.
using Digest = void(const unsigned char* message, size_t size, unsigned char* digest);

Digest opensslMd5;
Digest nettleMd5;
Digest opensslSha1;
Digest nettleSha1;

std::string opensslBase64(const unsigned char* bytes, size_t size);

// By OpenSSL's code for processors without any vector instructions.
Digest opensslPortableSha1;

}  // namespace bench

#endif  // VELORIN_BENCH_digest_peers_
