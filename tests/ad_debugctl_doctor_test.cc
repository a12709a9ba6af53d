// ad_debugctl doctor: each cause of missing lines is provoked, found, and healed by the fix that is
// given for it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
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
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr char kProgram[] = VELORIN_BIN "/ad_debugctl";
constexpr char kBase[] = "/tmp/ad_errorlog";
constexpr char kSocket[] = "/tmp/ad_errorlog.0";
constexpr char kFile[] = "/tmp/ad_errorlog.0.cfg";
constexpr char kCrashes[] = "/local/local1";
constexpr char kQueueLength[] = "/proc/sys/net/unix/max_dgram_qlen";
constexpr char kCorePattern[] = "/proc/sys/kernel/core_pattern";
constexpr uid_t kUser = 1000;

// One check's result as doctor prints it.
struct Entry {
  std::string line;  // "wrong  socket: ..."
  std::string fix;
};

std::vector<Entry> entriesOf(const std::string& output) {
  const std::string mark = "       fix: ";
  std::vector<Entry> entries;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, mark.size(), mark) != 0) {
      EXPECT_THAT(line, MatchesRegex("(ok   |warn |wrong)  [a-z ]+: .+"));
      entries.push_back({line, ""});
    } else if (!entries.empty()) {
      EXPECT_EQ(entries.back().fix, "");
      entries.back().fix = line.substr(mark.size());
    }
  }
  for (const Entry& entry : entries)
    EXPECT_EQ(entry.fix.empty(), entry.line.compare(0, 2, "ok") == 0) << entry.line;
  return entries;
}

// The directory in a file's place, with the mode, without the umask.
void makeDirectory(const std::string& path, mode_t mode = 0777) {
  std::filesystem::create_directories(path);
  ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

// A machine on which all is well; each test breaks something.
class ad_debugctlDoctorTest : public PrivateWorld {
 protected:
  ad_debugctlDoctorTest() {
    cover("/proc/sys/net");
    makeDirectory("/proc/sys/net/unix", 0755);
    write(kQueueLength, "512\n");
    usePattern("|/bin/true %p\n");
    cover(kCrashes);
    daemon_ = std::make_unique<LogListener>(kSocket);
    makeRecord();
  }
  ~ad_debugctlDoctorTest() override {
    dropRecord();
    for (const char* path : {kCorePattern, kCrashes, "/proc/sys/net"})
      (void)umount2(path, MNT_DETACH);
  }

  void makeRecord() { EXPECT_EQ(ad_get_ad_debug_cfg_p(kSocket, &record_), 0); }
  void dropRecord() {
    (void)ad_return_ad_debug_cfg_p(record_);
    record_ = nullptr;
  }

  void usePattern(const std::string& pattern) {
    write("/tmp/core_pattern", pattern);
    if (patterned_) return;
    patterned_ = true;
    EXPECT_EQ(mount("/tmp/core_pattern", kCorePattern, nullptr, MS_BIND, nullptr), 0);
  }

  static ChildResult doctor(std::vector<std::string> options = {}) {
    options.insert(options.begin(), kProgram);
    options.push_back("doctor");
    return runProgram(options);
  }

  static ChildResult userAsks(const std::vector<std::string>& options = {}) {
    return runInChild([&] {
      becomeUser(kUser);
      std::vector<std::string> words = options;
      words.insert(words.begin(), kProgram);
      words.push_back("doctor");
      std::vector<char*> argv;
      for (std::string& word : words) argv.push_back(word.data());
      argv.push_back(nullptr);
      execv(kProgram, argv.data());
      _exit(127);
    });
  }

  static Entry entryOf(const ChildResult& result, const std::string& start) {
    for (const Entry& entry : entriesOf(result.out))
      if (entry.line.compare(0, start.size(), start) == 0) return entry;
    ADD_FAILURE() << "no line begins with " << start << "\n" << result;
    return {};
  }

  // Expects that line and exit status; the fix.
  static std::string finds(const std::string& line, const std::vector<std::string>& options = {}) {
    const ChildResult result = doctor(options);
    const bool wrong = line.compare(0, 5, "wrong") == 0;
    EXPECT_EQ(result.exitCode(), wrong ? 1 : 0) << result;
    EXPECT_EQ(result.err, "");
    return entryOf(result, line).fix;
  }

  // Does what a fix says.
  static void apply(const std::string& fix) {
    const std::string program = "PATH=" VELORIN_BIN ":/usr/sbin:/sbin:$PATH; ";
    const ChildResult result = runProgram({"bash", "-c", program + fix});
    EXPECT_EQ(result.exitCode(), 0) << fix << "\n" << result;
  }

  // The same of one that starts a daemon.
  static std::unique_ptr<Child> applyStart(const std::string& fix) {
    EXPECT_THAT(fix, EndsWith(" &"));
    auto child = std::make_unique<Child>(
        std::vector<std::string>{"bash", "-c", "PATH=" VELORIN_BIN ":$PATH; " + fix + " wait"});
    EXPECT_TRUE(child->waitForErr("listening at"));
    return child;
  }

  // All lines are "ok", and the exit status is 0.
  static void expectHealthy(const std::vector<std::string>& options = {}) {
    const ChildResult result = doctor(options);
    EXPECT_EQ(result.exitCode(), 0) << result;
    for (const Entry& entry : entriesOf(result.out)) EXPECT_THAT(entry.line, StartsWith("ok "));
  }

  static int segment() { return shmget(ftok(kSocket, 'd'), 0, 0); }

  std::unique_ptr<LogListener> daemon_;
  ad_debug_cfg_t* record_ = nullptr;

 private:
  bool patterned_ = false;
};

TEST_F(ad_debugctlDoctorTest, FindsAllWellAndExitsWithZero) {
  const ChildResult result = doctor();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.err, "");
  std::vector<std::string> checks;
  for (const Entry& entry : entriesOf(result.out)) {
    EXPECT_THAT(entry.line, StartsWith("ok "));
    checks.push_back(entry.line.substr(7, entry.line.find(':') - 7));
  }
  EXPECT_THAT(checks, testing::ElementsAre("socket", "daemon", "queue length", "record", "level",
                                           "filters", "settings", "crash directory", "markers",
                                           "core limit", "core pattern"));
  expectHealthy({"--path", kSocket});
  expectHealthy({"--base", kBase});
}

