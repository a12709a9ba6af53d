// The debug configuration: the shared record, the settings file, the environment and the reload
// signal, observed at real segments, sockets, signals and standard error. Each case runs the
// library in a child process of its own, where nothing has touched it yet.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/private_world.h"
#include "support/system_calls.h"
#include "velorin/ad_debug"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kBase[] = "/tmp/log";        // what the tests hand to ad_init_debug_lib
constexpr char kSocket[] = "/tmp/log.0";    // the socket that root gets from it
constexpr char kFile[] = "/tmp/log.0.cfg";  // its settings
constexpr char kUninitialised[] = "/tmp/ad_errorlog";
constexpr uid_t kUser = 1234;
constexpr char kUsersSocket[] = "/tmp/log.1234";
constexpr uint32_t kNoChange = 0xffffffff;
constexpr char kWarning[] =
    "WARNING: cannot contact ad_logd, will keep trying. Output redirected to stderr.\n";
constexpr char kCriticalOnly1[] = "-> ad_debug_syslog_critical_msg_only set to true\n";
constexpr char kCriticalOnly2[] =
    "-> non-critical message won't be written to syslog in any case\n";

// Network byte order.
constexpr uint32_t ip(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a | b << 8 | c << 16 | d << 24;
}

constexpr uint32_t kIp1 = ip(10, 0, 0, 1);
constexpr uint32_t kIp2 = ip(10, 0, 0, 2);
constexpr uint32_t kIp9 = ip(9, 9, 9, 9);

struct Settings {
  int32_t level;
  uint32_t cip;
  uint32_t sip;

  bool operator==(const Settings& other) const {
    return level == other.level && cip == other.cip && sip == other.sip;
  }
};
constexpr Settings kUnchanged = {-1, kNoChange, kNoChange};
constexpr Settings level(int32_t level) {
  return {level, kNoChange, kNoChange};
}
constexpr Settings client(uint32_t cip) {
  return {-1, cip, kNoChange};
}

std::ostream& operator<<(std::ostream& to, const Settings& s) {
  return to << "level " << s.level << " client " << std::hex << s.cip << " server " << s.sip
            << std::dec;
}

Settings stored(const ad_debug_cfg_t& cfg) {
  return {cfg.ad_debug_level, cfg.debug_target_client_ip, cfg.debug_target_server_ip};
}

void store(ad_debug_cfg_t* cfg, const Settings& settings) {
  cfg->ad_debug_level = settings.level;
  cfg->debug_target_client_ip = settings.cip;
  cfg->debug_target_server_ip = settings.sip;
}

Settings settingsOf(const std::string& path) {
  Settings s = {77, 77, 77};
  ad_read_debug_cfg(path.c_str(), &s.level, &s.cip, &s.sip);
  return s;
}

void environment(const char* name, const char* text) {
  if (text == nullptr) {
    unsetenv(name);
  } else {
    setenv(name, text, 1);
  }
}

// ---- Segments, as the log daemon and tools see them ----

// The segment of a socket; -1 when there is none.
int segmentOf(const std::string& path) {
  return shmget(ftok(path.c_str(), 100), 0, 0);
}

int makeSegment(const std::string& path, size_t size = 140, int mode = 0666) {
  const int id = shmget(ftok(path.c_str(), 100), size, IPC_CREAT | IPC_EXCL | mode);
  EXPECT_NE(id, -1) << strerror(errno);
  return id;
}

shmid_ds statusOf(int id) {
  shmid_ds status = {};
  EXPECT_EQ(shmctl(id, IPC_STAT, &status), 0) << strerror(errno);
  return status;
}

// The record's 35 words, attached for as long as the test lives.
uint32_t* wordsOf(int id) {
  return static_cast<uint32_t*>(shmat(id, nullptr, 0));
}

size_t countSegments() {
  shm_info info = {};
  EXPECT_NE(shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info)), -1);
  return static_cast<size_t>(info.used_ids);
}

void becomeOwner(int id, uid_t uid) {
  shmid_ds status = statusOf(id);
  status.shm_perm.uid = uid;
  ASSERT_EQ(shmctl(id, IPC_SET, &status), 0) << strerror(errno);
}

// ---- Signal handlers of the program ----

volatile sig_atomic_t calls;
volatile sig_atomic_t last_signal;
volatile sig_atomic_t info_signal;

void countCall(int sig) {
  ++calls;
  last_signal = sig;
  errno = EXDEV;
}

void countInfoCall(int sig, siginfo_t* info, void* context) {
  countCall(sig);
  info_signal = info != nullptr && context != nullptr ? info->si_signo : -1;
}

void otherHandler(int) {
  calls = calls + 100;
}

struct sigaction actionOfReload() {
  struct sigaction action = {};
  EXPECT_EQ(sigaction(SIGUSR1, nullptr, &action), 0);
  return action;
}

class ad_debugTest : public PrivateWorld {};

// ---- Globals and small setters ----

TEST_F(ad_debugTest, GlobalsHaveTheirInitialValues) {
  errorsOf([] {
    EXPECT_EQ(ad_debug_cfg_p, nullptr);
    const ad_debug_cfg_t zeros = {};
    EXPECT_EQ(memcmp(&ad_debug_cfg_no_share_mem, &zeros, sizeof zeros), 0);
    EXPECT_EQ(ad_debug_to_syslogd, 1u);
    EXPECT_EQ(ad_debug_syslog_critical_msg_only, 1u);
    EXPECT_EQ(ad_debug_in_sighandler, 0u);
    EXPECT_EQ(ad_current_client_ip, 0u);
    EXPECT_EQ(ad_current_server_ip, 0u);
    EXPECT_EQ(ad_debug_module_id, 0u);
    EXPECT_EQ(std::string(ad_debug_process_name, 256), std::string(256, '\0'));
    EXPECT_EQ(ad_debug_inited(), 0);
  });
}

TEST_F(ad_debugTest, ProcessNameIsCutAt255CharactersAndTakenLiterally) {
  errorsOf([] {
    ad_debug_set_process_name("%s%n proxy");
    EXPECT_STREQ(getprocname(), "%s%n proxy");
    EXPECT_EQ(getprocname(), ad_debug_process_name);
    ad_debug_set_process_name(std::string(255, 'a').c_str());
    EXPECT_EQ(getprocname(), std::string(255, 'a'));
    ad_debug_set_process_name(std::string(256, 'b').c_str());
    EXPECT_EQ(getprocname(), std::string(255, 'b'));
    ad_debug_set_process_name("");
    EXPECT_STREQ(getprocname(), "");
  });
}

TEST_F(ad_debugTest, NullProcessNameLeavesTheName) {
  errorsOf([] {
    ad_debug_set_process_name("proxy");
    ad_debug_set_process_name(nullptr);
    EXPECT_STREQ(getprocname(), "proxy");
  });
}

TEST_F(ad_debugTest, DefaultModuleIdIsStored) {
  errorsOf([] {
    ad_debug_set_default_module_id(0xfedcba98);
    EXPECT_EQ(ad_debug_module_id, 0xfedcba98);
  });
}

TEST_F(ad_debugTest, WordsThatBelongToProgramsAreNeverWritten) {
  const LogListener log(kSocket);
  const LogListener special("/tmp/sp.0");
  write(kFile, "debug_level=2");
  uint32_t* const words = wordsOf(makeSegment(kSocket));
  for (uint32_t i = 3; i < 35; ++i) words[i] = 0xa5000000 + i;
  errorsOf([] {
    ad_current_client_ip = 1;
    ad_current_server_ip = 2;
    ad_debug_in_sighandler = 3;
    ad_debug_to_syslogd = 0;
    ad_init_debug_lib(kBase);
    raise(SIGUSR1);
    ad_debug_set_debug_parameter_directly(1, 2, 3);
    ad_debug_set_debug_level_directly(1);
    AD_CRTC("text\n");
    ad_set_special_log_path("/tmp/sp");
    ad_init_debug_lib("/tmp/other");
    ad_read_debug_cfg_direct_read_from_env();
    EXPECT_EQ(ad_current_client_ip, 1u);
    EXPECT_EQ(ad_current_server_ip, 2u);
    EXPECT_EQ(ad_debug_in_sighandler, 3u);
    EXPECT_EQ(ad_debug_to_syslogd, 0u);
  });
  EXPECT_EQ(words[0], 1u);  // the calls did reach the record
  for (uint32_t i = 3; i < 35; ++i) EXPECT_EQ(words[i], 0xa5000000 + i) << i;
}

// ---- Attaching ----

TEST_F(ad_debugTest, MissingSegmentIsMadeOf140ZeroBytesThatEverybodyMayChange) {
  const std::string err = errorsOf([] {
    ad_debug_cfg_t* cfg = nullptr;
    ASSERT_EQ(ad_get_ad_debug_cfg_p(kUninitialised, &cfg), 0);
    EXPECT_NE(cfg, &ad_debug_cfg_no_share_mem);
    EXPECT_EQ(ad_debug_cfg_p, nullptr);
  });
  EXPECT_EQ(err, "");
  const int id = segmentOf(kUninitialised);
  ASSERT_NE(id, -1) << "the segment stays for the next process";
  const shmid_ds status = statusOf(id);
  EXPECT_EQ(status.shm_segsz, 140u);
  EXPECT_EQ(status.shm_perm.mode & 0777, 0666);
  EXPECT_EQ(status.shm_nattch, 0u);
  const uint32_t* const words = wordsOf(id);
  EXPECT_TRUE(std::all_of(words, words + 35, [](uint32_t word) { return word == 0; }));
}

