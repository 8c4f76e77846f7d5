#include "vantor/realtime/Message.hpp"

#include <boost/json/serialize.hpp>
#include <type_traits>

#include "vantor/platform/Fatal.hpp"

namespace vantor::realtime {

namespace json = boost::json;

namespace {

// Reads a frame for `Message::fromJson`; `Frame` is a const or
// a movable array, and the payload is copied or moved accordingly.
template <class Frame>
std::optional<Message> messageFrom(Frame& frame) {
  // Elements are read by position, in order, like the frame's consumers
  // expect; a missing position is a decoder fault, not network input.
  auto element = [&frame](std::size_t index) -> const json::value& {
    if (index >= frame.size()) {
      platform::fatalError("Index out of range");
    }
    return frame[index];
  };

  std::optional<std::string> joinRef;
  if (const auto* text = element(0).if_string()) {
    joinRef.emplace(*text);
  }
  std::string ref;
  if (const auto* text = element(1).if_string()) {
    ref.assign(*text);
  }
  const auto* topic = element(2).if_string();
  if (topic == nullptr) {
    return std::nullopt;
  }
  const auto* event = element(3).if_string();
  if (event == nullptr) {
    return std::nullopt;
  }
  if (!element(4).is_object()) {
    return std::nullopt;
  }
  auto& payload = frame[4].get_object();
  if constexpr (std::is_const_v<Frame>) {
    return Message(std::move(ref), std::move(joinRef), std::string(*topic), std::string(*event),
                   payload);
  } else {
    return Message(std::move(ref), std::move(joinRef), std::string(*topic), std::string(*event),
                   std::move(payload));
  }
}

}  // namespace

std::optional<Message> Message::fromJson(const json::array& frame) { return messageFrom(frame); }

std::optional<Message> Message::fromJson(json::array&& frame) { return messageFrom(frame); }

Message::Message(std::string ref, std::optional<std::string> joinRef, std::string topic,
                 std::string event, Payload rawPayload)
    : ref_(std::move(ref)),
      joinRef_(std::move(joinRef)),
      topic_(std::move(topic)),
      event_(std::move(event)),
      rawPayload_(std::make_shared<const Payload>(std::move(rawPayload))) {}

Message::Message(std::string ref, std::optional<std::string> joinRef, std::string topic,
                 std::string event, std::shared_ptr<const Payload> rawPayload)
    : ref_(std::move(ref)),
      joinRef_(std::move(joinRef)),
      topic_(std::move(topic)),
      event_(std::move(event)),
      rawPayload_(rawPayload ? std::move(rawPayload) : std::make_shared<const Payload>()) {}

const Payload& Message::payload() const noexcept {
  if (const auto* response = rawPayload_->if_contains("response")) {
    if (const auto* object = response->if_object()) {
      return *object;
    }
  }
  return *rawPayload_;
}

std::optional<std::string> Message::status() const {
  if (const auto* status = rawPayload_->if_contains("status")) {
    if (const auto* text = status->if_string()) {
      return std::string(*text);
    }
  }
  return std::nullopt;
}

std::string Message::description() const {
  return "Message(joinRef: " + joinRef_.value_or("nil") + ", ref: " + ref_ + ", topic: " + topic_ +
         ", event: " + event_ + ", payload: " + json::serialize(*rawPayload_) + ")";
}

}  // namespace vantor::realtime
