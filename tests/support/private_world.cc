// A test's own machine. See private_world.h.
#include "support/private_world.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

namespace {

constexpr unsigned kUsers = 65536;  // mapped one to one when root starts the program

[[noreturn]] void refuse(const char* what) {
  fprintf(stderr,
          "private world: %s: %s\n"
          "These tests need user, mount, IPC, network and PID namespaces (unshare(1)); where\n"
          "unprivileged ones are switched off, run them as root.\n",
          what, strerror(errno));
  exit(1);
}

void check(bool ok, const char* what) {
  if (!ok) refuse(what);
}

bool put(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

int exit_code(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int wait_for(pid_t pid) {
  int status;
  while (waitpid(pid, &status, 0) < 0) check(errno == EINTR, "waitpid");
  return status;
}

// Only a process outside the new user namespace may map more than one user into it.
void map_users(pid_t process, uid_t uid, gid_t gid) {
  const std::string proc = "/proc/" + std::to_string(process);
  const std::string all = "0 0 " + std::to_string(kUsers);
  if (uid == 0 && put(proc + "/uid_map", all)) {
    check(put(proc + "/gid_map", all), "gid_map");
    return;
  }
  check(put(proc + "/uid_map", "0 " + std::to_string(uid) + " 1"), "uid_map");
  check(put(proc + "/setgroups", "deny"), "setgroups");
  check(put(proc + "/gid_map", "0 " + std::to_string(gid) + " 1"), "gid_map");
}

void unshare_all() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  int ready[2];
  check(pipe2(ready, O_CLOEXEC) == 0, "pipe");
  const pid_t self = getpid();
  const pid_t mapper = fork();
  check(mapper >= 0, "fork");
  if (mapper == 0) {
    char byte;
    close(ready[1]);
    if (read(ready[0], &byte, 1) != 1) _exit(1);
    map_users(self, uid, gid);
    _exit(0);
  }
  check(unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWPID) == 0,
        "unshare");
  check(write(ready[1], "", 1) == 1, "pipe");
  close(ready[0]);
  close(ready[1]);
  if (wait_for(mapper) != 0) exit(1);
  check(setresgid(0, 0, 0) == 0 && setresuid(0, 0, 0) == 0, "setresuid");
}

void raise_loopback() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  check(fd >= 0, "socket");
  ifreq request = {};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  check(ioctl(fd, SIOCSIFFLAGS, &request) == 0, "loopback interface");
  close(fd);
}

// Shows what lies at `from` at the place `to` too.
void show_at(const std::filesystem::directory_entry& from, const std::string& to) {
  if (from.is_symlink()) {
    std::filesystem::copy_symlink(from, to);
    return;
  }
  if (from.is_directory())
    std::filesystem::create_directory(to);
  else
    std::ofstream{to};
  check(mount(from.path().c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
        to.c_str());
}

bool below(const std::string& path, const std::string& dir) {
  return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
         path[dir.size()] == '/';
}

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + strerror(errno));
}

// Puts an empty tmpfs over `dir`. The tests' own programs stay in sight when they lie below it.
void cover_directory(const std::string& dir) {
  std::vector<std::pair<std::string, int>> kept;
  for (const std::string tree : {VELORIN_SOURCE, VELORIN_BUILD}) {
    if (!below(tree, dir)) continue;
    const int fd =
        open_tree(AT_FDCWD, tree.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE);
    if (fd < 0) fail("open_tree " + tree);
    kept.emplace_back(tree, fd);
  }
  const mode_t mask = umask(022);  // other users are to find their way
  std::filesystem::create_directories(dir);
  if (mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0)
    fail("mount " + dir);
  for (const auto& [tree, fd] : kept) {
    std::filesystem::create_directories(tree);
    if (move_mount(fd, "", AT_FDCWD, tree.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0)
      fail("move_mount " + tree);
    close(fd);
  }
  umask(mask);
}

// The first directory above `tree` that its user alone may enter, as home directories are; empty
// when there is none.
std::string closed_directory_above(const std::string& tree) {
  for (size_t slash = tree.find('/', 1); slash != std::string::npos;
       slash = tree.find('/', slash + 1)) {
    const std::string dir = tree.substr(0, slash);
    struct stat status;
    if (stat(dir.c_str(), &status) == 0 && (status.st_mode & S_IXOTH) == 0) return dir;
  }
  return "";
}

// A root directory of its own that shows what the machine's holds: whatever is made in it, such as
// a place to mount at, is gone with the namespace. It is put together at /proc, which every machine
// has and which is not needed until a new one is mounted.
void enter_private_root() {
  const std::string root = "/proc";
  check(mount("tmpfs", root.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0, "mount /");
  for (const auto& entry : std::filesystem::directory_iterator("/")) {
    if (entry.path() != root) show_at(entry, root + entry.path().string());
  }
  const std::string proc = root + "/proc";
  std::filesystem::create_directory(proc);
  check(mount("proc", proc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
        "mount /proc");
  const std::string here = std::filesystem::current_path();
  check(chroot(root.c_str()) == 0 && chdir("/") == 0, "chroot");
  // Tests run the programs as other users too.
  const std::string closed = closed_directory_above(VELORIN_SOURCE);
  if (!closed.empty()) cover_directory(closed);
  std::error_code covered;  // then the tests begin at the root
  std::filesystem::current_path(here, covered);
}

// Process 1 of the namespace: takes in orphans until the tests are done.
[[noreturn]] void reap_until(pid_t tests) {
  int status;
  for (;;) {
    const pid_t pid = wait(&status);
    if (pid == tests) _exit(exit_code(status));
    if (pid < 0 && errno != EINTR) _exit(1);
  }
}

}  // namespace

// Runs the rest of the program as process 2 of a new world and exits as it does.
void enter_private_world();
void enter_private_world() {
  unshare_all();
  fflush(nullptr);
  const pid_t init = fork();
  check(init >= 0, "fork");
  if (init > 0) {
    const int code = exit_code(wait_for(init));
    if (code > 128)
      fprintf(stderr, "killed by signal %d (%s)\n", code - 128, strsignal(code - 128));
    _exit(code);
  }
  check(prctl(PR_SET_PDEATHSIG, SIGKILL) == 0, "prctl");
  check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount /");
  enter_private_root();
  raise_loopback();
  const pid_t tests = fork();
  check(tests >= 0, "fork");
  if (tests > 0) reap_until(tests);
  check(setpgid(0, 0) == 0, "setpgid");
}

PrivateWorld::PrivateWorld() {
  if (unshare(CLONE_NEWIPC) != 0) fail("unshare");
  for (const char* name : {"DEBUG_LEVEL", "DEBUG_CLIENT_IP", "DEBUG_SERVER_IP", "ERROR_LOG_SOCKET",
                           "VELORIN_LOGID", "VELORIN_HOME"})
    unsetenv(name);
  cover("/tmp");
  daemon_ = std::make_unique<LogListener>("/tmp/ad_errorlog");
}

PrivateWorld::~PrivateWorld() {
  daemon_.reset();
  (void)umount2("/tmp", MNT_DETACH);
}

void PrivateWorld::cover(const std::string& dir) {
  cover_directory(dir);
  if (chdir("/") != 0) fail("chdir");
}

void PrivateWorld::write(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) fail("write " + path);
}

std::string PrivateWorld::read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) fail("read " + path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void PrivateWorld::becomeUser(uid_t uid) {
  if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0)
    fail("this test needs a second user, so root must start it: setresuid");
}
