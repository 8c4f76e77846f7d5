// Sleep, wake and network changes as the desktop reports them: logind and
// NetworkManager played by python3-dbusmock on a private bus
// (dbus-run-session), the link between socket and bundled server through the
// fault proxy, whose connections are stranded to play the dead TCP
// connection that a sleep or a new network leaves; and the clock-jump
// fallback without any bus, through clocks the test controls.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>

#include "ChildProcess.hpp"
#include "support/PhoenixClient.hpp"
#include "vantor/platform/SystemEvents.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/testing/FaultProxy.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using platform::SystemEvents;
using testing::eventually;
using testing::LogRecorder;
using vantor::testing::FaultProxy;
using vantor::testing::PhoenixTestServer;
using Clock = std::chrono::steady_clock;

// logind and NetworkManager on a bus of their own, named as the system bus.
class SystemServices {
 public:
  SystemServices()
      : process_({"dbus-run-session", "--", "/usr/bin/python3", VANTOR_SYSTEM_SERVICES_SCRIPT}) {
    auto line = process_.readLine(30s);
    if (!line || line->rfind("BUS ", 0) != 0) {
      throw std::runtime_error("the system services did not start");
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", line->substr(4).c_str(), 1);
  }
  // Sends one command (see system_services.py) and waits until it is done.
  void operator()(const std::string& command) {
    process_.write(command + "\n");
    EXPECT_EQ(process_.readLine(10s), "ok") << command;
  }

 private:
  account::testing::ChildProcess process_;
};

// A socket joined to the bundled server through the fault proxy, counting
// what happens to it.
class DesktopLink : public ::testing::Test {
 protected:
  void connect(const std::function<void(Socket&)>& configure = nullptr) {
    socket = Socket::make(proxy.url("/socket"));
    if (configure) {
      configure(*socket);
    }
    socket->setReconnectAfter([](std::int64_t) { return 0.01; });
    socket->setRejoinAfter([](std::int64_t) { return 0.01; });
    socket->setCollectsMetrics(true);
    socket->setLogger(log.logger());
    channel = socket->channel("room:1");
    channel->join();
    socket->connect();
    ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  }

  void TearDown() override {
    if (socket) {
      socket->disconnect();
    }
  }

  // An echo whose every outcome is written down.
  void push(int id) {
    channel->push("echo", {{"id", id}})->receive("ok", [this, id](const Message&) {
      std::lock_guard lock(mutex);
      ++answers[id];
    });
  }
  std::map<int, int> answered() {
    std::lock_guard lock(mutex);
    return answers;
  }
  bool logged(const std::string& part) {
    const auto lines = log.all();
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.find(part) != std::string::npos; });
  }

  PhoenixTestServer server;
  FaultProxy proxy{{.targetPort = server.port()}};
  LogRecorder log;
  std::shared_ptr<Socket> socket;
  std::shared_ptr<Channel> channel;
  std::mutex mutex;
  std::map<int, int> answers;
};

TEST_F(DesktopLink, AResumeOverADeadLinkReconnectsAtOnceAndLosesNothing) {
  SystemServices services;
  connect();
  ASSERT_TRUE(eventually([] { return SystemEvents::shared().watchesSleep(); }));
  for (int id = 0; id < 5; ++id) {
    push(id);
  }
  ASSERT_TRUE(eventually([&] { return answered().size() == 5; }));

  // The machine sleeps; its TCP connection does not survive. The default
  // heartbeat (30 s) would take up to a minute to notice.
  proxy.strandOpenConnections();
  services("sleep");
  const auto resumed = Clock::now();
  services("resume");
  ASSERT_TRUE(eventually([&] { return server.waitForConnections(2, 0ms) && channel->isJoined(); }, 10s));
  const auto took = std::chrono::duration<double>(Clock::now() - resumed).count();
  RecordProperty("rejoined_seconds_after_resume", std::to_string(took));
  std::printf("rejoined %.3f s after the resume\n", took);

  push(5);
  ASSERT_TRUE(eventually([&] { return answered().size() == 6; }));
  for (const auto& [id, count] : answered()) {
    EXPECT_EQ(count, 1) << "push " << id;
  }
  EXPECT_EQ(server.countReceived("room:1", "echo"), 6u) << "a push was lost or sent twice";
  EXPECT_EQ(socket->metrics().resumes, 1u);
  EXPECT_TRUE(logged("resumed from sleep (logind): checking the connection"));
}

