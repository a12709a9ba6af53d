// The service: accepts clients and connects each to its upstream server.
#ifndef TCP_PROXY_proxy_
#define TCP_PROXY_proxy_

#include <netinet/in.h>
#include <stdint.h>

#include <list>
#include <memory>
#include <string>

#include "connection.h"
#include "event_loop.h"
#include "fd.h"
#include "settings.h"
#include "summary.h"

// Owns the listening socket and all connections. From its construction on, SIGTERM and SIGINT are
// blocked and mean: stop. Where the settings say so SIGUSR2 means: crash. One per process.
class Proxy {
 public:
  // Throws std::system_error when it cannot listen.
  explicit Proxy(const Settings& settings);

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

  const Routes routes_;
  const std::string prefix_;
  const bool digests_;
  const size_t connections_max_;
  EventLoop loop_;
  Fd listener_;
  Watch listener_watch_;
  Fd signals_;
  Watch signals_watch_;
  Fd retry_;  // a timer that ends a pause
  Watch retry_watch_;
  Fd next_upstream_;  // the socket of the next connection
  std::list<std::unique_ptr<Connection>> connections_;
  std::list<std::unique_ptr<Connection>> ended_;
  Summary summary_;
  bool accepting_ = true;
  bool short_of_resources_ = false;
  bool stopping_ = false;
};

#endif  // TCP_PROXY_proxy_
