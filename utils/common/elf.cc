// What decoding needs from an ELF file. See elf.h.
#include "elf.h"

#include <elf.h>
#include <string.h>

#include <algorithm>

#include "common/file.h"

namespace {

constexpr uint64_t kMaxTable = 32 << 20;  // bytes
constexpr uint64_t kMaxNotes = 65536;     // bytes of one segment or section
constexpr size_t kMaxNoteParts = 64;      // that are searched
constexpr size_t kMaxSegments = 256;
constexpr size_t kMaxNote = 64;  // bytes of a note's contents

struct Elf32 {
  using Header = Elf32_Ehdr;
  using Program = Elf32_Phdr;
  using Section = Elf32_Shdr;
  using Symbol = Elf32_Sym;
  static constexpr int kBits = 32;
};
struct Elf64 {
  using Header = Elf64_Ehdr;
  using Program = Elf64_Phdr;
  using Section = Elf64_Shdr;
  using Symbol = Elf64_Sym;
  static constexpr int kBits = 64;
};

constexpr uint64_t last_address(int bits) {
  return bits == 32 ? UINT32_MAX : UINT64_MAX;
}

// `count` entries at `offset`; false when they do not lie in the file or are too many.
template <class Entry>
bool read_table(int fd, uint64_t offset, uint64_t count, std::vector<Entry>* to) {
  const uint64_t size = size_of(fd);
  if (count > kMaxTable / sizeof(Entry)) return false;
  if (offset > size || count * sizeof(Entry) > size - offset) return false;
  to->resize(static_cast<size_t>(count));
  return read_at(fd, offset, to->data(), to->size() * sizeof(Entry));
}

bool read_bytes(int fd, uint64_t offset, uint64_t len, std::string* to) {
  std::vector<char> bytes;
  if (!read_table(fd, offset, len, &bytes)) return false;
  to->assign(bytes.begin(), bytes.end());
  return true;
}

// Whether that name, and no longer one, stands at `offset` of a table of names.
bool has_name_at(std::string_view names, uint64_t offset, std::string_view name) {
  if (offset >= names.size() || name.size() >= names.size() - offset) return false;
  const size_t from = static_cast<size_t>(offset);
  return names.substr(from, name.size()) == name && names[from + name.size()] == '\0';
}

uint64_t aligned(uint64_t offset, uint64_t alignment) {
  return (offset + alignment - 1) / alignment * alignment;
}

// The contents of the note of that owner and type among `notes`, when its size can be one's.
std::optional<std::string> note_in(std::string_view notes, uint64_t alignment,
                                   std::string_view owner, uint32_t type) {
  while (notes.size() >= sizeof(Elf64_Nhdr)) {  // the same for both widths
    Elf64_Nhdr note;
    memcpy(&note, notes.data(), sizeof note);
    const uint64_t from = aligned(sizeof note + uint64_t{note.n_namesz}, alignment);
    if (from > notes.size() || note.n_descsz > notes.size() - from) return std::nullopt;
    // The owner's name is counted with its zero.
    if (note.n_type == type && note.n_namesz == owner.size() + 1 && note.n_descsz > 0 &&
        note.n_descsz <= kMaxNote && has_name_at(notes, sizeof note, owner))
      return std::string(notes.substr(static_cast<size_t>(from), note.n_descsz));
    notes.remove_prefix(static_cast<size_t>(
        std::min<uint64_t>(aligned(from + note.n_descsz, alignment), notes.size())));
  }
  return std::nullopt;
}

void add_notes(Elf* elf, uint64_t offset, uint64_t size, uint64_t alignment) {
  if (elf->notes.size() < kMaxNoteParts)
    elf->notes.push_back({offset, size, alignment == 8 ? uint64_t{8} : uint64_t{4}});
}

template <class Width>
bool take_segments(int fd, const typename Width::Header& header, Elf* elf, std::string* why) {
  std::vector<typename Width::Program> entries;
  if (header.e_phentsize != sizeof entries[0] ||
      !read_table(fd, header.e_phoff, header.e_phnum, &entries)) {
    *why = "is a damaged ELF file: its program headers cannot be read";
    return false;
  }
  for (const auto& entry : entries) {
    if (entry.p_type == PT_NOTE) add_notes(elf, entry.p_offset, entry.p_filesz, entry.p_align);
    if (entry.p_type != PT_LOAD || entry.p_memsz == 0) continue;
    if (entry.p_memsz > last_address(elf->bits) - entry.p_vaddr ||
        elf->segments.size() == kMaxSegments) {
      *why = "is a damaged ELF file: its segments are too large or too many";
      return false;
    }
    elf->segments.push_back(
        {entry.p_vaddr, uint64_t{entry.p_vaddr} + entry.p_memsz, (entry.p_flags & PF_X) != 0});
  }
  return true;
}

// Stripped files need no sections, so that damaged ones are taken for none.
template <class Width>
void take_sections(int fd, const typename Width::Header& header, Elf* elf) {
  std::vector<typename Width::Section> sections;
  uint64_t count = header.e_shnum;
  uint64_t names_index = header.e_shstrndx;
  if (header.e_shoff == 0 || header.e_shentsize != sizeof sections[0]) return;
  // More sections than a header can count are counted in the first one.
  if (!read_table(fd, header.e_shoff, 1, &sections)) return;
  if (count == 0) count = sections[0].sh_size;
  if (names_index == SHN_XINDEX) names_index = sections[0].sh_link;
  if (!read_table(fd, header.e_shoff, count, &sections)) return;

  std::string names;
  if (names_index < sections.size()) {
    const auto& section = sections[static_cast<size_t>(names_index)];
    if (!read_bytes(fd, section.sh_offset, section.sh_size, &names)) names.clear();
  }
  for (const auto& section : sections) {
    if (section.sh_type == SHT_NOTE)
      add_notes(elf, section.sh_offset, section.sh_size, section.sh_addralign);
    if (section.sh_type == SHT_PROGBITS && has_name_at(names, section.sh_name, ".debug_line"))
      elf->has_line_table = true;
    if (section.sh_type != SHT_DYNSYM && section.sh_type != SHT_SYMTAB) continue;
    if (section.sh_link >= sections.size()) continue;
    const auto& strings = sections[section.sh_link];
    auto& table = section.sh_type == SHT_DYNSYM ? elf->dynamic_symbols : elf->symbols;
    table = {section.sh_offset, section.sh_size, strings.sh_offset, strings.sh_size};
  }
}

template <class Width>
std::optional<Elf> read_width(int fd, std::string* why) {
  typename Width::Header header;
  if (!read_at(fd, 0, &header, sizeof header)) {
    *why = "is a damaged ELF file: it ends in its header";
    return std::nullopt;
  }
  if (header.e_type != ET_EXEC && header.e_type != ET_DYN) {
    *why = "is an ELF file, but neither a program nor a shared object";
    return std::nullopt;
  }
  Elf elf = {};
  elf.bits = Width::kBits;
  elf.fixed = header.e_type == ET_EXEC;
  if (!take_segments<Width>(fd, header, &elf, why)) return std::nullopt;
  take_sections<Width>(fd, header, &elf);
  elf.build_id = find_note(fd, elf, "GNU", NT_GNU_BUILD_ID).value_or("");
  return elf;
}

template <class Width>
std::vector<uint64_t> find_in_table(int fd, const SymbolTable& table, std::string_view name) {
  std::vector<typename Width::Symbol> symbols;
  std::string names;
  std::vector<uint64_t> values;
  if (!read_table(fd, table.offset, table.size / sizeof symbols[0], &symbols)) return values;
  if (!read_bytes(fd, table.names_offset, table.names_size, &names)) return values;
  for (const auto& symbol : symbols) {
    // The type stands in the same bits for both widths.
    if (symbol.st_shndx == SHN_UNDEF || ELF64_ST_TYPE(symbol.st_info) == STT_TLS) continue;
    if (!has_name_at(names, symbol.st_name, name)) continue;
    if (std::find(values.begin(), values.end(), symbol.st_value) == values.end())
      values.push_back(symbol.st_value);
  }
  return values;
}

}  // namespace

