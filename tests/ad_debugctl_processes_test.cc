// ad_debugctl who and reload: which processes they find, what they say of them, and which ones get
// the signal.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"
#include "velorin/ad_debug"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr char kProgram[] = VELORIN_BIN "/ad_debugctl";
constexpr char kPeer[] = VELORIN_BIN "/ad_debugctl_peer";
constexpr char kStaticPeer[] = VELORIN_BIN "/ad_debugctl_static_peer";
constexpr char kBase[] = "/tmp/ad_errorlog";
constexpr char kSocket[] = "/tmp/ad_errorlog.0";
constexpr char kNobodysBase[] = "/tmp/nobody";
constexpr uid_t kUser = 1000;
const std::string kWidth = sizeof(void*) == 8 ? "64" : "32";
const std::string kOtherWidth = sizeof(void*) == 8 ? "32" : "64";

ChildResult control(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), kProgram);
  return runProgram(arguments);
}

// Turns the process into the program.
[[noreturn]] void become(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  for (std::string& text : arguments) argv.push_back(text.data());
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  perror(argv[0]);
  _exit(127);
}

std::string idOf(const Child& child) {
  return std::to_string(child.pid());
}

// What the table says of the process, without the blanks between its columns; empty when there is
// no row.
std::string rowOf(const std::string& table, pid_t pid) {
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string row;
    for (std::string word; words >> word;) row += (row.empty() ? "" : " ") + word;
    if (row.compare(0, std::to_string(pid).size() + 1, std::to_string(pid) + " ") == 0) return row;
  }
  return "";
}

