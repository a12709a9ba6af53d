// A file descriptor with one owner.
#ifndef TCP_PROXY_fd_
#define TCP_PROXY_fd_

#include <errno.h>
#include <unistd.h>

#include <system_error>

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

// The descriptor that a system call has just returned. Throws std::system_error, with the name of
// the call, when it failed.
inline Fd opened(int fd, const char* call) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), call);
  return Fd(fd);
}

// The same for a call that opens nothing.
inline void succeeded(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
}

#endif  // TCP_PROXY_fd_
