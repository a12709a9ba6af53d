// Functions and source lines, as the programs addr2line and c++filt of the distribution find them.
// They are run without a shell, with a limit on their time and on what they write; what they say on
// standard error is dropped.
#ifndef VELORIN_AD_CRASH_symbolizer_
#define VELORIN_AD_CRASH_symbolizer_

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

// A place in the source. What is not known is empty.
struct Place {
  std::string function;  // as the linker knows it
  std::string line;      // "FILE:LINE"
};
using Places = std::vector<Place>;  // the innermost inlined function first, the real one last

// The places of each of the addresses, as the file counts them; follows .gnu_debuglink and build
// ids to separate debug files as addr2line does. `file` is absolute. Fails: empty, with the reason
// in `*why`.
std::optional<std::vector<Places>> find_places(const std::string& file,
                                               const std::vector<uint64_t>& addresses,
                                               std::string* why);

// The C++ names of the linker's, in the same order. Fails: empty, with the reason in `*why`.
std::optional<std::vector<std::string>> demangle(const std::vector<std::string>& names,
                                                 std::string* why);

#endif  // VELORIN_AD_CRASH_symbolizer_
