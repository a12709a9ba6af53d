/* SHA-1 with its result codes looked at. */
#include <stdio.h>
#include <string.h>
#include <velorin/sha>

int main(void) {
  const char message[] = "abc";
  SHA1Context context;
  uint8_t digest[SHA1HashSize];
  if (SHA1Reset(&context) != shaSuccess ||
      SHA1Input(&context, (const uint8_t*)message, (unsigned int)strlen(message)) != shaSuccess ||
      SHA1Result(&context, digest) != shaSuccess)
    return 1;
  for (size_t i = 0; i < sizeof digest; ++i) printf("%02x", digest[i]);
  printf("\n");

  if (SHA1Input(&context, (const uint8_t*)message, 1) == shaStateError)
    printf("nothing can be added behind the end\n");
  return 0;
}
