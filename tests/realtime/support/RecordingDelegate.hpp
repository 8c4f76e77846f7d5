#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/Eventually.hpp"
#include "vantor/realtime/PhoenixTransport.hpp"

namespace vantor::realtime::testing {

/// A transport delegate that writes down every report, and the transport's
/// ready state as the report saw it.
class RecordingDelegate : public PhoenixTransportDelegate {
 public:
  struct Event {
    std::string kind;  // "open", "error", "message", "close"
    std::string detail;
    PhoenixTransportReadyState stateSeen;
    std::optional<HttpResponse> response;
  };

  void watch(std::weak_ptr<PhoenixTransport> transport) {
    std::lock_guard lock(mutex_);
    transport_ = std::move(transport);
  }

  void onOpen() override { record("open", ""); }
  void onError(const TransportError& error, const std::optional<HttpResponse>& response) override {
    record("error", error.description, response);
  }
  void onMessage(const std::string& message) override { record("message", message); }
  void onClose(int code) override { record("close", std::to_string(code)); }

  std::vector<Event> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::vector<std::string> kinds() const {
    std::vector<std::string> kinds;
    for (const auto& event : events()) {
      kinds.push_back(event.kind == "close" ? "close:" + event.detail : event.kind);
    }
    return kinds;
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> texts;
    for (const auto& event : events()) {
      if (event.kind == "message") {
        texts.push_back(event.detail);
      }
    }
    return texts;
  }
  bool waitFor(const std::string& kind, std::size_t count = 1) const {
    return eventually([&] {
      std::size_t seen = 0;
      for (const auto& event : events()) {
        seen += event.kind == kind ? 1 : 0;
      }
      return seen >= count;
    });
  }

 private:
  void record(std::string kind, std::string detail, std::optional<HttpResponse> response = {}) {
    std::lock_guard lock(mutex_);
    auto transport = transport_.lock();
    events_.push_back({std::move(kind), std::move(detail),
                       transport ? transport->readyState() : PhoenixTransportReadyState::closed,
                       std::move(response)});
  }

  mutable std::mutex mutex_;
  std::weak_ptr<PhoenixTransport> transport_;
  std::vector<Event> events_;
};

}  // namespace vantor::realtime::testing
