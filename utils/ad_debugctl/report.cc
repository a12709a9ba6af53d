// What doctor prints. See report.h.
#include "report.h"

#include <stdio.h>

#include <algorithm>

void Report::ok(const char* check, const std::string& what) {
  print("ok", check, what);
}

void Report::warn(const char* check, const Finding& finding) {
  print("warn", check, finding.what);
  print_fix(finding.fix);
}

void Report::wrong(const char* check, const Finding& finding) {
  wrong_ = true;
  print("wrong", check, finding.what);
  print_fix(finding.fix);
}

void Report::print(const char* status, const char* check, const std::string& what) {
  (void)printf("%-5s  %s: %s\n", status, check, what.c_str());
}

void Report::print_fix(const std::string& fix) {
  (void)printf("       fix: %s\n", fix.c_str());
}

std::string shell_word(const std::string& word) {
  constexpr char kPlain[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./:,+-=@%";
  // LCOV_EXCL_BR_NEXT: no path is empty
  if (!word.empty() && word.find_first_not_of(kPlain) == std::string::npos) return word;
  // Control characters need the quotation marks of bash; the others are every shell's.
  const bool printable =
      std::all_of(word.begin(), word.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
  std::string quoted = printable ? "'" : "$'";
  for (const char c : word) {
    char escape[sizeof "\\377"];
    (void)snprintf(escape, sizeof escape, "\\%03o", static_cast<unsigned char>(c));
    if (printable) {
      quoted += c == '\'' ? "'\\''" : std::string(1, c);
    } else {
      quoted += escape;
    }
  }
  return quoted + "'";
}
