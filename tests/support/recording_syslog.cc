// The tests' end of the recording syslog client. See recording_syslog.h.
#include "support/recording_syslog.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <stdexcept>

RecordingSyslog::RecordingSyslog(const std::string& file) : file_(file) {
  clear();
  // An earlier umask must not keep another user's process from recording.
  if (chmod(file_.c_str(), 0666) != 0) throw std::runtime_error("chmod " + file_);
}

void RecordingSyslog::initReturns(int result) {
  init_result_ = result;
}

void RecordingSyslog::isDebugEnabledReturns(int result) {
  debug_result_ = result;
}

void RecordingSyslog::recordHere() const {
  for (const std::string& text : settings()) {
    const size_t equals = text.find('=');
    setenv(text.substr(0, equals).c_str(), text.substr(equals + 1).c_str(), 1);
  }
}

std::vector<std::string> RecordingSyslog::environment() const {
  std::vector<std::string> texts = settings();
  texts.push_back("LD_PRELOAD=" VELORIN_BUILD "/lib/librecording_syslog.so");
  return texts;
}

std::vector<std::string> RecordingSyslog::calls() const {
  std::ifstream file(file_, std::ios::binary);
  if (!file) throw std::runtime_error("read " + file_);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

void RecordingSyslog::clear() {
  if (!std::ofstream(file_, std::ios::trunc)) throw std::runtime_error("write " + file_);
}

std::vector<std::string> RecordingSyslog::settings() const {
  return {"RECORDING_SYSLOG_FILE=" + file_,
          "RECORDING_SYSLOG_INIT_RESULT=" + std::to_string(init_result_),
          "RECORDING_SYSLOG_DEBUG_RESULT=" + std::to_string(debug_result_)};
}
