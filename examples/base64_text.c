/* Base64: a key as the text of a header line, and back from a text with line breaks. */
#include <stdio.h>
#include <string.h>
#include <velorin/base64>

enum { kKeySize = 16 };

static void show(const char* text) {
  char bytes[64];
  int size;
  if (strlen(text) / 4 * 3 + 3 > sizeof bytes) return;
  U_base64_decode(text, bytes, &size);
  printf("%d bytes: %.*s\n", size, size, bytes);
}

int main(void) {
  unsigned char key[kKeySize];
  char text[4 * ((kKeySize + 2) / 3) + 1];
  for (int i = 0; i < kKeySize; ++i) key[i] = (unsigned char)(17 * i);
  printf("X-Key: %s\n", U_base64_encode((const char*)key, text, kKeySize));

  show("c2VydmljZQ==");
  show("YWNj\r\nZWxl\r\ncmF0ZWQ=\r\n");
  show("dHJhZmZpYw==, and a comment");

  printf("%d %d\n", is_base64_string(text), is_base64_string("file name"));
  return 0;
}
