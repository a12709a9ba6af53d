// The log daemon as a program: datagrams in, lines out.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/log_daemon.h"
#include "support/private_world.h"
#include "velorin/ad_debug"

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class ad_logdTest : public PrivateWorld {
 protected:
  ad_logdTest() { removeDaemon(); }

  // A file system of its own for a file, and what fills it up.
  static void makeSmallDisk() {
    std::filesystem::create_directories("/tmp/disk");
    ASSERT_EQ(mount("tmpfs", "/tmp/disk", "tmpfs", MS_NOSUID | MS_NODEV, "size=4m"), 0)
        << strerror(errno);
  }
  static void fillDisk() {
    const int fd = open("/tmp/disk/filler", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string page(4096, '.');
    while (::write(fd, page.data(), page.size()) > 0) continue;
    EXPECT_EQ(errno, ENOSPC);
    close(fd);
  }

  static void makeStaleSocket(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, ""};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    close(fd);
  }

  static void waitUntilItWaitsForItsTurn(const Child& logd) {
    // A waiting lock is listed with an arrow.
    const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(logd.pid()) + " ";
    const time_t limit = time(nullptr) + 20;
    while (read("/proc/locks").find(waiting) == std::string::npos) {
      ASSERT_LT(time(nullptr), limit) << "it does not wait for its turn";
      std::this_thread::yield();
    }
  }

  static Texts filesInTmp() {
    Texts names;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
      if (entry.is_socket()) names.push_back(entry.path());
    }
    return names;
  }
};

// ---- Lines ----

TEST_F(ad_logdTest, WritesALineWithItsTimeInUtc) {
  EXPECT_EQ(linesOf({datagram("hello\n")}), "2001-09-09 01:46:40.000123Z hello\n");
}

TEST_F(ad_logdTest, WritesLocalTimeByDefault) {
  const std::string winter = datagram("winter", 1000000000 + 100 * 86400);
  EXPECT_EQ(linesOf({datagram("summer"), winter}, {}, {"TZ=CET-1CEST,M3.5.0,M10.5.0/3"}),
            "2001-09-09 03:46:40.000123 summer\n"
            "2001-12-18 02:46:40.000123 winter\n");
}

TEST_F(ad_logdTest, SecondsAreUnsigned) {
  EXPECT_EQ(linesOf({datagram("a", 0x7fffffff, 999999), datagram("b", 0x80000000, 0),
                     datagram("c", 0xffffffff, 1), datagram("d", 0, 0)}),
            "2038-01-19 03:14:07.999999Z a\n"
            "2038-01-19 03:14:08.000000Z b\n"
            "2106-02-07 06:28:15.000001Z c\n"
            "1970-01-01 00:00:00.000000Z d\n");
}

TEST_F(ad_logdTest, LocalTimeAfter2038HasItsSummer) {
  EXPECT_EQ(linesOf({datagram("a", 2200000000)}, {}, {"TZ=CET-1CEST,M3.5.0,M10.5.0/3"}),
            "2039-09-19 01:06:40.000123 a\n");
}

TEST_F(ad_logdTest, MicrosecondsThatAreNoneAreShownAsTheyAre) {
  EXPECT_EQ(linesOf({datagram("a", kSecond, 1000000), datagram("b", kSecond, 0xffffffff)}),
            "2001-09-09 01:46:40.1000000Z a\n"
            "2001-09-09 01:46:40.4294967295Z b\n");
}

