// One client's connection and the one to the upstream server that is opened for it.
#ifndef TCP_PROXY_connection_
#define TCP_PROXY_connection_

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>

#include "digests.h"
#include "event_loop.h"
#include "fd.h"
#include "playlist_filter.h"
#include "relay.h"

// Owns both sockets. Passes bytes on in both directions, each until its sender ends it; an error on
// either side ends both with a reset, so that nobody takes a transfer that was cut for a complete
// one. The log lines that it writes belong to its client and server addresses.
class Connection {
 public:
  // Makes room for `count` connections, with digests where they are wanted. Called once, before
  // there are any. Throws Exception.
  static void reserve(int count, bool digests);

  // From that room; throws std::bad_alloc when it is used up.
  static void* operator new(size_t size);
  static void operator delete(void* memory) noexcept;

  // Both sockets are non-blocking; `upstream` is not connected yet. Links in playlists get the
  // `prefix`, which must outlive this; an empty one leaves them alone. With `digests` those of what
  // the client got are logged in the end.
  Connection(EventLoop& loop, Fd client, const sockaddr_in& client_address, Fd upstream,
             const sockaddr_in& upstream_address, const std::string& prefix, bool digests);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Starts to connect to the upstream server. `on_end` is called once, after both sockets were
  // closed; it must leave the object alive until the loop's runOnce is over.
  void open(std::function<void()> on_end);

  // Ends it now.
  void abort(const char* reason);

  // Bytes so far, in both directions.
  uint64_t passedOn() const { return client_.input.passedOn() + upstream_.input.passedOn(); }

 private:
  struct Side {
    Side(Connection* connection, EventLoop& loop, const char* its_name, Fd its_fd,
         const sockaddr_in& its_address);

    const char* const name;
    Fd fd;
    const sockaddr_in address;
    Watch watch;
    Relay input;  // what comes from this side
  };

  void onEvents(Side* side, uint32_t events);
  void finishConnecting(int err);
  void lookAfterIdle(Side* side, uint32_t events);
  void pump(Side* from, Side* to);
  void move(Side* from, Side* to);
  void settle();
  uint32_t interestIn(const Side& side, const Side& other) const;
  void logChunk(const Side& from) const;
  std::string route() const;
  void fail(const Side& side, int err);
  void end(const std::string& reason);

  Side client_;
  Side upstream_;
  std::unique_ptr<PlaylistFilter> playlists_;  // null: bytes pass unseen
  std::unique_ptr<Digests> digests_;           // null: not wanted
  std::function<void()> on_end_;
  bool connecting_ = false;
  bool ended_ = false;
};

#endif  // TCP_PROXY_connection_
