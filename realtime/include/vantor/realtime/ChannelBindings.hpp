#pragma once

#include <boost/container/small_vector.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vantor/realtime/Binding.hpp"

namespace vantor::realtime {

/// A channel's bindings by event, each event's in the order they were
/// added, under one lock.
///
/// Reply events ("chan_reply_" followed by a reference as the socket writes
/// it, without leading zeros) are filed by the reference's number: every
/// waiting push has one, so such an entry is one small block holding its
/// first binding, and finding it does not depend on how many wait. Other
/// events are filed by name, and a reader gets an event's bindings as an
/// immutable snapshot made once per change of that event. The indexes are
/// made at the first binding and given back once both are empty, so a
/// channel with no binding of its own and no push waiting holds none.
///
/// Writes are applied in the order they are made, and a thread always sees
/// its own earlier writes. The lock is held only for the change or the copy,
/// never for a callback.
///
/// Thread safety: every member may be called from any thread.
class ChannelBindings {
 public:
  using Snapshot = std::shared_ptr<const std::vector<Binding>>;
  using Callback = Delegated<Message, void>;
  /// The callbacks of one reply event, copied out for calling.
  using ReplySnapshot = boost::container::small_vector<Callback, 2>;

  /// The reference number of a reply event; none for other events.
  static std::optional<std::uint64_t> replyNumber(std::string_view event);

  void append(Binding binding);
  /// Removes the bindings of `event`, or only the one with `ref`.
  void remove(const std::string& event, std::optional<std::int64_t> ref);
  /// As `append` and `remove` for the reply event with `number`, without
  /// its name.
  void appendReply(std::uint64_t number, std::int64_t ref, Callback callback);
  void removeReply(std::uint64_t number, std::optional<std::int64_t> ref);

  /// The bindings of an event that is not a reply event, in order; never null.
  [[nodiscard]] Snapshot group(const std::string& event) const;
  /// The callbacks of the reply event with `number`, in order.
  [[nodiscard]] ReplySnapshot replyGroup(std::uint64_t number) const;

  /// The number of bindings over all events.
  [[nodiscard]] std::size_t size() const;

 private:
  struct Named {
    std::vector<Binding> bindings;
    Snapshot snapshot;  // null until read after a change
  };
  struct Reply {
    Reply(std::int64_t ref, Callback callback) : ref(ref), callback(std::move(callback)) {}
    std::int64_t ref;
    Callback callback;
    // Further bindings of the same reply event: rare, so kept out of line.
    std::unique_ptr<std::vector<std::pair<std::int64_t, Callback>>> more;
  };
  // Empty maps allocate nothing, so one block holds both.
  struct Indexes {
    std::unordered_map<std::string, Named> named;
    std::unordered_map<std::uint64_t, Reply> replies;
  };

  Indexes& indexes();
  // Gives the indexes back once both are empty; with the lock held.
  void releaseIfEmpty();

  // A plain mutex: the loop thread is nearly the only reader, and it is
  // held only to copy or change a list.
  mutable std::mutex mutex_;
  std::unique_ptr<Indexes> indexes_;
};

}  // namespace vantor::realtime
