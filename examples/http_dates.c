/* HTTP dates: what a cache does with Last-Modified and If-Modified-Since. */
#include <stdio.h>
#include <velorin/time_str>

int main(void) {
  const time_t modified = 784111777;
  char asked_for[] = "Sunday, 06-Nov-94 08:49:37 GMT";
  char started[] = "Wed Jun 30 21:49:08 PDT 1993";
  char text[30];

  printf("Last-Modified: %s\n", get_gmt_time_str(modified, text));
  const time_t since = parse_http_time(asked_for);
  if (since == -1)
    puts("200, the condition is no date");
  else
    puts(modified <= since ? "304 Not Modified" : "200, sent again");
  printf("in %s 1993, a %s\n", month_names[5], wkdays[3]);
  printf("started at %ld\n", (long)parse_unix_time(started));
  return 0;
}
