// A file descriptor with one owner.
#ifndef TCP_PROXY_fd_
#define TCP_PROXY_fd_

#include <unistd.h>

#include <string>

#include "velorin/Exception"
#include "velorin/SystemError"

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    reset(other.release());
    return *this;
  }

  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }

  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  void reset(int fd = -1) {
    if (fd_ >= 0) (void)close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Throws an Exception for the system call that has just failed.
[[noreturn]] inline void throwFailed(const char* call) {
  const std::string reason = SystemError();
  throw Exception(std::string(call) + ": " + reason);
}

// The descriptor that a system call has just returned; throws when it failed.
inline Fd opened(int fd, const char* call) {
  if (fd < 0) throwFailed(call);
  return Fd(fd);
}

// The same for a call that opens nothing.
inline void succeeded(int result, const char* call) {
  if (result < 0) throwFailed(call);
}

#endif  // TCP_PROXY_fd_
