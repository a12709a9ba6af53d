// Small chores with files. See velorin/FileUtilities.
#include "velorin/FileUtilities"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <unistd.h>
#include <utime.h>

#include <istream>
#include <optional>
#include <streambuf>

#include "FileUtilities_divide.h"
#include "velorin/Exception"
#include "velorin/Logger"
#include "velorin/String"
#include "velorin/SystemError"
#include "velorin/ad_debug"

namespace {

constexpr int kTouchFailed = -1;  // identifier of the exceptions
constexpr mode_t kAnyExecute = 0111;

bool isOfType(const std::string& name, mode_t type) {
  struct stat status;
  return stat(name.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == type;
}

// ---- File systems ----

// What statfs says, in the 32 bits that callers count in.
struct Room {
  uint32_t blocks;
  uint32_t available;
  uint32_t block_size;
};

bool fits(uint64_t number) {
  return number <= UINT32_MAX;
}

// Sizes are signed words of the target's width.
unsigned long asUnsigned(long size) {
  return static_cast<unsigned long>(size);
}

// A number of files may be unknown: all bits set.
bool fitsOrUnknown(uint64_t number) {
  return fits(number) || number == UINT64_MAX;
}

// Returns: nothing, errno telling why, when statfs fails or would fail with 32-bit counts.
std::optional<Room> roomOn(const std::string& path) {
  struct statfs statBuf;
  if (statfs(path.c_str(), &statBuf) != 0) return std::nullopt;
  if (!fits(statBuf.f_blocks) || !fits(statBuf.f_bfree) || !fits(statBuf.f_bavail) ||
      !fits(asUnsigned(statBuf.f_bsize)) || !fits(asUnsigned(statBuf.f_frsize)) ||
      !fitsOrUnknown(statBuf.f_files) || !fitsOrUnknown(statBuf.f_ffree)) {
    errno = EOVERFLOW;
    return std::nullopt;
  }
  // Kept: reported, no more.
  if (statBuf.f_blocks == 0) AD_CRTC("Assertion (%s) failed", "statBuf.f_blocks != 0");
  return Room{static_cast<uint32_t>(statBuf.f_blocks), static_cast<uint32_t>(statBuf.f_bavail),
              static_cast<uint32_t>(statBuf.f_bsize)};
}

// ---- Files that hold one value ----

// The characters of a file for an input stream. A std::filebuf would do, but takes memory from the
// heap and longer to open than the system does.
class FileBuffer : public std::streambuf {
 public:
  explicit FileBuffer(const std::string& name) : fd_(open(name.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~FileBuffer() override {
    if (fd_ >= 0) (void)close(fd_);
  }
  FileBuffer(const FileBuffer&) = delete;
  FileBuffer& operator=(const FileBuffer&) = delete;

  bool isOpen() const { return fd_ >= 0; }

 private:
  int_type underflow() override {
    ssize_t count;
    do {
      count = read(fd_, buffer_, sizeof buffer_);
    } while (count < 0 && errno == EINTR);
    // The stream catches it and turns bad; a file that ends here would be taken as whole.
    if (count < 0) throw std::ios_base::failure("read");
    if (count == 0) return traits_type::eof();
    setg(buffer_, buffer_, buffer_ + count);
    return traits_type::to_int_type(*gptr());
  }

  const int fd_;
  char buffer_[512];
};

// Says why a file could not be opened; errno tells.
void reportOpen(const std::string& name) {
  if (errno == ENOENT)
    AD_TRCE("No file %s", name.c_str());
  else
    Logger::warn("Could not open file " + name + ": " + SystemError());
}

}  // namespace

void sleepMs(int ms) {
  // Kept: the product wraps, so long times become others.
  (void)usleep(static_cast<uint32_t>(ms) * 1000);
}

double cvGetTime() {
  timeval now;
  (void)gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) * 1e-6;
}

time_t lastModificationTime(const std::string& name) {
  struct stat status;
  return stat(name.c_str(), &status) == 0 ? status.st_mtime : -1;
}

// Kept: somebody may execute it, not necessarily this process.
bool isExecutableFile(const std::string& name) {
  struct stat status;
  return stat(name.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         (status.st_mode & kAnyExecute) != 0;
}

bool isSymbolicLink(const std::string& name) {
  struct stat status;
  return lstat(name.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool isRegularFile(const std::string& name) {
  return isOfType(name, S_IFREG);
}

bool isDirectory(const std::string& name) {
  return isOfType(name, S_IFDIR);
}

int cvGetDiskFreeSpaceInKB(std::string& deviceName, unsigned int& sizeKB) {
  const std::optional<Room> room = roomOn(deviceName);
  if (!room) return -1;
  // Kept: divided first, which loses what is below 1024 blocks.
  sizeKB = (room->available >> 10) * room->block_size;
  return 0;
}

int cvGetDiskFreeSpace(std::string& deviceName, unsigned int& sizeH, unsigned int& sizeL,
                       int& percent) {
  const std::optional<Room> room = roomOn(deviceName);
  if (!room) return -1;
  // Kept: in 32 bits, and without a look at the divisor.
  percent = static_cast<int>(divide(room->available * 100, room->blocks));
  // Kept: the words of the product are summed up without a carry between them. The size is unsigned
  // here, so that a highest bit that is set comes to an end too.
  sizeH = 0;
  sizeL = 0;
  uint64_t part = room->available;
  for (uint32_t size = room->block_size; size != 0; size >>= 1) {
    if ((size & 1) != 0) {
      sizeH += static_cast<uint32_t>(part >> 32);
      sizeL += static_cast<uint32_t>(part);
    }
    part <<= 1;
  }
  return 0;
}

std::string directoryOf(const std::string& n) {
  const size_t slash = n.rfind('/');
  return slash != std::string::npos ? n.substr(0, slash + 1) : "./";
}

std::string baseName(const std::string& n) {
  return n.substr(n.rfind('/') + 1);  // npos + 1 is the beginning
}

std::string appendSlash(const std::string& s) {
  return s.empty() || s.back() == '/' ? s : s + '/';
}

void touchFile(const std::string& name) {
  if (utime(name.c_str(), nullptr) == 0) return;
  if (errno != ENOENT) throw Exception(kTouchFailed, "Cannot touch " + name + ": " + SystemError());
  const int fd = open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) throw Exception(kTouchFailed, "Cannot create " + name + ": " + SystemError());
  (void)close(fd);
}

std::string readStringFromFile(const std::string& name, std::string def) {
  FileBuffer file(name);
  if (!file.isOpen()) {
    reportOpen(name);
    return def;
  }
  std::istream stream(&file);
  stream >> def;  // stays as it is when there is no word
  return def;
}

long readIntegerFromFile(const std::string& name, long def) {
  FileBuffer file(name);
  if (!file.isOpen()) {
    reportOpen(name);
    return def;
  }
  std::istream stream(&file);
  long value;
  if (!(stream >> value)) value = def;
  // Kept: a stream that gave no number gives no character either, so that only a trace line tells.
  int c;
  do {
    c = stream.get();
  } while (c != EOF && isspace(c));
  if (c != EOF) {
    Logger::warn("Expected end of file in " + name + ", got `" + Str(static_cast<char>(c)) + "'");
    return def;
  }
  AD_TRCE("Read the value %ld from the file %s", value, name.c_str());
  return value;
}

bool readBoolFromFile(const std::string& name, bool def) {
  const long number = readIntegerFromFile(name, def ? 1 : 0);
  if (number == 0 || number == 1) return number == 1;
  Logger::warn("Expected to find a 1 or 0 in " + name + ", got " + Str(number));
  return def;
}
