// Waiting for many descriptors on one thread.
#ifndef TCP_PROXY_event_loop_
#define TCP_PROXY_event_loop_

#include <stdint.h>
#include <sys/epoll.h>

#include <functional>

#include "fd.h"

// Hands events to the watches that asked for them. One thread.
class EventLoop {
 public:
  // Throws std::system_error.
  EventLoop();

  // Waits until something happens and calls the watches concerned; returns without a call when a
  // signal comes first. Throws std::system_error.
  void runOnce();

 private:
  friend class Watch;
  Fd epoll_;
};

// One descriptor's place in the loop. Must not be destroyed by a callback: the loop may hold
// another event for it.
class Watch {
 public:
  // Called with what happened: EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLHUP. Level-triggered.
  using Callback = std::function<void(uint32_t events)>;

  // Watches `fd` from the first want on.
  Watch(EventLoop& loop, int fd, Callback callback);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Sets what to wait for: EPOLLIN, EPOLLOUT, both or 0. EPOLLERR and EPOLLHUP are told always.
  // Returns: 0, or the errno of the failed call.
  int want(uint32_t events);
  uint32_t wanted() const { return wanted_; }

  // Nothing is told, not even a hang-up, until something is wanted again. Called before the
  // descriptor is closed.
  void mute();

 private:
  friend class EventLoop;
  EventLoop& loop_;
  int fd_;
  Callback callback_;
  uint32_t wanted_ = 0;
  bool registered_ = false;
  bool muted_ = false;
};

#endif  // TCP_PROXY_event_loop_
