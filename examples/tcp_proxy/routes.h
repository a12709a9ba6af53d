// Which upstream server serves which client.
#ifndef TCP_PROXY_routes_
#define TCP_PROXY_routes_

#include <netinet/in.h>
#include <stdint.h>

#include <string>
#include <vector>

// Clients of one network and the server for them.
struct Route {
  uint32_t network;  // host byte order
  int length;        // so many leading bits of an address are the network's, 0 to 32
  sockaddr_in upstream;
};

class Routes {
 public:
  // Adds those of a properties file: the key is the address of a client, "A.B.C.D", or of a
  // network, "A.B.C.D/LENGTH", or "default"; the value is the server, "A.B.C.D:PORT". Throws an
  // Exception that says what is wrong.
  void load(const std::string& file);

  // The server for clients that no other route is for; nothing changes when there is one.
  void addDefault(const sockaddr_in& upstream);
  bool hasDefault() const;

  // By the route of the longest network that the client is in. There must be a default.
  const sockaddr_in& upstreamOf(in_addr client) const;

  // A line for each route, in the order in which they are tried.
  std::string report() const;

 private:
  void insert(const Route& route);

  std::vector<Route> routes_;  // longer networks first
};

#endif  // TCP_PROXY_routes_
