// Rewrites the playlists that pass through one connection, where it carries HTTP/1.x.
#ifndef TCP_PROXY_playlist_filter_
#define TCP_PROXY_playlist_filter_

#include <stddef.h>

#include <deque>
#include <string>
#include <string_view>
#include <utility>

#include "filter.h"
#include "http_body.h"
#include "http_head.h"
#include "playlist.h"

// What a request tells about the response to it.
struct ExpectedResponse {
  bool has_body;
  PlaylistKind kind;  // by the name that was asked for
};

// Reads the requests as they pass. At the first that it is not sure about it stops: there are no
// expected responses any more but for those before it.
class RequestFilter : public Filter {
 public:
  Portion look(const char* data, size_t size) override;

  // The responses that are still to come, in order.
  std::deque<ExpectedResponse>& expected() { return expected_; }

  // Leaves further requests alone.
  void stop() { stopped_ = true; }

 private:
  size_t lookAtHead(const char* data, size_t size);
  void onHead(const std::string& text);

  std::deque<ExpectedResponse> expected_;
  HttpHeadReader head_;
  HttpBody body_;
  bool stopped_ = false;
};

// Holds heads back until they are complete, and playlists; all else passes as it comes. From a
// response on that nobody asked for, or that it is not sure about, everything does. What is held is
// on the heap: unlike the chunks it shows in a core.
class ResponseFilter : public Filter {
 public:
  // `connection` names it in the log. The others must outlive this.
  ResponseFilter(RequestFilter* requests, const std::string& prefix, std::string connection)
      : requests_(*requests), prefix_(prefix), connection_(std::move(connection)) {}
  ~ResponseFilter() override;
  ResponseFilter(const ResponseFilter&) = delete;
  ResponseFilter& operator=(const ResponseFilter&) = delete;

  Portion look(const char* data, size_t size) override;
  void end() override;
  std::string_view output() const override { return std::string_view(output_).substr(sent_); }
  void sent(size_t size) override;

 private:
  enum Place { kHead, kBody, kPlaylist, kNoMoreHttp };

  Portion lookAtHead(const char* data, size_t size);
  Portion lookAtPlaylist(const char* data, size_t size);
  void onHead(const std::string& text);
  bool collectsPlaylist(const HttpHead& head, const ExpectedResponse& expected,
                        const HttpFraming& framing);
  void finishPlaylist();
  std::string rewritten() const;
  void giveUp();
  bool setRoom(size_t size);

  RequestFilter& requests_;
  const std::string& prefix_;
  const std::string connection_;
  Place place_ = kHead;
  HttpHeadReader head_;
  HttpBody body_;
  PlaylistKind kind_ = PlaylistKind::kNone;
  std::string playlist_;     // its head and what has come of its body
  size_t head_size_ = 0;     // of the playlist's head
  size_t length_place_ = 0;  // where the length stands in it
  size_t length_size_ = 0;   // characters
  size_t room_ = 0;          // what this one takes of the room for all playlists
  std::string output_;
  size_t sent_ = 0;  // bytes of the output
};

// Both directions of a connection.
struct PlaylistFilter {
  // `prefix` must outlive this; `connection` names it in the log.
  PlaylistFilter(const std::string& prefix, std::string connection)
      : responses(&requests, prefix, std::move(connection)) {}

  RequestFilter requests;
  ResponseFilter responses;
};

#endif  // TCP_PROXY_playlist_filter_
