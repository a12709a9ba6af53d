// Starting and stopping child processes: real children, and where only the clock or the system
// would decide, stand-ins for their calls. Names that begin with "Slow" take the real time.
#include "velorin/Launcher"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/eventually.h"
#include "support/private_world.h"
#include "support/process_calls.h"
#include "velorin/ad_debug"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Texts = std::vector<std::string>;

constexpr int kPort = 8008;
constexpr char kStandIn[] = VELORIN_BUILD "/stand-in";

void append(Texts* to, const Texts& more, int times = 1) {
  for (int i = 0; i < times; ++i) to->insert(to->end(), more.begin(), more.end());
}

// How a child of this process ended; it stays a zombie.
siginfo_t endOf(pid_t pid) {
  siginfo_t info = {};
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  return info;
}

// The only child of this process.
pid_t onlyChild() {
  const std::string self = std::to_string(getpid());
  const std::string path = "/proc/" + self + "/task/" + self + "/children";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  char text[64] = "";
  EXPECT_GT(::read(fd, text, sizeof text - 1), 0) << "no child";
  close(fd);
  const std::string children = text;
  EXPECT_EQ(children.find(' '), children.size() - 1) << "not one child: " << children;
  return atoi(text);
}

bool exists(const std::string& path) {
  return std::filesystem::exists(path);
}

class LauncherTest : public PrivateWorld {
 protected:
  LauncherTest() {
    configure(0);
    process_calls = {};
    signal(SIGCHLD, SIG_DFL);
  }
  ~LauncherTest() override {
    process_calls = {};
    // What a failed test has left, and children whose end nobody has asked for.
    pid_t child;
    while ((child = waitpid(-1, nullptr, WNOHANG)) >= 0) {
      if (child > 0) continue;
      kill(onlyChild(), SIGKILL);
      (void)poll(nullptr, 0, 1);
    }
  }

  static void configure(int32_t level) {
    ad_read_debug_cfg_direct_read_from_env();
    ad_debug_cfg_p->ad_debug_level = level;
    ad_current_client_ip = 0;
  }

  // A program at `path` that the shell runs.
  static void program(const std::string& path, const std::string& commands) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    write(path, "#!/bin/sh\n" + commands);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }

  // A program that writes its arguments to /tmp/arguments, each in brackets, and ends.
  static void argumentShower(const std::string& path) {
    program(path, "for argument; do printf '[%s]' \"$argument\"; done > /tmp/arguments\n");
  }
  static std::string shownArguments() { return read("/tmp/arguments"); }

  // Programs that run until a signal ends them; both say "/tmp/ready" when it can be sent.
  static void heedingProgram(const std::string& path) {
    program(path, "> /tmp/ready\nexec sleep 1000\n");
  }
  static void defiantProgram(const std::string& path) {
    program(path, "trap '' TERM\n> /tmp/ready\nexec sleep 1000\n");
  }
  static void awaitReady() {
    ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }));
  }

  static void searchFirst(const std::string& dir) {
    setenv("PATH", (dir + ":" + path_).c_str(), 1);
  }
  void TearDown() override { setenv("PATH", path_.c_str(), 1); }

  // The log lines so far, as "TAG FILE: TEXT".
  Texts lines() {
    Texts texts;
    for (const std::string& line : daemon().waiting()) texts.push_back(shortened(line));
    return texts;
  }

  static std::string shortened(const std::string& line) {
    const size_t tag = line.find(')') + 1;
    const size_t file = line.find(':', tag) + 1;
    const size_t number = line.find(':', file);
    const size_t text = line.find("-> ", number) + 3;
    return line.substr(tag, file - tag - 1) + " " + line.substr(file, number - file) + ": " +
           line.substr(text);
  }

 private:
  inline static const std::string path_ = getenv("PATH");
};

// ---- The functions: starting ----

class LauncherFunctionsTest : public LauncherTest {
 protected:
  // Starts the command and waits for its end.
  static siginfo_t run(const std::string& command) {
    Launcher_t* const launcher = Launcher_new(command.c_str());
    const siginfo_t end = endOf(launcher->pid);
    Launcher_delete(launcher);
    return end;
  }
};

TEST_F(LauncherFunctionsTest, RecordHoldsTheChildAndTheWholeCommand) {
  const std::string command = " sleep  1000 ";
  std::string given = command;
  Launcher_t* const launcher = Launcher_new(given.c_str());
  given.assign(given.size(), 'x');
  EXPECT_EQ(launcher->pid, onlyChild());
  EXPECT_EQ(launcher->name, command);
  Launcher_delete(launcher);
}

TEST_F(LauncherFunctionsTest, StartIsAnnouncedFromLevelTwo) {
  const std::string command = "true 100%s";
  configure(1);
  run("true");
  EXPECT_THAT(lines(), IsEmpty());
  configure(2);
  run(command);
  EXPECT_THAT(lines(), ElementsAre("TRCE Launcher.cc: Launching " + command,
                                   "TRCE Launcher.cc: Unlaunching " + command));
}

TEST_F(LauncherFunctionsTest, RunsOfBlanksSeparateWordsAndMakeNone) {
  argumentShower("/tmp/bin/a");
  searchFirst("/tmp/bin");
  EXPECT_EQ(run("  a  b  ").si_status, 0);
  EXPECT_EQ(shownArguments(), "[b]");
}

TEST_F(LauncherFunctionsTest, OneBlankSeparatesWords) {
  argumentShower("/tmp/a");
  run("/tmp/a b c");
  EXPECT_EQ(shownArguments(), "[b][c]");
}

TEST_F(LauncherFunctionsTest, TabAndOtherWhiteSpaceBelongToTheirWord) {
  argumentShower("/tmp/a");
  run("/tmp/a b\tc \t d\ne");
  EXPECT_EQ(shownArguments(), "[b\tc][\t][d\ne]");
}

TEST_F(LauncherFunctionsTest, QuotesAndBackslashesAreOrdinaryCharacters) {
  argumentShower("/tmp/a");
  run("/tmp/a 'b c' \"d\" e\\ f $HOME *");
  EXPECT_EQ(shownArguments(), "['b][c'][\"d\"][e\\][f][$HOME][*]");
}

TEST_F(LauncherFunctionsTest, ExactlyThe1023rdWordIsTheLastThatExecutes) {
  program("/tmp/a", "echo $# > /tmp/count\n");
  std::string command = "/tmp/a";
  for (int i = 0; i < 1022; ++i) command += " w";
  EXPECT_EQ(run(command).si_status, 0);
  EXPECT_EQ(read("/tmp/count"), "1022\n");
  // A blank behind the last word makes no further one.
  std::filesystem::remove("/tmp/count");
  EXPECT_EQ(run(command + "  ").si_status, 0);
  EXPECT_EQ(read("/tmp/count"), "1022\n");
}

