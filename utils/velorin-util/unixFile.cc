// Changing the file system. See velorin/unixFile.
#include "velorin/unixFile"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "velorin/Exception"
#include "velorin/FileUtilities"
#include "velorin/Logger"
#include "velorin/String"
#include "velorin/SystemError"
#include "velorin/ad_debug"

namespace {

constexpr mode_t kDirectoryMode = 0777;  // less the umask

void runCommand(const std::string& command) {
  // Kept: the text in the exception is mostly that of no error.
  errno = 0;  // the shell's failures do not set it
  const int status = system(command.c_str());
  if (status != 0)
    throw Exception("Command failed: " + Str(status) + ", " + SystemError() + ", " + command);
}

bool exists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

// Returns: whether there is something of that name now; errno telling why not.
bool makeDirectory(const std::string& path) {
  return mkdir(path.c_str(), kDirectoryMode) == 0 || errno == EEXIST;
}

}  // namespace

int removeFile(const std::string& file) {
  if (remove(file.c_str()) == 0)
    AD_TRCE("removed `%s'", file.c_str());
  else if (errno != ENOENT)
    Logger::warn("Could not remove `" + file + "': " + SystemError());
  return 0;  // Kept: symbolicLink, for one, goes on in any case
}

long sizeOfFile(const std::string& name) {
  struct stat status;
  if (stat(name.c_str(), &status) != 0) {
    if (errno == ENOENT) return -1;
  } else if (status.st_size <= LONG_MAX) {  // LCOV_EXCL_BR_LINE: as below
    return static_cast<long>(status.st_size);
    // LCOV_EXCL_START: only where long has 32 bits
  } else {
    errno = EOVERFLOW;
  }
  // LCOV_EXCL_STOP
  throw Exception("Could not stat `" + name + "': " + SystemError());
}

void renameFile(const std::string& from, const std::string& to) {
  if (rename(from.c_str(), to.c_str()) != 0)
    throw Exception("Could not rename `" + from + "' to `" + to + "': " + SystemError());
}

void makeDirectoryPath(const std::string& path) {
  if (isDirectory(path)) return;
  bool missing = false;  // below a directory that was, everything is; mkdir tells if it is not
  std::string prefix = path;
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    prefix[slash] = '\0';
    // Kept: whatever exists will do here.
    missing = missing || !exists(prefix);
    if (missing && !makeDirectory(prefix))
      throw Exception("Trouble creating subdirectory `" + path.substr(0, slash) + "' of target `" +
                      path + "': " + SystemError());
    prefix[slash] = '/';
  }
  if (!makeDirectory(path))
    throw Exception("Trouble creating directory `" + path + "': " + SystemError());
}

void moveFile(const std::string& from, const std::string& to) {
  // Kept: the names stand between the quotes as they are.
  if (rename(from.c_str(), to.c_str()) != 0)
    runCommand("/bin/mv -f -- \"" + from + "\" \"" + to + "\"");
  AD_TRCE("Moved `%s' to `%s'", from.c_str(), to.c_str());
}

void copyFile(const std::string& from, const std::string& to) {
  const std::string temporary = to + "~";
  // Kept: without quotes.
  const std::string command = "/bin/cp -f -- " + from + " " + temporary;
  AD_TRCE("copyFile: %s", command.c_str());
  runCommand(command);
  AD_TRCE("Copied `%s' to `%s'", from.c_str(), temporary.c_str());
  // Kept: the copy stays when it cannot be renamed.
  renameFile(temporary, to);
}

void symbolicLink(const std::string& from, const std::string& to) {
  if (symlink(from.c_str(), to.c_str()) == 0) return;
  if (errno == EEXIST) {
    // Kept: what stands there gives way, but for a directory that holds something.
    removeFile(to);
    if (symlink(from.c_str(), to.c_str()) == 0) return;
  }
  throw Exception("symlink " + from + " " + to + ": " + SystemError());
}
