// A crash trace, line by line. Only lines exactly as the crash handler and glibc write them are
// understood; the rest is counted.
#ifndef VELORIN_AD_CRASH_trace_
#define VELORIN_AD_CRASH_trace_

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// "Process 12 stack(sp=0x1, bp=0x2, ip=0x3)"
struct ProcessLine {
  int32_t pid;
  uint64_t sp;
  uint64_t bp;
  uint64_t ip;
};

// "SIGNAL 11 (Segmentation fault)"
struct SignalLine {
  int32_t number;
  std::string text;
};

// "01: 0x8048123(0x1, 0x2, 0x3, (nil), ....", with a null pointer as "(nil)". Number 0 has a null
// address; each later one the return address that was found in the frame before it.
struct FrameLine {
  int32_t number;
  uint64_t address;
  std::array<uint64_t, 4> arguments;
};

// As backtrace_symbols_fd writes it:
//   PATH(SYMBOL+0xOFFSET)[0xADDRESS]  OFFSET counts from the symbol, also as "-0xOFFSET"
//   PATH(+0xOFFSET)[0xADDRESS]        OFFSET counts from where the object was loaded
//   PATH[0xADDRESS]                   the object was loaded at 0
//   [0xADDRESS]                       in no object
struct SymbolLine {
  enum class Offset { kNone, kFromBase, kFromSymbol };

  std::string path;
  std::string symbol;
  Offset kind;
  bool negative;    // an offset with a minus
  uint64_t offset;  // without its sign
  uint64_t address;
};

constexpr size_t kMaxSymbolLines = 64;  // the handler takes so many return addresses

struct Trace {
  std::optional<ProcessLine> process;
  std::optional<SignalLine> signal;
  std::optional<uint64_t> referenced;  // "Referenced address: 0x10"
  std::optional<uint64_t> crash;       // "backtrace for crash at: 0x8048123"
  std::vector<FrameLine> frames;
  std::vector<SymbolLine> symbols;  // at most kMaxSymbolLines
  bool faulted_again = false;       // the handler met a fault of its own and gave up
  bool unguarded = false;           // it gave up because it could not guard itself against one
  int ends = 0;                     // "End of backtrace"; a whole trace has two
  size_t lines = 0;
  size_t unknown_lines = 0;
};

// The lines, without newline. Empty when the line is none of these.
std::optional<ProcessLine> parse_process_line(std::string_view line);
std::optional<SignalLine> parse_signal_line(std::string_view line);
std::optional<uint64_t> parse_referenced_line(std::string_view line);
std::optional<uint64_t> parse_crash_line(std::string_view line);
std::optional<FrameLine> parse_frame_line(std::string_view line);
std::optional<SymbolLine> parse_symbol_line(std::string_view line);

// A text without a final newline has a last line all the same. Of lines that a trace has once, the
// first counts and the others are unknown.
Trace parse_trace(std::string_view text);

#endif  // VELORIN_AD_CRASH_trace_
