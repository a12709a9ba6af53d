// How far the bodies of HTTP/1.x messages go.
#ifndef TCP_PROXY_http_body_
#define TCP_PROXY_http_body_

#include <stddef.h>
#include <stdint.h>

#include "http_head.h"

// What a head says about its body.
struct HttpFraming {
  enum Kind {
    kNothing,  // no word
    kLength,
    kChunked,
    kUnclear  // more than one way to read it, or none
  };
  Kind kind;
  uint64_t length;
};

HttpFraming framingOf(const HttpHead& head);

// Finds the end of one body.
class HttpBody {
 public:
  enum State { kWithin, kComplete, kBroken };

  // Complete from the start when nothing is to come.
  explicit HttpBody(const HttpFraming& framing = {HttpFraming::kNothing, 0});

  // Looks at bytes of the body, while within. Returns: how many of them belong to it, at least 1.
  size_t take(const char* data, size_t size);

  State state() const { return state_; }

 private:
  enum Place { kData, kSize, kExtension, kDataEnd, kTrailer };  // those but kData when chunked

  void takeByte(char c);
  void takeSizeDigit(char c);
  void endSizeLine();

  State state_;
  Place place_;
  bool chunked_;
  uint64_t left_;           // of the data
  int digits_ = 0;          // of the chunk's size, so far
  bool line_empty_ = true;  // the trailer's line, so far
};

#endif  // TCP_PROXY_http_body_
