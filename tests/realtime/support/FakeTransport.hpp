#pragma once

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>
#include <boost/url/url.hpp>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "support/Eventually.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/PhoenixTransport.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime::testing {

/// A transport that records what the socket asks of it and lets a test play
/// the server's side: open, deliver frames, close, fail. Reports reach the
/// delegate on the main loop, as a real transport's do.
class FakeTransport : public PhoenixTransport {
 public:
  [[nodiscard]] PhoenixTransportReadyState readyState() const override {
    std::lock_guard lock(mutex_);
    return state_;
  }
  [[nodiscard]] std::shared_ptr<PhoenixTransportDelegate> delegate() const override {
    std::lock_guard lock(mutex_);
    return delegate_;
  }
  void setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) override {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
  }
  void connect() override { setState(PhoenixTransportReadyState::connecting); }
  void disconnect(int code, std::optional<std::string> /*reason*/) override {
    std::lock_guard lock(mutex_);
    state_ = PhoenixTransportReadyState::closing;
    disconnectCodes_.push_back(code);
  }
  void send(std::string data) override {
    std::lock_guard lock(mutex_);
    sent_.push_back(std::move(data));
  }

  // --- The server's side ---
  void open() {
    setState(PhoenixTransportReadyState::open);
    report([](auto& delegate) { delegate.onOpen(); });
  }
  void receive(const std::string& text) {
    report([&](auto& delegate) { delegate.onMessage(text); });
  }
  void closeWith(int code) {
    setState(PhoenixTransportReadyState::closed);
    report([&](auto& delegate) { delegate.onClose(code); });
  }
  void fail(const std::string& description, std::optional<HttpResponse> response = std::nullopt) {
    setState(PhoenixTransportReadyState::closed);
    TransportError error{boost::system::errc::make_error_code(boost::system::errc::connection_reset),
                         description};
    report([&](auto& delegate) { delegate.onError(error, response); });
    report([](auto& delegate) { delegate.onClose(999); });
  }

  // Read in the loop's order, as any reader of client state does: work that
  // a test thread queued onto the loop before (a push, say) has been done.
  [[nodiscard]] std::vector<std::string> sent() const {
    return recorded([this] { return sent_; });
  }
  [[nodiscard]] std::vector<int> disconnectCodes() const {
    return recorded([this] { return disconnectCodes_; });
  }

 private:
  void setState(PhoenixTransportReadyState state) {
    std::lock_guard lock(mutex_);
    state_ = state;
  }
  template <class F>
  std::invoke_result_t<F&> recorded(F read) const {
    return platform::EventLoop::main().sync([&] {
      std::lock_guard lock(mutex_);
      return read();
    });
  }
  template <class F>
  void report(F&& call) {
    platform::EventLoop::main().sync([&] {
      if (auto target = delegate()) {
        call(*target);
      }
    });
  }

  mutable std::mutex mutex_;
  PhoenixTransportReadyState state_ = PhoenixTransportReadyState::closed;
  std::shared_ptr<PhoenixTransportDelegate> delegate_;
  std::vector<std::string> sent_;
  std::vector<int> disconnectCodes_;
};

/// A socket factory that hands out fake transports and keeps them for the
/// test, in order of creation.
struct FakeTransports {
  std::mutex mutex;
  std::vector<std::shared_ptr<FakeTransport>> made;

  auto factory() {
    return [this](const boost::urls::url&) -> std::shared_ptr<PhoenixTransport> {
      auto transport = std::make_shared<FakeTransport>();
      std::lock_guard lock(mutex);
      made.push_back(transport);
      return transport;
    };
  }
  std::shared_ptr<FakeTransport> last() {
    std::lock_guard lock(mutex);
    return made.empty() ? nullptr : made.back();
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return made.size();
  }
};

/// The text of the frame [joinRef, ref, topic, event, payload]; a missing
/// reference is null.
inline std::string frame(const std::optional<std::string>& joinRef, const std::optional<std::string>& ref,
                         const std::string& topic, const std::string& event,
                         const boost::json::object& payload) {
  auto text = [](const std::optional<std::string>& value) {
    return value ? boost::json::value(*value) : boost::json::value(nullptr);
  };
  return boost::json::serialize(boost::json::array{text(joinRef), text(ref), topic, event, payload});
}

/// A socket on fake transports that writes its log down.
class SocketOnFakeTransports : public ::testing::Test {
 protected:
  void SetUp() override {
    socket = Socket::make("ws://h/socket", transports.factory());
    socket->setLogger(log.logger());
  }
  /// Connects and opens the new transport.
  std::shared_ptr<FakeTransport> open() {
    socket->connect();
    auto transport = transports.last();
    transport->open();
    return transport;
  }

  FakeTransports transports;
  LogRecorder log;
  std::shared_ptr<Socket> socket;
};

}  // namespace vantor::realtime::testing