// What a child that must abort says.
std::string complaintOf(const std::string& command) {
  const ChildResult caller = runInChild([&] {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    Launcher_t* const launcher = Launcher_new(command.c_str());
    EXPECT_GT(launcher->pid, 0);
    const siginfo_t end = endOf(launcher->pid);
    EXPECT_EQ(end.si_code, CLD_KILLED);
    EXPECT_EQ(end.si_status, SIGABRT);
    Launcher_delete(launcher);
  });
  EXPECT_EQ(caller.exitCode(), 0) << caller;
  return caller.err;
}

TEST_F(LauncherFunctionsTest, MoreThan1023WordsAbortTheChild) {
  std::string command = "true";
  for (int i = 0; i < 1023; ++i) command += " w";
  EXPECT_THAT(complaintOf(command),
              AllOf(HasSubstr("Launcher_new"), HasSubstr("Assertion `argc < maxarg' failed.")));
  for (int i = 0; i < 1000; ++i) command += " w";
  EXPECT_THAT(complaintOf(command),
              AllOf(HasSubstr("Launcher_new"), HasSubstr("Assertion `argc < maxarg' failed.")));
}

TEST_F(LauncherFunctionsTest, CommandWithoutWordsAbortsTheChild) {
  for (const char* command : {"", " ", "    "})
    EXPECT_THAT(complaintOf(command),
                AllOf(HasSubstr("Launcher_new"), HasSubstr("Assertion `argc > 0' failed.")));
}

TEST_F(LauncherFunctionsTest, ChildKeepsWhatItInherits) {
  const ChildResult caller = runInChild([] {
    std::filesystem::create_directory("/tmp/here");
    program("/tmp/a", "pwd\necho $FROM_THE_CALLER\necho to descriptor nine >&9\n");
    ASSERT_EQ(chdir("/tmp/here"), 0);
    setenv("FROM_THE_CALLER", "a value", 1);
    const int fd = open("/tmp/nine", O_WRONLY | O_CREAT, 0600);
    dup2(fd, 9);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGHUP);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    signal(SIGINT, SIG_IGN);
    signal(SIGPIPE, SIG_DFL);
    run("/tmp/a");
    // Not by way of the shell, which clears the mask.
    run("grep -E ^Sig(Blk|Ign): /proc/self/status");
  });
  EXPECT_EQ(caller.exitCode(), 0) << caller;
  EXPECT_EQ(caller.out,
            "/tmp/here\na value\nSigBlk:\t0000000000000001\nSigIgn:\t0000000000000002\n");
  EXPECT_EQ(read("/tmp/nine"), "to descriptor nine\n");
}

TEST_F(LauncherFunctionsTest, FailedExecIsLoggedAndEndsTheChildThroughItsExitHandlers) {
  const ChildResult caller = runInChild([] {
    static const pid_t self = getpid();
    atexit([] {
      if (getpid() != self) write("/tmp/exit_handler", "ran");
    });
    const siginfo_t end = run("/nonexistent/program with arguments");
    EXPECT_EQ(end.si_code, CLD_EXITED);
    EXPECT_EQ(end.si_status, 1);
  });
  EXPECT_EQ(caller.exitCode(), 0) << caller;
  EXPECT_EQ(read("/tmp/exit_handler"), "ran");
  EXPECT_THAT(
      lines(),
      ElementsAre("ERRO Launcher.cc: exec /nonexistent/program: No such file or directory"));
}

// Kept: no error is ever returned.
TEST_F(LauncherFunctionsTest, FailedForkEndsTheCallerWithStatusOne) {
  const ChildResult caller = runInChild([] {
    atexit([] { write("/tmp/exit_handler", "ran"); });
    process_calls.fork_errno = EAGAIN;
    (void)Launcher_new("true");
    write("/tmp/returned", "");
  });
  EXPECT_EQ(caller.exitCode(), 1) << caller;
  EXPECT_FALSE(exists("/tmp/returned"));
  EXPECT_EQ(read("/tmp/exit_handler"), "ran");
  EXPECT_THAT(lines(), ElementsAre("ERRO Launcher.cc: fork: Resource temporarily unavailable"));
}

TEST_F(LauncherFunctionsTest, ForkRefusedByTheKernelEndsTheCallerWithStatusOne) {
  const ChildResult caller = runInChild([] {
    becomeUser(1000);
    static rlimit usual;
    getrlimit(RLIMIT_NPROC, &usual);
    // The leak check at exit needs a process of its own.
    atexit([] { setrlimit(RLIMIT_NPROC, &usual); });
    const rlimit none = {0, usual.rlim_max};
    setrlimit(RLIMIT_NPROC, &none);
    (void)Launcher_new("true");
  });
  EXPECT_EQ(caller.exitCode(), 1) << caller;
  EXPECT_THAT(lines(), ElementsAre("ERRO Launcher.cc: fork: Resource temporarily unavailable"));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which take all addresses

TEST_F(LauncherFunctionsTest, CommandThatMemoryDoesNotHoldEndsTheCallerWithStatus126) {
  const ChildResult caller = runInChild([] {
    const std::string command(256 << 20, 'x');
    const rlimit limit = {300 << 20, 300 << 20};
    setrlimit(RLIMIT_AS, &limit);
    (void)Launcher_new(command.c_str());
  });
  EXPECT_EQ(caller.exitCode(), 126) << caller;
  EXPECT_THAT(lines(), ElementsAre(StartsWith("CRTC ad_debug.cc: Malloc fail at Launcher.cc:")));
}

#endif

// ---- The functions: stopping ----

TEST_F(LauncherFunctionsTest, ProcessThatHeedsSigtermIsStoppedByOne) {
  heedingProgram("/tmp/a");
  configure(3);
  Launcher_t* const launcher = Launcher_new("/tmp/a");
  const pid_t pid = launcher->pid;
  awaitReady();
  process_calls.recording = true;
  process_calls.on_sleep = [=] { EXPECT_EQ(endOf(pid).si_status, SIGTERM); };
  Launcher_delete(launcher);
  process_calls.recording = false;
  const std::string id = std::to_string(pid);
  const Texts poll = {"waitpid " + id, "kill " + id + " 0"};
  // Whether the first poll comes before the end is the kernel's choice.
  Texts expected = {"kill " + id + " 15"};
  append(&expected, poll);
  if (process_calls.made.size() > expected.size()) {
    expected.push_back("sleep 1");
    append(&expected, poll);
  }
  EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
  EXPECT_THAT(lines(), ElementsAre("TRCE Launcher.cc: Launching /tmp/a",
                                   "TRCE Launcher.cc: Unlaunching /tmp/a",
                                   "DETL Launcher.cc: kill /tmp/a: " + id + " 15"));
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);  // it was reaped
  EXPECT_EQ(kill(pid, 0), -1);
}

