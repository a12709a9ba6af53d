// The records of the sockets that were at a path before. See former_records.h.
#include "former_records.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "say.h"

namespace {

constexpr int kProjectId = 'd';    // of the records' keys
constexpr size_t kRecordMax = 64;  // that the file lists: more than are ever in use
constexpr int kLooksUnused = 5;  // before a record is removed: a process may be about to attach it
constexpr char kFirstLine[] = "ad_logd records 1\n";

uint32_t* settingOf(ad_debug_cfg_t* record, size_t setting) {
  if (setting == 1) return &record->debug_target_client_ip;
  if (setting == 2) return &record->debug_target_server_ip;
  return reinterpret_cast<uint32_t*>(&record->ad_debug_level);
}

uint32_t load(const uint32_t* word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}

void store(uint32_t* word, uint32_t value) {
  __atomic_store_n(word, value, __ATOMIC_RELAXED);
}

// Returns: whether the word was `from` and is `to` now.
bool replace(uint32_t* word, uint32_t from, uint32_t to) {
  return __atomic_compare_exchange_n(word, &from, to, /*weak=*/false, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED);
}

ad_debug_cfg_t copyOf(ad_debug_cfg_t* record) {
  ad_debug_cfg_t copy;
  for (size_t i = 0; i < 3; ++i) *settingOf(&copy, i) = load(settingOf(record, i));
  for (size_t i = 0; i < std::size(copy.para); ++i) copy.para[i] = load(&record->para[i]);
  return copy;
}

std::string filterText(uint32_t address) {
  char text[INET_ADDRSTRLEN] = "off";
  if (address != 0) (void)inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

// Returns: the segment `id` if it has a record's size, else one with the id -1.
RecordSegment segmentWithId(int id) {
  shmid_ds status = {};
  if (id < 0 || shmctl(id, IPC_STAT, &status) != 0 || status.shm_segsz != sizeof(ad_debug_cfg_t))
    return {};
  return {id, status.shm_perm.__key, static_cast<int64_t>(status.shm_ctime)};
}

// Gives the segment a new time of change, where its owner asks for it.
void renew(RecordSegment* segment) {
  shmid_ds status = {};
  // LCOV_EXCL_BR_NEXT: fails for a segment of another user alone, whose time stays as it is
  if (shmctl(segment->id, IPC_STAT, &status) == 0 && shmctl(segment->id, IPC_SET, &status) == 0)
    *segment = segmentWithId(segment->id);
}

// Returns: how many processes have the segment attached; -1 when it is gone.
long usersOf(int id) {
  shmid_ds status = {};
  // LCOV_EXCL_BR_NEXT: of what is attached, as here, it fails only without the right to read
  return shmctl(id, IPC_STAT, &status) == 0 ? static_cast<long>(status.shm_nattch) : -1;
}

std::string listPath(const std::string& path) {
  return path + ".records";
}

// Only what this user wrote, and nobody else may change, tells which segments may be removed.
bool isTrusted(int fd) {
  struct stat file;
  // LCOV_EXCL_BR_NEXT: what is open can be asked for its status
  if (fstat(fd, &file) != 0) return false;
  // Another name for it would make the list of one socket that of another.
  return S_ISREG(file.st_mode) && file.st_nlink == 1 && file.st_uid == geteuid() &&
         (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string readList(const std::string& path) {
  const int fd = open(listPath(path).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return "";
  char text[(kRecordMax + 1) * 64];
  const ssize_t size = isTrusted(fd) ? read(fd, text, sizeof text) : 0;
  (void)close(fd);
  return {text, static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

bool writeAll(int fd, const std::string& text) {
  if (fd < 0) return false;
  const ssize_t written = write(fd, text.data(), text.size());
  if (written >= 0 && written < static_cast<ssize_t>(text.size())) errno = ENOSPC;
  return written == static_cast<ssize_t>(text.size());
}

}  // namespace

RecordSegment segmentOf(const char* path) {
  const key_t key = ftok(path, kProjectId);
  // LCOV_EXCL_BR_NEXT: a file that goes between the two calls
  return key == -1 ? RecordSegment{} : segmentWithId(shmget(key, 0, 0));
}

void FormerRecords::recall(const std::string& path) {
  path_ = path;
  struct stat file;
  if (lstat(path.c_str(), &file) == 0 && S_ISSOCK(file.st_mode) && file.st_uid == geteuid())
    add(segmentOf(path.c_str()));
  addListed();
  if (!formers_.empty()) last_ = copyOf(formers_.front().record);
}

void FormerRecords::addListed() {
  const std::string list = readList(path_);
  if (list.compare(0, strlen(kFirstLine), kFirstLine) != 0) return;
  for (size_t at = strlen(kFirstLine); at < list.size(); at = list.find('\n', at) + 1) {
    RecordSegment listed;
    uint32_t key;
    if (list.find('\n', at) == std::string::npos) return;
    if (sscanf(list.c_str() + at, "%d 0x%" SCNx32 " %" SCNd64, &listed.id, &key, &listed.made) != 3)
      return;
    listed.key = static_cast<key_t>(key);
    if (!(segmentWithId(listed.id) == listed)) continue;
    listed_.push_back(listed);
    add(listed);
  }
}

void FormerRecords::add(const RecordSegment& segment) {
  const auto same = [&](const Former& former) { return former.segment == segment; };
  if (segment.id < 0 || formers_.size() == kRecordMax ||
      std::any_of(formers_.begin(), formers_.end(), same)) {
    return;
  }
  void* const at = shmat(segment.id, nullptr, 0);
  // LCOV_EXCL_BR_NEXT: it was seen a moment ago
  if (at == reinterpret_cast<void*>(-1)) return;
  formers_.push_back({segment, static_cast<ad_debug_cfg_t*>(at)});
}

void FormerRecords::follow(ad_debug_cfg_t* record, const RecordSegment& current,
                           const RecordSegment& other) {
  if (record == &ad_debug_cfg_no_share_mem) return;  // the next daemon may have more luck
  current_ = record;
  current_segment_ = current;
  // What this daemon's list does not name may stand on another's: no longer.
  if (std::find(listed_.begin(), listed_.end(), current) == listed_.end()) renew(&current_segment_);
  if (!formers_.empty() && !(formers_.front().segment == current)) takeOver();
  const auto is_in_use = [&](const Former& former) {
    if (!(former.segment == current) && !(former.segment == other)) return false;
    (void)shmdt(former.record);
    return true;
  };
  formers_.erase(std::remove_if(formers_.begin(), formers_.end(), is_in_use), formers_.end());
  for (size_t i = 0; i < kSettings; ++i) in_step_[i] = load(settingOf(current_, i));
  for (const Former& former : formers_)
    for (size_t i = 0; i < kSettings; ++i) store(settingOf(former.record, i), in_step_[i]);
  sayFollowing();
}

void FormerRecords::sayFollowing() const {
  const auto is_used = [](const Former& former) { return usersOf(former.segment.id) > 1; };
  const auto used = std::count_if(formers_.begin(), formers_.end(), is_used);
  if (used > 0)
    say("%s: former records in use, kept in step: %d", path_.c_str(), static_cast<int>(used));
}

// The parameter words are other programs' own. They are carried over where the new record has none
// yet, but not kept in step: only those programs know what two values at once would mean.
void FormerRecords::takeOver() {
  bool differs = false;
  for (size_t i = 0; i < kSettings; ++i) {
    const uint32_t value = *settingOf(&last_, i);
    differs = differs || load(settingOf(current_, i)) != value;
    store(settingOf(current_, i), value);
  }
  for (size_t i = 0; i < std::size(last_.para); ++i)
    (void)replace(&current_->para[i], 0, last_.para[i]);
  if (!differs) return;
  say("%s: settings carried over: level %" PRId32 ", client %s, server %s", path_.c_str(),
      last_.ad_debug_level, filterText(last_.debug_target_client_ip).c_str(),
      filterText(last_.debug_target_server_ip).c_str());
}

// Another daemon may have made one of them its own, whose socket has got the inode's number: it is
// that daemon's from then on, who shows it by a new time of change.
void FormerRecords::forgetForeign() {
  const auto is_foreign = [](const Former& former) {
    const RecordSegment now = segmentWithId(former.segment.id);
    if (now.id < 0 || now == former.segment) return false;
    (void)shmdt(former.record);
    return true;
  };
  formers_.erase(std::remove_if(formers_.begin(), formers_.end(), is_foreign), formers_.end());
}

bool FormerRecords::keepInStep() {
  if (!any()) return false;
  const size_t count = formers_.size();
  forgetForeign();
  for (size_t i = 0; i < kSettings; ++i) {
    const uint32_t value = changed(i);
    if (value == in_step_[i]) continue;
    // A record that was changed meanwhile is left for the next look.
    (void)replace(settingOf(current_, i), in_step_[i], value);
    for (const Former& former : formers_) store(settingOf(former.record, i), value);
    in_step_[i] = value;
  }
  for (auto former = formers_.begin(); former != formers_.end();)
    former = removeUnused(&*former) ? formers_.erase(former) : former + 1;
  return formers_.size() < count;
}

// Returns: a setting's new value: the current record's when it was changed there, else that of the
// first former one in which a process changed it, as the reload does; else what all have.
uint32_t FormerRecords::changed(size_t setting) const {
  const uint32_t value = load(settingOf(current_, setting));
  if (value != in_step_[setting]) return value;
  for (const Former& former : formers_) {
    const uint32_t theirs = load(settingOf(former.record, setting));
    if (theirs != in_step_[setting]) return theirs;
  }
  return value;
}

// Returns: whether the record is to be forgotten.
bool FormerRecords::removeUnused(Former* former) const {
  const int id = former->segment.id;
  const long users = usersOf(id);
  if (users > 1) {
    former->unused = 0;
    return false;
  }
  if (users >= 0 && ++former->unused < kLooksUnused) return false;
  // The kernel keeps what somebody attached just now, until he detaches it.
  const bool removed = users >= 0 && shmctl(id, IPC_RMID, nullptr) == 0;
  // LCOV_EXCL_BR_NEXT: a process that attaches it between the two calls
  if (removed && usersOf(id) > 1) return false;
  (void)shmdt(former->record);
  if (removed) say("%s: removed a former record that nobody uses any more", path_.c_str());
  return true;
}

void FormerRecords::save() const {
  if (current_ == nullptr) return;
  std::string text = kFirstLine;
  const auto append = [&text](const RecordSegment& known) {
    const RecordSegment segment = segmentWithId(known.id);  // as it is described now
    if (segment.id < 0) return;
    char line[64];
    (void)snprintf(line, sizeof line, "%d 0x%08" PRIx32 " %" PRId64 "\n", segment.id,
                   static_cast<uint32_t>(segment.key), segment.made);
    text += line;
  };
  append(current_segment_);
  for (const Former& former : formers_) append(former.segment);
  // Written beside it and renamed: a daemon that is killed meanwhile leaves a whole file.
  const std::string list = listPath(path_);
  const std::string next = list + ".new";
  (void)unlink(next.c_str());
  const int fd = open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  const bool written = writeAll(fd, text);
  const int err = errno;
  if (fd >= 0) (void)close(fd);
  if (written && rename(next.c_str(), list.c_str()) == 0) return;
  say("cannot write %s: %s", list.c_str(), strerror(written ? errno : err));
  (void)unlink(next.c_str());
}
