// The crash handler: real children that crash, what their print function is told, and their files.
#include "velorin/sig_handler"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/crash_calls.h"
#include "support/private_world.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED true
#else
#define SANITIZED false
#endif

#ifdef __i386__
#define FRAME_POINTER "%%ebp"
#else
#define FRAME_POINTER "%%rbp"
#endif

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using Lines = std::vector<std::string>;

constexpr char kMarker[] = "/local/local1/.excl_sig.sig_handler_test.lock";
constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGABRT, SIGFPE};

std::string trace_path(pid_t pid) {
  return "/local/local1/.sig_handler_test_crash_trace." + std::to_string(pid);
}

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

// ---- In the child that crashes ----

// Ends the text of each call of the print function.
constexpr char kEnd = '\x1e';
int record_fd = STDOUT_FILENO;
void (*on_print)(const char* text) = nullptr;  // after it has been recorded

void record_text(const char* text) {
  char whole[4096];
  const int length = snprintf(whole, sizeof whole, "%s%c", text, kEnd);
  (void)!write(record_fd, whole, static_cast<size_t>(length));
}

// The print function.
__attribute__((format(printf, 1, 2))) int record(const char* format, ...) {
  char text[4000];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  record_text(text);
  if (on_print != nullptr) on_print(text);
  return length;
}

int print_nothing(const char*, ...) {
  return 0;
}

bool starts_with(const char* text, const char* start) {
  return strncmp(text, start, strlen(start)) == 0;
}

void install(sig_signal_action action = SIGNAL_ACTION_NO_COREDUMP) {
  if (sig_init(record) != 1) _exit(98);
  sig_set_action(action);
}

// What the frame pointer points at in code that keeps one.
struct Frame {
  const void* caller;
  const void* return_address;
  uintptr_t argument[4];
};

constexpr Frame kLastFrame = {nullptr, nullptr, {0x1, 0x2, 0x3, 0x4}};
constexpr char kLastFrameLine[] = "00: (nil)(0x1, 0x2, 0x3, 0x4, ....\n";

// Faults with frame pointers of their own: what the walk finds does not depend on the compiler.

[[noreturn]] void store(uintptr_t address, const void* frame = &kLastFrame) {
  asm volatile("mov %0, " FRAME_POINTER "\n\tmovb $0, (%1)"
               :
               : "r"(frame), "r"(address)
               : "memory");
  __builtin_unreachable();
}

[[noreturn]] void divide_by_zero() {
  asm volatile("mov %0, " FRAME_POINTER "\n\tdivl %1" : : "r"(&kLastFrame), "c"(0), "a"(1), "d"(0));
  __builtin_unreachable();
}

[[noreturn]] void illegal_instruction() {
  asm volatile("mov %0, " FRAME_POINTER "\n\tud2" : : "r"(&kLastFrame));
  __builtin_unreachable();
}

[[noreturn]] void breakpoint() {
  asm volatile("mov %0, " FRAME_POINTER "\n\tint3" : : "r"(&kLastFrame));
  __builtin_unreachable();
}

// As raise does, which may have no frame.
[[noreturn]] void send_abort() {
#ifdef __i386__
  asm volatile("mov %0, " FRAME_POINTER "\n\tint $0x80\n1:\tjmp 1b"
               :
               : "r"(&kLastFrame), "a"(SYS_tgkill), "b"(getpid()), "c"(gettid()), "d"(SIGABRT));
#else
  asm volatile("mov %0, " FRAME_POINTER "\n\tsyscall\n1:\tjmp 1b"
               :
               : "r"(&kLastFrame), "a"(SYS_tgkill), "D"(getpid()), "S"(gettid()), "d"(SIGABRT)
               : "rcx", "r11", "memory");
#endif
  __builtin_unreachable();
}

[[noreturn]] void segfault() {
  store(0);
}

// An address in a mapping of a file that ends before it.
uintptr_t beyond_the_file() {
  const int fd = memfd_create("truncated", MFD_CLOEXEC);
  void* const pages = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (pages == MAP_FAILED) _exit(96);
  return reinterpret_cast<uintptr_t>(pages);
}

// ---- The faults ----

struct Fault {
  const char* name;
  int signal;
  const char* description;
  const char* address;  // of its line in the trace; null: it has none
  void (*happen)();
};

const Fault kFaults[] = {
    {"SegvByNull", SIGSEGV, "Segmentation fault", "(nil)", [] { store(0); }},
    {"SegvByWildPointer", SIGSEGV, "Segmentation fault", "0x1234", [] { store(0x1234); }},
    {"BusByTruncatedMapping", SIGBUS, "Bus error", "0xN", [] { store(beyond_the_file()); }},
    {"FpeByDivision", SIGFPE, "Floating point exception", "0xN", [] { divide_by_zero(); }},
    {"Abrt", SIGABRT, "Aborted", nullptr, [] { send_abort(); }},
    {"SegvInSecondThread", SIGSEGV, "Segmentation fault", "(nil)",
     [] { std::thread(segfault).join(); }},
};
const Fault& kSegv = kFaults[0];

// ---- What is expected ----

std::string text_of(const char* format, int number) {
  char text[512];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  snprintf(text, sizeof text, format, number);
#pragma GCC diagnostic pop
  return text;
}

std::string first_line(int the_signal) {
  return text_of("Signal received (pid=PID, tid=TID1, rcvd_signal=%d)[sigcore_handler:589]\n",
                 the_signal);
}

constexpr char kBanner[] =
    "#############################################################\n"
    ":--( TCP proxy is dying, please attach to process PID. )--: \n"
    "#############################################################\n";
constexpr char kDone[] = "----- stack dump and backtrace done.\n";
constexpr char kEndOfTrace[] = "End of backtrace\n\n";
constexpr char kRefused[] = "Failed to limit CORE resources. errno=1\n";  // EPERM
constexpr char kAgain[] = "db_stack_handler: SIGSEGV again, siglongjmp ...\n";
constexpr char kNoJump[] = "Cannot sigsetjmp, goto trace_done\n";
constexpr char kProcess[] = "Process PID stack(sp=0xN, bp=0xN, ip=0xN)\n";
constexpr char kAnnounced11[] = "In sigcore_handler. signum=11\n";

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// The trace up to the frames.
Lines trace_head(const Fault& fault) {
  Lines lines = {kProcess, "End of stack dump.\n",
                 text_of("SIGNAL %d (", fault.signal) + fault.description + ")\n"};
  if (fault.address != nullptr)
    lines.push_back(std::string("Referenced address: ") + fault.address + "\n");
  lines.push_back("backtrace for crash at: 0xN\n");
  return lines;
}

const Lines kTraceTail = {kEndOfTrace, "Obtained N stack frames. \n", "SYMBOLS", kEndOfTrace};

// All that the print function is told by a crash with NO_COREDUMP.
Lines story(const Fault& fault, const Lines& frames = {kLastFrameLine}) {
  return Lines{first_line(fault.signal)} + trace_head(fault) + frames + kTraceTail + Lines{kDone};
}

// What the action adds to it: the callback runs at once, the wait for a debugger comes last.
Lines with_action(sig_signal_action action, Lines told) {
  if (action == SIGNAL_ACTION_COREDUMP) {
    // Namespaces of our own or a sanitizer: nobody may raise the hard limit again.
    const Lines core = {kRefused, "callback\n"};
    told.insert(told.begin() + 1, core.begin(), core.end());
  }
  if (action == SIGNAL_ACTION_DEBUG) {
    const Lines waiting = {kBanner, "sleep 20\n"};
    told.insert(told.end() - 1, waiting.begin(), waiting.end());
  }
  return told;
}

// The same with a fault where the walk reads the frame after `frames`.
Lines story_of_faulting_walk(const Lines& frames) {
  return Lines{first_line(SIGSEGV)} + trace_head(kSegv) + frames +
         Lines{kAgain, kNoJump, kEndOfTrace, kDone};
}

// ---- Looking at a crash ----

Lines split(const std::string& text, char end) {
  Lines parts;
  size_t from = 0;
  for (size_t at; (at = text.find(end, from)) != std::string::npos; from = at + 1)
    parts.push_back(text.substr(from, at - from));
  if (from < text.size()) parts.push_back(text.substr(from));
  return parts;
}

// Puts names in place of what differs from run to run: PID, TID1, TID2 in the order seen, 0xN for
// numbers of five digits and more, and SYMBOLS for as many symbol lines as were announced.
class Plain {
 public:
  explicit Plain(pid_t pid) : pid_(std::to_string(pid)) {}

  std::string line(std::string text) {
    for (const char* before : {"pid=", "Process ", "process ", "crash_trace."}) {
      const size_t at = after(text, before, 0);
      number(&text, at);
      if (at != std::string::npos) number(&text, after(text, before, at));
    }
    size_t at = 0;
    while ((at = after(text, "tid=", at)) != std::string::npos) thread(&text, at);
    at = 0;
    while ((at = after(text, "0x", at)) != std::string::npos) {
      const size_t end = text.find_first_not_of("0123456789abcdef", at);
      if (end != std::string::npos && end - at >= 5) text.replace(at, end - at, "N");
    }
    return text;
  }

  Lines lines(const Lines& printed) {
    Lines plain;
    for (size_t i = 0; i < printed.size(); ++i) {
      size_t count;
      if (sscanf(printed[i].c_str(), "Obtained %zu stack frames. \n", &count) != 1 || count == 0) {
        plain.push_back(line(printed[i]));
        continue;
      }
      plain.push_back("Obtained N stack frames. \n");
      size_t symbols = 0;
      while (symbols < count && i + 1 < printed.size() && is_symbol(printed[i + 1])) ++symbols, ++i;
      if (symbols == count) plain.push_back("SYMBOLS");
    }
    return plain;
  }

 private:
  static bool is_symbol(const std::string& text) {
    return testing::Matches(MatchesRegex(".*\\[0x[0-9a-f]+\\]\n"))(text);
  }

  static size_t after(const std::string& text, const char* before, size_t from) {
    const size_t at = text.find(before, from);
    return at == std::string::npos ? at : at + strlen(before);
  }

  void number(std::string* text, size_t at) {
    if (at == std::string::npos) return;
    const size_t end = std::min(text->find_first_not_of("0123456789", at), text->size());
    if (text->substr(at, end - at) == pid_) text->replace(at, end - at, "PID");
  }

