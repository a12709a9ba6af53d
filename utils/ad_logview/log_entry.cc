// A line of a log taken apart. See log_entry.h.
#include "log_entry.h"

#include <algorithm>

namespace {

constexpr std::string_view kTimeForm = "dddd-dd-dd dd:dd:dd.";  // and microseconds
constexpr size_t kMicrosecondDigitsMin = 6;
constexpr size_t kNumberDigitsMax = 10;
// How much of a text is searched for a statement's beginning: more than names come to, and little
// enough for a text that was made to be searched for long.
constexpr size_t kProcessMax = 256;
constexpr size_t kTagMax = 32;
constexpr size_t kSourceMax = 512;
constexpr std::string_view kArrow = "-> ";
constexpr std::string_view kDumpHeader = "DUMP length = 0x";
constexpr std::string_view kDumpData = " 0x";
constexpr uint32_t kDumpLengthMax = INT32_MAX;  // a negative length is no length

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isWordCharacter(char c) {
  return isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

bool isMarkCharacter(char c) {
  return (c >= 'a' && c <= 'z') || c == '_';
}

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

template <class Is>
size_t countWhile(std::string_view text, size_t from, Is is) {
  size_t at = from;
  while (at < text.size() && is(text[at])) ++at;
  return at - from;
}

int hexDigit(char c) {
  if (isDigit(c)) return c - '0';
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Takes hexadecimal digits off the front, as many as a 32-bit number has.
std::optional<uint32_t> takeHex(std::string_view* text) {
  uint32_t value = 0;
  size_t count = 0;
  for (; count < text->size() && count < 8 && hexDigit((*text)[count]) >= 0; ++count)
    value = value << 4 | static_cast<uint32_t>(hexDigit((*text)[count]));
  if (count == 0) return std::nullopt;
  text->remove_prefix(count);
  return value;
}

bool hasTimeForm(std::string_view line) {
  if (line.size() < kTimeForm.size()) return false;
  for (size_t i = 0; i < kTimeForm.size(); ++i)
    if (kTimeForm[i] == 'd' ? !isDigit(line[i]) : line[i] != kTimeForm[i]) return false;
  return true;
}

void takeTime(std::string_view line, LogEntry* entry) {
  if (!hasTimeForm(line)) return;
  const size_t digits = countWhile(line, kTimeForm.size(), isDigit);
  if (digits < kMicrosecondDigitsMin || digits > kNumberDigitsMax) return;
  size_t at = kTimeForm.size() + digits;
  if (at < line.size() && line[at] == 'Z') ++at;
  const size_t marks = at;
  while (at < line.size() && line[at] == '[') {
    const size_t end = at + 1 + countWhile(line, at + 1, isMarkCharacter);
    if (end == at + 1 || end >= line.size() || line[end] != ']') return;
    at = end + 1;
  }
  if (at >= line.size() || line[at] != ' ') return;
  entry->time = line.substr(0, marks);
  entry->marks = line.substr(marks, at - marks);
  entry->text = line.substr(at + 1);
}

Tag tagOf(std::string_view name) {
  for (const TagName& known : kTagNames)
    if (known.name == name) return known.tag;
  return Tag::kOther;
}

// Whether `rest` goes on as a log statement does, ":main.cc:120-> ", and what a dump is in it.
bool takeSource(std::string_view rest, LogEntry* entry) {
  const size_t arrow = rest.substr(0, kSourceMax).find(kArrow);
  if (arrow == std::string_view::npos) return false;
  size_t colon = arrow;
  while (colon > 0 && isDigit(rest[colon - 1])) --colon;
  if (colon == arrow || colon < 3 || rest[colon - 1] != ':') return false;
  std::string_view message = rest.substr(arrow + kArrow.size());
  if (!startsWith(message, kDumpHeader)) return true;
  message.remove_prefix(kDumpHeader.size());
  const std::optional<uint32_t> length = takeHex(&message);
  if (!length || !startsWith(message, " (")) return true;
  entry->dump = DumpPart::kHeader;
  entry->dump_number = *length <= kDumpLengthMax ? *length : 0;
  return true;
}

// The same for a dump's line of data, ": 0x010: 0x".
bool takeDumpData(std::string_view rest, LogEntry* entry) {
  rest.remove_prefix(1);
  if (!startsWith(rest, kDumpData)) return false;
  rest.remove_prefix(kDumpData.size());
  const std::optional<uint32_t> offset = takeHex(&rest);
  if (!offset || !startsWith(rest, ": 0x")) return false;
  entry->dump = DumpPart::kData;
  entry->dump_number = *offset;
  return true;
}

// Takes apart a text that has the beginning of a statement at its parenthesis `open`.
bool takeStatement(size_t open, LogEntry* entry) {
  const std::string_view text = entry->text;
  const size_t digits = countWhile(text, open + 1, isDigit);
  const size_t close = open + 1 + digits;
  if (close >= text.size() || text[close] != ')') return false;
  const std::optional<uint32_t> pid = parseNumber(text.substr(open + 1, digits));
  if (!pid) return false;
  const size_t tag_size = countWhile(text, close + 1, isWordCharacter);
  const size_t colon = close + 1 + tag_size;
  if (tag_size == 0 || tag_size > kTagMax || colon >= text.size() || text[colon] != ':')
    return false;
  const std::string_view rest = text.substr(colon);
  if (!takeDumpData(rest, entry) && !takeSource(rest, entry)) return false;
  entry->process = text.substr(0, open);
  entry->pid_text = text.substr(open, close + 1 - open);
  entry->tag_text = text.substr(close + 1, tag_size);
  entry->rest = rest;
  entry->tag = tagOf(entry->tag_text);
  entry->pid = *pid;
  return true;
}

}  // namespace

LogEntry parseEntry(std::string_view line) {
  LogEntry entry;
  entry.text = line;
  takeTime(line, &entry);
  entry.rest = entry.text;
  const std::string_view names = entry.text.substr(0, kProcessMax);
  // A process may have any name, one with parentheses too.
  for (size_t open = names.find('('); open != std::string_view::npos;
       open = names.find('(', open + 1))
    if (takeStatement(open, &entry)) break;
  return entry;
}

std::optional<uint32_t> parseNumber(std::string_view digits) {
  if (digits.empty() || digits.size() > kNumberDigitsMax) return std::nullopt;
  uint64_t value = 0;
  for (const char c : digits) {
    if (!isDigit(c)) return std::nullopt;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  if (value > UINT32_MAX) return std::nullopt;
  return static_cast<uint32_t>(value);
}