TEST_F(ad_logdTest, EveryTextIsOneLine) {
  struct {
    const char* name;
    std::string text;
    const char* shown;
  } const rows[] = {
      {"no newline", "text", "text"},
      {"one newline", "text\n", "text"},
      {"two newlines", "text\n\n", "text\\n"},
      {"only a newline", "\n", ""},
      {"newline inside", "one\ntwo\n", "one\\ntwo"},
      {"other line ends", "a\rb\r\n", "a\\rb\\r"},
      {"tab", "a\tb", "a\\tb"},
      {"backslash", "C:\\new", "C:\\\\new"},
      {"zero byte", std::string("a\0b", 3), "a\\x00b"},
      {"terminal escape", "\x1b[2J\x07", "\\x1b[2J\\x07"},
      {"delete", "\x7f", "\\x7f"},
      {"UTF-8", "gr\xc3\xbc\xc3\x9f", "gr\xc3\xbc\xc3\x9f"},
      {"bytes from 0x80 on", "\x80\xa0\xff", "\x80\xa0\xff"},
      {"format", "%s%n", "%s%n"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(linesOf({datagram(row.text)}),
              std::string("2001-09-09 01:46:40.000123Z ") + row.shown + "\n")
        << row.name;
}

TEST_F(ad_logdTest, MalformedDatagramsAreShownAndCounted) {
  Logd logd({"--utc"});
  const Sender sender;
  sender.send("");
  sender.send("a\n");
  sender.send("12345678");
  sender.send(datagram(""));
  sender.send("a text without a zero byte and a time\n");
  sender.send(datagram("good"));
  logd.settle("6 received, 5 malformed, 0 failed");
  const ChildResult result = logd.stop();
  EXPECT_THAT(behindTimes(result.out),
              ElementsAre("Z[malformed] ", "Z[malformed] a\\n", "Z[malformed] 12345678",
                          "Z[malformed] \\x00\\x00\xca\x9a;{\\x00\\x00\\x00",
                          "Z[malformed] a text without a zero byte and a time\\n", "Z good"));
}

TEST_F(ad_logdTest, MalformedDatagramsGetTheTimeOfReceipt) {
  const time_t before = time(nullptr);
  const std::string line = linesOf({"no time"}, {"--utc"});
  const time_t after = time(nullptr);
  tm parts = {};
  ASSERT_NE(strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &parts), nullptr) << line;
  EXPECT_GE(timegm(&parts), before);
  EXPECT_LE(timegm(&parts), after);
}

TEST_F(ad_logdTest, TheLibrarysLongestTextIsOneLine) {
  const std::string text(4086, 'x');
  EXPECT_EQ(linesOf({datagram(text)}), "2001-09-09 01:46:40.000123Z " + text + "\n");
}

TEST_F(ad_logdTest, SixtyFourKibibytesAreOneLine) {
  const std::string text(65536 - 9, '\0');
  std::string escaped;
  for (size_t i = 0; i < text.size(); ++i) escaped += "\\x00";
  EXPECT_EQ(linesOf({datagram(text)}), "2001-09-09 01:46:40.000123Z " + escaped + "\n");
}

TEST_F(ad_logdTest, ALongerDatagramIsCutAndMalformed) {
  const Texts shown = behindTimes(linesOf({datagram(std::string(100000, 'x')), datagram("next")}));
  EXPECT_THAT(shown, ElementsAre("Z[malformed] " + std::string(65536, 'x'), "Z next"));
}

TEST_F(ad_logdTest, ManyLongestDatagramsAreAllWritten) {
  Logd logd({"--output", "/tmp/log"});
  const Sender sender;
  for (int i = 0; i < 40; ++i) sender.send(datagram(std::string(65536 - 9, '\x01')));
  EXPECT_THAT(logd.stop().err, EndsWith("40 received, 0 malformed, 0 failed\n"));
  EXPECT_THAT(lines(read("/tmp/log")), AllOf(SizeIs(40), Each(SizeIs(27 + 4 * (65536 - 9)))));
}

TEST_F(ad_logdTest, SendersThatWaitLoseNothingAtTheDefaultQueue) {
  constexpr int kCount = 20000;
  Logd logd({"--output", "/tmp/log"});
  const Sender sender;
  for (int i = 0; i < kCount; ++i) sender.send(datagram("line " + std::to_string(i) + "\n"));
  EXPECT_THAT(logd.stop().err, HasSubstr("20000 received, 0 malformed, 0 failed\n"));
  const Texts shown = behindTimes(read("/tmp/log"));
  ASSERT_THAT(shown, SizeIs(kCount));
  for (int i = 0; i < kCount; ++i)
    ASSERT_EQ(shown[static_cast<size_t>(i)], " line " + std::to_string(i));
}

// ---- The socket ----

TEST_F(ad_logdTest, TheSocketIsWorldWritableWhateverTheUmask) {
  for (const mode_t mask : {0000, 0022, 0777}) {
    Child logd([mask] {
      umask(mask);
      execl(kProgram, kProgram, "--special", kSpecialBase, nullptr);
    });
    logd.waitForErr(kListening);
    for (const char* path : {kSocket, kSpecialSocket}) {
      struct stat file = {};
      ASSERT_EQ(lstat(path, &file), 0) << path;
      EXPECT_EQ(file.st_mode, S_IFSOCK | 0666u) << path << " under umask " << mask;
    }
    logd.signal(SIGTERM);
    EXPECT_EQ(logd.wait().exitCode(), 0);
  }
}

TEST_F(ad_logdTest, TheOutputFileObeysTheUmask) {
  Child logd([] {
    umask(0077);
    execl(kProgram, kProgram, "--output", "/tmp/log", nullptr);
  });
  logd.waitForErr(kListening);
  std::filesystem::rename("/tmp/log", "/tmp/log.1");
  logd.signal(SIGHUP);
  logd.waitForErr("reopened");
  for (const char* path : {"/tmp/log", "/tmp/log.1"}) {
    struct stat file = {};
    ASSERT_EQ(stat(path, &file), 0) << path;
    EXPECT_EQ(file.st_mode, S_IFREG | 0600u) << path;
  }
}

TEST_F(ad_logdTest, TheSocketIsNamedByTheRealUser) {
  Child logd([] {
    if (setresuid(1000, 0, 0) != 0) _exit(9);
    execl(kLoader, kLoader, "--library-path", VELORIN_BUILD "/lib", kProgram, nullptr);
  });
  logd.waitForErr("ad_logd: listening at /tmp/ad_errorlog.1000 (shared record, level 0)\n");
  Sender().send(datagram("here\n"), "/tmp/ad_errorlog.1000");
  logd.waitForOut(" here\n");
}

TEST_F(ad_logdTest, UsersWithoutADaemonReachTheSuperusers) {
  Logd logd;
  const ChildResult user = runInChild([] {
    becomeUser(1000);
    connectToDaemon();
    AD_ERRO("from user %d\n", static_cast<int>(getuid()));
  });
  EXPECT_EQ(user.err, "");
  logd.waitForOut("-> from user 1000\n");
}

TEST_F(ad_logdTest, ASecondDaemonIsRefusedAndTheFirstGoesOn) {
  Logd logd;
  const ChildResult second = runProgram({kProgram});
  EXPECT_EQ(second.exitCode(), 1);
  EXPECT_EQ(second.err,
            "ad_logd: cannot listen at /tmp/ad_errorlog.0: another daemon answers there\n");
  Sender().send(datagram("still here\n"));
  logd.waitForOut(" still here\n");
}

TEST_F(ad_logdTest, ARefusedSpecialSocketLeavesNoSocketBehind) {
  Logd other({"--base", "/tmp/other"});
  const ChildResult result = runProgram({kProgram, "--special", "/tmp/other"});
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_THAT(result.err, HasSubstr("cannot listen at /tmp/other.0: another daemon answers"));
  EXPECT_THAT(filesInTmp(), ElementsAre("/tmp/other.0"));
}

TEST_F(ad_logdTest, AKilledDaemonsSocketsAreReplaced) {
  const Texts arguments = {"--special", kSpecialBase};
  {
    Logd killed(arguments);
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.wait().signal(), SIGKILL);
  }
  ASSERT_EQ(Sender().trySend("x"), ECONNREFUSED);
  Logd logd(arguments);
  const Sender sender;
  sender.send(datagram("one\n"));
  sender.send(datagram("two\n"), kSpecialSocket);
  EXPECT_THAT(behindTimes(logd.stop().out), ElementsAre(" one", "[special] two"));
}

