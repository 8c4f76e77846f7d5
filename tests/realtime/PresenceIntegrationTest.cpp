#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::socketFor;
using vantor::testing::PhoenixTestServer;
using ::testing::ElementsAre;

// One user: a socket, a channel on the lobby and its presence.
struct User {
  std::shared_ptr<Socket> socket;
  std::shared_ptr<Channel> channel;
  std::shared_ptr<Presence> presence;
  std::atomic<int> syncs{0};

  User(PhoenixTestServer& server, const std::string& id) {
    socket = socketFor(server);
    channel = socket->channel("room:lobby", {{"user_id", id}});
    presence = Presence::make(channel);
    presence->onSync([this] { ++syncs; });
    channel->join();
    socket->connect();
  }
  ~User() { socket->disconnect(); }

  std::map<std::string, std::size_t> occurrences() const {
    std::map<std::string, std::size_t> counts;
    for (const auto& [key, entry] : presence->state()) {
      counts[key] = entry.at("metas").size();
    }
    return counts;
  }
};

using Counts = std::map<std::string, std::size_t>;

bool allSee(const std::vector<User*>& users, const Counts& expected) {
  return eventually([&] {
    for (const auto* user : users) {
      if (user->occurrences() != expected) {
        return false;
      }
    }
    return true;
  });
}

TEST(PresenceAgainstServer, ClientsAgreeThroughJoinsLeavesADropAndARejoin) {
  PhoenixTestServer server;
  User alice(server, "alice");
  User bob(server, "bob");
  ASSERT_TRUE(allSee({&alice, &bob}, Counts{{"alice", 1}, {"bob", 1}}));
  {
    User carol(server, "carol");
    User secondBob(server, "bob");
    ASSERT_TRUE(allSee({&alice, &bob, &carol, &secondBob},
                       Counts{{"alice", 1}, {"bob", 2}, {"carol", 1}}));
  }
  ASSERT_TRUE(allSee({&alice, &bob}, Counts{{"alice", 1}, {"bob", 1}}));

  // Bob's connection drops: everyone sees him leave, and come back after
  // his socket reconnects and his channel rejoins.
  std::atomic<int> bobLeft{0};
  alice.presence->onLeave([&](const std::string& key, const Presence::Map&, const Presence::Map&) {
    if (key == "bob") {
      ++bobLeft;
    }
  });
  std::optional<PhoenixTestServer::ConnectionId> bobConnection;
  for (const auto& join : server.receivedFrames("room:lobby", "phx_join")) {
    if (join.payload.at("user_id") == "bob") {
      bobConnection = join.connection;
      break;
    }
  }
  ASSERT_TRUE(bobConnection);
  server.dropConnection(*bobConnection);
  ASSERT_TRUE(eventually([&] { return bobLeft >= 1; }));
  // Bob's presence waits for the snapshot of his new join.
  ASSERT_TRUE(eventually([&] {
    return bob.channel->isJoined() && !bob.presence->isPendingSyncState();
  }));
  EXPECT_EQ(bob.presence->joinRef(), bob.channel->joinRef());
  ASSERT_TRUE(allSee({&alice, &bob}, Counts{{"alice", 1}, {"bob", 1}}));
}

TEST(PresenceAgainstServer, ADiffBeforeTheSnapshotIsAppliedAfterItWithOneSync) {
  PhoenixTestServer server;  // sends the own diff before the snapshot
  User alice(server, "alice");
  ASSERT_TRUE(allSee({&alice}, Counts{{"alice", 1}}));
  EXPECT_EQ(alice.syncs, 1) << "the held diff is applied with the snapshot, one sync for both";
  EXPECT_TRUE(alice.presence->pendingDiffs().empty());
  User bob(server, "bob");
  ASSERT_TRUE(allSee({&alice, &bob}, Counts{{"alice", 1}, {"bob", 1}}));
  EXPECT_EQ(bob.syncs, 1);
}

}  // namespace
}  // namespace vantor::realtime