TEST_F(LauncherFunctionsTest, SlowStopOfAProcessThatHeedsSigtermTakesASecond) {
  heedingProgram("/tmp/a");
  Launcher_t* const launcher = Launcher_new("/tmp/a");
  const pid_t pid = launcher->pid;
  awaitReady();
  Launcher_delete(launcher);
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

// What is asked of the system for a process that survives so many polls of one attempt.
Texts attempt(const std::string& id, int number, int polls = 20) {
  Texts calls = {"kill " + id + " " + std::to_string(number)};
  append(&calls, {"waitpid " + id, "kill " + id + " 0", "sleep 1"}, polls);
  return calls;
}

TEST_F(LauncherFunctionsTest, ProcessThatIgnoresSigtermIsKilledInTheSeventhAttempt) {
  defiantProgram("/tmp/a");
  configure(3);
  Launcher_t* const launcher = Launcher_new("/tmp/a");
  const pid_t pid = launcher->pid;
  const std::string id = std::to_string(pid);
  awaitReady();
  process_calls.recording = true;
  process_calls.on_sleep = [=] {
    // A process to which SIGKILL was sent ends before the next poll.
    if (process_calls.made.size() <= 6 * attempt("", 0).size()) return;
    EXPECT_EQ(endOf(pid).si_status, SIGKILL);
  };
  Launcher_delete(launcher);
  process_calls.recording = false;
  Texts expected;
  append(&expected, attempt(id, SIGTERM), 6);
  const size_t survived = expected.size() + attempt(id, SIGKILL, 1).size();
  append(&expected, attempt(id, SIGKILL, process_calls.made.size() > survived ? 1 : 0));
  append(&expected, {"waitpid " + id, "kill " + id + " 0"});
  EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
  Texts kills(6, "DETL Launcher.cc: kill /tmp/a: " + id + " 15");
  kills.push_back("DETL Launcher.cc: kill /tmp/a: " + id + " 9");
  Texts expected_lines = {"TRCE Launcher.cc: Launching /tmp/a",
                          "TRCE Launcher.cc: Unlaunching /tmp/a"};
  append(&expected_lines, kills);
  EXPECT_THAT(lines(), ElementsAreArray(expected_lines));
}

TEST_F(LauncherFunctionsTest, SlowProcessThatIgnoresSigtermIsKilledInTheEnd) {
  defiantProgram("/tmp/a");
  configure(3);
  Launcher_t* const launcher = Launcher_new("/tmp/a");
  const pid_t pid = launcher->pid;
  awaitReady();
  process_calls.recording = true;
  Launcher_delete(launcher);
  process_calls.recording = false;
  const Texts& made = process_calls.made;
  const std::string to = "kill " + std::to_string(pid);
  EXPECT_EQ(std::count(made.begin(), made.end(), to + " 15"), 6);
  EXPECT_EQ(std::count(made.begin(), made.end(), to + " 9"), 1);
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(lines().size(), 9U);
}

TEST_F(LauncherFunctionsTest, SigkillIsRepeatedWithoutAnEnd) {
  Launcher_t* const launcher = Launcher_new("sleep 1000");
  const std::string id = std::to_string(launcher->pid);
  // A process that does not end: forty attempts, then it is gone after all.
  int signals = 0;
  process_calls.on_kill = [&](pid_t, int number) {
    if (number != 0) ++signals;
    return signals > 40 ? ESRCH : 0;
  };
  process_calls.on_sleep = [] {};
  process_calls.recording = true;
  const pid_t pid = launcher->pid;
  Launcher_delete(launcher);
  Texts expected;
  append(&expected, attempt(id, SIGTERM), 6);
  append(&expected, attempt(id, SIGKILL), 34);
  expected.push_back("kill " + id + " 9");
  EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
  process_calls = {};
  kill(pid, SIGKILL);
}

TEST_F(LauncherFunctionsTest, ProcessThatGoesDuringThePollsIsNotSignalledAgain) {
  Launcher_t* const launcher = Launcher_new("sleep 1000");
  const pid_t pid = launcher->pid;
  const std::string id = std::to_string(pid);
  int polls = 0;
  process_calls.on_kill = [&](pid_t, int number) {
    if (number == 0) ++polls;
    return polls > 20 ? ESRCH : 0;
  };
  process_calls.on_sleep = [] {};
  process_calls.recording = true;
  Launcher_delete(launcher);
  Texts expected = attempt(id, SIGTERM);  // twenty polls, then the second attempt
  append(&expected, {"kill " + id + " 15", "waitpid " + id, "kill " + id + " 0"});
  EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
  process_calls = {};
  kill(pid, SIGKILL);
}

TEST_F(LauncherFunctionsTest, ProcessThatIsGoneGetsOneSigtermAndNoKillLine) {
  configure(3);
  Launcher_t* const launcher = Launcher_new("true");
  const pid_t pid = launcher->pid;
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
  process_calls.recording = true;
  Launcher_delete(launcher);
  process_calls.recording = false;
  EXPECT_THAT(process_calls.made, ElementsAre("kill " + std::to_string(pid) + " 15"));
  EXPECT_THAT(lines(), ElementsAre("TRCE Launcher.cc: Launching true",
                                   "TRCE Launcher.cc: Unlaunching true"));
}

TEST_F(LauncherFunctionsTest, RecordWithoutAProcessIsOnlyFreed) {
  Launcher_t* const launcher = Launcher_new("true");
  ASSERT_EQ(waitpid(launcher->pid, nullptr, 0), launcher->pid);
  launcher->pid = -1;
  process_calls.recording = true;
  Launcher_delete(launcher);
  EXPECT_THAT(process_calls.made, IsEmpty());
}

TEST_F(LauncherFunctionsTest, SignalThatIsNotPermittedIsLoggedAndLeavesTheProcess) {
  heedingProgram("/tmp/a");
  Launcher_t* const launcher = Launcher_new("/tmp/a");
  const pid_t pid = launcher->pid;
  awaitReady();
  const ChildResult caller = runInChild([=] {
    becomeUser(1000);
    process_calls.recording = true;
    Launcher_delete(launcher);
    EXPECT_THAT(process_calls.made, ElementsAre("kill " + std::to_string(pid) + " 15"));
  });
  EXPECT_EQ(caller.exitCode(), 0) << caller;
  EXPECT_THAT(lines(), ElementsAre("ERRO Launcher.cc: Warning: Operation not permitted\n"));
  EXPECT_EQ(kill(pid, 0), 0);
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);  // still running
  Launcher_delete(launcher);
}

