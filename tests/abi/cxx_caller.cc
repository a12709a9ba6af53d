// A strict C++17 program that uses both styles of the library together.
// Usage: cxx_caller DAEMON, the base path of a log daemon. It ends with a fatal statement: exit
// status 3.
#include "velorin/String"
#include "velorin/ad_debug"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  ad_debug_set_process_name("cxx_caller");
  if (ad_init_debug_lib(argv[1]) != 0) return 1;
  ad_debug_set_debug_parameter_directly(0, 0, 3);
  AD_ERRO("error\n");
  AD_CRTC("critical\n");
  AD_TRCE("trace\n");
  AD_DETL("detail %s %s %s\n", Str(255, 16).c_str(), Dec(-1).c_str(), Signed(-5L, 2).c_str());
  AD_FATAL(3, 512001, "fatal\n");
}
