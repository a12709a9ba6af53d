// ad_debugctl as a program: what it prints, how it exits, and what processes that share its record
// do then.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>
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

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr char kProgram[] = VELORIN_BIN "/ad_debugctl";
constexpr uid_t kUser = 1000;

ChildResult control(std::vector<std::string> arguments,
                    const std::vector<std::string>& environment = {}) {
  arguments.insert(arguments.begin(), kProgram);
  return runProgram(arguments, environment);
}

// The same after `become` in the process that turns into the program.
ChildResult controlAs(const std::function<void()>& become, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), kProgram);
  return runInChild([&] {
    become();
    std::vector<char*> argv;
    for (std::string& text : arguments) argv.push_back(text.data());
    argv.push_back(nullptr);
    execv(kProgram, argv.data());
    perror(kProgram);
    _exit(127);
  });
}

int segmentOf(const std::string& path) {
  return shmget(ftok(path.c_str(), 'd'), 0, 0);
}

// A log daemon as others see it: a socket and the record that belongs to it.
struct Daemon {
  explicit Daemon(const std::string& path) : socket(path) {
    EXPECT_EQ(ad_get_ad_debug_cfg_p(path.c_str(), &record), 0);
  }
  ~Daemon() { ad_return_ad_debug_cfg_p(record); }

  LogListener socket;
  ad_debug_cfg_t* record = nullptr;
};

class ad_debugctlTest : public PrivateWorld {
 protected:
  static ChildResult userControls(const std::vector<std::string>& arguments) {
    return controlAs([] { becomeUser(kUser); }, arguments);
  }
};

// ---- What it prints ----

TEST_F(ad_debugctlTest, ShowPrintsTheRecord) {
  Daemon daemon("/tmp/ad_errorlog.0");
  const ChildResult fresh = control({"show"});
  EXPECT_EQ(fresh.exitCode(), 0) << fresh;
  EXPECT_EQ(fresh.out, "record: /tmp/ad_errorlog.0\nlevel: 0\nclient: off\nserver: off\n");
  EXPECT_EQ(fresh.err, "");

  daemon.record->ad_debug_level = 3;
  daemon.record->debug_target_client_ip = inet_addr("10.0.0.1");
  daemon.record->debug_target_server_ip = inet_addr("192.168.1.254");
  EXPECT_EQ(control({"show"}).out,
            "record: /tmp/ad_errorlog.0\nlevel: 3\nclient: 10.0.0.1\nserver: 192.168.1.254\n");
}

TEST_F(ad_debugctlTest, ShowPrintsLevelsThatNoSetterStores) {
  Daemon daemon("/tmp/ad_errorlog.0");
  for (const int32_t level : {4, 5, -2, INT32_MAX, INT32_MIN}) {
    daemon.record->ad_debug_level = level;
    EXPECT_THAT(control({"show"}).out, HasSubstr("level: " + std::to_string(level) + "\n"));
    EXPECT_THAT(control({"--json", "show"}).out,
                HasSubstr("\"level\":" + std::to_string(level) + ","));
  }
}

