// The main of every test binary.
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Every test binary has threads (the event loop's, the servers'), so death
  // tests re-run the binary for the one test instead of forking a copy that
  // lacks those threads.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
