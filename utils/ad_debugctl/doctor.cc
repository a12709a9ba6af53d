// Why no log line arrives. See doctor.h.
#include "doctor.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/crash_dir.h"
#include "common/file.h"
#include "common/text.h"
#include "record.h"
#include "report.h"
#include "settings.h"

namespace {

constexpr mode_t kForAll = 0666;      // of the socket and of the record
constexpr int kQueuePatience = 1000;  // milliseconds that a daemon may take to make room
constexpr int kShortQueue = 64;       // datagrams
constexpr size_t kSettingsRead = 1025;
constexpr char kQueueLength[] = "/proc/sys/net/unix/max_dgram_qlen";
constexpr char kCorePattern[] = "/proc/sys/kernel/core_pattern";

const char kStartAnew[] = "then start ad_logd anew, and the processes that log";

std::string octal(mode_t mode) {
  char text[16];
  (void)snprintf(text, sizeof text, "%04o", mode & 07777);
  return text;
}

std::string user(uid_t uid) {
  return "user " + std::to_string(uid);
}

// A small file of the kernel's, without the newline at its end; empty, with errno, on failure.
std::optional<std::string> read_line(const char* path) {
  const Fd fd(open(path, O_RDONLY | O_CLOEXEC));
  // LCOV_EXCL_BR_NEXT: the kernel has them, with a newline
  std::optional<std::string> text = fd.is_open() ? read_up_to(fd.get(), 4096) : std::nullopt;
  // LCOV_EXCL_BR_NEXT: as above
  if (text && !text->empty() && text->back() == '\n') text->pop_back();
  return text;
}

// What ad_init_debug_lib makes of the segment that a socket leads to.
struct Segment {
  int id = -1;  // -1: there is none, so that one is made
  shmid_ds status = {};
  std::string objection;  // why it is passed over; empty: it is not
};

Segment look_at_segment(const std::string& path) {
  Segment segment;
  std::string why;
  segment.id = find_segment(path, &why);
  if (segment.id == -1) return segment;
  if (shmctl(segment.id, IPC_STAT, &segment.status) != 0) {
    segment.objection = strerror(errno);
  } else {
    segment.objection = objection(segment.id);
  }
  return segment;
}

class Doctor {
 public:
  explicit Doctor(const Request& request) : request_(request) {}

  bool finds_something_wrong();

 private:
  void choose_socket();
  std::string control(const std::string& command) const;
  std::string start_daemon() const;
  std::string replace_socket() const;

  bool check_socket();
  void check_daemon();
  void check_queue(int fd);
  void check_queue_length();

  void check_passed_over();
  bool check_record();
  void check_settings_in_force();
  void check_level(uint32_t level);
  void check_special_log();
  void check_filters(const Words& words);

  void check_settings_file();
  void check_unread_settings_file(const std::string& file);

  void check_crash_dir();
  void check_markers();
  void check_core_limit();
  void check_core_pattern();
  void check_core_dir(const std::string& dir);

