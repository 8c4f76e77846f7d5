#include <cstdio>
#include <vantor/platform/EventLoop.hpp>

int main() {
  int answer = vantor::platform::EventLoop::main().sync([] { return 42; });
  std::printf("consumer: linked the installed package, loop answered %d\n", answer);
  return answer == 42 ? 0 : 1;
}
