// Child processes from one-line commands. See velorin/Launcher. The functions and the class share
// what they ask of the system, not what they do.
#include "velorin/Launcher"

#include <arpa/inet.h>
#include <errno.h>
#include <inttypes.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <new>
#include <string>
#include <vector>

#include "velorin/Logger"
#include "velorin/String"
#include "velorin/SystemError"
#include "velorin/ad_debug"

#include "internal/always_assert.h"

namespace {

constexpr int maxarg = 1024;  // of an argument vector, terminating null included
constexpr int port = 8008;    // thttpd's
constexpr size_t kCommandRoom = 1024;
constexpr int kChildFailed = 1;  // exit status without a fork or an exec

constexpr int kTerminations = 6;  // attempts with SIGTERM before those with SIGKILL
constexpr int kPolls = 20;        // of an attempt, a second each
constexpr int kHttpdPolls = 60;

constexpr int32_t kTraceLevel = 2;  // of AD_TRCE

int signal_of(int attempt) {
  return attempt < kTerminations ? SIGTERM : SIGKILL;
}

// A whole second: signals that the process handles must not shorten a child's time to end.
void sleep_one_second() {
  timespec left = {1, 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) continue;
}

void free_record(Launcher_t* launcher) {
  free(launcher->name);
  free(launcher);
}

// Polls until the process is gone; false when it is still there after all polls.
bool ends_within_polls(pid_t pid) {
  for (int poll = 0; poll < kPolls; ++poll) {
    (void)waitpid(pid, nullptr, WNOHANG);
    if (kill(pid, 0) != 0 && errno == ESRCH) return true;
    sleep_one_second();
  }
  return false;
}

// Splits `text` in place at runs of blanks and stores the words in `argv`, which holds `maxarg`.
// Kept: nothing quotes a blank, and other white space belongs to its word.
// Returns: the number of words; `maxarg` when there are more than fit in front of the null.
int split_at_blanks(char* text, char** argv) {
  int argc = 0;
  for (;;) {
    while (*text == ' ') ++text;
    if (*text == '\0') return argc;
    if (argc == maxarg - 1) return maxarg;
    argv[argc++] = text;
    while (*text != ' ' && *text != '\0') ++text;
    if (*text == '\0') return argc;
    *text++ = '\0';
  }
}

void close_probe(int fd) {
  if (close(fd) == 0) return;
  const int err = errno;
  AD_ERRO("%s: %s\n", "Warning", strerror(err));
}

// Returns: 1 when somebody listens at a TCP port of 127.0.0.1, else 0.
int isTcp(int tcp_port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd == -1) {
    const int err = errno;
    AD_ERRO("%s: %s\n", "Warning", strerror(err));
    return 0;
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(tcp_port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    AD_DETL("Someone is listening on TCP port %d", tcp_port);
    close_probe(fd);
    return 1;
  }
  const int err = errno;
  if (err == ECONNREFUSED)
    AD_DETL("No listener on TCP port %d", tcp_port);
  else
    AD_ERRO("%s: %s\n", "Warning", strerror(err));
  close_probe(fd);
  return 0;
}

// Returns: 1 when there is a process `pid`, else 0.
// Kept: a zombie counts, so a server that has ended is waited for unless the caller reaps it.
int isPid(int pid) {
  if (kill(pid, 0) == 0) return 1;
  const int err = errno;
  if (err != ESRCH) AD_ERRO("%s: %s\n", "Warning", strerror(err));
  return 0;
}

// Without memory for the text the process is stopped all the same.
void announce(const char* what, const std::string& name) {
  try {
    Logger::info(what + name);
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace

// ---- The functions ----

// Whole, with what runs in the child, so that failed assertions name it.
Launcher_t* Launcher_new(const char* command) {
  Launcher_t* const launcher =
      static_cast<Launcher_t*>(my_xmalloc(sizeof(Launcher_t), __FILE_NAME__, __LINE__));
  const size_t size = strlen(command) + 1;
  launcher->name = static_cast<char*>(my_xmalloc(size, __FILE_NAME__, __LINE__));
  memcpy(launcher->name, command, size);

  AD_TRCE("Launching %s", launcher->name);
  // Kept: the child keeps what it inherits, open descriptors and blocked signals included.
  launcher->pid = fork();
  if (launcher->pid == -1) {
    const int err = errno;
    AD_ERRO("fork: %s", strerror(err));
    free_record(launcher);
    // Kept: ends the caller, whom this function never tells of an error.
    exit(kChildFailed);
  }
  if (launcher->pid > 0) return launcher;

  char* argv[maxarg];
  const int argc = split_at_blanks(launcher->name, argv);
  assert(argc < maxarg);
  argv[argc] = nullptr;
  assert(argc > 0);
  (void)execvp(argv[0], argv);
  const int err = errno;
  AD_ERRO("exec %s: %s", argv[0], strerror(err));
  free_record(launcher);
  // Kept: exit handlers that the caller has installed run in the child too.
  exit(kChildFailed);
}

void Launcher_delete(Launcher_t* launcher) {
  AD_TRCE("Unlaunching %s", launcher->name);
  // Kept: there is no end but the process's; a process that cannot be reaped is waited for as long
  // as it is there.
  for (int attempt = 0; launcher->pid != -1; ++attempt) {
    const int number = signal_of(attempt);
    if (kill(launcher->pid, number) != 0) {
      const int err = errno;
      if (err != ESRCH) AD_ERRO("%s: %s\n", "Warning", strerror(err));
      break;
    }
    AD_DETL("kill %s: %d %d", launcher->name, launcher->pid, number);
    if (ends_within_polls(launcher->pid)) launcher->pid = -1;
  }
  free_record(launcher);
}

Launcher_t* Launcher_newHttpd(const char* arguments) {
  if (isTcp(port)) {
    AD_ERRO("Someone is already using port %d", port);
    return nullptr;
  }
  char command[kCommandRoom];
  // Kept: a longer command is cut without a word.
  (void)snprintf(command, sizeof command, "thttpd -D -p %d -l thttpd.log %s", port,
                 arguments != nullptr ? arguments : "");
  Launcher_t* const launcher = Launcher_new(command);
  for (int poll = 0; poll < kHttpdPolls; ++poll) {
    if (!isPid(launcher->pid)) {
      AD_ERRO("No thttpd process %d", launcher->pid);
      Launcher_delete(launcher);
      return nullptr;
    }
    if (isTcp(port)) return launcher;
    sleep_one_second();
  }
  AD_ERRO("Giving up waiting for thttpd to start listening");
  Launcher_delete(launcher);
  return nullptr;
}

// ---- The class ----

namespace {

// Kept: every blank ends a word, unlike in Launcher_new, so that words may be empty.
std::vector<std::string> wordsOf(const std::string& command) {
  std::vector<std::string> words;
  size_t start = 0;
  for (;;) {
    const size_t blank = command.find(' ', start);
    words.push_back(command.substr(start, blank - start));
    if (blank == std::string::npos) return words;
    start = blank + 1;
  }
}

std::vector<char*> argumentVector(std::vector<std::string>* words) {
  std::vector<char*> argv;
  argv.reserve(words->size() + 1);
  for (std::string& word : *words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return argv;
}

// What the child does. No exception may reach the caller's code a second time, in the child.
[[noreturn]] void execute(char* const* argv) noexcept {
  (void)execvp(argv[0], argv);
  const std::string reason = SystemError();
  Logger::warn(std::string("exec `") + argv[0] + "': " + reason);
  // Kept: as in Launcher_new, the caller's exit handlers run in the child.
  exit(kChildFailed);
}

}  // namespace

Launcher::Launcher(const char* command) : pid_(-1), name_(command) {
  std::vector<std::string> words = wordsOf(name_);
  // Made here rather than in the child, where running out of memory would throw.
  const std::vector<char*> argv = argumentVector(&words);
  Logger::info("Launching " + name_);
  pid_ = fork();
  if (pid_ == 0) execute(argv.data());
  if (pid_ != -1) return;
  // Kept: unlike Launcher_new, a failed fork leaves the caller running.
  const int err = errno;
  AD_ERRO("%s: %s\n", "Warning", strerror(err));
}

Launcher::~Launcher() {
  destroy();
}

void Launcher::destroy() {
  const int32_t pid = pid_;
  pid_ = -1;
  if (pid == -1) return;
  announce("Unlaunching ", name_);
  for (int attempt = 0;; ++attempt) {
    const int number = signal_of(attempt);
    if (kill(pid, number) == 0) {
      if (!ad_debug_wanted(kTraceLevel)) {
        // Kept: without trace lines nothing waits for the process, and the errno that is looked at
        // was left by an earlier call: this one has not failed.
        const int stale = errno;
        if (stale != ESRCH) AD_ERRO("%s: %s\n", "Warning", strerror(stale));
        return;
      }
      ad_debug_statement(AD_DEBUG_TRCE, __FILE_NAME__, __LINE__, "kill %s: %" PRId32 " %d",
                         name_.c_str(), pid, number);
    }
    // Kept: a signal that could not be sent, for whatever reason, is followed by the same polls.
    if (ends_within_polls(pid)) return;
  }
}
