// What paths name, and files that hold one value. Works in the folder that is its argument.
#include <fstream>
#include <iostream>
#include <string>

#include <velorin/Exception>
#include <velorin/FileUtilities>

namespace {

void show(const std::string& folder) {
  const std::string path = appendSlash(folder) + "limits/clients";
  std::cout << baseName(path) + " lies in " + baseName(folder) + "/limits\n";
  std::cout << (isDirectory(directoryOf(path)) ? "there is such a folder\n" : "no such folder\n");

  const std::string limit = appendSlash(folder) + "clients";
  std::cout << "without a file: " << readIntegerFromFile(limit, 100) << "\n";
  std::ofstream(limit) << "250\n";
  std::cout << "with a file: " << readIntegerFromFile(limit, 100) << "\n";
  std::ofstream(limit) << "1\n";
  std::cout << std::boolalpha << "as a flag: " << readBoolFromFile(limit, false) << "\n";
  std::ofstream(limit) << "many clients\n";
  std::cout << "as a word: " + readStringFromFile(limit, "few") + "\n";

  touchFile(limit);
  const double age = cvGetTime() - static_cast<double>(lastModificationTime(limit));
  std::cout << "regular " << isRegularFile(limit) << ", program " << isExecutableFile(limit)
            << ", fresh " << (age < 60) << "\n";

  std::string device = folder;
  unsigned kilobytes;
  const bool known = cvGetDiskFreeSpaceInKB(device, kilobytes) == 0;
  std::cout << "room for a megabyte: " << (known && kilobytes >= 1024) << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  try {
    show(argc > 1 ? argv[1] : ".");
  } catch (const Exception& e) {
    e.caught(__FILE_NAME__, __LINE__);
    return 1;
  }
  return 0;
}
