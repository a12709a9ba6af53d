// Which upstream server serves which client. See routes.h.
#include "routes.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <optional>

#include "address.h"
#include "velorin/Exception"
#include "velorin/Properties"

namespace {

constexpr char kDefault[] = "default";
constexpr int kWholeAddress = 32;

uint32_t maskOf(int length) {
  return length == 0 ? 0 : ~uint32_t{0} << (kWholeAddress - length);
}

bool holds(const Route& route, uint32_t client) {
  return (client & maskOf(route.length)) == route.network;
}

std::string nameOf(const Route& route) {
  if (route.length == 0) return kDefault;
  const in_addr address = {htonl(route.network)};
  char text[INET_ADDRSTRLEN];
  (void)inet_ntop(AF_INET, &address, text, sizeof text);
  return std::string(text) + '/' + std::to_string(route.length);
}

std::optional<int> parseLength(const std::string& text) {
  const char* const end = text.data() + text.size();
  unsigned length = 0;
  const auto number = std::from_chars(text.data(), end, length);
  if (number.ec != std::errc() || number.ptr != end || length > kWholeAddress) return std::nullopt;
  return static_cast<int>(length);
}

// The network that a key names; the upstream is still to be filled in.
std::optional<Route> parseNetwork(const std::string& key) {
  if (key == kDefault) return Route{0, 0, {}};
  const size_t slash = key.find('/');
  in_addr address = {};
  if (inet_pton(AF_INET, key.substr(0, slash).c_str(), &address) != 1) return std::nullopt;
  const std::optional<int> length =
      slash == std::string::npos ? kWholeAddress : parseLength(key.substr(slash + 1));
  if (!length) return std::nullopt;
  return Route{ntohl(address.s_addr), *length, {}};
}

// Throws an Exception that says what is wrong.
Route parseRoute(const std::string& key, const std::string& value) {
  const std::optional<Route> network = parseNetwork(key);
  if (!network) throw Exception("not an IPv4 address, network or \"default\": \"" + key + '"');
  if (!holds(*network, network->network))
    throw Exception("bits are set behind the network's length: \"" + key + '"');
  const std::optional<sockaddr_in> upstream = parseAddress(value);
  if (!upstream || upstream->sin_port == 0)
    throw Exception("not an IPv4 address and port for \"" + key + "\": \"" + value + '"');
  return Route{network->network, network->length, *upstream};
}

velorin::Properties propertiesOf(const std::string& file) {
  std::ifstream stream(file);
  if (!stream) throw Exception(file + ": " + strerror(errno));
  velorin::Properties properties;
  properties.load(stream);
  // A load that stopped before the end says nothing; the routes that it left out would be missed.
  if (stream.bad()) throw Exception(file + ": cannot be read");
  if (!stream.eof()) throw Exception(file + ": a line is longer than 1023 characters");
  return properties;
}

}  // namespace

void Routes::load(const std::string& file) {
  velorin::Properties properties = propertiesOf(file);
  for (const std::string& key : properties.getKeys()) {
    try {
      insert(parseRoute(key, properties.get(key)));
    } catch (const Exception& e) {
      throw Exception(file + ": " + e.details());
    }
  }
}

void Routes::addDefault(const sockaddr_in& upstream) {
  if (!hasDefault()) insert({0, 0, upstream});
}

bool Routes::hasDefault() const {
  return !routes_.empty() && routes_.back().length == 0;
}

const sockaddr_in& Routes::upstreamOf(in_addr client) const {
  const uint32_t address = ntohl(client.s_addr);
  const auto route = std::find_if(routes_.begin(), routes_.end(),
                                  [=](const Route& known) { return holds(known, address); });
  return route->upstream;
}

std::string Routes::report() const {
  std::string lines;
  for (const Route& route : routes_)
    lines += "route " + nameOf(route) + " -> " + addressText(route.upstream) + '\n';
  return lines;
}

// Throws an Exception for a network that there is a route for.
void Routes::insert(const Route& route) {
  const auto is_before = [](const Route& a, const Route& b) {
    return a.length != b.length ? a.length > b.length : a.network < b.network;
  };
  const auto place = std::lower_bound(routes_.begin(), routes_.end(), route, is_before);
  if (place != routes_.end() && !is_before(route, *place))
    throw Exception("two routes for " + nameOf(route));
  routes_.insert(place, route);
}
