// What a service manager hands over, and what it wants to hear. See service_manager.h.
#include "service_manager.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "say.h"

namespace {

constexpr int kFirstDescriptor = 3;
constexpr long kDescriptorsMax = 1024;

// The decimal number that an environment variable holds; 0 when it holds none.
long numberFrom(const char* name) {
  const char* const text = getenv(name);
  if (text == nullptr) return 0;
  char* end;
  const long number = strtol(text, &end, 10);
  return *end == '\0' && number > 0 ? number : 0;
}

int socketOption(int fd, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

// Returns: the path that a local datagram socket is bound at; empty when `fd` is not such a socket.
std::string boundPath(int fd) {
  if (socketOption(fd, SO_DOMAIN) != AF_UNIX || socketOption(fd, SO_TYPE) != SOCK_DGRAM) return "";
  sockaddr_un address = {};
  socklen_t size = sizeof address;
  // LCOV_EXCL_BR_NEXT: it is a socket
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) return "";
  return {address.sun_path, strnlen(address.sun_path, sizeof address.sun_path)};
}

// Returns: null, or why the socket is not the one that was asked for.
const char* adoptOne(int fd, LogSocket* log, LogSocket* special) {
  if (fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) return strerror(errno);
  const std::string path = boundPath(fd);
  if (path.empty()) return "it is no datagram socket that is bound at a path";
  LogSocket* const wanted = log->isAt(path.c_str())                           ? log
                            : special->named() && special->isAt(path.c_str()) ? special
                                                                              : nullptr;
  if (wanted == nullptr) return "neither --base nor --special asks for its path";
  if (wanted->fd() >= 0) return "there is another one at its path";
  wanted->adopt(fd);
  return nullptr;
}

// The name that the service manager gave to the socket with this index; empty when it gave none.
std::string nameOf(int index) {
  const char* const names = getenv("LISTEN_FDNAMES");
  std::string rest = names != nullptr ? names : "";
  for (; index > 0; --index) {
    const size_t colon = rest.find(':');
    if (colon == std::string::npos) return "";
    rest.erase(0, colon + 1);
  }
  return rest.substr(0, rest.find(':'));
}

}  // namespace

bool adoptSockets(LogSocket* log, LogSocket* special) {
  if (numberFrom("LISTEN_PID") != getpid()) return true;
  const int count = static_cast<int>(std::min(numberFrom("LISTEN_FDS"), kDescriptorsMax));
  for (int i = 0; i < count; ++i) {
    const int fd = kFirstDescriptor + i;
    const char* const why = adoptOne(fd, log, special);
    if (why == nullptr) continue;
    say("cannot use the socket handed over as descriptor %d (%s): %s", fd, nameOf(i).c_str(), why);
    return false;
  }
  return true;
}

void tellServiceManager(const char* state) {
  const char* const path = getenv("NOTIFY_SOCKET");
  if (path == nullptr) return;
  const size_t len = strlen(path);
  sockaddr_un to = {AF_UNIX, ""};
  // A name in the abstract space begins with "@".
  if ((path[0] != '/' && path[0] != '@') || len >= sizeof to.sun_path) return;
  memcpy(to.sun_path, path, len);
  if (path[0] == '@') to.sun_path[0] = '\0';
  const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len);
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;  // LCOV_EXCL_BR_LINE: only without descriptors
  // Nobody is left to tell when it does not listen.
  (void)sendto(fd, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to),
               size);
  (void)close(fd);
}