  void thread(std::string* text, size_t at) {
    const size_t end = std::min(text->find_first_not_of("0123456789", at), text->size());
    const std::string id = text->substr(at, end - at);
    if (id.empty() || id == "0") return;
    threads_.emplace(id, "TID" + std::to_string(threads_.size() + 1));
    text->replace(at, end - at, threads_[id]);
  }

  std::string pid_;
  std::map<std::string, std::string> threads_;
};

// What the trace file holds when the print function was told `printed`: the lines of the trace.
std::string file_of(const Lines& printed) {
  std::string text;
  for (const std::string& line : printed) {
    bool only_printed = false;
    for (const char* start : {"Signal received", "Failed to limit", "Obtained", "db_stack_handler:",
                              "-----", "Another", "Exiting", "####", "callback", "sleep"})
      only_printed = only_printed || starts_with(line.c_str(), start);
    if (!only_printed) text += line;
  }
  return text;
}

struct Crash {
  pid_t pid = 0;
  ChildResult end;
  Lines raw;    // the print function's calls
  Lines plain;  // the same with the names of Plain
};

Crash look_at(Child* child) {
  Crash seen;
  seen.pid = child->pid();
  seen.end = child->wait();
  seen.raw = split(seen.end.out, kEnd);
  seen.plain = Plain(seen.pid).lines(seen.raw);
  return seen;
}

Crash crash_in(const std::function<void()>& body) {
  Child child(body);
  return look_at(&child);
}

class sig_handlerTest : public PrivateWorld {
 protected:
  sig_handlerTest() {
    (void)umask(022);
    cover("/local");
    mkdir("/local/local1", 0777);
    chmod("/local/local1", 0777);
    (void)!chdir("/tmp");
  }
  ~sig_handlerTest() override { (void)umount2("/local", MNT_DETACH); }

  // A crash that ended by SIGQUIT, told `expected`, and left the file that goes with it.
  static void expectStory(const Crash& crash, const Lines& expected) {
    EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
    EXPECT_EQ(crash.plain, expected);
    expectFile(crash);
  }

  static void expectFile(const Crash& crash) {
    ASSERT_TRUE(exists(trace_path(crash.pid)));
    EXPECT_EQ(read(trace_path(crash.pid)), file_of(crash.raw));
  }

  // Waits until `child` sleeps: with `text` printed it is about to.
  static void expectSleeping(Child* child, const std::string& text) {
    if (!child->waitForOut(text)) return;
    const std::string path = "/proc/" + std::to_string(child->pid()) + "/stat";
    char state = '?';
    for (int tries = 0; tries < 2000 && state != 'S'; ++tries) {
      const std::string stat = read(path);
      state = stat[stat.rfind(')') + 2];
      usleep(10000);
    }
    EXPECT_EQ(state, 'S');
  }
};

// ---- The matrix ----

struct Row {
  const Fault* fault;
  sig_signal_action action;
};

std::vector<Row> rows() {
  std::vector<Row> all;
  for (const Fault& fault : kFaults)
    for (const sig_signal_action action :
         {SIGNAL_ACTION_COREDUMP, SIGNAL_ACTION_DEBUG, SIGNAL_ACTION_NO_COREDUMP})
      all.push_back({&fault, action});
  return all;
}

class sig_handlerMatrixTest : public sig_handlerTest, public testing::WithParamInterface<Row> {};