TEST_F(ad_debugTest, ExistingSegmentIsAttachedAsItIs) {
  uint32_t* const words = wordsOf(makeSegment(kUninitialised));
  for (uint32_t i = 0; i < 35; ++i) words[i] = i + 1;
  const std::string err = errorsOf([&] {
    const auto create = [](const char* path, ad_debug_cfg_t** cfg) {
      return ad_get_ad_debug_cfg_p_impl(path, cfg, 0);
    };
    const auto no_create = [](const char* path, ad_debug_cfg_t** cfg) {
      return ad_get_ad_debug_cfg_p_impl(path, cfg, 1);
    };
    for (int (*attach)(const char*, ad_debug_cfg_t**) :
         {&ad_get_ad_debug_cfg_p, &ad_get_ad_debug_cfg_p_no_create, +create, +no_create}) {
      ad_debug_cfg_t* cfg = nullptr;
      ASSERT_EQ(attach(kUninitialised, &cfg), 0);
      EXPECT_EQ(stored(*cfg), (Settings{1, 2, 3}));
      for (uint32_t i = 0; i < 32; ++i) EXPECT_EQ(cfg->para[i], i + 4);
    }
  });
  EXPECT_EQ(err, "");
}

TEST_F(ad_debugTest, NoCreateNeverMakesASegment) {
  const std::string err = errorsOf([] {
    ad_debug_cfg_t* cfg = nullptr;
    EXPECT_EQ(ad_get_ad_debug_cfg_p_no_create(kUninitialised, &cfg), 1);
    EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
    cfg = nullptr;
    EXPECT_EQ(ad_get_ad_debug_cfg_p_impl(kUninitialised, &cfg, 2), 1);
    EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
  });
  EXPECT_EQ(err, "");
  EXPECT_EQ(countSegments(), 0u);
}

TEST_F(ad_debugTest, PathThatIsNullOrMissingGivesThePrivateCopySilently) {
  const std::string err = errorsOf([] {
    for (const char* path : {static_cast<const char*>(nullptr), "/tmp/missing", ""}) {
      ad_debug_cfg_t* cfg = nullptr;
      EXPECT_EQ(ad_get_ad_debug_cfg_p(path, &cfg), 1);
      EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
      cfg = nullptr;
      EXPECT_EQ(ad_get_ad_debug_cfg_p_no_create(path, &cfg), 1);
      EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
    }
  });
  EXPECT_EQ(err, "");
  EXPECT_EQ(countSegments(), 0u);
}

