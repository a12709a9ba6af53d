/* A C11 program that uses the C interface of the digests and of Base64. It exits with 0 when all
   was as expected. */
#include <errno.h>
#include <stddef.h>
#include <string.h>

#include "expect.h"
#include "velorin/base64"
#include "velorin/hashmisc"
#include "velorin/md5"
#include "velorin/sha"

static unsigned char message[] = "abc";
static const unsigned char md5_of_abc[16] = {0x90, 0x01, 0x50, 0x98, 0x3C, 0xD2, 0x4F, 0xB0,
                                             0xD6, 0x96, 0x3F, 0x7D, 0x28, 0xE1, 0x7F, 0x72};
static const unsigned char sha1_of_abc[SHA1HashSize] = {0xA9, 0x99, 0x3E, 0x36, 0x47, 0x06, 0x81,
                                                        0x6A, 0xBA, 0x3E, 0x25, 0x71, 0x78, 0x50,
                                                        0xC2, 0x6C, 0x9C, 0xD0, 0xD8, 0x9D};

static void use_md5(void) {
  MD5_CTX context;
  unsigned char digest[16];
  MD5Init(&context);
  MD5Update(&context, message, 1);
  MD5Update(&context, message + 1, 2);
  EXPECT(context.count[0] == 24 && context.count[1] == 0);
  EXPECT(context.state[0] == 0x67452301 && context.buffer[2] == 'c');
  MD5Final(digest, &context);
  EXPECT(memcmp(digest, md5_of_abc, sizeof digest) == 0);
}

static void use_sha(void) {
  SHA1Context context;
  uint8_t digest[SHA1HashSize];
  EXPECT(SHA1Reset(&context) == shaSuccess);
  EXPECT(SHA1Input(&context, message, 3) == shaSuccess);
  EXPECT(SHA1Result(&context, digest) == shaSuccess);
  EXPECT(memcmp(digest, sha1_of_abc, sizeof digest) == 0);
  EXPECT(context.Computed && !context.Corrupted);
  EXPECT(SHA1Input(&context, NULL, 1) == shaNull);
  EXPECT(SHA1Input(&context, message, 3) == shaStateError);
  EXPECT(shaInputTooLong == 2);
}

static void use_hashmisc(void) {
  unsigned char raw[16];
  unsigned char human[33];
  EXPECT(hash_pjw("a") == 1261);
  EXPECT(md5sum_file("/dev/null", raw) == 0);
  rawmd5_to_humanmd5(human, raw);
  EXPECT(strcmp((const char*)human, "d41d8cd98f00b204e9800998ecf8427e") == 0);
  memset(raw, 0, sizeof raw);
  humanmd5_to_rawmd5(raw, human);
  EXPECT(raw[0] == 0xD4 && raw[15] == 0x7E);
  EXPECT(md5sum_file("/nonexistent", raw) == -ENOENT);
  EXPECT(raw[0] == 0 && raw[15] == 0);
}

static void encode_base64(void) {
  char text[9];
  EXPECT(U_base64_encode("Man", text, 3) == text);
  EXPECT(strcmp(text, "TWFu") == 0);
  EXPECT(U_base64_encode("M", text, 1) == text);
  EXPECT(strcmp(text, "TQ==") == 0);
  EXPECT(U_base64_encode(NULL, text, 1) == NULL);
}

static void decode_base64(void) {
  char bytes[6];
  int size = -1;
  EXPECT(U_base64_decode("TW\nFu", bytes, &size) == bytes);
  EXPECT(size == 3 && memcmp(bytes, "Man", 3) == 0);
  EXPECT(U_base64_decode("T", bytes, &size) == bytes);
  EXPECT(size == 1 && bytes[0] == 0x4C);
  EXPECT(U_base64_decode(NULL, bytes, &size) == NULL);
  EXPECT(size == 0);
}

static void check_base64(void) {
  EXPECT(is_base64_string("ab+/") == 1);
  EXPECT(is_base64_string("ab-_") == 0);
  EXPECT(is_base64_string(NULL) == 0);
}

int main(void) {
  use_md5();
  use_sha();
  use_hashmisc();
  encode_base64();
  decode_base64();
  check_base64();
  return failures != 0;
}
