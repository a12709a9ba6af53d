// The entry point of every test program.
#include <gmock/gmock.h>

// Defined, and so linked in, only where a test uses PrivateWorld.
__attribute__((weak)) void enter_private_world();

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (enter_private_world != nullptr && !testing::GTEST_FLAG(list_tests)) enter_private_world();
  return RUN_ALL_TESTS();
}
