// OpenSSL's and nettle's digests. See digest_peers.h.
#include "digest_peers.h"

// The functions for one digest alone are the quick ones, and called deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <dlfcn.h>
#include <nettle/md5.h>
#include <nettle/sha1.h>
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>

namespace bench {

namespace {

struct Sha1Functions {
  decltype(SHA1_Init)* init;
  decltype(SHA1_Update)* update;
  decltype(SHA1_Final)* final;
};

template <class Function>
void lookUp(void* library, const char* name, Function** function) {
  *function = reinterpret_cast<Function*>(dlsym(library, name));
  if (*function != nullptr) return;
  fprintf(stderr, "no %s: %s\n", name, dlerror());
  exit(1);
}

// A second OpenSSL in this process, made to believe that the processor can do nothing special: the
// variable is read when the library is loaded, and a copy of its file counts as another library.
Sha1Functions withoutInstructions() {
  Dl_info loaded;
  if (dladdr(reinterpret_cast<void*>(SHA1_Init), &loaded) == 0) exit(1);
  char copy[] = "/tmp/digests_bench.XXXXXX";
  if (mkdtemp(copy) == nullptr) exit(1);
  const std::filesystem::path file = std::filesystem::path(copy) / "libcrypto.so";
  std::filesystem::copy_file(std::filesystem::canonical(loaded.dli_fname), file);
  (void)setenv("OPENSSL_ia32cap", "0:0", /*overwrite=*/1);
  void* const library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
  (void)unsetenv("OPENSSL_ia32cap");
  std::filesystem::remove_all(copy);
  if (library == nullptr) {
    fprintf(stderr, "%s\n", dlerror());
    exit(1);
  }
  Sha1Functions functions;
  lookUp(library, "SHA1_Init", &functions.init);
  lookUp(library, "SHA1_Update", &functions.update);
  lookUp(library, "SHA1_Final", &functions.final);
  return functions;
}

}  // namespace

void opensslMd5(const unsigned char* message, size_t size, unsigned char* digest) {
  MD5_CTX context;
  (void)MD5_Init(&context);
  (void)MD5_Update(&context, message, size);
  (void)MD5_Final(digest, &context);
}

void nettleMd5(const unsigned char* message, size_t size, unsigned char* digest) {
  md5_ctx context;
  md5_init(&context);
  md5_update(&context, size, message);
  md5_digest(&context, MD5_DIGEST_SIZE, digest);
}

void opensslSha1(const unsigned char* message, size_t size, unsigned char* digest) {
  SHA_CTX context;
  (void)SHA1_Init(&context);
  (void)SHA1_Update(&context, message, size);
  (void)SHA1_Final(digest, &context);
}

std::string opensslBase64(const unsigned char* bytes, size_t size) {
  std::string text((size + 2) / 3 * 4 + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes, static_cast<int>(size));
  text.resize(static_cast<size_t>(length));
  return text;
}

void nettleSha1(const unsigned char* message, size_t size, unsigned char* digest) {
  sha1_ctx context;
  sha1_init(&context);
  sha1_update(&context, size, message);
  sha1_digest(&context, SHA1_DIGEST_SIZE, digest);
}

void opensslPortableSha1(const unsigned char* message, size_t size, unsigned char* digest) {
  static const Sha1Functions functions = withoutInstructions();
  SHA_CTX context;
  (void)functions.init(&context);
  (void)functions.update(&context, message, size);
  (void)functions.final(digest, &context);
}

}  // namespace bench
