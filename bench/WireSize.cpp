// Bytes on the wire for a presence-heavy session, with and without
// permessage-deflate: many users join one topic in turn, each with a few
// presence fields, and every member hears every join and leave.
#include <boost/json/object.hpp>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Summary.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"
#include "vantor/testing/FaultProxy.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::bench {

namespace {

using namespace vantor::realtime;
using vantor::testing::FaultProxy;
using vantor::testing::PhoenixTestServer;

constexpr int users = 40;

template <class Predicate>
bool waitUntil(Predicate done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

struct Member {
  std::shared_ptr<Socket> socket;
  std::shared_ptr<Channel> channel;
  std::shared_ptr<Presence> presence;
};

// Runs the session through a counting proxy; false when it did not finish.
bool presenceSession(bool compress, FaultProxy::ByteCounts& bytes) {
  PhoenixTestServer server({.compress = compress});
  FaultProxy proxy({.targetPort = server.port()});
  URLSessionConfiguration configuration;
  configuration.perMessageDeflate = compress;
  std::vector<Member> members;
  for (int i = 0; i < users; ++i) {
    Member member;
    member.socket = Socket::make(proxy.url("/socket"),
                                 [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
                                   return URLSessionTransport::make(url, configuration);
                                 });
    const auto name = "user-" + std::to_string(i);
    member.channel = member.socket->channel(
        "room:presence",
        {{"user_id", name},
         {"presence_meta",
          {{"name", "User number " + std::to_string(i)}, {"device", "desktop"}, {"status", "online"}}}});
    member.presence = Presence::make(member.channel);
    member.channel->join();
    member.socket->connect();
    members.push_back(member);
    if (!waitUntil([&] { return member.presence->state().size() == static_cast<std::size_t>(i + 1); })) {
      return false;
    }
  }
  for (auto& member : members) {
    member.channel->leave();
  }
  if (!waitUntil([&] { return server.memberCount("room:presence") == 0; })) {
    return false;
  }
  for (auto& member : members) {
    member.socket->disconnect();
  }
  bytes = proxy.bytesForwarded();
  return true;
}

}  // namespace

void runWireSize() {
  FaultProxy::ByteCounts plain;
  FaultProxy::ByteCounts deflated;
  if (!presenceSession(false, plain) || !presenceSession(true, deflated)) {
    std::printf("\nWire size: the presence session did not finish\n");
    return;
  }
  std::printf("\nBytes on the wire, %d users joining and leaving one topic with presence\n", users);
  std::printf("%-34s %14s %14s\n", "", "to the server", "to clients");
  std::printf("%-34s %14llu %14llu\n", "uncompressed", static_cast<unsigned long long>(plain.towardsServer),
              static_cast<unsigned long long>(plain.towardsClient));
  std::printf("%-34s %14llu %14llu\n", "permessage-deflate", static_cast<unsigned long long>(deflated.towardsServer),
              static_cast<unsigned long long>(deflated.towardsClient));
  std::printf("%-34s %13.1f%% %13.1f%%\n", "compressed / uncompressed",
              100.0 * static_cast<double>(deflated.towardsServer) / static_cast<double>(plain.towardsServer),
              100.0 * static_cast<double>(deflated.towardsClient) / static_cast<double>(plain.towardsClient));
  std::fflush(stdout);
}

}  // namespace vantor::bench
