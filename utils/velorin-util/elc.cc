// Typed settings from small text files. See velorin/elc.
#include "velorin/elc"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

namespace {

#define ELC_PATH_FORMAT "/local/local1/elc/%s.elc"
// Kept: room for names of 9 characters. Longer ones have always opened the cut path.
constexpr size_t kPathRoom = 32;

bool disable_elc = false;  // nothing sets it but a debugger
// Kept: one buffer for all calls, the returned text in it.
char buf[128];  // the piece that is read, and the message that is returned
FILE* fp = nullptr;

// What is wrong with a piece, at a position from 0; no message: nothing.
struct Complaint {
  const char* message;
  size_t column;
};
constexpr Complaint kNone = {nullptr, 0};

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n';
}

const char* skip_blanks(const char* at) {
  while (is_blank(*at)) ++at;
  return at;
}

const char* word_end(const char* at) {
  while (*at != '\0' && !is_blank(*at)) ++at;
  return at;
}

Complaint complain(const char* message, const char* at) {
  return {message, static_cast<size_t>(at - buf)};
}

bool equals(const char* word, size_t length, const char* text) {
  return strlen(text) == length && strncasecmp(word, text, length) == 0;
}

Complaint parse_bool(const char* value, elc_entry* entry) {
  const size_t length = static_cast<size_t>(word_end(value) - value);
  const bool yes =
      equals(value, length, "true") || equals(value, length, "yes") || equals(value, length, "1");
  const bool no =
      equals(value, length, "false") || equals(value, length, "no") || equals(value, length, "0");
  if (!yes && !no) return complain("Invalid boolean", value);
  entry->value.BOOL_type = yes;
  return kNone;
}

// strtoul where unsigned long has 32 bits, on either target: what they cannot hold is all bits set,
// and a minus sign gives the two's complement.
uint32_t to_uint32(const char* text, char** end) {
  const unsigned long number = strtoul(text, end, 0);
  if (sizeof number == sizeof(uint32_t)) return static_cast<uint32_t>(number);
  while (isspace(static_cast<unsigned char>(*text))) ++text;
  const unsigned long magnitude = *text == '-' ? 0 - number : number;
  // A number that 64 bits cannot hold either has come as all bits set.
  return magnitude > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(number);
}

Complaint parse_number(const char* value, elc_entry* entry) {
  char* end;
  const uint32_t number = to_uint32(value, &end);
  // Kept: no number at all is 0, and one too large for 32 bits is all bits set.
  if (*end != '\0' && !is_blank(*end)) return complain("Invalid number", end);
  if (entry->type == ELC_INT)
    entry->value.INT_type = static_cast<int32_t>(number);
  else
    entry->value.UINT_type = number;
  return kNone;
}

Complaint parse_text(const char* value, elc_entry* entry) {
  const bool quoted = *value == '"';
  const char* const first = quoted ? value + 1 : value;
  // Kept: up to the last quote of the piece, one in a remark included.
  const char* const end = quoted ? strrchr(first, '"') : word_end(first);
  if (end == nullptr) return complain("Missing '\"'", buf + strlen(buf));
  char* const text = strndup(first, static_cast<size_t>(end - first));
  if (text == nullptr) return complain(strerror(errno), value);
  // Kept: a text that a line before has set is not freed, as the program may hold it.
  entry->value.STR_type = text;
  return kNone;
}

Complaint parse_value(const char* value, elc_entry* entry) {
  switch (entry->type) {
    case ELC_BOOL:
      return parse_bool(value, entry);
    case ELC_INT:
    case ELC_UINT:
      return parse_number(value, entry);
    case ELC_STR:
      return parse_text(value, entry);
  }
  return kNone;
}

bool has_value(const elc_entry& entry) {
  return entry.type <= ELC_UINT;  // entries of other types are passed over
}

elc_entry* find(const char* name, size_t length, elc_entry* table, unsigned table_entries) {
  for (elc_entry* entry = table; entry != table + table_entries; ++entry) {
    if (strncmp(entry->name, name, length) == 0 && entry->name[length] == '\0') return entry;
  }
  return nullptr;
}

// Parses what is in `buf`.
Complaint parse_piece(elc_entry* table, unsigned table_entries) {
  const char* const name = skip_blanks(buf);
  if (*name == '\0' || *name == '#') return kNone;
  const char* const end = word_end(name);
  if (*end == '\0') return complain("Missing value", end);
  elc_entry* const entry = find(name, static_cast<size_t>(end - name), table, table_entries);
  if (entry == nullptr) return complain("Unknown ELC name", name);
  if (!has_value(*entry)) return kNone;
  const Complaint complaint = parse_value(skip_blanks(end + 1), entry);
  if (complaint.message == nullptr) entry->is_set = true;
  return complaint;
}

const char* rc_err(const char* file, unsigned line, size_t column, const char* str) {
  (void)fclose(fp);
  (void)snprintf(buf, sizeof buf, "%s:%u:%u: %s", file, line, static_cast<unsigned>(column + 1),
                 str);
  return buf;
}

}  // namespace

const char* _elc_init(const char* name, elc_entry* table, unsigned table_entries) {
  if (disable_elc) return nullptr;
  char path[kPathRoom];
  (void)snprintf(path, sizeof path, ELC_PATH_FORMAT, name);
  fp = fopen(path, "re");
  if (fp == nullptr) {
    // Kept: a file that is not there is no failure: all keeps its default.
    if (errno == ENOENT) return nullptr;
    (void)snprintf(buf, sizeof buf, "%s open failed: %s", path, strerror(errno));
    return buf;
  }
  // Kept: a line that is longer than the buffer is several, each with a number of its own.
  for (unsigned line = 1; fgets(buf, sizeof buf, fp) != nullptr; ++line) {
    const Complaint complaint = parse_piece(table, table_entries);
    if (complaint.message != nullptr)
      return rc_err(path, line, complaint.column, complaint.message);
  }
  (void)fclose(fp);
  return nullptr;
}
