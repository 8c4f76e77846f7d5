#include "vantor/realtime/FallbackTransport.hpp"

#include "vantor/platform/EventLoop.hpp"

namespace vantor::realtime {

// Hands an inner transport's reports to its FallbackTransport, naming the
// transport, so that reports from one it no longer uses are ignored.
class FallbackTransport::Relay : public PhoenixTransportDelegate {
 public:
  Relay(std::weak_ptr<FallbackTransport> owner, const PhoenixTransport* from) : owner_(std::move(owner)), from_(from) {}
  void onOpen() override {
    if (auto owner = owner_.lock()) {
      owner->innerOpened(from_);
    }
  }
  void onError(const TransportError& error, const std::optional<HttpResponse>& response) override {
    if (auto owner = owner_.lock()) {
      owner->innerFailed(from_, error, response);
    }
  }
  void onMessage(const std::string& message) override {
    if (auto owner = owner_.lock()) {
      owner->innerMessage(from_, message);
    }
  }
  void onClose(int code) override {
    if (auto owner = owner_.lock()) {
      owner->innerClosed(from_, code);
    }
  }

 private:
  std::weak_ptr<FallbackTransport> owner_;
  const PhoenixTransport* from_;
};

Socket::TransportFactory FallbackTransport::factory(URLSessionConfiguration configuration,
                                                    std::shared_ptr<Choice> choice) {
  if (!choice) {
    choice = std::make_shared<Choice>();
  }
  return [configuration = std::move(configuration), choice](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
    if (choice->longPoll) {
      return LongPollTransport::make(url, configuration);
    }
    return std::make_shared<FallbackTransport>(url, configuration, choice);
  };
}

FallbackTransport::FallbackTransport(boost::urls::url url, URLSessionConfiguration configuration,
                                     std::shared_ptr<Choice> choice)
    : url_(std::move(url)), configuration_(std::move(configuration)), choice_(std::move(choice)) {}

PhoenixTransportReadyState FallbackTransport::readyState() const {
  std::lock_guard lock(mutex_);
  if (fallingBack_) {
    return PhoenixTransportReadyState::connecting;
  }
  return inner_ ? inner_->readyState() : PhoenixTransportReadyState::closed;
}

std::shared_ptr<PhoenixTransportDelegate> FallbackTransport::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

void FallbackTransport::setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void FallbackTransport::setSubprotocols(std::vector<std::string> subprotocols) {
  std::lock_guard lock(mutex_);
  subprotocols_ = std::move(subprotocols);
}

void FallbackTransport::useInner(std::shared_ptr<PhoenixTransport> inner) {
  std::vector<std::string> subprotocols;
  {
    std::lock_guard lock(mutex_);
    inner_ = inner;
    subprotocols = subprotocols_;
  }
  inner->setDelegate(std::make_shared<Relay>(weak_from_this(), inner.get()));
  if (!subprotocols.empty()) {
    inner->setSubprotocols(std::move(subprotocols));
  }
  inner->connect();
}

void FallbackTransport::connect() {
  platform::EventLoop::main().dispatch([self = shared_from_this()] {
    self->opened_ = false;
    self->webSocketError_.reset();
    self->useInner(URLSessionTransport::make(self->url_, self->configuration_));
  });
}

void FallbackTransport::disconnect(int code, std::optional<std::string> reason) {
  std::shared_ptr<PhoenixTransport> inner;
  {
    std::lock_guard lock(mutex_);
    inner = inner_;
  }
  platform::EventLoop::main().dispatch([self = shared_from_this(), inner, code, reason = std::move(reason)]() mutable {
    if (self->fallingBack_) {
      // Closed while trying long-poll: that attempt ends here.
      {
        std::lock_guard lock(self->mutex_);
        self->fallingBack_ = false;
      }
      if (inner) {
        inner->setDelegate(nullptr);
        inner->disconnect(code, std::move(reason));
      }
      if (auto delegate = self->delegate()) {
        delegate->onClose(code);
      }
      return;
    }
    if (inner) {
      inner->disconnect(code, std::move(reason));
    }
  });
}

void FallbackTransport::send(std::string data) {
  std::shared_ptr<PhoenixTransport> inner;
  {
    std::lock_guard lock(mutex_);
    inner = inner_;
  }
  if (inner) {
    inner->send(std::move(data));
  }
}

std::uint64_t FallbackTransport::bufferedAmount() const {
  std::lock_guard lock(mutex_);
  return inner_ ? inner_->bufferedAmount() : 0;
}

namespace {
bool current(const std::shared_ptr<PhoenixTransport>& inner, const PhoenixTransport* from) { return inner.get() == from; }
}  // namespace

void FallbackTransport::innerOpened(const PhoenixTransport* from) {
  {
    std::lock_guard lock(mutex_);
    if (!current(inner_, from)) {
      return;
    }
    if (fallingBack_) {
      // Long-poll works where the WebSocket did not: keep to it.
      fallingBack_ = false;
      choice_->longPoll = true;
    }
  }
  opened_ = true;
  if (auto delegate = this->delegate()) {
    delegate->onOpen();
  }
}

void FallbackTransport::innerFailed(const PhoenixTransport* from, const TransportError& error,
                                    const std::optional<HttpResponse>& response) {
  bool reportNow = true;
  {
    std::lock_guard lock(mutex_);
    if (!current(inner_, from)) {
      return;
    }
    if (fallingBack_) {
      reportNow = false;  // long-poll failed as well: the WebSocket's error is reported at its close
    } else if (!opened_) {
      webSocketError_.emplace(error, response);
      reportNow = false;  // the close that follows tries long-poll
    }
  }
  if (reportNow) {
    if (auto delegate = this->delegate()) {
      delegate->onError(error, response);
    }
  }
}

void FallbackTransport::innerMessage(const PhoenixTransport* from, const std::string& message) {
  // `inner_` only changes on the loop, where this runs: read without the lock.
  if (!current(inner_, from)) {
    return;
  }
  if (auto delegate = this->delegate()) {
    delegate->onMessage(message);
  }
}

void FallbackTransport::innerClosed(const PhoenixTransport* from, int code) {
  bool tryLongPoll = false;
  bool longPollFailed = false;
  {
    std::lock_guard lock(mutex_);
    if (!current(inner_, from)) {
      return;
    }
    if (fallingBack_) {
      fallingBack_ = false;
      longPollFailed = true;
    } else if (!opened_ && webSocketError_) {
      fallingBack_ = true;
      tryLongPoll = true;
    }
  }
  if (tryLongPoll) {
    useInner(LongPollTransport::make(url_, configuration_));
    return;
  }
  auto delegate = this->delegate();
  if (!delegate) {
    return;
  }
  if (longPollFailed && webSocketError_) {
    delegate->onError(webSocketError_->first, webSocketError_->second);
  }
  delegate->onClose(code);
}

}  // namespace vantor::realtime
