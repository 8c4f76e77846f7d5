#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::socketFor;
using vantor::testing::PhoenixTestServer;

// Host threads push, register and remove callbacks and bindings while the
// server floods the channel with broadcasts. Run under ThreadSanitizer this
// proves the public interface safe to call from any thread.
TEST(ThreadSafety, HostThreadsUseTheClientWhileTheServerFloodsIt) {
  PhoenixTestServer server;
  auto socket = socketFor(server);
  // A flooded, instrumented loop can miss a heartbeat reply and reconnect,
  // which would drop pushes in flight; heartbeats are tested elsewhere.
  socket->setSkipHeartbeat(true);
  auto channel = socket->channel("room:flood", {{"user_id", "host"}});
  auto presence = Presence::make(channel);
  std::atomic<int> broadcastsSeen{0};
  channel->on("broadcast", [&](const Message&) { ++broadcastsSeen; });
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));

  // Stopped and joined when the test ends, however it ends.
  std::jthread flood([&](const std::stop_token& stop) {
    for (int i = 0; !stop.stop_requested(); ++i) {
      server.broadcast("room:flood", "broadcast", {{"i", i}});
      if (i % 50 == 0) {
        std::this_thread::sleep_for(1ms);
      }
    }
  });

  constexpr int pushesPerThread = 150;
  std::atomic<int> replies{0};
  std::vector<std::thread> hosts;
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      for (int i = 0; i < pushesPerThread; ++i) {
        channel->push("echo", {{"thread", t}, {"i", i}})->receive("ok", [&](const Message&) {
          ++replies;
        });
        auto callbackRef = socket->onMessage([](const Message&) {});
        auto bindingRef = channel->on("broadcast", [](const Message&) {});
        socket->makeRef();
        (void)presence->list();
        (void)channel->state();
        socket->off({callbackRef});
        channel->off("broadcast", bindingRef);
        if (i % 50 == 0) {
          socket->push("phoenix", "noise", {});
        }
      }
    });
  }
  for (auto& host : hosts) {
    host.join();
  }
  ASSERT_TRUE(eventually([&] { return replies == 3 * pushesPerThread; }, 60s))
      << replies << " replies, " << server.countReceived("room:flood", "echo") << " pushes received";
  EXPECT_GT(broadcastsSeen, 0);
  EXPECT_EQ(server.countReceived("room:flood", "echo"), 3U * pushesPerThread);
  socket->disconnect();
}

// The socket reconnects by itself while a host thread keeps pushing. Every
// push ends in exactly one outcome, and the server never sees one twice.
TEST(ThreadSafety, PushesFromAHostThreadAcrossReconnectsEndOnceAndAreNeverDoubled) {
  PhoenixTestServer server;
  auto socket = socketFor(server);
  auto channel = socket->channel("room:busy");
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));

  constexpr int pushes = 200;
  std::atomic<int> outcomes{0};
  std::atomic<int> oks{0};
  std::thread host([&] {
    for (int i = 0; i < pushes; ++i) {
      channel->push("echo", {{"i", i}}, 3.0)
          ->receive("ok", [&](const Message&) {
            ++oks;
            ++outcomes;
          })
          ->receive("timeout", [&](const Message&) { ++outcomes; });
      if (i % 40 == 20) {
        server.dropConnections();
      }
      std::this_thread::sleep_for(1ms);
    }
  });
  host.join();
  ASSERT_TRUE(eventually([&] { return outcomes == pushes; }, 60s));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(outcomes, pushes);
  std::set<std::int64_t> seen;
  for (const auto& frame : server.receivedFrames("room:busy", "echo")) {
    EXPECT_TRUE(seen.insert(frame.payload.at("i").as_int64()).second) << "pushed twice";
  }
  EXPECT_GE(oks, pushes / 2) << "most pushes get through";
  socket->disconnect();
}

}  // namespace
}  // namespace vantor::realtime
