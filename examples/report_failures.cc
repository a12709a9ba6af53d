// Throws, catches and reports failures, and tells the operator; see docs/diagnostics.md.
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <velorin/Exception>
#include <velorin/Logger>
#include <velorin/SystemError>
#include <velorin/ad_debug>
#include <velorin/programName>
#include <zam/Logger>

namespace {

constexpr int kNoConfiguration = 21;

void readConfiguration(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Exception(kNoConfiguration, path + ": " + SystemError());
  close(fd);
}

}  // namespace

int main(int, char** argv) {
  setProgramName(argv[0]);
  ad_debug_set_process_name(getProgramName());
  if (ad_init_debug_lib(nullptr) != 0 && ad_init_debug_lib("/tmp/ad_errorlog") != 0) return 1;

  Logger::print("reading the configuration\n");
  try {
    readConfiguration("/nonexistent/conf");
  } catch (const Exception& e) {
    e.caught(__FILE_NAME__, __LINE__);
  }
  try {
    throw "neither an Exception nor anything else we know";
  } catch (...) {
    Exception_caught(__FILE_NAME__, __LINE__);
  }
  Logger::warn("going on with the defaults\n");
  zam::Logger::print(4711, "running with the defaults");
  return 0;
}