TEST_F(ad_logdTest, OneOfManyThatReplaceAStaleSocketWins) {
  constexpr int kDaemons = 6;
  for (int round = 0; round < 5; ++round) {
    {
      LogListener stale("/tmp/stale");
      std::filesystem::rename("/tmp/stale", kSocket);
    }
    std::vector<std::unique_ptr<Child>> daemons;
    for (int i = 0; i < kDaemons; ++i) daemons.push_back(std::make_unique<Child>(Texts{kProgram}));
    int winners = 0;
    for (const auto& daemon : daemons) {
      daemon->waitForErr("listen");  // or "cannot listen"; what it says of records stands before
      if (daemon->err().find(kListening) == std::string::npos) {
        EXPECT_EQ(daemon->wait().exitCode(), 1);
        continue;
      }
      ++winners;
      Sender().send(datagram("to the winner\n"));
      daemon->waitForOut("to the winner\n");
    }
    EXPECT_EQ(winners, 1);
    for (const auto& daemon : daemons) daemon->signal(SIGTERM);
    for (const auto& daemon : daemons) daemon->wait();
  }
}

TEST_F(ad_logdTest, AStaleSocketIsCheckedAgainWhenItsTurnToReplaceComes) {
  { Logd().signal(SIGKILL); }
  const int turn = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(turn, LOCK_EX), 0);
  Child late({kProgram});
  waitUntilItWaitsForItsTurn(late);
  std::filesystem::remove(kSocket);
  LogListener first(kSocket);
  close(turn);
  EXPECT_EQ(late.wait().exitCode(), 1);
  EXPECT_THAT(late.err(), HasSubstr("another daemon answers there"));
  Sender().send(datagram("to the first"));
  EXPECT_EQ(first.nextLine(), "to the first");
}

TEST_F(ad_logdTest, AStaleSocketThatGoesBeforeItsTurnIsNoObstacle) {
  { Logd().signal(SIGKILL); }
  const int turn = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(turn, LOCK_EX), 0);
  Child late({kProgram});
  waitUntilItWaitsForItsTurn(late);
  std::filesystem::remove(kSocket);
  close(turn);
  late.waitForErr(kListening);
  Sender().send(datagram("hello\n"));
  late.waitForOut(" hello\n");
}

TEST_F(ad_logdTest, AStaleSocketOfARelativePathIsReplaced) {
  { Logd({"--base", "/tmp/log"}).signal(SIGKILL); }
  Child logd({"/bin/sh", "-c", std::string("cd /tmp && exec ") + kProgram + " --base log"});
  logd.waitForErr("ad_logd: listening at log.0 ");
  Sender().send(datagram("hello\n"), "/tmp/log.0");
  logd.waitForOut(" hello\n");
}

// A user's daemon, in directories that the user may not read, or remove others' files from.
TEST_F(ad_logdTest, AStaleSocketThatItMayNotReplaceIsAnError) {
  const struct {
    const char* directory;
    mode_t mode;
    const char* why;
  } rows[] = {{"/tmp/blind", 0733, "Permission denied"},
              {"/tmp/sticky", 01777, "Operation not permitted"}};
  for (const auto& row : rows) {
    const std::string directory = row.directory;
    const std::string socket_path = directory + "/log.1000";
    std::filesystem::create_directory(directory);
    ASSERT_EQ(chmod(row.directory, row.mode), 0);
    makeStaleSocket(socket_path);
    ASSERT_EQ(chmod(socket_path.c_str(), 0666), 0);
    const ChildResult result = runInChild([&] {
      becomeUser(1000);
      execl(kProgram, kProgram, "--base", (directory + "/log").c_str(), nullptr);
    });
    EXPECT_EQ(result.exitCode(), 1) << directory << result;
    EXPECT_EQ(result.err, "ad_logd: cannot listen at " + socket_path + ": " + row.why + "\n");
    EXPECT_TRUE(std::filesystem::is_socket(socket_path));
  }
}

TEST_F(ad_logdTest, WhatIsNotASocketIsNeverRemoved) {
  struct {
    const char* name;
    std::function<void()> make;
    std::filesystem::file_type type;
  } const rows[] = {
      {"file", [] { write(kSocket, "precious"); }, std::filesystem::file_type::regular},
      {"directory", [] { std::filesystem::create_directory(kSocket); },
       std::filesystem::file_type::directory},
      {"FIFO", [] { mkfifo(kSocket, 0600); }, std::filesystem::file_type::fifo},
      {"symbolic link", [] { std::filesystem::create_symlink("/tmp/nothing", kSocket); },
       std::filesystem::file_type::symlink},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    row.make();
    const ChildResult result = runProgram({kProgram});
    EXPECT_EQ(result.exitCode(), 1);
    EXPECT_EQ(result.err,
              "ad_logd: cannot listen at /tmp/ad_errorlog.0: there is a file that is not a "
              "socket\n");
    EXPECT_EQ(std::filesystem::symlink_status(kSocket).type(), row.type);
    std::filesystem::remove_all(kSocket);
  }
}

TEST_F(ad_logdTest, AnotherServicesStreamSocketIsNotReplaced) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, "/tmp/ad_errorlog.0"};
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(fd, 1), 0);
  const ChildResult result = runProgram({kProgram});
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_THAT(result.err, StartsWith("ad_logd: cannot listen at /tmp/ad_errorlog.0: "));
  EXPECT_THAT(filesInTmp(), ElementsAre(kSocket));
  close(fd);
}

TEST_F(ad_logdTest, AMissingDirectoryIsAnError) {
  const ChildResult result = runProgram({kProgram, "--base", "/tmp/missing/log"});
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.err,
            "ad_logd: cannot listen at /tmp/missing/log.0: No such file or directory\n");
}

