/* A user's program in C. */
#include <stdio.h>
#include <string.h>
#include <velorin/Launcher>
#include <velorin/base64>
#include <velorin/time_str>

int main(void) {
  /* The object that holds it needs libstdc++. */
  void (*volatile linked)(Launcher_t*) = Launcher_delete;
  char text[9];
  char date[64];
  if (linked == NULL) return 3;
  if (strcmp(U_base64_encode("moved", text, 5), "bW92ZWQ=") != 0) return 1;
  if (strcmp(get_gmt_time_str(0, date), "Thu, 01 Jan 1970 00:00:00 GMT") != 0) return 2;
  puts("C: ok");
  return 0;
}
