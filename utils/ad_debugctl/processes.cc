// Processes that use the debug log, as /proc shows them. See processes.h.
#include "processes.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>

#include "common/command.h"
#include "common/elf.h"
#include "common/proc.h"
#include "common/text.h"
#include "internal/log_note.h"
#include "record.h"

namespace {

constexpr size_t kMaxStatus = 65536;
constexpr size_t kCommMax = 15;  // the kernel cuts names at
constexpr char kLibrary[] = "libvelorin-util.so";
constexpr int kReloadSignal = SIGUSR1;

std::string read_link(const std::string& path) {
  std::array<char, PATH_MAX> to;
  const ssize_t len = readlink(path.c_str(), to.data(), to.size());
  // LCOV_EXCL_BR_NEXT: a process that ends meanwhile
  return len > 0 ? std::string(to.data(), static_cast<size_t>(len)) : "";
}

bool is_library(const std::string& path) {
  return base_name(path).substr(0, sizeof kLibrary - 1) == kLibrary;
}

// The segment that the kernel shows as "/SYSV64010002 (deleted)", when it can be a record's: the
// key of a record begins with the project's letter, and what is known of its size fits.
std::optional<Attached> record_in(const Mapping& mapping, bool foreign, bool has_log) {
  unsigned key;
  int end = 0;
  const std::string path = without_deleted(mapping.path);
  if (sscanf(path.c_str(), "/SYSV%8x%n", &key, &end) != 1 ||
      // LCOV_EXCL_BR_NEXT: the kernel writes eight digits, and ids are of int
      static_cast<size_t>(end) != path.size() || key >> 24 != kProjectId || mapping.inode > INT_MAX)
    return std::nullopt;
  Attached record = {key, static_cast<int>(mapping.inode), false, foreign};
  shmid_ds status;
  // Of another namespace's segment, and of one that may not be read, no size is to be had.
  if (foreign || shmctl(record.id, IPC_STAT, &status) != 0)
    // LCOV_EXCL_BR_NEXT: only a program that attaches such a segment without this library
    return has_log ? std::optional(record) : std::nullopt;
  record.removed = (status.shm_perm.mode & SHM_DEST) != 0;
  return status.shm_segsz == sizeof(ad_debug_cfg_t) ? std::optional(record) : std::nullopt;
}

void take_records(const std::vector<Mapping>& maps, bool foreign, Process* process) {
  for (const Mapping& mapping : maps) {
    const std::optional<Attached> record = record_in(mapping, foreign, process->has_log);
    if (!record) continue;
    const bool again = std::any_of(process->records.begin(), process->records.end(),
                                   [&](const Attached& one) { return one.id == record->id; });
    if (!again) process->records.push_back(*record);
  }
}

// What the program's file tells: the width, and whether the log is linked into it.
void take_program(Process* process) {
  std::string why;
  const Fd program = open_running_program(process->pid, &why);
  // LCOV_EXCL_BR_NEXT: as below
  const std::optional<Elf> elf = program.is_open() ? read_elf(program.get(), &why) : std::nullopt;
  if (!elf) return;  // LCOV_EXCL_BR_LINE: a process that ends meanwhile
  process->width = elf->bits;
  if (process->has_log) return;
  using namespace velorin::internal;
  process->has_log = find_note(program.get(), *elf, kLogNoteOwner, kLogNoteType).has_value();
}

// A name of 15 bytes may be cut: the program's, when it begins so, is the whole one.
std::string whole_name(const std::string& comm, const std::string& program) {
  const bool cut = comm.size() == kCommMax && program.compare(0, kCommMax, comm) == 0;
  return cut ? program : comm;
}

std::string read_comm(pid_t pid) {
  std::string comm = read_proc(pid, "comm", kMaxStatus).value_or("");
  // LCOV_EXCL_BR_NEXT: a process that ends meanwhile
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  return comm;
}

Reload reload_in(const std::string& status) {
  constexpr uint64_t kBit = uint64_t{1} << (kReloadSignal - 1);
  const auto holds = [&](const char* set) {
    return (strtoull(status_value(status, set).c_str(), nullptr, 16) & kBit) != 0;
  };
  if (holds("SigCgt")) return Reload::kHandled;
  return holds("SigIgn") ? Reload::kIgnored : Reload::kDeadly;
}

}  // namespace

Sight look_at(pid_t pid, Process* process) {
  const std::optional<std::string> status = read_proc(pid, "status", kMaxStatus);
  // Only what has memory of its own has a size: no zombie and no thread of the kernel.
  if (!status || status_value(*status, "VmSize").empty()) return Sight::kNone;
  *process = Process();
  process->pid = pid;
  process->name = read_comm(pid);
  const std::optional<std::vector<Mapping>> maps = read_maps(pid);
  // LCOV_EXCL_BR_NEXT: a process that ends meanwhile
  if (!maps) return errno == EACCES || errno == EPERM ? Sight::kHidden : Sight::kNone;
  process->program = base_name(without_deleted(program_file_of(pid)));
  process->name = whole_name(process->name, process->program);
  process->has_log = std::any_of(maps->begin(), maps->end(),
                                 [](const Mapping& mapping) { return is_library(mapping.path); });
  take_program(process);
  const bool foreign = read_link(proc_path(pid, "ns/ipc")) != read_link("/proc/self/ns/ipc");
  take_records(*maps, foreign, process);
  // Last, as close as possible to what is done about it.
  process->reload = reload_in(read_proc(pid, "status", kMaxStatus).value_or(""));
  return Sight::kSeen;
}

std::string words_of(const Process& process) {
  return std::to_string(process.pid) + " " + visible(process.name);
}

void complain_of_hidden(const std::vector<Process>& hidden) {
  if (hidden.empty()) return;
  std::string list;
  for (const Process& process : hidden) {
    if (!list.empty()) list += ", ";
    list += words_of(process);
  }
  complain("not seen: " + std::to_string(hidden.size()) +
           (hidden.size() == 1 ? " process" : " processes") + " that you may not look at: " + list);
}
