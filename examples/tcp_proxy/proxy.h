// The service: accepts clients and connects each to the upstream server.
#ifndef TCP_PROXY_proxy_
#define TCP_PROXY_proxy_

#include <netinet/in.h>
#include <stdint.h>

#include <list>

#include "connection.h"
#include "event_loop.h"
#include "fd.h"

// Owns the listening socket and all connections. From its construction on, SIGTERM and SIGINT are
// blocked and mean: stop.
class Proxy {
 public:
  // Throws std::system_error when it cannot listen.
  Proxy(const sockaddr_in& listen, const sockaddr_in& upstream);

  // Where it listens.
  sockaddr_in address() const;

  // Serves until it is told to stop, then ends the connections that are open. Throws
  // std::system_error when it cannot go on.
  void run();

 private:
  void acceptClients();
  int acceptClient();
  void pauseAccepting(int err);
  void resumeAccepting();
  void onRetry();
  void onSignal();

  const sockaddr_in upstream_;
  EventLoop loop_;
  Fd listener_;
  Watch listener_watch_;
  Fd signals_;
  Watch signals_watch_;
  Fd retry_;  // a timer that ends a pause
  Watch retry_watch_;
  Fd next_upstream_;  // the socket of the next connection
  std::list<Connection> connections_;
  std::list<Connection> ended_;
  bool accepting_ = true;
  bool short_of_resources_ = false;
  bool stopping_ = false;
};

#endif  // TCP_PROXY_proxy_
