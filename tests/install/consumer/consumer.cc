// A user's program in C++: texts and an exception cross the border of the library.
#include <iostream>
#include <velorin/Exception>
#include <velorin/Md5>
#include <velorin/String>
#include <velorin/unixFile>

int main() {
  if (Str(3054, 16) != "0xBEE") return 1;
  if (Md5::GetMD5("") != "1B2M2Y8AsgTpgAmY7PhCfg..") return 2;
  try {
    symbolicLink("target", "/nonexistent/link");
    return 3;
  } catch (const Exception& e) {
    if (e.details() != "symlink target /nonexistent/link: No such file or directory") return 4;
  }
  std::cout << "C++: ok\n";
}