TEST_F(ad_debugctlTest, EveryLevelIsStoredAndOldAndNewAreSaid) {
  Daemon daemon("/tmp/ad_errorlog.0");
  int32_t before = 0;
  for (const int32_t level : {1, 2, 3, 4, 4, 3, 3, 0}) {
    LogListener special("/tmp/ad_errorlog_sp.0");
    const ChildResult result = control({"level", std::to_string(level)});
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_EQ(result.out,
              "level: " + std::to_string(before) + " -> " + std::to_string(level) + "\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(daemon.record->ad_debug_level, level);
    before = level;
  }
}

TEST_F(ad_debugctlTest, FiltersAreStoredInNetworkByteOrderAndOldAndNewAreSaid) {
  Daemon daemon("/tmp/ad_errorlog.0");
  const struct {
    const char* name;
    uint32_t* word;
  } filters[] = {{"client", &daemon.record->debug_target_client_ip},
                 {"server", &daemon.record->debug_target_server_ip}};
  for (const auto& filter : filters) {
    const std::string name = filter.name;
    EXPECT_EQ(control({name, "10.1.2.3"}).out, name + ": off -> 10.1.2.3\n");
    EXPECT_EQ(*filter.word, inet_addr("10.1.2.3"));
    EXPECT_EQ(control({name, "192.168.0.1"}).out, name + ": 10.1.2.3 -> 192.168.0.1\n");
    EXPECT_EQ(*filter.word, inet_addr("192.168.0.1"));
    EXPECT_EQ(control({name, "off"}).out, name + ": 192.168.0.1 -> off\n");
    EXPECT_EQ(*filter.word, 0u);
    EXPECT_EQ(control({name, "0.0.0.0"}).out, name + ": off -> off\n");
    EXPECT_EQ(*filter.word, 0u);
  }
}

TEST_F(ad_debugctlTest, ASetterLeavesTheOtherWordsAlone) {
  Daemon daemon("/tmp/ad_errorlog.0");
  daemon.record->debug_target_client_ip = inet_addr("10.0.0.1");
  for (uint32_t i = 0; i < 32; ++i) daemon.record->para[i] = ~i;
  control({"level", "2"});
  control({"server", "10.0.0.2"});
  EXPECT_EQ(daemon.record->ad_debug_level, 2);
  EXPECT_EQ(daemon.record->debug_target_client_ip, inet_addr("10.0.0.1"));
  EXPECT_EQ(daemon.record->debug_target_server_ip, inet_addr("10.0.0.2"));
  for (uint32_t i = 0; i < 32; ++i) EXPECT_EQ(daemon.record->para[i], ~i);
}

// ---- Processes that share the record ----

// A process of the library that logs on command.
class Service {
 public:
  Service() {
    EXPECT_EQ(pipe(commands_), 0);
    child_ = std::make_unique<Child>([this] {
      close(commands_[1]);
      ad_debug_set_process_name("service");
      ad_init_debug_lib("/tmp/ad_errorlog");
      char client;
      for (int round = 1; ::read(commands_[0], &client, 1) == 1; ++round) {
        ad_current_client_ip = htonl(0x0a000000u + static_cast<uint8_t>(client));
        ad_current_server_ip = htonl(0xc0a80000u + static_cast<uint8_t>(client));
        AD_ERRO("error\n");
        AD_TRCE("trace\n");
        AD_DETL("detail\n");
        ad_current_client_ip = ad_current_server_ip = 0;
        printf("round %d\n", round);
        fflush(stdout);
      }
    });
    close(commands_[0]);
  }
  ~Service() { close(commands_[1]); }

  // Lets it log for the connection from 10.0.0.CLIENT to 192.168.0.CLIENT, and waits until it did.
  void log(uint8_t client) {
    EXPECT_EQ(write(commands_[1], &client, 1), 1);
    EXPECT_TRUE(child_->waitForOut("round " + std::to_string(++rounds_) + "\n"));
  }

 private:
  int commands_[2];
  int rounds_ = 0;
  std::unique_ptr<Child> child_;
};

std::vector<std::string> messages(LogListener* socket) {
  std::vector<std::string> messages;
  for (const std::string& line : socket->waiting())
    messages.push_back(line.substr(line.find("-> ") + 3));
  return messages;
}

TEST_F(ad_debugctlTest, LevelChangesWhatARunningProcessLogs) {
  Daemon daemon("/tmp/ad_errorlog.0");
  Service service;
  service.log(1);
  EXPECT_THAT(messages(&daemon.socket), ElementsAre("error\n"));
  control({"level", "2"});
  service.log(1);
  EXPECT_THAT(messages(&daemon.socket), ElementsAre("error\n", "trace\n"));
  control({"level", "3"});
  service.log(1);
  EXPECT_THAT(messages(&daemon.socket), ElementsAre("error\n", "trace\n", "detail\n"));
  control({"level", "0"});
  service.log(1);
  EXPECT_THAT(messages(&daemon.socket), ElementsAre("error\n"));
}

TEST_F(ad_debugctlTest, FiltersNarrowWhatARunningProcessLogs) {
  Daemon daemon("/tmp/ad_errorlog.0");
  Service service;
  for (const std::string network : {"10.0.0.", "192.168.0."}) {
    const std::string filter = network == "10.0.0." ? "client" : "server";
    control({filter, network + "7"});
    service.log(6);
    EXPECT_THAT(messages(&daemon.socket), IsEmpty());
    service.log(7);
    EXPECT_THAT(messages(&daemon.socket), ElementsAre("error\n"));
    control({filter, "off"});
    service.log(6);
    EXPECT_THAT(messages(&daemon.socket), ElementsAre("error\n"));
  }
}

TEST_F(ad_debugctlTest, ProcessThatStoresItsSettingsIsSeen) {
  Daemon daemon("/tmp/ad_errorlog.0");
  Child child([] {
    setenv("DEBUG_LEVEL", "2", 1);
    setenv("DEBUG_CLIENT_IP", "10.0.0.9", 1);
    ad_init_debug_lib("/tmp/ad_errorlog");
  });
  child.wait();
  EXPECT_EQ(control({"show"}).out,
            "record: /tmp/ad_errorlog.0\nlevel: 2\nclient: 10.0.0.9\nserver: off\n");
}

// ---- Level 4 and the special log ----

TEST_F(ad_debugctlTest, LeavingLevel4TellsTheSpecialLogOnce) {
  Daemon daemon("/tmp/ad_errorlog.0");
  LogListener special("/tmp/ad_errorlog_sp.0");
  control({"level", "4"});
  control({"level", "4"});
  control({"client", "10.0.0.1"});
  EXPECT_THAT(special.waiting(), IsEmpty());
  const ChildResult result = control({"level", "1"});
  EXPECT_EQ(result.out, "level: 4 -> 1\n");
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(special.waiting(), ElementsAre("reset special log"));
  control({"level", "0"});
  EXPECT_THAT(special.waiting(), IsEmpty());
}

TEST_F(ad_debugctlTest, SpecialLogCanBeNamed) {
  Daemon daemon("/tmp/ad_errorlog.0");
  LogListener usual("/tmp/ad_errorlog_sp.0");
  LogListener named("/tmp/other.0");
  daemon.record->ad_debug_level = 4;
  EXPECT_EQ(control({"--special", "/tmp/other", "level", "2"}).err, "");
  EXPECT_THAT(named.waiting(), ElementsAre("reset special log"));
  EXPECT_THAT(usual.waiting(), IsEmpty());
}

TEST_F(ad_debugctlTest, UsersOwnSpecialLogIsToldFirstAndElseTheSuperusers) {
  Daemon daemon("/tmp/ad_errorlog.0");
  LogListener superusers("/tmp/ad_errorlog_sp.0");
  {
    LogListener own("/tmp/ad_errorlog_sp.1000");
    daemon.record->ad_debug_level = 4;
    EXPECT_EQ(userControls({"level", "1"}).err, "");
    EXPECT_THAT(own.waiting(), ElementsAre("reset special log"));
    EXPECT_THAT(superusers.waiting(), IsEmpty());
  }
  daemon.record->ad_debug_level = 4;
  EXPECT_EQ(userControls({"level", "1"}).err, "");
  EXPECT_THAT(superusers.waiting(), ElementsAre("reset special log"));
}

TEST_F(ad_debugctlTest, LevelIsLeftAndTheMissOfTheSpecialLogSaidWhenNobodyListensThere) {
  Daemon daemon("/tmp/ad_errorlog.0");
  daemon.record->ad_debug_level = 4;
  const ChildResult result = control({"level", "1"});
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(result.out, "level: 4 -> 1\n");
  EXPECT_EQ(result.err,
            "ad_debugctl: the special log was not told: /tmp/ad_errorlog_sp.0: No such file or "
            "directory\n");
  EXPECT_EQ(daemon.record->ad_debug_level, 1);
}

// ---- Which record ----

TEST_F(ad_debugctlTest, BaseComesFromTheOptionThenTheEnvironmentThenTheDefault) {
  Daemon by_option("/tmp/option.0");
  Daemon by_environment("/tmp/environment.0");
  Daemon by_default("/tmp/ad_errorlog.0");
  const std::string variable = "ERROR_LOG_SOCKET=/tmp/environment";
  EXPECT_THAT(control({"show"}).out, StartsWith("record: /tmp/ad_errorlog.0\n"));
  EXPECT_THAT(control({"show"}, {variable}).out, StartsWith("record: /tmp/environment.0\n"));
  EXPECT_THAT(control({"--base", "/tmp/option", "show"}, {variable}).out,
              StartsWith("record: /tmp/option.0\n"));
  EXPECT_THAT(control({"--base=/tmp/option", "show"}, {variable}).out,
              StartsWith("record: /tmp/option.0\n"));
}

TEST_F(ad_debugctlTest, PathNamesTheSocketItselfAndNothingElseIsTried) {
  Daemon named("/tmp/socket");
  Daemon usual("/tmp/ad_errorlog.0");
  EXPECT_THAT(control({"--path", "/tmp/socket", "show"}).out, StartsWith("record: /tmp/socket\n"));
  const ChildResult result = control({"--path", "/tmp/ad_errorlog", "show"});
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ad_debugctl: no debug record: /tmp/ad_errorlog: no record belongs to it\n");
}

TEST_F(ad_debugctlTest, UsersOwnRecordIsTakenFirstAndElseTheSuperusers) {
  Daemon superusers("/tmp/ad_errorlog.0");
  {
    Daemon own("/tmp/ad_errorlog.1000");
    EXPECT_THAT(userControls({"show"}).out, StartsWith("record: /tmp/ad_errorlog.1000\n"));
  }
  EXPECT_THAT(userControls({"show"}).out, StartsWith("record: /tmp/ad_errorlog.0\n"));
  EXPECT_EQ(userControls({"level", "3"}).out, "level: 0 -> 3\n");
  EXPECT_EQ(superusers.record->ad_debug_level, 3);
  LogListener without_record("/tmp/ad_errorlog.1000");
  EXPECT_THAT(userControls({"show"}).out, StartsWith("record: /tmp/ad_errorlog.0\n"));
}

TEST_F(ad_debugctlTest, RealUserIdCountsAndNotTheEffectiveOne) {
  Daemon superusers("/tmp/ad_errorlog.0");
  Daemon own("/tmp/ad_errorlog.1000");
  const ChildResult result = runInChild([] {
    ASSERT_EQ(setresuid(kUser, 0, 0), 0);
    execl(kLoader, kLoader, "--library-path", VELORIN_BUILD "/lib", kProgram, "show", nullptr);
    _exit(127);
  });
  EXPECT_THAT(result.out, StartsWith("record: /tmp/ad_errorlog.1000\n")) << result;
}

TEST_F(ad_debugctlTest, LongBaseIsCutAsTheLibraryCutsIt) {
  const std::string base = "/tmp/" + std::string(120, 'x');
  Daemon daemon(base.substr(0, 107));
  Child service([&] {
    setenv("DEBUG_LEVEL", "2", 1);
    ad_init_debug_lib(base.c_str());
  });
  service.wait();
  EXPECT_EQ(control({"--base", base, "level", "3"}).out, "level: 2 -> 3\n");
}

TEST_F(ad_debugctlTest, MissingRecordIsOneMessageThatNamesThePathsTriedAndWhy) {
  LogListener without_record("/tmp/ad_errorlog.0");
  const std::vector<std::vector<std::string>> commands = {
      {"show"}, {"level", "1"}, {"client", "off"}, {"server", "10.0.0.1"}, {"watch"}};
  for (const auto& command : commands) {
    const ChildResult result = userControls(command);
    EXPECT_EQ(result.exitCode(), 1) << result;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "ad_debugctl: no debug record: /tmp/ad_errorlog.1000: No such file or directory; "
              "/tmp/ad_errorlog.0: no record belongs to it\n");
    EXPECT_EQ(segmentOf("/tmp/ad_errorlog.0"), -1) << "a record was created";
  }
}

