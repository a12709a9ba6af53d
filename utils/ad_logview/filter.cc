// Which lines are shown. See filter.h.
#include "filter.h"

#include <string.h>

#include <algorithm>

#include "common/command.h"
#include "options.h"

namespace {

// What is remembered of a log that names more processes and dumps than a machine has is forgotten,
// so that no log fills the memory.
constexpr size_t kNamesMax = 65536;
constexpr size_t kDumpsMax = 4096;
constexpr uint32_t kDumpWidth = 16;  // bytes in a line of data

bool contains(std::string_view text, const std::string& wanted) {
  return memmem(text.data(), text.size(), wanted.data(), wanted.size()) != nullptr;
}

bool matches(std::string_view text, const regex_t& regex) {
  regmatch_t range = {0, static_cast<regoff_t>(text.size())};
  const int result = regexec(&regex, text.data(), 1, &range, REG_STARTEND);
  // LCOV_EXCL_START: only without memory
  if (result != 0 && result != REG_NOMATCH) {
    char why[256];
    (void)regerror(result, &regex, why, sizeof why);
    fail(kTrouble, std::string("a line cannot be matched: ") + why);
  }
  // LCOV_EXCL_STOP
  return result == 0;
}

bool isOf(const ProcessPattern& pattern, std::string_view name, uint32_t pid) {
  const bool by_name = !pattern.name.empty() && name == pattern.name;
  const bool by_pid = pattern.pid && pid == *pattern.pid;
  if (pattern.either) return by_name || by_pid;
  return (pattern.name.empty() || by_name) && (!pattern.pid || by_pid);
}

}  // namespace

Verdict Filter::judge(const LogEntry& entry) {
  if (showsAll()) return Verdict::kShow;
  const bool begins = !entry.time.empty() || entry.isStatement();
  if (!begins && last_) return *last_;
  learnName(entry);
  Verdict verdict = Verdict::kHide;
  const bool of_sender = hasTag(entry) && hasProcess(entry);
  if (inTime(entry) && (of_sender || entry.isDaemons()) && hasText(entry))
    verdict = of_sender ? Verdict::kShow : Verdict::kShowBeside;
  if (entry.dump == DumpPart::kHeader) rememberDump(entry, verdict == Verdict::kShow);
  if (entry.dump == DumpPart::kData && isOfShownDump(entry)) verdict = Verdict::kShow;
  if (begins) last_ = verdict;
  return verdict;
}

bool Filter::inTime(const LogEntry& entry) {
  if (!criteria_.times.bounded()) return true;
  if (!entry.time.empty()) in_time_ = criteria_.times.contains(entry.time);
  return in_time_;
}

bool Filter::hasTag(const LogEntry& entry) const {
  if (criteria_.tags == 0) return true;
  return entry.isStatement() && (criteria_.tags >> static_cast<int>(entry.tag) & 1) != 0;
}

bool Filter::hasProcess(const LogEntry& entry) const {
  if (criteria_.processes.empty()) return true;
  if (!entry.isStatement()) return false;
  const std::string_view name = nameOf(entry);
  return std::any_of(criteria_.processes.begin(), criteria_.processes.end(),
                     [&](const ProcessPattern& pattern) { return isOf(pattern, name, entry.pid); });
}

bool Filter::hasText(const LogEntry& entry) const {
  return std::all_of(criteria_.texts.begin(), criteria_.texts.end(),
                     [&](const std::string& text) { return contains(entry.text, text); }) &&
         std::all_of(criteria_.regexes.begin(), criteria_.regexes.end(),
                     [&](const Regex& regex) { return matches(entry.text, *regex); });
}

void Filter::learnName(const LogEntry& entry) {
  if (entry.process.empty() || criteria_.processes.empty()) return;
  const bool wanted =
      std::any_of(criteria_.processes.begin(), criteria_.processes.end(),
                  [&](const ProcessPattern& pattern) { return pattern.name == entry.process; });
  if (!wanted) {
    (void)names_.erase(entry.pid);
    return;
  }
  if (names_.size() >= kNamesMax) names_.clear();
  names_[entry.pid] = entry.process;
}

std::string_view Filter::nameOf(const LogEntry& entry) const {
  if (!entry.process.empty()) return entry.process;
  const auto known = names_.find(entry.pid);
  return known == names_.end() ? std::string_view() : known->second;
}

Filter::DumpKey Filter::keyOf(const LogEntry& entry) {
  return {entry.pid, std::string(entry.tag_text), std::string(entry.marks)};
}

bool Filter::isOfShownDump(const LogEntry& entry) {
  const auto dump = dumps_.find(keyOf(entry));
  if (dump == dumps_.end()) return false;
  const Dump found = dump->second;
  if (found.length - entry.dump_number <= kDumpWidth) dumps_.erase(dump);
  return found.shown && entry.dump_number < found.length;
}

void Filter::rememberDump(const LogEntry& entry, bool shown) {
  if (dumps_.size() >= kDumpsMax) dumps_.clear();
  dumps_[keyOf(entry)] = {entry.dump_number, shown};
}
