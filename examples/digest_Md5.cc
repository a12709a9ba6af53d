// Digests as text: keys of a cache, and a file's checksum.
#include <velorin/Md5>

#include <cstdio>
#include <iostream>

int main() {
  const std::string url = "http://media.example/film.asx";
  std::cout << "key       " + Md5::GetMD5(url) + "\n";
  std::cout << "of part 7 " + Md5::GetMD5(url, 7) + "\n";

  std::string md5;
  if (Md5::GetFileMD5("/dev/null", md5) != 0) return 1;
  std::cout << "no bytes  " + md5 + ", as a string " + Md5::GetMD5("") + "\n";
  return 0;
}
