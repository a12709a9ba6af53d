// HTTP dates: any text is read as its description has it, field by field and by the system's
// calendar; and what is read, written again, is read as the same.
#include <algorithm>

#include "dates.h"
#include "velorin/time_str"

namespace {

time_t described(const std::string& text) {
  const size_t comma = text.find(',');
  if (comma == std::string::npos) {
    const std::string rest = text.substr(std::min(text.size(), text.find_first_not_of(' ')));
    if (rest.size() < 24) return -1;
    return dates::time(rest, 8, 4, dates::yearOfFour(rest, 20), 11, -1);
  }
  std::string rest = text.substr(comma + 1);
  rest.erase(0, rest.find_first_not_of(' '));
  const bool dashed = rest.find('-') != std::string::npos;
  if (rest.size() < 18) return -1;
  if (dashed && rest[9] == ' ') {
    const int year = dates::number(rest, 7);
    return dates::time(rest, 0, 3, year <= 69 ? year + 2000 : year + 1900, 10, -1);
  }
  if (rest.size() < 20) return -1;
  return dates::time(rest, 0, 3, dates::yearOfFour(rest, 7), 12, -1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string text = bytes.c_str();  // up to the first zero byte
  const dates::Exact exact(text);
  const time_t t = parse_http_time(exact.get());
  REQUIRE(t == described(text));
  REQUIRE(exact.get() == text);
  REQUIRE(t >= -1 && t <= dates::kLast);
  if (t == -1) return 0;

  char again[30];
  REQUIRE(parse_http_time(get_gmt_time_str(t, again)) == t);
  return 0;
}
