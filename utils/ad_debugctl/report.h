// What doctor prints.
#ifndef VELORIN_AD_DEBUGCTL_report_
#define VELORIN_AD_DEBUGCTL_report_

#include <string>

// Something that is not as it should be, and what heals it: a command for the shell, or words.
struct Finding {
  std::string what;
  std::string fix;
};

// Prints one line for a check, and behind a finding one more with its fix.
class Report {
 public:
  void ok(const char* check, const std::string& what);
  // Lines will be missing under circumstances, or a core will.
  void warn(const char* check, const Finding& finding);
  // Lines or traces are missing, or a setting has no effect.
  void wrong(const char* check, const Finding& finding);

  bool anything_wrong() const { return wrong_; }

 private:
  void print(const char* status, const char* check, const std::string& what);
  void print_fix(const std::string& fix);

  bool wrong_ = false;
};

// The word as the shell reads it back, whatever is in it.
std::string shell_word(const std::string& word);

#endif  // VELORIN_AD_DEBUGCTL_report_
