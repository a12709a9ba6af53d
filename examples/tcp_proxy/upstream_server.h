// A web server that runs behind the proxy, for as long as the proxy does.
#ifndef TCP_PROXY_upstream_server_
#define TCP_PROXY_upstream_server_

#include <string>

#include "velorin/Launcher"

// Owns a running thttpd.
class UpstreamServer {
 public:
  // Where it listens: the launcher has one port for it.
  static constexpr char kAddress[] = "127.0.0.1:8008";

  // Starts it and waits until it listens, at most a minute. `directory` holds what it serves;
  // empty: the working directory. From here on SIGTERM and SIGINT no longer end this process: see
  // stopRequested. Throws an Exception when the server cannot be had, for which the log tells the
  // reason, unless such a stop came in between.
  explicit UpstreamServer(const std::string& directory);

  // Stops it and waits for its end: a second where it heeds SIGTERM, else two minutes.
  ~UpstreamServer();
  UpstreamServer(const UpstreamServer&) = delete;
  UpstreamServer& operator=(const UpstreamServer&) = delete;

  // Whether SIGTERM or SIGINT has come since.
  static bool stopRequested();

 private:
  Launcher_t* server_;  // null: stopped before it could be had
};

#endif  // TCP_PROXY_upstream_server_