TEST_F(ad_debugTest, SegmentOfAnotherSizeIsNeitherUsedNorRemoved) {
  const struct {
    size_t size;
    const char* message;
  } rows[] = {
      {1, "IPCSTAT shows size mismatch: 1 vs 140\n"},
      {139, "IPCSTAT shows size mismatch: 139 vs 140\n"},
      {141, "IPCSTAT shows size mismatch: 141 vs 140\n"},
      {70000, "IPCSTAT shows size mismatch: 70000 vs 140\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    const int id = makeSegment(kUninitialised, row.size);
    const std::string err = errorsOf([] {
      ad_debug_cfg_t* cfg = nullptr;
      EXPECT_EQ(ad_get_ad_debug_cfg_p(kUninitialised, &cfg), 1);
      EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
    });
    EXPECT_EQ(err, row.message);
    EXPECT_EQ(segmentOf(kUninitialised), id);
    EXPECT_EQ(statusOf(id).shm_segsz, row.size);
    ASSERT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
  }
}

TEST_F(ad_debugTest, SegmentWhoseStatusMayNotBeReadEndsInThePrivateCopy) {
  for (const int mode : {0, 0600}) {
    SCOPED_TRACE(mode);
    const int id = makeSegment(kUninitialised, 140, mode);
    const std::string err = errorsOf([] {
      becomeUser(kUser);
      ad_debug_cfg_t* cfg = nullptr;
      EXPECT_EQ(ad_get_ad_debug_cfg_p(kUninitialised, &cfg), 1);
      EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
    });
    EXPECT_EQ(err, "IPCSTAT shows size mismatch: 0 vs 140\n");
    EXPECT_EQ(segmentOf(kUninitialised), id);
    ASSERT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
  }
}

TEST_F(ad_debugTest, SegmentThatCannotBeAttachedIsRemovedWhoeverMadeIt) {
  const int id = makeSegment(kUninitialised, 140, 0444);
  becomeOwner(id, kUser);
  const std::string err = errorsOf([] {
    becomeUser(kUser);
    ad_debug_cfg_t* cfg = nullptr;
    EXPECT_EQ(ad_get_ad_debug_cfg_p_no_create(kUninitialised, &cfg), 1);
    EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
    EXPECT_EQ(segmentOf(kUninitialised), -1);
    EXPECT_EQ(ad_get_ad_debug_cfg_p(kUninitialised, &cfg), 0) << "the next one makes a new segment";
  });
  EXPECT_EQ(err, "shmat: Permission denied\n");
  EXPECT_EQ(statusOf(segmentOf(kUninitialised)).shm_perm.mode & 0777, 0666);
}

TEST_F(ad_debugTest, SegmentThatCanBeNeitherAttachedNorRemovedIsReportedTwice) {
  const int id = makeSegment(kUninitialised, 140, 0444);
  const std::string err = errorsOf([] {
    becomeUser(kUser);
    ad_debug_cfg_t* cfg = nullptr;
    EXPECT_EQ(ad_get_ad_debug_cfg_p(kUninitialised, &cfg), 1);
    EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
  });
  EXPECT_EQ(err, "shmat: Permission denied\nshmctl: Operation not permitted\n");
  EXPECT_EQ(segmentOf(kUninitialised), id);
}

TEST_F(ad_debugTest, FailedCreationIsReported) {
  const std::string err = errorsOf([] {
    while (shmget(IPC_PRIVATE, 1, 0600) != -1) continue;  // until the namespace holds no more
    ASSERT_EQ(errno, ENOSPC);
    ad_debug_cfg_t* cfg = nullptr;
    EXPECT_EQ(ad_get_ad_debug_cfg_p(kUninitialised, &cfg), 1);
    EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
  });
  EXPECT_EQ(err, "shmget: No space left on device\n");
}

TEST_F(ad_debugTest, NullAttachAddressFallsBackWithoutAMessageAndWithoutRemoval) {
  const int id = makeSegment(kUninitialised);
  const std::string err = errorsOf([] {
    system_calls.shmat_gives_null = true;
    ad_debug_cfg_t* cfg = nullptr;
    EXPECT_EQ(ad_get_ad_debug_cfg_p(kUninitialised, &cfg), 1);
    EXPECT_EQ(cfg, &ad_debug_cfg_no_share_mem);
  });
  EXPECT_EQ(err, "");
  EXPECT_EQ(segmentOf(kUninitialised), id);
}

TEST_F(ad_debugTest, ReturnDetachesARecord) {
  const int id = makeSegment(kUninitialised);
  errorsOf([&] {
    ad_debug_cfg_t* cfg = nullptr;
    ASSERT_EQ(ad_get_ad_debug_cfg_p(kUninitialised, &cfg), 0);
    EXPECT_EQ(statusOf(id).shm_nattch, 1u);
    EXPECT_EQ(ad_return_ad_debug_cfg_p(cfg), 0);
    EXPECT_EQ(statusOf(id).shm_nattch, 0u);
    EXPECT_EQ(ad_return_ad_debug_cfg_p(cfg), -1) << "what shmdt says";
  });
}

TEST_F(ad_debugTest, ReturnHasNothingToDoForNullAndThePrivateCopy) {
  errorsOf([] {
    EXPECT_EQ(ad_return_ad_debug_cfg_p(nullptr), 1);
    EXPECT_EQ(ad_return_ad_debug_cfg_p(&ad_debug_cfg_no_share_mem), 1);
  });
}

// ---- Initialisation ----

TEST_F(ad_debugTest, EmptyPathEqualsTheInitialOneAndDoesNothing) {
  errorsOf([] {
    EXPECT_EQ(ad_init_debug_lib(""), 0);
    EXPECT_EQ(ad_debug_inited(), 0);
    EXPECT_EQ(actionOfReload().sa_handler, SIG_DFL);
    AD_ERRO("still here\n");
  });
  EXPECT_THAT(daemon().nextLine(), EndsWith("-> still here"));
}

TEST_F(ad_debugTest, WithoutAnyPathInitialisationFailsAndLinesGoToStandardError) {
  const std::string err = errorsOf([] {
    EXPECT_EQ(ad_init_debug_lib(nullptr), -1);
    EXPECT_EQ(ad_debug_inited(), 0);
    EXPECT_EQ(actionOfReload().sa_handler, SIG_DFL);
    ad_errorlog_printf("lost daemon\n");
  });
  EXPECT_EQ(err, std::string(kWarning) + "lost daemon\n");
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

TEST_F(ad_debugTest, WithoutAnyPathTheSpecialLogIsOffToo) {
  const LogListener special("/tmp/ad_errorlog_sp");
  const std::string err = errorsOf([] {
    EXPECT_EQ(ad_init_debug_lib(nullptr), -1);
    ad_errorlog_printf_special("special\n");
  });
  EXPECT_EQ(err, std::string(kWarning) + "special\n");
}

TEST_F(ad_debugTest, NullPathTakesTheEnvironmentAndRemembersIt) {
  LogListener log(kSocket);
  environment("ERROR_LOG_SOCKET", kBase);
  errorsOf([] {
    EXPECT_EQ(ad_init_debug_lib(nullptr), 0);
    AD_ERRO("to the environment's daemon\n");
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(ad_init_debug_lib(kBase), 0);
    EXPECT_EQ(actionOfReload().sa_handler, SIG_DFL) << "the same path: nothing happens";
    EXPECT_EQ(ad_init_debug_lib(nullptr), 0);
    EXPECT_EQ(actionOfReload().sa_handler, sig_user2) << "null never equals the remembered path";
  });
  EXPECT_THAT(log.nextLine(), EndsWith("-> to the environment's daemon"));
}

TEST_F(ad_debugTest, PathOfTheCallerWinsOverTheEnvironment) {
  LogListener log(kSocket);
  environment("ERROR_LOG_SOCKET", "/tmp/elsewhere");
  errorsOf([] {
    EXPECT_EQ(ad_init_debug_lib(kBase), 0);
    ad_errorlog_printf("here\n");
  });
  EXPECT_EQ(log.nextLine(), "here");
}

TEST_F(ad_debugTest, NullPathAfterInitialisationCutsTheDaemonOff) {
  LogListener log(kSocket);
  const std::string err = errorsOf([] {
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    ad_debug_cfg_t* const shared = ad_debug_cfg_p;
    ad_debug_cfg_no_share_mem.para[0] = 1;
    EXPECT_EQ(ad_init_debug_lib(nullptr), -1);
    EXPECT_EQ(ad_debug_cfg_p, shared);
    EXPECT_EQ(ad_debug_cfg_no_share_mem.para[0], 0u);
    EXPECT_EQ(ad_init_debug_lib(kBase), 0) << "still the remembered path";
    ad_errorlog_printf("cut off\n");
  });
  EXPECT_EQ(err, std::string(kWarning) + "cut off\n");
  EXPECT_THAT(log.waiting(), IsEmpty());
}

TEST_F(ad_debugTest, SocketPathCarriesTheRealUserId) {
  LogListener log(kUsersSocket);
  errorsOf([] {
    if (setresuid(kUser, 0, 0) != 0) FAIL() << "this test needs a second user: " << strerror(errno);
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    EXPECT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    ad_errorlog_printf("real user\n");
  });
  EXPECT_EQ(log.nextLine(), "real user");
  EXPECT_NE(segmentOf(kUsersSocket), -1);
}

TEST_F(ad_debugTest, UsersOwnDaemonComesBeforeTheSuperusers) {
  LogListener own(kUsersSocket);
  LogListener root(kSocket);
  errorsOf([] {
    becomeUser(kUser);
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    ad_errorlog_printf("mine\n");
  });
  EXPECT_EQ(own.nextLine(), "mine");
  EXPECT_THAT(root.waiting(), IsEmpty());
  EXPECT_EQ(segmentOf(kSocket), -1);
}

TEST_F(ad_debugTest, SuperusersDaemonIsTheFallBackWithItsOwnSettingsFile) {
  LogListener root(kSocket);
  write(kFile, "debug_level=3");
  write("/tmp/log.1234.cfg", "debug_level=2");
  errorsOf([] {
    becomeUser(kUser);
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    EXPECT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 3);
    ad_errorlog_printf("root's\n");
  });
  EXPECT_EQ(root.nextLine(), "root's");
  EXPECT_NE(segmentOf(kSocket), -1);
}

TEST_F(ad_debugTest, UnusableSegmentOfTheUsersDaemonLeadsToTheSuperusers) {
  LogListener own(kUsersSocket);
  LogListener root(kSocket);
  makeSegment(kUsersSocket, 200);
  const std::string err = errorsOf([] {
    becomeUser(kUser);
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    EXPECT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    ad_errorlog_printf("root's\n");
  });
  EXPECT_EQ(err, "IPCSTAT shows size mismatch: 200 vs 140\n");
  EXPECT_EQ(root.nextLine(), "root's");
}

TEST_F(ad_debugTest, WrongSegmentOfTheOnlyDaemonIsTriedTwice) {
  LogListener log(kSocket);
  makeSegment(kSocket, 200);
  const std::string err = errorsOf([] {
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    EXPECT_EQ(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    ad_errorlog_printf("sent all the same\n");
  });
  EXPECT_EQ(err,
            "IPCSTAT shows size mismatch: 200 vs 140\nIPCSTAT shows size mismatch: 200 vs 140\n");
  EXPECT_EQ(log.nextLine(), "sent all the same");
}

TEST_F(ad_debugTest, WithoutADaemonThePrivateCopyCountsAndTheSuperusersPathStays) {
  std::optional<LogListener> root;
  const std::string err = errorsOf([&] {
    becomeUser(kUser);
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    EXPECT_EQ(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    ad_errorlog_printf("no daemon\n");
    root.emplace(kSocket);
    ad_errorlog_printf("late daemon\n");
    EXPECT_EQ(root->nextLine(), "late daemon");
  });
  EXPECT_EQ(err, std::string(kWarning) + "no daemon\n");
  EXPECT_EQ(countSegments(), 0u);
}

TEST_F(ad_debugTest, InitialisationWithoutSettingsGivesLevelZero) {
  errorsOf([] {
    ASSERT_EQ(ad_init_debug_lib("/tmp/nowhere"), 0);
    EXPECT_EQ(stored(*ad_debug_cfg_p), (Settings{0, 0, 0}));
  });
}

TEST_F(ad_debugTest, InitialisationZeroesThePrivateCopy) {
  errorsOf([] {
    memset(&ad_debug_cfg_no_share_mem, 0xff, sizeof ad_debug_cfg_no_share_mem);
    ASSERT_EQ(ad_init_debug_lib("/tmp/nowhere"), 0);
    const ad_debug_cfg_t zeros = {};
    EXPECT_EQ(memcmp(&ad_debug_cfg_no_share_mem, &zeros, sizeof zeros), 0);
  });
}

TEST_F(ad_debugTest, LongPathIsCutAt107Characters) {
  const std::string base = "/tmp/" + std::string(115, 'x');
  const std::string socket = base.substr(0, 107);
  LogListener log(socket);
  write(socket + ".cfg", "debug_level=2");
  errorsOf([&] {
    ASSERT_EQ(ad_init_debug_lib(base.c_str()), 0);
    EXPECT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 2);
    ad_errorlog_printf("cut path\n");
  });
  EXPECT_EQ(log.nextLine(), "cut path");
  EXPECT_NE(segmentOf(socket), -1);
}

TEST_F(ad_debugTest, PathOf105CharactersKeepsItsUserId) {
  const std::string base = "/tmp/" + std::string(100, 'x');
  LogListener log(base + ".0");
  errorsOf([&] {
    ASSERT_EQ(ad_init_debug_lib(base.c_str()), 0);
    ad_errorlog_printf("whole path\n");
  });
  EXPECT_EQ(log.nextLine(), "whole path");
}

TEST_F(ad_debugTest, RememberedPathIsCutAt511Characters) {
  errorsOf([] {
    const auto runs = [](const std::string& base) {
      signal(SIGUSR1, SIG_DFL);
      EXPECT_EQ(ad_init_debug_lib(base.c_str()), 0);
      return actionOfReload().sa_handler == sig_user2;
    };
    const std::string base = "/tmp/" + std::string(506, 'x');
    EXPECT_TRUE(runs(base));
    EXPECT_FALSE(runs(base)) << "511 characters are remembered whole";
    EXPECT_TRUE(runs(base + "y"));
    EXPECT_TRUE(runs(base + "y")) << "a longer path never equals what is remembered of it";
    EXPECT_FALSE(runs(base)) << "but its first 511 characters do";
  });
}

TEST_F(ad_debugTest, InitialisationStoresTheSettingsInTheSharedRecord) {
  const LogListener log(kSocket);
  const uint32_t* const words = wordsOf(makeSegment(kSocket));
  write(kFile, "debug_level=2\ndebug_client_ip=10.1.2.3\n");
  errorsOf([] { ad_init_debug_lib(kBase); });
  EXPECT_EQ(words[0], 2u);
  EXPECT_EQ(words[1], ip(10, 1, 2, 3));
  EXPECT_EQ(words[2], 0u);
}

TEST_F(ad_debugTest, InitialisationWithoutSettingsLeavesTheSharedRecordAlone) {
  const LogListener log(kSocket);
  uint32_t* const words = wordsOf(makeSegment(kSocket));
  for (uint32_t i = 0; i < 35; ++i) words[i] = i + 1;
  errorsOf([] { ad_init_debug_lib(kBase); });
  for (uint32_t i = 0; i < 35; ++i) EXPECT_EQ(words[i], i + 1);
}

TEST_F(ad_debugTest, InitialisationClampsTheEnvironmentsLevelInsteadOfReplacingIt) {
  const struct {
    const char* text;
    int32_t level;
  } rows[] = {{"0", 0}, {"1", 1}, {"3", 3}, {"4", 3}, {"7", 3}, {"-3", 0}, {"99999999999", 3}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    environment("DEBUG_LEVEL", row.text);
    errorsOf([&] {
      ad_init_debug_lib("/tmp/nowhere");
      EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, row.level);
    });
  }
}

TEST_F(ad_debugTest, InitialisationTakesTheFiltersOfTheEnvironment) {
  environment("DEBUG_CLIENT_IP", "10.0.0.1");
  environment("DEBUG_SERVER_IP", "10.0.0.2");
  errorsOf([] {
    ad_init_debug_lib("/tmp/nowhere");
    EXPECT_EQ(stored(*ad_debug_cfg_p), (Settings{0, kIp1, kIp2}));
  });
}

TEST_F(ad_debugTest, InitialisationSwitchesTheSpecialLogOff) {
  const LogListener log(kSocket);
  LogListener special("/tmp/ad_errorlog_sp");
  const std::string err = errorsOf([] {
    ad_errorlog_printf_special("before");
    ad_init_debug_lib(kBase);
    ad_errorlog_printf_special("after");
  });
  EXPECT_EQ(special.next().text, "before");
  EXPECT_THAT(special.waiting(), IsEmpty());
  EXPECT_EQ(err, std::string(kWarning) + "after\n");
}

TEST_F(ad_debugTest, InitialisationThatLeavesLevelFourFindsTheSpecialLogOff) {
  const LogListener log(kSocket);
  const LogListener special("/tmp/ad_errorlog_sp");
  uint32_t* const words = wordsOf(makeSegment(kSocket));
  words[0] = 4;
  write(kFile, "debug_level=1");
  EXPECT_EQ(errorsOf([] { ad_init_debug_lib(kBase); }),
            std::string(kWarning) + "reset special log\n");
  EXPECT_EQ(words[0], 1u);
}

TEST_F(ad_debugTest, HandlerIsInstalledForSignal10WithoutMaskAndFlags) {
  errorsOf([] {
    ad_init_debug_lib("/tmp/nowhere");
    struct sigaction action = {};
    ASSERT_EQ(sigaction(10, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, sig_user2);
    constexpr int kRestorer = 0x04000000;  // the C library's own
    EXPECT_EQ(action.sa_flags & ~kRestorer, 0);
    for (int sig = 1; sig < NSIG; ++sig) EXPECT_NE(sigismember(&action.sa_mask, sig), 1) << sig;
    ASSERT_EQ(sigaction(SIGUSR2, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_DFL) << "whatever the handler's name says";
  });
}

TEST_F(ad_debugTest, RepeatedInitialisationWithTheSamePathChangesNothing) {
  const LogListener log(kSocket);
  const LogListener special("/tmp/sp.0");
  const std::string err = errorsOf([] {
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    ad_set_special_log_path("/tmp/sp");
    ad_debug_cfg_t* const in_force = ad_debug_cfg_p;
    ad_debug_cfg_no_share_mem.para[5] = 5;
    signal(SIGUSR1, otherHandler);
    write(kFile, "debug_level=3");
    EXPECT_EQ(ad_init_debug_lib(kBase), 0);
    EXPECT_EQ(ad_debug_cfg_p, in_force);
    EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 0);
    EXPECT_EQ(ad_debug_cfg_no_share_mem.para[5], 5u);
    EXPECT_EQ(actionOfReload().sa_handler, otherHandler);
    ad_errorlog_printf_special("the special log is still on\n");
  });
  EXPECT_EQ(err, "");
}

TEST_F(ad_debugTest, InitialisationWithAnotherPathRunsEverythingAgain) {
  const LogListener log(kSocket);
  LogListener other("/tmp/other.0");
  write("/tmp/other.0.cfg", "debug_level=2");
  errorsOf([] {
    ASSERT_EQ(ad_init_debug_lib(kBase), 0);
    ad_debug_cfg_t* const first = ad_debug_cfg_p;
    ad_debug_cfg_no_share_mem.para[5] = 5;
    signal(SIGUSR1, SIG_DFL);
    ASSERT_EQ(ad_init_debug_lib("/tmp/other"), 0);
    EXPECT_NE(ad_debug_cfg_p, first);
    EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 2);
    EXPECT_EQ(ad_debug_cfg_no_share_mem.para[5], 0u);
    EXPECT_EQ(actionOfReload().sa_handler, sig_user2);
    ad_errorlog_printf("to the other\n");
    signal(SIGUSR1, SIG_DFL);
    ASSERT_EQ(ad_init_debug_lib(kBase), 0) << "only the last path is remembered";
    EXPECT_EQ(actionOfReload().sa_handler, sig_user2);
  });
  EXPECT_EQ(other.nextLine(), "to the other");
}

// ---- Reading the settings ----

TEST_F(ad_debugTest, SettingsFileIsSearchedForItsKeys) {
  const std::string zero(1, '\0');
  const struct {
    const char* name;
    std::string text;
    Settings settings;
  } rows[] = {
      {"level", "debug_level=2\n", level(2)},
      {"client", "debug_client_ip=10.0.0.1\n", client(kIp1)},
      {"server has no effect", "debug_server_ip=10.0.0.1\n", kUnchanged},
      {"all",
       "debug_client_ip=10.0.0.1\ndebug_server_ip=10.0.0.2\ndebug_level=3\n",
       {3, kIp1, kNoChange}},
      {"one line", "debug_level=1 debug_client_ip=10.0.0.1 ", {1, kIp1, kNoChange}},
      {"inside a word", "xdebug_level=2\n", level(2)},
      {"behind a comment sign", "# debug_level=2\n", level(2)},
      {"first counts", "debug_level=1\ndebug_level=3\n", level(1)},
      {"first counts, bad", "debug_level=x\ndebug_level=3\n", level(0)},
      {"first client counts, bad", "debug_client_ip=x\ndebug_client_ip=10.0.0.1\n", kUnchanged},
      {"not clamped here", "debug_level=9\n", level(9)},
      {"negative", "debug_level=-5\n", level(-5)},
      {"plus", "debug_level=+3\n", level(3)},
      {"blanks before the number", "debug_level= \t\n 3\n", level(3)},
      {"decimal only", "debug_level=0x3\n", level(0)},
      {"leading zero", "debug_level=010\n", level(10)},
      {"text behind the number", "debug_level=2and more\n", level(2)},
      {"no number", "debug_level=\xff\n", level(0)},
      {"2^31 - 1", "debug_level=2147483647\n", level(INT32_MAX)},
      {"2^31", "debug_level=2147483648\n", level(INT32_MAX)},
      {"2^32 + 2", "debug_level=4294967298\n", level(INT32_MAX)},
      {"2^64 + 2", "debug_level=18446744073709551618\n", level(INT32_MAX)},
      {"-2^31", "debug_level=-2147483648\n", level(INT32_MIN)},
      {"-2^31 - 1", "debug_level=-2147483649\n", level(INT32_MIN)},
      {"-2^32 + 2", "debug_level=-4294967294\n", level(INT32_MIN)},
      {"blank in the key", "debug_level =2\n", kUnchanged},
      {"upper case", "DEBUG_LEVEL=2\n", kUnchanged},
      {"no keys", "nothing to see\n", kUnchanged},
      {"client 0", "debug_client_ip=0.0.0.0\n", client(0)},
      {"client all ones", "debug_client_ip=255.255.255.255\n", kUnchanged},
      {"client of two parts", "debug_client_ip=10.1\n", client(kIp1)},
      {"client with carriage return", "debug_client_ip=10.0.0.1\r\n", client(kIp1)},
      {"client with a tail", "debug_client_ip=10.0.0.1;\n", kUnchanged},
      {"client behind a blank", "debug_client_ip= 10.0.0.1\n", kUnchanged},
      {"client out of range", "debug_client_ip=10.0.0.256\n", kUnchanged},
      {"zero byte ends the text", "debug_level=2" + zero + "debug_client_ip=10.0.0.1\n", level(2)},
      {"zero byte first", zero + "debug_level=2\n", kUnchanged},
  };
  errorsOf([&] {
    environment("DEBUG_LEVEL", "1");  // never consulted
    environment("DEBUG_CLIENT_IP", "1.1.1.1");
    environment("DEBUG_SERVER_IP", "1.1.1.1");
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      write("/tmp/c.cfg", row.text);
      EXPECT_EQ(settingsOf("/tmp/c"), row.settings);
    }
  });
}

