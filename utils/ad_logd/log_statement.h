// The parts of a log statement's line: NAME(PID)TAG:FILE:LINE-> TEXT.
#ifndef VELORIN_AD_LOGD_log_statement_
#define VELORIN_AD_LOGD_log_statement_

#include <string_view>

// A line taken apart; the parts point into it. What it does not have is empty: the special log's
// lines have no process, a packet dump's bytes no file and line, a text that no statement wrote is
// nothing but text.
struct LogStatement {
  std::string_view process;
  std::string_view pid;  // a decimal number as JSON has it
  std::string_view tag;  // ERRO, CRTC, TRCE or DETL
  std::string_view file;
  std::string_view line;  // as pid
  std::string_view text;
};

LogStatement parseStatement(std::string_view line);

#endif  // VELORIN_AD_LOGD_log_statement_