TEST_F(LauncherFunctionsTest, UnreapedChildIsReapedByTheStop) {
  Launcher_t* const launcher = Launcher_new("true");
  const pid_t pid = launcher->pid;
  endOf(pid);
  process_calls.recording = true;
  Launcher_delete(launcher);
  process_calls.recording = false;
  const std::string id = std::to_string(pid);
  EXPECT_THAT(process_calls.made,
              ElementsAre("kill " + id + " 15", "waitpid " + id, "kill " + id + " 0"));
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
}

TEST_F(LauncherFunctionsTest, SignalsDoNotShortenTheSecondBetweenPolls) {
  Launcher_t* const launcher = Launcher_new("sleep 1000");
  const pid_t pid = launcher->pid;
  const std::string id = std::to_string(pid);
  int polls = 0;
  process_calls.on_kill = [&](pid_t, int number) { return number == 0 && ++polls > 1 ? ESRCH : 0; };
  process_calls.on_sleep = [] {};
  process_calls.interrupted_sleeps = 2;
  process_calls.recording = true;
  Launcher_delete(launcher);
  EXPECT_THAT(
      process_calls.made,
      ElementsAre("kill " + id + " 15", "waitpid " + id, "kill " + id + " 0", "sleep 1",
                  "sleep 0.400000000", "sleep 0.400000000", "waitpid " + id, "kill " + id + " 0"));
  process_calls = {};
  kill(pid, SIGKILL);
}

// ---- The functions: the web server ----

int tcpSocket() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error(std::string("socket: ") + strerror(errno));
  const timeval limit = {kPatience, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  return fd;
}

sockaddr_in serverAddress() {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Somebody else at the web server's port.
class Listener {
 public:
  Listener() : fd_(tcpSocket()) {
    const sockaddr_in address = serverAddress();
    if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd_, 8) != 0)
      throw std::runtime_error(std::string("listen: ") + strerror(errno));
  }
  ~Listener() { close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

 private:
  int fd_;
};

// The answer of the web server; empty when nobody listens.
std::string get(const std::string& path) {
  const int fd = tcpSocket();
  const sockaddr_in address = serverAddress();
  std::string answer;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
    EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    char room[4096];
    ssize_t count;
    while ((count = recv(fd, room, sizeof room, 0)) > 0)
      answer.append(room, static_cast<size_t>(count));
  }
  close(fd);
  return answer;
}

