// Bytes in, lines out. See line_splitter.h.
#include "line_splitter.h"

#include <string.h>

#include <string_view>

namespace {

// The size of `text` without the beginning of a character of UTF-8 at its end.
size_t withoutCutCharacter(std::string_view text) {
  for (size_t back = 1; back <= 3 && back < text.size(); ++back) {
    const auto byte = static_cast<unsigned char>(text[text.size() - back]);
    if (byte < 0x80) break;
    if (byte >= 0xc0) return text.size() - back;
  }
  return text.size();
}

}  // namespace

LineSplitter::LineSplitter(View* view) : view_(view), bytes_(new char[kLineHead + kBlock]) {}

void LineSplitter::add(size_t count) {
  size_t at = end_;
  end_ += count;
  while (const void* const newline = memchr(bytes_.get() + at, '\n', end_ - at)) {
    const size_t line_end = static_cast<size_t>(static_cast<const char*>(newline) - bytes_.get());
    passOn(line_end, /*whole=*/true);
    at = begin_ = line_end + 1;
  }
  if (end_ - begin_ > kLineHead || begun_)
    passOn(begin_ + withoutCutCharacter({bytes_.get() + begin_, end_ - begin_}), /*whole=*/false);
  if (begin_ == 0) return;
  memmove(bytes_.get(), bytes_.get() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
}

void LineSplitter::finish() {
  if (begun_ || end_ > 0) passOn(end_, /*whole=*/true);
  begin_ = end_ = 0;
}

void LineSplitter::passOn(size_t end, bool whole) {
  const std::string_view text(bytes_.get() + begin_, end - begin_);
  if (begun_) {
    view_->more(text);
  } else {
    view_->begin(text);
  }
  if (whole) view_->end();
  begun_ = !whole;
  begin_ = end;
}
