// Where the lines go, standard output or a file, and the lines that wait to be written there.
#ifndef VELORIN_AD_LOGD_line_output_
#define VELORIN_AD_LOGD_line_output_

#include <stddef.h>
#include <stdint.h>

#include "log_line.h"

// Lines are added one by one and written many at a time, never blocking. What cannot be written
// waits, as long as there is room, and no line is torn by a write that succeeded only in part.
class LineOutput {
 public:
  // Opens `path` for appending; null: standard output.
  // Returns: false, having said why, when it cannot.
  bool open(const char* path);

  // Opens the path anew, for a file that was renamed; lines that wait go to the new file. Keeps the
  // old file when there can be no new one. Says which. Nothing for standard output.
  void reopen();

  // Where the next line is to be put: kLineMax bytes; null when too many lines wait.
  char* room();

  // Adds the line that was put at room() and ends before `end`.
  void add(const char* end);

  // Writes as much as can be written now. Says so when errors begin and when they end.
  void flush();

  // Takes it that writing is refused with `err`.
  void fail(int err);

  int fd() const { return fd_; }
  bool failing() const { return error_ != 0; }                 // the last write was refused
  bool blocked() const { return sent_ < end_ && !failing(); }  // poll tells when to go on
  uint64_t waiting() const;                                    // lines

 private:
  void use(int fd);
  void recover();
  bool writable() const;
  size_t chunk() const;
  void compact();

  const char* path_ = nullptr;
  int fd_ = -1;
  bool regular_ = false;  // a file on disk, which never blocks
  int error_ = 0;
  size_t sent_ = 0;  // of the text in lines_
  size_t end_ = 0;
  char lines_[4 * kLineMax];  // two MiB
};

#endif  // VELORIN_AD_LOGD_line_output_
