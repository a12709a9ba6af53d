// The ELF note that tells tools: this program, or library, holds the debug log. It is in every file
// that the log was linked into, and stripping leaves it there.
#ifndef VELORIN_INTERNAL_log_note_
#define VELORIN_INTERNAL_log_note_

#include <stdint.h>

namespace velorin::internal {

constexpr char kLogNoteOwner[] = "velorin-util";
constexpr uint32_t kLogNoteType = 1;

// As both widths have it in the file.
struct LogNote {
  uint32_t owner_size;
  uint32_t content_size;
  uint32_t type;
  char owner[16];  // with its zero and padding
  uint32_t record_size;
};
static_assert(sizeof kLogNoteOwner <= sizeof LogNote::owner &&
                  sizeof kLogNoteOwner > sizeof LogNote::owner - 4,
              "the content begins at the next multiple of four");
static_assert(sizeof(LogNote) == 32, "one note, without gaps");

}  // namespace velorin::internal

#endif  // VELORIN_INTERNAL_log_note_
