#include <cstdio>
#include <vantor/account/QMQuelmoConnectController.hpp>
#include <vantor/platform/EventLoop.hpp>

int main() {
  int answer = vantor::platform::EventLoop::main().sync([] { return 42; });
  std::printf("consumer: linked the installed package, loop answered %d\n", answer);
  bool redirect = vantor::account::QMQuelmoConnectController::isValidResponse(
      "com.example.app:/qmaccounts/quelmoconnect?code=1");
  std::printf("consumer: the sign-in controller %s the service's redirect\n",
              redirect ? "recognises" : "does not recognise");
  return answer == 42 && redirect ? 0 : 1;
}
