// A crash trace, line by line. See trace.h.
#include "trace.h"

namespace {

constexpr std::string_view kDecimalDigits = "0123456789";
constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr size_t kMaxHexDigits = 16;

// Takes parts off the front of a line. After a part that is not there, `ok()` is false for good.
class Scanner {
 public:
  explicit Scanner(std::string_view rest) : rest_(rest) {}

  Scanner& text(std::string_view expected) {
    ok_ = ok_ && rest_.substr(0, expected.size()) == expected;
    if (ok_) rest_.remove_prefix(expected.size());
    return *this;
  }

  // %d of a number from 0 on, with zeros in front up to `width` characters.
  Scanner& decimal(int32_t* value, size_t width = 1) {
    const std::string_view digits = take(kDecimalDigits);
    uint64_t number = 0;
    for (const char digit : digits) {
      number = number * 10 + static_cast<uint64_t>(digit - '0');
      if (number > INT32_MAX) return fail();
    }
    if (digits.size() < width || (digits.size() > width && digits[0] == '0')) return fail();
    *value = static_cast<int32_t>(number);
    return *this;
  }

  // 0x%lx
  Scanner& hex(uint64_t* value) {
    text("0x");
    const std::string_view digits = take(kHexDigits);
    if (digits.empty() || digits.size() > kMaxHexDigits) return fail();
    if (digits.size() > 1 && digits[0] == '0') return fail();
    *value = 0;
    for (const char digit : digits) *value = *value * 16 + kHexDigits.find(digit);
    return *this;
  }

  // %p
  Scanner& pointer(uint64_t* value) {
    if (rest_.substr(0, kNull.size()) == kNull) {
      *value = 0;
      return text(kNull);
    }
    hex(value);
    return ok_ && *value == 0 ? fail() : *this;
  }

  bool ok() const { return ok_; }
  bool at_end() const { return ok_ && rest_.empty(); }

 private:
  static constexpr std::string_view kNull = "(nil)";

  std::string_view take(std::string_view characters) {
    const std::string_view taken = rest_.substr(0, rest_.find_first_not_of(characters));
    if (ok_) rest_.remove_prefix(taken.size());
    return taken;
  }

  Scanner& fail() {
    ok_ = false;
    return *this;
  }

  std::string_view rest_;
  bool ok_ = true;
};

std::optional<uint64_t> pointer_behind(std::string_view line, std::string_view prefix) {
  uint64_t value;
  if (Scanner(line).text(prefix).pointer(&value).at_end()) return value;
  return std::nullopt;
}

// "SYMBOL+0xOFFSET", as it stands in parentheses.
bool parse_offset(std::string_view text, SymbolLine* line) {
  const size_t sign = text.find_last_of("+-");
  if (sign == std::string_view::npos) return false;
  if (!Scanner(text.substr(sign + 1)).hex(&line->offset).at_end()) return false;
  line->negative = text[sign] == '-';
  line->symbol = text.substr(0, sign);
  line->kind =
      line->symbol.empty() ? SymbolLine::Offset::kFromBase : SymbolLine::Offset::kFromSymbol;
  return true;
}

// Stores what was parsed, unless nothing was or there is something already.
template <class Value>
bool store(std::optional<Value> parsed, std::optional<Value>* to) {
  if (!parsed || *to) return false;
  *to = std::move(parsed);
  return true;
}

template <class Value>
bool append(std::optional<Value> parsed, std::vector<Value>* to, size_t max) {
  if (!parsed || to->size() >= max) return false;
  to->push_back(std::move(*parsed));
  return true;
}

bool understand(std::string_view line, Trace* trace) {
  if (line.empty() || line == "End of stack dump.") return true;
  if (line == "End of backtrace") return ++trace->ends, true;
  if (line == "Cannot sigsetjmp, goto trace_done") return trace->faulted_again = true;
  if (line == "Cannot set SIGSEGV signal handler") return trace->unguarded = true;
  return store(parse_process_line(line), &trace->process) ||
         store(parse_signal_line(line), &trace->signal) ||
         store(parse_referenced_line(line), &trace->referenced) ||
         store(parse_crash_line(line), &trace->crash) ||
         append(parse_frame_line(line), &trace->frames, SIZE_MAX) ||
         append(parse_symbol_line(line), &trace->symbols, kMaxSymbolLines);
}

}  // namespace

std::optional<ProcessLine> parse_process_line(std::string_view line) {
  ProcessLine parsed;
  Scanner scanner(line);
  scanner.text("Process ").decimal(&parsed.pid).text(" stack(sp=").hex(&parsed.sp);
  scanner.text(", bp=").hex(&parsed.bp).text(", ip=").hex(&parsed.ip).text(")");
  if (!scanner.at_end()) return std::nullopt;
  return parsed;
}

std::optional<SignalLine> parse_signal_line(std::string_view line) {
  SignalLine parsed;
  if (line.empty() || line.back() != ')') return std::nullopt;
  const size_t open = line.find(" (");
  if (open == std::string_view::npos) return std::nullopt;
  if (!Scanner(line.substr(0, open)).text("SIGNAL ").decimal(&parsed.number).at_end())
    return std::nullopt;
  line.remove_suffix(1);
  parsed.text = line.substr(open + 2);
  return parsed;
}

std::optional<uint64_t> parse_referenced_line(std::string_view line) {
  return pointer_behind(line, "Referenced address: ");
}

std::optional<uint64_t> parse_crash_line(std::string_view line) {
  return pointer_behind(line, "backtrace for crash at: ");
}

std::optional<FrameLine> parse_frame_line(std::string_view line) {
  FrameLine parsed;
  Scanner scanner(line);
  scanner.decimal(&parsed.number, /*width=*/2).text(": ").pointer(&parsed.address).text("(");
  for (uint64_t& argument : parsed.arguments) scanner.pointer(&argument).text(", ");
  if (!scanner.text("....").at_end()) return std::nullopt;
  return parsed;
}

std::optional<SymbolLine> parse_symbol_line(std::string_view line) {
  const size_t bracket = line.rfind('[');
  if (bracket == std::string_view::npos) return std::nullopt;
  SymbolLine parsed = {"", "", SymbolLine::Offset::kNone, false, 0, 0};
  if (!Scanner(line.substr(bracket)).text("[").hex(&parsed.address).text("]").at_end())
    return std::nullopt;
  std::string_view path = line.substr(0, bracket);
  // A path may hold parentheses too; only an offset tells that they are not its own.
  const size_t open = path.rfind('(');
  if (open != std::string_view::npos && open > 0 && path.back() == ')' &&
      parse_offset(path.substr(open + 1, path.size() - open - 2), &parsed))
    path = path.substr(0, open);
  parsed.path = path;
  return parsed;
}

Trace parse_trace(std::string_view text) {
  Trace trace;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
    ++trace.lines;
    if (!understand(line, &trace)) ++trace.unknown_lines;
  }
  return trace;
}
