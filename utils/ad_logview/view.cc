// The lines that are wanted. See view.h.
#include "view.h"

void View::keepLast(size_t count) {
  keeping_ = true;
  keep_count_ = count;
}

void View::release() {
  keeping_ = false;
  for (size_t i = 0; i < kept_.size(); ++i) {
    const Kept& kept = kept_[(next_ + i) % kept_.size()];
    show(parseEntry(kept.text), kept.verdict);
    const bool goes_on = open_ && i + 1 == kept_.size();
    if (!goes_on) printer_->end();
  }
  kept_ = {};
}

void View::begin(std::string_view text) {
  LogEntry entry;
  Verdict verdict = Verdict::kShow;
  if (parses_) {
    constexpr std::string_view kJson = "{\"time\":\"";
    entry = parseEntry(text);
    verdict = filter_.judge(entry);
    if (filter_.asksForParts() && text.substr(0, kJson.size()) == kJson) has_misjudged_ = true;
  } else {
    entry.rest = text;
  }
  open_ = verdict != Verdict::kHide;
  if (!open_) return;
  if (keeping_) {
    keep(text, verdict);
  } else {
    show(entry, verdict);
  }
}

void View::more(std::string_view text) {
  if (!open_) return;
  if (!keeping_) {
    printer_->more(text);
  } else if (last_kept_ != nullptr) {
    last_kept_->text += text;
  }
}

void View::end() {
  if (open_ && !keeping_) printer_->end();
  open_ = false;
}

void View::keep(std::string_view text, Verdict verdict) {
  if (keep_count_ == 0) return;
  if (kept_.size() < keep_count_) {
    kept_.push_back({std::string(text), verdict});
    last_kept_ = &kept_.back();
    return;
  }
  last_kept_ = &kept_[next_];
  last_kept_->text = text;
  last_kept_->verdict = verdict;
  next_ = (next_ + 1) % keep_count_;
}

void View::show(const LogEntry& entry, Verdict verdict) {
  has_shown_ = has_shown_ || verdict == Verdict::kShow;
  printer_->begin(entry);
}