TEST_P(sig_handlerMatrixTest, ToldWrittenAndDeadBySigquit) {
  const Row row = GetParam();
  const Crash crash = crash_in([&row] {
    set_at_coredump_cb([] { record_text("callback\n"); });
    install(row.action);
    crash_calls.on_sleep = [](unsigned seconds) {
      record_text(text_of("sleep %d\n", static_cast<int>(seconds)).c_str());
      sig_set_action(SIGNAL_ACTION_COREDUMP);
    };
    row.fault->happen();
  });
  expectStory(crash, with_action(row.action, story(*row.fault)));
  EXPECT_EQ(crash.end.err, text_of("In sigcore_handler. signum=%d\n", row.fault->signal));
  EXPECT_FALSE(WCOREDUMP(crash.end.status));
  EXPECT_EQ(read(kMarker), "");
  struct stat status;
  ASSERT_EQ(stat(kMarker, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
  ASSERT_EQ(stat(trace_path(crash.pid).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
}

constexpr const char* kActionNames[] = {"Coredump", "Debug", "NoCoredump"};

std::string row_name(const testing::TestParamInfo<Row>& info) {
  return std::string(info.param.fault->name) + kActionNames[info.param.action];
}

INSTANTIATE_TEST_SUITE_P(Faults, sig_handlerMatrixTest, testing::ValuesIn(rows()), row_name);

// ---- Aborts of the system library, whose own frames nobody knows ----

// Fits a trace that may have ended early.
void expectTraceOfAbort(const Crash& crash) {
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  ASSERT_GE(crash.plain.size(), 7u);
  EXPECT_EQ(crash.plain.front(), first_line(SIGABRT));
  EXPECT_EQ(crash.plain[3], "SIGNAL 6 (Aborted)\n");
  EXPECT_THAT(crash.plain[4], StartsWith("backtrace for crash at: 0x"));
  EXPECT_THAT(crash.plain, Not(Contains(StartsWith("Referenced address"))));
  EXPECT_EQ(crash.plain[crash.plain.size() - 2], kEndOfTrace);
  EXPECT_EQ(crash.plain.back(), kDone);
}

TEST_F(sig_handlerTest, AbortLeavesATraceAndDiesBySigquit) {
  const Crash crash = crash_in([] {
    install();
    abort();
  });
  expectTraceOfAbort(crash);
  expectFile(crash);
}

// A sanitizer has an allocator of its own.
#if !SANITIZED
// The allocator's record of it, behind the last block.
size_t& size_of_the_rest_of_the_heap() {
  for (;;) {
    char* volatile block = static_cast<char*>(malloc(100000));
    char* const end = block + malloc_usable_size(block);
    size_t& size = *reinterpret_cast<size_t*>(end);
    if (end - sizeof size + (size & ~size_t{7}) == sbrk(0)) return size;
  }
}

TEST_F(sig_handlerTest, DoubleFreeLeavesATrace) {
  const Crash crash = crash_in([] {
    install();
    void* volatile block = malloc(24);
    free(block);
    free(block);
  });
  expectTraceOfAbort(crash);
  EXPECT_THAT(crash.end.err, EndsWith("In sigcore_handler. signum=6\n"));
}
#endif

// ---- Core files ----

class sig_handlerCoreTest : public sig_handlerTest {
 protected:
  // A crash of a process that may raise the limit: its hard limit was never lowered.
  static Crash crashWith(sig_signal_action action) {
    return crash_in([action] {
      prctl(PR_SET_DUMPABLE, 1);
      crash_calls.hard_core_limit_stays = true;
      install(action);
      segfault();
    });
  }

  static std::string refusal() {
    rlimit limit;
    getrlimit(RLIMIT_CORE, &limit);
    return limit.rlim_max == RLIM_INFINITY
               ? ""
               : "not run, because the hard core limit is not unlimited";
  }

  static bool coreIn(const std::string& dir) {
    for (const auto& entry : std::filesystem::directory_iterator(dir))
      if (entry.path().filename().string().rfind("core", 0) == 0) return true;
    return false;
  }
};

TEST_F(sig_handlerCoreTest, CoredumpWritesOneWhereTheLimitMayBeRaised) {
  if (!refusal().empty()) GTEST_SKIP() << refusal();
  const Crash crash = crashWith(SIGNAL_ACTION_COREDUMP);
  expectStory(crash, story(kSegv));
  EXPECT_TRUE(WCOREDUMP(crash.end.status));
  // Elsewhere the machine's own pattern says where the file goes.
  const bool here = read("/proc/sys/kernel/core_pattern").rfind("core", 0) == 0;
  EXPECT_EQ(coreIn("/tmp"), here);
}

TEST_F(sig_handlerCoreTest, NoCoredumpWritesNone) {
  const Crash crash = crashWith(SIGNAL_ACTION_NO_COREDUMP);
  expectStory(crash, story(kSegv));
  EXPECT_FALSE(WCOREDUMP(crash.end.status));
  EXPECT_FALSE(coreIn("/tmp"));
}

TEST_F(sig_handlerCoreTest, DebugWritesNone) {
  const Crash crash = crash_in([] {
    prctl(PR_SET_DUMPABLE, 1);
    crash_calls.hard_core_limit_stays = true;
    crash_calls.on_sleep = [](unsigned) { sig_set_action(SIGNAL_ACTION_COREDUMP); };
    install(SIGNAL_ACTION_DEBUG);
    segfault();
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT);
  EXPECT_FALSE(WCOREDUMP(crash.end.status));
}

TEST_F(sig_handlerCoreTest, UnprivilegedUserIsRefusedAndDiesWithoutCore) {
  const Crash crash = crash_in([] {
    becomeUser(1000);
    install(SIGNAL_ACTION_COREDUMP);
    segfault();
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  EXPECT_EQ(crash.plain[1], kRefused);
  EXPECT_FALSE(WCOREDUMP(crash.end.status));
  expectFile(crash);
}

TEST_F(sig_handlerCoreTest, LimitIsRaisedBeforeTheCallbackAndTheCallbackRunsBeforeTheTrace) {
  const Crash crash = crash_in([] {
    crash_calls.hard_core_limit_stays = true;
    set_at_coredump_cb([] { record_text("replaced\n"); });
    set_at_coredump_cb([] {
      rlimit limit;
      getrlimit(RLIMIT_CORE, &limit);
      record_text(limit.rlim_cur == limit.rlim_max ? "callback at the limit\n" : "callback\n");
      record_text(exists(trace_path(getpid())) ? "callback late\n" : "callback before\n");
    });
    install(SIGNAL_ACTION_COREDUMP);
    segfault();
  });
  ASSERT_GE(crash.plain.size(), 4u);
  const size_t at = crash.plain[1] == kRefused ? 2 : 1;
  EXPECT_EQ(crash.plain[at], "callback at the limit\n");
  EXPECT_EQ(crash.plain[at + 1], "callback before\n");
  EXPECT_THAT(crash.plain, Not(Contains("replaced\n")));
}

TEST_F(sig_handlerCoreTest, NullCallbackIsNone) {
  const Crash crash = crash_in([] {
    set_at_coredump_cb([] { record_text("callback\n"); });
    set_at_coredump_cb(nullptr);
    install(SIGNAL_ACTION_COREDUMP);
    segfault();
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT);
  EXPECT_THAT(crash.plain, Not(Contains("callback\n")));
}

// ---- sig_init ----

struct sigaction action_of(int the_signal) {
  struct sigaction action;
  sigaction(the_signal, nullptr, &action);
  return action;
}

bool is_ours(int the_signal) {
  return action_of(the_signal).sa_sigaction == sigcore_handler;
}

class sig_handlerInitTest : public sig_handlerTest {
 protected:
  static void inChild(const std::function<void()>& body) {
    const ChildResult result = runInChild(body);
    EXPECT_EQ(result.exitCode(), 0) << result;
  }
};

TEST_F(sig_handlerInitTest, InstallsTheHandlersAndForbidsCores) {
  inChild([] {
    (void)signal(SIGQUIT, SIG_IGN);
    errno = 77;
    EXPECT_EQ(sig_init(record), 1);
    EXPECT_EQ(errno, 0);  // of the marker that was not there
    for (const int the_signal : kFaultSignals) {
      const struct sigaction action = action_of(the_signal);
      EXPECT_EQ(action.sa_sigaction, sigcore_handler);
      EXPECT_EQ(action.sa_flags & ~0x04000000, SA_SIGINFO | SA_RESTART);  // less SA_RESTORER
      for (int masked = 1; masked < 32; ++masked) {
        const bool expected = std::count(kFaultSignals, kFaultSignals + 4, masked) > 0;
        EXPECT_EQ(sigismember(&action.sa_mask, masked), expected) << the_signal << ' ' << masked;
      }
    }
    EXPECT_EQ(action_of(SIGQUIT).sa_handler, SIG_DFL);
    rlimit limit;
    getrlimit(RLIMIT_CORE, &limit);
    EXPECT_EQ(limit.rlim_cur, 0u);
    EXPECT_EQ(limit.rlim_max, 0u);
    EXPECT_EQ(one_of_threads_is_dead, 0);
  });
}

TEST_F(sig_handlerInitTest, NullPrintFunctionIsRefusedWithNothingDone) {
  write(kMarker, "");
  inChild([] {
    (void)signal(SIGQUIT, SIG_IGN);
    EXPECT_EQ(sig_init(nullptr), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(action_of(SIGQUIT).sa_handler, SIG_IGN);
    for (const int the_signal : kFaultSignals) EXPECT_FALSE(is_ours(the_signal));
  });
  EXPECT_TRUE(exists(kMarker));
}

TEST_F(sig_handlerInitTest, UnreadableLinkIsAFailure) {
  inChild([] {
    crash_calls.readlink_errno = EACCES;
    EXPECT_EQ(sig_init(record), 0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(is_ours(SIGSEGV));
  });
}

TEST_F(sig_handlerInitTest, LinkWithoutSlashIsAFailure) {
  inChild([] {
    crash_calls.program_link = "program";
    errno = 0;
    EXPECT_EQ(sig_init(record), 0);
    EXPECT_NE(errno, 0);
    EXPECT_FALSE(is_ours(SIGSEGV));
  });
}

TEST_F(sig_handlerInitTest, NoMemoryForTheNameIsAFailure) {
  inChild([] {
    crash_calls.no_memory_for_strdup = true;
    EXPECT_EQ(sig_init(record), 0);
    crash_calls.no_memory_for_strdup = false;
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_FALSE(is_ours(SIGSEGV));
  });
}

TEST_F(sig_handlerInitTest, MarkerThatCannotBeRemovedIsAFailure) {
  mkdir(kMarker, 0755);
  inChild([] {
    (void)signal(SIGQUIT, SIG_IGN);
    EXPECT_EQ(sig_init(record), 0);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(action_of(SIGQUIT).sa_handler, SIG_IGN);
    EXPECT_FALSE(is_ours(SIGSEGV));
  });
}

TEST_F(sig_handlerInitTest, MarkerOfAnEarlierCrashIsRemoved) {
  write(kMarker, "");
  write("/local/local1/.excl_sig.other.lock", "");
  inChild([] { EXPECT_EQ(sig_init(record), 1); });
  EXPECT_FALSE(exists(kMarker));
  EXPECT_TRUE(exists("/local/local1/.excl_sig.other.lock"));
}

TEST_F(sig_handlerInitTest, MissingDirectoryIsNoFailure) {
  rmdir("/local/local1");
  inChild([] { EXPECT_EQ(sig_init(record), 1); });
}

TEST_F(sig_handlerInitTest, HandlersAreInstalledInOrderUntilOneIsRefused) {
  inChild([] {
    crash_calls.refused_signal = SIGABRT;
    EXPECT_EQ(sig_init(record), 0);
    EXPECT_EQ(errno, EPERM);
    EXPECT_TRUE(is_ours(SIGSEGV));
    EXPECT_TRUE(is_ours(SIGBUS));
    EXPECT_FALSE(is_ours(SIGFPE));
  });
}

TEST_F(sig_handlerInitTest, RefusedCoreLimitIsAFailureWithTheHandlersInstalled) {
  inChild([] {
    crash_calls.setrlimit_errno = EPERM;
    EXPECT_EQ(sig_init(record), 0);
    EXPECT_EQ(errno, EPERM);
    for (const int the_signal : kFaultSignals) EXPECT_TRUE(is_ours(the_signal));
  });
}

TEST_F(sig_handlerInitTest, SecondCallTakesThePrintFunctionAndTheNameAnew) {
  const Crash crash = crash_in([] {
    sig_init(print_nothing);
    crash_calls.program_link = "/opt/second";
    install();
    segfault();
  });
  EXPECT_EQ(crash.plain, story(kSegv));
  EXPECT_TRUE(exists("/local/local1/.excl_sig.second.lock"));
  EXPECT_EQ(read("/local/local1/.second_crash_trace." + std::to_string(crash.pid)),
            file_of(crash.raw));
}

// ---- Names ----

TEST_F(sig_handlerTest, NamesLongerThanTheirBuffersAreCut) {
  // All that the buffer for the link takes.
  const std::string name(254, 'n');
  const std::string link = "/" + name + "cut";
  const Crash crash = crash_in([&link] {
    crash_calls.program_link = link.c_str();
    install();
    segfault();
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  EXPECT_EQ(crash.plain, story(kSegv));
  EXPECT_TRUE(exists(("/local/local1/.excl_sig." + name).substr(0, 255)));
  EXPECT_EQ(read(("/local/local1/." + name).substr(0, 255)), file_of(crash.raw));
}

TEST_F(sig_handlerTest, SymbolLinesLongerThanOnePieceArePassedOnInPieces) {
  std::string dir = "/tmp";
  for (int i = 0; i < 3; ++i) dir += "/" + std::string(100, static_cast<char>('a' + i));
  std::filesystem::create_directories(dir);
  const std::string program = dir + "/victim";
  std::filesystem::copy_file(VELORIN_BIN "/crash_victim", program);
  Child child({program});
  const Crash crash = look_at(&child);
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  // The link is cut after 255 bytes, so the name is that of the third folder, cut.
  const std::string name(255 - strlen("/tmp/") - 2 * 101, 'c');
  ASSERT_TRUE(exists("/local/local1/.excl_sig." + name + ".lock"));
  const std::string trace =
      read("/local/local1/." + name + "_crash_trace." + std::to_string(crash.pid));
  EXPECT_EQ(trace, file_of(crash.raw));
  EXPECT_THAT(trace, HasSubstr("\n" + program + "("));
  // A long line comes as one whole piece, then the rest with its newline.
  size_t pieces = 0;
  for (size_t i = 0; i + 1 < crash.raw.size(); ++i) {
    if (crash.raw[i].size() != 256) continue;
    ++pieces;
    EXPECT_EQ(crash.raw[i], program.substr(0, 256));
    EXPECT_THAT(crash.raw[i + 1], StartsWith(program.substr(256)));
    EXPECT_THAT(crash.raw[i + 1], EndsWith("]\n"));
  }
  EXPECT_GE(pieces, 1u);
}

TEST_F(sig_handlerTest, SymbolLinesArePassedOnLineByLine) {
  const Crash crash = crash_in([] {
    install();
    segfault();
  });
  size_t at = 0;
  int count = 0;
  while (at < crash.raw.size() &&
         sscanf(crash.raw[at].c_str(), "Obtained %d stack frames. \n", &count) != 1)
    ++at;
  ASSERT_GE(count, 3);
  ASSERT_LT(at + static_cast<size_t>(count), crash.raw.size());
  for (size_t i = 1; i <= static_cast<size_t>(count); ++i)
    EXPECT_THAT(crash.raw[at + i], MatchesRegex("[^\n]*\\[0x[0-9a-f]+\\]\n"));
  EXPECT_EQ(crash.raw[at + static_cast<size_t>(count) + 1], kEndOfTrace);
  EXPECT_THAT(read(trace_path(crash.pid)), Not(HasSubstr("Obtained")));
}

// ---- The trace ----

TEST_F(sig_handlerTest, FlagIsSetBeforeThePrintFunctionIsCalled) {
  const Crash crash = crash_in([] {
    on_print = [](const char* text) {
      if (starts_with(text, "Signal"))
        record_text(text_of("dead %d\n", one_of_threads_is_dead).c_str());
    };
    install();
    segfault();
  });
  ASSERT_GE(crash.plain.size(), 2u);
  EXPECT_EQ(crash.plain[1], "dead 1\n");
}

TEST_F(sig_handlerTest, KeptFileHoldsTheEndOfTheBacktraceTwice) {
  const Crash crash = crash_in([] {
    install();
    segfault();
  });
  const std::string trace = read(trace_path(crash.pid));
  const size_t first = trace.find("End of backtrace\n\n");
  const size_t second = trace.find("End of backtrace\n\n", first + 1);
  ASSERT_NE(second, std::string::npos);
  EXPECT_EQ(second + strlen("End of backtrace\n\n"), trace.size());
}

TEST_F(sig_handlerTest, KeptFirstLineOfTheWalkShowsNoFunction) {
  const Crash crash = crash_in([] {
    install();
    segfault();
  });
  ASSERT_GE(crash.raw.size(), 7u);
  EXPECT_EQ(crash.raw[6], kLastFrameLine);
}

TEST_F(sig_handlerTest, KeptLinesNameThePlacesThatReadersOfOlderLogsKnow) {
  const Crash crash = crash_in([] {
    set_at_coredump_cb(segfault);
    install(SIGNAL_ACTION_COREDUMP);
    segfault();
  });
  EXPECT_THAT(crash.raw, ElementsAre(EndsWith("[sigcore_handler:589]\n"), kRefused,
                                     EndsWith(" [sigcore_handler:596]\n"),
                                     EndsWith(" [sigcore_handler:610]\n")));
}

TEST_F(sig_handlerTest, RegistersAreThoseOfTheFault) {
  const Crash crash = crash_in([] {
    install();
    segfault();
  });
  ASSERT_GE(crash.raw.size(), 6u);
  unsigned long sp = 0;
  unsigned long bp = 0;
  unsigned long ip = 0;
  unsigned long at = 0;
  ASSERT_EQ(sscanf(crash.raw[1].c_str(), "Process %*d stack(sp=0x%lx, bp=0x%lx, ip=0x%lx)\n", &sp,
                   &bp, &ip),
            3);
  EXPECT_EQ(bp, reinterpret_cast<unsigned long>(&kLastFrame));
  ASSERT_EQ(sscanf(crash.raw[5].c_str(), "backtrace for crash at: 0x%lx\n", &at), 1);
  EXPECT_EQ(at, ip);
  EXPECT_NE(sp, 0u);
}

TEST_F(sig_handlerTest, FloatingPointErrorRefersToItsInstruction) {
  const Crash crash = crash_in([] {
    install();
    divide_by_zero();
  });
  ASSERT_GE(crash.raw.size(), 6u);
  EXPECT_EQ(crash.raw[4].substr(strlen("Referenced address: ")),
            crash.raw[5].substr(strlen("backtrace for crash at: ")));
}

// Returns to the functions that follow, for the lines of the walk.
const void* volatile returns[2];

[[gnu::noinline, gnu::noclone]] void innermost() {
  returns[0] = __builtin_return_address(0);
  asm volatile("movb $0, (%0)" : : "r"(nullptr) : "memory");
}

[[gnu::noinline, gnu::noclone]] void caller_of_innermost() {
  returns[1] = __builtin_return_address(0);
  innermost();
  asm volatile("");
}

TEST_F(sig_handlerTest, KeptWalkShowsTheReturnAddressOfTheFrameBefore) {
  const Crash crash = crash_in([] {
    install();
    on_print = [](const char* text) {
      if (!starts_with(text, "backtrace for")) return;
      char line[64];
      for (const void* address : {returns[0], returns[1]}) {
        snprintf(line, sizeof line, "return %p\n", address);
        record_text(line);
      }
    };
    caller_of_innermost();
    asm volatile("");
  });
  ASSERT_GE(crash.raw.size(), 11u);
  EXPECT_THAT(crash.raw[8], StartsWith("00: (nil)("));
  for (size_t i = 0; i < 2; ++i) {
    const std::string address = crash.raw[6 + i].substr(7, crash.raw[6 + i].size() - 8);
    EXPECT_THAT(crash.raw[9 + i],
                StartsWith(text_of("%02d: ", static_cast<int>(i) + 1) + address + "("));
  }
}

// ---- Chains of frames ----

struct Chain {
  const char* name;
  std::vector<int> order;  // of the frames below, by their place in memory
  uintptr_t end;           // what the last one's caller is; kRing + n: the n-th in the order
  bool faults;
  Lines lines;
};

constexpr uintptr_t kRing = 1;
constexpr uintptr_t kUnmapped = 0x5000;  // below what the kernel lets programs map

// Where the frames return to: no code, but mapped, since the system's own backtrace looks there.
const char kReturnTo[3] = {};

std::string frame_line(int number) {
  char function[32];
  snprintf(function, sizeof function, "%p",
           number == 0 ? nullptr : static_cast<const void*>(&kReturnTo[number - 1]));
  char line[128];
  snprintf(line, sizeof line, "%02d: %s(0x%x, 0x%x, 0x%x, 0x%x, ....\n", number, function,
           16 * number + 1, 16 * number + 2, 16 * number + 3, 16 * number + 4);
  return line;
}

const Lines kThreeLines = {frame_line(0), frame_line(1), frame_line(2)};
const Lines kOneLine = {frame_line(0)};

// Without an order the chain begins, and ends, at `end`.
const Chain kChains[] = {
    {"Rising", {0, 1, 2}, 0, false, kThreeLines},
    {"Descending", {2, 1, 0}, 0, false, kThreeLines},
    {"ZigZag", {1, 2, 0}, 0, false, kThreeLines},
    {"SelfRing", {0}, kRing, false, kOneLine},
    {"RingOfAll", {0, 1, 2}, kRing, false, kThreeLines},
    {"RingOfAllDescending", {2, 1, 0}, kRing, false, kThreeLines},
    {"RingAfterSome", {1, 2, 0}, kRing + 1, false, kThreeLines},
    {"RingOfTheLast", {0, 1, 2}, kRing + 2, false, kThreeLines},
    {"EndAt4096", {0, 1, 2}, 4096, false, kThreeLines},
    {"FaultAt4097", {0, 1, 2}, 4097, true, kThreeLines},
    {"Unmapped", {0, 1, 2}, kUnmapped, true, kThreeLines},
    {"HighestIsUnsigned", {0}, ~uintptr_t{0} - 4095, true, kOneLine},
    {"BeginsAtZero", {}, 0, true, {}},
    {"BeginsAt4096", {}, 4096, true, {}},
    {"BeginsUnmapped", {}, kUnmapped, true, {}},
};

class sig_handlerChainTest : public sig_handlerTest, public testing::WithParamInterface<Chain> {};

TEST_P(sig_handlerChainTest, IsFollowedToItsEndItsRingOrItsFault) {
  const Chain& chain = GetParam();
  const Crash crash = crash_in([&chain] {
    static Frame frames[3];
    const size_t count = chain.order.size();
    const auto at = [&chain](size_t i) { return &frames[chain.order[i]]; };
    const void* end = reinterpret_cast<const void*>(chain.end);
    if (count > 0 && chain.end >= kRing && chain.end < kRing + count) end = at(chain.end - kRing);
    for (size_t i = 0; i < count; ++i) {
      const uintptr_t tens = 0x10 * i;
      *at(i) = {
          i + 1 < count ? at(i + 1) : end, &kReturnTo[i], {tens + 1, tens + 2, tens + 3, tens + 4}};
    }
    install();
    store(0, count > 0 ? at(0) : end);
  });
  Lines expected = chain.faults ? story_of_faulting_walk(chain.lines) : story(kSegv, chain.lines);
  for (std::string& line : expected) line = Plain(crash.pid).line(line);
  ASSERT_GE(crash.raw.size(), 6 + chain.lines.size());
  const auto frames = crash.raw.begin() + 6;
  EXPECT_EQ(Lines(frames, frames + static_cast<ptrdiff_t>(chain.lines.size())), chain.lines);
  if (chain.order.empty()) {
    EXPECT_THAT(crash.plain[1], MatchesRegex("Process PID stack\\(sp=0xN, bp=0x.*, ip=0xN\\)\n"));
    expected[1] = crash.plain[1];
  }
  expectStory(crash, expected);
}

INSTANTIATE_TEST_SUITE_P(Frames, sig_handlerChainTest, testing::ValuesIn(kChains),
                         [](const auto& row) { return std::string(row.param.name); });

// Chains that are longer than what is searched exactly for a ring.
struct LongChain {
  const char* name;
  int frames;
  bool descends;
  int back_to;  // where the last frame leads; -1: it ends there
};

const LongChain kLongChains[] = {
    {"RisingRing", 5000, false, 0},     {"DescendingRing", 5000, true, 0},
    {"RingAfterSome", 5000, true, 700}, {"RingOfTheLast", 5000, false, 4999},
    {"Descending", 60000, true, -1},    {"Rising", 60000, false, -1},
};

class sig_handlerLongChainTest : public sig_handlerTest,
                                 public testing::WithParamInterface<LongChain> {};

TEST_P(sig_handlerLongChainTest, IsShownWholeAndEnds) {
  const LongChain& chain = GetParam();
  const Crash crash = crash_in([&chain] {
    const auto count = static_cast<size_t>(chain.frames);
    std::vector<Frame> frames(count);
    const auto at = [&](size_t i) { return &frames[chain.descends ? count - 1 - i : i]; };
    for (size_t i = 0; i < count; ++i)
      *at(i) = {i + 1 < count ? at(i + 1) : nullptr, kReturnTo, {i + 1, 0x2, 0x3, 0x4}};
    if (chain.back_to >= 0) at(count - 1)->caller = at(static_cast<size_t>(chain.back_to));
    install();
    store(0, at(0));
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT);
  const auto frames = static_cast<size_t>(chain.frames);
  const auto walk_begin =
      std::find(crash.plain.begin(), crash.plain.end(), "backtrace for crash at: 0xN\n");
  const auto walk_end = std::find(walk_begin, crash.plain.end(), kEndOfTrace);
  ASSERT_NE(walk_end, crash.plain.end());
  const Lines shown(walk_begin + 1, walk_end);
  ASSERT_GE(shown.size(), frames);
  // A ring is noticed before the walk has gone round too often.
  if (chain.back_to < 0)
    EXPECT_EQ(shown.size(), frames);
  else
    EXPECT_LT(shown.size(), 4 * frames);
  for (size_t i = 0; i < frames; ++i)
    ASSERT_THAT(shown[i], AllOf(StartsWith(text_of("%02d: ", static_cast<int>(i))),
                                EndsWith(text_of("(0x%x, ", static_cast<int>(i) + 1) +
                                         "0x2, 0x3, 0x4, ....\n")));
  EXPECT_EQ(Lines(walk_end, crash.plain.end()), kTraceTail + Lines{kDone});
  expectFile(crash);
}

INSTANTIATE_TEST_SUITE_P(Frames, sig_handlerLongChainTest, testing::ValuesIn(kLongChains),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(sig_handlerTest, BusErrorInTheWalkEndsTheProcessAsACrashOfItsOwner) {
  const Crash crash = crash_in([] {
    install();
    store(0, reinterpret_cast<const void*>(beyond_the_file()));
  });
  EXPECT_EQ(crash.end.exitCode(), 255) << crash.end;
  EXPECT_EQ(crash.plain.back(),
            "Exiting. (pid=PID, tid=TID1, rcvd_signal=7) [sigcore_handler:610]\n");
}

// ---- Faults of the print function and of the callback ----

const char* crash_at = nullptr;  // the print function crashes at each line that begins so

void crash_while_printing(const char* text) {
  if (starts_with(text, crash_at)) segfault();
}

Crash crash_with_print_crashing_at(const char* line) {
  return crash_in([line] {
    crash_at = line;
    on_print = crash_while_printing;
    crash_calls.on_sleep = [](unsigned) { sig_set_action(SIGNAL_ACTION_NO_COREDUMP); };
    install();
    segfault();
  });
}

TEST_F(sig_handlerTest, PrintThatCrashesDuringTheTraceEndsTheTraceEarly) {
  const Crash crash = crash_with_print_crashing_at("SIGNAL");
  expectStory(crash,
              Lines{first_line(SIGSEGV), kProcess, "End of stack dump.\n",
                    "SIGNAL 11 (Segmentation fault)\n", kAgain, kNoJump, kEndOfTrace, kDone});
}

TEST_F(sig_handlerTest, PrintThatCrashesAfterTheTraceIsJumpedBackFromToo) {
  const Crash crash = crash_in([] {
    static bool first = true;
    on_print = [](const char* text) {
      if (!starts_with(text, "-----") || !first) return;
      first = false;
      segfault();
    };
    install();
    segfault();
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  EXPECT_EQ(crash.plain, story(kSegv) + Lines({kAgain, kNoJump, kDone}));
}

// The thread sanitizer's own handlers block all signals, so a fault of theirs ends the process.
#ifndef __SANITIZE_THREAD__
TEST_F(sig_handlerTest, SecondFaultDuringTheTraceRaisesSigquitAtOnce) {
  const Crash crash = crash_in([] {
    on_print = [](const char* text) {
      if (starts_with(text, "SIGNAL") || starts_with(text, "Cannot")) segfault();
    };
    sigset_t quit;
    sigemptyset(&quit);
    sigaddset(&quit, SIGQUIT);
    sigprocmask(SIG_BLOCK, &quit, nullptr);  // the program's own doing
    install();
    segfault();
  });
  expectStory(crash,
              Lines{first_line(SIGSEGV), kProcess, "End of stack dump.\n",
                    "SIGNAL 11 (Segmentation fault)\n", kAgain, kNoJump,
                    "db_stack_handler: Multiple SIGSEGVs (sigsegv_count = 2), raise a SIGQUIT "
                    "signal\n"});
}

TEST_F(sig_handlerTest, MoreThanTenFaultsDuringTheTraceExitWithoutExitHandlers) {
  const Crash crash = crash_in([] {
    static struct sigaction nested;
    on_print = [](const char* text) {
      if (starts_with(text, "SIGNAL")) {
        sigaction(SIGSEGV, nullptr, &nested);
        segfault();
      }
      if (starts_with(text, "Cannot")) segfault();
      if (!starts_with(text, "db_stack_handler: Multiple")) return;
      sigaction(SIGSEGV, &nested, nullptr);
      segfault();
    };
    atexit([] { record_text("exit handler\n"); });
    install();
    segfault();
  });
  EXPECT_EQ(crash.end.exitCode(), 1) << crash.end;
  Lines expected = {first_line(SIGSEGV),
                    kProcess,
                    "End of stack dump.\n",
                    "SIGNAL 11 (Segmentation fault)\n",
                    kAgain,
                    kNoJump};
  for (int i = 2; i <= 10; ++i)
    expected.push_back(text_of(
        "db_stack_handler: Multiple SIGSEGVs (sigsegv_count = %d), raise a SIGQUIT signal\n", i));
  expected.push_back(
      "db_stack_handler: Too many SIGSEGV's (sigsegv_count = 11), calling _exit(1) to "
      "terminate\n");
  EXPECT_EQ(crash.plain, expected);
}

#endif

TEST_F(sig_handlerTest, OwnerThatFaultsAgainOutsideTheTraceExitsWith255WithoutExitHandlers) {
  for (void (*callback)() : {+[] { segfault(); }, +[] { store(beyond_the_file()); },
                             +[] { divide_by_zero(); }, +[] { abort(); }}) {
    const Crash crash = crash_in([callback] {
      atexit([] { record_text("exit handler\n"); });
      set_at_coredump_cb(callback);
      install(SIGNAL_ACTION_COREDUMP);
      store(0);
    });
    EXPECT_EQ(crash.end.exitCode(), 255) << crash.end;
    ASSERT_THAT(crash.plain, SizeIs(4));
    EXPECT_EQ(crash.plain[0], first_line(SIGSEGV));
    EXPECT_EQ(crash.plain[1], kRefused);
    EXPECT_THAT(crash.plain[2],
                MatchesRegex("Another signal handler \\(fpid=PID, ftid=TID1\\) in progress. "
                             "\\(pid=PID, tid=TID1, rcvd_signal=[0-9]+\\) "
                             "\\[sigcore_handler:596\\]\n"));
    EXPECT_THAT(crash.plain[3], MatchesRegex("Exiting. \\(pid=PID, tid=TID1, "
                                             "rcvd_signal=[0-9]+\\) \\[sigcore_handler:610\\]\n"));
    EXPECT_FALSE(exists(trace_path(crash.pid)));
  }
}

TEST_F(sig_handlerTest, PrintThatCrashesAtTheFirstLineExitsWith255) {
  const Crash crash = crash_with_print_crashing_at("Signal received");
  EXPECT_EQ(crash.end.exitCode(), 255) << crash.end;
  EXPECT_THAT(crash.plain, SizeIs(3));
}

TEST_F(sig_handlerTest, PrintThatAlwaysCrashesEndsTheProcessBySigsegv) {
  const Crash crash = crash_with_print_crashing_at("");
  EXPECT_EQ(crash.end.signal(), SIGSEGV) << crash.end;
  EXPECT_EQ(crash.end.err, std::string(kAnnounced11) + kAnnounced11);
  EXPECT_FALSE(exists(trace_path(crash.pid)));
}

TEST_F(sig_handlerTest, RefusedHandlerForFaultsOfTheTraceEndsTheTrace) {
  const Crash crash = crash_in([] {
    install();
    crash_calls.refused_signal = SIGSEGV;
    segfault();
  });
  expectStory(crash, Lines{first_line(SIGSEGV), kProcess, "Cannot set SIGSEGV signal handler\n",
                           kEndOfTrace, kDone});
}

// ---- Several threads ----

std::atomic<bool> go{false};
std::atomic<bool> parked{false};

void wait_for(const std::atomic<bool>& event) {
  while (!event) sched_yield();
}

// The owner's print function stops at a line until a second thread, which crashes then, is parked.
Crash crash_of_two(const char* stop_at, void (*second_crash)()) {
  return crash_in([=] {
    static const char* stop;
    stop = stop_at;
    on_print = [](const char* text) {
      if (starts_with(text, "Another")) parked = true;
      if (!starts_with(text, stop)) return;
      go = true;
      wait_for(parked);
    };
    install();
    std::thread second([second_crash] {
      wait_for(go);
      second_crash();
    });
    segfault();
  });
}

std::string parked_line(int the_signal) {
  return text_of(
      "Another signal handler (fpid=PID, ftid=TID1) in progress. (pid=PID, tid=TID2, "
      "rcvd_signal=%d) [sigcore_handler:596]\n",
      the_signal);
}

TEST_F(sig_handlerTest, ThreadThatCrashesBeforeTheTraceIsParked) {
  Crash crash = crash_of_two("Signal", divide_by_zero);
  ASSERT_GE(crash.plain.size(), 2u);
  EXPECT_EQ(crash.plain[1], parked_line(SIGFPE));
  crash.plain.erase(crash.plain.begin() + 1);
  expectStory(crash, story(kSegv));
  EXPECT_EQ(crash.end.err, std::string(kAnnounced11) + "In sigcore_handler. signum=8\n");
}

TEST_F(sig_handlerTest, ThreadThatCrashesDuringTheTraceIsParkedAndDisturbsNothing) {
  for (const Fault& fault : {kFaults[0], kFaults[3]}) {
    Crash crash = crash_of_two("SIGNAL", fault.happen);
    ASSERT_GE(crash.plain.size(), 5u);
    EXPECT_EQ(crash.plain[4], parked_line(fault.signal));
    crash.plain.erase(crash.plain.begin() + 4);
    expectStory(crash, story(kSegv));
    EXPECT_EQ(crash.end.err,
              kAnnounced11 + text_of("In sigcore_handler. signum=%d\n", fault.signal));
    unlink(kMarker);
  }
}

// Another process of the same name that is started meanwhile removes the marker.
TEST_F(sig_handlerTest, ThreadThatCrashesIsParkedThoughTheMarkerWasRemovedMeanwhile) {
  for (const Fault& fault : {kFaults[0], kFaults[3]}) {
    Crash crash = crash_in([&fault] {
      crash_calls.on_sleep = [](unsigned seconds) {
        if (seconds == 1) {
          parked = true;
          for (;;) pause();
        }
        unlink(kMarker);
        go = true;
        wait_for(parked);
        sig_set_action(SIGNAL_ACTION_NO_COREDUMP);
      };
      install(SIGNAL_ACTION_DEBUG);
      std::thread second([&fault] {
        wait_for(go);
        fault.happen();
      });
      segfault();
    });
    const Lines waiting = {kBanner, parked_line(fault.signal)};
    Lines expected = story(kSegv);
    expected.insert(expected.end() - 1, waiting.begin(), waiting.end());
    EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
    EXPECT_EQ(crash.plain, expected);
    expectFile(crash);
    EXPECT_FALSE(exists(kMarker));
  }
}

TEST_F(sig_handlerTest, TwoThreadsThatCrashAtOnceHaveOneOwner) {
  const Crash crash = crash_in([] {
    install();
    std::atomic<int> ready{0};
    const auto both = [&ready] {
      ++ready;
      while (ready < 2) sched_yield();
      segfault();
    };
    std::thread(both).detach();
    both();
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  EXPECT_EQ(std::count_if(crash.plain.begin(), crash.plain.end(),
                          [](const std::string& line) { return starts_with(line.c_str(), "Sig"); }),
            1);
  EXPECT_THAT(crash.plain, Contains(kDone));
}

TEST_F(sig_handlerTest, ParkedThreadSleepsInSecondsUntilTheOwnerEndsTheProcess) {
  const Crash crash = crash_in([] {
    on_print = [](const char* text) {
      if (!starts_with(text, "Signal")) return;
      go = true;
      wait_for(parked);
    };
    crash_calls.on_sleep = [](unsigned seconds) {
      static int count = 0;
      record_text(text_of("sleep %d\n", static_cast<int>(seconds)).c_str());
      if (++count < 3) return;
      parked = true;
      for (;;) pause();
    };
    install();
    std::thread second([] {
      wait_for(go);
      segfault();
    });
    segfault();
  });
  ASSERT_GE(crash.plain.size(), 5u);
  EXPECT_EQ(Lines(crash.plain.begin() + 1, crash.plain.begin() + 5),
            (Lines{parked_line(SIGSEGV), "sleep 1\n", "sleep 1\n", "sleep 1\n"}));
  EXPECT_EQ(crash.end.signal(), SIGQUIT);
}

TEST_F(sig_handlerTest, ThreadThatIsCancelledFinishesItsTrace) {
  const Crash crash = crash_in([] {
    static pthread_t crashing;
    on_print = [](const char* text) {
      if (starts_with(text, "Signal")) pthread_cancel(crashing);
    };
    install();
    std::thread second([] {
      crashing = pthread_self();
      segfault();
    });
    second.join();
    record_text("survived\n");
  });
  expectStory(crash, story(kSegv));
}

// ---- Several processes, and the marker ----

constexpr char kParkedAlone[] =
    "Another signal handler (fpid=0, ftid=0) in progress. (pid=PID, tid=TID1, rcvd_signal=11) "
    "[sigcore_handler:596]\n";

// A process that crashes with the marker left behind since its sig_init.
class ParkedProcess {
 public:
  explicit ParkedProcess(const std::function<void()>& after_init)
      : child_([&after_init] {
          install();
          after_init();
          segfault();
        }) {}
  Child* child() { return &child_; }
  Lines killed() {
    child_.signal(SIGKILL);
    const Crash crash = look_at(&child_);
    EXPECT_EQ(crash.end.signal(), SIGKILL);
    EXPECT_FALSE(exists(trace_path(crash.pid)));
    return crash.plain;
  }

 private:
  Child child_;
};

TEST_F(sig_handlerTest, ProcessOfTheSameNameIsParkedWhileTheMarkerIsThere) {
  ParkedProcess second([] {
    record_text("installed");
    while (!exists(kMarker)) sched_yield();
  });
  ASSERT_TRUE(second.child()->waitForOut("installed"));
  Child first([] {
    install(SIGNAL_ACTION_DEBUG);
    segfault();
  });
  expectSleeping(&first, "please attach to process");
  expectSleeping(second.child(), "Another signal handler");
  EXPECT_THAT(second.killed(), ElementsAre("installed", kParkedAlone));
  expectSleeping(&first, "please attach to process");
}

TEST_F(sig_handlerTest, LaterCrashIsParkedUntilTheNextInitRemovesTheMarker) {
  ParkedProcess later([] { write(kMarker, "left\n"); });
  expectSleeping(later.child(), "Another signal handler");
  EXPECT_THAT(later.killed(), ElementsAre(kParkedAlone));
  EXPECT_EQ(read(kMarker), "left\n");

  const Crash next = crash_in([] {
    install();
    segfault();
  });
  expectStory(next, story(kSegv));
  EXPECT_EQ(read(kMarker), "");
}

TEST_F(sig_handlerTest, KeptMissingDirectoryParksEvenTheFirstCrash) {
  rmdir("/local/local1");
  ParkedProcess process([] {});
  expectSleeping(process.child(), "Another signal handler");
  EXPECT_THAT(process.killed(), ElementsAre(kParkedAlone));
}

TEST_F(sig_handlerTest, DiskWithoutRoomForTheMarkerParksTheFirstCrash) {
  ASSERT_EQ(mount("tmpfs", "/local/local1", "tmpfs", 0, "nr_inodes=1"), 0);
  ParkedProcess process([] {});
  expectSleeping(process.child(), "Another signal handler");
  EXPECT_THAT(process.killed(), ElementsAre(kParkedAlone));
}

TEST_F(sig_handlerTest, TraceOfAnEarlierProcessOfTheSameNumberIsOverwritten) {
  const Crash crash = crash_in([] {
    install();
    write(trace_path(getpid()), std::string(100000, 'x'));
    segfault();
  });
  expectStory(crash, story(kSegv));
}

// ---- Files that cannot be written ----

TEST_F(sig_handlerTest, TraceFileThatCannotBeCreatedOnlyLosesTheFile) {
  for (const auto action : {SIGNAL_ACTION_DEBUG, SIGNAL_ACTION_NO_COREDUMP}) {
    const Crash crash = crash_in([action] {
      install(action);
      crash_calls.on_sleep = [](unsigned) { sig_set_action(SIGNAL_ACTION_NO_COREDUMP); };
      mkdir(trace_path(getpid()).c_str(), 0755);
      segfault();
    });
    EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
    Lines expected = {first_line(SIGSEGV),
                      "Cannot create trace file: "
                      "/local/local1/.sig_handler_test_crash_trace.PID, errno: 21, "
                      "Is a directory\n"};
    if (action == SIGNAL_ACTION_DEBUG) expected.push_back(kBanner);
    expected.push_back(kDone);
    EXPECT_EQ(crash.plain, expected);
  }
}

TEST_F(sig_handlerTest, DiskThatTakesTheMarkerButNoTraceFileLosesTheFile) {
  ASSERT_EQ(mount("tmpfs", "/local/local1", "tmpfs", 0, "nr_inodes=2"), 0);
  const Crash crash = crash_in([] {
    install();
    segfault();
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  EXPECT_EQ(crash.plain,
            (Lines{first_line(SIGSEGV),
                   "Cannot create trace file: /local/local1/.sig_handler_test_crash_trace.PID, "
                   "errno: 28, No space left on device\n",
                   kDone}));
}

TEST_F(sig_handlerTest, FullDiskLosesTheFileTextAndTheSymbols) {
  ASSERT_EQ(mount("tmpfs", "/local/local1", "tmpfs", 0, "size=4k"), 0);
  write("/local/local1/filler", std::string(4096, 'x'));
  const Crash crash = crash_in([] {
    install();
    segfault();
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  Lines expected = story(kSegv);
  expected.erase(std::find(expected.begin(), expected.end(), "SYMBOLS"));
  EXPECT_EQ(crash.plain, expected);
  EXPECT_EQ(read(trace_path(crash.pid)), "");
}

// ---- Circumstances of a crash, with every action ----

class sig_handlerActionTest : public sig_handlerTest,
                              public testing::WithParamInterface<sig_signal_action> {
 protected:
  // For the child: all that an action may bring about is recorded.
  static void installRecording() {
    atexit([] { record_text("exit handler\n"); });
    set_at_coredump_cb([] { record_text("callback\n"); });
    crash_calls.on_sleep = record_sleep;
    install(GetParam());
  }

  // The same where a core limit that is raised would be seen.
  static void installWithRaisableLimit() {
    crash_calls.hard_core_limit_stays = true;
    installRecording();
  }

  static Crash crashBy(const std::function<void()>& fault) {
    return crash_in([&fault] {
      installRecording();
      fault();
    });
  }

  static Lines withAction(const Lines& told) { return with_action(GetParam(), told); }

  // A process of one thread that crashes with a limit that could be raised; it lives on after its
  // one line, and nothing else happens. Then it is killed.
  static void expectParked(Child* child) {
    expectSleeping(child, "sleep 1, core limit 0\n");
    EXPECT_EQ(kill(child->pid(), 0), 0);
    child->signal(SIGKILL);
    const Crash crash = look_at(child);
    EXPECT_EQ(crash.end.signal(), SIGKILL) << crash.end;
    EXPECT_EQ(crash.plain, (Lines{kParkedAlone, "sleep 1, core limit 0\n"}));
    EXPECT_EQ(crash.end.err, kAnnounced11);
    EXPECT_FALSE(exists(trace_path(crash.pid)));
  }

  static void expectParkedAtOnce() {
    Child child([] {
      installWithRaisableLimit();
      segfault();
    });
    expectParked(&child);
  }

  static std::atomic<bool> sleeping;  // a parked thread

 private:
  static void record_sleep(unsigned seconds) {
    if (seconds != 1) {
      record_text(text_of("sleep %d\n", static_cast<int>(seconds)).c_str());
      sig_set_action(SIGNAL_ACTION_COREDUMP);
      return;
    }
    rlimit limit;
    getrlimit(RLIMIT_CORE, &limit);
    record_text(limit.rlim_cur == 0 ? "sleep 1, core limit 0\n" : "sleep 1, core limit raised\n");
    sleeping = true;
    for (;;) pause();
  }
};

std::atomic<bool> sig_handlerActionTest::sleeping{false};

#if !SANITIZED
// The abort's frames are the system library's: nobody knows how far the walk gets.
Lines without_walk(Lines told) {
  const auto begin = std::find(told.begin(), told.end(), "backtrace for crash at: 0xN\n");
  const auto last = std::find(told.rbegin(), told.rend(), kEndOfTrace);
  if (begin != told.end() && last != told.rend()) told.erase(begin + 1, last.base() - 1);
  return told;
}

TEST_P(sig_handlerActionTest, AbortInMallocWithTheHeapCorruptAndItsLockHeld) {
  const Crash crash = crashBy([] {
    std::thread([] { pause(); }).detach();  // only threads make malloc take its locks
    memset(&size_of_the_rest_of_the_heap(), 0xff, sizeof(size_t));
    void* volatile more = malloc(100000);
    (void)more;
  });
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  EXPECT_EQ(without_walk(crash.plain), without_walk(withAction(story(kFaults[4]))));
  EXPECT_EQ(crash.end.err, "malloc(): corrupted top size\nIn sigcore_handler. signum=6\n");
  expectFile(crash);
  EXPECT_TRUE(exists(kMarker));
}
#endif

TEST_P(sig_handlerActionTest, TwoThreadsAtOnce) {
  const Crash crash = crash_in([] {
    on_print = [](const char* text) {
      if (starts_with(text, "Signal")) wait_for(sleeping);
    };
    installRecording();
    static std::atomic<int> ready{0};
    const auto both = [] {
      ++ready;
      while (ready < 2) sched_yield();
      segfault();
    };
    std::thread(both).detach();
    both();
  });
  // The parked one may come first, even before the owner has said who it is.
  Lines told;
  Lines parked_told;
  for (const std::string& line : crash.raw) {
    const bool is_parked =
        starts_with(line.c_str(), "Another") || starts_with(line.c_str(), "sleep 1,");
    (is_parked ? parked_told : told).push_back(line);
  }
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  EXPECT_EQ(Plain(crash.pid).lines(told), withAction(story(kSegv)));
  EXPECT_THAT(parked_told, ElementsAre(MatchesRegex("Another signal handler .*rcvd_signal=11\\) "
                                                    "\\[sigcore_handler:596\\]\n"),
                                       "sleep 1, core limit 0\n"));
  EXPECT_EQ(crash.end.err, std::string(kAnnounced11) + kAnnounced11);
  EXPECT_EQ(read(trace_path(crash.pid)), file_of(told));
  EXPECT_TRUE(exists(kMarker));
}

TEST_P(sig_handlerActionTest, TwoProcessesOfOneName) {
  static constexpr char kGoOn[] = "/tmp/go-on";
  Child second([] {
    installWithRaisableLimit();
    record_fd = STDERR_FILENO;
    record_text("installed");
    record_fd = STDOUT_FILENO;
    while (!exists(kMarker)) sched_yield();
    segfault();
  });
  ASSERT_TRUE(second.waitForErr("installed"));
  Child first([] {
    on_print = [](const char* text) {
      while (starts_with(text, "SIGNAL") && !exists(kGoOn)) sched_yield();
    };
    installRecording();
    segfault();
  });
  expectSleeping(&second, "sleep 1, core limit 0\n");
  write(kGoOn, "");
  expectStory(look_at(&first), withAction(story(kSegv)));
  EXPECT_EQ(kill(second.pid(), 0), 0);
  second.signal(SIGKILL);
  const Crash crash = look_at(&second);
  EXPECT_EQ(crash.end.signal(), SIGKILL) << crash.end;
  EXPECT_EQ(crash.plain, (Lines{kParkedAlone, "sleep 1, core limit 0\n"}));
  EXPECT_FALSE(exists(trace_path(crash.pid)));
  EXPECT_TRUE(exists(kMarker));
}

TEST_P(sig_handlerActionTest, FaultDuringTheTrace) {
  static const Frame broken = {reinterpret_cast<const void*>(kUnmapped), nullptr, {1, 2, 3, 4}};
  const Crash crash = crashBy([] { store(0, &broken); });
  expectStory(crash, withAction(story_of_faulting_walk({kLastFrameLine})));
  EXPECT_EQ(crash.end.err, kAnnounced11);
  EXPECT_TRUE(exists(kMarker));
}

TEST_P(sig_handlerActionTest, MarkerLeftFromBefore) {
  Child child([] {
    installWithRaisableLimit();
    write(kMarker, "left\n");
    segfault();
  });
  expectParked(&child);
  EXPECT_EQ(read(kMarker), "left\n");
}

TEST_P(sig_handlerActionTest, DirectoryMissing) {
  rmdir("/local/local1");
  expectParkedAtOnce();
  EXPECT_FALSE(exists("/local/local1"));
}

TEST_P(sig_handlerActionTest, DiskFull) {
  ASSERT_EQ(mount("tmpfs", "/local/local1", "tmpfs", 0, "size=4k"), 0);
  write("/local/local1/filler", std::string(4096, 'x'));
  const Crash crash = crashBy(segfault);
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  Lines expected = withAction(story(kSegv));
  expected.erase(std::find(expected.begin(), expected.end(), "SYMBOLS"));
  EXPECT_EQ(crash.plain, expected);
  ASSERT_TRUE(exists(trace_path(crash.pid)));
  EXPECT_EQ(read(trace_path(crash.pid)), "");
  EXPECT_TRUE(exists(kMarker));
}

TEST_P(sig_handlerActionTest, DiskWithoutRoomForTheMarker) {
  ASSERT_EQ(mount("tmpfs", "/local/local1", "tmpfs", 0, "nr_inodes=1"), 0);
  expectParkedAtOnce();
  EXPECT_FALSE(exists(kMarker));
}

TEST_P(sig_handlerActionTest, StandardErrorClosed) {
  const Crash crash = crashBy([] {
    close(STDERR_FILENO);
    segfault();
  });
  expectStory(crash, withAction(story(kSegv)));
  EXPECT_EQ(crash.end.err, "");
  EXPECT_TRUE(exists(kMarker));
}

TEST_P(sig_handlerActionTest, CallbackThatCrashes) {
  const Crash crash = crashBy([] {
    set_at_coredump_cb([] {
      record_text("callback\n");
      segfault();
    });
    segfault();
  });
  EXPECT_TRUE(exists(kMarker));
  if (GetParam() != SIGNAL_ACTION_COREDUMP) {
    expectStory(crash, withAction(story(kSegv)));
    EXPECT_EQ(crash.end.err, kAnnounced11);
    return;
  }
  EXPECT_EQ(crash.end.exitCode(), 255) << crash.end;
  EXPECT_EQ(crash.plain,
            (Lines{first_line(SIGSEGV), kRefused, "callback\n",
                   "Another signal handler (fpid=PID, ftid=TID1) in progress. (pid=PID, tid=TID1, "
                   "rcvd_signal=11) [sigcore_handler:596]\n",
                   "Exiting. (pid=PID, tid=TID1, rcvd_signal=11) [sigcore_handler:610]\n"}));
  EXPECT_EQ(crash.end.err, std::string(kAnnounced11) + kAnnounced11);
  EXPECT_FALSE(exists(trace_path(crash.pid)));
}

INSTANTIATE_TEST_SUITE_P(Actions, sig_handlerActionTest,
                         testing::Values(SIGNAL_ACTION_COREDUMP, SIGNAL_ACTION_DEBUG,
                                         SIGNAL_ACTION_NO_COREDUMP),
                         [](const auto& row) { return std::string(kActionNames[row.param]); });

// ---- Texts of the trace that are longer than their buffer ----

struct LongText {
  size_t length;  // of the line that names the signal, with its newline
  size_t shown;
};

class sig_handlerLongTextTest : public sig_handlerTest,
                                public testing::WithParamInterface<LongText> {};

TEST_P(sig_handlerLongTextTest, IsCutAfter511Bytes) {
  const std::string description(GetParam().length - strlen("SIGNAL 11 ()\n"), 'd');
  const Crash crash = crash_in([&description] {
    crash_calls.signal_description = description.c_str();
    install();
    segfault();
  });
  Lines expected = story(kSegv);
  expected[3] = ("SIGNAL 11 (" + description + ")\n").substr(0, GetParam().shown);
  expectStory(crash, expected);
  EXPECT_EQ(crash.raw[3].size(), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(Lengths, sig_handlerLongTextTest,
                         testing::Values(LongText{510, 510}, LongText{511, 511}, LongText{512, 511},
                                         LongText{600, 511}),
                         [](const auto& row) { return std::to_string(row.param.length); });

// What stands in the buffer then is whatever the formatter has left there.
TEST_F(sig_handlerTest, TextThatTheFormatterRefusesIsTheWholeBuffer) {
  const Crash crash = crash_in([] {
    crash_calls.refused_format = "SIGNAL %d (%s)\n";
    install();
    segfault();
  });
  Lines expected = story(kSegv);
  expected[3] = std::string(511, 'x');
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  EXPECT_EQ(crash.plain, expected);
  Lines written = crash.raw;
  ASSERT_GE(written.size(), 4u);
  written[3] += '\0';
  EXPECT_EQ(read(trace_path(crash.pid)), file_of(written));
}

// ---- Standard descriptors ----

TEST_F(sig_handlerTest, ClosedStandardErrorIsNoHindrance) {
  const Crash crash = crash_in([] {
    install();
    close(STDERR_FILENO);
    segfault();
  });
  expectStory(crash, story(kSegv));
  EXPECT_EQ(crash.end.err, "");
}

TEST_F(sig_handlerTest, TraceFileIsNoStandardDescriptor) {
  const Crash crash = crash_in([] {
    install();
    record_fd = fcntl(STDOUT_FILENO, F_DUPFD, 100);
    on_print = [](const char*) {
      for (int fd = 0; fd <= STDERR_FILENO; ++fd) (void)!::write(fd, "print", 5);
    };
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) close(fd);
    segfault();
  });
  expectStory(crash, story(kSegv));
}

TEST_F(sig_handlerTest, StandardErrorWithoutReaderIsNoHindrance) {
  const Crash crash = crash_in([] {
    install();
    int ends[2];
    if (pipe(ends) != 0) _exit(95);
    close(ends[0]);
    dup2(ends[1], STDERR_FILENO);
    segfault();
  });
  expectStory(crash, story(kSegv));
}

// ---- Waiting for a debugger ----

TEST_F(sig_handlerTest, SleepsDoubleUpToTheirLimit) {
  const Crash crash = crash_in([] {
    crash_calls.on_sleep = [](unsigned seconds) {
      static int count = 0;
      record_text(text_of("sleep %d\n", static_cast<int>(seconds)).c_str());
      if (++count == 29) sig_set_action(SIGNAL_ACTION_NO_COREDUMP);
    };
    install(SIGNAL_ACTION_DEBUG);
    segfault();
  });
  Lines expected = story(kSegv);
  expected.pop_back();
  for (const int seconds :
       {20,        40,        80,         160,        320,       640,      1280,     2560,
        5120,      10240,     20480,      40960,      81920,     163840,   327680,   655360,
        1310720,   2621440,   5242880,    10485760,   20971520,  41943040, 83886080, 167772160,
        335544320, 671088640, 1342177280, 1342177280, 1342177280}) {
    expected.push_back(kBanner);
    expected.push_back(text_of("sleep %d\n", seconds));
  }
  expected.push_back(kDone);
  expectStory(crash, expected);
}

TEST_F(sig_handlerTest, HandledSignalBringsTheBannerNoEarlier) {
  const Crash crash = crash_in([] {
    crash_calls.on_sleep = [](unsigned seconds) {
      record_text(text_of("sleep %d\n", static_cast<int>(seconds)).c_str());
      if (seconds == 20) crash_calls.left_of_sleep = 13;
      if (seconds == 13) crash_calls.left_of_sleep = 1;
      if (seconds != 40) return;
      crash_calls.left_of_sleep = 39;  // by the signal of whoever changes the action
      sig_set_action(SIGNAL_ACTION_NO_COREDUMP);
    };
    install(SIGNAL_ACTION_DEBUG);
    segfault();
  });
  Lines expected = story(kSegv);
  const Lines waiting = {kBanner, "sleep 20\n", "sleep 13\n", "sleep 1\n", kBanner, "sleep 40\n"};
  expected.insert(expected.end() - 1, waiting.begin(), waiting.end());
  expectStory(crash, expected);
}

TEST_F(sig_handlerTest, SlowWaitsTwentySecondsAndEndsOnceTheActionHasChanged) {
  Child child([] {
    sigset_t change;
    sigemptyset(&change);
    sigaddset(&change, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &change, nullptr);
    install(SIGNAL_ACTION_DEBUG);
    std::thread second([change] {
      int got;
      sigwait(&change, &got);
      sig_set_action(SIGNAL_ACTION_NO_COREDUMP);
      record_text("sleep is still on\n");
    });
    segfault();
  });
  expectSleeping(&child, "please attach to process");
  child.signal(SIGUSR1);
  const Crash crash = look_at(&child);
  Lines expected = story(kSegv);
  const Lines waiting = {kBanner, "sleep is still on\n"};
  expected.insert(expected.end() - 1, waiting.begin(), waiting.end());
  expectStory(crash, expected);
}

// ---- The end ----

TEST_F(sig_handlerTest, BlockedSigquitEndsTheProcessAllTheSame) {
  const Crash crash = crash_in([] {
    install();
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    // What faults while it is blocked ends the process in the kernel.
    sigset_t fault;
    sigemptyset(&fault);
    sigaddset(&fault, SIGSEGV);
    sigprocmask(SIG_UNBLOCK, &fault, nullptr);
    segfault();
  });
  expectStory(crash, story(kSegv));
}

TEST_F(sig_handlerTest, HandledSigquitEndsTheProcessAllTheSame) {
  for (void (*handler)(int) : {SIG_IGN, +[](int) { record_text("handled\n"); }}) {
    const Crash crash = crash_in([handler] {
      install();
      (void)signal(SIGQUIT, handler);
      segfault();
    });
    expectStory(crash, story(kSegv));
  }
}

// The kernel keeps signals of default action from process 1 of a PID namespace.
TEST_F(sig_handlerTest, Process1OfANamespaceExitsWithTheStatusOfSigquit) {
  for (const Fault* fault : {&kFaults[0], &kFaults[4]}) {
    const Crash crash = crash_in([fault] {
      if (unshare(CLONE_NEWPID) != 0) _exit(94);
      const pid_t first = fork();
      if (first == 0) {
        install();
        fault->happen();
      }
      int status;
      waitpid(first, &status, 0);
      _exit(WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
    });
    EXPECT_EQ(crash.end.exitCode(), 131) << crash.end;
    EXPECT_EQ(Plain(1).lines(crash.raw), story(*fault));
    EXPECT_EQ(read(trace_path(1)), file_of(crash.raw));
  }
}

// ---- Other signals ----

TEST_F(sig_handlerTest, HandlerThatTheProgramInstallsForIllegalInstructionsNamesTheAddress) {
  const Crash crash = crash_in([] {
    install();
    struct sigaction action = {};
    action.sa_sigaction = sigcore_handler;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGILL, &action, nullptr);
    illegal_instruction();
  });
  expectStory(crash, story({"", SIGILL, "Illegal instruction", "0xN", nullptr}));
}

TEST_F(sig_handlerTest, HandlerThatTheProgramInstallsForBreakpointsNamesNoAddress) {
  const Crash crash = crash_in([] {
    install();
    struct sigaction action = {};
    action.sa_sigaction = sigcore_handler;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, nullptr);
    breakpoint();
  });
  expectStory(crash, story({"", SIGTRAP, "Trace/breakpoint trap", nullptr, nullptr}));
}

// ---- Running out of stack ----

[[gnu::noinline]] int fill_stack(int depth) {
  volatile char room[65536];
  room[0] = static_cast<char>(depth);
  return depth == 0 ? 0 : fill_stack(depth - 1) + room[0];
}

void run_out_of_stack() {
  rlimit limit;
  getrlimit(RLIMIT_STACK, &limit);
  limit.rlim_cur = 1 << 20;
  setrlimit(RLIMIT_STACK, &limit);
  _exit(fill_stack(1000000));
}

alignas(64) char alternate[2][SIG_ALTERNATE_STACK_SIZE];

void expectTraceOfOverflow(const Crash& crash) {
  EXPECT_EQ(crash.end.signal(), SIGQUIT) << crash.end;
  ASSERT_GE(crash.plain.size(), 9u);
  EXPECT_EQ(crash.plain[0], first_line(SIGSEGV));
  EXPECT_EQ(crash.plain[3], "SIGNAL 11 (Segmentation fault)\n");
  EXPECT_THAT(crash.plain[6], StartsWith("00: (nil)("));
  EXPECT_EQ(crash.plain.back(), kDone);
}

TEST_F(sig_handlerTest, StackOverflowDiesWithoutTrace) {
  const Crash crash = crash_in([] {
    install();
    stack_t none = {};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
    run_out_of_stack();
  });
  EXPECT_EQ(crash.end.signal(), SIGSEGV) << crash.end;
  EXPECT_THAT(crash.raw, IsEmpty());
  EXPECT_FALSE(exists(kMarker));
}

TEST_F(sig_handlerTest, StackOverflowOnAnAlternateStackLeavesATrace) {
  const Crash crash = crash_in([] {
    install();
    if (sig_use_alternate_stack(alternate[0], sizeof alternate[0]) != 1) _exit(93);
    run_out_of_stack();
  });
  expectTraceOfOverflow(crash);
  expectFile(crash);
}

TEST_F(sig_handlerTest, StackOverflowOfASecondThreadOnAnAlternateStackLeavesATrace) {
  const Crash crash = crash_in([] {
    install();
    std::thread([] {
      if (sig_use_alternate_stack(alternate[1], sizeof alternate[1]) != 1) _exit(93);
      _exit(fill_stack(1000000));
    }).join();
  });
  expectTraceOfOverflow(crash);
  expectFile(crash);
}

TEST_F(sig_handlerTest, FaultOfTheWalkOnAnAlternateStackIsJumpedBackFrom) {
  const Crash crash = crash_in([] {
    install();
    if (sig_use_alternate_stack(alternate[0], sizeof alternate[0]) != 1) _exit(93);
    store(0, reinterpret_cast<const void*>(kUnmapped));
  });
  ASSERT_GE(crash.plain.size(), 2u);
  Lines expected = story_of_faulting_walk({});
  expected[1] = crash.plain[1];
  expectStory(crash, expected);
}

TEST_F(sig_handlerTest, ThreadThatRunsOutOfStackDuringTheTraceIsParkedOnItsAlternateStack) {
  Crash crash = crash_of_two("SIGNAL", [] { _exit(fill_stack(1000000)); });
  EXPECT_EQ(crash.end.signal(), SIGSEGV);  // it has none
  EXPECT_EQ(crash.plain.back(), "SIGNAL 11 (Segmentation fault)\n");

  crash = crash_in([] {
    on_print = [](const char* text) {
      if (starts_with(text, "Another")) parked = true;
      if (!starts_with(text, "SIGNAL")) return;
      go = true;
      wait_for(parked);
    };
    install();
    static std::atomic<bool> ready{false};
    std::thread second([] {
      if (sig_use_alternate_stack(alternate[1], sizeof alternate[1]) != 1) _exit(93);
      ready = true;
      wait_for(go);
      _exit(fill_stack(1000000));
    });
    wait_for(ready);
    segfault();
  });
  ASSERT_GE(crash.plain.size(), 5u);
  EXPECT_EQ(crash.plain[4], parked_line(SIGSEGV));
  crash.plain.erase(crash.plain.begin() + 4);
  expectStory(crash, story(kSegv));
}

TEST_F(sig_handlerInitTest, AlternateStackBeforeInitIsRefused) {
  inChild([] {
    stack_t before;
    sigaltstack(nullptr, &before);
    EXPECT_EQ(sig_use_alternate_stack(alternate[0], sizeof alternate[0]), 0);
    EXPECT_EQ(errno, EINVAL);
    stack_t after;
    sigaltstack(nullptr, &after);
    EXPECT_EQ(after.ss_sp, before.ss_sp);
  });
}

TEST_F(sig_handlerInitTest, AlternateStackThatIsTooSmallIsRefused) {
  inChild([] {
    EXPECT_EQ(sig_init(record), 1);
    EXPECT_EQ(sig_use_alternate_stack(alternate[0], 100), 0);
    EXPECT_EQ(errno, ENOMEM);
  });
}

TEST_F(sig_handlerInitTest, AlternateStackKeepsTheHandlersOtherwiseAsTheyWere) {
  inChild([] {
    EXPECT_EQ(sig_init(record), 1);
    EXPECT_EQ(sig_use_alternate_stack(alternate[0], sizeof alternate[0]), 1);
    for (const int the_signal : kFaultSignals) {
      const struct sigaction action = action_of(the_signal);
      EXPECT_EQ(action.sa_sigaction, sigcore_handler);
      EXPECT_EQ(action.sa_flags & ~0x04000000, SA_SIGINFO | SA_RESTART | SA_ONSTACK);
      for (const int masked : kFaultSignals) EXPECT_EQ(sigismember(&action.sa_mask, masked), 1);
    }
    stack_t now;
    sigaltstack(nullptr, &now);
    EXPECT_EQ(now.ss_sp, alternate[0]);
  });
}

}  // namespace
