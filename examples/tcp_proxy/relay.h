// One direction of a connection: bytes taken from one socket and passed on to another.
#ifndef TCP_PROXY_relay_
#define TCP_PROXY_relay_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string_view>

#include "digests.h"
#include "filter.h"

// Holds one chunk at a time. Nothing more is taken before the chunk has left, so that a slow
// receiver slows its sender down instead of filling memory. Sockets are non-blocking.
class Relay {
 public:
  // Makes room for the chunks of `count` relays; a core that a crash leaves does not show them.
  // Called once, before there are any. Throws Exception.
  static void reserve(int count);

  // Throws std::bad_alloc when there are as many as there is room for.
  Relay();
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // Lets `filter`, which must live as long as bytes are moved, look at what is passed on. Called
  // before the first.
  void setFilter(Filter* filter) { filter_ = filter; }

  // Adds what is passed on to `digests`, which must live as long. Called before the first.
  void setDigests(Digests* digests) { digests_ = digests; }

  bool wantsInput() const { return !wantsOutput() && !input_ended_; }
  bool wantsOutput() const {
    return begin_ != end_ || (filter_ != nullptr && !filter_->output().empty());
  }
  // The end of the input was passed on, too.
  bool isFinished() const { return finished_; }
  uint64_t passedOn() const { return passed_on_; }

  // Takes the next chunk, or the end of the input, from `from`; only when input is wanted.
  // Returns: 0, also when there is nothing yet; the errno of the failed call.
  int take(int from);

  // Passes on what `to` accepts and, when that was all, the end of the input.
  // Returns: as above.
  int passOn(int to);

  // Passes on what the filter has kept so far, as far as `to` accepts it at once: for an input that
  // breaks off.
  void flush(int to);

  // The chunk that is held, and its size.
  const char* chunk() const { return chunk_ + begin_; }
  size_t held() const { return end_ - begin_; }

 private:
  std::string_view next();
  void sent(size_t size);

  Filter* filter_ = nullptr;
  Digests* digests_ = nullptr;
  size_t passing_ = 0;  // bytes of the chunk that its filter has let pass
  size_t begin_ = 0;
  size_t end_ = 0;
  uint64_t passed_on_ = 0;
  bool input_ended_ = false;
  bool finished_ = false;
  char* const chunk_;
};

#endif  // TCP_PROXY_relay_