TEST_F(ad_debugctlTest, ForeignSegmentIsOneMessageAndLeftAlone) {
  LogListener socket("/tmp/ad_errorlog.0");
  const int id = shmget(ftok("/tmp/ad_errorlog.0", 'd'), 64, IPC_CREAT | 0666);
  ASSERT_NE(id, -1);
  const ChildResult result = control({"show"});
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ad_debugctl: no debug record: /tmp/ad_errorlog.0: the segment holds 64 bytes, a "
            "record 140\n");
  EXPECT_EQ(segmentOf("/tmp/ad_errorlog.0"), id);
}

TEST_F(ad_debugctlTest, RecordThatMayNotBeAttachedIsOneMessageAndLeftAlone) {
  LogListener socket("/tmp/ad_errorlog.0");
  const int id = shmget(ftok("/tmp/ad_errorlog.0", 'd'), sizeof(ad_debug_cfg_t), IPC_CREAT | 0600);
  ASSERT_NE(id, -1);
  shmid_ds status;
  ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
  const mode_t superusers_only = 0600;
  const mode_t everybody_reads = 0444;
  for (const mode_t mode : {superusers_only, everybody_reads}) {
    // The user's own, so that it could be removed too.
    status.shm_perm.uid = mode == everybody_reads ? kUser : 0;
    status.shm_perm.mode = static_cast<unsigned short>(mode);
    ASSERT_EQ(shmctl(id, IPC_SET, &status), 0);
    const ChildResult result = userControls({"--path", "/tmp/ad_errorlog.0", "level", "3"});
    EXPECT_EQ(result.exitCode(), 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "ad_debugctl: no debug record: /tmp/ad_errorlog.0: Permission denied\n");
    EXPECT_EQ(segmentOf("/tmp/ad_errorlog.0"), id);
  }
}

