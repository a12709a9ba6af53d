// The crash handler. See velorin/sig_handler.
//
// All but the installing at the end runs in a signal handler of a process whose heap and locks may
// be broken: it does not allocate, takes no lock but the loader's (see add_symbols), and has its
// texts from the functions that do not translate.
#include "velorin/sig_handler"

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "internal/write_all.h"
#include "sig_handler_regs.h"

namespace {

using velorin::internal::write_all;

constexpr char SIG_CRASH_TRACE_PATH[] = "/local/local1";
#define SIG_EXCL_PATH_FMT "%s/.excl_sig.%s.lock"
constexpr char SIG_MY_PATHNAME[] = "/proc/self/exe";
constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGABRT, SIGFPE};

constexpr size_t kPathRoom = 256;
constexpr size_t kLineRoom = 512;
constexpr int kFramesMax = 64;            // of the system's own backtrace
constexpr uintptr_t kLowestFrame = 4096;  // the walk ends at frames that are not above
constexpr int32_t kFirstSleep = 20;       // seconds
constexpr int32_t kLongestDoubled = 1073741822;
constexpr int32_t kFaultsMax = 10;  // during the trace, before the process ends by _exit

// Kept: the places that the lines name are those that readers of older logs know.
constexpr int kLineFirst = 589;
constexpr int kLineAnother = 596;
constexpr int kLineExiting = 610;

// LCOV_EXCL_START: no handler is installed before sig_init replaces this
int print_nothing(const char*, ...) {
  return 0;
}
// LCOV_EXCL_STOP

sig_signal_action action = SIGNAL_ACTION_COREDUMP;  // changed by other threads and by debuggers
print_syslog_handler print_syslog = print_nothing;
at_coredump_handler at_coredump_cb = nullptr;
const char* bin_name = "";

// The crash that is handled; first_* are what threads that crash later see of it.
pid_t first_pid = 0;
pthread_t first_tid = 0;
int trace_file_fd = -1;
volatile sig_atomic_t jmp_env_is_set = 0;  // while the owner's stack can be jumped back to
int32_t sigsegv_count = 0;
int32_t sleep_time = kFirstSleep;
volatile int frame = 0;
const void* volatile last_fcn = nullptr;

sig_signal_action current_action() {
  return __atomic_load_n(&action, __ATOMIC_RELAXED);
}

// Room: kPathRoom bytes; a longer name is cut.
void format_marker_path(char* path) {
  (void)snprintf(path, kPathRoom, SIG_EXCL_PATH_FMT, SIG_CRASH_TRACE_PATH, bin_name);
}

void format_trace_path(char* path, pid_t pid) {
  (void)snprintf(path, kPathRoom, "%s/.%s_crash_trace.%d", SIG_CRASH_TRACE_PATH, bin_name, pid);
}

// Sets the core size limit, soft and hard. Returns: whether that was allowed.
bool limit_core(rlim_t size) {
  const rlimit limit = {size, size};
  return setrlimit(RLIMIT_CORE, &limit) == 0;
}

// `how` is SIG_BLOCK or SIG_UNBLOCK.
void mask(int how, int the_signal) {
  sigset_t set;
  (void)sigemptyset(&set);
  (void)sigaddset(&set, the_signal);
  (void)pthread_sigmask(how, &set, nullptr);
}

void reset_to_default(int the_signal) {
  (void)signal(the_signal, SIG_DFL);
}

// Ends the process; the program may have blocked or handled SIGQUIT since sig_init.
void raise_sigquit() {
  reset_to_default(SIGQUIT);
  mask(SIG_UNBLOCK, SIGQUIT);
  (void)raise(SIGQUIT);
  // Process 1 of a PID namespace does not get signals that would end it: what shells report.
  if (getpid() == 1) _exit(128 + SIGQUIT);
}

__attribute__((format(printf, 2, 3))) int errorlog_and_add_to_trace(int fd, const char* msg, ...) {
  char line[kLineRoom] = {};
  va_list ap;
  va_start(ap, msg);
  const int length = vsnprintf(line, sizeof line, msg, ap);
  va_end(ap);
  line[sizeof line - 1] = '\0';
  // Of what the formatter refuses the whole buffer is written; what is too long is cut.
  const size_t size =
      length < 0 ? sizeof line : std::min(static_cast<size_t>(length), sizeof line - 1);
  if (fd >= 0) write_all(fd, line, size);
  return print_syslog("%s", line);
}

