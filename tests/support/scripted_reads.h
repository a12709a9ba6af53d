// Decides what the next reads of this process give, libraries included.
#ifndef VELORIN_TESTS_scripted_reads_
#define VELORIN_TESTS_scripted_reads_

#include <stddef.h>

#include <deque>

// What one call of read does: fails with `error`, or gives at most `bytes` of what is there; 0
// looks like the end of the file.
struct ScriptedRead {
  int error;
  size_t bytes;
};

// Taken from the front, one by each read; when none is left reads are the system's. Not for
// programs with threads.
extern std::deque<ScriptedRead> scripted_reads;

#endif  // VELORIN_TESTS_scripted_reads_
