// One client's connection and the one to the upstream server. See connection.h.
#include "connection.h"

#include <inttypes.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <new>
#include <utility>

#include "address.h"
#include "pool.h"
#include "velorin/ad_debug"

namespace {

// An element lies where the pages of its pool begin, behind the pool's header.
constexpr size_t kPoolHeader = sizeof(void*) == 4 ? 36 : 64;
static_assert(kPoolHeader % alignof(Connection) == 0, "elements of a pool are aligned for it");
Pool records;

constexpr int kDumpLevel = 3;
constexpr size_t kDumped = 64;  // bytes of a connection's first chunk

// While it lives, the log's connection filter applies to this client and server.
class Serving {
 public:
  Serving(const sockaddr_in& client, const sockaddr_in& server) {
    ad_current_client_ip = client.sin_addr.s_addr;
    ad_current_server_ip = server.sin_addr.s_addr;
  }
  ~Serving() {
    ad_current_client_ip = 0;
    ad_current_server_ip = 0;
  }
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;
};

// Chunks go out as they come in, and a peer that vanished is noticed at last. A socket that refuses
// these works without them.
void tune(int fd) {
  const int on = 1;
  (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  (void)setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

// The error that the kernel holds for a socket; 0 when there is none.
int pendingError(int fd) {
  int err = 0;
  socklen_t size = sizeof err;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &size) == 0 ? err : errno;
}

void resetOnClose(int fd) {
  const linger none = {1, 0};
  (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

}  // namespace

Connection::Side::Side(Connection* connection, EventLoop& loop, const char* its_name, Fd its_fd,
                       const sockaddr_in& its_address)
    : name(its_name),
      fd(std::move(its_fd)),
      address(its_address),
      watch(loop, fd.get(),
            [this, connection](uint32_t events) { connection->onEvents(this, events); }) {}

void Connection::reserve(int count, bool digests) {
  records.create(count, sizeof(Connection), /*secret=*/false);
  Relay::reserve(2 * count);
  if (digests) Digests::reserve(count);
}

void* Connection::operator new(size_t) {
  return records.take();
}

void Connection::operator delete(void* memory) noexcept {
  records.giveBack(memory);
}

Connection::Connection(EventLoop& loop, Fd client, const sockaddr_in& client_address, Fd upstream,
                       const sockaddr_in& upstream_address, const std::string& prefix, bool digests)
    : client_(this, loop, "client", std::move(client), client_address),
      upstream_(this, loop, "upstream", std::move(upstream), upstream_address) {
  tune(client_.fd.get());
  tune(upstream_.fd.get());
  if (digests) {
    digests_ = std::make_unique<Digests>();
    upstream_.input.setDigests(digests_.get());
  }
  if (prefix.empty()) return;
  playlists_ = std::make_unique<PlaylistFilter>(prefix, route());
  client_.input.setFilter(&playlists_->requests);
  upstream_.input.setFilter(&playlists_->responses);
}

void Connection::open(std::function<void()> on_end) {
  const Serving serving(client_.address, upstream_.address);
  on_end_ = std::move(on_end);
  AD_TRCE("opened %s\n", route().c_str());

  const auto* const to = reinterpret_cast<const sockaddr*>(&upstream_.address);
  const int err = connect(upstream_.fd.get(), to, sizeof upstream_.address) == 0 ? 0 : errno;
  // An interrupted connect goes on like one that was begun.
  connecting_ = err == EINPROGRESS || err == EINTR;
  if (connecting_)
    settle();
  else
    finishConnecting(err);
}

void Connection::abort(const char* reason) {
  const Serving serving(client_.address, upstream_.address);
  end(reason);
}

void Connection::onEvents(Side* side, uint32_t events) {
  if (ended_) return;
  const Serving serving(client_.address, upstream_.address);
  if (connecting_ && side == &upstream_) return finishConnecting(pendingError(upstream_.fd.get()));
  if (side->watch.wanted() == 0) return lookAfterIdle(side, events);

  // Input first: a side that was reset may have sent something before.
  Side* const other = side == &client_ ? &upstream_ : &client_;
  if ((events & ~EPOLLOUT) != 0 && side->input.wantsInput()) pump(side, other);
  if (!ended_ && (events & ~EPOLLIN) != 0 && other->input.wantsOutput()) pump(other, side);
  if (!ended_) settle();
}

void Connection::finishConnecting(int err) {
  connecting_ = false;
  if (err != 0) {
    AD_ERRO("connect %s: %s\n", route().c_str(), strerror(err));
    return fail(upstream_, err);
  }
  settle();
}

// Nothing is wanted from this side now, but errors and hang-ups are told all the same, and again
// until something is done about them.
void Connection::lookAfterIdle(Side* side, uint32_t events) {
  const int err = (events & EPOLLERR) != 0 ? pendingError(side->fd.get()) : 0;
  if (err != 0) return fail(*side, err);
  if ((events & EPOLLHUP) != 0) side->watch.mute();
}

void Connection::pump(Side* from, Side* to) {
  try {
    move(from, to);
  } catch (const std::bad_alloc&) {  // a filter may need memory
    fail(*from, ENOMEM);
  }
}

void Connection::move(Side* from, Side* to) {
  if (from->input.wantsInput()) {
    const int err = from->input.take(from->fd.get());
    if (err != 0) {
      from->input.flush(to->fd.get());
      return fail(*from, err);
    }
    logChunk(*from);
  }
  const int err = from->input.passOn(to->fd.get());
  if (err != 0) fail(*to, err);
}

// The first bytes of a connection, those of its client, are dumped: they tell what it is about.
void Connection::logChunk(const Side& from) const {
  const Relay& input = from.input;
  if (input.held() == 0) return;
  AD_DETL("%s: %zu bytes from %s\n", route().c_str(), input.held(), from.name);
  if (&from == &client_ && input.passedOn() == 0)
    AD_DUMP(kDumpLevel, input.chunk(), static_cast<int>(std::min(input.held(), kDumped)),
            route().c_str());
}

// Names the connection in the log.
std::string Connection::route() const {
  return addressText(client_.address) + " -> " + addressText(upstream_.address);
}

// Waits for what can happen next.
void Connection::settle() {
  if (client_.input.isFinished() && upstream_.input.isFinished()) return end("");
  int err = client_.watch.want(interestIn(client_, upstream_));
  if (err == 0) err = upstream_.watch.want(interestIn(upstream_, client_));
  if (err == 0) return;
  AD_ERRO("epoll_ctl %s: %s\n", route().c_str(), strerror(err));
  end(std::string("epoll_ctl: ") + strerror(err));
}

uint32_t Connection::interestIn(const Side& side, const Side& other) const {
  if (connecting_) return &side == &upstream_ ? uint32_t{EPOLLOUT} : 0;
  uint32_t events = 0;
  if (side.input.wantsInput()) events |= EPOLLIN;
  if (other.input.wantsOutput()) events |= EPOLLOUT;
  return events;
}

void Connection::fail(const Side& side, int err) {
  end(std::string(side.name) + ": " + strerror(err));
}

// Without a reason both directions have come to their end.
void Connection::end(const std::string& reason) {
  if (digests_)
    AD_TRCE("digests %s: %s of what the client got\n", route().c_str(), digests_->finish().c_str());
  AD_TRCE("closed %s: %" PRIu64 " bytes to upstream, %" PRIu64 " bytes to client%s%s\n",
          route().c_str(), client_.input.passedOn(), upstream_.input.passedOn(),
          reason.empty() ? "" : "; ", reason.c_str());
  ended_ = true;
  for (Side* side : {&client_, &upstream_}) {
    side->watch.mute();
    if (!reason.empty()) resetOnClose(side->fd.get());
    side->fd.reset();
  }
  on_end_();
}
