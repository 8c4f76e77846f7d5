// The completion-token interface against the bundled server: a coroutine on
// the application's own context, futures, cancellation that withdraws only
// the operation's own hook, failures that say why, and operations that end
// within their time-out whatever the connection does.
#include <gtest/gtest.h>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/serialize.hpp>
#include <future>
#include <mutex>
#include <thread>

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
    } catch (const ReplyException& failure) {
      const bool carriesTheReply = failure.code() == ReplyError::error && failure.reply().payload() == why;
      seen.push_back(carriesTheReply ? std::string("error") : failure.what());
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

TEST(AsyncChannel, ARefusedJoinSaysWhyAndLeaveStopsItsRetries) {
  PhoenixTestServer server;
  server.forbidTopic("room:closed", "unauthorized");
  auto socket = socketFor(server);
  auto channel = socket->channel("room:closed");
  socket->connect();
  asio::io_context application;
  std::string what;
  auto session = [&]() -> asio::awaitable<void> {
    try {
      co_await asyncJoin(channel, asio::use_awaitable);
    } catch (const ReplyException& refused) {
      what = refused.what();
    }
  };
  asio::co_spawn(application, session(), asio::detached);
  application.run_for(20s);
  EXPECT_EQ(what, "the server answered \"error\": unauthorized [vantor.reply:1]");
  // The channel retries on its back-off until it is left.
  ASSERT_TRUE(server.waitForFrames("room:closed", "phx_join", 2, 20s));
  channel->leave();
  ASSERT_TRUE(eventually([&] { return channel->isClosed(); }));
  const auto joins = server.countReceived("room:closed", "phx_join");
  std::this_thread::sleep_for(200ms);  // twenty rejoin steps of the test's back-off
  EXPECT_EQ(server.countReceived("room:closed", "phx_join"), joins);
  socket->disconnect();
}

// Each operation completes once, with "timeout", within its time-out plus
// half a second: against a stopped server, where the push is never sent,
// and when the connection is closed under a push that was sent.
TEST(AsyncChannel, OperationsEndWithinTheirTimeOutWhateverTheConnectionDoes) {
  constexpr double timeout = 1.0;
  const auto limit = std::chrono::milliseconds(1500);
  struct Outcomes {
    std::mutex mutex;
    std::vector<error_code> errors;
    std::size_t count() {
      std::lock_guard lock(mutex);
      return errors.size();
    }
  };
  auto record = [](const std::shared_ptr<Outcomes>& outcomes) {
    return [outcomes](error_code error, const Message&) {
      std::lock_guard lock(outcomes->mutex);
      outcomes->errors.push_back(error);
    };
  };
  auto expectOneTimeoutWithin = [&](const std::shared_ptr<Outcomes>& outcomes, const char* what) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(eventually([&] { return outcomes->count() > 0; }, limit)) << what;
    std::this_thread::sleep_for(300ms);  // a second outcome would show by now
    std::lock_guard lock(outcomes->mutex);
    EXPECT_EQ(outcomes->errors, std::vector<error_code>{ReplyError::timeout}) << what;
    EXPECT_LT(std::chrono::steady_clock::now() - start, limit + 300ms + 500ms) << what;
  };

  auto stopped = std::make_unique<PhoenixTestServer>();
  auto unreachable = socketFor(*stopped);
  stopped.reset();
  auto channel = unreachable->channel("room:unreachable");
  unreachable->connect();
  auto join = std::make_shared<Outcomes>();
  auto push = std::make_shared<Outcomes>();
  asyncJoin(channel, record(join), timeout);
  asyncPush(channel, "echo", {}, record(push), timeout);
  expectOneTimeoutWithin(join, "join, server stopped");
  expectOneTimeoutWithin(push, "push, server stopped");
  unreachable->disconnect();

  PhoenixTestServer server;
  auto socket = socketFor(server);
  auto joined = socket->channel("room:dropped");
  socket->connect();
  ASSERT_EQ(asyncJoin(joined, asio::use_future).get().status(), "ok");
  auto sent = std::make_shared<Outcomes>();
  asyncPush(joined, "noreply", {}, record(sent), timeout);
  ASSERT_TRUE(server.waitForFrames("room:dropped", "noreply", 1, 20s));
  socket->disconnect();
  expectOneTimeoutWithin(sent, "push, then disconnect()");
}

}  // namespace
}  // namespace vantor::realtime
