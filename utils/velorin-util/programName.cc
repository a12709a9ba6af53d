// The process's program name. See velorin/programName.
#include "velorin/programName"

#include <string.h>

namespace {

const char* full_name = nullptr;
const char* short_name = nullptr;

}  // namespace

void setProgramName(const char* name) {
  // Kept: the caller's text itself, not a copy: it may change what the name is.
  full_name = name;
  short_name = name != nullptr ? basename(name) : nullptr;
}

const char* getFullProgramName() {
  return full_name;
}

const char* getProgramName() {
  return short_name;
}
