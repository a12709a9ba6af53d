// Text that people read: what a proxy might say about a transfer.
#include <velorin/String>

#include <iostream>

int main() {
  const std::string url = "http://host/Caf\xE9%20Menu";
  const double bytes = 123456789;
  const double seconds = 0.0625;
  const float load = 2.0f / 3;

  std::cout << "from " + plain(UrlStripScheme(url)) + ", kept as " + toLower("HOST") + "\n";
  std::cout << Eng(bytes, 3) + " bytes, " + Eng(seconds, 2) + " s, load " + Str(load, 3) + "\n";
  std::cout << "waited " + Flt(seconds, 6) + " s, at most " + Flt(1.50, 2) + " s\n";
  std::cout << "up for " + TimeSpanStr(93784) + "\n";
  std::cout << "since " + GMTTimeStr(1709211909) + ", in " + VelorinHome() + "\n";
  std::cout << "separated by " + Str('\t') + " or " + Str(';') + "\n";
  return 0;
}
