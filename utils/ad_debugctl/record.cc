// The debug record: where it is and what it holds. See record.h.
#include "record.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/command.h"
#include "common/text.h"

namespace {

uint32_t* word_of(ad_debug_cfg_t* cfg, Field field) {
  if (field == kClient) return &cfg->debug_target_client_ip;
  if (field == kServer) return &cfg->debug_target_server_ip;
  return reinterpret_cast<uint32_t*>(&cfg->ad_debug_level);
}

}  // namespace

Words read_words(ad_debug_cfg_t* cfg) {
  Words words;
  for (const Field field : kFields)
    words[field] = __atomic_load_n(word_of(cfg, field), __ATOMIC_RELAXED);
  return words;
}

uint32_t exchange_word(ad_debug_cfg_t* cfg, Field field, uint32_t value) {
  return __atomic_exchange_n(word_of(cfg, field), value, __ATOMIC_RELAXED);
}

std::string text_of(Field field, uint32_t value, bool json) {
  if (field == kLevel) return std::to_string(static_cast<int32_t>(value));
  if (value == 0) return json ? "null" : "off";
  char text[INET_ADDRSTRLEN];
  (void)inet_ntop(AF_INET, &value, text, sizeof text);
  return json ? '"' + std::string(text) + '"' : text;
}

void add_reason(std::string* reasons, const std::string& path, const std::string& why) {
  if (!reasons->empty()) *reasons += "; ";
  *reasons += visible(path) + ": " + why;
}

int find_segment(const std::string& path, std::string* why) {
  const key_t key = ftok(path.c_str(), kProjectId);
  const int id = key == -1 ? -1 : shmget(key, 0, 0);
  if (id != -1) return id;
  *why = key != -1 && errno == ENOENT ? "no record belongs to it" : strerror(errno);
  return -1;
}

std::string objection(int id) {
  shmid_ds status = {};
  if (shmctl(id, IPC_STAT, &status) != 0) return strerror(errno);
  if (status.shm_segsz != sizeof(ad_debug_cfg_t))
    return "the segment holds " + std::to_string(status.shm_segsz) + " bytes, a record " +
           std::to_string(sizeof(ad_debug_cfg_t));
  void* const at = shmat(id, nullptr, 0);
  if (at == reinterpret_cast<void*>(-1)) return strerror(errno);
  (void)shmdt(at);
  return "";
}

std::optional<Record> attach(const std::string& path, std::string* why) {
  Record record = {path, find_segment(path, why), nullptr};
  if (record.id == -1) return std::nullopt;
  *why = objection(record.id);
  if (!why->empty()) return std::nullopt;
  // LCOV_EXCL_BR_NEXT: as below
  if (ad_get_ad_debug_cfg_p_no_create(path.c_str(), &record.cfg) == 0) return record;
  // LCOV_EXCL_START: it could be attached a moment ago
  *why = "cannot be attached";
  return std::nullopt;
  // LCOV_EXCL_STOP
}

Record attach_first(const std::vector<std::string>& paths) {
  std::string reasons;
  for (const std::string& path : paths) {
    std::string why;
    if (const std::optional<Record> record = attach(path, &why)) return *record;
    add_reason(&reasons, path, why);
  }
  fail(kFailed, "no debug record: " + reasons);
}

std::vector<std::string> sockets_of(const std::string& base) {
  // Cut as an address of a Unix-domain socket cuts it, which is what all processes attach by.
  constexpr size_t kPathMax = sizeof(sockaddr_un::sun_path) - 1;
  std::vector<std::string> paths;
  paths.push_back((base + "." + std::to_string(static_cast<int>(getuid()))).substr(0, kPathMax));
  if (getuid() != 0) paths.push_back((base + ".0").substr(0, kPathMax));
  return paths;
}
