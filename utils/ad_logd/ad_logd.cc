// ad_logd, the local log daemon: one line of output for every datagram.
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <initializer_list>
#include <iterator>

#include "line_output.h"
#include "log_line.h"
#include "log_socket.h"
#include "options.h"
#include "say.h"
#include "service_manager.h"
#include "syslog_forward.h"

namespace {

constexpr int kBatch = 1024;               // datagrams of one socket, more than a queue holds
constexpr int kRetryMilliseconds = 1000;   // between attempts to write after an error
constexpr int kLookMilliseconds = 200;     // between looks at the records of former sockets
constexpr int kFinishMilliseconds = 5000;  // a blocked output gets to take the last lines

int64_t milliseconds() {
  timespec time;
  (void)clock_gettime(CLOCK_MONOTONIC, &time);
  return int64_t{1000} * time.tv_sec + time.tv_nsec / 1000000;
}

class Daemon {
 public:
  explicit Daemon(const Options& options)
      : log_(options.log),
        special_(options.special),
        lines_(options.format, options.utc),
        syslog_(options.syslog) {}

  // Returns: false, having said why, when the daemon cannot do its work.
  bool open(const char* output);

  // Works until a signal ends it.
  void run();

 private:
  static void ignoreSignals();
  bool openSockets();
  bool openSignals();
  bool hasFormers() const { return log_.hasFormers() || special_.hasFormers(); }
  void sayListening() const;
  void sayCounts() const;
  void keepFormersInStep();
  int patience() const;
  void wait();
  bool receiveAll();
  bool receive(const LogSocket& socket);
  bool makeRoom();
  void take(const char* bytes, size_t size, bool special);
  void tellLoss();
  void flush();
  void handleSignal(uint32_t number);
  void finish();
  void finishOutput();
  void finishForward();

  LogSocket log_;
  LogSocket special_;
  LineMaker lines_;
  LineOutput output_;
  const bool syslog_;
  SyslogForward forward_;
  int signals_ = -1;
  bool stopping_ = false;
  int64_t next_look_ = 0;  // at the records of former sockets, in milliseconds
  uint64_t received_ = 0;
  uint64_t malformed_ = 0;
  uint64_t failed_ = 0;  // lines that were not written
  uint64_t untold_ = 0;  // of these, the ones that no line of the output tells of yet
  char datagram_[kDatagramMax];
};

bool Daemon::open(const char* output) {
  ignoreSignals();
  if (output_.open(output) && openSockets() && openSignals()) {
    if (syslog_) forward_.open(&log_, &special_);
    sayListening();
    tellServiceManager("READY=1");
    return true;
  }
  log_.retire();
  special_.retire();
  return false;
}

bool Daemon::openSockets() {
  if (!adoptSockets(&log_, &special_)) return false;
  // Both before either is opened: a new socket may get the record that the other one had.
  log_.recall();
  if (special_.named()) special_.recall();
  if (!log_.open() || (special_.named() && !special_.open())) return false;
  log_.followFormers(special_);
  special_.followFormers(log_);
  return true;
}

// Errors of writing are handled where they occur; signal 10 reloads the settings of the processes
// that log and may well be sent to all of a user's processes.
void Daemon::ignoreSignals() {
  for (const int number : {SIGPIPE, SIGXFSZ, SIGUSR1}) (void)signal(number, SIG_IGN);
}

bool Daemon::openSignals() {
  sigset_t handled;
  (void)sigemptyset(&handled);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR2}) (void)sigaddset(&handled, number);
  (void)sigprocmask(SIG_BLOCK, &handled, nullptr);
  signals_ = signalfd(-1, &handled, SFD_NONBLOCK | SFD_CLOEXEC);
  // LCOV_EXCL_BR_NEXT: only without descriptors
  if (signals_ < 0) say("cannot receive signals: %s", strerror(errno));
  return signals_ >= 0;
}

void Daemon::sayListening() const {
  char log[kDescriptionMax];
  char special[kDescriptionMax] = "";
  log_.describe(log);
  if (special_.named()) special_.describe(special);
  say("listening at %s%s%s", log, special_.named() ? " and " : "", special);
}

void Daemon::sayCounts() const {
  char forward[64] = "";
  if (syslog_)
    (void)snprintf(forward, sizeof forward, ", %" PRIu64 " not forwarded", forward_.unsent());
  say("%" PRIu64 " received, %" PRIu64 " malformed, %" PRIu64 " failed%s", received_, malformed_,
      failed_, forward);
}

void Daemon::run() {
  signalfd_siginfo signals[4];  // one of each kind
  while (!stopping_) {
    wait();
    // Acted on behind the datagrams: what was sent before a signal is counted, and in the old file.
    const ssize_t size = read(signals_, signals, sizeof signals);
    (void)receiveAll();
    flush();
    keepFormersInStep();
    for (ssize_t i = 0; i * static_cast<ssize_t>(sizeof signals[0]) < size; ++i) {
      handleSignal(signals[i].ssi_signo);
    }
  }
  finish();
  sayCounts();
}

