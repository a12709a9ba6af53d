// The debug configuration that all processes share, and the log that it steers. See
// velorin/ad_debug.
#include "velorin/ad_debug"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "internal/log_datagram.h"
#include "internal/log_format.h"
#include "internal/log_note.h"
#include "internal/target.h"
#include "ku_syslog.h"

#include "internal/always_assert.h"

ad_debug_cfg_t* ad_debug_cfg_p = nullptr;
ad_debug_cfg_t ad_debug_cfg_no_share_mem = {};
uint32_t ad_debug_to_syslogd = 1;
uint32_t ad_debug_syslog_critical_msg_only = 1;
uint32_t ad_debug_in_sighandler = 0;
uint32_t ad_current_client_ip = 0;
uint32_t ad_current_server_ip = 0;
uint32_t ad_debug_module_id = 0;
char ad_debug_process_name[256] = "";

namespace {

using velorin::internal::deliver;
using velorin::internal::ErrnoKeeper;
using velorin::internal::format_line;
using velorin::internal::format_text;
using velorin::internal::kDatagramRoom;
using velorin::internal::kDatagramTrailer;
using velorin::internal::kTextMax;
using velorin::internal::LogSender;
using velorin::internal::open_sender;
using velorin::internal::write_stderr;
using velorin::internal::write_stderr_line;

constexpr int kProjectId = 'd';    // of the record's key
constexpr int kRecordMode = 0666;  // every process may change the level
constexpr int kReloadSignal = 10;  // SIGUSR1. Kept: programs and scripts send 10, whatever
                                   // the handler's name says.
constexpr int32_t kUnchangedLevel = -1;
constexpr uint32_t kUnchangedIp = UINT32_MAX;
constexpr int32_t kHighestLevel = 3;  // that a setter stores
constexpr int32_t kSpecialLevel = 4;  // stored from outside only
constexpr int32_t kFallbackLevel = 1;

constexpr int kSyslogCritical = 2;
constexpr int kSyslogDebug = 7;
constexpr uint32_t kSyslogZero = 0;
constexpr uint32_t kLineMessageId = 100000;
constexpr uint32_t kMallocMessageId = 512035;
constexpr int kMallocExit = 126;

// Words that other threads, other processes and signal handlers touch.
template <typename T>
T load(const T& word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <typename T>
void store(T* word, T value) {
  __atomic_store_n(word, value, __ATOMIC_RELAXED);
}

using velorin::internal::kLogNoteOwner;
using velorin::internal::kLogNoteType;
using velorin::internal::LogNote;

// By this ad_debugctl knows a program that the static library is linked into.
__attribute__((used, aligned(4), section(".note.velorin-util"))) constexpr LogNote kLogNote = {
    sizeof kLogNoteOwner, sizeof(uint32_t), kLogNoteType, "velorin-util", sizeof(ad_debug_cfg_t)};

sockaddr_un sunx_errorlog = {AF_UNIX, "/tmp/ad_errorlog"};
sockaddr_un sunx_errorsp = {AF_UNIX, "/tmp/ad_errorlog_sp"};
char old_send_path[512] = "";  // of the last initialisation

using Handler = void (*)(int);
using InfoHandler = void (*)(int, siginfo_t*, void*);

// What the reload signal did before it was ours.
Handler previous_handler = nullptr;
InfoHandler previous_info_handler = nullptr;

constexpr char kUnreachable[] =
    "WARNING: cannot contact ad_logd, will keep trying. Output redirected to stderr.\n";

// The text goes to standard error; a warning says when this begins.
void show_unsent(bool first, const char* text, size_t len) {
  if (first && load(ad_debug_in_sighandler) == 0) write_stderr(kUnreachable, strlen(kUnreachable));
  write_stderr_line(text, len, /*end_line=*/text[len - 1] != '\n');
}

LogSender sender = {"WARNING: ad_logd is NOT enabled, no error will be logged in this session.\n",
                    show_unsent};

// ---- Configuration ----

int32_t parse_level(const char* text) {
  const long value = strtol(text, nullptr, 10);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

int use_private_record(ad_debug_cfg_t** cfg_pp) {
  store(cfg_pp, &ad_debug_cfg_no_share_mem);
  return 1;
}

void clear_private_record() {
  ad_debug_cfg_t* cfg = &ad_debug_cfg_no_share_mem;
  store(&cfg->ad_debug_level, int32_t{0});
  store(&cfg->debug_target_client_ip, uint32_t{0});
  store(&cfg->debug_target_server_ip, uint32_t{0});
  for (uint32_t& word : cfg->para) store(&word, uint32_t{0});
}

// The user's own daemon first, then the superuser's; returns what the attach that counts returned.
int choose_daemon(const char* base, sockaddr_un* address) {
  // A longer path is cut, as the address has no more room.
  (void)snprintf(address->sun_path, sizeof address->sun_path, "%s.%d", base,
                 static_cast<int>(getuid()));
  if (ad_get_ad_debug_cfg_p(address->sun_path, &ad_debug_cfg_p) == 0) return 0;
  (void)snprintf(address->sun_path, sizeof address->sun_path, "%s.0", base);
  return ad_get_ad_debug_cfg_p(address->sun_path, &ad_debug_cfg_p);
}

void install_reload_handler() {
  struct sigaction action = {};
  action.sa_handler = sig_user2;
  struct sigaction previous = {};
  if (sigaction(kReloadSignal, &action, &previous) != 0) return;
  const bool info = (previous.sa_flags & SA_SIGINFO) != 0;
  // Installed again: the handler from before the first time is still the one to pass signals on to.
  if (!info && previous.sa_handler == sig_user2) return;
  const bool callable = previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN;
  store(&previous_handler, callable && !info ? previous.sa_handler : nullptr);
  store(&previous_info_handler, callable && info ? previous.sa_sigaction : nullptr);
}

// Set while this thread is in the previous handler: that one may have been told to call sig_user2,
// and a second initialisation closes the ring. Static TLS, so that a handler never allocates it.
__attribute__((tls_model("initial-exec"))) thread_local bool passing_on = false;

void call_previous_handler(int sig) {
  if (passing_on) return;
  passing_on = true;
  if (const Handler handler = load(previous_handler)) handler(sig);
  if (const InfoHandler handler = load(previous_info_handler)) {
    siginfo_t info = {};
    info.si_signo = sig;
    ucontext_t context = {};
    (void)getcontext(&context);
    handler(sig, &info, &context);
  }
  passing_on = false;
}

// Keeps the reload signal from this thread while the paths and the previous handler change.
class ReloadBlocker {
 public:
  ReloadBlocker() {
    sigset_t reload;
    (void)sigemptyset(&reload);
    (void)sigaddset(&reload, kReloadSignal);
    (void)pthread_sigmask(SIG_BLOCK, &reload, &before_);
  }
  ~ReloadBlocker() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  ReloadBlocker(const ReloadBlocker&) = delete;
  ReloadBlocker& operator=(const ReloadBlocker&) = delete;

 private:
  sigset_t before_;
};

void read_settings_from_environment(int32_t* level, uint32_t* cip, uint32_t* sip) {
  if (const char* text = getenv("DEBUG_LEVEL")) {
    *level = parse_level(text);
    if (*level > 0) ad_debug_set_syslog_critical_msg_only(1);
  }
  if (const char* text = getenv("DEBUG_CLIENT_IP")) *cip = inet_addr(text);
  if (const char* text = getenv("DEBUG_SERVER_IP")) *sip = inet_addr(text);
}

void parse_settings(const char* text, int32_t* level, uint32_t* cip, uint32_t* sip) {
  constexpr char kLevelKey[] = "debug_level=";
  constexpr char kClientKey[] = "debug_client_ip=";
  constexpr char kServerKey[] = "debug_server_ip=";
  if (const char* key = strstr(text, kLevelKey)) *level = parse_level(key + strlen(kLevelKey));
  if (const char* key = strstr(text, kClientKey)) *cip = inet_addr(key + strlen(kClientKey));
  // Kept: inet_addr gets the key itself, not its value, so the file never changes the server
  // filter.
  if (const char* key = strstr(text, kServerKey)) *sip = inet_addr(key);
}

// ---- The log ----

void ad_write_to_logd(const sockaddr_un& to, const char* fmt, va_list ap)
    __attribute__((format(printf, 2, 0)));

void ad_write_to_logd(const sockaddr_un& to, const char* fmt, va_list ap) {
  const ErrnoKeeper keeper;
  if (!open_sender(&sender)) return;
  char text[kDatagramRoom];
  const size_t len = format_text(text, fmt, ap);
  if (len > 0) deliver(&sender, to, text, len);
}

// The text of one statement, made once for all of its copies: the daemon's begins with the process
// name, the others behind it.
class StatementText {
 public:
  // `plain`: a copy of `ap`, see format_line.
  StatementText(ad_debug_tag_t tag, const char* file, int line, const char* fmt, va_list ap,
                va_list* plain) __attribute__((format(printf, 5, 0)));

  // False when vsnprintf refused the caller's format: nothing is written then.
  bool good() const { return good_; }
  const char* unnamed() const { return unnamed_; }

  void send_named();
  void send_unnamed();
  void show_unnamed(bool end_line) const;

 private:
  char text_[sizeof ad_debug_process_name + kDatagramRoom];
  char* unnamed_;
  size_t unnamed_len_;  // at most kTextMax
  bool good_;
};

constexpr char kTags[][5] = {"ERRO", "CRTC", "TRCE", "DETL"};

char* put(char* at, const char* text, size_t len) {
  memcpy(at, text, len);
  return at + len;
}

// At most `max` bytes of a text that is mostly too short to be worth a call of strnlen and memcpy.
char* put_string(char* at, const char* text, size_t max) {
  for (; max > 0 && *text != '\0'; --max) *at++ = *text++;
  return at;
}

char* put(char* at, int number) {
  return std::to_chars(at, at + 11, number).ptr;
}

StatementText::StatementText(ad_debug_tag_t tag, const char* file, int line, const char* fmt,
                             va_list ap, va_list* plain) {
  constexpr size_t kNameMax = sizeof ad_debug_process_name - 1;
  char* at = put_string(text_, ad_debug_process_name, kNameMax);
  unnamed_ = at;
  *at++ = '(';
  at = put(at, getpid());
  *at++ = ')';
  at = put(at, kTags[tag], 4);
  *at++ = ':';
  at = put_string(at, file, NAME_MAX);
  *at++ = ':';
  at = put(at, line);
  at = put(at, "-> ", 3);
  const size_t prefix = static_cast<size_t>(at - unnamed_);
  const int written = format_line(at, kTextMax - prefix + 1, fmt, ap, plain);
  good_ = written >= 0;
  if (!good_) *at = '\0';
  const size_t len = prefix + static_cast<size_t>(good_ ? written : 0);
  unnamed_len_ = len < kTextMax ? len : kTextMax;
}

void StatementText::send_named() {
  const size_t len = static_cast<size_t>(unnamed_ - text_) + unnamed_len_;
  if (len <= kTextMax) return deliver(&sender, sunx_errorlog, text_, len);
  // The name pushes the text over the limit. The trailer goes over text that the other copies show.
  char covered[kDatagramTrailer];
  memcpy(covered, text_ + kTextMax, sizeof covered);
  deliver(&sender, sunx_errorlog, text_, kTextMax);
  memcpy(text_ + kTextMax, covered, sizeof covered);
}

void StatementText::send_unnamed() {
  deliver(&sender, sunx_errorsp, unnamed_, unnamed_len_);
}

void StatementText::show_unnamed(bool end_line) const {
  write_stderr_line(unnamed_, unnamed_len_, end_line);
}

bool ends_line(const char* fmt) {
  const size_t len = strlen(fmt);
  return len > 0 && fmt[len - 1] == '\n';
}

bool copied_to_syslog(ad_debug_tag_t tag, const ad_debug_cfg_t* cfg) {
  if (tag != AD_DEBUG_ERRO && tag != AD_DEBUG_CRTC) return false;
  if (load(ad_debug_in_sighandler) != 0 || load(ad_debug_to_syslogd) == 0) return false;
  if (tag == AD_DEBUG_CRTC) return true;
  return cfg != nullptr && load(cfg->ad_debug_level) >= 1 &&
         load(ad_debug_syslog_critical_msg_only) == 0;
}

void write_logs(StatementText* text, const ad_debug_cfg_t* cfg, const char* fmt) {
  // The statement's own arguments can have taken the configuration away.
  if (cfg == nullptr) return text->show_unnamed(/*end_line=*/!ends_line(fmt));
  const bool special = load(cfg->ad_debug_level) == kSpecialLevel;
  if (open_sender(&sender)) text->send_named();
  // Kept: a special log that is off cannot be reached, so that its copies go to standard error.
  if (special && open_sender(&sender)) text->send_unnamed();
}

// ---- The packet dump ----

constexpr size_t kDumpWidth = 16;       // bytes a line
constexpr size_t kDumpGap = 8;          // of them, before the double blank
constexpr int kHighestDaemonLevel = 3;  // of a dump that the daemon gets
constexpr int kHighestSyslogLevel = 1;  // of a dump that syslog gets

// "0x00" to "0xff": a byte costs one copy and no conversion.
struct ByteTexts {
  char text[256][4];
};

// LCOV_EXCL_START: only the compiler runs this
constexpr ByteTexts make_byte_texts() {
  ByteTexts texts = {};
  constexpr char kDigits[] = "0123456789abcdef";
  for (unsigned byte = 0; byte < 256; ++byte) {
    texts.text[byte][0] = '0';
    texts.text[byte][1] = 'x';
    texts.text[byte][2] = kDigits[byte >> 4];
    texts.text[byte][3] = kDigits[byte & 15];
  }
  return texts;
}
// LCOV_EXCL_STOP

constexpr ByteTexts kByteTexts = make_byte_texts();

// Where the lines of one dump go.
struct DumpRoute {
  bool syslog;
  bool daemon;
  bool special;
};

DumpRoute dump_route(int level, const ad_debug_cfg_t* cfg) {
  const int32_t configured = load(cfg->ad_debug_level);
  DumpRoute route;
  route.syslog = level <= kHighestSyslogLevel && load(ad_debug_in_sighandler) == 0 &&
                 load(ad_debug_to_syslogd) != 0 &&
                 (level != 1 || (configured >= 1 && load(ad_debug_syslog_critical_msg_only) == 0));
  // Kept: dumps above are for the special log alone.
  route.daemon = level <= kHighestDaemonLevel;
  route.special = configured == kSpecialLevel;
  return route;
}

// `text` ends in a zero; there is room for the datagram's trailer behind it.
void write_dump_line(const DumpRoute& route, char* text, size_t len) {
  if (len == 0) return;
  if (route.syslog) {
    (void)ku_syslog(kSyslogDebug, load(ad_debug_module_id), kSyslogZero, kLineMessageId, "%s",
                    text);
  }
  if (route.daemon && open_sender(&sender)) deliver(&sender, sunx_errorlog, text, len);
  if (route.special && open_sender(&sender)) deliver(&sender, sunx_errorsp, text, len);
}

// The text of a data line behind the line's prefix: the offset, at least three digits, and `count`
// bytes, at most kDumpWidth.
class DumpedBytes {
 public:
  DumpedBytes(size_t offset, const unsigned char* bytes, size_t count) {
    char* at = put(text_, "0x", 2);
    if (offset < 0x100) at = put(at, offset < 0x10 ? "00" : "0", offset < 0x10 ? 2 : 1);
    at = std::to_chars(at, at + 8, offset, 16).ptr;
    at = put(at, ": ", 2);
    for (size_t i = 0; i < count; ++i) {
      if (i > 0) *at++ = ',';
      if (i == kDumpGap) at = put(at, "  ", 2);
      at = put(at, kByteTexts.text[bytes[i]], 4);
    }
    *at++ = '\n';
    len_ = static_cast<size_t>(at - text_);
  }

  const char* text() const { return text_; }
  size_t len() const { return len_; }

 private:
  char text_[2 + 8 + 2 + kDumpWidth * 5 + 2];
  size_t len_;
};

// Formats into `text`, at most kTextMax bytes. Returns: the text's length.
size_t print_text(char* text, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

size_t print_text(char* text, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  const size_t len = format_text(text, fmt, ap);
  va_end(ap);
  return len;
}

void write_uncopied_error(int line, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// An ERRO statement of this file that is never copied to syslog, whatever another thread's reload
// does to the critical-only flag meanwhile: the syslog client is not for signal handlers.
void write_uncopied_error(int line, const char* fmt, ...) {
  if (!ad_debug_wanted(INT32_MIN)) return;
  const ErrnoKeeper keeper;
  va_list ap;
  va_list plain;
  va_start(ap, fmt);
  va_copy(plain, ap);
  StatementText text(AD_DEBUG_ERRO, __FILE_NAME__, line, fmt, ap, &plain);
  va_end(plain);
  va_end(ap);
  write_logs(&text, load(ad_debug_cfg_p), fmt);
}

}  // namespace

int ad_init_debug_lib(const char* send_path) {
  // Kept: "" equals the path remembered before the first call, and so does nothing.
  if (send_path != nullptr && strcmp(send_path, old_send_path) == 0) return 0;
  const ReloadBlocker blocker;
  clear_private_record();
  sunx_errorsp.sun_path[0] = '\0';
  if (send_path == nullptr) send_path = getenv("ERROR_LOG_SOCKET");
  if (send_path == nullptr) {
    sunx_errorlog.sun_path[0] = '\0';
    return -1;
  }
  (void)choose_daemon(send_path, &sunx_errorlog);

  int32_t level;
  uint32_t cip;
  uint32_t sip;
  ad_read_debug_cfg(sunx_errorlog.sun_path, &level, &cip, &sip);
  ad_set_debug_parameter(cip, sip, level, load(ad_debug_cfg_p));
  install_reload_handler();
  (void)snprintf(old_send_path, sizeof old_send_path, "%s", send_path);
  return 0;
}

int ad_get_ad_debug_cfg_p(const char* path, ad_debug_cfg_t** cfg_pp) {
  return ad_get_ad_debug_cfg_p_impl(path, cfg_pp, /*no_create=*/0);
}

int ad_get_ad_debug_cfg_p_no_create(const char* path, ad_debug_cfg_t** cfg_pp) {
  return ad_get_ad_debug_cfg_p_impl(path, cfg_pp, /*no_create=*/1);
}

int ad_get_ad_debug_cfg_p_impl(const char* path, ad_debug_cfg_t** cfg_pp, int no_create) {
  if (path == nullptr) return use_private_record(cfg_pp);
  const key_t key = ftok(path, kProjectId);
  if (key == -1) return use_private_record(cfg_pp);

  bool created = false;
  int id = shmget(key, 0, 0);
  if (id == -1) {
    if (no_create) return use_private_record(cfg_pp);
    id = shmget(key, sizeof(ad_debug_cfg_t), IPC_CREAT | kRecordMode);
    if (id == -1) {
      perror("shmget");
      return use_private_record(cfg_pp);
    }
    created = true;
  }

  // Stays zero, the wrong size, when the status of another user's segment may not be read.
  shmid_ds status = {};
  (void)shmctl(id, IPC_STAT, &status);
  // Kept: one of another size is neither used nor removed: it may be another program's.
  if (status.shm_segsz != sizeof(ad_debug_cfg_t)) {
    (void)fprintf(stderr, "IPCSTAT shows size mismatch: %zd vs %zd\n",
                  static_cast<ssize_t>(status.shm_segsz),
                  static_cast<ssize_t>(sizeof(ad_debug_cfg_t)));
    return use_private_record(cfg_pp);
  }

  void* const at = shmat(id, nullptr, 0);
  if (at == reinterpret_cast<void*>(-1)) {
    perror("shmat");
    // Kept: removed whoever made it, so that the next process makes one that can be attached.
    if (shmctl(id, IPC_RMID, nullptr) != 0) perror("shmctl");
    return use_private_record(cfg_pp);
  }
  if (at == nullptr) return use_private_record(cfg_pp);
  if (created) memset(at, 0, sizeof(ad_debug_cfg_t));
  store(cfg_pp, static_cast<ad_debug_cfg_t*>(at));
  return 0;
}

int ad_return_ad_debug_cfg_p(ad_debug_cfg_t* cfg_p) {
  if (cfg_p == nullptr || cfg_p == &ad_debug_cfg_no_share_mem) return 1;
  return shmdt(cfg_p);
}

void ad_read_debug_cfg(const char* path, int32_t* level, uint32_t* cip, uint32_t* sip) {
  assert(path && level && cip && sip);
  *level = kUnchangedLevel;
  *cip = kUnchangedIp;
  *sip = kUnchangedIp;
  // Kept: every reading clears the flag; of what it finds only DEBUG_LEVEL sets it again.
  ad_debug_set_syslog_critical_msg_only(0);

  char text[1024] = {};
  const int name_len = snprintf(text, sizeof text, "%s.cfg", path);
  const bool fits = name_len >= 0 && static_cast<size_t>(name_len) < sizeof text;
  // Not blocking: a FIFO of that name must not stop a signal handler.
  const int fd = fits ? open(text, O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
  // Kept: a file that is there keeps the environment out, even one that says nothing.
  if (fd == -1) return read_settings_from_environment(level, cip, sip);

  // Kept: the text goes over the name and is not ended where it ends.
  ssize_t count;
  do {
    count = read(fd, text, sizeof text);
  } while (count < 0 && errno == EINTR);
  if (count > 0) {
    text[sizeof text - 1] = '\0';
    parse_settings(text, level, cip, sip);
  }
  (void)close(fd);
}

void ad_read_debug_cfg_direct_read_from_env(void) {
  const ErrnoKeeper keeper;
  ad_debug_cfg_t* const cfg = &ad_debug_cfg_no_share_mem;
  int32_t level = -2;
  uint32_t cip = kUnchangedIp;
  // Kept: unlike the client's filter, the server's stays where the environment names none.
  uint32_t sip = load(cfg->debug_target_server_ip);
  if (const char* text = getenv("DEBUG_LEVEL")) level = parse_level(text);
  if (const char* text = getenv("DEBUG_CLIENT_IP")) cip = inet_addr(text);
  if (const char* text = getenv("DEBUG_SERVER_IP")) sip = inet_addr(text);
  // Kept: a level that is none becomes 1 here, while setters take what is too high for the highest.
  if (level < 0 || level > kHighestLevel) level = kFallbackLevel;
  store(&cfg->ad_debug_level, level);
  store(&cfg->debug_target_client_ip, cip == kUnchangedIp ? 0 : cip);
  store(&cfg->debug_target_server_ip, sip == kUnchangedIp ? 0 : sip);
  store(&ad_debug_cfg_p, cfg);
}

void ad_set_debug_parameter(uint32_t cip, uint32_t sip, int32_t level, ad_debug_cfg_t* cfg_p) {
  assert(cfg_p);
  if (cip != kUnchangedIp) store(&cfg_p->debug_target_client_ip, cip);
  if (sip != kUnchangedIp) store(&cfg_p->debug_target_server_ip, sip);
  if (level < 0) return;
  if (level > kHighestLevel) level = kHighestLevel;
  if (load(cfg_p->ad_debug_level) == kSpecialLevel) ad_errorlog_printf_special("reset special log");
  store(&cfg_p->ad_debug_level, level);
}

void ad_debug_set_debug_parameter_directly(uint32_t cip, uint32_t sip, int32_t level) {
  if (ad_debug_cfg_t* const cfg = load(ad_debug_cfg_p)) {
    ad_set_debug_parameter(cip, sip, level, cfg);
    return;
  }
  // Kept: without a configuration what was asked for is dropped, and the environment counts.
  ad_read_debug_cfg_direct_read_from_env();
  AD_ERRO("ad_init_debug_lib() not called, no level change");
}

void ad_debug_set_debug_level_directly(int32_t level) {
  if (ad_debug_cfg_t* const cfg = load(ad_debug_cfg_p)) {
    // Kept: a level from the program stops the copies of errors to syslog, unlike one that is set
    // together with the filters.
    if (level > 0) ad_debug_set_syslog_critical_msg_only(1);
    ad_set_debug_parameter(kUnchangedIp, kUnchangedIp, level, cfg);
    return;
  }
  ad_read_debug_cfg_direct_read_from_env();
  AD_ERRO("ad_init_debug_lib() not called, no level change");
}

void ad_debug_set_syslog_critical_msg_only(uint32_t flag) {
  store(&ad_debug_syslog_critical_msg_only, flag);
  if (flag == 0) return;
  write_uncopied_error(__LINE__, "ad_debug_syslog_critical_msg_only set to true\n");
  write_uncopied_error(__LINE__, "non-critical message won't be written to syslog in any case\n");
}

void ad_debug_set_default_module_id(uint32_t module_id) {
  store(&ad_debug_module_id, module_id);
}

void ad_debug_set_process_name(const char* s) {
  if (s == nullptr) return;
  const size_t len = strnlen(s, sizeof ad_debug_process_name - 1);
  memmove(ad_debug_process_name, s, len);
  ad_debug_process_name[len] = '\0';
}

const char* getprocname(void) {
  return ad_debug_process_name;
}

int ad_debug_inited(void) {
  return load(ad_debug_cfg_p) != nullptr;
}

void sig_user2(int sig) {
  const ErrnoKeeper keeper;
  int32_t level;
  uint32_t cip;
  uint32_t sip;
  ad_read_debug_cfg(sunx_errorlog.sun_path, &level, &cip, &sip);
  ad_set_debug_parameter(cip, sip, level, load(ad_debug_cfg_p));
  call_previous_handler(sig);
}

void ad_errorlog_printf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  ad_write_to_logd(sunx_errorlog, fmt, ap);
  va_end(ap);
}

void ad_errorlog_vprintf(const char* fmt, va_list ap) {
  ad_write_to_logd(sunx_errorlog, fmt, ap);
}

void ad_errorlog_printf_special(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  ad_write_to_logd(sunx_errorsp, fmt, ap);
  va_end(ap);
}

int ad_set_special_log_path(const char* send_path) {
  if (send_path == nullptr) return 0;
  const ReloadBlocker blocker;
  // Kept: the special log's record comes into force, so that level and filters are set there from
  // now on.
  (void)choose_daemon(send_path, &sunx_errorsp);
  return 0;
}

void* my_xmalloc(size_t size, const char* file, int line) {
  void* const memory = malloc(size);
  if (memory == nullptr)
    AD_FATAL(kMallocExit, kMallocMessageId, "Malloc fail at %s:%d\n", file, line);
  return memory;
}

// One function, with no calls but the system's: returns are mispredicted behind a system call where
// the kernel flushes the predictors, and that costs more than the whole prefix.
__attribute__((flatten)) void ad_debug_statement(ad_debug_tag_t tag, const char* file, int line,
                                                 const char* fmt, ...) {
  const ErrnoKeeper keeper;
  va_list ap;
  va_list plain;
  va_start(ap, fmt);
  va_copy(plain, ap);
  StatementText text(tag, file, line, fmt, ap, &plain);
  va_end(plain);
  va_end(ap);
  if (!text.good()) return;
  const ad_debug_cfg_t* const cfg = load(ad_debug_cfg_p);
  if (copied_to_syslog(tag, cfg)) {
    (void)ku_syslog(kSyslogDebug, load(ad_debug_module_id), kSyslogZero, kLineMessageId, "%s",
                    text.unnamed());
  }
  write_logs(&text, cfg, fmt);
}

void ad_debug_fatal(int exit_code, uint32_t message_id, const char* file, int line, const char* fmt,
                    ...) {
  va_list ap;
  va_list plain;
  va_start(ap, fmt);
  va_copy(plain, ap);
  StatementText text(AD_DEBUG_CRTC, file, line, fmt, ap, &plain);
  va_end(plain);
  va_end(ap);

  // The record is not bound to a datagram's size.
  char room[kDatagramRoom];
  const char* record = room;
  va_start(ap, fmt);
  const int len = vsnprintf(room, sizeof room, fmt, ap);
  va_end(ap);
  if (len < 0) room[0] = '\0';
  if (len >= static_cast<int>(sizeof room)) {
    const size_t whole = static_cast<size_t>(len) + 1;
    if (char* const larger = static_cast<char*>(malloc(whole))) {
      va_start(ap, fmt);
      (void)vsnprintf(larger, whole, fmt, ap);
      va_end(ap);
      record = larger;
    }
  }

  if (text.good() && ad_debug_wanted(INT32_MIN)) write_logs(&text, load(ad_debug_cfg_p), fmt);
  (void)ku_syslog(kSyslogCritical, load(ad_debug_module_id), kSyslogZero, message_id, "%s", record);
  exit(exit_code);
}

// Flat for the same reason as ad_debug_statement.
__attribute__((flatten)) void ad_debug_print_pkt_impl(int level, const char* level_str,
                                                      const void* buf, int len, const char* file,
                                                      int line, const char* description) {
  // Kept: unlike a statement, a dump does not read the environment on first use.
  const ad_debug_cfg_t* const cfg = load(ad_debug_cfg_p);
  if (cfg == nullptr || !ad_debug_dump_asked(cfg, level)) return;
  const ErrnoKeeper keeper;
  const DumpRoute route = dump_route(level, cfg);
  const int pid = getpid();
  if (file == nullptr) file = "(null)";
  const char* const slash = strrchr(file, '/');

  // Kept: no process name in front; the daemon gets the same text as syslog.
  char text[kDatagramRoom];
  size_t text_len = print_text(text, "(%d)%s:%s:%d-> DUMP length = 0x%x (%s)\n", pid, level_str,
                               slash != nullptr ? slash + 1 : file, line,
                               static_cast<unsigned>(len), description);
  write_dump_line(route, text, text_len);

  const size_t prefix = print_text(text, "(%d)%s: ", pid, level_str);
  if (prefix == 0) return;
  const auto* const bytes = static_cast<const unsigned char*>(buf);
  const size_t count = len > 0 ? static_cast<size_t>(len) : 0;
  for (size_t offset = 0; offset < count; offset += kDumpWidth) {
    const DumpedBytes dumped(offset, bytes + offset, std::min(count - offset, kDumpWidth));
    const size_t fitting = std::min(dumped.len(), kTextMax - prefix);
    memcpy(text + prefix, dumped.text(), fitting);
    text_len = prefix + fitting;
    text[text_len] = '\0';
    write_dump_line(route, text, text_len);
  }
}
