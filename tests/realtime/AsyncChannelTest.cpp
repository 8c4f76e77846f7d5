// The completion-token interface against the bundled server: a coroutine on
// the application's own context, futures, and cancellation that withdraws
// only the operation's own hook.
#include <gtest/gtest.h>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/serialize.hpp>
#include <future>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/AsyncChannel.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;
using boost::system::error_code;
using testing::eventually;
using testing::socketFor;
using vantor::testing::PhoenixTestServer;

TEST(AsyncChannel, ACoroutineJoinsPushesAndLeavesOnItsOwnContext) {
  PhoenixTestServer server;
  auto socket = socketFor(server);
  auto channel = socket->channel("room:async");
  socket->connect();

  asio::io_context application;
  std::vector<std::string> seen;
  // Payloads and names are made outside the co_await expressions: GCC 12
  // miscompiles some initializer lists inside them.
  const Payload one{{"n", 1}};
  const Payload why{{"why", "no"}};
  const std::string echoEvent = "echo";
  const std::string failEvent = "fail";
  const std::string silentEvent = "noreply";
  auto session = [&]() -> asio::awaitable<void> {
    const auto joined = co_await asyncJoin(channel, asio::use_awaitable);
    seen.push_back("joined " + joined.status().value_or("?"));
    const auto echo = co_await asyncPush(channel, echoEvent, one, asio::use_awaitable);
    seen.push_back("echo " + boost::json::serialize(echo.payload()));
    try {
      co_await asyncPush(channel, failEvent, why, asio::use_awaitable);
    } catch (const boost::system::system_error& failure) {
      seen.push_back(failure.code() == ReplyError::error ? std::string("error") : failure.what());
    }
    try {
      co_await asyncPush(channel, silentEvent, Payload(), asio::use_awaitable, 0.05);
    } catch (const boost::system::system_error& failure) {
      seen.push_back(failure.code() == ReplyError::timeout ? std::string("timeout") : failure.what());
    }
    const auto left = co_await asyncLeave(channel, asio::use_awaitable);
    seen.push_back("left " + left.status().value_or("?"));
  };
  std::exception_ptr failure;
  asio::co_spawn(application, session(), [&](std::exception_ptr e) { failure = e; });
  // The pending operations keep the context's run going until the end.
  application.run_for(20s);
  ASSERT_TRUE(application.stopped()) << "the coroutine did not finish";
  ASSERT_FALSE(failure);
  EXPECT_EQ(seen, (std::vector<std::string>{"joined ok", "echo {\"n\":1}", "error", "timeout", "left ok"}));
  socket->disconnect();
}

TEST(AsyncChannel, FuturesCarryRepliesAndCancellingWithdrawsOnlyTheOperationsOwnHook) {
  PhoenixTestServer server;
  auto socket = socketFor(server);
  socket->setCollectsMetrics(true);
  auto channel = socket->channel("room:future");
  socket->connect();
  ASSERT_EQ(asyncJoin(channel, asio::use_future).get().status(), "ok");
  EXPECT_EQ(asyncPush(channel, "echo", {{"n", 2}}, asio::use_future).get().payload(), (Payload{{"n", 2}}));

  // A receive completes with the next event, or with operation_aborted when
  // cancelled; either way its binding goes.
  const auto bindings = channel->bindingCount();
  auto next = asyncReceive(channel, "pushed", asio::use_future);
  ASSERT_TRUE(eventually([&] { return channel->bindingCount() == bindings + 1; }));
  server.push("room:future", "pushed", {{"n", 3}});
  ASSERT_EQ(next.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(next.get().payload(), (Payload{{"n", 3}}));
  EXPECT_TRUE(eventually([&] { return channel->bindingCount() == bindings; }));
  asio::cancellation_signal stopReceiving;
  std::promise<error_code> received;
  asyncReceive(channel, "pushed",
               asio::bind_cancellation_slot(stopReceiving.slot(),
                                            [&](error_code error, const Message&) { received.set_value(error); }));
  ASSERT_TRUE(eventually([&] { return channel->bindingCount() == bindings + 1; }));
  stopReceiving.emit(asio::cancellation_type::terminal);
  EXPECT_EQ(received.get_future().get(), asio::error::operation_aborted);
  EXPECT_TRUE(eventually([&] { return channel->bindingCount() == bindings; }));

  // A push that is cancelled still reaches the server and its reply is still
  // handled; only the operation's completion is gone.
  const auto okBefore = socket->metrics().pushesOk;
  asio::cancellation_signal stopWaiting;
  std::promise<error_code> answered;
  asyncPush(channel, "delayed", {{"delay_ms", 1000}},
            asio::bind_cancellation_slot(stopWaiting.slot(),
                                         [&](error_code error, const Message&) { answered.set_value(error); }));
  ASSERT_TRUE(server.waitForFrames("room:future", "delayed", 1, 20s));
  stopWaiting.emit(asio::cancellation_type::terminal);
  EXPECT_EQ(answered.get_future().get(), asio::error::operation_aborted);
  EXPECT_TRUE(eventually([&] { return socket->metrics().pushesOk == okBefore + 1; }));
  socket->disconnect();
}

}  // namespace
}  // namespace vantor::realtime
