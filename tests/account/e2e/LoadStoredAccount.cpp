// The sign-in tests' application, started again: `account_e2e_load_helper
// ISSUER` sets itself up as the test did, loads the stored account and
// prints "ACCOUNT <identifier> <email>" or "NO ACCOUNT".
#include <cstdio>

#include <vantor/account/QMQuelmoConnectController.hpp>

#include "LocalSignIn.hpp"

int main(int argc, char** argv) {
  using namespace vantor::account;
  if (argc != 2) {
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
