// The application as the desktop starts it for a URL of its scheme:
// `account_handoff_helper BUNDLE URL` hands URL to the running copy of the
// application BUNDLE and prints "HANDED OFF" (exit 0), or, when none runs,
// becomes the running copy and handles it itself: "HANDLED HERE <url>"
// (exit 3, which tells the tests which way it went).
#include <cstdio>
#include <vantor/account/QMHostApplication.hpp>
#include <vantor/account/QMSingleInstance.hpp>

int main(int argc, char** argv) {
  using namespace vantor::account;
  if (argc != 3) {
    return 2;
  }
  QMHostApplication::setBundleIdentifier(argv[1]);
  if (QMSingleInstance::handOff(argv[2])) {
    std::printf("HANDED OFF\n");
    return 0;
  }
  QMSingleInstance instance([](const std::string&) {});
  std::printf("HANDLED HERE %s\n", argv[2]);
  return 3;
}