// ---- The record ----

TEST_F(ad_logdTest, TheListeningLineNamesSocketsAndRecords) {
  EXPECT_EQ(Logd().stop().err,
            "ad_logd: listening at /tmp/ad_errorlog.0 (shared record, level 0)\n"
            "ad_logd: 0 received, 0 malformed, 0 failed\n");
  EXPECT_EQ(Logd({"--base", "/tmp/a", "--special", "/tmp/b"}).stop().err,
            "ad_logd: listening at /tmp/a.0 (shared record, level 0) and /tmp/b.0 (shared record, "
            "level 0)\n"
            "ad_logd: 0 received, 0 malformed, 0 failed\n");
}

TEST_F(ad_logdTest, TheRecordHasOneLayoutForAllWidths) {
  Logd logd;
  const int id = shmget(ftok(kSocket, 100), 0, 0);
  ASSERT_NE(id, -1);
  shmid_ds status = {};
  ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
  EXPECT_EQ(status.shm_segsz, 140u);
  EXPECT_EQ(status.shm_perm.mode & 0777, 0666);
  char* const bytes = static_cast<char*>(shmat(id, nullptr, 0));
  EXPECT_EQ(std::string(bytes, 140), std::string(140, '\0'));

  Worker worker([](char) {
    if (ad_debug_inited() == 0) connectToDaemon();
    AD_TRCE("client %s\n",
            ad_debug_cfg_p->debug_target_client_ip == htonl(0x7f000001) ? "set" : "?");
  });
  worker.tell('a');  // connected now; the level is 0
  memcpy(bytes, "\2\0\0\0\x7f\0\0\1", 8);
  worker.tell('b');
  logd.waitForOut("-> client set\n");
  shmdt(bytes);
}

TEST_F(ad_logdTest, TheRecordStaysWhenTheDaemonStops) {
  Logd logd;
  ad_debug_cfg_t* const record = recordOf(kSocket);
  const int id = shmget(ftok(kSocket, 100), 0, 0);
  setLevel(record, 3);
  EXPECT_EQ(logd.stop().exitCode(), 0);
  shmid_ds status = {};
  ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
  EXPECT_EQ(status.shm_nattch, 1u);
  EXPECT_EQ(status.shm_perm.mode & SHM_DEST, 0);
  EXPECT_EQ(record->ad_debug_level, 3);
  ad_return_ad_debug_cfg_p(record);
}

TEST_F(ad_logdTest, ARecordThatIsThereIsAdopted) {
  for (const key_t key : nextKeys()) {
    void* const at = shmat(shmget(key, 140, IPC_CREAT | 0666), nullptr, 0);
    setLevel(static_cast<ad_debug_cfg_t*>(at), 3);
    shmdt(at);
  }
  Logd logd;
  EXPECT_EQ(logd.err(), "ad_logd: listening at /tmp/ad_errorlog.0 (shared record, level 3)\n");
}

TEST_F(ad_logdTest, WithoutASharedRecordItSaysSoAndGoesOn) {
  for (const key_t key : nextKeys()) ASSERT_NE(shmget(key, 200, IPC_CREAT | 0666), -1);
  Logd logd;
  EXPECT_EQ(
      logd.err(),
      "IPCSTAT shows size mismatch: 200 vs 140\n"
      "ad_logd: no shared record for /tmp/ad_errorlog.0: each process that logs there goes by "
      "its own settings\n"
      "ad_logd: listening at /tmp/ad_errorlog.0 (private record, level 0)\n");
  Sender().send(datagram("all the same\n"));
  logd.waitForOut(" all the same\n");
}

// ---- The special log ----

TEST_F(ad_logdTest, LinesOfTheSpecialLogAreMarked) {
  Logd logd({"--special", kSpecialBase});
  const Sender sender;
  sender.send(datagram("[special] not at all\n"));
  sender.send(datagram("indeed\n"), kSpecialSocket);
  sender.send("?", kSpecialSocket);
  EXPECT_THAT(behindTimes(logd.stop().out),
              testing::UnorderedElementsAre(" [special] not at all", "[special] indeed",
                                            "[special][malformed] ?"));
}

TEST_F(ad_logdTest, TheSpecialLogHasARecordOfItsOwn) {
  Logd logd({"--special", kSpecialBase});
  ad_debug_cfg_t* const record = recordOf(kSocket);
  ad_debug_cfg_t* const special = recordOf(kSpecialSocket);
  setLevel(record, 2);
  EXPECT_EQ(special->ad_debug_level, 0);
  ad_return_ad_debug_cfg_p(record);
  ad_return_ad_debug_cfg_p(special);
}

TEST_F(ad_logdTest, AtLevelFourEveryLineIsInBothLogs) {
  Logd logd({"--special", kSpecialBase});
  Worker worker([](char command) {
    if (command == 'i') {
      connectToDaemon();
      ad_set_special_log_path(kSpecialBase);
    }
    if (command == '3') ad_debug_set_debug_parameter_directly(UINT32_MAX, UINT32_MAX, 3);
    AD_DETL("at %c\n", command);
  });
  worker.tell('i');
  setLevel(recordOf(kSpecialSocket), 4);
  worker.tell('4');
  worker.tell('3');
  EXPECT_EQ(worker.err(), "");
  const Texts shown = behindTimes(logd.stop().out);
  EXPECT_THAT(shown,
              testing::UnorderedElementsAre(
                  MatchesRegex(" worker\\([0-9]+\\)DETL:ad_logd_test.cc:[0-9]+-> at 4"),
                  MatchesRegex("\\[special\\] \\([0-9]+\\)DETL:ad_logd_test.cc:[0-9]+-> at 4"),
                  "[special] reset special log",
                  MatchesRegex(" worker\\([0-9]+\\)DETL:ad_logd_test.cc:[0-9]+-> at 3")));
}

