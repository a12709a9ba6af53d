// What ad_crash reads. A line of a trace that is understood is, written anew from its parts with
// the crash handler's formats, the same line; no line gets lost. Of an ELF file, what is found is
// there. An input that begins as an ELF file is one.
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "ad_crash/trace.h"
#include "common/elf.h"
#include "common/text.h"
#include "fuzz.h"

namespace {

constexpr std::string_view kElfMark = "\177ELF";

std::string lower_hex(uint64_t value) {
  char text[32];
  (void)snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string pointer(uint64_t value) {
  return value == 0 ? "(nil)" : lower_hex(value);
}

std::string written(const ProcessLine& line) {
  return "Process " + std::to_string(line.pid) + " stack(sp=" + lower_hex(line.sp) +
         ", bp=" + lower_hex(line.bp) + ", ip=" + lower_hex(line.ip) + ")";
}

std::string written(const SignalLine& line) {
  return "SIGNAL " + std::to_string(line.number) + " (" + line.text + ")";
}

std::string written(const FrameLine& line) {
  char number[16];
  (void)snprintf(number, sizeof number, "%02d", line.number);
  std::string text = number + (": " + pointer(line.address)) + "(";
  for (const uint64_t argument : line.arguments) text += pointer(argument) + ", ";
  return text + "....";
}

std::string written(const SymbolLine& line) {
  std::string text = line.path;
  REQUIRE(line.symbol.empty() == (line.kind != SymbolLine::Offset::kFromSymbol));
  if (line.kind != SymbolLine::Offset::kNone)
    text += "(" + line.symbol + (line.negative ? "-" : "+") + lower_hex(line.offset) + ")";
  return text + "[" + lower_hex(line.address) + "]";
}

// How many of the kinds of lines the line is.
int check_line(std::string_view line) {
  int kinds = 0;
  const auto check = [&](const auto& parsed) {
    if (!parsed) return;
    ++kinds;
    REQUIRE(written(*parsed) == line);
  };
  check(parse_process_line(line));
  check(parse_signal_line(line));
  check(parse_frame_line(line));
  check(parse_symbol_line(line));
  if (const auto address = parse_referenced_line(line))
    REQUIRE(++kinds && "Referenced address: " + pointer(*address) == line);
  if (const auto address = parse_crash_line(line))
    REQUIRE(++kinds && "backtrace for crash at: " + pointer(*address) == line);
  return kinds;
}

void check_trace(std::string_view text) {
  const Trace trace = parse_trace(text);
  size_t lines = 0;
  size_t plain = 0;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    ++lines;
    REQUIRE(check_line(line) <= 1);
    if (line.empty() || line == "End of stack dump." ||
        line == "Cannot sigsetjmp, goto trace_done" || line == "Cannot set SIGSEGV signal handler")
      ++plain;
  }
  REQUIRE(trace.lines == lines);
  REQUIRE(trace.symbols.size() <= kMaxSymbolLines);
  const size_t once = size_t{trace.process.has_value()} + trace.signal.has_value() +
                      trace.referenced.has_value() + trace.crash.has_value();
  REQUIRE(plain + once + static_cast<size_t>(trace.ends) + trace.frames.size() +
              trace.symbols.size() + trace.unknown_lines ==
          lines);
}

// Reads back what `visible` wrote.
std::string unescaped(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    REQUIRE(text[i] >= 0x20 && text[i] < 0x7f);
    if (text[i] != '\\') {
      bytes += text[i];
      continue;
    }
    REQUIRE(++i < text.size());
    if (text[i] == 'x') {
      REQUIRE(i + 2 < text.size());
      bytes += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      REQUIRE(strchr("\\nt", text[i]) != nullptr);
      bytes += text[i] == 'n' ? '\n' : text[i] == 't' ? '\t' : '\\';
    }
  }
  return bytes;
}

void check_elf(std::string_view file) {
  const int fd = memfd_create("elf", MFD_CLOEXEC);
  REQUIRE(fd >= 0);
  REQUIRE(write(fd, file.data(), file.size()) == static_cast<ssize_t>(file.size()));
  std::string why;
  const std::optional<Elf> elf = read_elf(fd, &why);
  REQUIRE(elf.has_value() == why.empty());
  if (elf) {
    REQUIRE(elf->bits == (file[4] == 1 ? 32 : 64));
    const uint64_t last = elf->bits == 32 ? UINT32_MAX : UINT64_MAX;
    for (const Segment& segment : elf->segments) {
      REQUIRE(segment.address < segment.end && segment.end <= last);
      REQUIRE(!segment.code || elf->has_code_at(segment.address));
      REQUIRE(!segment.code || elf->has_code_at(segment.end - 1));
      REQUIRE(elf->file_address(segment.address + 4096, 4096) == segment.address);
    }
    if (!elf->build_id.empty()) {
      // The note's words: the owner's length, its own and its type, then the owner.
      const uint32_t words[3] = {4, static_cast<uint32_t>(elf->build_id.size()), 3};
      const std::string head(reinterpret_cast<const char*>(words), sizeof words);
      REQUIRE(file.find(head + std::string("GNU\0", 4) + elf->build_id) != std::string_view::npos);
    }
    for (const std::string_view name : {"f", "main"}) {
      if (!find_symbol(fd, *elf, name).empty())
        REQUIRE(file.find(std::string(name) + '\0') != std::string_view::npos);
    }
  }
  (void)close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (input.substr(0, kElfMark.size()) == kElfMark) {
    check_elf(input);
  } else {
    check_trace(input);
    REQUIRE(unescaped(visible(input)) == input);
  }
  return 0;
}
