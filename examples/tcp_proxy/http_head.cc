// The heads of HTTP/1.x messages. See http_head.h.
#include "http_head.h"

#include <string.h>
#include <strings.h>

#include <algorithm>

namespace {

constexpr char kVersion[] = "HTTP/1.";
constexpr size_t kVersionSize = sizeof kVersion;  // with the digit behind it

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isVersion(std::string_view text) {
  return text.size() == kVersionSize && text.substr(0, kVersionSize - 1) == kVersion &&
         isDigit(text.back());
}

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte < ' ' && c != '\t') || byte == 0x7f;
}

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

// Takes the next line off the text. A lone line feed ends a line as well.
std::string_view takeLine(std::string_view* text) {
  const size_t end = text->find('\n');
  std::string_view line = text->substr(0, end);
  text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

// Lines that go on the one before begin with a blank: nobody may send them any more.
std::optional<HttpHead::Field> parseField(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos) return std::nullopt;
  const std::string_view name = line.substr(0, colon);
  if (std::any_of(name.begin(), name.end(), isBlank)) return std::nullopt;
  return HttpHead::Field(name, trimmed(line.substr(colon + 1)));
}

}  // namespace

size_t HttpHeadReader::take(const char* data, size_t size) {
  size_t taken = 0;
  while (state_ == kReading && taken < size) {
    const size_t room = std::min(size - taken, kLongest - text_.size());
    const void* const line_feed = memchr(data + taken, '\n', room);
    const size_t count =
        line_feed == nullptr
            ? room
            : static_cast<size_t>(static_cast<const char*>(line_feed) - (data + taken)) + 1;
    text_.append(data + taken, count);
    taken += count;
    if (line_feed != nullptr) {
      const std::string_view line = std::string_view(text_).substr(line_);
      if (line == "\n" || line == "\r\n") state_ = kComplete;
      line_ = text_.size();
    }
    if (state_ == kReading && text_.size() == kLongest) state_ = kTooLong;
  }
  return taken;
}

std::string HttpHeadReader::release() {
  std::string text = std::move(text_);
  *this = {};
  return text;
}

bool HttpHead::has(std::string_view name) const {
  return std::any_of(fields.begin(), fields.end(),
                     [=](const Field& field) { return isSame(field.first, name); });
}

std::optional<std::string_view> HttpHead::only(std::string_view name) const {
  std::optional<std::string_view> value;
  for (const Field& field : fields) {
    if (!isSame(field.first, name)) continue;
    if (value) return std::nullopt;
    value = field.second;
  }
  return value;
}

std::optional<HttpHead> parseHttpHead(std::string_view text) {
  HttpHead head;
  head.first_line = takeLine(&text);
  while (!text.empty()) {
    const std::string_view line = takeLine(&text);
    if (line.empty()) return head;
    if (std::any_of(line.begin(), line.end(), isControl)) return std::nullopt;
    const std::optional<HttpHead::Field> field = parseField(line);
    if (!field) return std::nullopt;
    head.fields.push_back(*field);
  }
  return std::nullopt;
}

std::optional<HttpRequestLine> parseRequestLine(std::string_view line) {
  const size_t method_end = line.find(' ');
  const size_t target_end = line.rfind(' ');
  if (method_end == std::string_view::npos || target_end <= method_end + 1) return std::nullopt;
  const HttpRequestLine request = {line.substr(0, method_end),
                                   line.substr(method_end + 1, target_end - method_end - 1)};
  const bool is_plain = !request.method.empty() &&
                        request.target.find(' ') == std::string_view::npos &&
                        std::none_of(line.begin(), line.end(), isControl);
  if (!is_plain || !isVersion(line.substr(target_end + 1))) return std::nullopt;
  return request;
}

std::optional<int> parseStatus(std::string_view line) {
  constexpr size_t kEnd = kVersionSize + 4;  // behind a blank and three digits
  if (line.size() < kEnd || !isVersion(line.substr(0, kVersionSize))) return std::nullopt;
  if (line[kVersionSize] != ' ' || (line.size() > kEnd && line[kEnd] != ' ')) return std::nullopt;
  int status = 0;
  for (const char c : line.substr(kVersionSize + 1, 3)) {
    if (!isDigit(c)) return std::nullopt;
    status = 10 * status + (c - '0');
  }
  if (status < 100) return std::nullopt;
  return status;
}

bool isSame(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}