TEST_F(ad_debugctlDoctorTest, ChangesNothing) {
  record_->ad_debug_level = 4;
  record_->debug_target_client_ip = 7;
  record_->para[31] = 9;
  write(kFile, "debug_level=9\nfoo=bar\n");
  write("/local/local1/.excl_sig.victim.lock", "");
  const ad_debug_cfg_t before = *record_;
  const auto listing = [] {
    std::ostringstream list;
    for (const std::string dir : {"/tmp", kCrashes})
      for (const auto& entry : std::filesystem::recursive_directory_iterator(dir))
        list << entry.path() << entry.last_write_time().time_since_epoch().count() << "\n";
    return list.str();
  };
  const std::string files = listing();
  EXPECT_EQ(doctor().exitCode(), 1);
  EXPECT_EQ(listing(), files);
  EXPECT_EQ(memcmp(&before, record_, sizeof before), 0);
  EXPECT_THAT(daemon_->waiting(), IsEmpty()) << "no line was sent";
  shmid_ds status;
  ASSERT_EQ(shmctl(segment(), IPC_STAT, &status), 0);
  EXPECT_EQ(status.shm_nattch, 1u);
}

// ---- The socket and who listens there ----

TEST_F(ad_debugctlDoctorTest, MissingSocketIsHealedByStartingTheDaemon) {
  dropRecord();
  daemon_.reset();
  const std::string fix = finds("wrong  socket: /tmp/ad_errorlog.0: No such file or directory");
  EXPECT_EQ(fix, "ad_logd --base /tmp/ad_errorlog &");
  const auto daemon = applyStart(fix);
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, BaseThatWasAskedForIsInTheFixes) {
  const std::string fix = finds("wrong  socket: /tmp/it's.0: ", {"--base", "/tmp/it's"});
  EXPECT_EQ(fix, "ad_logd --base '/tmp/it'\\''s' &");
  const auto daemon = applyStart(fix);
  expectHealthy({"--base", "/tmp/it's"});
  apply(std::string(kProgram) + " --base '/tmp/it'\\''s' client 10.0.0.1");
  const std::string unfilter = finds("wrong  filters: client 10.0.0.1", {"--base", "/tmp/it's"});
  EXPECT_EQ(unfilter, "ad_debugctl --base '/tmp/it'\\''s' client off");
  apply(unfilter);
  expectHealthy({"--base", "/tmp/it's"});
  EXPECT_EQ(finds("wrong  socket: ", {"--path", "/tmp/none"}),
            "start the daemon whose socket this is");
}

