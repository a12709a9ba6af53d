// One direction of a connection. See relay.h.
#include "relay.h"

#include <errno.h>
#include <sys/socket.h>

#include "pool.h"

namespace {

constexpr size_t kChunk = 16384;
Pool chunks;

// The errno of a failed call; 0 when it only has to be made again later.
int failureOf(int err) {
  return err == EAGAIN ? 0 : err;
}

}  // namespace

void Relay::reserve(int count) {
  chunks.create(count, kChunk, /*secret=*/true);
}

Relay::Relay() : chunk_(static_cast<char*>(chunks.take())) {}

Relay::~Relay() {
  chunks.giveBack(chunk_);
}

int Relay::take(int from) {
  ssize_t count;
  do {
    count = recv(from, chunk_, kChunk, 0);
  } while (count < 0 && errno == EINTR);
  if (count < 0) return failureOf(errno);
  input_ended_ = count == 0;
  begin_ = 0;
  end_ = static_cast<size_t>(count);
  return 0;
}

int Relay::passOn(int to) {
  for (std::string_view bytes = next(); !bytes.empty(); bytes = next()) {
    const ssize_t count = send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failureOf(errno);
    if (digests_ != nullptr) digests_->add(bytes.substr(0, static_cast<size_t>(count)));
    sent(static_cast<size_t>(count));
  }
  if (!input_ended_ || finished_) return 0;
  if (shutdown(to, SHUT_WR) != 0) return errno;
  finished_ = true;
  return 0;
}

void Relay::flush(int to) {
  if (filter_ == nullptr || wantsOutput()) return;
  filter_->end();
  (void)passOn(to);
}

// What is to be sent next; empty when there is nothing. With an interruption in between it is asked
// for again.
std::string_view Relay::next() {
  if (filter_ == nullptr) return {chunk(), held()};
  if (passing_ == 0 && filter_->output().empty() && begin_ == end_ && input_ended_) filter_->end();
  while (passing_ == 0 && filter_->output().empty() && begin_ != end_) {
    const Filter::Portion portion = filter_->look(chunk(), held());
    if (portion.kept)
      begin_ += portion.size;
    else
      passing_ = portion.size;
  }
  return passing_ > 0 ? std::string_view(chunk(), passing_) : filter_->output();
}

void Relay::sent(size_t size) {
  passed_on_ += size;
  if (filter_ != nullptr && passing_ == 0) return filter_->sent(size);
  begin_ += size;
  if (filter_ != nullptr) passing_ -= size;
}
