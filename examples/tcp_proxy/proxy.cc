// The service. See proxy.h.
#include "proxy.h"

#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <iterator>
#include <new>
#include <utility>

#include "crash.h"
#include "velorin/ad_debug"

namespace {

constexpr int kSocketType = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
constexpr int kAcceptsPerTurn = 64;  // so that a rush of clients does not keep others waiting
constexpr itimerspec kPause = {{0, 0}, {1, 0}};

Fd listenAt(const sockaddr_in& address) {
  Fd fd = opened(socket(AF_INET, kSocketType, 0), "socket");
  const int on = 1;
  succeeded(setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "setsockopt");
  succeeded(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  succeeded(listen(fd.get(), SOMAXCONN), "listen");
  return fd;
}

Fd receiveSignals(bool crash_on_signal) {
  sigset_t set;
  sigemptyset(&set);
  if (crash_on_signal) sigaddset(&set, SIGUSR2);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  succeeded(sigprocmask(SIG_BLOCK, &set, nullptr), "sigprocmask");
  return opened(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd");
}

// The proxy's own watches, without which it cannot go on.
void mustWant(Watch* watch, uint32_t events) {
  const int err = watch->want(events);
  if (err != 0) throw Exception(std::string("epoll_ctl: ") + strerror(err));
}

}  // namespace

Proxy::Proxy(const Settings& settings)
    : routes_(settings.routes),
      prefix_(settings.prefix),
      digests_(settings.digests),
      connections_max_(static_cast<size_t>(settings.connections)),
      listener_(listenAt(settings.listen)),
      listener_watch_(loop_, listener_.get(), [this](uint32_t) { acceptClients(); }),
      signals_(receiveSignals(settings.crash_on_signal)),
      signals_watch_(loop_, signals_.get(), [this](uint32_t) { onSignal(); }),
      retry_(opened(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create")),
      retry_watch_(loop_, retry_.get(), [this](uint32_t) { onRetry(); }) {
  for (Watch* watch : {&listener_watch_, &signals_watch_, &retry_watch_}) mustWant(watch, EPOLLIN);
  Connection::reserve(settings.connections, digests_);
}

sockaddr_in Proxy::address() const {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  succeeded(getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size),
            "getsockname");
  return address;
}

void Proxy::run() {
  while (!stopping_) {
    loop_.runOnce();
    if (ended_.empty()) continue;
    ended_.clear();
    resumeAccepting();
  }
  while (!connections_.empty()) connections_.front()->abort("stopped");
  ended_.clear();
  AD_TRCE("%s\n", summary_.text().c_str());
}

void Proxy::acceptClients() {
  for (int i = 0; i < kAcceptsPerTurn && accepting_; ++i) {
    const int err = acceptClient();
    if (err == EAGAIN) return;
    if (err == 0 || err == EINTR || err == ECONNABORTED) continue;
    pauseAccepting(err);
  }
}

// Returns: 0, or the errno of what failed.
int Proxy::acceptClient() {
  if (connections_.size() + ended_.size() >= connections_max_) return ENOBUFS;
  // The upstream socket is there before its client is accepted: when descriptors run out, clients
  // wait in the queue of the listening socket instead of being cut.
  if (!next_upstream_.isOpen()) next_upstream_ = Fd(socket(AF_INET, kSocketType, 0));
  if (!next_upstream_.isOpen()) return errno;

  sockaddr_in address = {};
  socklen_t size = sizeof address;
  Fd client(accept4(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size,
                    SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!client.isOpen()) return errno;

  try {
    connections_.push_back(
        std::make_unique<Connection>(loop_, std::move(client), address, std::move(next_upstream_),
                                     routes_.upstreamOf(address.sin_addr), prefix_, digests_));
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  short_of_resources_ = false;
  const auto connection = std::prev(connections_.end());
  (*connection)->open([this, connection] {
    summary_.add((*connection)->passedOn());
    ended_.splice(ended_.end(), connections_, connection);
  });
  return 0;
}

// A listening socket that cannot be served stays readable, so it is left alone until a connection
// has ended or the time is up.
void Proxy::pauseAccepting(int err) {
  if (!short_of_resources_) AD_ERRO("accept: %s; new clients have to wait\n", strerror(err));
  short_of_resources_ = true;
  accepting_ = false;
  mustWant(&listener_watch_, 0);
  succeeded(timerfd_settime(retry_.get(), 0, &kPause, nullptr), "timerfd_settime");
}

void Proxy::resumeAccepting() {
  if (accepting_) return;
  accepting_ = true;
  mustWant(&listener_watch_, EPOLLIN);
}

void Proxy::onRetry() {
  uint64_t expirations;
  if (read(retry_.get(), &expirations, sizeof expirations) > 0) resumeAccepting();
}

void Proxy::onSignal() {
  signalfd_siginfo info;
  if (read(signals_.get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return;
  if (info.ssi_signo == SIGUSR2) crash();
  AD_TRCE("%s: stopping with %zu connections open\n", strsignal(static_cast<int>(info.ssi_signo)),
          connections_.size());
  stopping_ = true;
}