TEST_F(DesktopLink, NoReconnectAttemptsWhileOfflineAndOneAtOnceWhenOnline) {
  SystemServices services;
  connect();
  ASSERT_TRUE(eventually([] { return SystemEvents::shared().watchesSleep(); }));
  services("connectivity 1");
  ASSERT_TRUE(eventually([] { return SystemEvents::shared().isOffline(); }));
  server.dropConnections();
  // With a 10 ms back-off, hundreds of attempts would come in this time.
  EXPECT_FALSE(server.waitForConnections(2, 3s)) << "a connection attempt while offline";
  EXPECT_TRUE(logged("reconnect paused"));

  const auto online = Clock::now();
  services("connectivity 4");
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }, 10s));
  std::printf("rejoined %.3f s after connectivity came back\n",
              std::chrono::duration<double>(Clock::now() - online).count());
  EXPECT_EQ(socket->metrics().networkChanges, 2u);
  EXPECT_TRUE(logged("offline: reconnects paused"));
  EXPECT_TRUE(logged("online: reconnecting now"));

  // NetworkManager stopping while it reports no connectivity ends the pause.
  services("connectivity 1");
  ASSERT_TRUE(eventually([] { return SystemEvents::shared().isOffline(); }));
  server.dropConnections();
  services("nm-stop");
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }, 10s)) << "still paused";
  EXPECT_FALSE(SystemEvents::shared().isOffline());
}

TEST_F(DesktopLink, ANewPrimaryConnectionKeepsAHealthyLinkAndReplacesADeadOne) {
  SystemServices services;
  connect();
  ASSERT_TRUE(eventually([] { return SystemEvents::shared().watchesSleep(); }));
  const auto heartbeats = server.heartbeatsReceived();
  services("primary /org/freedesktop/NetworkManager/ActiveConnection/2");
  ASSERT_TRUE(eventually([&] { return server.heartbeatsReceived() > heartbeats; }))
      << "the link was not checked";
  EXPECT_FALSE(server.waitForConnections(2, 1500ms)) << "a healthy link was replaced";
  EXPECT_TRUE(channel->isJoined());

  proxy.strandOpenConnections();
  services("primary /org/freedesktop/NetworkManager/ActiveConnection/3");
  ASSERT_TRUE(eventually([&] { return server.waitForConnections(2, 0ms) && channel->isJoined(); }, 10s));
  EXPECT_EQ(socket->metrics().networkChanges, 2u);
}

TEST_F(DesktopLink, WithoutABusAJumpOfTheBootClockCountsAsAResume) {
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/system_bus_socket", 1);
  static std::atomic<std::int64_t> sleptSeconds{0};
  SystemEvents::shared().setClocks(
      {[] { return std::chrono::nanoseconds(Clock::now().time_since_epoch()) + std::chrono::seconds(sleptSeconds); },
       [] { return std::chrono::nanoseconds(Clock::now().time_since_epoch()); }});
  connect([](Socket& socket) {
    socket.setHeartbeatInterval(1.0);
    socket.setLinkCheckTimeout(0.1);
  });
  ASSERT_TRUE(eventually([&] { return logged("no system bus"); }));
  ASSERT_TRUE(eventually([&] { return server.heartbeatsReceived() > 0; }));  // the clocks' first reading

  proxy.strandOpenConnections();
  sleptSeconds = 3600;  // an hour asleep, seen at the next heartbeat
  ASSERT_TRUE(eventually([&] { return server.waitForConnections(2, 0ms) && channel->isJoined(); }, 10s));
  EXPECT_EQ(socket->metrics().resumes, 1u);
  EXPECT_TRUE(logged("resumed from sleep (the boot-time clock ran 3"));
}

TEST(JitteredBackOff, DrawsEachAttemptsDelayAcrossItsStep) {
  for (std::int64_t tries = 1; tries <= 12; ++tries) {
    const double step = Defaults::reconnectSteppedBackOff(tries);
    std::array<int, 10> bins{};
    for (int i = 0; i < 10000; ++i) {
      const double delay = Defaults::reconnectJitteredBackOff(tries);
      ASSERT_GE(delay, 0.0);
      ASSERT_LE(delay, step);
      ++bins[std::min<std::size_t>(9, static_cast<std::size_t>(delay / step * 10))];
    }
    for (int count : bins) {
      EXPECT_GT(count, 800) << "attempt " << tries << " is not spread across its step";
      EXPECT_LT(count, 1200) << "attempt " << tries << " is not spread across its step";
    }
  }
}

}  // namespace
}  // namespace vantor::realtime
