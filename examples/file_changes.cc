// Changing the file system, and what failures look like. Works in the folder that is its argument.
#include <fstream>
#include <iostream>
#include <string>

#include <velorin/Exception>
#include <velorin/FileUtilities>
#include <velorin/unixFile>

namespace {

// The names are this program's own and hold nothing that the shell would take for more than text.
void change(const std::string& folder) {
  const std::string top = appendSlash(folder);
  makeDirectoryPath(top + "spool/new");
  const std::string fresh = top + "spool/new/job";
  const std::string job = top + "spool/job";

  std::ofstream(fresh) << "print this\n";
  moveFile(fresh, job);
  copyFile(job, job + ".old");
  symbolicLink("job.old", top + "spool/last");
  std::cout << "last has " << sizeOfFile(top + "spool/last") << " bytes\n";

  renameFile(job, job + ".done");
  std::cout << "job has " << sizeOfFile(job) << " bytes now\n";
  removeFile(job);  // is not there any more, which is no error

  try {
    makeDirectoryPath(job + ".done/logs");
  } catch (const Exception& e) {
    // e.caught(__FILE_NAME__, __LINE__) would log it.
    std::cout << e.details().substr(e.details().rfind("': ") + 3) + "\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    change(argc > 1 ? argv[1] : ".");
  } catch (const Exception& e) {
    e.caught(__FILE_NAME__, __LINE__);
    return 1;
  }
  return 0;
}