// ---- The output ----

TEST_F(ad_logdTest, TheOutputFileIsAppendedTo) {
  write("/tmp/log", "before\n");
  Logd logd({"--utc", "--output", "/tmp/log"});
  Sender().send(datagram("after\n"));
  EXPECT_EQ(logd.stop().out, "");
  EXPECT_EQ(read("/tmp/log"), "before\n2001-09-09 01:46:40.000123Z after\n");
}

TEST_F(ad_logdTest, AnOutputFileThatCannotBeOpenedIsAnError) {
  const ChildResult result = runProgram({kProgram, "--output", "/tmp/missing/log"});
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.err, "ad_logd: cannot open /tmp/missing/log: No such file or directory\n");
  EXPECT_THAT(filesInTmp(), IsEmpty());
}

TEST_F(ad_logdTest, AFifoWithoutAReaderDoesNotHangTheStart) {
  mkfifo("/tmp/fifo", 0600);
  const ChildResult result = runProgram({kProgram, "--output", "/tmp/fifo"});
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.err, "ad_logd: cannot open /tmp/fifo: No such device or address\n");
}

TEST_F(ad_logdTest, HangupReopensTheOutputFile) {
  Logd logd({"--output", "/tmp/log"});
  const Sender sender;
  sender.send(datagram("old\n"));
  std::filesystem::rename("/tmp/log", "/tmp/log.1");
  logd.signal(SIGHUP);
  logd.waitForErr("ad_logd: reopened /tmp/log\n");
  sender.send(datagram("new\n"));
  EXPECT_EQ(logd.stop().exitCode(), 0);
  EXPECT_THAT(behindTimes(read("/tmp/log.1")), ElementsAre(" old"));
  EXPECT_THAT(behindTimes(read("/tmp/log")), ElementsAre(" new"));
}

TEST_F(ad_logdTest, TheOldFileIsKeptWhenReopeningFails) {
  Logd logd({"--output", "/tmp/log"});
  std::filesystem::rename("/tmp/log", "/tmp/log.1");
  std::filesystem::create_directory("/tmp/log");
  logd.signal(SIGHUP);
  logd.waitForErr("ad_logd: cannot reopen /tmp/log, keeping the old file: Is a directory\n");
  Sender().send(datagram("kept\n"));
  EXPECT_EQ(logd.stop().exitCode(), 0);
  EXPECT_THAT(behindTimes(read("/tmp/log.1")), ElementsAre(" kept"));
}

TEST_F(ad_logdTest, HangupWithoutAnOutputFileChangesNothing) {
  Logd logd;
  logd.signal(SIGHUP);
  EXPECT_TRUE(logd.settle("0 received, 0 malformed, 0 failed"));
  Sender().send(datagram("hello\n"));
  logd.waitForOut(" hello\n");
  EXPECT_THAT(logd.stop().err, EndsWith("ad_logd: 1 received, 0 malformed, 0 failed\n"));
}

TEST_F(ad_logdTest, SignalsThatConcernOthersChangeNothing) {
  Logd logd;
  logd.signal(SIGHUP);
  logd.signal(SIGUSR1);
  Sender().send(datagram("alive\n"));
  logd.waitForOut(" alive\n");
}

TEST_F(ad_logdTest, AfterAFullDiskItTellsWhatIsMissingAndTearsNoLine) {
  constexpr int kShort = 10;
  constexpr int kLong = 40;
  makeSmallDisk();
  Logd logd({"--output", "/tmp/disk/log"});
  const Sender sender;
  sender.send(datagram("first\n"));
  logd.settle("1 received, 0 malformed, 0 failed");
  fillDisk();
  // The first of these fill the page that the file has already, one of them in part.
  int number = 0;
  const auto numbered = [&number](size_t size) {
    std::string text = std::to_string(number++) + " ";
    text.resize(size, '.');
    return datagram(text + "end\n");
  };
  for (int i = 0; i < kShort; ++i) sender.send(numbered(1000));
  logd.waitForErr("ad_logd: cannot write /tmp/disk/log: No space left on device\n");
  // These do not all fit into the room for lines that wait.
  for (int i = 0; i < kLong; ++i) sender.send(numbered(60000));
  logd.signal(SIGUSR2);
  logd.waitForErr("51 received");
  EXPECT_THAT(lines(read("/tmp/disk/log")).back(), EndsWith("(torn)"));
  std::filesystem::remove("/tmp/disk/filler");
  logd.waitForErr("ad_logd: writing /tmp/disk/log again\n");
  sender.send(datagram("last\n"));
  const ChildResult result = logd.stop();

  const Texts shown = behindTimes(read("/tmp/disk/log"));
  ASSERT_GT(shown.size(), 3u + kShort);
  EXPECT_EQ(shown.front(), " first");
  EXPECT_EQ(shown.back(), " last");
  const size_t written = shown.size() - 3;
  const size_t lost = kShort + kLong - written;
  EXPECT_GT(lost, 0u);
  for (size_t i = 0; i < written; ++i) {
    EXPECT_THAT(shown[i + 1], AllOf(StartsWith(" " + std::to_string(i) + " ."), EndsWith(".end"),
                                    SizeIs((i < kShort ? 1000 : 60000) + 4)));
  }
  EXPECT_EQ(shown[written + 1], "[ad_logd] " + std::to_string(lost) + " lines lost here");
  EXPECT_THAT(result.err, HasSubstr("ad_logd: " + std::to_string(lost) + " lines lost\n"));
  EXPECT_THAT(result.err,
              EndsWith("ad_logd: 52 received, 0 malformed, " + std::to_string(lost) + " failed\n"));
}

