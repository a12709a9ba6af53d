// The text of the system's last error. See velorin/SystemError.
#include "velorin/SystemError"

#include <errno.h>
#include <string.h>

std::string SystemError() {
  const int err = errno;
  std::string text = strerror(err);
  errno = err;
  return text;
}