std::string rowOf(pid_t pid) {
  const ChildResult result = control({"who"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  return rowOf(result.out, pid);
}

// How the table names the record of a socket.
std::string recordOf(const std::string& path) {
  const key_t key = ftok(path.c_str(), 'd');
  char text[64];
  snprintf(text, sizeof text, "key 0x%08x id %d", static_cast<unsigned>(key), shmget(key, 0, 0));
  return text;
}

// A child that runs `body`, says that it is ready, and stays.
std::unique_ptr<Child> resident(const std::function<void()>& body) {
  auto child = std::make_unique<Child>([body] {
    body();
    printf("ready\n");
    fflush(stdout);
    for (;;) pause();
  });
  EXPECT_TRUE(child->waitForOut("ready\n"));
  return child;
}

class ad_debugctlProcessesTest : public PrivateWorld {
 protected:
  ad_debugctlProcessesTest() : socket_(kSocket) {
    if (mkfifo("/tmp/go", 0666) != 0) ADD_FAILURE() << strerror(errno);
    chmod("/tmp/go", 0666);
    EXPECT_EQ(ad_get_ad_debug_cfg_p(kSocket, &record_), 0);
  }
  ~ad_debugctlProcessesTest() override { ad_return_ad_debug_cfg_p(record_); }

  // A peer that does these commands and then stays.
  static std::vector<std::string> staying(const std::string& peer,
                                          std::vector<std::string> commands) {
    commands.insert(commands.begin(), peer);
    commands.insert(commands.end(), {"await", "/tmp/go"});
    return commands;
  }

  LogListener socket_;
  ad_debug_cfg_t* record_ = nullptr;
};

using ad_debugctlWhoTest = ad_debugctlProcessesTest;
using ad_debugctlReloadTest = ad_debugctlProcessesTest;

// ---- who ----

TEST_F(ad_debugctlWhoTest, ShowsPidNameWidthAndRecord) {
  Child peer(staying(kPeer, {"init", kBase}));
  ASSERT_TRUE(peer.waitForOut("awaiting"));
  const ChildResult result = control({"who"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, MatchesRegex(" +PID  NAME +WIDTH  RECORD\n.*"));
  EXPECT_EQ(rowOf(result.out, peer.pid()), idOf(peer) + " ad_debugctl_peer " + kWidth + " " +
                                               recordOf(kSocket) + " of " + kSocket);
}

TEST_F(ad_debugctlWhoTest, MarksPrivateCopies) {
  Child never_initialised(staying(kPeer, {}));
  Child without_daemon(staying(kPeer, {"init", kNobodysBase}));
  for (Child* child : {&never_initialised, &without_daemon}) {
    ASSERT_TRUE(child->waitForOut("awaiting"));
    EXPECT_EQ(rowOf(child->pid()), idOf(*child) + " ad_debugctl_peer " + kWidth + " private copy");
  }
}

TEST_F(ad_debugctlWhoTest, ShowsStaticallyLinkedProgramsWithAndWithoutARecord) {
  Child attached(staying(kStaticPeer, {"init", kBase}));
  Child alone(staying(kStaticPeer, {"init", kNobodysBase}));
  ASSERT_TRUE(attached.waitForOut("awaiting"));
  ASSERT_TRUE(alone.waitForOut("awaiting"));
  const std::string name = " ad_debugctl_static_peer " + kWidth + " ";
  EXPECT_EQ(rowOf(attached.pid()), idOf(attached) + name + recordOf(kSocket) + " of " + kSocket);
  EXPECT_EQ(rowOf(alone.pid()), idOf(alone) + name + "private copy");
}

TEST_F(ad_debugctlWhoTest, LeavesOutProcessesWithoutTheLibrary) {
  Child other({"sleep", "1000"});
  Child ended({"true"});
  ended.wait();
  const ChildResult result = control({"who"});
  EXPECT_EQ(rowOf(result.out, other.pid()), "");
  EXPECT_THAT(result.out, Not(HasSubstr(" ad_debugctl "))) << "itself";
}

TEST_F(ad_debugctlWhoTest, LeavesOutSegmentsThatAreNoRecords) {
  const auto attachNew = [](key_t key, size_t size) {
    EXPECT_NE(shmat(shmget(key, size, IPC_CREAT | 0666), nullptr, 0), reinterpret_cast<void*>(-1));
  };
  const auto child = resident([&] {
    ad_return_ad_debug_cfg_p(record_);  // inherited
    attachNew(0x64000001, 139);
    attachNew(0x64000002, 4096);
    attachNew(0x65000001, 140);
    attachNew(IPC_PRIVATE, 140);
  });
  EXPECT_THAT(rowOf(child->pid()), EndsWith(" private copy"));
}

TEST_F(ad_debugctlWhoTest, TellsRecordsOfTheSpecialLogOfOtherSocketsAndRemovedOnes) {
  LogListener special("/tmp/ad_errorlog_sp.0");
  LogListener other("/tmp/other.0");
  const auto child = resident([] {
    ad_init_debug_lib(kBase);
    ad_init_debug_lib("/tmp/other");
    ad_set_special_log_path("/tmp/ad_errorlog_sp");
    ad_set_special_log_path("/tmp/ad_errorlog_sp");  // attached twice, shown once
  });
  const std::string removed = recordOf(kSocket);
  ASSERT_EQ(shmctl(shmget(ftok(kSocket, 'd'), 0, 0), IPC_RMID, nullptr), 0);
  const std::string row = rowOf(child->pid());
  for (const std::string& part :
       {removed + ", removed", recordOf("/tmp/other.0") + " of another socket",
        recordOf("/tmp/ad_errorlog_sp.0") + " of /tmp/ad_errorlog_sp.0"})
    EXPECT_THAT(row, HasSubstr(part));
  EXPECT_EQ(std::count(row.begin(), row.end(), ';'), 2) << row;
}

TEST_F(ad_debugctlWhoTest, TellsRecordsOfOtherIpcNamespaces) {
  const auto child = resident([] {
    ASSERT_EQ(unshare(CLONE_NEWIPC), 0);
    ad_init_debug_lib(kBase);
  });
  EXPECT_THAT(rowOf(child->pid()), EndsWith(" of another IPC namespace"));
}

TEST_F(ad_debugctlWhoTest, ShowsTheKeyOfARecordOfAnotherIpcNamespace) {
  const auto child = resident([] {
    ASSERT_EQ(unshare(CLONE_NEWIPC), 0);
    ASSERT_NE(shmat(shmget(0x64010002, 140, IPC_CREAT | 0666), nullptr, 0),
              reinterpret_cast<void*>(-1));
  });
  // This program has the library, so that the segment may well be a record.
  EXPECT_THAT(rowOf(child->pid()), EndsWith(" key 0x64010002 id 0 of another IPC namespace"));
}

TEST_F(ad_debugctlWhoTest, ShowsTheKeyOfARecordThatMayNotBeRead) {
  const int id = shmget(0x64010003, 140, IPC_CREAT | 0666);
  const auto child = resident([id] {
    becomeUser(kUser);
    prctl(PR_SET_DUMPABLE, 1);
    ASSERT_NE(shmat(id, nullptr, 0), reinterpret_cast<void*>(-1));
  });
  shmid_ds status = {};
  ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
  status.shm_perm.mode = 0600;
  ASSERT_EQ(shmctl(id, IPC_SET, &status), 0);
  const ChildResult result = runInChild([] {
    becomeUser(kUser);
    become({kProgram, "who"});
  });
  EXPECT_THAT(rowOf(result.out, child->pid()),
              HasSubstr(" key 0x64010003 id " + std::to_string(id)));
}

TEST_F(ad_debugctlWhoTest, LeavesOutProcessesThatHaveEnded) {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  const std::string number = std::to_string(pid);
  EXPECT_EQ(rowOf(pid), "");
  const ChildResult result = control({"reload", number});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.err, "ad_debugctl: there is no process '" + number + "'\n");
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST_F(ad_debugctlWhoTest, NamesOfFifteenBytesThatAreNotCutAreShown) {
  const auto child = resident([] { prctl(PR_SET_NAME, "fifteen_letters"); });
  EXPECT_THAT(rowOf(child->pid()), StartsWith(idOf(*child) + " fifteen_letters "));
}

TEST_F(ad_debugctlWhoTest, NamesAreEscaped) {
  const auto child = resident([] { prctl(PR_SET_NAME, "a\n1\x1b[2J\\\xff"); });
  EXPECT_THAT(rowOf(child->pid()), StartsWith(idOf(*child) + " a\\n1\\x1b[2J\\\\\\xff "));
}

TEST_F(ad_debugctlWhoTest, OfAUserSeesItsOwnProcessesAndNamesTheOthersAsNotSeen) {
  Child roots(staying(kPeer, {"init", kBase}));
  Child own([] {
    becomeUser(kUser);
    become(staying(kPeer, {"init", kBase}));
  });
  ASSERT_TRUE(roots.waitForOut("awaiting"));
  ASSERT_TRUE(own.waitForOut("awaiting"));
  const ChildResult result = runInChild([] {
    becomeUser(kUser);
    become({kProgram, "who"});
  });
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_THAT(rowOf(result.out, own.pid()), EndsWith(std::string(" of ") + kSocket));
  EXPECT_EQ(rowOf(result.out, roots.pid()), "");
  EXPECT_THAT(
      result.err,
      MatchesRegex("ad_debugctl: not seen: [0-9]+ processes that you may not look at: .*, " +
                   idOf(roots) + " ad_debugctl_pee.*\n"));
}

TEST_F(ad_debugctlWhoTest, ChangesNothingAtTheRecord) {
  // Without it in this process: a child that turns into the program would let it go.
  ad_return_ad_debug_cfg_p(record_);
  record_ = nullptr;
  const int id = shmget(ftok(kSocket, 'd'), 0, 0);
  shmid_ds status;
  ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
  EXPECT_EQ(status.shm_lpid, getpid());
  control({"who"});
  ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
  EXPECT_EQ(status.shm_lpid, getpid()) << "it was attached";
}

// ---- reload ----

// A process with a handler of the library's that says so when its settings were read anew.
std::unique_ptr<Child> reloadable(const char* base, const char* name) {
  auto child = std::make_unique<Child>([base, name] {
    sigset_t reload, none;
    sigemptyset(&none);
    sigemptyset(&reload);
    sigaddset(&reload, SIGUSR1);
    sigprocmask(SIG_BLOCK, &reload, nullptr);
    prctl(PR_SET_NAME, name);
    ad_init_debug_lib(base);
    printf("ready\n");
    fflush(stdout);
    for (;;) {
      sigsuspend(&none);
      printf("level %d\n", ad_debug_cfg_p->ad_debug_level);
      fflush(stdout);
    }
  });
  EXPECT_TRUE(child->waitForOut("ready\n"));
  return child;
}

std::string signalled(const Child& child, const std::string& name) {
  return "signalled " + idOf(child) + " " + name + "\n";
}

std::string notSignalled(const Child& child, const std::string& name, const std::string& why) {
  return "not signalled " + idOf(child) + " " + name + ": " + why + "\n";
}

constexpr char kDeadly[] = "does not handle the signal and would die of it";

TEST_F(ad_debugctlReloadTest, LetsAllProcessesReadTheSettingsAnew) {
  const auto shared = reloadable(kBase, "shared");
  const auto alone = reloadable(kNobodysBase, "alone");
  write("/tmp/ad_errorlog.0.cfg", "debug_level=2\n");
  write("/tmp/nobody.0.cfg", "debug_level=3\n");
  const ChildResult result = control({"reload"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, AllOf(HasSubstr(signalled(*shared, "shared")),
                                HasSubstr(signalled(*alone, "alone"))));
  EXPECT_TRUE(shared->waitForOut("level 2\n"));
  EXPECT_TRUE(alone->waitForOut("level 3\n"));
  EXPECT_EQ(record_->ad_debug_level, 2);
}

TEST_F(ad_debugctlReloadTest, SparesProcessesThatWouldDieOrThatIgnoreIt) {
  const auto handles = reloadable(kBase, "handles");
  const auto without = resident([] { prctl(PR_SET_NAME, "without"); });
  const auto ignores = resident([] {
    prctl(PR_SET_NAME, "ignores");
    ad_init_debug_lib(kBase);
    signal(SIGUSR1, SIG_IGN);
  });
  Child watch({kProgram, "watch"});
  ASSERT_TRUE(watch.waitForOut("server: off\n"));
  for (int i = 0; i < 2; ++i) {  // the second time they all still run
    const ChildResult result = control({"reload"});
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_THAT(result.out,
                AllOf(HasSubstr(signalled(*handles, "handles")),
                      HasSubstr(notSignalled(*without, "without", kDeadly)),
                      HasSubstr(notSignalled(*ignores, "ignores", "ignores the signal")),
                      HasSubstr(notSignalled(watch, "ad_debugctl", kDeadly))));
  }
}

TEST_F(ad_debugctlReloadTest, PidsAndNamesChooseProcesses) {
  const auto one = reloadable(kBase, "one");
  const auto two = reloadable(kBase, "two");
  const auto three = reloadable(kBase, "three");
  const ChildResult result = control({"reload", idOf(*one), "two", idOf(*one)});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out, signalled(*one, "one") + signalled(*two, "two")) << "once each";
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(one->waitForOut("level"));
  EXPECT_TRUE(two->waitForOut("level"));
  EXPECT_EQ(three->out(), "ready\n");
}

TEST_F(ad_debugctlReloadTest, NameIsTheProcessesOrItsProgramsAndStandsForAllOfThem) {
  const auto one = reloadable(kBase, "many");
  const auto two = reloadable(kBase, "many");
  const ChildResult by_name = control({"reload", "many"});
  EXPECT_EQ(by_name.exitCode(), 0) << by_name;
  EXPECT_EQ(by_name.out, signalled(*one, "many") + signalled(*two, "many"));

  // This program's own process bears the name too, and does not handle the signal.
  const ChildResult by_program = control({"reload", "ad_debugctl_processes_test"});
  EXPECT_EQ(by_program.exitCode(), 1) << by_program;
  EXPECT_THAT(by_program.out, AllOf(HasSubstr(signalled(*one, "many")), HasSubstr(kDeadly)));
}

TEST_F(ad_debugctlReloadTest, UnknownProcessesAreNamedAndFail) {
  const auto known = reloadable(kBase, "known");
  for (const char* unknown : {"4194303", "0", "-1x", "kno", "known ", "unknown\x1b"}) {
    const ChildResult result = control({"reload", "--", unknown, "known"});
    EXPECT_EQ(result.exitCode(), 1) << result;
    EXPECT_EQ(result.out, signalled(*known, "known"));
    EXPECT_THAT(result.err, MatchesRegex("ad_debugctl: there is no process '[ -~]+'\n"));
  }
}

TEST_F(ad_debugctlReloadTest, ProcessWithoutTheLibraryIsNotSignalledEvenWhenItIsNamed) {
  Child other({"sleep", "1000"});
  Child handler({"sh", "-c", "trap 'echo signalled' USR1; echo ready; while :; do sleep 1; done"});
  ASSERT_TRUE(handler.waitForOut("ready\n"));
  for (const Child* child : {&other, &handler}) {
    const ChildResult result = control({"reload", idOf(*child)});
    EXPECT_EQ(result.exitCode(), 1) << result;
    EXPECT_THAT(result.out, EndsWith(": does not use the debug log\n"));
    EXPECT_EQ(kill(child->pid(), 0), 0);
  }
  EXPECT_EQ(handler.out(), "ready\n");
}

TEST_F(ad_debugctlReloadTest, NobodyToSignalIsAFailure) {
  const ChildResult result = control({"reload"});
  EXPECT_EQ(result.exitCode(), 1) << result;
  EXPECT_EQ(result.err, "ad_debugctl: no process handles the signal\n");
}

TEST_F(ad_debugctlReloadTest, OfAUserReachesItsOwnProcessesAndNamesTheOthers) {
  const auto roots = reloadable(kBase, "roots");
  Child own([] {
    becomeUser(kUser);
    become(staying(kPeer, {"init", kBase}));
  });
  ASSERT_TRUE(own.waitForOut("awaiting"));
  const auto userReloads = [](std::vector<std::string> targets) {
    targets.insert(targets.begin(), {kProgram, "reload"});
    return runInChild([&] {
      becomeUser(kUser);
      become(targets);
    });
  };
  const ChildResult refused = userReloads({idOf(*roots)});
  EXPECT_EQ(refused.exitCode(), 1) << refused;
  EXPECT_EQ(refused.out, notSignalled(*roots, "roots", "you may not look at it"));
  EXPECT_EQ(refused.err, "");

  write("/tmp/ad_errorlog.0.cfg", "debug_level=3\n");
  const ChildResult all = userReloads({});
  EXPECT_EQ(all.exitCode(), 0) << all;
  EXPECT_EQ(all.out, signalled(own, "ad_debugctl_peer"));
  EXPECT_THAT(all.err, HasSubstr(", " + idOf(*roots) + " roots"));
  EXPECT_EQ(own.wait().exitCode(), 0) << "its wait ends by the signal";
  EXPECT_EQ(record_->ad_debug_level, 3);
  EXPECT_EQ(roots->out(), "ready\n");
}

// ---- Both widths ----

#ifdef VELORIN_OTHER_WIDTH

TEST_F(ad_debugctlWhoTest, ShowsProcessesOfTheOtherWidth) {
  ASSERT_EQ(access(VELORIN_OTHER_WIDTH, X_OK), 0)
      << VELORIN_OTHER_WIDTH << " is missing: build both targets (scripts/test does)";
  Child attached(staying(VELORIN_OTHER_WIDTH, {"init", kBase}));
  Child alone(staying(VELORIN_OTHER_WIDTH, {"init", kNobodysBase}));
  ASSERT_TRUE(attached.waitForOut("awaiting"));
  ASSERT_TRUE(alone.waitForOut("awaiting"));
  const std::string name = " width_peer " + kOtherWidth + " ";
  EXPECT_EQ(rowOf(attached.pid()), idOf(attached) + name + recordOf(kSocket) + " of " + kSocket);
  EXPECT_EQ(rowOf(alone.pid()), idOf(alone) + name + "private copy");
}

TEST_F(ad_debugctlReloadTest, ReachesProcessesOfTheOtherWidth) {
  ASSERT_EQ(access(VELORIN_OTHER_WIDTH, X_OK), 0)
      << VELORIN_OTHER_WIDTH << " is missing: build both targets (scripts/test does)";
  Child peer(staying(VELORIN_OTHER_WIDTH, {"init", kBase}));
  ASSERT_TRUE(peer.waitForOut("awaiting"));
  write("/tmp/ad_errorlog.0.cfg", "debug_level=3\n");
  const ChildResult result = control({"reload", "width_peer"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out, signalled(peer, "width_peer"));
  EXPECT_EQ(peer.wait().exitCode(), 0) << "its wait ends by the signal";
  EXPECT_EQ(record_->ad_debug_level, 3);
}

#endif  // VELORIN_OTHER_WIDTH

}  // namespace
