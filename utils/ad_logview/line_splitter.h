// Bytes in, lines out.
#ifndef VELORIN_AD_LOGVIEW_line_splitter_
#define VELORIN_AD_LOGVIEW_line_splitter_

#include <stddef.h>

#include <memory>

#include "view.h"

constexpr size_t kBlock = 256 * 1024;      // bytes read at once
constexpr size_t kLineHead = 1024 * 1024;  // of a longer line the rest is passed on as it comes

// Gives the lines of what was read to a view. A line that is not yet whole waits.
class LineSplitter {
 public:
  explicit LineSplitter(View* view);

  // Where the next bytes are to be put, kBlock of them.
  char* room() { return bytes_.get() + end_; }
  void add(size_t count);

  // Takes it that the line that is not yet whole goes on no further.
  void finish();

 private:
  void passOn(size_t end, bool whole);

  View* const view_;
  const std::unique_ptr<char[]> bytes_;
  size_t begin_ = 0;  // of the line, or of what is not yet passed on of a long one
  size_t end_ = 0;
  bool begun_ = false;  // the line's head was passed on
};

#endif  // VELORIN_AD_LOGVIEW_line_splitter_
