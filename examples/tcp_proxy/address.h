// IPv4 socket addresses and their text, "127.0.0.1:8080".
#ifndef TCP_PROXY_address_
#define TCP_PROXY_address_

#include <netinet/in.h>

#include <optional>
#include <string>

// Returns: nothing unless `text` is a dotted quad, a colon and a port from 0 to 65535.
std::optional<sockaddr_in> parseAddress(const std::string& text);

std::string addressText(const sockaddr_in& address);

#endif  // TCP_PROXY_address_
