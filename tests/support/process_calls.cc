// Definitions that come before those of the system library. See process_calls.h.
#include "support/process_calls.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

ProcessCalls process_calls;

namespace {

template <typename Function>
Function* lookUp(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct RealCalls {
  decltype(fork)* start = lookUp<decltype(fork)>("fork");
  decltype(kill)* send = lookUp<decltype(kill)>("kill");
  decltype(waitpid)* reap = lookUp<decltype(waitpid)>("waitpid");
  decltype(nanosleep)* rest = lookUp<decltype(nanosleep)>("nanosleep");
  decltype(socket)* make_socket = lookUp<decltype(socket)>("socket");
  decltype(connect)* connect_to = lookUp<decltype(connect)>("connect");
  decltype(close)* close_fd = lookUp<decltype(close)>("close");
};

// The sanitizers' libraries make these calls before anything here is constructed.
const RealCalls& real() {
  static const RealCalls calls;
  return calls;
}

void record(const std::string& call) {
  if (process_calls.recording) process_calls.made.push_back(call);
}

bool fails(int err) {
  if (err == 0) return false;
  errno = err;
  return true;
}

std::string secondsText(const timespec& time) {
  char text[64];
  if (time.tv_nsec == 0)
    snprintf(text, sizeof text, "sleep %jd", static_cast<intmax_t>(time.tv_sec));
  else
    snprintf(text, sizeof text, "sleep %jd.%09ld", static_cast<intmax_t>(time.tv_sec),
             time.tv_nsec);
  return text;
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" pid_t fork() noexcept {
  record("fork");
  return fails(process_calls.fork_errno) ? -1 : real().start();
}

extern "C" int kill(pid_t pid, int number) noexcept {
  record("kill " + std::to_string(pid) + " " + std::to_string(number));
  if (!process_calls.on_kill) return real().send(pid, number);
  return fails(process_calls.on_kill(pid, number)) ? -1 : 0;
}

extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
  record("waitpid " + std::to_string(pid));
  return real().reap(pid, status, options);
}

extern "C" int nanosleep(const timespec* time, timespec* left) {
  record(secondsText(*time));
  if (process_calls.interrupted_sleeps > 0) {
    --process_calls.interrupted_sleeps;
    *left = {0, 400000000};
    errno = EINTR;
    return -1;
  }
  if (!process_calls.on_sleep) return real().rest(time, left);
  process_calls.on_sleep();
  return 0;
}

extern "C" int socket(int family, int type, int protocol) noexcept {
  return fails(process_calls.socket_errno) ? -1 : real().make_socket(family, type, protocol);
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t size) {
  if (process_calls.recording && address->sa_family == AF_INET) {
    sockaddr_in internet;
    memcpy(&internet, address, sizeof internet);
    record("connect " + std::to_string(ntohs(internet.sin_port)));
  }
  return fails(process_calls.connect_errno) ? -1 : real().connect_to(fd, address, size);
}

extern "C" int close(int fd) {
  const int result = real().close_fd(fd);
  return fails(process_calls.close_errno) ? -1 : result;
}

#pragma GCC visibility pop
