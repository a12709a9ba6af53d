// Runs addr2line and c++filt. See symbolizer.h.
#include "symbolizer.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "common/file.h"
#include "common/text.h"

namespace {

constexpr int kMaxSeconds = 120;  // of one program; debug information may be huge
constexpr size_t kMaxOutput = 64 << 20;
constexpr int kCannotRun = 127;  // exit status, as a shell has it

int64_t now_in_milliseconds() {
  timespec now;
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// A file without a name that holds `text`, to be read from its start. Nobody has to feed it to the
// program while that writes.
Fd input_of(const std::string& text) {
  Fd fd(memfd_create("input", MFD_CLOEXEC));
  // LCOV_EXCL_BR_NEXT: not open only without descriptors
  for (size_t done = 0; fd.is_open() && done < text.size();) {
    const ssize_t wrote = write(fd.get(), text.data() + done, text.size() - done);
    if (wrote < 0) return Fd();  // LCOV_EXCL_BR_LINE: only without memory
    done += static_cast<size_t>(wrote);
  }
  if (fd.is_open()) (void)lseek(fd.get(), 0, SEEK_SET);  // LCOV_EXCL_BR_LINE: as above
  return fd;
}

[[noreturn]] void become(std::vector<char*> argv, int in, int out) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  // LCOV_EXCL_START: copies to places that are free or open already do not fail
  if (dup2(in, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(null, STDERR_FILENO) < 0)
    _exit(kCannotRun);
  // LCOV_EXCL_STOP
  // Crafted files may crash the program; that is not to leave anything behind.
  const rlimit no_core = {0, 0};
  (void)setrlimit(RLIMIT_CORE, &no_core);
  (void)setenv("LC_ALL", "C", 1);
  (void)execvp(argv[0], argv.data());
  _exit(kCannotRun);
}

// Reads until the program closes its output; false when it takes too long or writes too much.
bool collect(int fd, std::string* output) {
  const int64_t deadline = now_in_milliseconds() + kMaxSeconds * 1000;
  char piece[65536];
  for (;;) {
    const int64_t left = deadline - now_in_milliseconds();
    // LCOV_EXCL_BR_NEXT: no test waits for two minutes
    if (left <= 0 || output->size() > kMaxOutput) return false;
    pollfd waiting = {fd, POLLIN, 0};
    // LCOV_EXCL_BR_NEXT: only a signal, of which none is handled, or two minutes end the waiting
    if (poll(&waiting, 1, static_cast<int>(left)) <= 0) continue;
    const ssize_t got = read(fd, piece, sizeof piece);
    if (got == 0) return true;
    // LCOV_EXCL_BR_NEXT: reading what poll found in a pipe does not fail
    if (got < 0 && errno != EINTR) return false;
    if (got > 0) output->append(piece, static_cast<size_t>(got));  // LCOV_EXCL_BR_LINE: as above
  }
}

// What the program answers to `input`.
std::optional<std::string> run(std::vector<std::string> words, const std::string& input,
                               std::string* why) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  const Fd in = input_of(input);
  int ends[2];
  // LCOV_EXCL_START: only without descriptors
  if (!in.is_open() || pipe2(ends, O_CLOEXEC) != 0) {
    *why = words[0] + " cannot be run: " + strerror(errno);
    return std::nullopt;
  }
  // LCOV_EXCL_STOP
  const Fd from(ends[0]);
  Fd to(ends[1]);
  const pid_t pid = fork();
  // LCOV_EXCL_BR_NEXT: what both processes do after the call was counted once, before it
  if (pid == 0) become(argv, in.get(), to.get());
  to = Fd();
  // LCOV_EXCL_START: only without room for one more process
  if (pid < 0) {
    *why = words[0] + " cannot be run: " + strerror(errno);
    return std::nullopt;
  }
  // LCOV_EXCL_STOP
  std::string output;
  const bool in_time = collect(from.get(), &output);
  if (!in_time) (void)kill(pid, SIGKILL);
  int status = 0;
  // LCOV_EXCL_BR_NEXT: no signal is handled
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;

  if (in_time && WIFEXITED(status) && WEXITSTATUS(status) == 0) return output;
  if (!in_time) {
    *why = words[0] + " took too long or wrote too much";
  } else if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotRun) {
    *why = words[0] + " cannot be run; is binutils installed?";
  } else {
    *why = words[0] + " failed";
  }
  return std::nullopt;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t from = 0; from < text.size();) {
    const size_t end = std::min(text.find('\n', from), text.size());
    lines.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return lines;
}

// addr2line has "??" for a function and a file, and "?" or "0" for a line that it does not know.
Place place_of(const std::string& function, std::string line) {
  line = line.substr(0, line.find(" (discriminator "));
  if (line.compare(0, 3, "??:") == 0) line.clear();
  return {function == "??" ? "" : function, line};
}

// Whether the line repeats an address, as it does before the places of each.
bool repeats(const std::string& line, uint64_t address) {
  if (line.compare(0, 2, "0x") != 0) return false;
  char* end;
  const unsigned long long value = strtoull(line.c_str(), &end, 16);
  return *end == '\0' && value == address;
}

}  // namespace

std::optional<std::vector<Places>> find_places(const std::string& file,
                                               const std::vector<uint64_t>& addresses,
                                               std::string* why) {
  std::string input;
  for (const uint64_t address : addresses) input += hex_number(address) + '\n';
  // One word with its option: no name is taken for an option or for a file of options.
  const std::optional<std::string> output =
      run({"addr2line", "--addresses", "--functions", "--inlines", "--exe=" + file}, input, why);
  if (!output) return std::nullopt;

  const std::vector<std::string> lines = lines_of(*output);
  std::vector<Places> all;
  for (size_t i = 0; i < lines.size();) {
    if (all.size() < addresses.size() && repeats(lines[i], addresses[all.size()])) {
      all.emplace_back();
      ++i;
      continue;
    }
    if (all.empty() || i + 1 == lines.size()) break;
    all.back().push_back(place_of(lines[i], lines[i + 1]));
    i += 2;
  }
  if (all.size() == addresses.size()) return all;
  *why = "addr2line's answer is not understood";
  return std::nullopt;
}

std::optional<std::vector<std::string>> demangle(const std::vector<std::string>& names,
                                                 std::string* why) {
  std::string input;
  for (const std::string& name : names) input += name + '\n';
  const std::optional<std::string> output = run({"c++filt"}, input, why);
  if (!output) return std::nullopt;
  std::vector<std::string> lines = lines_of(*output);
  if (lines.size() == names.size()) return lines;
  *why = "c++filt's answer is not understood";
  return std::nullopt;
}
