// The main of every test binary.
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
  // Tests name their proxies themselves; the machine's must not reach the
  // connections that they make on loopback. Cleared before any thread starts.
  for (const char* name :
       {"http_proxy", "https_proxy", "no_proxy", "HTTP_PROXY", "HTTPS_PROXY", "NO_PROXY"}) {
    ::unsetenv(name);
  }
  ::testing::InitGoogleTest(&argc, argv);
  // Every test binary has threads (the event loop's, the servers'), so death
  // tests re-run the binary for the one test instead of forking a copy that
  // lacks those threads.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