TEST_F(ad_debugctlDoctorTest, PathThatWasAskedForIsInTheFixes) {
  record_->ad_debug_level = 7;
  const std::string fix = finds("warn   level: 7 is no level", {"--path", kSocket});
  EXPECT_EQ(fix, std::string("ad_debugctl --path ") + kSocket + " level 3");
  apply(fix);
  expectHealthy({"--path", kSocket});
}

TEST_F(ad_debugctlDoctorTest, BaseThatATerminalWouldObeyIsInTheFixes) {
  const std::string base = "/tmp/a\x7f";
  const std::string fix = finds("wrong  socket: /tmp/a\\x7f.0: ", {"--base", base});
  const auto daemon = applyStart(fix);
  expectHealthy({"--base", base});
}

TEST_F(ad_debugctlDoctorTest, FileInTheSocketsPlaceIsMovedAway) {
  dropRecord();
  daemon_.reset();
  write(kSocket, "");
  const std::string fix = finds("wrong  socket: /tmp/ad_errorlog.0 is not a socket");
  const auto daemon = applyStart(fix);
  expectHealthy();
  EXPECT_TRUE(std::filesystem::exists("/tmp/ad_errorlog.0.old"));
}

TEST_F(ad_debugctlDoctorTest, SocketThatNobodyAnswersAtIsHealedByStartingTheDaemon) {
  dropRecord();
  daemon_.reset();
  {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address = {AF_UNIX, "/tmp/ad_errorlog.0"};
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(fd);
  }
  chmod(kSocket, 0666);
  const auto daemon = applyStart(finds("wrong  daemon: nobody answers at /tmp/ad_errorlog.0"));
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, SocketOfAnotherKindIsMovedAway) {
  dropRecord();
  daemon_.reset();
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {AF_UNIX, "/tmp/ad_errorlog.0"};
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(fd, 1), 0);
  chmod(kSocket, 0666);
  const auto daemon = applyStart(
      finds("wrong  daemon: /tmp/ad_errorlog.0 is a socket of another kind, not for datagrams"));
  expectHealthy();
  close(fd);
}

TEST_F(ad_debugctlDoctorTest, SocketThatNotEveryUserMaySendToIsAWarningAndForTheUserWrong) {
  chmod(kSocket, 0600);
  const std::string fix = finds("warn   socket: /tmp/ad_errorlog.0 has the mode 0600");
  const ChildResult user = userAsks();
  EXPECT_EQ(user.exitCode(), 1) << user;
  EXPECT_EQ(entryOf(user, "wrong  daemon: you may not send to /tmp/ad_errorlog.0").fix, fix);
  apply(fix);
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, DaemonThatTakesNoLinesIsFoundAndLivesOnByReading) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const sockaddr_un to = {AF_UNIX, "/tmp/ad_errorlog.0"};
  while (sendto(fd, "x\0timetime", 10, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) > 0)
    continue;
  close(fd);
  EXPECT_THAT(finds("wrong  daemon: answers, but takes no line: its queue stays full"),
              HasSubstr("let ad_logd go on"));
  EXPECT_THAT(daemon_->waiting(), Not(IsEmpty()));
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, ShortQueueIsAWarning) {
  write(kQueueLength, "10\n");
  const std::string fix = finds("warn   queue length: 10 lines");
  const std::string command = "sysctl -w net.unix.max_dgram_qlen=";
  ASSERT_THAT(fix, StartsWith(command + "512 "));
  write(kQueueLength, std::to_string(atoi(fix.c_str() + command.size())) + "\n");
  expectHealthy();
  std::filesystem::remove(kQueueLength);
  finds("warn   queue length: not to be seen here: ");
}

// ---- Of a user ----

TEST_F(ad_debugctlDoctorTest, UserIsToldAboutTheSuperusersDaemonWhenThereIsNoOther) {
  const ChildResult result = userAsks();
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(entryOf(result, "ok     socket: ").line, "ok     socket: /tmp/ad_errorlog.0");
  dropRecord();
  daemon_.reset();
  const ChildResult none = userAsks();
  EXPECT_EQ(none.exitCode(), 1) << none;
  entryOf(none, "wrong  socket: /tmp/ad_errorlog.1000 and /tmp/ad_errorlog.0: No such file");
}