void Daemon::keepFormersInStep() {
  if (!hasFormers()) return;
  const int64_t time = milliseconds();
  if (time < next_look_) return;
  next_look_ = time + kLookMilliseconds;
  log_.keepFormersInStep();
  special_.keepFormersInStep();
}

// How long to wait for something to happen.
int Daemon::patience() const {
  if (hasFormers()) return kLookMilliseconds;
  return output_.failing() || forward_.failing() ? kRetryMilliseconds : -1;
}

void Daemon::wait() {
  const bool full = output_.blocked() && output_.room() == nullptr;
  // While the output is full the queues fill up and tell the senders.
  const short taken = full ? 0 : POLLIN;
  pollfd fds[] = {{signals_, POLLIN, 0},
                  {output_.blocked() ? output_.fd() : -1, POLLOUT, 0},
                  {forward_.blocked() ? forward_.fd() : -1, POLLOUT, 0},
                  {log_.fd(), taken, 0},
                  {special_.fd(), taken, 0}};
  (void)poll(fds, std::size(fds), patience());
}

// Returns: whether more may be queued.
bool Daemon::receiveAll() {
  const bool more = receive(log_);
  return receive(special_) || more;
}

bool Daemon::receive(const LogSocket& socket) {
  if (socket.fd() < 0) return false;
  for (int i = 0; i < kBatch; ++i) {
    if (!makeRoom()) return true;
    const ssize_t size = recv(socket.fd(), datagram_, sizeof datagram_, MSG_TRUNC | MSG_DONTWAIT);
    if (size < 0) return false;
    take(datagram_, static_cast<size_t>(size), &socket == &special_);
  }
  return true;
}

// Returns: false when a line would have to wait for a blocked output. One that cannot be written is
// no reason to wait: the line will be lost.
bool Daemon::makeRoom() {
  if (output_.room() == nullptr) output_.flush();
  return output_.room() != nullptr || output_.failing();
}

void Daemon::take(const char* bytes, size_t size, bool special) {
  const LogDatagram datagram = takeApart(bytes, size);
  ++received_;
  if (datagram.malformed) ++malformed_;
  if (forward_.active()) forward_.add(datagram, special);
  tellLoss();
  if (char* const at = output_.room()) return output_.add(lines_.make(at, datagram, special));
  ++failed_;
  ++untold_;
}

// Puts a line in the place of the lines that were lost, once there is room again.
void Daemon::tellLoss() {
  char* const at = untold_ > 0 ? output_.room() : nullptr;
  if (at == nullptr) return;
  output_.add(lines_.makeLoss(at, untold_));
  say("%" PRIu64 " lines lost", untold_);
  untold_ = 0;
}

void Daemon::flush() {
  if (forward_.active()) forward_.flush();
  output_.flush();
  if (untold_ == 0 || output_.failing()) return;
  tellLoss();
  output_.flush();
}

void Daemon::handleSignal(uint32_t number) {
  if (number == SIGHUP) {
    output_.reopen();
  } else if (number == SIGUSR2) {
    sayCounts();
  } else {
    stopping_ = true;
  }
}

// Takes and writes what was sent up to now.
void Daemon::finish() {
  log_.retire();
  special_.retire();
  finishOutput();
  if (forward_.active()) finishForward();
}

// A blocked output gets time, but not after another signal.
void Daemon::finishOutput() {
  bool more = true;
  while (more || output_.blocked()) {
    more = receiveAll();
    flush();
    if (!output_.blocked()) continue;
    pollfd fds[] = {{output_.fd(), POLLOUT, 0}, {signals_, POLLIN, 0}};
    const int ready = poll(fds, 2, kFinishMilliseconds);
    if (ready == 0 || fds[1].revents != 0) output_.fail(ETIMEDOUT);
  }
  failed_ += output_.waiting();
}

// So does a syslog server that lags.
void Daemon::finishForward() {
  while (forward_.blocked()) {
    pollfd fds[] = {{forward_.fd(), POLLOUT, 0}, {signals_, POLLIN, 0}};
    const int ready = poll(fds, 2, kFinishMilliseconds);
    if (ready == 0 || fds[1].revents != 0) return;
    forward_.flush();
  }
}

// Without it a socket could get the number of a closed standard stream. Writing to what is opened
// here fails, as it does for a closed one.
void fillStandardStreams() {
  int fd;
  do {
    fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) (void)close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  fillStandardStreams();
  const Options options = parseOptions(argc, argv);
  tzset();
  static Daemon daemon(options);
  if (!daemon.open(options.output)) return 1;
  daemon.run();
  return 0;
}
