// Running code and programs in child processes, with a time limit, and looking at how they end.
#ifndef VELORIN_TESTS_child_
#define VELORIN_TESTS_child_

#include <sys/types.h>

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

// The dynamic loader of the tests' own width. A process whose effective user is not its real one
// follows no $ORIGIN, by which the library finds its libsyslog: a test that makes such a process
// starts the program by its loader, which gets the folder of the libraries with --library-path.
constexpr const char* kLoader =
    sizeof(void*) == 8 ? "/lib64/ld-linux-x86-64.so.2" : "/lib/ld-linux.so.2";

// How a child ended and what it wrote.
struct ChildResult {
  int status = 0;  // as waitpid gives it
  bool timed_out = false;
  std::string out;
  std::string err;

  int exitCode() const;  // -1 when it did not exit by itself
  int signal() const;    // 0 when no signal ended it
};

// So that a failed EXPECT_EQ(child.exitCode(), 0) << child tells what happened.
std::ostream& operator<<(std::ostream& to, const ChildResult& result);

// A running child in a process group of its own; killed, with its group, when this object goes.
class Child {
 public:
  // Starts a program; `environment` holds NAME=VALUE texts that are added to ours. Throws when it
  // cannot be started.
  explicit Child(const std::vector<std::string>& argv,
                 const std::vector<std::string>& environment = {});

  // Runs `body` in a fork of this process. It exits with 0, or with 1 when an expectation of the
  // test failed in it; standard output then tells which.
  explicit Child(const std::function<void()>& body);

  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const;

  // Waits until the child's output so far holds `text`; fails the test, with a false result, when
  // it ends or `seconds` pass before.
  bool waitForOut(const std::string& text, int seconds = 20);
  bool waitForErr(const std::string& text, int seconds = 20);

  // Waits for the child's end, at most `seconds`; then it is killed and the test fails.
  ChildResult wait(int seconds = 60);

  // What it wrote up to now.
  const std::string& out() const { return result_.out; }
  const std::string& err() const { return result_.err; }

 private:
  void start(const std::function<void()>& in_child);
  bool waitForText(const std::string& stream, const std::string& text, int seconds);
  bool pump(int milliseconds);  // reads what is there; false when the child is gone
  bool drain(int* fd, std::string* to);

  pid_t pid_ = -1;
  int pidfd_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  bool ended_ = false;
  ChildResult result_;
};

// Child(...).wait() in one call.
ChildResult runProgram(const std::vector<std::string>& argv,
                       const std::vector<std::string>& environment = {}, int seconds = 60);
ChildResult runInChild(const std::function<void()>& body, int seconds = 60);

// Runs `body` in a child, fails the test when an expectation fails there, and returns what the
// child wrote to standard error.
std::string errorsOf(const std::function<void()>& body, int seconds = 60);

#endif  // VELORIN_TESTS_child_
