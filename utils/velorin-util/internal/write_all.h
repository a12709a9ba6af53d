// Writing a whole text to a descriptor.
#ifndef VELORIN_INTERNAL_write_all_
#define VELORIN_INTERNAL_write_all_

#include <errno.h>
#include <stddef.h>
#include <unistd.h>

namespace velorin::internal {

// Writes all of `len` bytes: in one write, unless that is cut short. What a non-blocking descriptor
// has no room for is lost.
inline void write_all(int fd, const char* text, size_t len) {
  while (len > 0) {
    const ssize_t written = write(fd, text, len);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    len -= static_cast<size_t>(written);
  }
}

}  // namespace velorin::internal

#endif  // VELORIN_INTERNAL_write_all_