  const Request& request_;
  Report report_;
  std::string path_;                      // of the socket that a process of this user sends to
  Segment segment_;                       // that it leads to
  std::vector<std::string> passed_over_;  // sockets before it
};

bool Doctor::finds_something_wrong() {
  choose_socket();
  check_passed_over();
  if (check_socket()) {
    check_daemon();
    check_queue_length();
    if (check_record()) check_settings_in_force();
  } else {
    check_queue_length();
  }
  check_settings_file();
  check_crash_dir();
  check_core_limit();
  check_core_pattern();
  return report_.anything_wrong();
}

// By the rule of ad_init_debug_lib: the first one that leads to a record, or to where one can be
// made; else the last one.
void Doctor::choose_socket() {
  for (const std::string& path : request_.paths) {
    struct stat file;
    path_ = path;
    segment_ = Segment();
    if (stat(path.c_str(), &file) == 0) {
      segment_ = look_at_segment(path);
      if (segment_.objection.empty()) return;
    }
    if (path != request_.paths.back()) passed_over_.push_back(path);
  }
}

// ---- Fixes ----

// A call of this program for the same record.
std::string Doctor::control(const std::string& command) const {
  if (request_.base.empty()) return "ad_debugctl --path " + shell_word(path_) + " " + command;
  if (!request_.base_is_option) return "ad_debugctl " + command;
  return "ad_debugctl --base " + shell_word(request_.base) + " " + command;
}

std::string Doctor::start_daemon() const {
  if (request_.base.empty()) return "start the daemon whose socket this is";
  return "ad_logd --base " + shell_word(request_.base) + " &";
}

std::string Doctor::replace_socket() const {
  return "mv " + shell_word(path_) + " " + shell_word(path_ + ".old") + "; " + start_daemon();
}

// ---- The way of a line ----

// Returns: whether there is one that the following checks can look at.
bool Doctor::check_socket() {
  struct stat file;
  if (stat(path_.c_str(), &file) != 0) {
    const int err = errno;
    std::string paths;
    for (const std::string& path : passed_over_) paths += visible(path) + " and ";
    report_.wrong("socket", {paths + visible(path_) + ": " + strerror(err) +
                                 ": lines go to the standard error of who writes them",
                             start_daemon()});
    return false;
  }
  if (!S_ISSOCK(file.st_mode)) {
    report_.wrong("socket", {visible(path_) + " is not a socket", replace_socket()});
    return false;
  }
  if ((file.st_mode & 0222) != 0222) {
    report_.warn("socket", {visible(path_) + " has the mode " + octal(file.st_mode) +
                                ": not every user may send to it",
                            "chmod 0666 " + shell_word(path_)});
    return true;
  }
  report_.ok("socket", visible(path_));
  return true;
}

void Doctor::check_daemon() {
  const Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un to = {AF_UNIX, ""};
  path_.copy(to.sun_path, sizeof to.sun_path - 1);
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0) {
    check_queue(fd.get());
  } else if (errno == ECONNREFUSED) {
    report_.wrong("daemon", {"nobody answers at " + visible(path_), start_daemon()});
  } else if (errno == EACCES) {
    report_.wrong("daemon", {"you may not send to " + visible(path_) + ": " + strerror(errno),
                             "chmod 0666 " + shell_word(path_)});
  } else if (errno == EPROTOTYPE) {  // LCOV_EXCL_BR_LINE: as below
    report_.wrong("daemon", {visible(path_) + " is a socket of another kind, not for datagrams",
                             replace_socket()});
    // LCOV_EXCL_START: a socket that goes meanwhile
  } else {
    report_.wrong("daemon", {visible(path_) + ": " + strerror(errno), start_daemon()});
    // LCOV_EXCL_STOP
  }
}

// A connected socket is ready for output when its peer's queue has room; nothing is sent.
void Doctor::check_queue(int fd) {
  pollfd room = {fd, POLLOUT, 0};
  // LCOV_EXCL_BR_NEXT: a daemon that ends meanwhile
  if (poll(&room, 1, kQueuePatience) == 1 && (room.revents & POLLOUT) != 0) {
    report_.ok("daemon", "answers, and has room for lines");
    return;
  }
  report_.wrong("daemon", {"answers, but takes no line: its queue stays full",
                           "let ad_logd go on: it is stopped (kill -CONT), or what reads its "
                           "output does not"});
}

void Doctor::check_queue_length() {
  const std::string fix =
      "sysctl -w net.unix.max_dgram_qlen=512  # and start ad_logd anew: its socket keeps the old";
  const std::optional<std::string> text = read_line(kQueueLength);
  if (!text) {
    report_.warn("queue length",
                 {std::string("not to be seen here: ") + kQueueLength + ": " + strerror(errno),
                  "ask on the machine itself, outside of its containers"});
    return;
  }
  const int length = atoi(text->c_str());
  if (length < kShortQueue) {
    report_.warn("queue length",
                 {std::to_string(length) + " lines: more at a time go to the standard error of who "
                                           "writes them",
                  fix});
  } else {
    report_.ok("queue length", std::to_string(length) + " lines");
  }
}

// ---- The record ----

std::string remove_segment(int id) {
  return "ipcrm -m " + std::to_string(id) + "  # as its owner; " + kStartAnew;
}

