// Waiting for many descriptors on one thread. See event_loop.h.
#include "event_loop.h"

#include <utility>

namespace {

constexpr int kBatch = 64;  // events taken at a time

}  // namespace

EventLoop::EventLoop() : epoll_(opened(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {}

void EventLoop::runOnce() {
  epoll_event events[kBatch];
  const int count = epoll_wait(epoll_.get(), events, kBatch, -1);
  if (count < 0 && errno == EINTR) return;
  succeeded(count, "epoll_wait");
  for (int i = 0; i < count; ++i)
    static_cast<Watch*>(events[i].data.ptr)->callback_(events[i].events);
}

Watch::Watch(EventLoop& loop, int fd, Callback callback)
    : loop_(loop), fd_(fd), callback_(std::move(callback)) {}

Watch::~Watch() {
  mute();
}

int Watch::want(uint32_t events) {
  if (events == wanted_ && (registered_ || muted_)) return 0;
  epoll_event event = {};
  event.events = events;
  event.data.ptr = this;
  const int operation = registered_ ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (epoll_ctl(loop_.epoll_.get(), operation, fd_, &event) != 0) return errno;
  wanted_ = events;
  registered_ = true;
  muted_ = false;
  return 0;
}

void Watch::mute() {
  wanted_ = 0;
  muted_ = true;
  if (!registered_) return;
  (void)epoll_ctl(loop_.epoll_.get(), EPOLL_CTL_DEL, fd_, nullptr);
  registered_ = false;
}
