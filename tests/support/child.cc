// Running code and programs in child processes. See child.h.
#include "support/child.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {  // which glibc 2.36 forgets
#include <sys/pidfd.h>
}

#include <chrono>
#include <ostream>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

int milliseconds_left(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + strerror(errno));
}

}  // namespace

int ChildResult::exitCode() const {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int ChildResult::signal() const {
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

std::ostream& operator<<(std::ostream& to, const ChildResult& result) {
  if (result.timed_out) to << "timed out; ";
  if (result.signal() != 0) to << "ended by signal " << result.signal();
  if (result.exitCode() >= 0) to << "exit status " << result.exitCode();
  return to << "\n--- standard output ---\n"
            << result.out << "\n--- standard error ---\n"
            << result.err;
}

Child::Child(const std::vector<std::string>& argv, const std::vector<std::string>& environment) {
  start([&] {
    for (const std::string& text : environment) {
      const size_t equals = text.find('=');
      setenv(text.substr(0, equals).c_str(), text.substr(equals + 1).c_str(), 1);
    }
    std::vector<char*> args;
    for (const std::string& text : argv) args.push_back(const_cast<char*>(text.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    fprintf(stderr, "%s: %s\n", args[0], strerror(errno));
    _exit(127);
  });
}

Child::Child(const std::function<void()>& body) {
  start([&] {
    body();
    // Not _exit: leak checks and coverage counters run at exit.
    exit(testing::Test::HasFailure() ? 1 : 0);
  });
}

void Child::start(const std::function<void()>& in_child) {
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) fail("pipe");
  fflush(nullptr);
  pid_ = fork();
  if (pid_ < 0) fail("fork");
  if (pid_ == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    in_child();
    _exit(0);
  }
  setpgid(pid_, pid_);
  close(out[1]);
  close(err[1]);
  out_fd_ = out[0];
  err_fd_ = err[0];
  for (const int fd : {out_fd_, err_fd_}) fcntl(fd, F_SETFL, O_NONBLOCK);
  pidfd_ = pidfd_open(pid_, 0);
  if (pidfd_ < 0) fail("pidfd_open");
}

Child::~Child() {
  if (!ended_) {
    killpg(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
  }
  for (const int fd : {pidfd_, out_fd_, err_fd_})
    if (fd >= 0) close(fd);
}

void Child::signal(int number) const {
  kill(pid_, number);
}

bool Child::drain(int* fd, std::string* to) {
  char room[65536];
  while (*fd >= 0) {
    const ssize_t count = read(*fd, room, sizeof room);
    if (count > 0) {
      to->append(room, static_cast<size_t>(count));
    } else if (count == 0) {
      close(*fd);
      *fd = -1;
    } else if (errno != EINTR) {
      break;
    }
  }
  return *fd >= 0;
}

bool Child::pump(int milliseconds) {
  pollfd fds[] = {{pidfd_, POLLIN, 0}, {out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
  (void)poll(fds, 3, milliseconds);
  const bool gone = (fds[0].revents & POLLIN) != 0;
  // The pipes are read after the end was seen, so that nothing is missed.
  drain(&out_fd_, &result_.out);
  drain(&err_fd_, &result_.err);
  return !gone;
}

bool Child::waitForText(const std::string& stream, const std::string& text, int seconds) {
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  bool alive = true;
  while (stream.find(text) == std::string::npos) {
    const int left = milliseconds_left(deadline);
    if (!alive || left == 0) {
      ADD_FAILURE() << "the child " << (alive ? "did not write" : "ended before it wrote") << " \""
                    << text << "\"\n"
                    << result_;
      return false;
    }
    alive = pump(left);
  }
  return true;
}

bool Child::waitForOut(const std::string& text, int seconds) {
  return waitForText(result_.out, text, seconds);
}

bool Child::waitForErr(const std::string& text, int seconds) {
  return waitForText(result_.err, text, seconds);
}

ChildResult Child::wait(int seconds) {
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  while (!ended_ && pump(milliseconds_left(deadline))) {
    if (milliseconds_left(deadline) > 0) continue;
    ADD_FAILURE() << "the child ran for more than " << seconds << " s";
    result_.timed_out = true;
    killpg(pid_, SIGKILL);
    break;
  }
  if (!ended_) {
    while (waitpid(pid_, &result_.status, 0) < 0 && errno == EINTR) continue;
    ended_ = true;
    drain(&out_fd_, &result_.out);
    drain(&err_fd_, &result_.err);
  }
  return result_;
}

ChildResult runProgram(const std::vector<std::string>& argv,
                       const std::vector<std::string>& environment, int seconds) {
  return Child(argv, environment).wait(seconds);
}

ChildResult runInChild(const std::function<void()>& body, int seconds) {
  return Child(body).wait(seconds);
}

std::string errorsOf(const std::function<void()>& body, int seconds) {
  const ChildResult result = runInChild(body, seconds);
  EXPECT_EQ(result.exitCode(), 0) << result;
  return result.err;
}
