// Brings pools and the debug record into a known state and stops there, for a debugger to look at.
//   gdb_program none|own|shared trap|wait
// The first argument chooses the debug record; without one there are no pools either.
#include <arpa/inet.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>
#include <velorin/ad_debug>
#include <velorin/sd_mgmt>

#include <string>

namespace {

// So many elements of a pointer's size, with the header, fill a page exactly.
constexpr int kFullPage = sizeof(void*) == 4 ? 1015 : 504;

bool makePools() {
  const int some = sd_create_mpool(10, 100, /*do_erase=*/0);
  const int full = sd_create_mpool(kFullPage, sizeof(void*), /*do_erase=*/1);
  const int small = sd_create_mpool(5000, 3, /*do_erase=*/0);
  for (int i = 0; i < 3; ++i)
    if (sd_elm_alloc(some) == nullptr) return false;
  while (sd_elm_alloc(full) != nullptr) continue;
  return small == 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string record = argv[1];
  if (record != "none" && !makePools()) return 1;
  if (record == "shared" && ad_init_debug_lib("/tmp/ad_errorlog") != 0) return 1;
  if (record == "own") ad_read_debug_cfg_direct_read_from_env();
  if (record != "none")
    ad_debug_set_debug_parameter_directly(inet_addr("192.0.2.7"), /*sip=*/0, /*level=*/2);
  if (std::string(argv[2]) == "trap") {
    (void)raise(SIGTRAP);
  } else {
    (void)puts("ready");
    (void)fflush(stdout);
    (void)pause();
  }
  return 0;
}
