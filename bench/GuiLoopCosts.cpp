// vantor-bench-gui: what running the library inside a GLib or a Qt main
// loop costs, next to the library's own loop thread. The program measures
// itself with the GLib integration, then runs itself again with --qt and
// with --own-thread (the mode is chosen once per process) and prints all
// three:
// - idle: wake-ups per minute of the thread that runs the library, with one
//   joined socket and the default heartbeat (VANTOR_BENCH_IDLE_SECONDS, 60);
// - busy: the GUI thread's longest single stretch inside the library while
//   1,000 broadcasts a second arrive;
// - round trips per second at 1 and at 64 outstanding.
#include <glib.h>
#include <sys/syscall.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
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
#include "EchoWindow.hpp"
#include "vantor/glib/GLibMainLoop.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/qt/QtMainLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace {

using namespace vantor;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

enum class Mode { glib, qt, ownThread };
Mode mode = Mode::glib;
// The integration's turns; none with the library's own thread.
platform::LoopTurns* integration = nullptr;

// Lets the library work until `done()` or `limit`: the toolkit's loop
// iterates here, or, with the library's own thread, this thread just waits.
bool waitFor(const std::function<bool()>& done, Clock::duration limit) {
  const auto end = Clock::now() + limit;
  QTimer wake;  // Qt's wait ends at the limit
  if (mode == Mode::qt) {
    wake.setSingleShot(true);
    wake.start(std::chrono::duration_cast<std::chrono::milliseconds>(limit) + 1ms);
  }
  while (!done() && Clock::now() < end) {
    switch (mode) {
      case Mode::ownThread:
        std::this_thread::sleep_for(1ms);
        break;
      case Mode::glib:
        g_main_context_iteration(nullptr, TRUE);
        break;
      case Mode::qt:
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        break;
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
  bench::EchoWindow echoes(channel);
  onLibraryThread([&] { echoes.open(window); });
  const auto start = Clock::now();
  waitFor([] { return false; }, 2s);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const long counted = echoes.answered();
  echoes.close();
  waitFor([&] { return echoes.settled(); }, 20s);
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
  if (integration != nullptr) {
    integration->resetStatistics();
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
  if (integration != nullptr) {
    results["busy_longest_ms"] = std::chrono::duration<double, std::milli>(integration->longest()).count();
  }

  // Idle: one joined socket, the default heartbeat.
  const char* idleText = std::getenv("VANTOR_BENCH_IDLE_SECONDS");
  const double idleSeconds = idleText != nullptr ? std::atof(idleText) : 60.0;
  long tid = 0;
  onLibraryThread([&] { tid = static_cast<long>(::syscall(SYS_gettid)); });
  const long before = voluntarySwitches(tid);
  const auto turnsBefore = integration != nullptr ? integration->count() : 0;
  const auto heartbeatsBefore = server.heartbeatsReceived();
  waitFor([] { return false; }, std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(idleSeconds)));
  results["idle_wakes_per_minute"] = static_cast<double>(voluntarySwitches(tid) - before) * 60.0 / idleSeconds;
  results["idle_heartbeats"] = static_cast<double>(server.heartbeatsReceived() - heartbeatsBefore);
  if (integration != nullptr) {
    results["idle_turns"] = static_cast<double>(integration->count() - turnsBefore);
  }
  disconnect(socket);
}

}  // namespace

int main(int argc, char** argv) {
  for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY"}) {
    ::unsetenv(name);
  }
  const std::string flag = argc > 1 ? argv[1] : "";
  mode = flag == "--own-thread" ? Mode::ownThread : flag == "--qt" ? Mode::qt : Mode::glib;
  std::optional<QCoreApplication> application;
  std::optional<qt::QtMainLoop> qtLoop;
  std::optional<glib::GLibMainLoop> glibLoop;
  if (mode == Mode::qt) {
    application.emplace(argc, argv);
    integration = &qtLoop.emplace().turns();
  } else if (mode == Mode::glib) {
    integration = &glibLoop.emplace().turns();
  }
  std::map<std::string, double> glibResults;
  measure(glibResults);
  if (mode != Mode::glib) {
    for (const auto& [name, value] : glibResults) {
      std::printf("%s=%f\n", name.c_str(), value);
    }
    return 0;
  }

  auto runChild = [&](const char* childFlag) {
    std::map<std::string, double> results;
    const std::string command = std::string(argv[0]) + " " + childFlag;
    if (FILE* child = ::popen(command.c_str(), "r")) {
      char line[256];
      while (std::fgets(line, sizeof line, child) != nullptr) {
        if (char* equals = std::strchr(line, '=')) {
          *equals = '\0';
          results[line] = std::atof(equals + 1);
        }
      }
      ::pclose(child);
    }
    return results;
  };
  auto qtResults = runChild("--qt");
  auto own = runChild("--own-thread");
  auto& glib = glibResults;
  std::printf("\nGUI main-loop integrations (GLib, Qt) against the library's own loop thread\n");
  std::printf("%-58s %11s %11s %11s\n", "", "own thread", "GLib loop", "Qt loop");
  auto row = [&](const char* what, const char* format, const std::string& key, bool own_too = true) {
    std::printf("%-58s ", what);
    if (own_too) {
      std::printf(format, own[key]);
    } else {
      std::printf("%11s", "-");
    }
    std::printf(" ");
    std::printf(format, glib[key]);
    std::printf(" ");
    std::printf(format, qtResults[key]);
    std::printf("\n");
  };
  row("idle: wake-ups a minute of the thread running the library", "%11.1f", "idle_wakes_per_minute");
  row("idle: heartbeats in that time", "%11.0f", "idle_heartbeats");
  row("idle: turns of the library on the GUI thread", "%11.0f", "idle_turns", false);
  row("busy, 1,000 broadcasts/s: longest GUI stretch, ms", "%11.2f", "busy_longest_ms", false);
  row("busy: broadcasts received (of 3,000)", "%11.0f", "busy_received");
  row("round trips/s, 1 outstanding", "%11.0f", "round_trips_1");
  row("round trips/s, 64 outstanding", "%11.0f", "round_trips_64");
  return 0;
}