TEST_F(ad_debugctlDoctorTest, UsersOwnSocketComesFirstEvenWhenNobodyAnswersThere) {
  LogListener stale("/tmp/ad_errorlog.1000");
  shutdown(stale.fd(), SHUT_RDWR);
  const ChildResult result = userAsks();
  entryOf(result, "ok     socket: /tmp/ad_errorlog.1000");
}

TEST_F(ad_debugctlDoctorTest, UsersSocketWithAForeignSegmentIsPassedOver) {
  LogListener own("/tmp/ad_errorlog.1000");
  const int id = shmget(ftok(own.path().c_str(), 'd'), 64, IPC_CREAT | 0666);
  ASSERT_NE(id, -1);
  const ChildResult result = userAsks();
  EXPECT_EQ(result.exitCode(), 1) << result;
  entryOf(result, "ok     socket: /tmp/ad_errorlog.0");
  const std::string fix = entryOf(result,
                                  "wrong  record: that of /tmp/ad_errorlog.1000 is passed over, "
                                  "and so is the socket: the segment holds 64 bytes, a record 140")
                              .fix;
  apply(fix);
  entryOf(userAsks(), "ok     socket: /tmp/ad_errorlog.1000");
}

// ---- The record ----

TEST_F(ad_debugctlDoctorTest, MissingRecordIsAWarning) {
  dropRecord();
  ASSERT_EQ(shmctl(segment(), IPC_RMID, nullptr), 0);
  EXPECT_EQ(finds("warn   record: there is none for /tmp/ad_errorlog.0"),
            "start ad_logd anew, and the processes that log");
  makeRecord();
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, SegmentOfAnotherSizeIsRemovedByTheFix) {
  dropRecord();
  ASSERT_EQ(shmctl(segment(), IPC_RMID, nullptr), 0);
  ASSERT_NE(shmget(ftok(kSocket, 'd'), 64, IPC_CREAT | 0666), -1);
  apply(
      finds("wrong  record: the segment holds 64 bytes, a record 140: each process goes by its "
            "own settings"));
  makeRecord();
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, SegmentThatNotEveryUserCanAttachIsAWarningAndForTheUserWrong) {
  for (const mode_t mode : {0600u, 0444u}) {
    shmid_ds status;
    ASSERT_EQ(shmctl(segment(), IPC_STAT, &status), 0);
    status.shm_perm.mode = static_cast<unsigned short>(mode);
    ASSERT_EQ(shmctl(segment(), IPC_SET, &status), 0);
    const int id = segment();
    const ChildResult user = userAsks({"--path", kSocket});
    EXPECT_EQ(user.exitCode(), 1) << user;
    entryOf(user, "wrong  record: Permission denied: each process goes by its own settings");
    EXPECT_EQ(segment(), id) << "was removed";
    const std::string fix =
        finds("warn   record: id " + std::to_string(id) + ", 140 bytes, user 0, mode 0" +
              (mode == 0600u ? "600" : "444") + ": not every user's processes can attach it");
    dropRecord();
    apply(fix);
    makeRecord();
    expectHealthy();
  }
}

TEST_F(ad_debugctlDoctorTest, RecordOfAnotherUserThanTheDaemonsIsAWarning) {
  shmid_ds status;
  ASSERT_EQ(shmctl(segment(), IPC_STAT, &status), 0);
  status.shm_perm.uid = kUser;
  ASSERT_EQ(shmctl(segment(), IPC_SET, &status), 0);
  apply(finds("warn   record: id " + std::to_string(segment()) +
              ", 140 bytes, user 1000, mode 0666: it does not belong to the daemon's user 0"));
  dropRecord();
  makeRecord();
  expectHealthy();
}

// ---- What the record holds ----