// The user's own daemon gets no lines when its record is none.
void Doctor::check_passed_over() {
  for (const std::string& path : passed_over_) {
    const Segment segment = look_at_segment(path);
    if (segment.objection.empty()) continue;
    report_.wrong("record", {"that of " + visible(path) +
                                 " is passed over, and so is the socket: " + segment.objection,
                             remove_segment(segment.id)});
  }
}

// Returns: whether it can be read.
bool Doctor::check_record() {
  if (segment_.id == -1) {
    report_.warn("record", {"there is none for " + visible(path_) +
                                ": processes that run go by older settings, or by their own",
                            "start ad_logd anew, and the processes that log"});
    return false;
  }
  if (!segment_.objection.empty()) {
    report_.wrong("record", {segment_.objection + ": each process goes by its own settings",
                             remove_segment(segment_.id)});
    return false;
  }
  struct stat socket = {};
  (void)stat(path_.c_str(), &socket);
  const ipc_perm& perm = segment_.status.shm_perm;
  const std::string what = "id " + std::to_string(segment_.id) + ", " +
                           std::to_string(segment_.status.shm_segsz) + " bytes, " + user(perm.uid) +
                           ", mode " + octal(perm.mode & 0777);
  if ((perm.mode & kForAll) != kForAll) {
    report_.warn("record", {what + ": not every user's processes can attach it",
                            remove_segment(segment_.id)});
  } else if (perm.uid != 0 && perm.uid != socket.st_uid) {
    report_.warn("record", {what + ": it does not belong to the daemon's " + user(socket.st_uid) +
                                ", and its owner can take it away",
                            remove_segment(segment_.id)});
  } else {
    report_.ok("record", what);
  }
  return true;
}

void Doctor::check_settings_in_force() {
  std::string why;
  const std::optional<Record> record = attach(path_, &why);
  // LCOV_EXCL_START: a record that goes meanwhile
  if (!record) {
    report_.wrong("record", {why, std::string("ipcs -m  # ") + kStartAnew});
    return;
  }
  // LCOV_EXCL_STOP
  const Words words = read_words(record->cfg);
  (void)ad_return_ad_debug_cfg_p(record->cfg);
  check_level(words[kLevel]);
  check_filters(words);
}

void Doctor::check_level(uint32_t word) {
  constexpr const char* kWritten[] = {
      "0: errors and critical lines; trace lines need 2, detail lines 3",
      "1: errors and critical lines; trace lines need 2, detail lines 3",
      "2: errors, critical and trace lines; detail lines need 3",
      "3: all lines",
  };
  const auto level = static_cast<int32_t>(word);
  if (word <= 3) return report_.ok("level", kWritten[word]);
  if (word == kSpecialLevel) return check_special_log();
  const std::string counts_as = level < 0 ? "0" : "3";
  report_.warn("level", {std::to_string(level) + " is no level, and counts as " + counts_as,
                         control("level " + counts_as)});
}

// At level 4 every line has a second way to go.
void Doctor::check_special_log() {
  std::string paths;
  for (const std::string& path : sockets_of(request_.special_base)) {
    const Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un to = {AF_UNIX, ""};
    path.copy(to.sun_path, sizeof to.sun_path - 1);
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0)
      return report_.ok("level", "4: all lines, to the special log at " + visible(path) + " too");
    paths += (paths.empty() ? "" : " and ") + visible(path);
  }
  report_.warn("level", {"4: all lines, and nobody answers at the special log's " + paths +
                             ": the copies go to the standard error of who writes them",
                         control("level 3")});
}

void Doctor::check_filters(const Words& words) {
  bool any = false;
  for (const Field field : {kClient, kServer}) {
    if (words[field] == 0) continue;
    any = true;
    const std::string name = kFieldNames[field];
    report_.wrong("filters",
                  {name + " " + text_of(field, words[field], /*json=*/false) +
                       ": of connections with another one nothing is written, not even errors",
                   control(name + " off")});
  }
  if (!any) report_.ok("filters", "none");
}

// ---- The settings' file ----

