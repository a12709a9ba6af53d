// The heads of HTTP/1.x messages: the first line and the fields, up to an empty line.
#ifndef TCP_PROXY_http_head_
#define TCP_PROXY_http_head_

#include <stddef.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Collects a head that comes in pieces.
class HttpHeadReader {
 public:
  enum State { kReading, kComplete, kTooLong };
  static constexpr size_t kLongest = 16384;

  // Takes what belongs to the head. Returns: the number of those bytes, at least 1 while reading.
  size_t take(const char* data, size_t size);

  State state() const { return state_; }
  const std::string& text() const { return text_; }

  // Ready for the next head. Returns: the text so far.
  std::string release();

 private:
  std::string text_;
  size_t line_ = 0;  // where the last line of the text begins
  State state_ = kReading;
};

// The parts of a head's text, which must outlive this.
struct HttpHead {
  using Field = std::pair<std::string_view, std::string_view>;  // name, value

  std::string_view first_line;
  std::vector<Field> fields;

  bool has(std::string_view name) const;
  // The value of the only field of this name.
  std::optional<std::string_view> only(std::string_view name) const;
};

struct HttpRequestLine {
  std::string_view method;
  std::string_view target;
};

// Returns: nothing unless `text` is a well-formed head, up to its empty line.
std::optional<HttpHead> parseHttpHead(std::string_view text);

// Return nothing unless it is the first line of an HTTP/1.x message.
std::optional<HttpRequestLine> parseRequestLine(std::string_view line);
std::optional<int> parseStatus(std::string_view line);

// Whether both are the same but for the case of letters.
bool isSame(std::string_view a, std::string_view b);

#endif  // TCP_PROXY_http_head_