bool somebodyListens() {
  const int fd = tcpSocket();
  const sockaddr_in address = serverAddress();
  const bool connected =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

std::vector<std::string> commandLineOf(pid_t pid) {
  const int fd = open(("/proc/" + std::to_string(pid) + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC);
  std::string text(8192, '\0');
  const ssize_t size = ::read(fd, text.data(), text.size());
  close(fd);
  text.resize(size < 0 ? 0 : static_cast<size_t>(size));
  std::vector<std::string> words;
  for (size_t at = 0; at < text.size(); at = text.find('\0', at) + 1)
    words.emplace_back(text.c_str() + at);
  return words;
}

class LauncherHttpdTest : public LauncherTest {
 protected:
  LauncherHttpdTest() {
    std::filesystem::create_directory("/tmp/site");
    if (chdir("/tmp/site") != 0) throw std::runtime_error("chdir");
  }
  ~LauncherHttpdTest() override {
    // Not in the folder that goes with /tmp.
    if (chdir("/") != 0) ADD_FAILURE() << "chdir";
  }

  // Puts a program of the shell in the web server's place.
  static void httpd(const std::string& commands) {
    program("/tmp/bin/thttpd", commands);
    searchFirst("/tmp/bin");
  }

  static void standIn() { searchFirst(kStandIn); }
};

// Where a thttpd is: the stand-in, and the real one of a machine that has it.
Texts webServers() {
  Texts dirs = {kStandIn};
  std::string rest = getenv("PATH");
  while (!rest.empty()) {
    const size_t colon = rest.find(':');
    const std::string dir = rest.substr(0, colon);
    if (access((dir + "/thttpd").c_str(), X_OK) == 0) {
      dirs.push_back(dir);
      break;
    }
    rest.erase(0, colon == std::string::npos ? rest.size() : colon + 1);
  }
  return dirs;
}

class LauncherWebServerTest : public LauncherHttpdTest,
                              public testing::WithParamInterface<std::string> {};

TEST_P(LauncherWebServerTest, ServesTheWorkingDirectoryUntilItIsDeleted) {
  searchFirst(GetParam());
  write("/tmp/site/hello.txt", "hello from the site\n");
  chmod("/tmp/site/hello.txt", 0644);
  Launcher_t* const launcher = Launcher_newHttpd(nullptr);
  ASSERT_NE(launcher, nullptr);
  EXPECT_EQ(launcher->pid, onlyChild());
  EXPECT_STREQ(launcher->name, "thttpd -D -p 8008 -l thttpd.log ");
  EXPECT_THAT(commandLineOf(launcher->pid),
              ElementsAre("thttpd", "-D", "-p", "8008", "-l", "thttpd.log"));
  EXPECT_THAT(get("/hello.txt"), AllOf(HasSubstr("200 OK"), EndsWith("hello from the site\n")));
  EXPECT_TRUE(exists("/tmp/site/thttpd.log"));
  Launcher_delete(launcher);
  EXPECT_FALSE(somebodyListens());
}

INSTANTIATE_TEST_SUITE_P(Found, LauncherWebServerTest, testing::ValuesIn(webServers()),
                         [](const auto& row) {
                           return std::string(row.index == 0 ? "StandIn" : "OfTheMachine");
                         });

TEST_F(LauncherHttpdTest, ArgumentsStandBehindTheFixedOnes) {
  standIn();
  std::filesystem::create_directory("/tmp/other");
  write("/tmp/other/page", "another page");
  Launcher_t* const launcher = Launcher_newHttpd("-d /tmp/other");
  ASSERT_NE(launcher, nullptr);
  EXPECT_STREQ(launcher->name, "thttpd -D -p 8008 -l thttpd.log -d /tmp/other");
  EXPECT_THAT(get("/page"), EndsWith("another page"));
  EXPECT_THAT(read("/tmp/site/thttpd.log"), HasSubstr("GET /page HTTP/1.0"));
  Launcher_delete(launcher);
}

TEST_F(LauncherHttpdTest, CommandIsCutAt1023Bytes) {
  // Gives its arguments and then lets the port be opened by the stand-in.
  httpd("shift 5\necho \"$@\" > /tmp/rest\nexec " + std::string(kStandIn) +
        "/thttpd -p 8008 -l thttpd.log\n");
  Launcher_t* const launcher = Launcher_newHttpd(std::string(2000, 'x').c_str());
  ASSERT_NE(launcher, nullptr);
  const std::string head = "thttpd -D -p 8008 -l thttpd.log ";
  EXPECT_EQ(launcher->name, head + std::string(1023 - head.size(), 'x'));
  EXPECT_EQ(read("/tmp/rest"), std::string(1023 - head.size(), 'x') + "\n");
  Launcher_delete(launcher);
}

TEST_F(LauncherHttpdTest, ProbesAreDetailLines) {
  standIn();
  configure(3);
  process_calls.on_sleep = [] { (void)eventually(somebodyListens); };
  Launcher_t* const launcher = Launcher_newHttpd(nullptr);
  ASSERT_NE(launcher, nullptr);
  const Texts got = lines();
  Texts expected = {"DETL Launcher.cc: No listener on TCP port 8008",
                    "TRCE Launcher.cc: Launching thttpd -D -p 8008 -l thttpd.log ",
                    "DETL Launcher.cc: No listener on TCP port 8008",
                    "DETL Launcher.cc: Someone is listening on TCP port 8008"};
  // A quick server is there at the first look.
  if (got.size() == 3) expected.erase(expected.begin() + 2);
  EXPECT_THAT(got, ElementsAreArray(expected));
  process_calls = {};
  Launcher_delete(launcher);
}

TEST_F(LauncherHttpdTest, TakenPortGivesNullWithoutAFork) {
  const Listener other;
  configure(3);
  process_calls.recording = true;
  EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);
  EXPECT_THAT(process_calls.made, ElementsAre("connect 8008"));
  EXPECT_THAT(lines(), ElementsAre("DETL Launcher.cc: Someone is listening on TCP port 8008",
                                   "ERRO Launcher.cc: Someone is already using port 8008"));
}

// What is asked of the system in so many polls of a server that does not listen.
Texts serverPolls(const std::string& id, int polls) {
  Texts calls;
  append(&calls, {"kill " + id + " 0", "connect 8008", "sleep 1"}, polls);
  return calls;
}

TEST_F(LauncherHttpdTest, ServerThatDoesNotListenIsGivenUpAfter60Polls) {
  httpd("exec sleep 1000\n");
  process_calls.recording = true;
  int sleeps = 0;
  process_calls.on_sleep = [&] {
    if (++sleeps > 60) endOf(onlyChild());
  };
  EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);
  process_calls.recording = false;
  ASSERT_GT(process_calls.made.size(), 2U);
  const std::string first = process_calls.made[2];
  const std::string id = first.substr(5, first.size() - 7);  // of "kill ID 0"
  Texts expected = {"connect 8008", "fork"};
  append(&expected, serverPolls(id, 60));
  append(&expected, attempt(id, SIGTERM, sleeps > 60 ? 1 : 0));
  append(&expected, {"waitpid " + id, "kill " + id + " 0"});
  EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
  EXPECT_THAT(lines(),
              ElementsAre("ERRO Launcher.cc: Giving up waiting for thttpd to start listening"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // stopped and reaped
}

TEST_F(LauncherHttpdTest, SlowServerThatDoesNotListenIsGivenUp) {
  httpd("exec sleep 1000\n");
  EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);
  EXPECT_THAT(lines(),
              ElementsAre("ERRO Launcher.cc: Giving up waiting for thttpd to start listening"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

// Kept: a zombie still takes signal 0.
TEST_F(LauncherHttpdTest, ServerThatExitsAtOnceIsAnUnreapedChildAndWaitedForAllTheSame) {
  setenv("PATH", "/nonexistent", 1);
  process_calls.recording = true;
  process_calls.on_sleep = [] { endOf(onlyChild()); };
  EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);
  process_calls.recording = false;
  const Texts& made = process_calls.made;
  EXPECT_EQ(std::count(made.begin(), made.end(), "sleep 1"), 60);
  EXPECT_EQ(std::count(made.begin(), made.end(), "connect 8008"), 61);
  EXPECT_THAT(lines(),
              ElementsAre("ERRO Launcher.cc: exec thttpd: No such file or directory",
                          "ERRO Launcher.cc: Giving up waiting for thttpd to start listening"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(LauncherHttpdTest, ServerThatExitsIsNoticedWhereChildrenAreReapedOtherwise) {
  setenv("PATH", "/nonexistent", 1);
  signal(SIGCHLD, SIG_IGN);  // the kernel reaps
  process_calls.on_sleep = [] {
    EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) < 0; }));
  };
  process_calls.recording = true;
  EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);
  process_calls.recording = false;
  const std::string last = process_calls.made.back();
  EXPECT_THAT(last, AllOf(StartsWith("kill "), EndsWith(" 15")));
  const std::string id = last.substr(5, last.size() - 8);
  const Texts got = lines();
  EXPECT_THAT(got, ElementsAre("ERRO Launcher.cc: exec thttpd: No such file or directory",
                               "ERRO Launcher.cc: No thttpd process " + id));
}

TEST_F(LauncherHttpdTest, SocketThatCannotBeMadeIsLoggedAndCountsAsNoListener) {
  standIn();
  ad_errorlog_printf("%s", "");  // the log makes its own socket now
  process_calls.socket_errno = EMFILE;
  process_calls.on_sleep = [] {
    process_calls.socket_errno = 0;
    (void)eventually(somebodyListens);
  };
  Launcher_t* const launcher = Launcher_newHttpd(nullptr);
  ASSERT_NE(launcher, nullptr);
  EXPECT_THAT(lines(), ElementsAre("ERRO Launcher.cc: Warning: Too many open files\n",
                                   "ERRO Launcher.cc: Warning: Too many open files\n"));
  process_calls = {};
  Launcher_delete(launcher);
}

TEST_F(LauncherHttpdTest, ConnectThatFailsOtherwiseIsLoggedAndCountsAsNoListener) {
  standIn();
  process_calls.connect_errno = ENETUNREACH;
  process_calls.on_sleep = [] {
    process_calls.connect_errno = 0;
    (void)eventually(somebodyListens);
  };
  Launcher_t* const launcher = Launcher_newHttpd(nullptr);
  ASSERT_NE(launcher, nullptr);
  EXPECT_THAT(lines(), ElementsAre("ERRO Launcher.cc: Warning: Network is unreachable\n",
                                   "ERRO Launcher.cc: Warning: Network is unreachable\n"));
  process_calls = {};
  Launcher_delete(launcher);
}

TEST_F(LauncherHttpdTest, FailedCloseIsLoggedBehindBothOutcomes) {
  configure(3);
  process_calls.close_errno = EIO;
  {
    const Listener other;
    EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);
  }
  EXPECT_THAT(lines(), ElementsAre("DETL Launcher.cc: Someone is listening on TCP port 8008",
                                   "ERRO Launcher.cc: Warning: Input/output error\n",
                                   "ERRO Launcher.cc: Someone is already using port 8008"));
  httpd("exec sleep 1000\n");
  const ChildResult caller = runInChild([] {
    process_calls.close_errno = EIO;
    process_calls.on_sleep = [] { _exit(7); };  // the first probes are enough
    (void)Launcher_newHttpd(nullptr);
  });
  EXPECT_EQ(caller.exitCode(), 7) << caller;
  EXPECT_THAT(lines(), ElementsAre("DETL Launcher.cc: No listener on TCP port 8008",
                                   "ERRO Launcher.cc: Warning: Input/output error\n",
                                   "TRCE Launcher.cc: Launching thttpd -D -p 8008 -l thttpd.log ",
                                   "DETL Launcher.cc: No listener on TCP port 8008",
                                   "ERRO Launcher.cc: Warning: Input/output error\n"));
}

