// The parts of a log statement's line. See log_statement.h.
#include "log_statement.h"

#include <stddef.h>

#include <algorithm>

namespace {

using std::string_view;

constexpr size_t kNameMax = 255;   // of a process, and of a file
constexpr size_t kNumberMax = 10;  // digits of a process id or a line
constexpr size_t kOffsetMax = 8;   // digits of a place in a dump
constexpr size_t kTagSize = 4;
constexpr string_view kTags[] = {"ERRO", "CRTC", "TRCE", "DETL"};
constexpr string_view kArrow = "-> ";

bool takeText(string_view* from, string_view text) {
  if (from->substr(0, text.size()) != text) return false;
  from->remove_prefix(text.size());
  return true;
}

// Takes the characters of `set` at the beginning, `most` of them: a line is looked at from many
// places, and must not be searched to its end from each.
string_view takeSpan(string_view* from, string_view set, size_t most) {
  string_view span = from->substr(0, most);
  span = span.substr(0, span.find_first_not_of(set));
  from->remove_prefix(span.size());
  return span;
}

// A number as printf writes it: no zeros in front.
bool takeNumber(string_view* from, string_view* number) {
  *number = takeSpan(from, "0123456789", kNumberMax + 1);
  return !number->empty() && number->size() <= kNumberMax &&
         (number->front() != '0' || number->size() == 1);
}

bool takeTag(string_view* from, string_view* tag) {
  *tag = from->substr(0, kTagSize);
  from->remove_prefix(tag->size());
  return std::find(std::begin(kTags), std::end(kTags), *tag) != std::end(kTags);
}

// FILE:LINE-> ; a file's name may hold colons.
bool takePlace(string_view* from, string_view* file, string_view* line) {
  for (size_t at = from->find(':'); at <= kNameMax; at = from->find(':', at + 1)) {
    string_view rest = from->substr(at + 1);
    if (at == 0 || !takeNumber(&rest, line) || !takeText(&rest, kArrow)) continue;
    *file = from->substr(0, at);
    *from = rest;
    return true;
  }
  *line = {};
  return false;
}

// The bytes of a packet dump: a blank, their offset, a colon and they themselves.
bool takeDumpMark(string_view* from) {
  string_view rest = *from;
  if (!takeText(&rest, " 0x") || takeSpan(&rest, "0123456789abcdef", kOffsetMax + 1).size() < 3 ||
      !takeText(&rest, ": ")) {
    return false;
  }
  from->remove_prefix(1);
  return true;
}

// Takes apart the line whose process id stands in the parenthesis at `at`.
bool parseAt(string_view line, size_t at, LogStatement* parts) {
  string_view rest = line.substr(at + 1);
  parts->process = line.substr(0, at);
  if (!takeNumber(&rest, &parts->pid) || !takeText(&rest, ")") || !takeTag(&rest, &parts->tag) ||
      !takeText(&rest, ":")) {
    return false;
  }
  if (!takeDumpMark(&rest) && !takePlace(&rest, &parts->file, &parts->line)) return false;
  parts->text = rest;
  return true;
}

}  // namespace

// The first place that looks like a statement is taken: what follows it is text, and a text may
// quote another line.
LogStatement parseStatement(string_view line) {
  for (size_t at = line.find('('); at <= kNameMax; at = line.find('(', at + 1)) {
    LogStatement parts;
    if (parseAt(line, at, &parts)) return parts;
  }
  LogStatement bare;
  bare.text = line;
  return bare;
}
