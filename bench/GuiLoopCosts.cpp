// vantor-bench-gui: what running the library inside a GLib main loop costs,
// next to the library's own loop thread. The program measures itself with
// the integration, then runs itself again with --own-thread (the mode is
// chosen once per process) and prints both:
// - idle: wake-ups per minute of the thread that runs the library, with one
//   joined socket and the default heartbeat (VANTOR_BENCH_IDLE_SECONDS, 60);
// - busy: the GUI thread's longest single stretch inside the library while
//   1,000 broadcasts a second arrive;
// - round trips per second at 1 and at 64 outstanding.
#include <glib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "EchoServer.hpp"
#include "vantor/glib/GLibMainLoop.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace {

using namespace vantor;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool ownThread = false;
std::optional<glib::GLibMainLoop> integration;

// Lets the library work until `done()` or `limit`: the GLib loop iterates
// here, or, with the library's own thread, this thread just waits.
bool waitFor(const std::function<bool()>& done, Clock::duration limit) {
  const auto end = Clock::now() + limit;
  while (!done() && Clock::now() < end) {
    if (ownThread) {
      std::this_thread::sleep_for(1ms);
    } else {
      g_main_context_iteration(nullptr, TRUE);
    }
  }
  return done();
}

// Runs `work` on the thread that runs the library.
void onLibraryThread(const std::function<void()>& work) { platform::EventLoop::main().sync(work); }

long voluntarySwitches(long tid) {
  std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
      return std::stol(line.substr(line.find(':') + 1));
    }
  }
  return -1;
}

std::shared_ptr<realtime::Channel> joined(const std::shared_ptr<realtime::Socket>& socket, const char* topic) {
  auto channel = socket->channel(topic);
  std::atomic<bool> ok{false};
  onLibraryThread([&] { channel->join()->receive("ok", [&](const realtime::Message&) { ok = true; }); });
  socket->connect();
  if (!waitFor([&] { return ok.load(); }, 20s)) {
    std::fprintf(stderr, "could not join %s\n", topic);
    std::exit(1);
  }
  return channel;
}

// The close goes out on the library's loop: give it time to, as the echo
// server serves one connection at a time.
void disconnect(const std::shared_ptr<realtime::Socket>& socket) {
  socket->disconnect();
  waitFor([] { return false; }, 300ms);
}

double roundTripsPerSecond(std::uint16_t port, int window) {
  auto socket = realtime::Socket::make("ws://127.0.0.1:" + std::to_string(port) + "/socket");
  auto channel = joined(socket, "room:bench");
  std::atomic<long> sent{0};
  std::atomic<long> done{0};
  std::atomic<bool> stopping{false};
  const realtime::Payload payload{{"body", "a message of a usual size for a chat or a status"}};
  std::function<void()> pushOne = [&] {
    ++sent;
    channel->push("echo", payload)->receive("ok", [&](const realtime::Message&) {
      ++done;
      if (!stopping) {
        pushOne();
      }
    });
  };
  onLibraryThread([&] {
    for (int i = 0; i < window; ++i) {
      pushOne();
    }
  });
  const auto start = Clock::now();
  waitFor([] { return false; }, 2s);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const long counted = done;
  stopping = true;
  waitFor([&] { return done == sent; }, 20s);
  disconnect(socket);
  return static_cast<double>(counted) / seconds;
}