TEST_F(LauncherHttpdTest, ProcessThatMayNotBeSignalledCountsAsGone) {
  httpd("exec sleep 1000\n");
  process_calls.on_kill = [](pid_t, int) { return EPERM; };
  EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);
  process_calls = {};
  const pid_t pid = onlyChild();
  EXPECT_THAT(lines(), ElementsAre("ERRO Launcher.cc: Warning: Operation not permitted\n",
                                   "ERRO Launcher.cc: No thttpd process " + std::to_string(pid),
                                   "ERRO Launcher.cc: Warning: Operation not permitted\n"));
  kill(pid, SIGKILL);
}

TEST_F(LauncherHttpdTest, ProbesLeaveNoDescriptorOpen) {
  const Listener other;
  const auto open_descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);  // the log's socket is open now
  const auto before = open_descriptors();
  EXPECT_EQ(Launcher_newHttpd(nullptr), nullptr);
  EXPECT_EQ(open_descriptors(), before);
}

// ---- The class: starting ----

class LauncherClassTest : public LauncherTest {
 protected:
  // Starts the command, waits for its end and says what it was.
  static siginfo_t run(const std::string& command) {
    siginfo_t end;
    {
      const Launcher launcher(command.c_str());
      end = endOf(onlyChild());
      errno = ESRCH;  // nothing to say about the stop
    }
    EXPECT_EQ(waitpid(end.si_pid, nullptr, 0), end.si_pid);
    return end;
  }
};

TEST_F(LauncherClassTest, LeadingWordIsLookedForInPath) {
  argumentShower("/tmp/bin/a");
  searchFirst("/tmp/bin");
  EXPECT_EQ(run("a b c").si_status, 0);
  EXPECT_EQ(shownArguments(), "[b][c]");
}

// Kept: blanks are not collapsed.
TEST_F(LauncherClassTest, TwoAdjacentBlanksMakeAnEmptyWord) {
  argumentShower("/tmp/bin/a");
  searchFirst("/tmp/bin");
  EXPECT_EQ(run("a  b").si_status, 0);
  EXPECT_EQ(shownArguments(), "[][b]");
}

TEST_F(LauncherClassTest, TrailingBlankMakesAnEmptyLastWord) {
  argumentShower("/tmp/a");
  run("/tmp/a b ");
  EXPECT_EQ(shownArguments(), "[b][]");
}

TEST_F(LauncherClassTest, TabsAndQuotesAreOrdinaryCharacters) {
  argumentShower("/tmp/a");
  run("/tmp/a b\tc 'd e'");
  EXPECT_EQ(shownArguments(), "[b\tc]['d][e']");
}

TEST_F(LauncherClassTest, ThereMayBeAnyNumberOfWords) {
  program("/tmp/a", "echo $# > /tmp/count\n");
  std::string command = "/tmp/a";
  for (int i = 0; i < 5000; ++i) command += " w";
  EXPECT_EQ(run(command).si_status, 0);
  EXPECT_EQ(read("/tmp/count"), "5000\n");
}

TEST_F(LauncherClassTest, LeadingBlankMakesTheChildExecuteTheEmptyWord) {
  const siginfo_t end = run(" true");
  EXPECT_EQ(end.si_code, CLD_EXITED);
  EXPECT_EQ(end.si_status, 1);
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: exec `': No such file or directory"));
}

TEST_F(LauncherClassTest, EmptyCommandIsOneEmptyWord) {
  EXPECT_EQ(run("").si_status, 1);
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: exec `': No such file or directory"));
}

