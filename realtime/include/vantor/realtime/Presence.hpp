#pragma once

#include <boost/json/object.hpp>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vantor/platform/EventLoop.hpp"

namespace vantor::realtime {

class Channel;
class Message;

/// The client's copy of who is present on a channel's topic.
///
/// The server sends a full snapshot ("presence_state" by default) after each
/// join and incremental changes ("presence_diff") as members come and go.
/// `Presence` merges both into `state()`, calls `onJoin` and `onLeave` for
/// every change and `onSync` after each applied event. Changes that arrive
/// before the snapshot of the current join are held in `pendingDiffs()` and
/// applied right after it, followed by one `onSync`.
///
/// A present key may be present several times at once: each occurrence is a
/// "meta" object with a unique string "phx_ref". A payload of the wrong
/// shape is ignored whole; well-shaped data whose presence lacks "metas", or
/// whose meta lacks a string "phx_ref", is a server fault that stops the
/// process.
///
/// The merge functions `syncState` and `syncDiff` are pure and usable on
/// their own.
///
/// `Presence` holds its channel weakly and its bindings hold it weakly: the
/// application keeps its `Presence` alive.
///
/// Thread safety: every public member may be called from any thread; the
/// work runs on the main event loop, and callbacks are called there.
class Presence : public std::enable_shared_from_this<Presence> {
 public:
  /// One occurrence of a present entity.
  using Meta = boost::json::object;
  /// One present entity: its key "metas" holds its occurrences.
  using Map = std::map<std::string, std::vector<Meta>>;
  /// Everyone present, by key.
  using State = std::map<std::string, Map>;
  /// A change; uses the keys "joins" and "leaves".
  using Diff = std::map<std::string, State>;
  using OnJoin =
      std::function<void(const std::string& key, const std::optional<Map>& current, const Map& joined)>;
  using OnLeave =
      std::function<void(const std::string& key, const Map& current, const Map& left)>;
  using OnSync = std::function<void()>;

  enum class Events { state, diff };

  /// Which channel event carries each kind of presence message.
  struct Options {
    std::map<Events, std::string> events;
    /// {state: "presence_state", diff: "presence_diff"}.
    static const Options& defaults();
  };

  /// Listens on `channel` for the events `options` names. Options that lack
  /// either name make a presence that listens to nothing.
  static std::shared_ptr<Presence> make(const std::shared_ptr<Channel>& channel,
                                        const Options& options = Options::defaults());
  Presence(const Presence&) = delete;
  Presence& operator=(const Presence&) = delete;

  void onJoin(OnJoin callback);
  void onLeave(OnLeave callback);
  void onSync(OnSync callback);

  [[nodiscard]] State state() const;
  [[nodiscard]] std::vector<Diff> pendingDiffs() const;
  /// The channel's join reference when the last snapshot was applied.
  [[nodiscard]] std::optional<std::string> joinRef() const;
  /// True until the snapshot of the channel's current join has arrived.
  [[nodiscard]] bool isPendingSyncState() const;

  /// One entry per present key, in key order.
  [[nodiscard]] std::vector<Map> list() const;
  template <class Transform>
  [[nodiscard]] auto list(Transform transformer) const;
  /// The entries for which `predicate` holds; all of them without one.
  [[nodiscard]] State filter(
      const std::function<bool(const std::string&, const Map&)>& predicate = nullptr) const;

  template <class Transform>
  static auto listBy(const State& presences, Transform transformer);
  static State filter(const State& presences,
                      const std::function<bool(const std::string&, const Map&)>& predicate);

  /// Merges a full snapshot into `state`: keys and occurrences missing from
  /// `newState` leave, new ones join. All joins are reported before any
  /// leave. The callbacks run before the function returns.
  static State syncState(const State& state, const State& newState, const OnJoin& onJoin,
                         const OnLeave& onLeave);
  /// Applies a change: every "joins" entry (old occurrences kept ahead of new
  /// ones), then every "leaves" entry (a key with no occurrence left goes).
  static State syncDiff(const State& state, const Diff& diff, const OnJoin& onJoin,
                        const OnLeave& onLeave);

  /// The payload as a state, or nothing when any part has another shape.
  static std::optional<State> stateFrom(const boost::json::object& payload);
  /// The payload as a change, or nothing when any part has another shape.
  static std::optional<Diff> diffFrom(const boost::json::object& payload);

 private:
  explicit Presence(const std::shared_ptr<Channel>& channel);
  void handleState(const Message& message);
  void handleDiff(const Message& message);
  bool pendingSyncState() const;
  struct Callbacks;
  Callbacks callbacks() const;

  template <class F>
  auto onLoop(F&& work) const {
    return platform::EventLoop::main().sync(std::forward<F>(work));
  }

  // Everything below lives on the main loop.
  std::weak_ptr<Channel> channel_;
  // Shared, so that a handler holds the callbacks it runs even when one of
  // them replaces itself. Empty: nothing to call.
  std::shared_ptr<const OnJoin> onJoin_;
  std::shared_ptr<const OnLeave> onLeave_;
  std::shared_ptr<const OnSync> onSync_;
  State state_;
  std::vector<Diff> pendingDiffs_;
  std::optional<std::string> joinRef_;
};

template <class Transform>
auto Presence::listBy(const State& presences, Transform transformer) {
  using Result = std::invoke_result_t<Transform&, const std::string&, const Map&>;
  std::vector<Result> results;
  results.reserve(presences.size());
  for (const auto& [key, presence] : presences) {
    results.push_back(transformer(key, presence));
  }
  return results;
}

template <class Transform>
auto Presence::list(Transform transformer) const {
  return onLoop([&] { return listBy(state_, transformer); });
}

}  // namespace vantor::realtime