TEST_F(ad_debugTest, ServerFilterIsNeverChangedFromTheFile) {
  const LogListener log(kSocket);
  uint32_t* const words = wordsOf(makeSegment(kSocket));
  words[2] = ip(10, 9, 9, 9);
  write(kFile, "debug_server_ip=10.0.0.1\n");
  errorsOf([] { ad_init_debug_lib(kBase); });
  EXPECT_EQ(words[2], ip(10, 9, 9, 9));
}

TEST_F(ad_debugTest, BehindAShortTextStandsTheRestOfTheFilesName) {
  const struct {
    const char* name;
    const char* path;
    const char* text;
    Settings settings;
  } rows[] = {
      {"key in the name", "/tmp/debug_level=3", "x", level(3)},
      {"key in the name, partly covered", "/tmp/debug_level=3", "abcdef", kUnchanged},
      {"text before the name", "/tmp/debug_level=3", "debug_level=1\n", level(1)},
      {"number in the name", "/tmp/xxxxxxx77", "debug_level=", level(77)},
      {"key put together", "/tmp/x_level=2", "debug", kUnchanged},
      {"key put together, fitting", "/tmp/_level=2", "debug", level(2)},
      {"dotted quad in the name", "/tmp/xxxxxxxxxxx10.0.0.1", "debug_client_ip=", kUnchanged},
      {"text as long as the name", "/tmp/debug_level=3", "......................", kUnchanged},
  };
  errorsOf([&] {
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      write(std::string(row.path) + ".cfg", row.text);
      EXPECT_EQ(settingsOf(row.path), row.settings);
    }
  });
}

