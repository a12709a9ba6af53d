// Files that somebody else chose: only regular ones are opened, and only a bounded part is read.
#ifndef VELORIN_COMMON_file_
#define VELORIN_COMMON_file_

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>

// Owns a descriptor.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Fd& operator=(Fd&& other) noexcept;
  ~Fd();

  int get() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }

 private:
  int fd_;
};

enum class Links { kFollow, kRefuse };  // symbolic links as the path's last component

// Opens a regular file for reading; FIFOs, devices and folders are looked at but never opened, so
// that this neither blocks nor acts on a device. `dir_fd` is as openat takes it.
// Fails: not open, with the reason in `*why`.
Fd open_regular(int dir_fd, const std::string& path, Links links, std::string* why);

uint64_t size_of(int fd);

// Reads `len` bytes at `offset`, all or nothing.
bool read_at(int fd, uint64_t offset, void* to, size_t len);

// Reads up to `max` bytes from where the descriptor stands, errno on failure.
std::optional<std::string> read_up_to(int fd, size_t max);

#endif  // VELORIN_COMMON_file_
