// A fixed number of push/reply round trips, for counting instructions per
// round trip with `valgrind --tool=callgrind`, which wall-clock runs on a
// busy machine cannot give reliably.
//
//   vantor-e2e-count serve                 # an echo server; prints its port
//   vantor-e2e-count <bare|async|loop|host> PORT [ROUND_TRIPS] [WINDOW]
//
// VANTOR_POLL_BEFORE_SLEEP_US sets how long the loop polls before sleeping.
//
// Under callgrind, statistics are zeroed after the connection and a warm-up,
// and dumped as "measured" after the counted round trips, so the dump's
// instruction total divided by ROUND_TRIPS is the client's cost per round
// trip. Run the server outside valgrind so its work is not counted.
#include <valgrind/callgrind.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <semaphore>
#include <string>
#include <thread>

#include "Clients.hpp"
#include "EchoServer.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"

namespace {

using vantor::realtime::Message;

constexpr std::int64_t warmUp = 500;

void startMeasuring() { CALLGRIND_ZERO_STATS; }
void stopMeasuring() { CALLGRIND_DUMP_STATS_AT("measured"); }

template <class BareLike>
void bare(std::uint16_t port, std::int64_t count, int window) {
  BareLike client(port);
  auto run = [&](std::int64_t total) {
    std::int64_t sent = 0;
    client.run(window, [&] { return sent++ < total; });
  };
  run(warmUp);
  startMeasuring();
  run(count);
  stopMeasuring();
}

using Client = vantor::bench::LibraryClient;
using vantor::bench::echoPayload;

void onTheLoop(std::uint16_t port, std::int64_t count, int window) {
  Client client(port);
  auto run = [&](std::int64_t total) {
    std::int64_t sent = 0;
    std::int64_t done = 0;
    std::promise<void> finished;
    std::function<void()> pushOne = [&] {
      ++sent;
      client.channel->push("echo", echoPayload(sent))->receive("ok", [&](const Message& reply) {
        ++done;
        if (reply.payload().empty()) {
          std::fprintf(stderr, "unexpected reply\n");
        }
        if (sent < total) {
          pushOne();
        } else if (done == sent) {
          finished.set_value();
        }
      });
    };
    vantor::platform::EventLoop::main().sync([&] {
      for (int i = 0; i < window && sent < total; ++i) {
        pushOne();
      }
    });
    finished.get_future().wait();
  };
  run(warmUp);
  startMeasuring();
  run(count);
  stopMeasuring();
}

void fromAnApplicationThread(std::uint16_t port, std::int64_t count, int window) {
  Client client(port);
  auto run = [&](std::int64_t total) {
    std::counting_semaphore<1024> permits(window);
    for (std::int64_t sent = 1; sent <= total; ++sent) {
      permits.acquire();
      client.channel->push("echo", echoPayload(sent))->receive("ok", [&](const Message& reply) {
        if (reply.payload().empty()) {
          std::fprintf(stderr, "unexpected reply\n");
        }
        permits.release();
      });
    }
    for (int i = 0; i < window; ++i) {
      permits.acquire();
    }
  };
  run(warmUp);
  startMeasuring();
  run(count);
  stopMeasuring();
}

}  // namespace

int main(int argc, char** argv) {
  for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY"}) {
    ::unsetenv(name);
  }
  if (argc >= 2 && std::strcmp(argv[1], "serve") == 0) {
    vantor::bench::EchoServer server;
    std::printf("%u\n", static_cast<unsigned>(server.port()));
    std::fflush(stdout);
    for (;;) {
      std::this_thread::sleep_for(std::chrono::hours(1));
    }
  }
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s serve | <bare|async|loop|host> PORT [ROUND_TRIPS] [WINDOW]\n", argv[0]);
    return 2;
  }
  const std::string mode = argv[1];
  const auto port = static_cast<std::uint16_t>(std::atoi(argv[2]));
  const std::int64_t count = argc > 3 ? std::atoll(argv[3]) : 20000;
  const int window = argc > 4 ? std::atoi(argv[4]) : 64;
  if (const char* poll = std::getenv("VANTOR_POLL_BEFORE_SLEEP_US")) {
    vantor::platform::EventLoop::main().setPollBeforeSleep(std::chrono::microseconds(std::atoi(poll)));
  }
  if (mode == "bare") {
    bare<vantor::bench::BareClient>(port, count, window);
  } else if (mode == "async") {
    bare<vantor::bench::AsyncBareClient>(port, count, window);
  } else if (mode == "loop") {
    onTheLoop(port, count, window);
  } else if (mode == "host") {
    fromAnApplicationThread(port, count, window);
  } else {
    std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
    return 2;
  }
  std::printf("%s: %lld round trips\n", mode.c_str(), static_cast<long long>(count));
  return 0;
}
