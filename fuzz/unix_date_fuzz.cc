// The date command's dates: any text, however short, is read as its description has it, field by
// field and by the system's calendar, as if zero bytes followed.
#include "dates.h"
#include "velorin/time_str"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string text = bytes.c_str();  // up to the first zero byte
  const dates::Exact exact(text);
  const time_t t = parse_unix_time(exact.get());

  std::string rest = text;
  rest.erase(0, rest.find_first_not_of(' '));
  rest.resize(rest.size() + 28, '\0');
  REQUIRE(t == dates::time(rest, 8, 4, dates::yearOfFour(rest, 24), 11, 0));
  REQUIRE(exact.get() == text);
  REQUIRE(t >= 0 && t <= dates::kLast);
  return 0;
}
