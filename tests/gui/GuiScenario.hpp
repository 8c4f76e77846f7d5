#pragma once

// One session of a desktop application, driven by a toolkit's own main loop
// on this thread: connect, join with presence, push, a broadcast after one
// whose binding throws, another user joining, a completion-token push, a
// push from a worker thread, and a server restart. Every callback checks
// that it runs on this, the GUI, thread.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/PhoenixClient.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/AsyncChannel.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::gui_test {

using namespace std::chrono_literals;
using Pump = std::function<bool(const std::function<bool()>&)>;

// `pump(done)` runs the toolkit's loop until `done()` or 20 s passed, and
// returns `done()`.
inline void runDesktopSession(const Pump& pump) {
  using namespace vantor::realtime;
  const auto gui = std::this_thread::get_id();
  std::atomic<int> offThreadSeen{0};
  auto onGui = [&] {
    if (std::this_thread::get_id() != gui) {
      ++offThreadSeen;
    }
  };
  ASSERT_TRUE(platform::EventLoop::main().isCurrentThread()) << "the GUI thread is the loop's";

  vantor::testing::PhoenixTestServer server;
  auto socket = realtime::testing::socketFor(server);
  int opens = 0;
  socket->onOpen([&] { onGui(), ++opens; });
  socket->onClose([&] { onGui(); });
  socket->onError([&](const TransportError&, const std::optional<HttpResponse>&) { onGui(); });
  auto channel = socket->channel("room:gui", {{"user_id", "alice"}});
  auto presence = Presence::make(channel);
  std::set<std::string> present;
  presence->onJoin([&](const std::string& key, const auto&, const auto&) { onGui(), present.insert(key); });
  presence->onSync([&] { onGui(); });
  int news = 0;
  channel->on("boom", [&](const Message&) {
    onGui();
    throw std::runtime_error("a binding that throws");
  });
  channel->on("news", [&](const Message&) { onGui(), ++news; });
  bool joined = false;
  channel->join()->receive("ok", [&](const Message&) { onGui(), joined = true; });
  socket->connect();
  ASSERT_TRUE(pump([&] { return joined && present.count("alice") == 1; }));

  // A call from the GUI thread acts at once: the state is already there.
  EXPECT_TRUE(channel->isJoined());
  EXPECT_TRUE(socket->isConnected());

  int echoes = 0;
  channel->push("echo", {{"n", 1}})->receive("ok", [&](const Message&) { onGui(), ++echoes; });
  ASSERT_TRUE(pump([&] { return echoes == 1; }));

  server.broadcast("room:gui", "boom", {});
  server.broadcast("room:gui", "news", {});
  ASSERT_TRUE(pump([&] { return news == 1; })) << "the broadcast after a throwing binding";

  auto bobSocket = realtime::testing::socketFor(server);
  auto bob = bobSocket->channel("room:gui", {{"user_id", "bob"}});
  bob->join();
  bobSocket->connect();
  ASSERT_TRUE(pump([&] { return present.count("bob") == 1; })) << "a presence change";

  bool awaited = false;
  asyncPush(channel, "echo", {{"n", 2}}, [&](boost::system::error_code error, const Message&) {
    onGui();
    awaited = !error;
  });
  ASSERT_TRUE(pump([&] { return awaited; })) << "the completion-token interface's default executor";

  // Work from another thread reaches the GUI loop without polling.
  std::atomic<bool> fromWorker{false};
  std::thread worker([&] {
    channel->push("echo", {{"n", 3}})->receive("ok", [&](const Message&) { onGui(), fromWorker = true; });
  });
  worker.join();
  ASSERT_TRUE(pump([&] { return fromWorker.load(); })) << "a push from a worker thread";

  // The server restarts: the socket reconnects and the channel rejoins.
  server.closeAndDrop(1012);
  ASSERT_TRUE(pump([&] { return opens >= 2 && channel->isJoined(); })) << "after a server restart";
  channel->push("echo", {{"n", 4}})->receive("ok", [&](const Message&) { onGui(), ++echoes; });
  ASSERT_TRUE(pump([&] { return echoes == 2; }));

  bobSocket->disconnect();
  socket->disconnect();
  EXPECT_EQ(offThreadSeen.load(), 0) << "callbacks that ran off the GUI thread";
}

}  // namespace vantor::gui_test