// ---- Watching ----

// The lines without the time at their heads, which each of them must have.
std::string withoutTimes(const std::string& text) {
  constexpr char kForm[] = "2024-11-20 20:13:29.123 ";
  std::istringstream lines(text);
  std::string rest;
  for (std::string line; std::getline(lines, line);) {
    EXPECT_THAT(line, MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} "
                                   "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} .*"));
    rest += line.substr(strlen(kForm)) + '\n';
  }
  return rest;
}

TEST_F(ad_debugctlTest, WatchPrintsTheStateAndEachChangeUntilASignal) {
  Daemon daemon("/tmp/ad_errorlog.0");
  for (const int signal : {SIGINT, SIGTERM}) {
    daemon.record->ad_debug_level = 0;
    Child watch({kProgram, "watch"});
    ASSERT_TRUE(watch.waitForOut("server: off\n"));
    control({"level", "3"});
    ASSERT_TRUE(watch.waitForOut("level: 0 -> 3\n"));
    control({"client", "10.0.0.1"});
    ASSERT_TRUE(watch.waitForOut("client: off -> 10.0.0.1\n"));
    control({"client", "off"});
    ASSERT_TRUE(watch.waitForOut("client: 10.0.0.1 -> off\n"));
    watch.signal(signal);
    const ChildResult result = watch.wait();
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(withoutTimes(result.out),
              "record: /tmp/ad_errorlog.0\n"
              "level: 0\n"
              "client: off\n"
              "server: off\n"
              "level: 0 -> 3\n"
              "client: off -> 10.0.0.1\n"
              "client: 10.0.0.1 -> off\n");
  }
}

