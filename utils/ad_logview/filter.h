// Which lines are shown.
#ifndef VELORIN_AD_LOGVIEW_filter_
#define VELORIN_AD_LOGVIEW_filter_

#include <regex.h>
#include <stdint.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "log_entry.h"
#include "time_range.h"

// A process that is looked for: by name, by number or by both; by either one when `either`.
struct ProcessPattern {
  std::string name;
  std::optional<uint32_t> pid;
  bool either = false;
};

struct RegexFree {
  void operator()(regex_t* regex) const {
    regfree(regex);
    delete regex;
  }
};
using Regex = std::unique_ptr<regex_t, RegexFree>;

// What was asked for; a line has to meet each kind of it that is not empty.
struct Criteria {
  uint32_t tags = 0;                      // a bit for each Tag
  std::vector<ProcessPattern> processes;  // one of them
  std::vector<std::string> texts;         // all of them
  std::vector<Regex> regexes;             // all of them
  TimeRange times;

  bool empty() const {
    return tags == 0 && processes.empty() && texts.empty() && regexes.empty() && !times.bounded();
  }
};

enum class Verdict { kHide, kShow, kShowBeside };  // kShowBeside: without being what was asked for

// Judges the lines of a log, in their order.
class Filter {
 public:
  explicit Filter(Criteria criteria) : criteria_(std::move(criteria)) {}

  // The data of a dump go with its header, and a line without a time and a statement's beginning
  // with the last one that had either. What the daemon says about itself, such as that lines were
  // lost, is not held to tags and processes.
  Verdict judge(const LogEntry& entry);

  bool showsAll() const { return criteria_.empty(); }
  // Whether more than texts is asked for, which only a line in the daemon's text form tells.
  bool asksForParts() const {
    return criteria_.tags != 0 || !criteria_.processes.empty() || criteria_.times.bounded();
  }

 private:
  // A dump whose data may follow. Dumps of a process and a tag do not interleave in one log.
  using DumpKey = std::tuple<uint32_t, std::string, std::string>;  // process, tag, marks
  struct Dump {
    uint32_t length;
    bool shown;
  };

  static DumpKey keyOf(const LogEntry& entry);
  bool inTime(const LogEntry& entry);
  bool hasTag(const LogEntry& entry) const;
  bool hasProcess(const LogEntry& entry) const;
  bool hasText(const LogEntry& entry) const;
  void learnName(const LogEntry& entry);
  std::string_view nameOf(const LogEntry& entry) const;
  bool isOfShownDump(const LogEntry& entry);
  void rememberDump(const LogEntry& entry, bool shown);

  const Criteria criteria_;
  std::optional<Verdict> last_;  // of a line with a time or a statement's beginning
  bool in_time_ = true;          // the last line that had a time
  // The processes that have one of the names looked for, as dumps and the special log name none.
  std::unordered_map<uint32_t, std::string> names_;
  std::map<DumpKey, Dump> dumps_;
};

#endif  // VELORIN_AD_LOGVIEW_filter_
