// Installs the crash handler and crashes; the handler's lines go to standard output.
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "velorin/sig_handler"

namespace {

__attribute__((format(printf, 1, 2))) int print(const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof text - 1, format, arguments);
  va_end(arguments);
  text[length] = '\x1e';  // ends each call's text
  return static_cast<int>(write(STDOUT_FILENO, text, static_cast<size_t>(length) + 1));
}

}  // namespace

int main() {
  if (sig_init(print) != 1) return 1;
  asm volatile("movb $0, (%0)" : : "r"(nullptr) : "memory");
  return 2;
}