TEST_F(ad_debugctlTest, WatchFollowsTheSocketToANewRecord) {
  auto daemon = std::make_unique<Daemon>("/tmp/ad_errorlog.0");
  const int old_id = segmentOf("/tmp/ad_errorlog.0");
  Child watch({kProgram, "watch"});
  ASSERT_TRUE(watch.waitForOut("server: off\n"));

  // Gone, but still attached: what its processes do is still to be seen.
  ad_debug_cfg_t* const old_record = daemon->record;
  daemon->record = nullptr;
  daemon.reset();
  old_record->ad_debug_level = 2;
  ASSERT_TRUE(watch.waitForOut("level: 0 -> 2\n"));

  ASSERT_EQ(shmctl(old_id, IPC_RMID, nullptr), 0);
  daemon = std::make_unique<Daemon>("/tmp/ad_errorlog.0");
  control({"server", "10.0.0.1"});
  ASSERT_TRUE(watch.waitForOut("10.0.0.1\n"));
  old_record->ad_debug_level = 1;  // no longer of interest
  control({"level", "4"});
  ASSERT_TRUE(watch.waitForOut("level: 0 -> 4\n"));
  watch.signal(SIGTERM);
  EXPECT_THAT(watch.wait().out, Not(HasSubstr("level: 2 -> 1")));
  ad_return_ad_debug_cfg_p(old_record);
}

// ---- JSON ----

// One JSON object whose members are texts, numbers and nulls.
auto IsFlatJsonObject() {
  const std::string string = R"("([^"\[:cntrl:]]|\\["\\bfnrt]|\\u[0-9a-f]{4})*")";
  const std::string number = R"(-?(0|[1-9][0-9]*)(\.[0-9]+)?)";
  const std::string member = string + ":(" + string + "|" + number + "|null)";
  return MatchesRegex("\\{" + member + "(," + member + ")*\\}");
}