uint64_t Elf::file_address(uint64_t address, uint64_t base) const {
  return (address - base) & last_address(bits);
}

bool Elf::has_code_at(uint64_t address) const {
  return std::any_of(segments.begin(), segments.end(), [&](const Segment& segment) {
    return segment.code && segment.address <= address && address < segment.end;
  });
}

std::optional<Elf> read_elf(int fd, std::string* why) {
  unsigned char ident[EI_NIDENT];
  if (!read_at(fd, 0, ident, sizeof ident) || memcmp(ident, ELFMAG, SELFMAG) != 0) {
    *why = "is not an ELF file";
    return std::nullopt;
  }
  if (ident[EI_DATA] != ELFDATA2LSB) {
    *why = "is an ELF file, but not of a little-endian machine";
    return std::nullopt;
  }
  if (ident[EI_CLASS] == ELFCLASS32) return read_width<Elf32>(fd, why);
  if (ident[EI_CLASS] == ELFCLASS64) return read_width<Elf64>(fd, why);
  *why = "is an ELF file of unknown width";
  return std::nullopt;
}

std::optional<std::string> find_note(int fd, const Elf& elf, std::string_view owner,
                                     uint32_t type) {
  for (const NotePart& part : elf.notes) {
    std::string notes;
    if (part.size > kMaxNotes || !read_bytes(fd, part.offset, part.size, &notes)) continue;
    if (std::optional<std::string> found = note_in(notes, part.alignment, owner, type))
      return found;
  }
  return std::nullopt;
}

std::vector<uint64_t> find_symbol(int fd, const Elf& elf, std::string_view name) {
  for (const SymbolTable& table : {elf.dynamic_symbols, elf.symbols}) {
    std::vector<uint64_t> values = elf.bits == 32 ? find_in_table<Elf32>(fd, table, name)
                                                  : find_in_table<Elf64>(fd, table, name);
    if (!values.empty()) return values;
  }
  return {};
}
