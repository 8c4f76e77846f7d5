#pragma once

#include <boost/system/errc.hpp>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "vantor/realtime/PhoenixTransport.hpp"

namespace vantor::fuzz {

/// A transport without a network. The socket's calls change its state; the
/// server's side (`open`, `receive`, `close`, `fail`) reports to the socket
/// at once, on the calling thread, which is the loop's. Sent frames are only
/// counted, so a long input does not pile them up.
class FuzzTransport final : public realtime::PhoenixTransport {
 public:
  using ReadyState = realtime::PhoenixTransportReadyState;

  [[nodiscard]] ReadyState readyState() const override { return state_; }
  [[nodiscard]] std::shared_ptr<realtime::PhoenixTransportDelegate> delegate() const override {
    return delegate_;
  }
  void setDelegate(std::shared_ptr<realtime::PhoenixTransportDelegate> delegate) override {
    delegate_ = std::move(delegate);
  }
  void connect() override { state_ = ReadyState::connecting; }
  void disconnect(int /*code*/, std::optional<std::string> /*reason*/) override {
    state_ = ReadyState::closing;
  }
  void send(std::string /*data*/) override { ++sent_; }

  void open() {
    state_ = ReadyState::open;
    // Held for the call: the socket may drop its delegate meanwhile.
    if (auto target = delegate_) {
      target->onOpen();
    }
  }
  void receive(std::string_view text) {
    if (auto target = delegate_) {
      target->onMessage(std::string(text));
    }
  }
  void close(int code) {
    state_ = ReadyState::closed;
    if (auto target = delegate_) {
      target->onClose(code);
    }
  }
  void fail() {
    state_ = ReadyState::closed;
    if (auto target = delegate_) {
      target->onError({boost::system::errc::make_error_code(boost::system::errc::connection_reset),
                       "connection reset"},
                      std::nullopt);
      target->onClose(999);
    }
  }
  [[nodiscard]] std::size_t sent() const { return sent_; }

 private:
  ReadyState state_ = ReadyState::closed;
  std::shared_ptr<realtime::PhoenixTransportDelegate> delegate_;
  std::size_t sent_ = 0;
};

}  // namespace vantor::fuzz
