// vsnprintf for log lines.
#ifndef VELORIN_INTERNAL_log_format_
#define VELORIN_INTERNAL_log_format_

#include <limits.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <charconv>

namespace velorin::internal {

constexpr int kNotPlain = -2;

// A bounded text that counts what it had no room for, as vsnprintf does.
class LineText {
 public:
  LineText(char* to, size_t room) : at_(to), left_(room - 1) {}

  void add(const char* text, size_t len) {
    wanted_ = len < SIZE_MAX - wanted_ ? wanted_ + len : SIZE_MAX;
    const size_t fitting = len < left_ ? len : left_;
    memcpy(at_, text, fitting);
    at_ += fitting;
    left_ -= fitting;
  }

  void add_byte(char byte) {
    ++wanted_;
    if (left_ == 0) return;
    *at_++ = byte;
    --left_;
  }

  // Short texts byte by byte, as they are mostly not worth two calls.
  void add_string(const char* text) {
    constexpr int kShort = 32;
    for (int i = 0; i < kShort; ++i) {
      if (*text == '\0') return;
      add_byte(*text++);
    }
    add(text, strlen(text));
  }

  template <typename Integer>
  void add_number(Integer number, int radix) {
    char digits[21];  // a 64-bit number in decimal, with its sign
    const char* const end = std::to_chars(digits, digits + sizeof digits, number, radix).ptr;
    for (const char* digit = digits; digit != end; ++digit) add_byte(*digit);
  }

  // Ends the text. Returns: vsnprintf's result.
  int finish() {
    *at_ = '\0';
    return wanted_ <= INT_MAX ? static_cast<int>(wanted_) : -1;
  }

 private:
  char* at_;
  size_t left_;
  size_t wanted_ = 0;
};

// The integer conversions, `length` being the size modifier: 0, 'l', 'z' or 'L' for "ll".
// Returns: false for any other conversion.
inline bool add_integer(LineText* text, char conversion, char length, va_list* ap) {
  if (conversion == 'd' || conversion == 'i') {
    if (length == 0) text->add_number(va_arg(*ap, int), 10);
    if (length == 'l') text->add_number(va_arg(*ap, long), 10);
    if (length == 'z') text->add_number(va_arg(*ap, ssize_t), 10);
    if (length == 'L') text->add_number(va_arg(*ap, long long), 10);
    return true;
  }
  if (conversion == 'u' || conversion == 'x') {
    const int radix = conversion == 'u' ? 10 : 16;
    if (length == 0) text->add_number(va_arg(*ap, unsigned), radix);
    if (length == 'l') text->add_number(va_arg(*ap, unsigned long), radix);
    if (length == 'z') text->add_number(va_arg(*ap, size_t), radix);
    if (length == 'L') text->add_number(va_arg(*ap, unsigned long long), radix);
    return true;
  }
  return false;
}

// %s, %c, %% and the integer conversions, without flags, widths and precisions.
inline int format_plain(char* to, size_t room, const char* fmt, va_list* ap) {
  LineText text(to, room);
  for (;;) {
    // Byte by byte: what stands between two conversions is mostly shorter than a call is worth.
    while (*fmt != '%') {
      if (*fmt == '\0') return text.finish();
      text.add_byte(*fmt++);
    }
    ++fmt;
    char length = 0;
    if (*fmt == 'z') {
      length = *fmt++;
    } else if (*fmt == 'l') {
      length = *fmt++;
      if (*fmt == 'l') {
        length = 'L';
        ++fmt;
      }
    }
    const char conversion = *fmt++;
    if (add_integer(&text, conversion, length, ap)) continue;
    if (length != 0) return kNotPlain;
    if (conversion == 's') {
      const char* const string = va_arg(*ap, const char*);
      if (string == nullptr) return kNotPlain;
      text.add_string(string);
    } else if (conversion == 'c') {
      text.add_byte(static_cast<char>(va_arg(*ap, int)));
    } else if (conversion == '%') {
      text.add_byte('%');
    } else {
      return kNotPlain;
    }
  }
}

// Formats as vsnprintf does, with the same text and result for every format; `room` is at least 1.
// Formats whose conversions are all plain take one pass here, as stdio's machinery costs more than
// the rest of a log line; any other goes to vsnprintf as a whole. `plain` is a copy of `ap` that
// the caller makes and ends: a function that ends one itself is never inlined. Threads: any.
// Signals: safe as far as vsnprintf is.
inline int format_line(char* to, size_t room, const char* fmt, va_list ap, va_list* plain)
    __attribute__((format(printf, 3, 0)));

inline int format_line(char* to, size_t room, const char* fmt, va_list ap, va_list* plain) {
  const int written = format_plain(to, room, fmt, plain);
  return written != kNotPlain ? written : vsnprintf(to, room, fmt, ap);
}

}  // namespace velorin::internal

#endif  // VELORIN_INTERNAL_log_format_
