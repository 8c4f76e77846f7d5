#pragma once

#include <atomic>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vantor/realtime/Delegated.hpp"
#include "vantor/realtime/Message.hpp"
#include "vantor/realtime/Payload.hpp"

namespace vantor::realtime {

class Channel;
class Socket;

/// One outgoing channel event that expects a reply: a join, a leave, or an
/// application event pushed with `Channel::push`.
///
/// Sending gives the push a fresh reference and listens on its channel for
/// the reply to that reference ("chan_reply_" + reference). The reply's
/// status picks the hooks that run ("ok", "error", or "timeout", which the
/// push makes up itself when no reply came within `timeout` seconds). A
/// reply that arrives after the time-out reaches nobody. `resend` sends
/// again under a new reference; hooks survive it.
///
/// A push holds its channel weakly. A pending time-out holds the push until
/// it fires or is withdrawn.
///
/// Thread safety: every public member may be called from any thread; the
/// work runs on the main event loop, and hooks are called there.
class Push : public std::enable_shared_from_this<Push> {
 public:
  using Hook = std::function<void(const Message&)>;

  static std::shared_ptr<Push> make(const std::shared_ptr<Channel>& channel, std::string event,
                                    Payload payload, double timeout);
  ~Push();
  Push(const Push&) = delete;
  Push& operator=(const Push&) = delete;

  /// Sends the push under a new reference and arms its time-out. Does
  /// nothing once a "timeout" reply was received (use `resend`). With the
  /// channel or socket gone nothing is sent, but the time-out stays armed.
  void send();
  /// Sets `timeout`, resets the push and sends it again.
  void resend(double timeout);

  /// Adds a hook for replies with `status`; a hook added after such a reply
  /// arrived runs at once with it, and is kept. Returns this push. Called
  /// off the loop, it is queued like `Channel::push` and does not wait.
  std::shared_ptr<Push> receive(const std::string& status, Hook callback);
  /// As `receive`, holding `owner` weakly.
  template <class Owner, std::invocable<Owner&, const Message&> F>
  std::shared_ptr<Push> delegateReceive(const std::string& status,
                                        const std::shared_ptr<Owner>& owner,
                                        F callback);
  std::shared_ptr<Push> receive(const std::string& status, Delegated<Message, void> delegated);

  /// Adds a hook for every outcome of the push, whatever its status: each
  /// reply (with any status, or none) and each time-out, after the hooks of
  /// that status. A hook added after a reply arrived runs at once with it.
  /// Returns a reference for `withdrawOutcomeHook`. Waits for the loop when
  /// called off it.
  std::int64_t onOutcome(Hook callback);
  /// Removes the outcome hook with `ref`; safe from inside that hook.
  void withdrawOutcomeHook(std::int64_t ref);

  /// Forgets the reference, the reply binding and the received reply. A
  /// pending time-out stays until the next send withdraws it.
  void reset();
  /// Withdraws the pending time-out.
  void cancelTimeout();
  /// Takes a new reference, binds the reply event and arms the time-out.
  void startTimeout();
  [[nodiscard]] bool hasReceived(const std::string& status) const;
  /// Makes a local reply with `status` on the reply event, handled exactly
  /// as a server reply. Does nothing before a reference was taken.
  void trigger(const std::string& status, Payload payload);

  [[nodiscard]] std::shared_ptr<Channel> channel() const;
  [[nodiscard]] const std::string& event() const noexcept { return event_; }
  [[nodiscard]] Payload payload() const;
  void setPayload(Payload payload);
  [[nodiscard]] double timeout() const;
  void setTimeout(double seconds);
  [[nodiscard]] std::optional<Message> receivedMessage() const;
  [[nodiscard]] bool sent() const;
  [[nodiscard]] std::optional<std::string> ref() const;
  [[nodiscard]] std::optional<std::string> refEvent() const;

 private:
  Push(const std::shared_ptr<Channel>& channel, std::string event, Payload payload,
       double timeout);

  [[nodiscard]] std::optional<std::string> refText() const;
  void removeReplyBinding();
  // `socket` (may be null) logs what a throwing hook threw.
  void matchReceive(const std::string& status, const Message& message, Socket* socket);
  void replied(const Message& message);

  // Everything below lives on the main loop.
  std::weak_ptr<Channel> channel_;
  const std::string event_;
  Payload payload_;
  double timeout_;
  std::unique_ptr<const Message> receivedMessage_;  // only once replied: most pushes wait
  // The time-out armed for the current reference (see detail::PushTimeouts),
  // when `timeoutArmed_`.
  std::pair<std::chrono::steady_clock::time_point, std::uint64_t> timeoutKey_{};
  // Hooks by status, in the order the statuses were first used: a push
  // has a few at most, so a list beats a map in size and speed.
  std::vector<std::pair<std::string, std::vector<Delegated<Message, void>>>> receiveHooks_;
  // Made at the first `onOutcome`: few pushes have such hooks.
  struct OutcomeHooks {
    std::int64_t lastRef = 0;
    std::vector<std::pair<int, Hook>> hooks;
  };
  std::unique_ptr<OutcomeHooks> outcomeHooks_;
  // The reference as a number, when `hasRef_`: its text and the reply
  // event are made from it when needed.
  std::uint64_t ref_ = 0;
  std::atomic<bool> hasReply_{false};  // receivedMessage_ is set; read off the loop
  bool sent_ = false;
  bool hasRef_ = false;
  bool timeoutArmed_ = false;
};

template <class Owner, std::invocable<Owner&, const Message&> F>
std::shared_ptr<Push> Push::delegateReceive(const std::string& status,
                                            const std::shared_ptr<Owner>& owner,
                                            F callback) {
  Delegated<Message, void> delegated;
  delegated.delegate(owner, std::move(callback));
  return receive(status, std::move(delegated));
}

}  // namespace vantor::realtime
