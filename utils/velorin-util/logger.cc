// Log lines for class-based code. See velorin/Logger.
#include "velorin/Logger"

namespace {

constexpr int kDieExit = 1;

}  // namespace

void Logger::print(const std::string& message) {
  AD_TRCE("%s", message.c_str());
}

void Logger::info(const std::string& message) {
  AD_TRCE("%s", message.c_str());
}

void Logger::die(int code, const std::string& message) {
  AD_FATAL(kDieExit, static_cast<uint32_t>(code), "%s", message.c_str());
}
