// Files that hold one value: any bytes are read as the standard library's file stream reads them.
#include <ctype.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "fuzz.h"
#include "velorin/FileUtilities"
#include "velorin/ad_debug"

namespace {

// A file in memory whose contents can be changed.
class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("value", MFD_CLOEXEC)) { REQUIRE(fd_ >= 0); }
  std::string name() const { return "/proc/self/fd/" + std::to_string(fd_); }
  void set(const uint8_t* data, size_t size) {
    REQUIRE(ftruncate(fd_, 0) == 0);
    REQUIRE(pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size));
  }

 private:
  const int fd_;
};

// Serves a connection that the log's filter drops: only what is read counts here.
bool silenceTheLog() {
  setenv("DEBUG_CLIENT_IP", "10.0.0.1", 1);
  ad_read_debug_cfg_direct_read_from_env();
  ad_current_client_ip = ~ad_debug_cfg_p->debug_target_client_ip;
  return !ad_debug_wanted(0);
}

struct Reading {
  std::string word;
  long number;
};

Reading byStream(const std::string& name, const std::string& word, long number) {
  Reading reading = {word, number};
  std::ifstream(name) >> reading.word;
  std::ifstream stream(name);
  long value;
  if (stream >> value) reading.number = value;
  int c;
  while ((c = stream.get()) != EOF && isspace(c)) continue;
  if (c != EOF) reading.number = number;
  return reading;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile file;
  static const std::string name = file.name();
  static const bool silent = silenceTheLog();
  REQUIRE(silent);
  file.set(data, size);
  for (const long def : {0L, 1L, -7L}) {
    const Reading expected = byStream(name, "default", def);
    REQUIRE(readStringFromFile(name, "default") == expected.word);
    REQUIRE(readIntegerFromFile(name, def) == expected.number);
  }
  for (const bool def : {false, true}) {
    const long number = byStream(name, "", def).number;
    REQUIRE(readBoolFromFile(name, def) == (number == 0 || number == 1 ? number == 1 : def));
  }
  return 0;
}
