// Sign-in on a Linux desktop through the application's URL scheme: the
// registration, and the hand-off of the redirect to the running copy, as the
// README and the headers show them. Built, not run.
#include <string>
#include <vantor/account/QMHostApplication.hpp>
#include <vantor/account/QMQuelmoConnectController.hpp>
#include <vantor/account/QMSingleInstance.hpp>
#include <vantor/account/QMURLSchemeRegistration.hpp>

using namespace vantor::account;

int main(int argc, char** argv) {
  QMHostApplication::setName("Example");
  QMHostApplication::setBundleIdentifier("com.example.app");
  // Once, for example at first start: the browser then starts this program
  // with the redirect.
  QMURLSchemeRegistration::registerHandler("com.example.app", {"/usr/bin/example-app"});

  // At start, after QMHostApplication::setBundleIdentifier("com.example.app"):
  if (argc > 1 && QMSingleInstance::handOff(argv[1])) {
    return 0;  // the running copy took the URL
  }
  QMSingleInstance instance([](const std::string& url) {
    QMQuelmoConnectController::shared().handleOAuthResponse(url);
  });
  // ... configure the account layer and the controller, then run the
  // application; a URL given to this copy goes to the controller too.
  if (argc > 1) {
    QMQuelmoConnectController::shared().handleOAuthResponse(argv[1]);
  }
  return 0;
}