TEST_F(ad_debugTest, OnlyTheFirst1023BytesOfTheFileCount) {
  const struct {
    const char* name;
    size_t before;  // blanks in front of "debug_level=23"
    size_t after;
    Settings settings;
  } rows[] = {
      {"1023 bytes", 1009, 0, level(23)},
      {"exactly 1024 bytes", 1010, 0, level(2)},
      {"exactly 1024 bytes, only the number's last byte", 1011, 0, level(0)},
      {"1025 bytes, key inside", 1009, 2, level(23)},
      {"key across the end", 1012, 4000, kUnchanged},
      {"key behind the end", 1024, 0, kUnchanged},
      {"long file, key inside", 10, 100000, level(23)},
  };
  errorsOf([&] {
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      write("/tmp/c.cfg",
            std::string(row.before, ' ') + "debug_level=23" + std::string(row.after, ' '));
      EXPECT_EQ(settingsOf("/tmp/c"), row.settings);
    }
  });
}

TEST_F(ad_debugTest, FileThatIsThereButHoldsNothingKeepsTheEnvironmentOut) {
  errorsOf([] {
    environment("DEBUG_LEVEL", "2");
    environment("DEBUG_CLIENT_IP", "10.0.0.1");
    environment("DEBUG_SERVER_IP", "10.0.0.1");
    write("/tmp/empty.cfg", "");
    EXPECT_EQ(settingsOf("/tmp/empty"), kUnchanged);
    ASSERT_EQ(mkdir("/tmp/directory.cfg", 0777), 0);  // read fails
    EXPECT_EQ(settingsOf("/tmp/directory"), kUnchanged);
    EXPECT_EQ(ad_debug_syslog_critical_msg_only, 0u);
  });
}

TEST_F(ad_debugTest, EmptyFileLeavesAllThreeValuesOfTheRecord) {
  const LogListener log(kSocket);
  uint32_t* const words = wordsOf(makeSegment(kSocket));
  for (uint32_t i = 0; i < 3; ++i) words[i] = i + 2;
  write(kFile, "");
  environment("DEBUG_LEVEL", "1");
  environment("DEBUG_CLIENT_IP", "10.0.0.1");
  environment("DEBUG_SERVER_IP", "10.0.0.1");
  errorsOf([] { ad_init_debug_lib(kBase); });
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(words[i], i + 2);
}

TEST_F(ad_debugTest, FifoDoesNotHang) {
  errorsOf([] {
    environment("DEBUG_LEVEL", "2");
    ASSERT_EQ(mkfifo("/tmp/fifo.cfg", 0666), 0);
    EXPECT_EQ(settingsOf("/tmp/fifo"), kUnchanged) << "nobody has it open: empty";
    const int fd = open("/tmp/fifo.cfg", O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(settingsOf("/tmp/fifo"), kUnchanged) << "nothing was written: a read error";
    ASSERT_EQ(::write(fd, "debug_level=3", 13), 13);
    EXPECT_EQ(settingsOf("/tmp/fifo"), (level(3)));
  });
}

TEST_F(ad_debugTest, FileThatCannotBeOpenedLeavesTheWordToTheEnvironment) {
  errorsOf([] {
    environment("DEBUG_LEVEL", "2");
    const Settings from_environment = level(2);
    EXPECT_EQ(settingsOf("/tmp/missing"), from_environment);
    EXPECT_EQ(settingsOf("/tmp/" + std::string(300, 'x')), from_environment) << "ENAMETOOLONG";
    EXPECT_EQ(settingsOf(std::string(2000, '/')), from_environment) << "no room for the name";
    EXPECT_EQ(settingsOf(""), from_environment);
    const LogListener socket("/tmp/socket.cfg");
    EXPECT_EQ(settingsOf("/tmp/socket"), from_environment);
    write("/tmp/secret.cfg", "debug_level=3");
    ASSERT_EQ(chmod("/tmp/secret.cfg", 0600), 0);
    becomeUser(kUser);
    EXPECT_EQ(settingsOf("/tmp/secret"), from_environment);
  });
}

TEST_F(ad_debugTest, InterruptedReadIsRepeated) {
  errorsOf([] {
    write("/tmp/c.cfg", "debug_level=3");
    system_calls.interrupted_reads = 3;
    EXPECT_EQ(settingsOf("/tmp/c"), (level(3)));
    EXPECT_EQ(system_calls.interrupted_reads, 0);
  });
}

TEST_F(ad_debugTest, ReadingClosesTheFile) {
  errorsOf([] {
    write("/tmp/c.cfg", "debug_level=3");
    write("/tmp/empty.cfg", "");
    ASSERT_EQ(mkdir("/tmp/directory.cfg", 0777), 0);
    const int free_fd = dup(0);
    close(free_fd);
    for (const char* path : {"/tmp/c", "/tmp/empty", "/tmp/directory"}) (void)settingsOf(path);
    const int fd = dup(0);
    EXPECT_EQ(fd, free_fd);
    close(fd);
  });
}

TEST_F(ad_debugTest, WithoutAFileTheEnvironmentGivesTheSettings) {
  const struct {
    const char* name;
    const char* level;
    const char* client;
    const char* server;
    Settings settings;
  } rows[] = {
      {"nothing", nullptr, nullptr, nullptr, kUnchanged},
      {"all", "2", "10.0.0.1", "10.0.0.2", {2, kIp1, kIp2}},
      {"server only", nullptr, nullptr, "10.0.0.2", {-1, kNoChange, kIp2}},
      {"zero", "0", "0.0.0.0", "0.0.0.0", {0, 0, 0}},
      {"not clamped here", "7", nullptr, nullptr, level(7)},
      {"negative", "-3", nullptr, nullptr, level(-3)},
      {"empty", "", "", "", level(0)},
      {"no number", "high", "here", "there", level(0)},
      {"blanks", " 2 ", nullptr, nullptr, level(2)},
      {"decimal only", "0x2", nullptr, nullptr, level(0)},
      {"2^32 + 2", "4294967298", nullptr, nullptr, level(INT32_MAX)},
      {"-2^32 + 2", "-4294967294", nullptr, nullptr, level(INT32_MIN)},
      {"2^64 + 2", "18446744073709551618", nullptr, nullptr, level(INT32_MAX)},
  };
  errorsOf([&] {
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      environment("DEBUG_LEVEL", row.level);
      environment("DEBUG_CLIENT_IP", row.client);
      environment("DEBUG_SERVER_IP", row.server);
      EXPECT_EQ(settingsOf("/tmp/missing"), row.settings);
      (void)daemon().waiting();  // a level above 0 writes lines
    }
  });
}