void measure(std::map<std::string, double>& results) {
  {
    bench::EchoServer server;
    results["round_trips_1"] = roundTripsPerSecond(server.port(), 1);
    results["round_trips_64"] = roundTripsPerSecond(server.port(), 64);
  }
  vantor::testing::PhoenixTestServer server;
  auto socket = realtime::Socket::make(server.url());
  auto channel = joined(socket, "room:busy");

  // Busy: 1,000 broadcasts a second for three seconds.
  std::atomic<long> received{0};
  onLibraryThread([&] { channel->on("tick", [&](const realtime::Message&) { ++received; }); });
  if (integration) {
    integration->turns().resetStatistics();
  }
  std::atomic<bool> broadcasting{true};
  std::thread broadcaster([&] {
    auto next = Clock::now();
    for (int i = 0; i < 3000; ++i) {
      server.broadcast("room:busy", "tick", {{"i", i}});
      next += 1ms;
      std::this_thread::sleep_until(next);
    }
    broadcasting = false;
  });
  waitFor([&] { return !broadcasting && received >= 3000; }, 30s);
  broadcaster.join();
  results["busy_received"] = static_cast<double>(received);
  if (integration) {
    results["busy_longest_ms"] =
        std::chrono::duration<double, std::milli>(integration->turns().longest()).count();
  }

  // Idle: one joined socket, the default heartbeat.
  const char* idleText = std::getenv("VANTOR_BENCH_IDLE_SECONDS");
  const double idleSeconds = idleText != nullptr ? std::atof(idleText) : 60.0;
  long tid = 0;
  onLibraryThread([&] { tid = static_cast<long>(::syscall(SYS_gettid)); });
  const long before = voluntarySwitches(tid);
  const auto turnsBefore = integration ? integration->turns().count() : 0;
  const auto heartbeatsBefore = server.heartbeatsReceived();
  waitFor([] { return false; }, std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(idleSeconds)));
  results["idle_wakes_per_minute"] = static_cast<double>(voluntarySwitches(tid) - before) * 60.0 / idleSeconds;
  results["idle_heartbeats"] = static_cast<double>(server.heartbeatsReceived() - heartbeatsBefore);
  if (integration) {
    results["idle_turns"] = static_cast<double>(integration->turns().count() - turnsBefore);
  }
  disconnect(socket);
}

}  // namespace

int main(int argc, char** argv) {
  for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY"}) {
    ::unsetenv(name);
  }
  ownThread = argc > 1 && std::strcmp(argv[1], "--own-thread") == 0;
  if (!ownThread) {
    integration.emplace();
  }
  std::map<std::string, double> mine;
  measure(mine);
  if (ownThread) {
    for (const auto& [name, value] : mine) {
      std::printf("%s=%f\n", name.c_str(), value);
    }
    return 0;
  }

  std::map<std::string, double> own;
  const std::string command = std::string(argv[0]) + " --own-thread";
  if (FILE* child = ::popen(command.c_str(), "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, child) != nullptr) {
      if (char* equals = std::strchr(line, '=')) {
        *equals = '\0';
        own[line] = std::atof(equals + 1);
      }
    }
    ::pclose(child);
  }
  std::printf("\nGUI main-loop integration (GLib) against the library's own loop thread\n");
  std::printf("%-58s %12s %12s\n", "", "own thread", "GLib loop");
  std::printf("%-58s %12.1f %12.1f\n", "idle: wake-ups a minute of the thread running the library",
              own["idle_wakes_per_minute"], mine["idle_wakes_per_minute"]);
  std::printf("%-58s %12.0f %12.0f\n", "idle: heartbeats in that time", own["idle_heartbeats"],
              mine["idle_heartbeats"]);
  std::printf("%-58s %12s %12.0f\n", "idle: turns of the library on the GUI thread", "-", mine["idle_turns"]);
  std::printf("%-58s %12s %12.2f\n", "busy, 1,000 broadcasts/s: longest GUI stretch, ms", "-",
              mine["busy_longest_ms"]);
  std::printf("%-58s %12.0f %12.0f\n", "busy: broadcasts received (of 3,000)", own["busy_received"],
              mine["busy_received"]);
  std::printf("%-58s %12.0f %12.0f\n", "round trips/s, 1 outstanding", own["round_trips_1"], mine["round_trips_1"]);
  std::printf("%-58s %12.0f %12.0f\n", "round trips/s, 64 outstanding", own["round_trips_64"],
              mine["round_trips_64"]);
  return 0;
}
