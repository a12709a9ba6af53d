// Rewrites the playlists that pass through one connection. See playlist_filter.h.
#include "playlist_filter.h"

#include <algorithm>

#include "velorin/ad_debug"

namespace {

constexpr size_t kMostExpected = 64;  // responses; a client that asks for more is left alone
constexpr size_t kLongestPlaylist = 1 << 20;
constexpr size_t kLongestRewritten = 4 << 20;

// All playlists that are held, of all connections. What would take more passes unchanged.
constexpr size_t kRoom = 32 << 20;
size_t room_taken = 0;

// Whether the first line may still become that of a response, so that it is worth waiting for.
bool mayBeResponse(std::string_view text) {
  constexpr std::string_view kStart = "HTTP/1.";
  const size_t size = std::min(text.size(), kStart.size());
  return text.substr(0, size) == kStart.substr(0, size);
}

bool isInformational(int status) {
  return status < 200;
}

bool endsWithItsHead(int status) {
  return isInformational(status) || status == 204 || status == 304;
}

}  // namespace

// ---- Requests ----

Filter::Portion RequestFilter::look(const char* data, size_t size) {
  size_t seen = 0;
  while (!stopped_ && seen < size) {
    if (body_.state() == HttpBody::kWithin)
      seen += body_.take(data + seen, size - seen);
    else
      seen += lookAtHead(data + seen, size - seen);
    if (body_.state() == HttpBody::kBroken) stop();
  }
  return {size, /*kept=*/false};
}

size_t RequestFilter::lookAtHead(const char* data, size_t size) {
  const size_t taken = head_.take(data, size);
  if (head_.state() == HttpHeadReader::kReading) return taken;
  const bool complete = head_.state() == HttpHeadReader::kComplete;
  const std::string text = head_.release();
  // An empty line in front of a request counts for nothing.
  if (complete && (text == "\r\n" || text == "\n")) return taken;
  if (complete)
    onHead(text);
  else
    stop();
  return taken;
}

void RequestFilter::onHead(const std::string& text) {
  const auto head = parseHttpHead(text);
  const auto line = head ? parseRequestLine(head->first_line) : std::nullopt;
  if (!line || line->method == "CONNECT" || expected_.size() == kMostExpected) return stop();
  const HttpFraming framing = framingOf(*head);
  if (framing.kind == HttpFraming::kUnclear) return stop();
  expected_.push_back({line->method != "HEAD", playlistOfName(line->target)});
  body_ = HttpBody(framing);
  // Whether the body follows is up to the server's answer.
  if (head->has("Expect")) stop();
}

// ---- Responses ----

ResponseFilter::~ResponseFilter() {
  (void)setRoom(0);
}

Filter::Portion ResponseFilter::look(const char* data, size_t size) {
  switch (place_) {
    case kHead:
      return lookAtHead(data, size);
    case kPlaylist:
      return lookAtPlaylist(data, size);
    case kBody: {
      const size_t count = body_.take(data, size);
      if (body_.state() == HttpBody::kBroken) giveUp();
      if (body_.state() == HttpBody::kComplete) place_ = kHead;
      return {count, /*kept=*/false};
    }
    case kNoMoreHttp:
      break;
  }
  return {size, /*kept=*/false};
}

Filter::Portion ResponseFilter::lookAtHead(const char* data, size_t size) {
  const bool begun = !head_.text().empty();
  if (!begun && requests_.expected().empty()) {
    giveUp();
    return {size, /*kept=*/false};
  }
  const size_t taken = head_.take(data, size);
  if (head_.state() == HttpHeadReader::kReading && mayBeResponse(head_.text()))
    return {taken, /*kept=*/true};

  const bool complete = head_.state() == HttpHeadReader::kComplete;
  std::string text = head_.release();
  if (complete)
    onHead(text);
  else
    giveUp();
  const bool kept = begun || place_ == kPlaylist;
  if (place_ == kPlaylist)
    playlist_ = std::move(text);
  else if (begun)
    output_ = std::move(text);
  return {taken, kept};
}

// Decides on what follows the head.
void ResponseFilter::onHead(const std::string& text) {
  const auto head = parseHttpHead(text);
  const auto status = head ? parseStatus(head->first_line) : std::nullopt;
  if (!status || *status == 101) return giveUp();
  if (isInformational(*status)) return;  // the response is still to come

  const ExpectedResponse expected = requests_.expected().front();
  requests_.expected().pop_front();
  if (!expected.has_body || endsWithItsHead(*status)) return;

  const HttpFraming framing = framingOf(*head);
  // A body without a length goes on to the end of the stream.
  if (framing.kind == HttpFraming::kUnclear || framing.kind == HttpFraming::kNothing)
    return giveUp();
  body_ = HttpBody(framing);
  if (body_.state() == HttpBody::kComplete) return;
  place_ = *status == 200 && collectsPlaylist(*head, expected, framing) ? kPlaylist : kBody;
  if (place_ == kBody) return;
  head_size_ = text.size();
  const std::string_view length = *head->only("Content-Length");
  length_place_ = static_cast<size_t>(length.data() - text.data());
  length_size_ = length.size();
}

bool ResponseFilter::collectsPlaylist(const HttpHead& head, const ExpectedResponse& expected,
                                      const HttpFraming& framing) {
  if (framing.kind != HttpFraming::kLength || framing.length > kLongestPlaylist) return false;
  if (head.has("Content-Encoding")) return false;
  kind_ = playlistOfType(head.only("Content-Type").value_or(""));
  if (kind_ == PlaylistKind::kNone) kind_ = expected.kind;
  if (kind_ == PlaylistKind::kNone) return false;
  return setRoom(static_cast<size_t>(framing.length));
}

Filter::Portion ResponseFilter::lookAtPlaylist(const char* data, size_t size) {
  const size_t count = body_.take(data, size);
  playlist_.append(data, count);
  if (body_.state() == HttpBody::kComplete) finishPlaylist();
  return {count, /*kept=*/true};
}

void ResponseFilter::finishPlaylist() {
  output_ = rewritten();
  if (!output_.empty() && setRoom(output_.size())) {
    AD_TRCE("%s: playlist rewritten, %zu bytes with its head to %zu\n", connection_.c_str(),
            playlist_.size(), output_.size());
  } else {
    AD_TRCE("%s: playlist left as it is, %zu bytes with its head\n", connection_.c_str(),
            playlist_.size());
    output_ = std::move(playlist_);
  }
  playlist_ = {};
  place_ = kHead;
}

// Empty when the playlist is refused.
std::string ResponseFilter::rewritten() const {
  const std::string_view body = std::string_view(playlist_).substr(head_size_);
  const auto links = prefixLinks(kind_, body, prefix_, kLongestRewritten);
  if (!links) return {};
  std::string message = playlist_.substr(0, head_size_);
  message.replace(length_place_, length_size_, std::to_string(links->size()));
  return message + *links;
}

void ResponseFilter::end() {
  output_ = place_ == kPlaylist ? std::move(playlist_) : head_.release();
  giveUp();
}

void ResponseFilter::sent(size_t size) {
  sent_ += size;
  if (sent_ < output_.size()) return;
  output_ = {};
  sent_ = 0;
  (void)setRoom(0);
}

// From now on everything passes.
void ResponseFilter::giveUp() {
  place_ = kNoMoreHttp;
  requests_.stop();
}

// Returns: false, with nothing changed, when there is not so much room.
bool ResponseFilter::setRoom(size_t size) {
  if (size > room_ && size - room_ > kRoom - room_taken) return false;
  room_taken = room_taken - room_ + size;
  room_ = size;
  return true;
}
