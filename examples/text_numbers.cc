// Numbers as text: what a proxy might say about a connection.
#include <velorin/String>

#include <iostream>

int main() {
  const unsigned short port = 8080;
  const unsigned mode = 0640;
  const unsigned flags = 0xBEEF;
  const unsigned char load = 5;
  const long offset = -255;
  const unsigned long long bytes = 18446744073709551615ULL;

  std::cout << "port " + Dec(port) + ", " + Dec(bytes) + " bytes\n";
  std::cout << "mode " + Str(mode, 8) + ", flags " + Str(flags, 16) + "\n";
  std::cout << "offset " + Str(offset, 16) + ", without prefix " + Str(offset, -16) + "\n";
  std::cout << "load " + Str(load, 2) + ", padded " + Str(load, 2, 8) + "\n";
  std::cout << "file part-" + Dec(load) + " or part-" + Str(load, 10, 4) + "\n";
  return 0;
}
