// The sign-in tests' application, started again: it sets itself up as the
// test did and loads the stored account.
//
//   account_e2e_load_helper ISSUER
//
// Prints "ACCOUNT <identifier> <email>" or "NO ACCOUNT".
#include <cstdio>

#include <vantor/account/QMQuelmoConnectController.hpp>

#include "LocalSignIn.hpp"

int main(int argc, char** argv) {
  using namespace vantor::account;
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s ISSUER\n", argv[0]);
    return 2;
  }
  testing::configureTestApplication(argv[1], {});
  auto& controller = QMQuelmoConnectController::shared();
  controller.load();
  if (auto account = controller.account()) {
    std::printf("ACCOUNT %s %s\n", account->identifier().value_or("-").c_str(),
                account->email().value_or("-").c_str());
  } else {
    std::printf("NO ACCOUNT\n");
  }
  return 0;
}