void Doctor::check_settings_file() {
  const std::string file = path_ + ".cfg";
  std::vector<std::string> others = passed_over_;
  if (!request_.base.empty()) others.push_back(request_.base);
  for (const std::string& other : others) check_unread_settings_file(other + ".cfg");

  std::string why;
  const Fd fd = open_regular(AT_FDCWD, file, Links::kFollow, &why);
  struct stat status = {};
  // LCOV_EXCL_BR_NEXT: no other error where the socket was found
  if (!fd.is_open() && stat(file.c_str(), &status) != 0 && errno == ENOENT) {
    report_.ok("settings", "no " + visible(file) + ": a process goes by its environment");
    return;
  }
  const std::optional<std::string> text =
      fd.is_open() ? read_up_to(fd.get(), kSettingsRead) : std::nullopt;
  if (!text) {
    if (fd.is_open()) why = strerror(errno);  // LCOV_EXCL_BR_LINE: only of a damaged disk
    // LCOV_EXCL_BR_NEXT: as above
    const bool refused = !fd.is_open() && S_ISREG(status.st_mode);
    report_.wrong("settings",
                  {visible(file) + " cannot be used: " + why,
                   refused ? "chmod 0644 " + shell_word(file)
                           : "mv " + shell_word(file) + " " + shell_word(file + ".old")});
    return;
  }
  const std::vector<Finding> findings = findings_in_settings(file, *text);
  for (const Finding& finding : findings)
    report_.wrong("settings", {visible(file) + ": " + finding.what, finding.fix});
  if (!findings.empty()) return;
  // LCOV_EXCL_BR_NEXT: it is open
  if (fstat(fd.get(), &status) == 0 && (status.st_mode & 0444) != 0444) {
    report_.warn("settings", {visible(file) + " has the mode " + octal(status.st_mode) +
                                  ": not every user's processes can read it",
                              "chmod 0644 " + shell_word(file)});
    return;
  }
  report_.ok("settings", visible(file));
}

void Doctor::check_unread_settings_file(const std::string& file) {
  struct stat status;
  if (stat(file.c_str(), &status) != 0) return;
  const std::string used = path_ + ".cfg";
  const bool free = stat(used.c_str(), &status) != 0;
  report_.wrong("settings", {visible(file) + " is not read, as the socket is " + visible(path_),
                             "rm " + shell_word(file) +
                                 (free ? "  # or move it to " + visible(used) +
                                             ", when all who log there are to read it"
                                       : "")});
}

// ---- Crashes ----

void Doctor::check_crash_dir() {
  const std::string dir = kCrashDir;
  struct stat status;
  if (stat(kCrashDir, &status) != 0) {
    report_.wrong("crash directory",
                  {dir + ": " + strerror(errno) + ": a process that crashes waits for ever",
                   "mkdir -p " + dir + " && chmod 1777 " + dir});
    return;
  }
  if (!S_ISDIR(status.st_mode)) {
    report_.wrong("crash directory",
                  {dir + " is not a directory: a process that crashes waits for ever",
                   "mv " + dir + " " + dir + ".old; mkdir " + dir + " && chmod 1777 " + dir});
    return;
  }
  struct statvfs space;
  if (faccessat(AT_FDCWD, kCrashDir, W_OK | X_OK, AT_EACCESS) != 0) {
    const int err = errno;
    report_.wrong("crash directory",
                  {dir + ": " + strerror(err) + ": a process that crashes waits for ever",
                   err == EROFS ? "mount -o remount,rw " + dir : "chmod 1777 " + dir});
    // LCOV_EXCL_BR_NEXT: it is there
  } else if (statvfs(kCrashDir, &space) == 0 && space.f_bavail == 0) {
    report_.wrong("crash directory", {dir + ": no space left for traces", "ad_crash list"});
  } else {
    report_.ok("crash directory", dir + ", mode " + octal(status.st_mode));
  }
  check_markers();
}