TEST_F(LauncherClassTest, FailedExecIsReportedAndEndsTheChildThroughItsExitHandlers) {
  const ChildResult caller = runInChild([] {
    static const pid_t self = getpid();
    atexit([] {
      if (getpid() != self) write("/tmp/exit_handler", "ran");
    });
    write("/tmp/not_executable", "");
    const siginfo_t end = run("/tmp/not_executable with arguments");
    EXPECT_EQ(end.si_code, CLD_EXITED);
    EXPECT_EQ(end.si_status, 1);
  });
  EXPECT_EQ(caller.exitCode(), 0) << caller;
  EXPECT_EQ(read("/tmp/exit_handler"), "ran");
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: exec `/tmp/not_executable': Permission denied"));
}

TEST_F(LauncherClassTest, StartAndStopAreAnnouncedThroughTheLogger) {
  configure(2);
  pid_t pid;
  {
    const Launcher launcher("sleep 1000");
    pid = onlyChild();
    process_calls.on_sleep = [=] { endOf(pid); };
  }
  EXPECT_THAT(
      lines(),
      ElementsAre("TRCE logger.cc: Launching sleep 1000", "TRCE logger.cc: Unlaunching sleep 1000",
                  "TRCE Launcher.cc: kill sleep 1000: " + std::to_string(pid) + " 15"));
}

// Kept: unlike Launcher_new.
TEST_F(LauncherClassTest, FailedForkLeavesAnObjectWithoutAProcess) {
  configure(2);
  process_calls.fork_errno = ENOMEM;
  process_calls.recording = true;
  {
    Launcher launcher("true");
    launcher.destroy();
  }
  EXPECT_THAT(process_calls.made, ElementsAre("fork"));
  EXPECT_THAT(lines(), ElementsAre("TRCE logger.cc: Launching true",
                                   "ERRO Launcher.cc: Warning: Cannot allocate memory\n"));
}

TEST_F(LauncherClassTest, ChildKeepsWhatItInherits) {
  const ChildResult caller = runInChild([] {
    program("/tmp/a", "pwd\necho $FROM_THE_CALLER\necho nine >&9\n");
    ASSERT_EQ(chdir("/tmp"), 0);
    setenv("FROM_THE_CALLER", "a value", 1);
    dup2(open("/tmp/nine", O_WRONLY | O_CREAT, 0600), 9);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGHUP);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    run("/tmp/a");
    run("grep ^SigBlk: /proc/self/status");
  });
  EXPECT_EQ(caller.exitCode(), 0) << caller;
  EXPECT_EQ(caller.out, "/tmp\na value\nSigBlk:\t0000000000000001\n");
  EXPECT_EQ(read("/tmp/nine"), "nine\n");
}

// ---- The class: stopping ----

// Kept: without trace lines nothing waits.
TEST_F(LauncherClassTest, UntracedStopSendsOneSigtermAndReturnsAtOnce) {
  defiantProgram("/tmp/a");
  auto launcher = std::make_unique<Launcher>("/tmp/a");
  const pid_t pid = onlyChild();
  awaitReady();
  process_calls.recording = true;
  errno = ESRCH;
  launcher.reset();
  process_calls.recording = false;
  EXPECT_THAT(process_calls.made, ElementsAre("kill " + std::to_string(pid) + " 15"));
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0);  // it runs on
  EXPECT_THAT(lines(), IsEmpty());
  kill(pid, SIGKILL);
}

TEST_F(LauncherClassTest, UntracedStopLeavesTheChildUnreaped) {
  const pid_t pid = [] {
    const Launcher launcher("sleep 1000");
    return onlyChild();
  }();
  EXPECT_EQ(endOf(pid).si_status, SIGTERM);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

// Kept: the errno of an earlier call, as sending has not failed.
TEST_F(LauncherClassTest, UntracedStopLogsTheStaleErrno) {
  const std::pair<int, const char*> errors[] = {
      {EIO, "Input/output error"}, {0, "Success"}, {ESRCH, ""}, {EINTR, "Interrupted system call"}};
  for (const auto& [stale, text] : errors) {
    Launcher launcher("sleep 1000");
    const pid_t pid = onlyChild();
    errno = stale;
    launcher.destroy();
    Texts expected;
    if (stale != ESRCH) expected = {std::string("ERRO Launcher.cc: Warning: ") + text + "\n"};
    EXPECT_THAT(lines(), ElementsAreArray(expected));
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
  }
}

TEST_F(LauncherClassTest, TraceThatTheConnectionFilterHidesCountsAsNone) {
  configure(2);
  Launcher launcher("sleep 1000");
  const pid_t pid = onlyChild();
  EXPECT_EQ(lines().size(), 1U);
  ad_debug_cfg_p->debug_target_client_ip = inet_addr("10.0.0.1");
  ad_current_client_ip = inet_addr("10.0.0.2");
  process_calls.recording = true;
  errno = EIO;
  launcher.destroy();
  process_calls.recording = false;
  EXPECT_THAT(process_calls.made, ElementsAre("kill " + std::to_string(pid) + " 15"));
  EXPECT_THAT(lines(), IsEmpty());  // the error line is hidden too
}

TEST_F(LauncherClassTest, TracedStopWaitsUntilTheChildIsGone) {
  heedingProgram("/tmp/a");
  configure(2);
  Launcher launcher("/tmp/a");
  const pid_t pid = onlyChild();
  awaitReady();
  process_calls.on_sleep = [=] { EXPECT_EQ(endOf(pid).si_status, SIGTERM); };
  launcher.destroy();
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
  EXPECT_EQ(kill(pid, 0), -1);
}

TEST_F(LauncherClassTest, TracedStopEscalatesToSigkillInTheSeventhAttempt) {
  configure(2);
  Launcher launcher("sleep 1000");
  const pid_t pid = onlyChild();
  const std::string id = std::to_string(pid);
  lines();
  int signals = 0;
  process_calls.on_kill = [&](pid_t, int number) {
    if (number != 0) ++signals;
    return number == 0 && signals == 9 ? ESRCH : 0;
  };
  process_calls.on_sleep = [] {};
  process_calls.recording = true;
  launcher.destroy();
  Texts expected;
  append(&expected, attempt(id, SIGTERM), 6);
  append(&expected, attempt(id, SIGKILL), 2);
  append(&expected, {"kill " + id + " 9", "waitpid " + id, "kill " + id + " 0"});
  EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
  Texts expected_lines = {"TRCE logger.cc: Unlaunching sleep 1000"};
  append(&expected_lines, {"TRCE Launcher.cc: kill sleep 1000: " + id + " 15"}, 6);
  append(&expected_lines, {"TRCE Launcher.cc: kill sleep 1000: " + id + " 9"}, 3);
  EXPECT_THAT(lines(), ElementsAreArray(expected_lines));
  process_calls = {};
  kill(pid, SIGKILL);
}

TEST_F(LauncherClassTest, SlowTracedStopOfADefiantChildKillsItInTheEnd) {
  defiantProgram("/tmp/a");
  configure(2);
  Launcher launcher("/tmp/a");
  const pid_t pid = onlyChild();
  awaitReady();
  lines();
  launcher.destroy();
  EXPECT_EQ(kill(pid, 0), -1);
  const std::string id = std::to_string(pid);
  Texts expected = {"TRCE logger.cc: Unlaunching /tmp/a"};
  append(&expected, {"TRCE Launcher.cc: kill /tmp/a: " + id + " 15"}, 6);
  expected.push_back("TRCE Launcher.cc: kill /tmp/a: " + id + " 9");
  EXPECT_THAT(lines(), ElementsAreArray(expected));
}

TEST_F(LauncherClassTest, SlowTracedStopOfAHeedingChildTakesASecond) {
  heedingProgram("/tmp/a");
  configure(2);
  Launcher launcher("/tmp/a");
  const pid_t pid = onlyChild();
  awaitReady();
  launcher.destroy();
  EXPECT_EQ(kill(pid, 0), -1);
}

TEST_F(LauncherClassTest, TraceIsLookedForAnewInEachAttempt) {
  configure(2);
  Launcher launcher("sleep 1000");
  const pid_t pid = onlyChild();
  const std::string id = std::to_string(pid);
  lines();
  process_calls.on_kill = [](pid_t, int) { return 0; };
  int sleeps = 0;
  process_calls.on_sleep = [&] {
    if (++sleeps < 20) return;
    configure(1);
    errno = EIO;
  };
  process_calls.recording = true;
  launcher.destroy();
  Texts expected = attempt(id, SIGTERM);
  expected.push_back("kill " + id + " 15");
  EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
  EXPECT_THAT(lines(), ElementsAre("TRCE logger.cc: Unlaunching sleep 1000",
                                   "TRCE Launcher.cc: kill sleep 1000: " + id + " 15",
                                   "ERRO Launcher.cc: Warning: Input/output error\n"));
  process_calls = {};
  kill(pid, SIGKILL);
}

TEST_F(LauncherClassTest, ProcessThatIsGoneIsPolledOnceInSilence) {
  Launcher launcher("true");
  const pid_t pid = onlyChild();
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
  process_calls.recording = true;
  launcher.destroy();
  process_calls.recording = false;
  const std::string id = std::to_string(pid);
  EXPECT_THAT(process_calls.made,
              ElementsAre("kill " + id + " 15", "waitpid " + id, "kill " + id + " 0"));
  EXPECT_THAT(lines(), IsEmpty());
}

// Kept: any failure to send is followed by the polls, in silence.
TEST_F(LauncherClassTest, SignalThatIsNotPermittedIsFollowedByThePollsAndRepeated) {
  Launcher launcher("sleep 1000");
  const pid_t pid = onlyChild();
  const std::string id = std::to_string(pid);
  int signals = 0;
  process_calls.on_kill = [&](pid_t, int number) {
    if (number != 0) ++signals;
    return signals > 7 ? ESRCH : EPERM;
  };
  process_calls.on_sleep = [] {};
  process_calls.recording = true;
  launcher.destroy();
  Texts expected;
  append(&expected, attempt(id, SIGTERM), 6);
  append(&expected, attempt(id, SIGKILL));
  append(&expected, {"kill " + id + " 9", "waitpid " + id, "kill " + id + " 0"});
  EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
  EXPECT_THAT(lines(), IsEmpty());
  process_calls = {};
  kill(pid, SIGKILL);
}

// The caller has given up its rights; the child keeps them and ends when it is told otherwise.
TEST_F(LauncherClassTest, SlowChildOfAnotherUserIsPolledUntilItEndsByItself) {
  program("/tmp/a", "> /tmp/ready\nuntil [ -e /tmp/end ]; do sleep 0.1; done\n");
  Child caller([this] {
    Launcher launcher("/tmp/a");
    const pid_t pid = onlyChild();
    awaitReady();
    lines();
    becomeUser(1000);
    printf("destroying");
    fflush(stdout);
    process_calls.recording = true;
    launcher.destroy();
    process_calls.recording = false;
    const std::string id = std::to_string(pid);
    ASSERT_GE(process_calls.made.size(), 6U);
    EXPECT_EQ(process_calls.made.front(), "kill " + id + " 15");
    // Whole polls, each with a second behind it but for the last.
    Texts expected = {"kill " + id + " 15"};
    append(&expected, {"waitpid " + id, "kill " + id + " 0", "sleep 1"},
           static_cast<int>(process_calls.made.size() / 3) - 1);
    append(&expected, {"waitpid " + id, "kill " + id + " 0"});
    EXPECT_THAT(process_calls.made, ElementsAreArray(expected));
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
  });
  ASSERT_TRUE(caller.waitForOut("destroying"));
  const std::string stat = "/proc/" + std::to_string(caller.pid()) + "/stat";
  ASSERT_TRUE(eventually([&] { return read(stat).find(") S ") != std::string::npos; }));
  write("/tmp/end", "");
  const ChildResult end = caller.wait();
  EXPECT_EQ(end.exitCode(), 0) << end;
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(LauncherClassTest, SecondDestroyAndDestructorDoNothing) {
  configure(2);
  pid_t pid;
  process_calls.recording = true;
  {
    Launcher launcher("sleep 1000");
    pid = onlyChild();
    process_calls.on_sleep = [=] { endOf(pid); };
    launcher.destroy();
    lines();
    process_calls.made.clear();
    launcher.destroy();
  }
  process_calls.recording = false;
  EXPECT_THAT(process_calls.made, IsEmpty());
  EXPECT_THAT(lines(), IsEmpty());
}

// Kept: the class declares no copy operations, and the implicit ones copy the process id.
TEST_F(LauncherClassTest, CopiesSignalTheSameProcessIdEach) {
  process_calls.on_kill = [](pid_t, int) { return 0; };
  pid_t pid;
  {
    const Launcher launcher("sleep 1000");
    pid = onlyChild();
    const Launcher copy = launcher;
    process_calls.recording = true;
  }
  process_calls.recording = false;
  const std::string signal = "kill " + std::to_string(pid) + " 15";
  EXPECT_THAT(process_calls.made, ElementsAre(signal, signal));
  process_calls = {};
  kill(pid, SIGKILL);
}

// ---- The example ----

class LauncherExampleTest : public LauncherTest, public testing::WithParamInterface<const char*> {
 protected:
  static constexpr char kProgram[] = VELORIN_BIN "/example_run_program";
};

TEST_P(LauncherExampleTest, RunsItsCommandForAsLongAsItsInputIsOpen) {
  heedingProgram("/tmp/a");
  int input[2];
  ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
  Child example([&] {
    dup2(input[0], STDIN_FILENO);
    execl(kProgram, kProgram, GetParam(), "/tmp/a", nullptr);
  });
  awaitReady();
  EXPECT_EQ(example.out(), "");
  close(input[0]);
  close(input[1]);
  const ChildResult result = example.wait();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out,
            std::string(GetParam()) == "record" ? "has ended\n" : "was told to end\nhas ended\n");
}

INSTANTIATE_TEST_SUITE_P(Ways, LauncherExampleTest, testing::Values("record", "object"),
                         [](const auto& row) { return std::string(row.param); });

}  // namespace