TEST_F(ad_debugTest, ReadingClearsTheCriticalOnlyFlag) {
  errorsOf([] {
    for (const char* path : {"/tmp/c", "/tmp/empty", "/tmp/missing"}) {
      SCOPED_TRACE(path);
      write("/tmp/c.cfg", "debug_level=3");
      write("/tmp/empty.cfg", "");
      ad_debug_syslog_critical_msg_only = 1;
      (void)settingsOf(path);
      EXPECT_EQ(ad_debug_syslog_critical_msg_only, 0u);
    }
  });
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

TEST_F(ad_debugTest, LevelAboveZeroInTheEnvironmentSetsTheCriticalOnlyFlag) {
  for (const char* level : {"0", "-1", "", "none"}) {
    SCOPED_TRACE(level);
    environment("DEBUG_LEVEL", level);
    errorsOf([] {
      (void)settingsOf("/tmp/missing");
      EXPECT_EQ(ad_debug_syslog_critical_msg_only, 0u);
    });
    EXPECT_THAT(daemon().waiting(), IsEmpty());
  }
  for (const char* level : {"1", "3", "7"}) {
    SCOPED_TRACE(level);
    environment("DEBUG_LEVEL", level);
    errorsOf([] {
      (void)settingsOf("/tmp/missing");
      EXPECT_EQ(ad_debug_syslog_critical_msg_only, 1u);
    });
    EXPECT_THAT(daemon().waiting(),
                ElementsAre(AllOf(HasSubstr("ERRO:ad_debug.cc:"), EndsWith(kCriticalOnly1)),
                            AllOf(HasSubstr("ERRO:ad_debug.cc:"), EndsWith(kCriticalOnly2))));
  }
}

TEST_F(ad_debugTest, NullArgumentsOfReadingEndTheProcess) {
  static int32_t level;
  static uint32_t cip;
  static uint32_t sip;
  const struct {
    const char* path;
    int32_t* level;
    uint32_t* cip;
    uint32_t* sip;
  } rows[] = {{nullptr, &level, &cip, &sip},
              {"/tmp/c", nullptr, &cip, &sip},
              {"/tmp/c", &level, nullptr, &sip},
              {"/tmp/c", &level, &cip, nullptr}};
  for (const auto& row : rows) {
    const ChildResult result =
        runInChild([&] { ad_read_debug_cfg(row.path, row.level, row.cip, row.sip); });
    EXPECT_EQ(result.signal(), SIGABRT) << result;
    EXPECT_THAT(result.err, HasSubstr("Assertion `path && level && cip && sip' failed"));
  }
}

TEST_F(ad_debugTest, PrivateCopyIsFilledFromTheEnvironment) {
  const struct {
    const char* name;
    const char* level;
    const char* client;
    const char* server;
    Settings settings;
  } rows[] = {
      {"nothing", nullptr, nullptr, nullptr, {1, 0, kIp9}},
      {"0", "0", nullptr, nullptr, {0, 0, kIp9}},
      {"2", "2", "10.0.0.1", "10.0.0.2", {2, kIp1, kIp2}},
      {"3 stays", "3", nullptr, nullptr, {3, 0, kIp9}},
      {"4", "4", nullptr, nullptr, {1, 0, kIp9}},
      {"7", "7", nullptr, nullptr, {1, 0, kIp9}},
      {"-1", "-1", nullptr, nullptr, {1, 0, kIp9}},
      {"-3", "-3", nullptr, nullptr, {1, 0, kIp9}},
      {"empty", "", nullptr, nullptr, {0, 0, kIp9}},
      {"2^32 + 2", "4294967298", nullptr, nullptr, {1, 0, kIp9}},
      {"-2^32 + 2", "-4294967294", nullptr, nullptr, {1, 0, kIp9}},
      {"bad addresses", nullptr, "here", "there", {1, 0, 0}},
      {"all ones", nullptr, "255.255.255.255", "255.255.255.255", {1, 0, 0}},
  };
  errorsOf([&] {
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      environment("DEBUG_LEVEL", row.level);
      environment("DEBUG_CLIENT_IP", row.client);
      environment("DEBUG_SERVER_IP", row.server);
      store(&ad_debug_cfg_no_share_mem, {9, kIp9, kIp9});
      errno = EXDEV;
      ad_read_debug_cfg_direct_read_from_env();
      EXPECT_EQ(errno, EXDEV);
      EXPECT_EQ(stored(ad_debug_cfg_no_share_mem), row.settings);
      EXPECT_EQ(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
      EXPECT_EQ(ad_debug_syslog_critical_msg_only, 1u);
    }
  });
}

TEST_F(ad_debugTest, ReadingTheEnvironmentReplacesTheSharedRecord) {
  const LogListener log(kSocket);
  errorsOf([] {
    ad_init_debug_lib(kBase);
    ASSERT_NE(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    ad_read_debug_cfg_direct_read_from_env();
    EXPECT_EQ(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
  });
}

TEST_F(ad_debugTest, FirstStatementWithoutInitialisationGivesLevelOneAndNoFilters) {
  errorsOf([] {
    AD_TRCE("not yet\n");  // a suppressed statement is a first use too
    EXPECT_EQ(ad_debug_inited(), 1);
    EXPECT_EQ(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
    EXPECT_EQ(stored(*ad_debug_cfg_p), (Settings{1, 0, 0}));
  });
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

TEST_F(ad_debugTest, SendingBareTextReadsNoConfiguration) {
  errorsOf([] {
    ad_errorlog_printf("bare\n");
    EXPECT_EQ(ad_debug_inited(), 0);
  });
  EXPECT_EQ(daemon().nextLine(), "bare");
}

// ---- Storing ----

TEST_F(ad_debugTest, ParametersAreStored) {
  constexpr uint32_t kOld = kIp9;
  constexpr uint32_t kNew = kIp1;
  const struct {
    const char* name;
    int32_t before;
    Settings arguments;
    Settings after;
  } rows[] = {
      {"nothing", 2, kUnchanged, {2, kOld, kOld}},
      {"client", 2, {-1, kNew, kNoChange}, {2, kNew, kOld}},
      {"server", 2, {-1, kNoChange, kNew}, {2, kOld, kNew}},
      {"clear the filters", 2, {-1, 0, 0}, {2, 0, 0}},
      {"level", 2, level(1), {1, kOld, kOld}},
      {"level 0", 2, level(0), {0, kOld, kOld}},
      {"level 3", 2, level(3), {3, kOld, kOld}},
      {"level 4", 2, level(4), {3, kOld, kOld}},
      {"level 9", 2, level(9), {3, kOld, kOld}},
      {"highest level", 2, level(INT32_MAX), {3, kOld, kOld}},
      {"negative level", 2, level(-7), {2, kOld, kOld}},
      {"lowest level", 2, {INT32_MIN, kNew, kNew}, {2, kNew, kNew}},
      {"a level that came from outside", 9, {-1, kNew, kNew}, {9, kNew, kNew}},
  };
  errorsOf([&] {
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      ad_debug_cfg_t cfg = {row.before, kOld, kOld, {}};
      const Settings& a = row.arguments;
      ad_set_debug_parameter(a.cip, a.sip, a.level, &cfg);
      EXPECT_EQ(stored(cfg), row.after);

      ad_debug_cfg_t in_force = {row.before, kOld, kOld, {}};
      ad_debug_cfg_p = &in_force;
      for (const uint32_t flag : {0u, 1u}) {
        ad_debug_syslog_critical_msg_only = flag;
        ad_debug_set_debug_parameter_directly(a.cip, a.sip, a.level);
        EXPECT_EQ(ad_debug_syslog_critical_msg_only, flag);
      }
      EXPECT_EQ(stored(in_force), row.after);
    }
  });
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

TEST_F(ad_debugTest, NullRecordEndsTheProcess) {
  const ChildResult result = runInChild([] { ad_set_debug_parameter(0, 0, 0, nullptr); });
  EXPECT_EQ(result.signal(), SIGABRT) << result;
  EXPECT_THAT(result.err, HasSubstr("Assertion `cfg_p' failed"));
}

TEST_F(ad_debugTest, LevelFromTheProgramLeavesTheFiltersAndIsClamped) {
  const struct {
    int32_t level;
    int32_t after;
  } rows[] = {{3, 3}, {0, 0}, {4, 3}, {-1, 3}, {1, 1}, {100, 3}};
  errorsOf([&] {
    ad_init_debug_lib("/tmp/nowhere");
    store(ad_debug_cfg_p, {2, kIp9, ip(8, 8, 8, 8)});
    for (const auto& row : rows) {
      SCOPED_TRACE(row.level);
      ad_debug_set_debug_level_directly(row.level);
      EXPECT_EQ(stored(*ad_debug_cfg_p), (Settings{row.after, kIp9, ip(8, 8, 8, 8)}));
    }
  });
}

TEST_F(ad_debugTest, LevelAboveZeroFromTheProgramSetsTheCriticalOnlyFlagFirst) {
  LogListener log(kSocket);
  errorsOf([] {
    ad_init_debug_lib(kBase);
    ASSERT_EQ(ad_debug_syslog_critical_msg_only, 0u);
    system_calls.before_send = [](int, size_t) { EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 0); };
    ad_debug_set_debug_level_directly(2);
    EXPECT_EQ(ad_debug_syslog_critical_msg_only, 1u);
    EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 2);
  });
  EXPECT_THAT(log.waiting(), ElementsAre(EndsWith(kCriticalOnly1), EndsWith(kCriticalOnly2)));
}

TEST_F(ad_debugTest, LevelZeroOrLessFromTheProgramLeavesTheCriticalOnlyFlag) {
  LogListener log(kSocket);
  errorsOf([] {
    ad_init_debug_lib(kBase);
    for (const int32_t level : {0, -1}) {
      for (const uint32_t flag : {0u, 1u}) {
        ad_debug_syslog_critical_msg_only = flag;
        ad_debug_set_debug_level_directly(level);
        EXPECT_EQ(ad_debug_syslog_critical_msg_only, flag);
      }
    }
  });
  EXPECT_THAT(log.waiting(), IsEmpty());
}

TEST_F(ad_debugTest, WithoutAConfigurationSettersReadTheEnvironmentInstead) {
  const auto level = [] { ad_debug_set_debug_level_directly(3); };
  const auto parameters = [] { ad_debug_set_debug_parameter_directly(1, 2, 3); };
  for (void (*set)() : {+level, +parameters}) {
    environment("DEBUG_LEVEL", "2");
    errorsOf([&] {
      ad_debug_syslog_critical_msg_only = 0;
      ad_debug_to_syslogd = 0;
      set();
      EXPECT_EQ(ad_debug_cfg_p, &ad_debug_cfg_no_share_mem);
      EXPECT_EQ(stored(*ad_debug_cfg_p), (Settings{2, 0, 0}));
      EXPECT_EQ(ad_debug_syslog_critical_msg_only, 0u);
    });
    EXPECT_THAT(daemon().waiting(),
                ElementsAre(AllOf(HasSubstr("ERRO:ad_debug.cc:"),
                                  EndsWith("-> ad_init_debug_lib() not called, no level change"))));
  }
}

TEST_F(ad_debugTest, LeavingLevelFourTellsTheSpecialLogBeforeTheLevelIsStored) {
  const LogListener log(kSocket);
  LogListener special("/tmp/sp.0");
  write(kFile, "debug_level=3");
  const auto set = [] { ad_set_debug_parameter(kNoChange, kNoChange, 0, ad_debug_cfg_p); };
  const auto parameters = [] { ad_debug_set_debug_parameter_directly(kNoChange, kNoChange, 3); };
  const auto four = [] { ad_debug_set_debug_parameter_directly(kNoChange, kNoChange, 4); };
  const auto level = [] { ad_debug_set_debug_level_directly(0); };
  const auto reload = [] { raise(SIGUSR1); };
  for (void (*leave)() : {+set, +parameters, +four, +level, +reload}) {
    const std::string err = errorsOf([&] {
      ad_init_debug_lib(kBase);
      ad_set_special_log_path("/tmp/sp");
      ad_debug_cfg_p->ad_debug_level = 4;
      int sends = 0;
      system_calls.before_send = [&](int, size_t) {
        ++sends;
        EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 4);
      };
      leave();
      EXPECT_EQ(sends, 1);
      EXPECT_LT(ad_debug_cfg_p->ad_debug_level, 4);
    });
    EXPECT_EQ(err, "");
    EXPECT_THAT(special.waiting(), ElementsAre("reset special log"));
  }
}

TEST_F(ad_debugTest, LevelFourThatIsNotLeftAndOtherLevelsTellTheSpecialLogNothing) {
  LogListener special("/tmp/ad_errorlog_sp");
  errorsOf([] {
    for (const int32_t before : {-1, 0, 3, 4, 5}) {
      ad_debug_cfg_t cfg = {before, 0, 0, {}};
      ad_set_debug_parameter(1, 1, -1, &cfg);
      EXPECT_EQ(cfg.ad_debug_level, before);
      if (before == 4) continue;
      ad_set_debug_parameter(1, 1, 2, &cfg);
      EXPECT_EQ(cfg.ad_debug_level, 2);
    }
  });
  EXPECT_THAT(special.waiting(), IsEmpty());
}

TEST_F(ad_debugTest, ResetOfAnUnreachableSpecialLogGoesToStandardError) {
  const std::string err = errorsOf([] {
    ad_debug_cfg_t cfg = {4, 0, 0, {}};
    ad_set_debug_parameter(0, 0, 1, &cfg);
  });
  EXPECT_EQ(err, std::string(kWarning) + "reset special log\n");
}

// ---- Reload by signal 10 ----

TEST_F(ad_debugTest, SignalTenReadsTheFileAgain) {
  const LogListener log(kSocket);
  uint32_t* const words = wordsOf(makeSegment(kSocket));
  errorsOf([] {
    ad_init_debug_lib(kBase);
    write(kFile, "debug_level=9\ndebug_client_ip=10.0.0.1\ndebug_server_ip=10.0.0.2\n");
    ASSERT_EQ(kill(getpid(), 10), 0);
  });
  EXPECT_EQ(words[0], 3u) << "clamped";
  EXPECT_EQ(words[1], kIp1);
  EXPECT_EQ(words[2], 0u);
  errorsOf([] {
    ad_init_debug_lib(kBase);
    write(kFile, "debug_level=-1\ndebug_client_ip=0.0.0.0\n");
    ASSERT_EQ(kill(getpid(), 10), 0);
  });
  EXPECT_EQ(words[0], 3u) << "left as it was";
  EXPECT_EQ(words[1], 0u);
}

TEST_F(ad_debugTest, SignalFromAnotherProcessReachesAWaitingOne) {
  const LogListener log(kSocket);
  const uint32_t* const words = wordsOf(makeSegment(kSocket));
  Child child([] {
    signal(SIGUSR1, countCall);
    ad_init_debug_lib(kBase);
    sigset_t blocked;
    sigset_t open;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, &open);
    ASSERT_EQ(::write(STDOUT_FILENO, "ready", 5), 5);
    while (calls == 0) sigsuspend(&open);
  });
  ASSERT_TRUE(child.waitForOut("ready"));
  write(kFile, "debug_level=2");
  child.signal(10);
  EXPECT_EQ(child.wait().exitCode(), 0);
  EXPECT_EQ(words[0], 2u);
}

TEST_F(ad_debugTest, SignalTenFallsBackToTheEnvironment) {
  errorsOf([] {
    ad_init_debug_lib("/tmp/nowhere");
    environment("DEBUG_LEVEL", "2");
    environment("DEBUG_SERVER_IP", "10.0.0.2");
    raise(10);
    EXPECT_EQ(stored(*ad_debug_cfg_p), (Settings{2, 0, kIp2}));
    EXPECT_EQ(ad_debug_syslog_critical_msg_only, 1u);
  });
}

TEST_F(ad_debugTest, ReloadStoresTheDaemonsSettingsInTheRecordInForce) {
  const LogListener log(kSocket);
  const LogListener special("/tmp/sp.0");
  uint32_t* const daemons = wordsOf(makeSegment(kSocket));
  uint32_t* const specials = wordsOf(makeSegment("/tmp/sp.0"));
  errorsOf([] {
    ad_init_debug_lib(kBase);
    ad_set_special_log_path("/tmp/sp");
    write(kFile, "debug_level=2");
    write("/tmp/sp.0.cfg", "debug_level=1");
    raise(10);
  });
  EXPECT_EQ(daemons[0], 0u);
  EXPECT_EQ(specials[0], 2u);
}

TEST_F(ad_debugTest, ReloadAfterACutOffReadsTheEnvironmentOnly) {
  errorsOf([] {
    ad_init_debug_lib("/tmp/nowhere");
    write("/tmp/nowhere.0.cfg", "debug_level=3");
    EXPECT_EQ(ad_init_debug_lib(nullptr), -1);
    raise(10);
    EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 0);
  });
}