void Doctor::check_markers() {
  const Fd dir = open_crash_dir(kCrashDir);
  const std::optional<std::vector<CrashFile>> files =
      dir.is_open() ? crash_files(dir.get()) : std::nullopt;
  if (!files) {
    report_.warn("markers", {std::string(kCrashDir) + " cannot be read: " + strerror(errno),
                             "ask as the superuser"});
    return;
  }
  bool any = false;
  for (const CrashFile& file : *files) {
    if (file.pid) continue;
    any = true;
    const std::string end = file.program[0] == '-' ? "-- " : "";
    report_.wrong(
        "markers",
        {visible(file.file) + " is left over: a process of " + visible(file.program) +
             " that already runs waits for ever when it crashes, without a trace",
         "ad_crash clear " + end + shell_word(file.program) +
             "  # removes its traces, too (ad_crash decode shows them); or start it anew"});
  }
  if (!any) report_.ok("markers", "none left over");
}

// Whether the crash handler of a program that is started like this one may have a core: it lowers
// the limit when it is installed, and raises it at the crash.
bool limit_can_be_raised() {
  constexpr rlimit kNone = {0, 0};
  constexpr rlimit kAll = {RLIM_INFINITY, RLIM_INFINITY};
  // LCOV_EXCL_BR_NEXT: one machine answers one way
  return setrlimit(RLIMIT_CORE, &kNone) == 0 && setrlimit(RLIMIT_CORE, &kAll) == 0;
}

bool core_is_piped() {
  const std::string pattern = read_line(kCorePattern).value_or("");
  return !pattern.empty() && pattern[0] == '|';
}

void Doctor::check_core_limit() {
  rlimit limit = {};
  (void)getrlimit(RLIMIT_CORE, &limit);
  const auto words = [](rlim_t value) {
    return value == RLIM_INFINITY ? std::string("unlimited") : std::to_string(value);
  };
  const std::string now = words(limit.rlim_cur) + ", at most " + words(limit.rlim_max);
  // Tried on this very process, which needs its limit no more.
  // LCOV_EXCL_BR_NEXT: as above
  if (limit_can_be_raised()) return report_.ok("core limit", now + "; a crash raises it");
  if (core_is_piped()) return report_.ok("core limit", now + "; does not count for a pipe");
  report_.warn("core limit",
               {now + ": a program with the crash handler leaves no core, as it may not raise the "
                      "limit that the handler sets to 0",
                "let what starts it give it CAP_SYS_RESOURCE (systemd: AmbientCapabilities=), or "
                "let core_pattern begin with |"});
}

void Doctor::check_core_pattern() {
  const std::optional<std::string> pattern = read_line(kCorePattern);
  // LCOV_EXCL_START: the kernel has it
  if (!pattern) {
    report_.warn("core pattern", {std::string(kCorePattern) + ": " + strerror(errno),
                                  "ask as the superuser, on the machine itself"});
    return;
  }
  // LCOV_EXCL_STOP
  const std::string name = pattern->substr(0, pattern->find(' '));
  if (pattern->empty()) {
    report_.warn("core pattern",
                 {"empty: no core is written", "sysctl -w kernel.core_pattern=core"});
  } else if (name[0] == '|' && access(name.c_str() + 1, X_OK) != 0) {
    report_.warn("core pattern", {visible(*pattern) + ": " + strerror(errno) + ": cores are lost",
                                  "sysctl -w kernel.core_pattern=core"});
  } else if ((*pattern)[0] == '/') {
    check_core_dir(pattern->substr(0, pattern->rfind('/') + 1));
  } else {
    report_.ok("core pattern", visible(*pattern));
  }
}

void Doctor::check_core_dir(const std::string& dir) {
  struct stat status;
  const bool known = dir.find('%') == std::string::npos;
  if (known && stat(dir.c_str(), &status) != 0) {
    report_.warn("core pattern",
                 {visible(dir) + ": " + strerror(errno) + ": cores are lost",
                  "mkdir -p " + shell_word(dir) + " && chmod 1777 " + shell_word(dir)});
  } else {
    report_.ok("core pattern", "cores go to " + visible(dir));
  }
}

}  // namespace

int doctor(const Request& request) {
  const bool wrong = Doctor(request).finds_something_wrong();
  finish_output();
  return wrong ? kFailed : kDone;
}
