// Lines on standard output. See printer.h.
#include "printer.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "common/command.h"
#include "options.h"

namespace {

constexpr size_t kEnough = 64 * 1024;  // to be written at once

constexpr std::string_view kTimeColour = "\33[2m";
constexpr std::string_view kMarksColour = "\33[35m";
constexpr std::string_view kProcessColour = "\33[36m";
constexpr std::string_view kTagColours[] = {"\33[31m", "\33[1;31m", "\33[32m", "\33[34m",
                                            ""};  // by Tag
constexpr std::string_view kNoColour = "\33[m";

void waitUntilWritable() {
  pollfd output = {STDOUT_FILENO, POLLOUT, 0};
  (void)poll(&output, 1, -1);
}

}  // namespace

void Printer::begin(const LogEntry& entry) {
  coloured(entry.time, kTimeColour);
  coloured(entry.marks, kMarksColour);
  if (!entry.time.empty()) waiting_ += ' ';
  coloured(entry.text.substr(0, entry.process.size() + entry.pid_text.size()), kProcessColour);
  coloured(entry.tag_text, kTagColours[static_cast<int>(entry.tag)]);
  more(entry.rest);
}

void Printer::more(std::string_view text) {
  appendEscaped(&waiting_, text, charset_);
  if (waiting_.size() >= kEnough) flush();
}

void Printer::end() {
  waiting_ += '\n';
}

void Printer::coloured(std::string_view text, std::string_view colour) {
  const bool shown = colour_ && !text.empty() && !colour.empty();
  if (shown) waiting_ += colour;
  appendEscaped(&waiting_, text, charset_);
  if (shown) waiting_ += kNoColour;
}

void Printer::flush() {
  size_t written = 0;
  while (written < waiting_.size()) {
    const ssize_t count =
        write(STDOUT_FILENO, waiting_.data() + written, waiting_.size() - written);
    if (count >= 0) {
      written += static_cast<size_t>(count);
    } else if (errno == EPIPE) {
      exit(kShown);
    } else if (errno == EAGAIN) {
      waitUntilWritable();
    } else if (errno != EINTR) {
      fail(kTrouble, std::string("standard output: ") + strerror(errno));
    }
  }
  waiting_.clear();
}