TEST_F(ad_logdTest, ALineTornByAFullDiskGoesWholeIntoTheNextFile) {
  makeSmallDisk();
  std::filesystem::create_symlink("/tmp/disk/log", "/tmp/log");
  Logd logd({"--output", "/tmp/log"});
  const Sender sender;
  sender.send(datagram("first\n"));
  logd.settle("1 received, 0 malformed, 0 failed");
  fillDisk();
  const std::string text(5000, 'x');
  sender.send(datagram(text + "\n"));
  logd.waitForErr("ad_logd: cannot write /tmp/log: No space left on device\n");
  std::filesystem::remove("/tmp/log");
  logd.signal(SIGHUP);
  logd.waitForErr("ad_logd: writing /tmp/log again\n");
  EXPECT_THAT(logd.stop().err, EndsWith("2 received, 0 malformed, 0 failed\n"));
  EXPECT_THAT(behindTimes(read("/tmp/disk/log")),
              ElementsAre(" first", MatchesRegex(" x+\\(torn\\)")));
  EXPECT_THAT(behindTimes(read("/tmp/log")), ElementsAre(" " + text));
}

TEST_F(ad_logdTest, AnOutputThatIsAlwaysFullStopsNothing) {
  Logd logd({"--output", "/dev/full"});
  const Sender sender;
  for (int i = 0; i < 3; ++i) sender.send(datagram("nowhere\n"));
  logd.waitForErr("ad_logd: cannot write /dev/full: No space left on device\n");
  sender.send(datagram("nowhere\n"));
  const ChildResult result = logd.stop();
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_THAT(result.err, EndsWith("ad_logd: 4 received, 0 malformed, 4 failed\n"));
  EXPECT_THAT(filesInTmp(), IsEmpty());
}

TEST_F(ad_logdTest, AClosedStandardOutputIsNotMistakenForASocket) {
  Child logd({"/bin/sh", "-c", std::string("exec ") + kProgram + " >&-"});
  logd.waitForErr(kListening);
  const Sender sender;
  sender.send(datagram("nowhere\n"));
  logd.waitForErr("ad_logd: cannot write standard output: Bad file descriptor\n");
  logd.signal(SIGTERM);
  EXPECT_THAT(logd.wait().err, EndsWith("ad_logd: 1 received, 0 malformed, 1 failed\n"));
}

TEST_F(ad_logdTest, AFileThatMayNotGrowStopsNothing) {
  Child logd(
      {"/bin/sh", "-c", std::string("ulimit -f 1; exec ") + kProgram + " --output /tmp/log"});
  logd.waitForErr(kListening);
  const Sender sender;
  sender.send(datagram(std::string(4000, 'x')));
  logd.waitForErr("ad_logd: cannot write /tmp/log: File too large\n");
  logd.signal(SIGTERM);
  EXPECT_EQ(logd.wait().exitCode(), 0);
}

TEST_F(ad_logdTest, AReaderThatLagsSlowsSendersDownAndNothingIsLost) {
  constexpr int kCount = 100;
  FifoReader reader;
  Logd logd({"--output", "/tmp/fifo"});
  const std::string text(60000, 'x');
  std::atomic<int> sent = 0;
  std::thread sending([&] {
    const Sender sender;
    for (int i = 0; i < kCount; ++i, ++sent) sender.send(datagram(std::to_string(i) + text));
  });
  // The daemon takes these without a reader, but has no room for all.
  while (sent < 12) std::this_thread::yield();
  EXPECT_LT(sent, kCount);
  const Texts shown = behindTimes(reader.readLines(kCount));
  sending.join();
  ASSERT_THAT(shown, SizeIs(kCount));
  for (size_t i = 0; i < kCount; ++i) ASSERT_EQ(shown[i], " " + std::to_string(i) + text);
  EXPECT_THAT(logd.stop().err, EndsWith("100 received, 0 malformed, 0 failed\n"));
}

