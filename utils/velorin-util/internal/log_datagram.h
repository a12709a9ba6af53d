// The datagram that carries one text to a local log daemon, and the sender's state.
#ifndef VELORIN_INTERNAL_log_datagram_
#define VELORIN_INTERNAL_log_datagram_

#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "internal/log_format.h"
#include "internal/write_all.h"

namespace velorin::internal {

// The time behind a datagram's text: the same 8 bytes from both widths.
struct timeval32 {
  uint32_t sec;
  uint32_t usec;
};
static_assert(sizeof(timeval32) == 8, "daemons read the last 8 bytes of a datagram");

constexpr size_t kDatagramRoom = 4096;
constexpr size_t kDatagramTrailer = 1 + sizeof(timeval32);  // the zero byte and the time
// Kept: one byte less than would fit, and a longer text is cut without a word; daemons and tools
// rely on it.
constexpr size_t kTextMax = 4086;
static_assert(kTextMax + kDatagramTrailer <= kDatagramRoom, "the trailer fits behind any text");

// Restores errno when it goes out of scope.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : errno_(errno) {}
  ~ErrnoKeeper() { errno = errno_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int errno_;
};

constexpr int kNotMade = -1;  // the sender's socket
constexpr int kGivenUp = -2;  // it could not be made

// One sender: its socket is made on first use and serves all destinations. Constant-initialised, so
// that it works before constructors run; all threads and signal handlers share it without a lock.
struct LogSender {
  const char* no_socket_warning;  // printed once, when no socket can be made
  // What becomes of a text that could not be sent, errno telling why; `first`: the send before
  // worked, or there was none. Only deliver calls it.
  void (*on_failure)(bool first, const char* text, size_t len) = nullptr;
  int fd = kNotMade;      // released by the thread that made it, acquired by those that send
  int logd_enabled = -1;  // -1: nothing sent yet; 1: the last send worked; 0: it did not
};

inline void write_stderr(const char* text, size_t len) {
  write_all(STDERR_FILENO, text, len);
}

// Writes `text` and, when `end_line`, a newline to standard error: in one write, so that lines of
// many processes on one pipe do not tear.
inline void write_stderr_line(const char* text, size_t len, bool end_line) {
  char newline = '\n';
  const iovec parts[] = {{const_cast<char*>(text), len}, {&newline, end_line ? size_t{1} : 0}};
  ssize_t written;
  do {
    written = writev(STDERR_FILENO, parts, 2);
  } while (written < 0 && errno == EINTR);
  if (written < 0) return;
  const size_t done = static_cast<size_t>(written);
  if (done < len) write_stderr(text + done, len - done);
  if (done <= len) write_stderr(&newline, parts[1].iov_len);
}

// Makes the sender's socket if need be. Returns: whether there is one.
inline bool open_sender(LogSender* sender) {
  const int fd = __atomic_load_n(&sender->fd, __ATOMIC_ACQUIRE);
  if (fd >= 0) return true;
  if (fd == kGivenUp) return false;
  const ErrnoKeeper keeper;
  int expected = kNotMade;
  const int made = socket(AF_UNIX, SOCK_DGRAM, 0);
  // Kept: a socket that cannot be made is never tried again, so that the process's output is lost.
  const int next = made >= 0 ? made : kGivenUp;
  if (!__atomic_compare_exchange_n(&sender->fd, &expected, next, /*weak=*/false, __ATOMIC_RELEASE,
                                   __ATOMIC_ACQUIRE)) {
    // Another thread, or a signal handler, was first: its outcome counts.
    // LCOV_EXCL_START: no test can bring two threads here at once
    if (made >= 0) (void)close(made);
    return expected >= 0;
  }
  // LCOV_EXCL_STOP
  if (made >= 0) return true;
  write_stderr(sender->no_socket_warning, strlen(sender->no_socket_warning));
  return false;
}

// Formats into `text`, at most kTextMax bytes and a zero.
// Room: kDatagramRoom bytes.
// Returns: the text's length; 0 when it is empty or refused by vsnprintf.
inline size_t format_text(char* text, const char* fmt, va_list ap)
    __attribute__((format(printf, 2, 0)));

inline size_t format_text(char* text, const char* fmt, va_list ap) {
  va_list plain;
  va_copy(plain, ap);
  const int written = format_line(text, kTextMax + 1, fmt, ap, &plain);
  va_end(plain);
  if (written < 1) return 0;
  const size_t len = static_cast<size_t>(written);
  return len < kTextMax ? len : kTextMax;
}

// Puts the trailer behind the `len` bytes at `text` and sends both as one datagram, without
// blocking. Room: `len` + kDatagramTrailer bytes. Returns: whether it was sent; else errno says
// why.
inline bool send_text(LogSender* sender, const sockaddr_un& to, char* text, size_t len) {
  if (to.sun_path[0] == '\0') {
    errno = ENOENT;  // switched off; to the kernel it would be an abstract address, open to anybody
    return false;
  }
  timeval now;
  (void)gettimeofday(&now, nullptr);
  const timeval32 stamp = {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec)};
  text[len] = '\0';
  memcpy(text + len + 1, &stamp, sizeof stamp);

  const int fd = __atomic_load_n(&sender->fd, __ATOMIC_ACQUIRE);
  ssize_t sent;
  do {
    sent = sendto(fd, text, len + kDatagramTrailer, MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

// Sends the `len` bytes at `text`, or leaves them to the sender's on_failure. Room: as send_text.
inline void deliver(LogSender* sender, const sockaddr_un& to, char* text, size_t len) {
  if (send_text(sender, to, text, len)) {
    if (__atomic_load_n(&sender->logd_enabled, __ATOMIC_RELAXED) != 1)
      __atomic_store_n(&sender->logd_enabled, 1, __ATOMIC_RELAXED);
    return;
  }
  const bool first = __atomic_exchange_n(&sender->logd_enabled, 0, __ATOMIC_RELAXED) != 0;
  sender->on_failure(first, text, len);
}

}  // namespace velorin::internal

#endif  // VELORIN_INTERNAL_log_datagram_
