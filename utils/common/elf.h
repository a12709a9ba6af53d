// What commands need from an ELF file of either width. Nothing in the file is believed: every
// offset and count is held against the file's size.
#ifndef VELORIN_COMMON_elf_
#define VELORIN_COMMON_elf_

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A part of the file that is loaded: addresses from `address` up to, not including, `end`, as the
// file counts them.
struct Segment {
  uint64_t address;
  uint64_t end;
  bool code;
};

// Where a table of symbols and their names stand in the file, in bytes. Empty when there is none.
struct SymbolTable {
  uint64_t offset = 0;
  uint64_t size = 0;
  uint64_t names_offset = 0;
  uint64_t names_size = 0;
};

// A part of the file that holds notes.
struct NotePart {
  uint64_t offset;
  uint64_t size;
  uint64_t alignment;
};

struct Elf {
  int bits;    // 32 or 64
  bool fixed;  // loaded at the file's own addresses
  std::vector<Segment> segments;
  std::vector<NotePart> notes;
  std::string build_id;  // its bytes; empty: none
  SymbolTable dynamic_symbols;
  SymbolTable symbols;
  bool has_line_table;

  // Of an address in memory, the one that the file counts, when it was loaded at `base`.
  uint64_t file_address(uint64_t address, uint64_t base) const;

  // Whether `address`, as the file counts it, is one of its instructions.
  bool has_code_at(uint64_t address) const;
};

// Empty, with the reason in `*why`, when `fd` is not an executable or shared object of a
// little-endian machine.
std::optional<Elf> read_elf(int fd, std::string* why);

// The contents of the first note of that owner and type that has 1 to 64 bytes of them; empty when
// there is none. Parts of more than 64 KiB are passed over.
std::optional<std::string> find_note(int fd, const Elf& elf, std::string_view owner, uint32_t type);

// The values, each once, of the symbols of that name that are defined in the dynamic table or, when
// it has none, in the other: several, when the symbol has versions. Tables of more than 32 MiB are
// passed over.
std::vector<uint64_t> find_symbol(int fd, const Elf& elf, std::string_view name);

#endif  // VELORIN_COMMON_elf_
