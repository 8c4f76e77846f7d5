#include "vantor/realtime/Presence.hpp"

#include <algorithm>
#include <boost/json/serialize.hpp>

#include "Guarded.hpp"
#include "vantor/platform/Fatal.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Message.hpp"

namespace vantor::realtime {

namespace json = boost::json;

namespace {

const std::vector<Presence::Meta>& metasOf(const Presence::Map& presence) {
  auto found = presence.find("metas");
  if (found == presence.end()) {
    platform::fatalError("Presence data without \"metas\"");
  }
  return found->second;
}

std::vector<std::string> refsOf(const std::vector<Presence::Meta>& metas) {
  std::vector<std::string> refs;
  refs.reserve(metas.size());
  for (const auto& meta : metas) {
    const auto* ref = meta.if_contains("phx_ref");
    if (ref == nullptr || !ref->is_string()) {
      platform::fatalError("Presence meta without a string \"phx_ref\"");
    }
    refs.emplace_back(ref->get_string());
  }
  return refs;
}

// The metas whose "phx_ref" is none of `refs`, in their order.
std::vector<Presence::Meta> without(const std::vector<Presence::Meta>& metas,
                                    const std::vector<std::string>& refs) {
  const auto ownRefs = refsOf(metas);
  std::vector<Presence::Meta> kept;
  for (std::size_t i = 0; i < metas.size(); ++i) {
    if (std::find(refs.begin(), refs.end(), ownRefs[i]) == refs.end()) {
      kept.push_back(metas[i]);
    }
  }
  return kept;
}

// `Presence::syncDiff` applied to `state` in place. The keys the diff
// changes are collected with their new presence (none: gone) while the
// callbacks run, and only then written: a callback that reads the state sees
// it as it was before the diff, and a diff costs what it names, not the size
// of the room.
void applyDiff(Presence::State& state, const Presence::Diff& diff, const Presence::OnJoin& onJoin,
               const Presence::OnLeave& onLeave) {
  using Map = Presence::Map;
  std::map<std::string, std::optional<Map>> changed;
  auto presenceOf = [&](const std::string& key) -> const Map* {
    if (auto found = changed.find(key); found != changed.end()) {
      return found->second ? &*found->second : nullptr;
    }
    auto found = state.find(key);
    return found == state.end() ? nullptr : &found->second;
  };
  if (auto joins = diff.find("joins"); joins != diff.end()) {
    for (const auto& [key, newPresence] : joins->second) {
      std::optional<Map> before;
      if (const auto* found = presenceOf(key)) {
        before = *found;
      }
      Map joined = newPresence;
      if (before) {
        // Old occurrences that the join does not repeat stay ahead of it.
        auto merged = without(metasOf(*before), refsOf(metasOf(joined)));
        const auto& joinedMetas = metasOf(joined);
        merged.insert(merged.end(), joinedMetas.begin(), joinedMetas.end());
        joined["metas"] = std::move(merged);
      }
      changed.insert_or_assign(key, std::move(joined));
      onJoin(key, before, newPresence);
    }
  }
  if (auto leaves = diff.find("leaves"); leaves != diff.end()) {
    for (const auto& [key, leftPresence] : leaves->second) {
      const auto* found = presenceOf(key);
      if (found == nullptr) {
        continue;
      }
      Map remaining = *found;
      remaining["metas"] = without(metasOf(remaining), refsOf(metasOf(leftPresence)));
      onLeave(key, remaining, leftPresence);
      if (remaining["metas"].empty()) {
        changed.insert_or_assign(key, std::nullopt);
      } else {
        changed.insert_or_assign(key, std::move(remaining));
      }
    }
  }
  for (auto& [key, presence] : changed) {
    if (presence) {
      state.insert_or_assign(key, std::move(*presence));
    } else {
      state.erase(key);
    }
  }
}

std::optional<Presence::Map> mapFrom(const json::value& value) {
  const auto* object = value.if_object();
  if (object == nullptr) {
    return std::nullopt;
  }
  Presence::Map map;
  for (const auto& [key, list] : *object) {
    const auto* array = list.if_array();
    if (array == nullptr) {
      return std::nullopt;
    }
    std::vector<Presence::Meta> metas;
    metas.reserve(array->size());
    for (const auto& element : *array) {
      const auto* meta = element.if_object();
      if (meta == nullptr) {
        return std::nullopt;
      }
      metas.push_back(*meta);
    }
    map.emplace(std::string(key), std::move(metas));
  }
  return map;
}

// Whether every presence of `state` has "metas" and every meta there a
// string "phx_ref": what the merge needs, and otherwise stops the process on.
bool mergeable(const Presence::State& state) {
  return std::all_of(state.begin(), state.end(), [](const auto& entry) {
    const auto metas = entry.second.find("metas");
    return metas != entry.second.end() &&
           std::all_of(metas->second.begin(), metas->second.end(), [](const Presence::Meta& meta) {
             const auto* ref = meta.if_contains("phx_ref");
             return ref != nullptr && ref->is_string();
           });
  });
}

// With the socket's `dropsMalformedInput` set, logs and counts `message`
// and says true when `states` cannot be merged; false otherwise, and then a
// malformed presence stops the process in the merge.
template <class... States>
bool droppedAsMalformed(const std::shared_ptr<Channel>& channel, const Message& message,
                        const States*... states) {
  auto socket = channel ? channel->socket() : nullptr;
  if (!socket || !socket->dropsMalformedInput() || ((states == nullptr || mergeable(*states)) && ...)) {
    return false;
  }
  socket->droppedMalformedInput("presence data without \"metas\" or a string \"phx_ref\"",
                                json::serialize(message.rawPayload()));
  return true;
}

const Presence::State* part(const Presence::Diff& diff, const char* key) {
  const auto found = diff.find(key);
  return found == diff.end() ? nullptr : &found->second;
}

std::optional<Presence::State> stateFromValue(const json::value& value) {
  const auto* object = value.if_object();
  return object ? Presence::stateFrom(*object) : std::nullopt;
}

}  // namespace

const Presence::Options& Presence::Options::defaults() {
  static const Options options{{{Events::state, "presence_state"}, {Events::diff, "presence_diff"}}};
  return options;
}

std::shared_ptr<Presence> Presence::make(const std::shared_ptr<Channel>& channel,
                                         const Options& options) {
  return platform::EventLoop::main().sync([&] {
    auto presence = std::shared_ptr<Presence>(new Presence(channel));
    auto stateEvent = options.events.find(Events::state);
    auto diffEvent = options.events.find(Events::diff);
    if (stateEvent == options.events.end() || diffEvent == options.events.end() || !channel) {
      return presence;
    }
    channel->delegateOn<Presence>(stateEvent->second, presence,
                                  [](Presence& self, const Message& message) { self.handleState(message); });
    channel->delegateOn<Presence>(diffEvent->second, presence,
                                  [](Presence& self, const Message& message) { self.handleDiff(message); });
    return presence;
  });
}

Presence::Presence(const std::shared_ptr<Channel>& channel) : channel_(channel) {}

// The application's callbacks as they are when an event starts, each run so
// that an exception from it is logged and does not break the merge.
struct Presence::Callbacks {
  OnJoin onJoin;
  OnLeave onLeave;
  std::function<void()> onSync;
};

Presence::Callbacks Presence::callbacks() const {
  auto channel = channel_.lock();
  auto socket = channel ? channel->socket() : nullptr;
  return {[socket, onJoin = onJoin_](const std::string& key, const std::optional<Map>& current,
                                     const Map& joined) {
            if (onJoin) {
              detail::guarded(socket.get(), "presence onJoin", [&] { (*onJoin)(key, current, joined); });
            }
          },
          [socket, onLeave = onLeave_](const std::string& key, const Map& current, const Map& left) {
            if (onLeave) {
              detail::guarded(socket.get(), "presence onLeave", [&] { (*onLeave)(key, current, left); });
            }
          },
          [socket, onSync = onSync_] {
            if (onSync) {
              detail::guarded(socket.get(), "presence onSync", [&] { (*onSync)(); });
            }
          }};
}

void Presence::handleState(const Message& message) {
  auto newState = stateFrom(message.rawPayload());
  if (!newState) {
    return;
  }
  auto channel = channel_.lock();
  if (droppedAsMalformed(channel, message, &*newState)) {
    return;
  }
  joinRef_ = channel ? channel->joinRef() : std::nullopt;
  const auto call = callbacks();
  state_ = syncState(state_, *newState, call.onJoin, call.onLeave);
  for (const auto& diff : std::exchange(pendingDiffs_, {})) {
    applyDiff(state_, diff, call.onJoin, call.onLeave);
  }
  call.onSync();
}

void Presence::handleDiff(const Message& message) {
  auto diff = diffFrom(message.rawPayload());
  if (!diff) {
    return;
  }
  if (droppedAsMalformed(channel_.lock(), message, part(*diff, "joins"), part(*diff, "leaves"))) {
    return;
  }
  if (pendingSyncState()) {
    pendingDiffs_.push_back(std::move(*diff));
    return;
  }
  const auto call = callbacks();
  applyDiff(state_, *diff, call.onJoin, call.onLeave);
  call.onSync();
}

bool Presence::pendingSyncState() const {
  if (!joinRef_) {
    return true;
  }
  auto channel = channel_.lock();
  if (!channel) {
    return true;
  }
  const auto channelJoinRef = channel->joinRef();
  return !channelJoinRef || *joinRef_ != *channelJoinRef;
}

Presence::State Presence::syncState(const State& state, const State& newState,
                                    const OnJoin& onJoin, const OnLeave& onLeave) {
  State joins;
  State leaves;
  for (const auto& [key, presence] : state) {
    if (!newState.contains(key)) {
      leaves[key] = presence;
    }
  }
  for (const auto& [key, newPresence] : newState) {
    auto current = state.find(key);
    if (current == state.end()) {
      joins[key] = newPresence;
      continue;
    }
    const auto& newMetas = metasOf(newPresence);
    const auto& currentMetas = metasOf(current->second);
    auto joinedMetas = without(newMetas, refsOf(currentMetas));
    auto leftMetas = without(currentMetas, refsOf(newMetas));
    if (!joinedMetas.empty()) {
      joins[key] = newPresence;
      joins[key]["metas"] = std::move(joinedMetas);
    }
    if (!leftMetas.empty()) {
      leaves[key] = current->second;
      leaves[key]["metas"] = std::move(leftMetas);
    }
  }
  return syncDiff(state, Diff{{"joins", std::move(joins)}, {"leaves", std::move(leaves)}}, onJoin,
                  onLeave);
}

Presence::State Presence::syncDiff(const State& current, const Diff& diff, const OnJoin& onJoin,
                                   const OnLeave& onLeave) {
  State state = current;
  applyDiff(state, diff, onJoin, onLeave);
  return state;
}

std::optional<Presence::State> Presence::stateFrom(const json::object& payload) {
  State state;
  for (const auto& [key, value] : payload) {
    auto map = mapFrom(value);
    if (!map) {
      return std::nullopt;
    }
    state.emplace(std::string(key), std::move(*map));
  }
  return state;
}

std::optional<Presence::Diff> Presence::diffFrom(const json::object& payload) {
  Diff diff;
  for (const auto& [key, value] : payload) {
    auto state = stateFromValue(value);
    if (!state) {
      return std::nullopt;
    }
    diff.emplace(std::string(key), std::move(*state));
  }
  return diff;
}

Presence::State Presence::filter(const State& presences,
                                 const std::function<bool(const std::string&, const Map&)>& predicate) {
  if (!predicate) {
    return presences;
  }
  State kept;
  for (const auto& [key, presence] : presences) {
    if (predicate(key, presence)) {
      kept.emplace(key, presence);
    }
  }
  return kept;
}

void Presence::onJoin(OnJoin callback) {
  onLoop([&] { onJoin_ = callback ? std::make_shared<const OnJoin>(std::move(callback)) : nullptr; });
}
void Presence::onLeave(OnLeave callback) {
  onLoop([&] { onLeave_ = callback ? std::make_shared<const OnLeave>(std::move(callback)) : nullptr; });
}
void Presence::onSync(OnSync callback) {
  onLoop([&] { onSync_ = callback ? std::make_shared<const OnSync>(std::move(callback)) : nullptr; });
}
Presence::State Presence::state() const {
  return onLoop([&] { return state_; });
}
std::vector<Presence::Diff> Presence::pendingDiffs() const {
  return onLoop([&] { return pendingDiffs_; });
}
std::optional<std::string> Presence::joinRef() const {
  return onLoop([&] { return joinRef_; });
}
bool Presence::isPendingSyncState() const {
  return onLoop([&] { return pendingSyncState(); });
}
std::vector<Presence::Map> Presence::list() const {
  return list([](const std::string&, const Map& presence) { return presence; });
}
Presence::State Presence::filter(
    const std::function<bool(const std::string&, const Map&)>& predicate) const {
  return onLoop([&] { return filter(state_, predicate); });
}

}  // namespace vantor::realtime
