// Presence: payloads read as states and diffs, the pure merges, and a
// Presence on a channel that receives them.
//
// Each line is an operation letter and, but for "r", a JSON object:
//
//   s{...}  merges the payload, read as a state, into a kept state (syncState)
//   d{...}  applies the payload, read as a diff, to the kept state (syncDiff)
//   S{...}  the channel receives "presence_state" with the payload
//   D{...}  the channel receives "presence_diff" with the payload
//   r       the channel errors and joins again under a new reference, so
//           that diffs wait for the next state
//
// Presence data without "metas", or with a meta whose "phx_ref" is not a
// string, stops the process by design once it is merged; such payloads are
// not played.

#include <algorithm>
#include <boost/url/url.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "FuzzSupport.hpp"
#include "FuzzTransport.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime {
namespace {

using fuzz::violated;
using Map = Presence::Map;
using Meta = Presence::Meta;
using State = Presence::State;
using Diff = Presence::Diff;

constexpr std::size_t maxLines = 32;

bool presentable(const Map& presence) {
  const auto metas = presence.find("metas");
  return metas != presence.end() &&
         std::all_of(metas->second.begin(), metas->second.end(), [](const Meta& meta) {
           const auto* ref = meta.if_contains("phx_ref");
           return ref != nullptr && ref->is_string();
         });
}

bool presentable(const State& state) {
  return std::all_of(state.begin(), state.end(),
                     [](const auto& entry) { return presentable(entry.second); });
}

// Only "joins" and "leaves" of a diff are merged.
bool presentable(const Diff& diff) {
  return std::all_of(diff.begin(), diff.end(), [](const auto& entry) {
    return (entry.first != "joins" && entry.first != "leaves") || presentable(entry.second);
  });
}

std::set<std::string> refsOf(const Map& presence) {
  std::set<std::string> refs;
  if (auto metas = presence.find("metas"); metas != presence.end()) {
    for (const auto& meta : metas->second) {
      refs.emplace(meta.at("phx_ref").get_string());
    }
  }
  return refs;
}

bool hasNoneOf(const Map& presence, const std::set<std::string>& refs) {
  const auto own = refsOf(presence);
  return std::none_of(own.begin(), own.end(), [&](const auto& ref) { return refs.contains(ref); });
}

// Callbacks of the pure merges; they check what they are handed.
void joined(const std::string&, const std::optional<Map>& current, const Map& joins) {
  if ((current && !presentable(*current)) || !presentable(joins)) {
    violated("onJoin was handed presence data without metas");
  }
}

void left(const std::string&, const Map& current, const Map& leaves) {
  if (!presentable(current) || !hasNoneOf(current, refsOf(leaves))) {
    violated("onLeave's current presence still holds a meta that left");
  }
}

// After syncState, the state is the new one: its keys, and each key with
// metas holds exactly the new metas' references.
void checkSynced(const State& result, const State& newState) {
  for (const auto& [key, presence] : result) {
    if (!newState.contains(key)) {
      violated("syncState kept a key that the new state lacks");
    }
  }
  for (const auto& [key, presence] : newState) {
    const auto refs = refsOf(presence);
    if (refs.empty()) {
      continue;
    }
    const auto found = result.find(key);
    if (found == result.end() || refsOf(found->second) != refs) {
      violated("syncState did not end with the new state's metas");
    }
  }
}

// After syncDiff, the metas that left are gone, those that joined (and did
// not leave again) are there, and keys the diff does not name are untouched.
void checkDiffed(const State& before, const State& result, const Diff& diff) {
  static const State none;
  const auto joins = diff.find("joins");
  const auto leaves = diff.find("leaves");
  const auto& joined = joins == diff.end() ? none : joins->second;
  const auto& leftKeys = leaves == diff.end() ? none : leaves->second;
  for (const auto& [key, presence] : leftKeys) {
    const auto found = result.find(key);
    if (found != result.end() && !hasNoneOf(found->second, refsOf(presence))) {
      violated("syncDiff kept a meta that left");
    }
  }
  for (const auto& [key, presence] : joined) {
    if (leftKeys.contains(key)) {
      continue;
    }
    const auto found = result.find(key);
    if (found == result.end()) {
      violated("syncDiff lost a key that joined");
    }
    const auto refs = refsOf(found->second);
    for (const auto& ref : refsOf(presence)) {
      if (!refs.contains(ref)) {
        violated("syncDiff lost a meta that joined");
      }
    }
  }
  for (const auto& [key, presence] : before) {
    if (joined.contains(key) || leftKeys.contains(key)) {
      continue;
    }
    const auto found = result.find(key);
    if (found == result.end() || found->second != presence) {
      violated("syncDiff changed a key that the diff does not name");
    }
  }
}

class Room {
 public:
  Room() {
    socket_ = Socket::make("ws://fuzz.test/socket", [](const boost::urls::url&) {
      return std::make_shared<fuzz::FuzzTransport>();
    });
    socket_->setSkipHeartbeat(true);
    socket_->setTimeout(0);
    channel_ = socket_->channel("room:presence");
    channel_->join();
    presence_ = Presence::make(channel_);
    std::weak_ptr<Presence> presence = presence_;
    // The state a callback reads is the one before the event; whatever it
    // is, it must stay mergeable.
    auto check = [presence] {
      if (auto self = presence.lock(); self && !presentable(self->state())) {
        violated("a Presence's state holds data that cannot be merged");
      }
    };
    presence_->onJoin([check](const std::string& key, const std::optional<Map>& current, const Map& joins) {
      joined(key, current, joins);
      check();
    });
    presence_->onLeave([check](const std::string& key, const Map& current, const Map& leaves) {
      left(key, current, leaves);
      check();
    });
    presence_->onSync(check);
  }

  void play(std::string_view line) {
    if (line.empty()) {
      return;
    }
    if (line[0] == 'r') {
      channel_->trigger("phx_error", {});
      channel_->rejoin();
      return;
    }
    auto decoded = Defaults::decode(line.substr(1));
    if (!decoded || !decoded->is_object()) {
      return;
    }
    const auto& payload = decoded->get_object();
    switch (line[0]) {
      case 's':
        if (auto newState = Presence::stateFrom(payload); newState && presentable(*newState)) {
          auto result = Presence::syncState(state_, *newState, joined, left);
          checkSynced(result, *newState);
          state_ = std::move(result);
        }
        break;
      case 'd':
        if (auto diff = Presence::diffFrom(payload); diff && presentable(*diff)) {
          auto result = Presence::syncDiff(state_, *diff, joined, left);
          checkDiffed(state_, result, *diff);
          state_ = std::move(result);
        }
        break;
      case 'S':
        if (auto newState = Presence::stateFrom(payload); newState && presentable(*newState)) {
          channel_->trigger("presence_state", payload);
        }
        break;
      case 'D':
        if (auto diff = Presence::diffFrom(payload); diff && presentable(*diff)) {
          channel_->trigger("presence_diff", payload);
        }
        break;
      default:
        break;
    }
    if (!presentable(presence_->state())) {
      violated("a Presence's state holds data that cannot be merged");
    }
  }

 private:
  std::shared_ptr<Socket> socket_;
  std::shared_ptr<Channel> channel_;
  std::shared_ptr<Presence> presence_;
  State state_;
};

}  // namespace
}  // namespace vantor::realtime

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  vantor::fuzz::useFuzzerThreadAsLoop();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vantor::fuzz::playSession<vantor::realtime::Room>(data, size, vantor::realtime::maxLines);
  return 0;
}
