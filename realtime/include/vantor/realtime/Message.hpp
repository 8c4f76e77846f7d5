#pragma once

#include <boost/json/array.hpp>
#include <memory>
#include <optional>
#include <string>

#include "vantor/realtime/Payload.hpp"

namespace vantor::realtime {

/// An immutable received frame: [join_ref, ref, topic, event, payload].
///
/// Copies are cheap: the payload is shared between copies, never changed.
///
/// Thread safety: a `Message` may be read from any thread.
class Message {
 public:
  /// Builds a message from one decoded frame, given as it was decoded.
  ///
  /// A non-string join reference gives no `joinRef`; a non-string reference
  /// gives `ref` "". A topic or event that is not a string, or a payload that
  /// is not an object, gives no message (checked in that order). Elements
  /// after the fifth are ignored. A frame of fewer than five elements is a
  /// programming error of the decoder and stops the process.
  static std::optional<Message> fromJson(const boost::json::array& frame);
  /// As above, moving the payload out of `frame` instead of copying it.
  static std::optional<Message> fromJson(boost::json::array&& frame);

  Message(std::string ref, std::optional<std::string> joinRef, std::string topic, std::string event,
          Payload rawPayload);
  /// As above, sharing an existing payload instead of copying it.
  Message(std::string ref, std::optional<std::string> joinRef, std::string topic, std::string event,
          std::shared_ptr<const Payload> rawPayload);

  /// The reference of the push that this message answers; "" when absent.
  [[nodiscard]] const std::string& ref() const noexcept { return ref_; }
  /// The join reference of the channel instance the message belongs to.
  [[nodiscard]] const std::optional<std::string>& joinRef() const noexcept { return joinRef_; }
  [[nodiscard]] const std::string& topic() const noexcept { return topic_; }
  [[nodiscard]] const std::string& event() const noexcept { return event_; }
  /// The fifth element of the frame, whole.
  [[nodiscard]] const Payload& rawPayload() const noexcept { return *rawPayload_; }
  [[nodiscard]] const std::shared_ptr<const Payload>& sharedRawPayload() const noexcept {
    return rawPayload_;
  }

  /// The "response" object of a reply, when the raw payload has one that is
  /// an object; otherwise the raw payload.
  [[nodiscard]] const Payload& payload() const noexcept;

  /// The raw payload's "status" when it is a string (replies carry one).
  [[nodiscard]] std::optional<std::string> status() const;

  /// A one-line description for logs.
  [[nodiscard]] std::string description() const;

 private:
  std::string ref_;
  std::optional<std::string> joinRef_;
  std::string topic_;
  std::string event_;
  std::shared_ptr<const Payload> rawPayload_;
};

}  // namespace vantor::realtime