TEST_F(ad_debugctlDoctorTest, LevelSaysWhichLinesAreWritten) {
  const struct {
    int32_t level;
    const char* line;
  } rows[] = {
      {0, "ok     level: 0: errors and critical lines; trace lines need 2, detail lines 3"},
      {1, "ok     level: 1: errors and critical lines; trace lines need 2, detail lines 3"},
      {2, "ok     level: 2: errors, critical and trace lines; detail lines need 3"},
      {3, "ok     level: 3: all lines"},
  };
  for (const auto& row : rows) {
    record_->ad_debug_level = row.level;
    EXPECT_EQ(entryOf(doctor(), "ok     level: ").line, row.line);
  }
}

TEST_F(ad_debugctlDoctorTest, LevelsThatAreNoneAreAWarning) {
  for (const int32_t level : {-2, 5, INT32_MIN, INT32_MAX}) {
    record_->ad_debug_level = level;
    apply(finds("warn   level: " + std::to_string(level) + " is no level, and counts as " +
                (level < 0 ? "0" : "3")));
    expectHealthy();
  }
}

TEST_F(ad_debugctlDoctorTest, LevelFourWithoutASpecialLogIsAWarning) {
  record_->ad_debug_level = 4;
  {
    LogListener special("/tmp/ad_errorlog_sp.0");
    expectHealthy();
    EXPECT_THAT(special.waiting(), IsEmpty());
  }
  apply(
      finds("warn   level: 4: all lines, and nobody answers at the special log's "
            "/tmp/ad_errorlog_sp.0: the copies go to the standard error of who writes them"));
  EXPECT_EQ(record_->ad_debug_level, 3);
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, FiltersThatMuteEvenErrorsAreWrong) {
  record_->debug_target_client_ip = inet_addr("10.0.0.1");
  apply(
      finds("wrong  filters: client 10.0.0.1: of connections with another one nothing is "
            "written, not even errors"));
  expectHealthy();
  record_->debug_target_server_ip = inet_addr("10.0.0.2");
  apply(finds("wrong  filters: server 10.0.0.2: "));
  expectHealthy();
}

// ---- The settings' file ----

TEST_F(ad_debugctlDoctorTest, SettingsThatWorkAreFine) {
  for (const char* text :
       {"debug_level=2\n", "debug_client_ip=10.0.0.1\ndebug_level=3\n",
        "# what we trace\n\n  debug_level=0\t\r\n", "debug_level=1 debug_client_ip=0.0.0.0\n",
        "debug_level=3;debug_client_ip=10.0.0.1\n"}) {
    write(kFile, text);
    expectHealthy();
  }
}

