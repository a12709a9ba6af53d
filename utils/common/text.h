// Text as people see it.
#ifndef VELORIN_COMMON_text_
#define VELORIN_COMMON_text_

#include <stdint.h>
#include <time.h>

#include <string>
#include <string_view>

// Printable ASCII as it is, a backslash as "\\", any other byte as "\n", "\t" or "\xHH": what
// somebody planted in a name or in a trace does nothing to a terminal, and no two texts look alike.
std::string visible(std::string_view bytes);

// The same; newlines stay and end lines, and an unfinished last line is ended.
std::string visible_lines(std::string_view bytes);

// What stands behind the last "/".
std::string_view base_name(std::string_view path);

std::string hex_number(uint64_t value);         // "0x1f"
std::string hex_bytes(std::string_view bytes);  // "001f"

// "2024-11-20 20:13:29", in local time.
std::string time_text(time_t time);

#endif  // VELORIN_COMMON_text_
