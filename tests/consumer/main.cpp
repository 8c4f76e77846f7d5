#include <cstdio>
#include <string>
#include <vantor/account/QMQuelmoConnectController.hpp>
#include <vantor/platform/EventLoop.hpp>
#include <vantor/realtime/Socket.hpp>
#include <vantor/util/QMExternallyResolvablePromise.hpp>

int runOwnAsio();

int main() {
  const int own = runOwnAsio();
  std::printf("consumer: its own Asio code ran %d handler\n", own);
  int answer = vantor::platform::EventLoop::main().sync([] { return 42; });
  std::printf("consumer: linked the installed package, loop answered %d\n", answer);

  auto socket = vantor::realtime::Socket::make("ws://127.0.0.1:4000/socket");
  std::string url(socket->endPointUrl().buffer());
  std::printf("consumer: a socket would connect to %s\n", url.c_str());

  vantor::util::QMExternallyResolvablePromise<int> promise;
  promise.fulfill(7);
  bool kept = promise.result().has_value();
  std::printf("consumer: a promise resolved from outside is %s\n", kept ? "settled" : "pending");

  bool redirect = vantor::account::QMQuelmoConnectController::isValidResponse(
      "com.example.app:/qmaccounts/quelmoconnect?code=1");
  std::printf("consumer: the sign-in controller %s the service's redirect\n",
              redirect ? "recognises" : "does not recognise");
  return own == 1 && answer == 42 && kept && redirect ? 0 : 1;
}
