#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Payload.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionConfiguration.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"

namespace vantor::bench {

/// The payload of the n-th echo push, the same for every client.
realtime::Payload echoPayload(std::int64_t n);

/// A WebSocket to the echo server, opened with blocking calls: what both
/// bare clients hold. It encodes the n-th echo frame and parses a reply.
struct BareConnection {
  explicit BareConnection(std::uint16_t port);
  ~BareConnection();
  BareConnection(const BareConnection&) = delete;
  BareConnection& operator=(const BareConnection&) = delete;

  /// The text of the next echo frame, [join_ref, ref, topic, "echo", payload].
  std::string nextFrame();
  /// Parses and checks the reply in `buffer`, then empties it.
  void takeReply();

  boost::asio::io_context context;
  boost::beast::websocket::stream<boost::asio::ip::tcp::socket> ws{context};
  boost::beast::flat_buffer buffer;
  std::int64_t ref = 0;
};

/// The client that ours is measured against: plain Beast and Boost.JSON,
/// synchronous calls on the calling thread, no framework code in between.
/// Each round trip encodes [join_ref, ref, topic, "echo", payload], sends it,
/// reads the reply and parses it.
class BareClient {
 public:
  explicit BareClient(std::uint16_t port) : connection_(port) {}

  /// Keeps up to `window` round trips outstanding, starting a new one while
  /// `more()` is true, until every started one is answered; returns how many
  /// were answered.
  template <class More>
  std::int64_t run(int window, More&& more) {
    std::int64_t done = 0;
    int outstanding = 0;
    for (; outstanding < window && more(); ++outstanding) {
      send();
    }
    while (outstanding > 0) {
      receive();
      ++done;
      --outstanding;
      if (more()) {
        send();
        ++outstanding;
      }
    }
    return done;
  }

 private:
  void send();
  void receive();

  BareConnection connection_;
};

/// The same client on an event loop: asynchronous Beast calls on an
/// io_context run by the calling thread. It pays what any event-loop client
/// pays per round trip (a wait in epoll_wait, handlers run through the
/// scheduler), so it shows how much of ours/bare at one outstanding is the
/// loop rather than this library.
class AsyncBareClient {
 public:
  explicit AsyncBareClient(std::uint16_t port) : connection_(port) {}

  /// As BareClient::run.
  std::int64_t run(int window, std::function<bool()> more);

 private:
  void send();
  void writeNext();
  void read();

  BareConnection connection_;
  std::deque<std::string> writes_;
  std::function<bool()> more_;
  std::int64_t done_ = 0;
  int outstanding_ = 0;
};

/// A socket with one joined channel on "room:bench".
struct LibraryClient {
  explicit LibraryClient(std::uint16_t port, bool collectMetrics = false,
                         std::size_t maximumGatheredBytes = realtime::URLSessionConfiguration{}.maximumGatheredBytes);
  ~LibraryClient();
  LibraryClient(const LibraryClient&) = delete;
  LibraryClient& operator=(const LibraryClient&) = delete;

  std::shared_ptr<realtime::Socket> socket;
  std::shared_ptr<realtime::Channel> channel;
};

}  // namespace vantor::bench
