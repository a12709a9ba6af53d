// The proxy's reading of HTTP: however a message comes in pieces, the same bytes of it are found to
// be its head and its body; a head that is accepted holds, as it came, all that was found in it,
// and one written anew from that is accepted with the same contents.
#include "tcp_proxy/http_head.h"

#include <algorithm>
#include <string>

#include "fuzz.h"
#include "tcp_proxy/http_body.h"

namespace {

// The sizes of pieces, which the message's own bytes tell: mostly small, now and then larger than a
// usual line.
class Pieces {
 public:
  explicit Pieces(std::string_view message) : message_(message) {}
  size_t next(size_t left) {
    const auto byte = static_cast<unsigned char>(message_[place_++ % message_.size()]);
    return std::min<size_t>(left, byte < 0xf0 ? 1 + byte % 11 : 200);
  }

 private:
  std::string_view message_;
  size_t place_ = 0;
};

// Gives `taker` the bytes, all at once or in pieces, as long as it is in the state `within`.
// Returns: how many it took.
template <typename Taker>
size_t feed(Taker* taker, int within, std::string_view bytes, bool at_once) {
  size_t taken = 0;
  Pieces pieces(bytes);
  while (taker->state() == within && taken < bytes.size()) {
    const size_t left = bytes.size() - taken;
    const size_t size = at_once ? left : pieces.next(left);
    const size_t count = taker->take(bytes.data() + taken, size);
    REQUIRE(count >= 1 && count <= size);
    REQUIRE(count == size || taker->state() != within);
    taken += count;
  }
  return taken;
}

bool isWithin(std::string_view part, std::string_view whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

bool isPrintable(char c) {
  return static_cast<unsigned char>(c) >= ' ' && c != 0x7f;
}

void checkField(const HttpHead::Field& field) {
  const auto& [name, value] = field;
  REQUIRE(!name.empty() && name.find_first_of(" \t:") == std::string_view::npos);
  REQUIRE(std::all_of(name.begin(), name.end(), isPrintable));
  REQUIRE(
      std::all_of(value.begin(), value.end(), [](char c) { return c == '\t' || isPrintable(c); }));
  if (value.empty()) return;
  REQUIRE(value.find_first_of(" \t") != 0);
  REQUIRE(value.find_last_of(" \t") != value.size() - 1);
}

void checkHead(const HttpHead& head, std::string_view text) {
  REQUIRE(text.substr(0, head.first_line.size()) == head.first_line);
  std::string_view rest = text;
  std::string anew = std::string(head.first_line) + "\r\n";
  for (const HttpHead::Field& field : head.fields) {
    checkField(field);
    // In the order in which they came.
    REQUIRE(isWithin(field.first, rest));
    rest.remove_prefix(static_cast<size_t>(field.first.data() - rest.data()));
    REQUIRE(field.second.empty() || isWithin(field.second, rest));
    REQUIRE(head.has(field.first));
    const auto only = head.only(field.first);
    REQUIRE(!only || only->data() == field.second.data());
    anew.append(field.first).append(":\t ").append(field.second).append(" \r\n");
  }
  anew += "\r\n";
  const auto again = parseHttpHead(anew);
  REQUIRE(again && again->first_line == head.first_line && again->fields == head.fields);
  REQUIRE(framingOf(*again).kind == framingOf(head).kind);
  REQUIRE(framingOf(*again).length == framingOf(head).length);
}

void checkFirstLine(std::string_view line) {
  if (const auto request = parseRequestLine(line)) {
    const std::string start = std::string(request->method) + " " + std::string(request->target);
    REQUIRE(!request->method.empty() && !request->target.empty());
    REQUIRE(std::count(line.begin(), line.end(), ' ') == 2);
    REQUIRE(line.substr(0, start.size()) == start);
    REQUIRE(line.substr(start.size(), 8) == " HTTP/1.");
    REQUIRE(line.size() == start.size() + 9);
  }
  if (const auto status = parseStatus(line)) {
    REQUIRE(*status >= 100 && *status <= 999);
    REQUIRE(line.substr(0, 7) == "HTTP/1.");
    REQUIRE(line.substr(8, 4) == " " + std::to_string(*status));
  }
}

void checkBody(const HttpFraming& framing, std::string_view bytes) {
  HttpBody whole(framing);
  HttpBody parts(framing);
  const size_t taken = feed(&whole, HttpBody::kWithin, bytes, true);
  REQUIRE(feed(&parts, HttpBody::kWithin, bytes, false) == taken);
  REQUIRE(parts.state() == whole.state());
  if (framing.kind == HttpFraming::kChunked) return;
  REQUIRE(taken == std::min<uint64_t>(framing.length, bytes.size()));
  REQUIRE((whole.state() == HttpBody::kComplete) == (taken == framing.length));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view message(reinterpret_cast<const char*>(data), size);
  HttpHeadReader whole;
  HttpHeadReader parts;
  const size_t taken = feed(&whole, HttpHeadReader::kReading, message, true);
  REQUIRE(feed(&parts, HttpHeadReader::kReading, message, false) == taken);
  REQUIRE(parts.state() == whole.state());
  REQUIRE(whole.text() == message.substr(0, taken));
  const std::string text = parts.release();
  REQUIRE(text == whole.text());
  REQUIRE(parts.state() == HttpHeadReader::kReading && parts.text().empty());
  if (whole.state() == HttpHeadReader::kReading) REQUIRE(taken == size);
  if (whole.state() == HttpHeadReader::kTooLong) REQUIRE(taken == HttpHeadReader::kLongest);
  if (whole.state() != HttpHeadReader::kComplete) return 0;

  const auto head = parseHttpHead(text);
  if (!head) return 0;
  checkHead(*head, text);
  checkFirstLine(head->first_line);
  HttpFraming framing = framingOf(*head);
  if (framing.kind == HttpFraming::kUnclear) framing = {HttpFraming::kChunked, 0};
  checkBody(framing, message.substr(taken));
  return 0;
}
