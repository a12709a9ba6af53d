// One direction of a connection: bytes taken from one socket and passed on to another.
#ifndef TCP_PROXY_relay_
#define TCP_PROXY_relay_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// Holds one chunk at a time. Nothing more is taken before the chunk has left, so that a slow
// receiver slows its sender down instead of filling memory. Sockets are non-blocking.
class Relay {
 public:
  bool wantsInput() const { return begin_ == end_ && !input_ended_; }
  bool wantsOutput() const { return begin_ != end_; }
  // The end of the input was passed on, too.
  bool isFinished() const { return finished_; }
  uint64_t passedOn() const { return passed_on_; }

  // Takes the next chunk, or the end of the input, from `from`; only when input is wanted.
  // Returns: 0, also when there is nothing yet; the errno of the failed call.
  int take(int from);

  // Passes on what `to` accepts and, when that was all, the end of the input.
  // Returns: as above.
  int passOn(int to);

  // The chunk that is held, and its size.
  const char* chunk() const { return chunk_ + begin_; }
  size_t held() const { return end_ - begin_; }

 private:
  static constexpr size_t kChunk = 16384;

  size_t begin_ = 0;
  size_t end_ = 0;
  uint64_t passed_on_ = 0;
  bool input_ended_ = false;
  bool finished_ = false;
  char chunk_[kChunk];
};

#endif  // TCP_PROXY_relay_
