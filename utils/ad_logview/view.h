// The lines that are wanted, at once or the last of them in the end.
#ifndef VELORIN_AD_LOGVIEW_view_
#define VELORIN_AD_LOGVIEW_view_

#include <stddef.h>

#include <string>
#include <string_view>
#include <vector>

#include "filter.h"
#include "printer.h"

class View {
 public:
  View(Criteria criteria, Printer* printer)
      : filter_(std::move(criteria)),
        printer_(printer),
        parses_(!filter_.showsAll() || printer->colour()) {}

  // From now on only the last `count` lines are wanted, which are kept until they are released.
  void keepLast(size_t count);
  void release();

  // A line comes as its beginning, more of it any number of times, and its end. By the beginning it
  // is judged.
  void begin(std::string_view text);
  void more(std::string_view text);
  void end();

  void flush() { printer_->flush(); }

  bool showsAll() const { return filter_.showsAll(); }
  bool hasShown() const { return has_shown_; }  // a line that was asked for
  // Whether a line was judged by what cannot be told of it, as it is in the daemon's JSON form.
  bool hasMisjudged() const { return has_misjudged_; }

 private:
  struct Kept {
    std::string text;
    Verdict verdict;
  };

  void keep(std::string_view text, Verdict verdict);
  void show(const LogEntry& entry, Verdict verdict);

  Filter filter_;
  Printer* const printer_;
  const bool parses_;
  bool has_shown_ = false;
  bool has_misjudged_ = false;
  bool open_ = false;  // a line has begun, and is wanted
  bool keeping_ = false;
  size_t keep_count_ = 0;
  size_t next_ = 0;  // of kept_, when it is full: the oldest
  std::vector<Kept> kept_;
  Kept* last_kept_ = nullptr;
};

#endif  // VELORIN_AD_LOGVIEW_view_