TEST_F(ad_debugctlTest, JsonIsOneObjectALineForEveryCommand) {
  Daemon daemon("/tmp/ad_errorlog.0");
  const struct {
    std::vector<std::string> command;
    const char* object;
  } rows[] = {
      {{"level", "2"}, R"({"record":"/tmp/ad_errorlog.0","field":"level","old":0,"new":2})"},
      {{"client", "10.0.0.1"},
       R"({"record":"/tmp/ad_errorlog.0","field":"client","old":null,"new":"10.0.0.1"})"},
      {{"server", "10.0.0.2"},
       R"({"record":"/tmp/ad_errorlog.0","field":"server","old":null,"new":"10.0.0.2"})"},
      {{"client", "off"},
       R"({"record":"/tmp/ad_errorlog.0","field":"client","old":"10.0.0.1","new":null})"},
      {{"show"}, R"({"record":"/tmp/ad_errorlog.0","level":2,"client":null,"server":"10.0.0.2"})"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> arguments = row.command;
    arguments.push_back("--json");
    const ChildResult result = control(arguments);
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_EQ(result.out, std::string(row.object) + "\n");
    EXPECT_THAT(row.object, IsFlatJsonObject());
  }
}

TEST_F(ad_debugctlTest, JsonEscapesThePath) {
  Daemon daemon("/tmp/a \"b\\\n\x01");
  const std::string object =
      R"({"record":"/tmp/a \"b\\\u000a\u0001","level":0,"client":null,"server":null})";
  EXPECT_EQ(control({"--json", "--path", daemon.socket.path(), "show"}).out, object + "\n");
  EXPECT_THAT(object, IsFlatJsonObject());
}

TEST_F(ad_debugctlTest, JsonWatchIsOneObjectALineWithItsTime) {
  Daemon daemon("/tmp/ad_errorlog.0");
  Child watch({kProgram, "--json", "watch"});
  ASSERT_TRUE(watch.waitForOut("\n"));
  const time_t before = time(nullptr);
  control({"level", "1"});
  ASSERT_TRUE(watch.waitForOut("\"new\":1}\n"));
  watch.signal(SIGINT);
  std::istringstream lines(watch.wait().out);
  std::string state;
  std::string change;
  std::string more;
  std::getline(lines, state);
  std::getline(lines, change);
  EXPECT_FALSE(std::getline(lines, more)) << more;
  EXPECT_THAT(state,
              EndsWith(R"(,"record":"/tmp/ad_errorlog.0","level":0,"client":null,"server":null})"));
  EXPECT_THAT(change,
              EndsWith(R"(,"record":"/tmp/ad_errorlog.0","field":"level","old":0,"new":1})"));
  for (const std::string& line : {state, change}) {
    EXPECT_THAT(line, IsFlatJsonObject());
    EXPECT_THAT(line, StartsWith("{\"time\":"));
  }
  EXPECT_GE(std::stod(change.substr(strlen("{\"time\":"))), static_cast<double>(before));
}

// ---- Usage ----

