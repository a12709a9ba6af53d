// A line of a log taken apart: its time, its marks, the process and the tag that it begins with.
#ifndef VELORIN_AD_LOGVIEW_log_entry_
#define VELORIN_AD_LOGVIEW_log_entry_

#include <stdint.h>

#include <optional>
#include <string_view>

enum class Tag : uint8_t { kErro, kCrtc, kTrce, kDetl, kOther };

struct TagName {
  std::string_view name;
  Tag tag;
};
constexpr TagName kTagNames[] = {
    {"ERRO", Tag::kErro}, {"CRTC", Tag::kCrtc}, {"TRCE", Tag::kTrce}, {"DETL", Tag::kDetl}};

// A packet dump is a header and lines of data, each a line of the log.
enum class DumpPart : uint8_t { kNone, kHeader, kData };

// All of the line in its order, a blank behind time and marks left out. Points into the line.
struct LogEntry {
  std::string_view time;  // "2026-03-05 14:07:31.042317" or with a "Z"; empty: none
  std::string_view marks;
  std::string_view text;  // what was logged

  // Of a text that begins as log statements do, "tcp_proxy(4711)TRCE:main.cc:120-> ":
  std::string_view process;   // "tcp_proxy", or nothing
  std::string_view pid_text;  // "(4711)"; empty: the text begins otherwise
  std::string_view tag_text;  // "TRCE"
  std::string_view rest;      // ":main.cc:120-> ...", or all of the text
  Tag tag = Tag::kOther;
  uint32_t pid = 0;
  DumpPart dump = DumpPart::kNone;
  uint32_t dump_number = 0;  // a header's length of the dump, a data line's offset

  bool isStatement() const { return !pid_text.empty(); }
  bool isDaemons() const { return marks == "[ad_logd]"; }  // about itself
};

LogEntry parseEntry(std::string_view line);

// Reads decimal digits, all of `digits`.
// Returns: nothing for none of them, for another character, and from 2^32 on.
std::optional<uint32_t> parseNumber(std::string_view digits);

#endif  // VELORIN_AD_LOGVIEW_log_entry_
