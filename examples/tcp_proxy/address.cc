// IPv4 socket addresses and their text. See address.h.
#include "address.h"

#include <arpa/inet.h>

#include <charconv>

std::optional<sockaddr_in> parseAddress(const std::string& text) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return std::nullopt;

  sockaddr_in address = {};
  address.sin_family = AF_INET;
  if (inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) != 1)
    return std::nullopt;

  const char* const end = text.data() + text.size();
  uint16_t port = 0;
  const auto number = std::from_chars(text.data() + colon + 1, end, port);
  if (number.ec != std::errc() || number.ptr != end) return std::nullopt;
  address.sin_port = htons(port);
  return address;
}

std::string addressText(const sockaddr_in& address) {
  char host[INET_ADDRSTRLEN];
  (void)inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
  return std::string(host) + ':' + std::to_string(ntohs(address.sin_port));
}
