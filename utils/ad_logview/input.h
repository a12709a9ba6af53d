// A file, or standard input, that is read to its end.
#ifndef VELORIN_AD_LOGVIEW_input_
#define VELORIN_AD_LOGVIEW_input_

#include <sys/stat.h>

#include <string>

#include "line_splitter.h"
#include "view.h"

// What is open as one file descriptor; closes it.
class Input {
 public:
  Input() = default;
  ~Input() { close(); }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // Opens a file, or standard input for "-".
  // Returns: false, having said why, when it cannot be had or is what standard output appends to.
  bool open(const std::string& name);

  // The same without words: errno tells why. Waits for no writer.
  bool openToFollow(const std::string& name);

  // Reads on to what is the end now. Before it waits for more all that was read is shown.
  // Returns: false, having said why, when it cannot be read.
  bool readOn(LineSplitter* lines, View* view);

  // Goes to the beginning of the last `count` lines of a file on disk. With `whole_only` a last
  // line without an end is not counted and comes behind them.
  bool seekToLast(size_t count, bool whole_only);
  bool seekToStart();

  bool isOpen() const { return fd_ >= 0; }
  // Whether it is what standard output is written to, so that it would never end; says so.
  bool isOutput() const;
  bool isRegular() const { return S_ISREG(status_.st_mode); }
  bool isSameFile(const struct stat& other) const;
  bool wasCut() const;  // it is shorter than what was read of it
  int fd() const { return fd_; }
  void swap(Input* other);

 private:
  bool use(int fd, const std::string& name);
  bool complainOfErrno() const;
  // Where the `count`-th newline is that stands before `end`, counted backwards; -1 when there are
  // fewer. Returns: false when the file cannot be read.
  bool findNewline(off_t end, size_t count, off_t* at) const;
  void close();

  int fd_ = -1;
  std::string name_;
  struct stat status_ = {};
};

#endif  // VELORIN_AD_LOGVIEW_input_
