/* MD5 of a message that arrives in pieces. */
#include <stdio.h>
#include <string.h>
#include <velorin/md5>

int main(void) {
  char pieces[][8] = {"mess", "age ", "digest"};
  MD5_CTX context;
  MD5Init(&context);
  for (size_t i = 0; i < sizeof pieces / sizeof pieces[0]; ++i)
    MD5Update(&context, (unsigned char*)pieces[i], (unsigned int)strlen(pieces[i]));
  unsigned char digest[16];
  MD5Final(digest, &context);

  for (size_t i = 0; i < sizeof digest; ++i) printf("%02x", digest[i]);
  printf("\n");
  return 0;
}