// ---- Faults that come after the first ----

// Says that a crash is being handled already. Its owner ends the process; any other thread waits
// for that end.
[[noreturn]] void crash_after_the_first(int the_signal) {
  const pid_t pid = getpid();
  const pthread_t tid = pthread_self();
  const pid_t fpid = __atomic_load_n(&first_pid, __ATOMIC_ACQUIRE);
  const pthread_t ftid = __atomic_load_n(&first_tid, __ATOMIC_RELAXED);
  print_syslog(
      "Another signal handler (fpid=%d, ftid=%lu) in progress. (pid=%d, tid=%lu, rcvd_signal=%d) "
      "[%s:%d]\n",
      fpid, ftid, pid, tid, the_signal, "sigcore_handler", kLineAnother);
  if (fpid == pid && pthread_equal(ftid, tid)) {
    print_syslog("Exiting. (pid=%d, tid=%lu, rcvd_signal=%d) [%s:%d]\n", pid, tid, the_signal,
                 "sigcore_handler", kLineExiting);
    _exit(-1 & 0xff);  // exit handlers may wait for a lock that the first fault has left held
  }
  // Kept: waits for ever, also for the owner in another process, which does not end this one.
  for (;;) (void)sleep(1);
}

void announce(int the_signal) {
  char text[64];
  const int length =
      snprintf(text, sizeof text, "In %s. signum=%d\n", "sigcore_handler", the_signal);
  write_all(STDERR_FILENO, text, static_cast<size_t>(length));
}

