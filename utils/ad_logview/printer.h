// Lines on standard output: escaped, coloured, many in one write.
#ifndef VELORIN_AD_LOGVIEW_printer_
#define VELORIN_AD_LOGVIEW_printer_

#include <string>
#include <string_view>

#include "escape.h"
#include "log_entry.h"

// Ends the process when standard output cannot be written: quietly, with status 0, when nobody
// reads it any more.
class Printer {
 public:
  Printer(bool colour, Charset charset) : colour_(colour), charset_(charset) {}

  // A line is its beginning, more of its text any number of times, and its end.
  void begin(const LogEntry& entry);
  void more(std::string_view text);
  void end();

  // Writes what waits to be written.
  void flush();

  bool colour() const { return colour_; }

 private:
  void coloured(std::string_view text, std::string_view colour);

  const bool colour_;
  const Charset charset_;
  std::string waiting_;
};

#endif  // VELORIN_AD_LOGVIEW_printer_
