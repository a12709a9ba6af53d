// How far the bodies of HTTP/1.x messages go. See http_body.h.
#include "http_body.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace {

constexpr int kMostDigits = 15;  // of a chunk's size; more would not fit
constexpr HttpFraming kUnclear = {HttpFraming::kUnclear, 0};

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

HttpFraming framingOf(const HttpHead& head) {
  const bool has_length = head.has("Content-Length");
  if (head.has("Transfer-Encoding")) {
    const auto encoding = head.only("Transfer-Encoding");
    const bool chunked = !has_length && encoding && isSame(*encoding, "chunked");
    return chunked ? HttpFraming{HttpFraming::kChunked, 0} : kUnclear;
  }
  if (!has_length) return {HttpFraming::kNothing, 0};

  const auto text = head.only("Content-Length");
  if (!text || text->empty()) return kUnclear;
  const char* const end = text->data() + text->size();
  uint64_t length = 0;
  const auto number = std::from_chars(text->data(), end, length);
  if (number.ec != std::errc() || number.ptr != end) return kUnclear;
  return {HttpFraming::kLength, length};
}

HttpBody::HttpBody(const HttpFraming& framing)
    : state_(framing.kind == HttpFraming::kChunked || framing.length > 0 ? kWithin : kComplete),
      place_(framing.kind == HttpFraming::kChunked ? kSize : kData),
      chunked_(framing.kind == HttpFraming::kChunked),
      left_(framing.length) {}

size_t HttpBody::take(const char* data, size_t size) {
  size_t taken = 0;
  while (state_ == kWithin && taken < size) {
    if (place_ != kData) {
      takeByte(data[taken++]);
      continue;
    }
    const uint64_t count = std::min<uint64_t>(left_, size - taken);
    taken += static_cast<size_t>(count);
    left_ -= count;
    if (left_ > 0) break;
    if (chunked_)
      place_ = kDataEnd;
    else
      state_ = kComplete;
  }
  return taken;
}

// One of those between the data of chunks.
void HttpBody::takeByte(char c) {
  switch (place_) {
    case kSize:
      return takeSizeDigit(c);
    case kExtension:
      if (c == '\n') endSizeLine();
      return;
    case kDataEnd:
      if (c == '\n')
        place_ = kSize;
      else if (c != '\r')
        state_ = kBroken;
      return;
    case kTrailer:
      if (c == '\n' && line_empty_) state_ = kComplete;
      if (c != '\r') line_empty_ = c == '\n';
      return;
    case kData:
      return;
  }
}

void HttpBody::takeSizeDigit(char c) {
  const int digit = hexDigit(c);
  if (digit >= 0 && digits_ < kMostDigits) {
    left_ = 16 * left_ + static_cast<uint64_t>(digit);
    ++digits_;
    return;
  }
  const bool ends = c == '\n' || c == '\r' || c == ';' || c == ' ' || c == '\t';
  if (digits_ == 0 || !ends) {
    state_ = kBroken;
    return;
  }
  place_ = kExtension;
  if (c == '\n') endSizeLine();
}

void HttpBody::endSizeLine() {
  digits_ = 0;
  place_ = left_ > 0 ? kData : kTrailer;
}
