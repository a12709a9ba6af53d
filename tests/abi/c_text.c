/* A C11 program that uses all of the text family's C interface. */
#include <string.h>

#include "expect.h"
#include "velorin/time_str"

int main(void) {
  char text[64];
  char http[] = "Sunday, 06-Nov-94 08:49:37 GMT";
  char command[] = "Wed Jun 30 21:49:08 PDT 1993";
  EXPECT(strcmp(wkdays[0], "Sun") == 0 && strcmp(wkdays[6], "Sat") == 0);
  EXPECT(strcmp(month_names[0], "Jan") == 0 && strcmp(month_names[11], "Dec") == 0);
  EXPECT(sizeof wkdays / sizeof wkdays[0] == 7);
  EXPECT(sizeof month_names / sizeof month_names[0] == 12);
  EXPECT(get_gmt_time_str(784111777, text) == text);
  EXPECT(strcmp(text, "Sun, 06 Nov 1994 08:49:37 GMT") == 0);
  EXPECT(get_local_time_str(784111777, text) == text);
  EXPECT(strlen(text) == 25);
  EXPECT(parse_http_time(http) == 784111777);
  EXPECT(parse_unix_time(command) == 741476948);
  return failures == 0 ? 0 : 1;
}
