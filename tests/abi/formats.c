/* One log statement, whose argument check_formats chooses. Also compiled as C++. */
#include "velorin/ad_debug"

void statement(void);
void statement(void) {
  STATEMENT("%d\n", ARGUMENT);
}