TEST_F(ad_debugctlTest, WrongUsageIsOneMessageAndChangesNothing) {
  Daemon daemon("/tmp/ad_errorlog.0");
  daemon.record->ad_debug_level = 2;
  const std::string help = "; see ad_debugctl --help\n";
  const std::string level = "ad_debugctl: the level is a number from 0 to 4, not ";
  const std::string address = "ad_debugctl: an address has the form 10.0.0.1, or is 'off', not ";
  const struct {
    std::vector<std::string> arguments;
    std::string message;
  } rows[] = {
      {{}, "ad_debugctl: a command is missing" + help},
      {{"list"}, "ad_debugctl: there is no command 'list'" + help},
      {{""}, "ad_debugctl: there is no command ''" + help},
      {{"Show"}, "ad_debugctl: there is no command 'Show'" + help},
      {{"show", "level"}, "ad_debugctl: 'show' takes no argument" + help},
      {{"watch", "1"}, "ad_debugctl: 'watch' takes no argument" + help},
      {{"who", "me"}, "ad_debugctl: 'who' takes no argument" + help},
      {{"doctor", "1"}, "ad_debugctl: 'doctor' takes no argument" + help},
      {{"reload", ""}, "ad_debugctl: a process has a pid or a name, not ''" + help},
      {{"--json", "who"}, "ad_debugctl: 'who' has no JSON" + help},
      {{"--json", "reload"}, "ad_debugctl: 'reload' has no JSON" + help},
      {{"--json", "doctor"}, "ad_debugctl: 'doctor' has no JSON" + help},
      {{"level"}, "ad_debugctl: 'level' takes one argument" + help},
      {{"level", "1", "2"}, "ad_debugctl: 'level' takes one argument" + help},
      {{"client"}, "ad_debugctl: 'client' takes one argument" + help},
      {{"level", "5"}, level + "'5'" + help},
      {{"level", "2x"}, level + "'2x'" + help},
      {{"level", "+2"}, level + "'+2'" + help},
      {{"level", " 2"}, level + "' 2'" + help},
      {{"level", "02"}, level + "'02'" + help},
      {{"level", "4294967297"}, level + "'4294967297'" + help},
      {{"level", ""}, level + "''" + help},
      {{"--", "level", "-1"}, level + "'-1'" + help},
      {{"client", ""}, address + "''" + help},
      {{"client", "Off"}, address + "'Off'" + help},
      {{"client", "10.0.0"}, address + "'10.0.0'" + help},
      {{"client", "10.0.0.256"}, address + "'10.0.0.256'" + help},
      {{"client", "010.0.0.1"}, address + "'010.0.0.1'" + help},
      {{"client", "10.0.0.1 "}, address + "'10.0.0.1 '" + help},
      {{"server", "0x0a000001"}, address + "'0x0a000001'" + help},
      {{"server", "167772161"}, address + "'167772161'" + help},
      {{"server", "::1"}, address + "'::1'" + help},
      {{"server", "localhost"}, address + "'localhost'" + help},
      {{"client", "255.255.255.255"},
       "ad_debugctl: 255.255.255.255 cannot be a filter: all bits set means \"no change\"" + help},
      {{"--base", "/tmp/ad_errorlog", "--path", "/tmp/ad_errorlog.0", "show"},
       "ad_debugctl: --base and --path exclude each other" + help},
      {{"--wrong", "show"}, std::string(kProgram) + ": unrecognized option '--wrong'\n"},
      {{"level", "-1"}, std::string(kProgram) + ": invalid option -- '1'\n"},
      {{"show", "--base"}, std::string(kProgram) + ": option '--base' requires an argument\n"},
      {{"--json=yes", "show"},
       std::string(kProgram) + ": option '--json' doesn't allow an argument\n"},
  };
  for (const auto& row : rows) {
    const ChildResult result = control(row.arguments);
    EXPECT_EQ(result.exitCode(), 2) << row.message;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, row.message);
  }
  EXPECT_EQ(daemon.record->ad_debug_level, 2);
  EXPECT_EQ(daemon.record->debug_target_client_ip, 0u);
  EXPECT_EQ(daemon.record->debug_target_server_ip, 0u);
}

TEST_F(ad_debugctlTest, HelpNamesEveryCommandAndOptionAndNeedsNoDaemon) {
  const ChildResult result = control({"--help"});
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, StartsWith("Usage: ad_debugctl "));
  for (const char* word :
       {"show", "level 0..4", "client", "server", "watch", "who", "reload [PID|NAME]...", "doctor",
        "--base", "--path", "--special", "--json", "--help", "--version"})
    EXPECT_THAT(result.out, HasSubstr(std::string("\n  ") + word + " "));
}

TEST_F(ad_debugctlTest, VersionIsPrinted) {
  const ChildResult result = control({"--version"});
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_THAT(result.out, MatchesRegex("ad_debugctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_EQ(result.err, "");
}

TEST_F(ad_debugctlTest, OutputThatCannotBeWrittenIsAFailure) {
  Daemon daemon("/tmp/ad_errorlog.0");
  for (const char* command :
       {"show", "level 1", "watch", "who", "reload", "doctor", "--help", "--version"}) {
    const ChildResult result =
        runProgram({"sh", "-c", std::string(kProgram) + " " + command + " > /dev/full"});
    EXPECT_EQ(result.exitCode(), 1) << command;
    EXPECT_EQ(result.err, "ad_debugctl: standard output: No space left on device\n") << command;
  }
}

}  // namespace
