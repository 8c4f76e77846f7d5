// When gathered writes reach the socket, against a plain TCP peer on loopback.
#include "vantor/platform/CoalescingStream.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "vantor/platform/HttpTunnel.hpp"

namespace vantor::platform {
namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using namespace std::chrono_literals;

class CoalescingStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tcp::acceptor acceptor(context, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    stream.next_layer().connect(acceptor.local_endpoint());
    acceptor.accept(peer);
    // Only the case about the hold sees it end: elsewhere a slow machine
    // must not turn a held write into a sent one.
    stream.setMaximumHold(std::chrono::hours(1));
    stream.countHeldInto(held);
  }

  // Writes `text` and runs the loop until the write has been reported.
  error_code write(const std::string& text) {
    std::optional<error_code> result;
    stream.async_write_some(asio::buffer(text), [&](error_code error, std::size_t size) {
      result = error;
      if (!error) {
        EXPECT_EQ(size, text.size());
      }
    });
    while (!result) {
      context.run_one();
    }
    context.restart();
    return *result;
  }

  // What the peer has received after the loop has done all it can and the
  // bytes have had a moment to arrive.
  std::string received() {
    context.poll();
    context.restart();
    std::this_thread::sleep_for(20ms);
    std::string text(peer.available(), '\0');
    asio::read(peer, asio::buffer(text));
    return text;
  }

  // Tears the stream down while the peer reads `size` bytes and then
  // closes, as a server does; expects the teardown to finish. Returns what
  // the peer read.
  std::string tearDownWhilePeerReads(std::size_t size) {
    bool tornDown = false;
    async_teardown(boost::beast::role_type::client, stream, [&](error_code) { tornDown = true; });
    std::string text(size, '\0');
    const timeval wait{5, 0};  // a peer that never gets the bytes fails instead of hanging
    setsockopt(peer.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::thread peerSide([&] {
      error_code ignored;
      asio::read(peer, asio::buffer(text), ignored);
      peer.close();
    });
    const auto limit = std::chrono::steady_clock::now() + 10s;
    while (!tornDown && std::chrono::steady_clock::now() < limit) {
      context.run_for(10ms);
    }
    peerSide.join();
    EXPECT_TRUE(tornDown);
    return text;
  }

  void startReading() { stream.async_read_some(asio::buffer(readBuffer), [](error_code, std::size_t) {}); }

  asio::io_context context;
  CoalescingStream<LoopTcpStream> stream{context};
  std::shared_ptr<std::atomic<std::uint64_t>> held = std::make_shared<std::atomic<std::uint64_t>>(0);
  tcp::socket peer{context};
  std::array<char, 64> readBuffer{};
};

TEST_F(CoalescingStreamTest, WritesWaitForTheReaderOrTheLastOfABurst) {
  // Nobody reads yet: frames handled from one read are still being answered.
  EXPECT_FALSE(write("one,"));
  EXPECT_FALSE(write("two,"));
  EXPECT_EQ(received(), "");
  // The reader goes back to the socket: what was held leaves, in order.
  startReading();
  EXPECT_EQ(received(), "one,two,");

  // With the reader waiting, a write goes out by itself...
  EXPECT_FALSE(write("three,"));
  EXPECT_EQ(received(), "three,");
  // ...unless more are queued behind it: then the last one takes them along.
  stream.setMoreComing(true);
  EXPECT_FALSE(write("four,"));
  EXPECT_EQ(received(), "");
  stream.setMoreComing(false);
  EXPECT_FALSE(write("five"));
  EXPECT_EQ(received(), "four,five");
}

TEST_F(CoalescingStreamTest, ABusyReaderHoldsBytesOnlySoLong) {
  EXPECT_FALSE(write("early,"));
  stream.flushIfHeldLong();
  EXPECT_EQ(received(), "");
  stream.setMaximumHold(10ms);
  std::this_thread::sleep_for(20ms);
  stream.flushIfHeldLong();
  EXPECT_EQ(received(), "early,");
  // A write made after a long hold takes the held bytes along.
  EXPECT_FALSE(write("a,"));
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(write("b"));
  EXPECT_EQ(received(), "a,b");
}

// The peer gets what was in flight and what was held behind it and, as a
// server does, closes; only then does the client's side finish.
TEST_F(CoalescingStreamTest, TeardownSendsASendInFlightAndWhatIsHeldBehindIt) {
  // More than the socket takes at once, so that part is still being sent
  // when the next write comes and the teardown starts.
  const std::string bulk(8 << 20, 'x');
  stream.setMaximumHold(std::chrono::nanoseconds(0));
  stream.setMaximumHeld(2 * bulk.size());  // reported at once, though the peer does not read yet
  EXPECT_FALSE(write(bulk));
  stream.setMaximumHold(std::chrono::hours(1));
  EXPECT_FALSE(write("tail"));
  const auto text = tearDownWhilePeerReads(bulk.size() + 4);
  EXPECT_EQ(text.substr(bulk.size()), "tail");
  EXPECT_EQ(text.find_first_not_of('x'), bulk.size());
}

// A write held while the reader is busy is reported at once; the send that
// fails later fails the writes after it.
TEST_F(CoalescingStreamTest, AFailedSendFailsTheWritesAfterIt) {
  stream.lowest_layer().close();
  EXPECT_FALSE(write("lost"));  // held, so not failed yet
  startReading();               // sends it, which fails on the closed socket
  context.poll();
  context.restart();
  EXPECT_TRUE(write("after"));
  EXPECT_EQ(held->load(), 0U) << "failed bytes are dropped";
}

// With the reader waiting, a write goes out by itself and learns whether it
// could.
TEST_F(CoalescingStreamTest, AFailedSendIsReportedToTheWriteItCarried) {
  startReading();
  peer.set_option(tcp::socket::linger(true, 0));
  peer.close();  // a reset
  std::this_thread::sleep_for(20ms);
  EXPECT_TRUE(write("lost"));
  EXPECT_TRUE(write("after"));
}

TEST_F(CoalescingStreamTest, PastItsBoundAWriterWaitsUntilTheSocketTakesTheBytes) {
  constexpr std::size_t bound = 64 * 1024;
  stream.setMaximumHeld(bound);
  const std::string bulk(8 << 20, 'x');  // more than loopback's buffers take in
  std::optional<error_code> result;
  stream.async_write_some(asio::buffer(bulk), [&](error_code error, std::size_t) { result = error; });
  context.run_for(100ms);
  context.restart();
  EXPECT_FALSE(result) << "reported before the bytes fit within the bound";
  EXPECT_GT(held->load(), bound);

  std::string text(bulk.size(), '\0');
  std::thread peerSide([&] { asio::read(peer, asio::buffer(text)); });
  const auto limit = std::chrono::steady_clock::now() + 10s;
  while ((!result || held->load() != 0) && std::chrono::steady_clock::now() < limit) {
    context.run_for(10ms);
    context.restart();
  }
  peerSide.join();
  ASSERT_TRUE(result);
  EXPECT_FALSE(*result);
  EXPECT_EQ(held->load(), 0U);
  EXPECT_EQ(text, bulk);
}

}  // namespace
}  // namespace vantor::platform