// Neither a reader that has gone, of standard error or of what the print function writes to, nor a
// thread that cancels this one may end the handling.
void refuse_to_be_stopped() {
  mask(SIG_BLOCK, SIGPIPE);
  (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

bool owns_the_crash() {
  return __atomic_load_n(&first_pid, __ATOMIC_ACQUIRE) == getpid() &&
         pthread_equal(__atomic_load_n(&first_tid, __ATOMIC_RELAXED), pthread_self()) != 0;
}

// Takes the place of sigcore_handler for SIGSEGV while the trace is written.
void db_stack_handler(int the_signal) {
  if (!owns_the_crash()) {
    refuse_to_be_stopped();
    announce(the_signal);
    crash_after_the_first(the_signal);
  }
  ++sigsegv_count;
  if (sigsegv_count == 1 && jmp_env_is_set != 0) {
    print_syslog("db_stack_handler: SIGSEGV again, siglongjmp ...\n");
    siglongjmp(jmp_env, 1);
  }
  reset_to_default(SIGSEGV);
  reset_to_default(SIGQUIT);
  if (sigsegv_count > kFaultsMax) {
    print_syslog(
        "db_stack_handler: Too many SIGSEGV's (sigsegv_count = %d), calling _exit(1) to "
        "terminate\n",
        sigsegv_count);
    _exit(1);
  }
  print_syslog("db_stack_handler: Multiple SIGSEGVs (sigsegv_count = %d), raise a SIGQUIT signal\n",
               sigsegv_count);
  raise_sigquit();
}

// The jump back saves no signal mask, so SIGSEGV must stay unblocked for a second fault. Another
// thread may run out of stack meanwhile: it is to be parked on its alternate stack.
bool catch_faults_of_the_trace() {
  struct sigaction installed = {};
  (void)sigaction(SIGSEGV, nullptr, &installed);
  struct sigaction nested = {};
  nested.sa_handler = db_stack_handler;
  nested.sa_flags = SA_NODEFER | (installed.sa_flags & SA_ONSTACK);
  return sigaction(SIGSEGV, &nested, nullptr) == 0;
}

// ---- The trace ----

// What a frame pointer points at.
struct Frame {
  uintptr_t caller;  // its frame
  const void* return_address;
  const void* argument[4];
};

// Reads a word from wherever the chain of frames leads, aligned or not, mapped or not.
__attribute__((no_sanitize("address", "undefined", "thread"))) uintptr_t word_at(
    uintptr_t address) {
  struct __attribute__((packed, may_alias)) Word {
    uintptr_t value;
  };
  return reinterpret_cast<const volatile Word*>(address)->value;
}

Frame frame_at(uintptr_t address) {
  uintptr_t words[6];
  for (uintptr_t& word : words) {
    word = word_at(address);
    address += sizeof word;
  }
  const auto pointer = [&words](int i) { return reinterpret_cast<const void*>(words[i]); };
  return {words[0], pointer(1), {pointer(2), pointer(3), pointer(4), pointer(5)}};
}

// Finds out when a chain of frames comes back to one that it has been at, as those of code without
// frame pointers may. Only where it does not rise can it come back.
class RingDetector {
 public:
  explicit RingDetector(uintptr_t first) : first_(first), highest_(first), checkpoint_(first) {}

  // Whether the chain has been at `address`, its frame number `count`.
  bool closesAt(uintptr_t address, int count) {
    const bool rises = address > highest_;
    if (rises) highest_ = address;
    if (count <= kSearched) return !rises && is_among(address, count);
    // A long chain is not walked again for each frame: a ring is noticed after some more rounds.
    if (address == checkpoint_) return true;
    if ((count & (count - 1)) == 0) checkpoint_ = address;
    return false;
  }

 private:
  static constexpr int kSearched = 4096;  // frames

  bool is_among(uintptr_t address, int count) const {
    for (uintptr_t at = first_; count > 0; --count) {
      if (at == address) return true;
      at = word_at(at);
    }
    return false;
  }

  const uintptr_t first_;
  uintptr_t highest_;
  uintptr_t checkpoint_;  // the frame whose number was a power of two last
};

// Kept: each line shows the return address of the frame before it, so the first shows none.
void walk_frames(uintptr_t first) {
  uintptr_t at = first;
  RingDetector ring(first);
  do {
    const Frame found = frame_at(at);
    errorlog_and_add_to_trace(trace_file_fd, "%02d: %p(%p, %p, %p, %p, ....\n", int{frame},
                              const_cast<const void*>(last_fcn), found.argument[0],
                              found.argument[1], found.argument[2], found.argument[3]);
    frame = frame + 1;
    last_fcn = found.return_address;
    at = found.caller;
    if (ring.closesAt(at, frame)) return;
  } while (at > kLowestFrame);
}

// Passes what stands in the trace file from its current position on to the log, line by line.
void print_rest_of_trace() {
  char piece[256];
  for (;;) {
    ssize_t got;
    do {
      got = read(trace_file_fd, piece, sizeof piece);
    } while (got < 0 && errno == EINTR);  // LCOV_EXCL_BR_LINE: regular files do not wait
    if (got <= 0) return;
    const char* const end = piece + got;
    const char* line = piece;
    const void* newline;
    while (line < end &&
           (newline = memchr(line, '\n', static_cast<size_t>(end - line))) != nullptr) {
      const char* const next = static_cast<const char*>(newline) + 1;
      print_syslog("%.*s", static_cast<int>(next - line), line);
      line = next;
    }
    if (line == piece) {
      print_syslog("%.*s", static_cast<int>(got), piece);
      // LCOV_EXCL_START: seeking in a regular file does not fail
    } else if (line < end && lseek(trace_file_fd, line - end, SEEK_CUR) < 0) {
      return;
    }
    // LCOV_EXCL_STOP
  }
}

// The system names the objects of the addresses under the loader's lock: while another thread holds
// it, in a constructor of a library for one, this waits.
void add_symbols() {
  void* addresses[kFramesMax];
  const int count = backtrace(addresses, kFramesMax);
  const off_t start = lseek(trace_file_fd, 0, SEEK_CUR);
  backtrace_symbols_fd(addresses, count, trace_file_fd);
  (void)lseek(trace_file_fd, start, SEEK_SET);
  print_syslog("Obtained %d stack frames. \n", count);
  print_rest_of_trace();
}

bool has_fault_address(int the_signal) {
  return the_signal == SIGSEGV || the_signal == SIGBUS || the_signal == SIGILL ||
         the_signal == SIGFPE;
}

// Opens the trace file, on none of the three standard descriptors: the program and this handler go
// on writing to those. Appending: a fault or an error that leaves the position inside the file
// overwrites nothing.
bool open_trace(pid_t pid) {
  char path[kPathRoom];
  format_trace_path(path, pid);
  int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  if (fd >= 0 && fd <= STDERR_FILENO) {
    const int standard = fd;
    fd = fcntl(standard, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int err = errno;
    (void)close(standard);
    errno = err;
  }
  trace_file_fd = fd;
  if (fd >= 0) return true;
  const int err = errno;
  const char* const text = strerrordesc_np(err);
  print_syslog("Cannot create trace file: %s, errno: %d, %s\n", path, err,
               text != nullptr ? text : "Unknown error");
  return false;
}

void close_trace() {
  if (trace_file_fd < 0) return;
  // Kept: a whole trace says so twice, behind the walk and here; tools tell by it that it is whole.
  errorlog_and_add_to_trace(trace_file_fd, "End of backtrace\n\n");
  (void)close(trace_file_fd);
  trace_file_fd = -1;
}

// The part of the trace that may fault itself; it then ends early.
void trace_stack(const siginfo_t* si, const FaultRegisters& at) {
  sleep_time = kFirstSleep;
  frame = 0;
  last_fcn = nullptr;
  if (!catch_faults_of_the_trace()) {
    errorlog_and_add_to_trace(trace_file_fd, "Cannot set SIGSEGV signal handler\n");
    return;
  }
  errorlog_and_add_to_trace(trace_file_fd, "End of stack dump.\n");
  const char* const description = sigdescr_np(si->si_signo);
  errorlog_and_add_to_trace(trace_file_fd, "SIGNAL %d (%s)\n", si->si_signo,
                            description != nullptr ? description : "Unknown signal");
  if (has_fault_address(si->si_signo))
    errorlog_and_add_to_trace(trace_file_fd, "Referenced address: %p\n", si->si_addr);
  errorlog_and_add_to_trace(trace_file_fd, "backtrace for crash at: %p\n",
                            reinterpret_cast<void*>(at.instruction));
  walk_frames(at.frame);
  errorlog_and_add_to_trace(trace_file_fd, "End of backtrace\n\n");
  add_symbols();
}

// Sleeps that long, whatever signals the program handles meanwhile.
void sleep_out(int32_t seconds) {
  unsigned left = static_cast<unsigned>(seconds);
  while (left > 0 && current_action() == SIGNAL_ACTION_DEBUG) left = sleep(left);
}

void wait_for_debugger() {
  while (current_action() == SIGNAL_ACTION_DEBUG) {
    // Kept: the banner names the first program that had it, whatever this one is.
    print_syslog(
        "#############################################################\n"
        ":--( TCP proxy is dying, please attach to process %d. )--: \n"
        "#############################################################\n",
        getpid());
    sleep_out(sleep_time);
    // Kept: no bound that matters: the last of them are decades.
    if (sleep_time <= kLongestDoubled) sleep_time *= 2;
  }
}

// The jump point is good until the end: the print function may still fault after the trace.
void db_backtrace(const siginfo_t* si, const void* context) {
  const pid_t pid = getpid();
  if (open_trace(pid)) {
    const FaultRegisters at = fault_registers(context);
    errorlog_and_add_to_trace(trace_file_fd, "Process %d stack(sp=0x%lx, bp=0x%lx, ip=0x%lx)\n",
                              pid, static_cast<unsigned long>(at.stack),
                              static_cast<unsigned long>(at.frame),
                              static_cast<unsigned long>(at.instruction));
    if (sigsetjmp(jmp_env, /*savemask=*/0) == 0) {  // LCOV_EXCL_BR_LINE: as below
      jmp_env_is_set = 1;
      trace_stack(si, at);
    } else {
      // LCOV_EXCL_START: counters miss what a jump leads to, as the call was counted before
      errorlog_and_add_to_trace(trace_file_fd, "Cannot sigsetjmp, goto trace_done\n");
    }
    // LCOV_EXCL_STOP
    close_trace();
  }
  wait_for_debugger();
  print_syslog("----- stack dump and backtrace done.\n");
  raise_sigquit();
  jmp_env_is_set = 0;
}

// ---- Installing ----

// Returns: a heap copy of the last part of the running program's path; null, errno telling why.
char* copy_program_name() {
  char path[kPathRoom];
  const ssize_t length = readlink(SIG_MY_PATHNAME, path, sizeof path - 1);
  if (length < 0) return nullptr;
  path[length] = '\0';
  const char* const slash = strrchr(path, '/');
  if (slash == nullptr) {
    errno = ENOENT;
    return nullptr;
  }
  return strdup(slash + 1);
}

// Kept: any process of the name removes it, though the one that made it may still need it.
bool remove_marker() {
  char marker[kPathRoom];
  format_marker_path(marker);
  if (unlink(marker) == 0) return true;
  if (errno != ENOENT) return false;
  errno = 0;
  return true;
}

bool install_handler() {
  struct sigaction handler = {};
  handler.sa_sigaction = sigcore_handler;
  handler.sa_flags = SA_SIGINFO | SA_RESTART;
  (void)sigemptyset(&handler.sa_mask);
  for (const int the_signal : kFaultSignals) (void)sigaddset(&handler.sa_mask, the_signal);
  for (const int the_signal : kFaultSignals) {
    // Kept: handlers that the program had are lost.
    if (sigaction(the_signal, &handler, nullptr) != 0) return false;
  }
  return true;
}

// The first use of the system's backtrace loads a library, which no crash handler can do.
void load_backtrace() {
  void* address;
  (void)backtrace(&address, 1);
}

}  // namespace

int32_t one_of_threads_is_dead = 0;
jmp_buf jmp_env;

int sig_init(print_syslog_handler cb) {
  if (cb == nullptr) {
    errno = EINVAL;
    return 0;
  }
  print_syslog = cb;
  const char* const name = copy_program_name();
  if (name == nullptr) return 0;
  const char* const old_name = bin_name;
  bin_name = name;
  if (*old_name != '\0') free(const_cast<char*>(old_name));
  load_backtrace();
  if (!remove_marker()) return 0;
  // Kept: SIGQUIT is taken from the program, as the handling ends with it.
  reset_to_default(SIGQUIT);
  // Kept: without a crash of these signals there is no core from here on.
  return install_handler() && limit_core(0) ? 1 : 0;
}

void sig_set_action(sig_signal_action new_action) {
  __atomic_store_n(&action, new_action, __ATOMIC_RELAXED);
}

void set_at_coredump_cb(at_coredump_handler cb) {
  __atomic_store_n(&at_coredump_cb, cb, __ATOMIC_RELEASE);
}

void sigcore_handler(int the_signal, siginfo_t* si, void* context) {
  __atomic_store_n(&one_of_threads_is_dead, 1, __ATOMIC_RELAXED);
  refuse_to_be_stopped();
  announce(the_signal);
  const pid_t pid = getpid();
  const pthread_t tid = pthread_self();
  char marker[kPathRoom];
  format_marker_path(marker);
  // Whoever creates the marker is the first, of all threads and processes of this program name. It
  // stays open, and stays there until the next sig_init; that of another process, while this one
  // still handles its crash, does not make a second owner here.
  // Kept: one that cannot be made, for whatever reason, counts as another's.
  if (__atomic_load_n(&first_pid, __ATOMIC_ACQUIRE) == pid ||
      open(marker, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644) < 0)
    crash_after_the_first(the_signal);

  __atomic_store_n(&first_tid, tid, __ATOMIC_RELAXED);
  __atomic_store_n(&first_pid, pid, __ATOMIC_RELEASE);
  // A fault from here on comes back as a crash of the owner, one during the trace to
  // db_stack_handler; while it is blocked the kernel would end the process on the spot. SIGABRT
  // stays blocked, since others send it too: abort unblocks it by itself.
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE}) mask(SIG_UNBLOCK, fault);
  print_syslog("Signal received (pid=%d, tid=%lu, rcvd_signal=%d)[%s:%d]\n", pid, tid, the_signal,
               "sigcore_handler", kLineFirst);
  if (current_action() == SIGNAL_ACTION_COREDUMP) {
    if (!limit_core(RLIM_INFINITY))
      print_syslog("Failed to limit CORE resources. errno=%d\n", errno);
    const at_coredump_handler callback = __atomic_load_n(&at_coredump_cb, __ATOMIC_ACQUIRE);
    if (callback != nullptr) callback();
  }
  db_backtrace(si, context);
}
