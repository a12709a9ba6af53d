// Looking at, and changing, what a relay passes on.
#ifndef TCP_PROXY_filter_
#define TCP_PROXY_filter_

#include <stddef.h>

#include <string_view>

class Filter {
 public:
  // What becomes of the next bytes.
  struct Portion {
    size_t size;  // so many of them, at least one
    bool kept;    // the filter has them now; else they pass as they are
  };

  virtual ~Filter() = default;

  // Shows the filter the bytes that follow on the portions before; only when there is no output.
  // Called again for what is behind the portion. A portion that passes leaves no output.
  virtual Portion look(const char* data, size_t size) = 0;

  // There are no more bytes: what was kept becomes output. Only when there is no output.
  virtual void end() {}

  // What is to be sent before anything else.
  virtual std::string_view output() const { return {}; }
  // The first `size` bytes of it were sent.
  virtual void sent(size_t /*size*/) {}
};

#endif  // TCP_PROXY_filter_
