// The programs and libraries that a trace names. See object.h.
#include "object.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>

#include "common/text.h"

namespace {

constexpr uint64_t kPageSize = 4096;  // of both widths
constexpr const char* kKernelObjects[] = {"linux-gate.so.1", "linux-vdso.so.1"};

bool later(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// Without symbolic links; `path` itself where it leads nowhere.
std::string real_path(const std::string& path) {
  std::error_code ignored;
  const std::filesystem::path real = std::filesystem::canonical(path, ignored);
  return real.empty() ? path : real.string();
}

bool is_absolute(const std::string& path) {
  return !path.empty() && path[0] == '/';
}

// glibc names the program as it was called, which may be through a link, and the trace's file has
// the name behind the links.
bool names_program(const std::string& path, const Origin& origin, const Hints& hints) {
  const std::string_view name = base_name(path);
  if (!hints.program_file.empty() && name == base_name(hints.program_file)) return true;
  if (origin.program.empty()) return false;
  return name == origin.program ||
         (is_absolute(path) && base_name(real_path(path)) == origin.program);
}

// ---- Its file ----

std::string find_file(Object* object, const Origin& origin, const Hints& hints) {
  if (object->is_program && !hints.program_file.empty())
    return std::filesystem::absolute(hints.program_file).string();
  if (is_absolute(object->path)) return object->path;
  for (const char* name : kKernelObjects) {
    if (object->path != name) continue;
    object->problem = "it is the kernel's own, there is no file";
    return "";
  }
  if (object->is_program && origin.pid && origin.owner == Owner::kProgram)
    return program_file_of(*origin.pid);
  object->problem = "the trace does not tell its directory";
  if (object->is_program) object->problem += "; name the file with --program";
  return "";
}

void read_file(Object* object) {
  std::string why;
  object->fd = open_regular(AT_FDCWD, object->file, Links::kFollow, &why);
  if (object->fd.is_open()) object->elf = read_elf(object->fd.get(), &why);
  if (!object->elf) object->problem = visible(object->file) + ": " + why;
}

// ---- Whether it is the one that crashed ----

void compare_with_process(const Origin& origin, Object* object) {
  if (!origin.pid || origin.owner != Owner::kProgram) return;
  std::string why;
  FileId mapped;
  const Fd running = object->is_program
                         ? open_running_program(*origin.pid, &why)
                         : open_mapped(*origin.pid, real_path(object->file), &mapped, &why);
  const std::string what = "the file that process " + std::to_string(*origin.pid) + " has loaded";
  std::string ignored;
  const std::optional<Elf> elf =
      running.is_open() ? read_elf(running.get(), &ignored) : std::nullopt;
  if (elf && !elf->build_id.empty() && !object->elf->build_id.empty()) {
    if (elf->build_id == object->elf->build_id) {
      object->remarks.push_back("same build id as " + what);
    } else {
      object->problem = "build id differs from that of " + what;
      object->wrong_build = true;
    }
    return;
  }
  struct stat ours, theirs;
  if (fstat(object->fd.get(), &ours) != 0) return;  // LCOV_EXCL_BR_LINE: it is open
  // LCOV_EXCL_BR_NEXT: as above
  if (running.is_open() && fstat(running.get(), &theirs) == 0)
    mapped = {theirs.st_dev, theirs.st_ino, theirs.st_nlink == 0};
  if (mapped.removed) {
    object->remarks.push_back("warning: has replaced " + what);
  } else if (mapped.inode != 0 && mapped.inode == ours.st_ino && mapped.device == ours.st_dev) {
    object->remarks.push_back("is " + what);
  } else {
    object->remarks.push_back("not compared with " + what +
                              (running.is_open() ? ": no build id" : ": " + why));
  }
}

// The second time tells of a file that was put there later with an older time of its contents, as
// packages are unpacked.
void compare_times(const Origin& origin, Object* object) {
  struct stat status;
  if (fstat(object->fd.get(), &status) != 0) return;  // LCOV_EXCL_BR_LINE: it is open
  const struct {
    const char* what;
    const timespec& time;
  } times[] = {{"written", status.st_mtim}, {"put there or changed", status.st_ctim}};
  for (const auto& [what, time] : times) {
    if (!later(time, origin.written)) continue;
    object->remarks.push_back(
        std::string("warning: ") + what + " " + time_text(time.tv_sec) +
        ", after the trace: it may be another build than the one that crashed");
    return;
  }
  object->remarks.push_back("not changed since the trace was written");
}

void compare_with_hint(const Hints& hints, Object* object) {
  if (!object->is_program || !hints.build_id) return;
  if (object->elf->build_id == *hints.build_id) {
    object->remarks.push_back("has the build id that was asked for");
    return;
  }
  object->problem = "build id differs from the one asked for, " + hex_bytes(*hints.build_id);
  object->wrong_build = true;
}

// ---- Where it was loaded ----

using Bases = std::set<uint64_t>;

// The bases at which the line would be right; `*known` tells whether it says anything.
Bases bases_of(const Object& object, const SymbolLine& line, bool* known) {
  const Elf& elf = *object.elf;
  std::vector<uint64_t> values = {0};  // that the offset counts from
  if (line.kind == SymbolLine::Offset::kFromSymbol)
    values = find_symbol(object.fd.get(), elf, line.symbol);
  *known = !values.empty();
  if (line.kind == SymbolLine::Offset::kNone) values = {line.address};  // so the base is 0

  const uint64_t offset = line.negative ? 0 - line.offset : line.offset;
  Bases bases;
  for (const uint64_t value : values) {
    const uint64_t base = elf.file_address(line.address, value + offset);
    const uint64_t address = elf.file_address(line.address, base);
    // The call may have been the code's last instruction.
    if (base % kPageSize == 0 && (elf.has_code_at(address) || elf.has_code_at(address - 1)))
      bases.insert(base);
  }
  return bases;
}

void find_base(const Trace& trace, Object* object) {
  std::optional<Bases> common;
  if (object->elf->fixed) common = Bases{0};
  for (const SymbolLine& line : trace.symbols) {
    if (line.path != object->path) continue;
    bool known = false;
    const Bases bases = bases_of(*object, line, &known);
    if (!known) continue;
    Bases both;
    for (const uint64_t base : bases)
      if (!common || common->count(base) != 0) both.insert(base);
    common = both;
  }
  if (common && common->size() == 1) {
    object->base = *common->begin();
  } else if (!object->problem.empty()) {
    return;
  } else if (!common) {
    object->problem = "no symbol line tells where it was loaded";
  } else if (common->empty()) {
    object->problem = "the trace's symbol lines do not fit this file: it is another build";
  } else {
    object->problem = "the trace's symbol lines allow several load addresses";
  }
}

Object make_object(const std::string& path, bool is_program, const Trace& trace,
                   const Origin& origin, const Hints& hints) {
  Object object;
  object.path = path;
  object.is_program = is_program;
  object.file = find_file(&object, origin, hints);
  if (object.problem.empty()) read_file(&object);
  if (!object.elf) return object;
  compare_times(origin, &object);
  compare_with_process(origin, &object);
  compare_with_hint(hints, &object);
  find_base(trace, &object);
  return object;
}

}  // namespace

std::vector<Object> objects_of(const Trace& trace, const Origin& origin, const Hints& hints) {
  std::vector<Object> objects;
  bool has_program = false;
  for (const SymbolLine& line : trace.symbols) {
    const bool known = std::any_of(objects.begin(), objects.end(),
                                   [&](const Object& object) { return object.path == line.path; });
    if (line.path.empty() || known) continue;
    const bool is_program = !has_program && names_program(line.path, origin, hints);
    has_program = has_program || is_program;
    objects.push_back(make_object(line.path, is_program, trace, origin, hints));
  }
  if (!has_program && !hints.program_file.empty())
    objects.push_back(make_object(hints.program_file, /*is_program=*/true, trace, origin, hints));
  return objects;
}