TEST_F(ad_debugTest, PreviousHandlerIsCalledWithTheSameSignalNumber) {
  errorsOf([] {
    signal(SIGUSR1, countCall);
    ad_init_debug_lib("/tmp/nowhere");
    EXPECT_EQ(calls, 0);
    raise(SIGUSR1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(last_signal, 10);
    sig_user2(SIGWINCH);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(last_signal, SIGWINCH);
  });
}

TEST_F(ad_debugTest, PreviousHandlerRunsAfterTheSettingsAreStored) {
  errorsOf([] {
    signal(SIGUSR1, [](int) { calls = ad_debug_cfg_p->ad_debug_level; });
    ad_init_debug_lib("/tmp/nowhere");
    write("/tmp/nowhere.0.cfg", "debug_level=3");
    raise(SIGUSR1);
    EXPECT_EQ(calls, 3);
  });
}

TEST_F(ad_debugTest, PreviousHandlerWithSiginfoIsCalledInItsOwnForm) {
  errorsOf([] {
    struct sigaction action = {};
    action.sa_sigaction = countInfoCall;
    action.sa_flags = SA_SIGINFO;
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    ad_init_debug_lib("/tmp/nowhere");
    raise(SIGUSR1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(last_signal, 10);
    EXPECT_EQ(info_signal, 10);
  });
}

TEST_F(ad_debugTest, IgnoredAndDefaultActionsAreNotCalled) {
  for (const auto action : {SIG_IGN, SIG_DFL}) {
    const std::string err = errorsOf([&] {
      signal(SIGUSR1, action);
      ad_init_debug_lib("/tmp/nowhere");
      raise(SIGUSR1);
    });
    EXPECT_EQ(err, "");
  }
}

TEST_F(ad_debugTest, SecondInitialisationStillReachesTheFirstPredecessorOnce) {
  errorsOf([] {
    signal(SIGUSR1, countCall);
    ad_init_debug_lib("/tmp/nowhere");
    ad_init_debug_lib("/tmp/elsewhere");
    ad_init_debug_lib("/tmp/nowhere");
    raise(SIGUSR1);
    EXPECT_EQ(calls, 1);
    raise(SIGUSR1);
    EXPECT_EQ(calls, 2);
  });
}

TEST_F(ad_debugTest, SecondInitialisationTakesOverAHandlerInstalledBetween) {
  errorsOf([] {
    signal(SIGUSR1, countCall);
    ad_init_debug_lib("/tmp/nowhere");
    signal(SIGUSR1, otherHandler);
    ad_init_debug_lib("/tmp/elsewhere");
    raise(SIGUSR1);
    EXPECT_EQ(calls, 100);
    signal(SIGUSR1, SIG_IGN);
    ad_init_debug_lib("/tmp/nowhere");
    raise(SIGUSR1);
    EXPECT_EQ(calls, 100);
  });
}

struct sigaction library_action;

void countAndPassOn(int sig) {
  ++calls;
  library_action.sa_handler(sig);
}

TEST_F(ad_debugTest, HandlerThatPassesOnToOursIsCalledOncePerSignal) {
  errorsOf([] {
    ad_init_debug_lib("/tmp/nowhere");
    struct sigaction between = {};
    between.sa_handler = countAndPassOn;
    sigaction(SIGUSR1, &between, &library_action);
    ad_init_debug_lib("/tmp/elsewhere");
    raise(SIGUSR1);
    EXPECT_EQ(calls, 1);
    raise(SIGUSR1);
    EXPECT_EQ(calls, 2);
  });
}

TEST_F(ad_debugTest, InitialisationKeepsTheSignalMask) {
  errorsOf([] {
    for (const int how : {SIG_UNBLOCK, SIG_BLOCK}) {
      sigset_t mask;
      sigemptyset(&mask);
      sigaddset(&mask, SIGUSR1);
      sigprocmask(how, &mask, nullptr);
      ad_init_debug_lib(how == SIG_BLOCK ? "/tmp/nowhere" : "/tmp/elsewhere");
      ad_set_special_log_path("/tmp/nowhere");
      sigprocmask(SIG_BLOCK, nullptr, &mask);
      EXPECT_EQ(sigismember(&mask, SIGUSR1), how == SIG_BLOCK);
    }
  });
}

TEST_F(ad_debugTest, ReloadKeepsErrno) {
  for (const char* level : {static_cast<const char*>(nullptr), "1"}) {
    environment("DEBUG_LEVEL", level);
    errorsOf([] {
      signal(SIGUSR1, countCall);  // changes errno
      ad_init_debug_lib("/tmp/nowhere");
      errno = EDOM;
      raise(SIGUSR1);
      EXPECT_EQ(errno, EDOM);
      EXPECT_EQ(calls, 1);
    });
  }
}

TEST_F(ad_debugTest, ReloadWithoutAConfigurationEndsTheProcess) {
  const ChildResult result = runInChild([] { sig_user2(10); });
  EXPECT_EQ(result.signal(), SIGABRT) << result;
  EXPECT_THAT(result.err, HasSubstr("Assertion `cfg_p' failed"));
}

// ---- Both widths ----

#ifdef VELORIN_OTHER_WIDTH

// A process of the other width that does what it is told, one command after the other.
class ad_debugWidthTest : public ad_debugTest {
 protected:
  ad_debugWidthTest() : log_(kSocket) {
    if (access(VELORIN_OTHER_WIDTH, X_OK) != 0)
      ADD_FAILURE() << VELORIN_OTHER_WIDTH << " is missing: build both targets (scripts/test does)";
    if (mkfifo("/tmp/go", 0666) != 0) ADD_FAILURE() << strerror(errno);
  }

  static std::vector<std::string> peer(const std::vector<std::string>& commands) {
    std::vector<std::string> argv = {VELORIN_OTHER_WIDTH};
    argv.insert(argv.end(), commands.begin(), commands.end());
    return argv;
  }

  // Lets a peer that waits go on.
  static void go() { close(open("/tmp/go", O_WRONLY)); }

  LogListener log_;
};

std::string listOfWords(uint32_t first) {
  std::string list;
  for (uint32_t i = 0; i < 35; ++i) list += std::to_string(first + i) + " ";
  return list + "\n";
}

TEST_F(ad_debugWidthTest, SeesEveryWordOfTheRecordThatThisWidthMade) {
  errorsOf([] {
    ad_init_debug_lib(kBase);
    store(ad_debug_cfg_p, {1000, 1001, 1002});
    for (uint32_t i = 0; i < 32; ++i) ad_debug_cfg_p->para[i] = 1003 + i;
    const ChildResult result = runProgram(peer({"init", kBase, "words"}));
    EXPECT_EQ(result.out, listOfWords(1000)) << result;
  });
  EXPECT_EQ(countSegments(), 1u);
}

TEST_F(ad_debugWidthTest, MakesTheRecordThatThisWidthSees) {
  const ChildResult result = runProgram(peer({"init", kBase, "fill", "2000"}));
  EXPECT_EQ(result.exitCode(), 0) << result;
  EXPECT_EQ(errorsOf([] {
              ad_init_debug_lib(kBase);
              EXPECT_EQ(stored(*ad_debug_cfg_p), (Settings{2000, 2001, 2002}));
              for (uint32_t i = 0; i < 32; ++i) EXPECT_EQ(ad_debug_cfg_p->para[i], 2003 + i);
            }),
            "");
  EXPECT_EQ(countSegments(), 1u);
}

TEST_F(ad_debugWidthTest, AttachedProcessesOfBothSeeEachOthersChangesAtOnce) {
  errorsOf([] {
    ad_init_debug_lib(kBase);
    Child other(peer({"init", kBase, "level", "2", "await", "/tmp/go", "words", "trace", "wanted",
                      "fill", "3000"}));
    ASSERT_TRUE(other.waitForOut("awaiting"));
    EXPECT_EQ(ad_debug_cfg_p->ad_debug_level, 2) << "the other's change";
    store(ad_debug_cfg_p, {3, 0, 7});
    go();
    const ChildResult result = other.wait();
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_THAT(result.out, HasSubstr("3 0 7 0 "));
    EXPECT_EQ(stored(*ad_debug_cfg_p), (Settings{3000, 3001, 3002}));
  });
  EXPECT_THAT(log_.waiting(), testing::Contains(EndsWith("-> wanted\n")));
}

TEST_F(ad_debugWidthTest, LogsThroughTheSameDaemonInTheSameForm) {
  const std::string big(5000, 'x');
  errorsOf([&] {
    ad_init_debug_lib(kBase);
    ad_errorlog_printf("%s", "one line\n");
    ad_errorlog_printf("%s", big.c_str());
    const ChildResult result = runProgram(peer({"init", kBase, "send", "one line\n", "send", big}));
    EXPECT_EQ(result.exitCode(), 0) << result;
    EXPECT_EQ(result.err, "");
  });
  std::vector<LogDatagram> sent;
  while (const auto datagram = log_.poll()) sent.push_back(*datagram);
  ASSERT_EQ(sent.size(), 4u);
  for (const size_t ours : {0, 1}) {
    const LogDatagram& mine = sent[ours];
    const LogDatagram& other = sent[ours + 2];
    EXPECT_EQ(mine.text, other.text);
    EXPECT_EQ(mine.bytes.size(), other.bytes.size());
    EXPECT_GE(std::pair(other.sec, other.usec), std::pair(mine.sec, mine.usec));
    EXPECT_LE(other.sec - mine.sec, 60u);
  }
}

TEST_F(ad_debugWidthTest, FilterAndLevelOfThisWidthHoldForTheOther) {
  errorsOf([] {
    ad_init_debug_lib(kBase);
    store(ad_debug_cfg_p, {1, kIp1, 0});
    const ChildResult result =
        runProgram(peer({"init", kBase, "trace", "too deep", "serve", "10.0.0.2", "error",
                         "other client", "serve", "10.0.0.1", "error", "right client"}));
    EXPECT_EQ(result.exitCode(), 0) << result;
  });
  EXPECT_THAT(log_.waiting(), ElementsAre(EndsWith("-> right client\n")));
}

TEST_F(ad_debugWidthTest, ReloadsTheSameFileBySignalTen) {
  uint32_t* const words = wordsOf(makeSegment(kSocket));
  Child other(peer({"init", kBase, "raise", "await", "/tmp/go", "raise"}));
  ASSERT_TRUE(other.waitForOut("awaiting"));
  EXPECT_EQ(words[0], 0u);
  write(kFile, "debug_level=4294967298\ndebug_client_ip=10.0.0.1\n");
  go();
  EXPECT_EQ(other.wait().exitCode(), 0);
  EXPECT_EQ(words[0], 3u) << "saturated, then clamped";
  EXPECT_EQ(words[1], kIp1);
}

#endif  // VELORIN_OTHER_WIDTH

}  // namespace