TEST_F(ad_logdTest, AReaderThatDoesNotReadCannotKeepItFromStopping) {
  struct {
    const char* name;
    const char* options;
    const char* output;
  } const rows[] = {{"FIFO that it opened", "--output /tmp/fifo", "/tmp/fifo"},
                    {"pipe that it was given", ">/tmp/fifo", "standard output"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FifoReader reader;
    Child logd({"/bin/sh", "-c", std::string("exec ") + kProgram + " " + row.options});
    logd.waitForErr(kListening);
    const Sender sender;
    for (int i = 0; i < 5; ++i) sender.send(datagram(std::string(60000, 'x')));
    logd.signal(SIGUSR2);
    logd.waitForErr("ad_logd: 5 received, 0 malformed, 0 failed\n");
    logd.signal(SIGTERM);
    // It has begun to stop when it takes no more; the second signal then ends its patience.
    while (sender.trySend(datagram("x")) == 0) continue;
    logd.signal(SIGTERM);
    const ChildResult result = logd.wait();
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_THAT(result.err, HasSubstr(std::string("ad_logd: cannot write ") + row.output +
                                      ": Connection timed out\n"));
    EXPECT_THAT(result.err, Not(EndsWith(" 0 failed\n")));
  }
}

TEST_F(ad_logdTest, LinesWaitForAReaderThatComesBack) {
  FifoReader reader;
  Logd logd({"--output", "/tmp/fifo"});
  const Sender sender;
  sender.send(datagram("one\n"));
  reader.readLines(1);
  reader.leave();
  sender.send(datagram("two\n"));
  logd.waitForErr("ad_logd: cannot write /tmp/fifo: Broken pipe\n");
  reader.open();
  EXPECT_THAT(behindTimes(reader.readLines(2)), ElementsAre(" one", " two"));
  logd.waitForErr("ad_logd: writing /tmp/fifo again\n");
}

TEST_F(ad_logdTest, AReaderThatComesBackAndLagsMakesSendersWait) {
  constexpr int kCount = 100;
  FifoReader reader;
  Logd logd({"--output", "/tmp/fifo"});
  reader.leave();
  const std::string text(60000, 'x');
  const Sender sender;
  for (int i = 0; i < 5; ++i) sender.send(datagram(text));
  logd.waitForErr("ad_logd: cannot write /tmp/fifo: Broken pipe\n");
  reader.open();
  logd.waitForErr("ad_logd: writing /tmp/fifo again\n");
  std::atomic<int> sent = 0;
  std::thread sending([&] {
    for (int i = 0; i < kCount; ++i, ++sent) sender.send(datagram(text));
  });
  while (sent < 8) std::this_thread::yield();
  EXPECT_THAT(behindTimes(reader.readLines(5 + kCount)),
              AllOf(SizeIs(5 + kCount), Each(" " + text)));
  sending.join();
  EXPECT_THAT(logd.stop().err, EndsWith("105 received, 0 malformed, 0 failed\n"));
}

TEST_F(ad_logdTest, TwoDaemonsOnOnePipeTearNoLine) {
  constexpr size_t kCount = 2000;
  FifoReader reader;
  Logd a({"--base", "/tmp/a", "--output", "/tmp/fifo"});
  Logd b({"--base", "/tmp/b", "--output", "/tmp/fifo"});
  const auto sendAll = [](const char* path, char letter) {
    const Sender sender;
    for (size_t i = 0; i < kCount; ++i)
      sender.send(datagram(std::string(200 + i % 1500, letter)), path);
  };
  std::thread toA(sendAll, "/tmp/a.0", 'a');
  std::thread toB(sendAll, "/tmp/b.0", 'b');
  const Texts shown = behindTimes(reader.readLines(2 * kCount));
  toA.join();
  toB.join();
  EXPECT_THAT(shown,
              AllOf(SizeIs(2 * kCount), Each(AnyOf(MatchesRegex(" a+"), MatchesRegex(" b+")))));
}

// ---- Stopping ----

TEST_F(ad_logdTest, TermAndInterruptStopCleanly) {
  for (const int number : {SIGTERM, SIGINT}) {
    Logd logd({"--special", kSpecialBase});
    Sender().send(datagram("x"));
    logd.signal(number);
    const ChildResult result = logd.wait();
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_THAT(result.err, EndsWith("ad_logd: 1 received, 0 malformed, 0 failed\n"));
    EXPECT_THAT(filesInTmp(), IsEmpty());
  }
}

TEST_F(ad_logdTest, WhatIsQueuedIsWrittenBeforeItStops) {
  Logd logd({"--special", kSpecialBase});
  logd.signal(SIGSTOP);
  const Sender sender;
  for (int i = 0; i < 10; ++i) {
    sender.send(datagram("x"));
    sender.send(datagram("y"), kSpecialSocket);
  }
  logd.signal(SIGTERM);
  logd.signal(SIGCONT);
  EXPECT_THAT(lines(logd.wait().out), SizeIs(20));
}

TEST_F(ad_logdTest, WhatItAcceptsWhileItStopsIsWrittenAndTheRestRefused) {
  FifoReader reader;
  Logd logd({"--output", "/tmp/fifo"});
  const Sender sender;
  sender.connectTo(kSocket);  // so that the removed file alone does not stop it
  size_t accepted = 0;
  for (; accepted < 5; ++accepted) sender.send(datagram(std::string(60000, 'x')));
  logd.settle("5 received, 0 malformed, 0 failed");
  logd.signal(SIGTERM);
  int err;
  while ((err = sender.trySend(datagram("x"), "")) == 0) ++accepted;
  EXPECT_EQ(err, EPIPE) << strerror(err);
  EXPECT_THAT(lines(reader.readLines(accepted)), SizeIs(accepted));
  EXPECT_THAT(logd.wait().err, EndsWith(" 0 malformed, 0 failed\n"));
}

TEST_F(ad_logdTest, OnlyItsOwnSocketIsRemoved) {
  Logd logd;
  std::filesystem::remove(kSocket);
  Logd next;
  EXPECT_EQ(logd.stop().exitCode(), 0);
  Sender().send(datagram("to the next\n"));
  next.waitForOut(" to the next\n");
}

TEST_F(ad_logdTest, ItsProcessesFallBackWhileItIsAwayAndReturn) {
  for (const int number : {SIGTERM, SIGKILL}) {
    auto logd = std::make_unique<Logd>();
    Worker worker([](char command) {
      if (ad_debug_inited() == 0) connectToDaemon();
      AD_ERRO("line %c\n", command);
    });
    worker.tell('a');
    logd->waitForOut("-> line a\n");
    logd->signal(number);
    logd->wait();
    worker.tell('b');
    worker.tell('c');
    EXPECT_THAT(
        lines(worker.err()),
        ElementsAre("WARNING: cannot contact ad_logd, will keep trying. Output redirected to "
                    "stderr.",
                    EndsWith("-> line b"), EndsWith("-> line c")));
    logd = std::make_unique<Logd>();
    worker.tell('d');
    logd->waitForOut("-> line d\n");
    EXPECT_THAT(lines(worker.err()), SizeIs(3));
    EXPECT_EQ(logd->stop().exitCode(), 0);
  }
}

// Numbers of the lines "...-> number N" in a text, each counted in `seen`.
void countNumbers(const std::string& text, std::vector<int>* seen) {
  for (const std::string& line : lines(text)) {
    const size_t at = line.find("-> number ");
    if (at == std::string::npos) continue;
    EXPECT_THAT(line, Not(EndsWith("(torn)")));
    const size_t number = std::stoul(line.substr(at + 10));
    ASSERT_LT(number, seen->size()) << line;
    ++(*seen)[number];
  }
}

TEST_F(ad_logdTest, RestartsLoseNoLineOfAProcessThatKeepsLogging) {
  int running[2];
  ASSERT_EQ(pipe2(running, O_CLOEXEC), 0);
  auto logd = std::make_unique<Logd>();
  Child busy([&running] {
    close(running[1]);
    // A file: nobody reads the pipe meanwhile.
    dup2(open("/tmp/stderr", O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
    connectToDaemon();
    pollfd end = {running[0], POLLIN, 0};
    unsigned number = 0;
    do {
      AD_ERRO("number %u\n", number++);
    } while (poll(&end, 1, 0) == 0);
    printf("%u\n", number);
  });
  close(running[0]);
  std::string written;
  for (int restart = 0; restart < 5; ++restart) {
    if (restart > 0) logd = std::make_unique<Logd>();
    logd->waitForOut("-> number ");
    written += logd->stop().out;
  }
  close(running[1]);
  const ChildResult result = busy.wait();
  ASSERT_EQ(result.exitCode(), 0) << result;
  std::vector<int> seen(std::stoul(result.out));
  countNumbers(written, &seen);
  countNumbers(read("/tmp/stderr"), &seen);
  EXPECT_THAT(seen, Each(1));
}

TEST_F(ad_logdTest, ManyProcessesLoseNoLine) {
  constexpr size_t kProcesses = 4;
  constexpr size_t kLines = 3000;
  Logd logd({"--output", "/tmp/log"});
  std::vector<std::unique_ptr<Child>> children;
  for (size_t i = 0; i < kProcesses; ++i) {
    children.push_back(std::make_unique<Child>([i] {
      connectToDaemon();
      for (size_t n = 0; n < kLines; ++n) AD_ERRO("number %zu\n", i * kLines + n);
    }));
  }
  std::vector<int> seen(kProcesses * kLines);
  for (const auto& child : children) {
    const ChildResult result = child->wait();
    EXPECT_EQ(result.exitCode(), 0);
    countNumbers(result.err, &seen);
  }
  EXPECT_EQ(logd.stop().exitCode(), 0);
  countNumbers(read("/tmp/log"), &seen);
  EXPECT_THAT(seen, Each(1));
}

// ---- The rest ----

#ifdef VELORIN_MALLOC_COUNTER
std::string allocationsFor(uint32_t count, const Texts& options) {
  // Without them it does not look for the records of the daemon before.
  std::filesystem::remove("/tmp/ad_errorlog.0.records");
  std::filesystem::remove("/tmp/ad_errorlog_sp.0.records");
  Texts arguments = {"--special", kSpecialBase, "--output", "/tmp/log"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  Logd logd(arguments, {"LD_PRELOAD=" VELORIN_MALLOC_COUNTER, "TZ=CET-1CEST,M3.5.0,M10.5.0/3"});
  const Sender sender;
  for (uint32_t i = 0; i < count; ++i) {
    sender.send(datagram("a line\n", i * 400000));
    sender.send("malformed\n", kSpecialSocket);
  }
  return lines(logd.stop().err).back();
}

TEST_F(ad_logdTest, LinesAllocateNoMemory) {
  cover("/dev");  // no syslog server of the machine gets these lines
  for (const Texts& options : {Texts{}, Texts{"--format=json", "--forward=syslog"}}) {
    const std::string few = allocationsFor(2, options);
    EXPECT_THAT(few, MatchesRegex("[0-9]+ allocations"));
    EXPECT_NE(few, "0 allocations") << "the counter is not at work";
    EXPECT_EQ(allocationsFor(5000, options), few);
  }
}
#endif

TEST_F(ad_logdTest, WrongUsageExitsWithTwo) {
  const std::string long_path(108 - 2, 'x');  // one byte too long with ".0" behind it
  struct {
    const char* name;
    Texts arguments;
    const char* message;
  } const rows[] = {
      {"unknown option", {"--nonsense"}, "unrecognized option '--nonsense'"},
      {"short option", {"-u"}, "invalid option -- 'u'"},
      {"missing value", {"--base"}, "option '--base' requires an argument"},
      {"needless value", {"--utc=1"}, "option '--utc' doesn't allow an argument"},
      {"argument", {"start"}, "ad_logd: unexpected argument: start\n"},
      {"empty base", {"--base", ""}, "ad_logd: no socket can be named \".UID\"\n"},
      {"empty special base", {"--special", ""}, "ad_logd: no socket can be named \".UID\"\n"},
      {"long base", {"--base", long_path}, "ad_logd: no socket can be named \"xxx"},
      {"one socket twice",
       {"--base", "/tmp/a", "--special", "/tmp/a"},
       "ad_logd: the special log needs a socket of its own\n"},
      {"the default twice",
       {"--special", kBase},
       "ad_logd: the special log needs a socket of its own\n"},
  };
  for (const auto& row : rows) {
    const ChildResult result = runProgram(Logd::commandLine(row.arguments));
    EXPECT_EQ(result.exitCode(), 2) << row.name << "; " << result;
    EXPECT_THAT(result.err, AllOf(HasSubstr(row.message), EndsWith("Try 'ad_logd --help'.\n")))
        << row.name;
    EXPECT_EQ(result.out, "") << row.name;
  }
  EXPECT_THAT(filesInTmp(), IsEmpty());
}

TEST_F(ad_logdTest, TheLongestPathOfAnAddressWorks) {
  const std::string base = "/tmp/" + std::string(107 - 2 - 5, 'x');
  Logd logd({"--base", base});
  Sender().send(datagram("deep\n"), base + ".0");
  logd.waitForOut(" deep\n");
}

TEST_F(ad_logdTest, HelpAndVersionGoToStandardOutput) {
  const ChildResult help = runProgram({kProgram, "--help"});
  EXPECT_EQ(help.exitCode(), 0);
  EXPECT_EQ(help.err, "");
  for (const char* option : {"--base", "--special", "--output", "--utc", "--help", "--version"})
    EXPECT_THAT(help.out, HasSubstr(option));
  const ChildResult version = runProgram({kProgram, "--version"});
  EXPECT_EQ(version.exitCode(), 0);
  EXPECT_EQ(version.err, "");
  EXPECT_THAT(version.out, MatchesRegex("ad_logd [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

}  // namespace
