/* A file's MD5 in both forms, and the hash that chooses a string's bucket. */
#include <stdio.h>
#include <string.h>
#include <velorin/hashmisc>

int main(void) {
  unsigned char raw[16], human[33], again[16];
  int error = md5sum_file("/dev/null", raw);
  if (error != 0) return 1;
  rawmd5_to_humanmd5(human, raw);
  printf("%s  /dev/null\n", (const char*)human);

  humanmd5_to_rawmd5(again, human);
  printf("read back: %s\n", memcmp(raw, again, sizeof raw) == 0 ? "the same" : "different");

  error = md5sum_file("/nonexistent", raw);
  printf("/nonexistent: %s\n", strerror(-error));

  printf("film.asx is in bucket %lu of 64\n", hash_pjw("film.asx") % 64);
  return 0;
}