TEST_F(ad_debugctlDoctorTest, SettingsWithoutEffectAreWrong) {
  const std::string more = std::string(1024, '\n');
  const struct {
    std::string text;
    const char* finding;
    std::string healed;
  } rows[] = {
      {"", "is empty: it changes nothing, and nobody asks the environment", "debug_level=1\n"},
      {"debug_server_ip=10.0.0.1\n", "debug_server_ip= has no effect in this file",
       "debug_level=1\n"},
      {"debug_level=1;debug_server_ip=10.0.0.1\n", "debug_server_ip= has no effect in this file",
       "debug_level=1\n"},
      {"debug_levle=2\n", "'debug_levle=2' has no effect", "debug_level=2\n"},
      {"DEBUG_LEVEL=2\n", "'DEBUG_LEVEL=2' has no effect", "debug_level=2\n"},
      {"debug_level = 2\n", "'debug_level = 2' has no effect", "debug_level=2\n"},
      {"trace\x1b on\n", "'trace\\x1b on' has no effect", "debug_level=2\n"},
      {"debug_level=two\n", "debug_level=two counts as 0", "debug_level=2\n"},
      {"debug_level=-1\n", "debug_level=-1 has no effect", "debug_level=1\n"},
      {"debug_level=4\n", "debug_level=4 counts as 3", "debug_level=3\n"},
      {"debug_level=99\n", "debug_level=99 counts as 3", "debug_level=3\n"},
      {"debug_level=1\ndebug_level=2\n", "a second debug_level= has no effect", "debug_level=2\n"},
      {"#debug_level=2\n", "'#debug_level=2' is in force, whatever stands before the key",
       "# level 2\n"},
      {"# debug_level=2\n", "'debug_level=2' is in force, whatever stands before the key",
       "# level 2\n"},
      {"my_debug_level=2\n", "'my_debug_level=2' is in force, whatever stands before the key",
       "debug_level=2\n"},
      {"debug_client_ip=host\n", "debug_client_ip=host has no effect",
       "debug_client_ip=10.0.0.1\n"},
      {"debug_client_ip= 10.0.0.1\n", "debug_client_ip= 10.0.0.1 has no effect",
       "debug_client_ip=10.0.0.1\n"},
      {"debug_client_ip=255.255.255.255\n", "debug_client_ip=255.255.255.255 has no effect",
       "debug_client_ip=0.0.0.0\n"},
      {more + "debug_level=2\n", "only its first 1023 bytes are read", "debug_level=2\n"},
      {std::string("\0debug_level=2\n", 15), "what stands behind a zero byte is not read",
       "debug_level=2\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.finding);
    write(kFile, row.text);
    EXPECT_NE(finds(std::string("wrong  settings: ") + kFile + ": " + row.finding), "");
    write(kFile, row.healed);
    expectHealthy();
  }
}

// What a process of this user that gets signal 10 makes of the file.
uint32_t clientAfterReload(const char* base) {
  const ChildResult result = runInChild([base] {
    ad_init_debug_lib(base);
    raise(SIGUSR1);
    printf("%08x", ad_debug_cfg_p->debug_target_client_ip);
  });
  return static_cast<uint32_t>(std::stoul(result.out, nullptr, 16));
}

TEST_F(ad_debugctlDoctorTest, SettingsThatRunIntoTheFilesOwnNameAreHealedByANewline) {
  const char* const base = "/tmp/ad_errorlog_longer";  // so that its file's name outlasts the text
  const std::vector<std::string> options = {"--base", base};
  LogListener socket("/tmp/ad_errorlog_longer.0");
  ad_debug_cfg_t* record;
  ASSERT_EQ(ad_get_ad_debug_cfg_p(socket.path().c_str(), &record), 0);
  write("/tmp/ad_errorlog_longer.0.cfg", "debug_client_ip=10.0.0.1");
  EXPECT_EQ(clientAfterReload(base), 0u) << "what the finding is about";
  EXPECT_THAT(doctor(options).out, Not(HasSubstr("no effect"))) << "one finding is enough";
  apply(
      finds("wrong  settings: /tmp/ad_errorlog_longer.0.cfg: the end of the file's own name is "
            "read behind its text, as part of the last value",
            options));
  expectHealthy(options);
  EXPECT_EQ(clientAfterReload(base), inet_addr("10.0.0.1"));
  ad_return_ad_debug_cfg_p(record);
}

TEST_F(ad_debugctlDoctorTest, SettingsThatCannotBeReadAreWrong) {
  makeDirectory(kFile);
  apply(finds("wrong  settings: /tmp/ad_errorlog.0.cfg cannot be used: is a directory"));
  expectHealthy();
  ASSERT_EQ(mkfifo(kFile, 0666), 0);
  std::filesystem::remove_all("/tmp/ad_errorlog.0.cfg.old");
  apply(finds("wrong  settings: /tmp/ad_errorlog.0.cfg cannot be used: is a FIFO"));
  expectHealthy();
  write(kFile, "debug_level=1\n");
  chmod(kFile, 0600);
  const std::string fix = finds("warn   settings: /tmp/ad_errorlog.0.cfg has the mode 0600");
  const ChildResult user = userAsks();
  EXPECT_EQ(user.exitCode(), 1) << user;
  EXPECT_EQ(entryOf(user, "wrong  settings: /tmp/ad_errorlog.0.cfg cannot be used: Permission").fix,
            fix);
  apply(fix);
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, SettingsOfAnotherNameAreNotRead) {
  write("/tmp/ad_errorlog.cfg", "debug_level=2\n");
  apply(
      finds("wrong  settings: /tmp/ad_errorlog.cfg is not read, as the socket is "
            "/tmp/ad_errorlog.0"));
  expectHealthy();
  EXPECT_NE(access(kFile, F_OK), 0) << "it is put into force only by who wants that";

  write(kFile, "debug_level=2\n");
  write("/tmp/ad_errorlog.1000.cfg", "debug_level=3\n");
  expectHealthy();
  const ChildResult user = userAsks();
  EXPECT_EQ(user.exitCode(), 1) << user;
  apply(entryOf(user, "wrong  settings: /tmp/ad_errorlog.1000.cfg is not read, as the socket is")
            .fix);
  EXPECT_EQ(userAsks().exitCode(), 0);
  EXPECT_EQ(read(kFile), "debug_level=2\n") << "the file in use is kept";
}

// ---- Crashes ----

TEST_F(ad_debugctlDoctorTest, MissingCrashDirectoryIsMade) {
  ASSERT_EQ(umount2(kCrashes, MNT_DETACH), 0);
  ASSERT_EQ(rmdir(kCrashes), 0);
  apply(
      finds("wrong  crash directory: /local/local1: No such file or directory: a process that "
            "crashes waits for ever"));
  expectHealthy();
  ASSERT_EQ(userAsks().exitCode(), 0);
  std::filesystem::remove(kCrashes);
  write(kCrashes, "");
  apply(finds("wrong  crash directory: /local/local1 is not a directory"));
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, CrashDirectoryThatCannotBeWrittenIsWrong) {
  chmod(kCrashes, 0755);
  const ChildResult user = userAsks();
  EXPECT_EQ(user.exitCode(), 1) << user;
  apply(entryOf(user, "wrong  crash directory: /local/local1: Permission denied").fix);
  EXPECT_EQ(userAsks().exitCode(), 0);

  ASSERT_EQ(
      mount(nullptr, kCrashes, nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr), 0);
  apply(finds("wrong  crash directory: /local/local1: Read-only file system"));
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, FullCrashDirectoryIsWrong) {
  ASSERT_EQ(mount(nullptr, kCrashes, nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, "size=4k"), 0);
  write("/local/local1/full", "x");
  EXPECT_EQ(finds("wrong  crash directory: /local/local1: no space left for traces"),
            "ad_crash list");
  std::filesystem::remove("/local/local1/full");
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, MarkersAreRemovedByTheFix) {
  for (const std::string program : {"tcp_proxy", "-r", "it's a\x1b program"}) {
    write(std::string(kCrashes) + "/.excl_sig." + program + ".lock", "");
    write(std::string(kCrashes) + "/." + program + "_crash_trace.7", "");
    const std::string fix = finds("wrong  markers: .excl_sig.");
    EXPECT_THAT(fix, StartsWith("ad_crash clear "));
    apply(fix);
    expectHealthy();
  }
}

TEST_F(ad_debugctlDoctorTest, EachMarkerHasALine) {
  for (const std::string program : {"a", "b"})
    write(std::string(kCrashes) + "/.excl_sig." + program + ".lock", "");
  const ChildResult result = doctor();
  for (const std::string program : {"a", "b"})
    entryOf(result, "wrong  markers: .excl_sig." + program + ".lock is left over: a process of " +
                        program +
                        " that already runs waits for ever when it crashes, without a trace");
}

TEST_F(ad_debugctlDoctorTest, CrashDirectoryThatCannotBeReadHidesItsMarkers) {
  chmod(kCrashes, 0733);
  const ChildResult user = userAsks();
  EXPECT_EQ(user.exitCode(), 0) << user;
  entryOf(user, "warn   markers: /local/local1 cannot be read: Permission denied");
}

// The world's own user may not raise the limit, whatever its value: only its absence for pipes
// heals here.
TEST_F(ad_debugctlDoctorTest, CoreLimitThatCannotBeRaisedIsAWarningUnlessCoresArePiped) {
  usePattern("core\n");
  EXPECT_THAT(finds("warn   core limit: "), HasSubstr("or let core_pattern begin with |"));
  usePattern("|/bin/true\n");
  expectHealthy();
}

TEST_F(ad_debugctlDoctorTest, CorePatternThatLosesCoresIsAWarning) {
  usePattern("\n");
  EXPECT_EQ(finds("warn   core pattern: empty: no core is written"),
            "sysctl -w kernel.core_pattern=core");
  usePattern("|/nonexistent/handler %p\n");
  EXPECT_EQ(finds("warn   core pattern: |/nonexistent/handler %p: No such file or directory: cores "
                  "are lost"),
            "sysctl -w kernel.core_pattern=core");
  usePattern("/tmp/cores here/core.%p\n");
  apply(finds("warn   core pattern: /tmp/cores here/: No such file or directory: cores are lost"));
  for (const char* fine : {"core\n", "/tmp/cores here/core.%p\n", "/tmp/%e/core\n"}) {
    usePattern(fine);
    finds("ok     core pattern: ");
  }
}

}  // namespace
