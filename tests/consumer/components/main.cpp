// Links the realtime component alone.
#include <cstdio>
#include <string>
#include <vantor/realtime/Socket.hpp>

int main() {
  auto socket = vantor::realtime::Socket::make("ws://127.0.0.1:4000/socket");
  std::string url(socket->endPointUrl().buffer());
  std::printf("consumer-realtime: a socket would connect to %s\n", url.c_str());
  return url.find("/socket/websocket?vsn=") == std::string::npos ? 1 : 0;
}
