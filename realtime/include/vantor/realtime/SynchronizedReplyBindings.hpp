#pragma once

#include <boost/container/small_vector.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vantor/realtime/Delegated.hpp"
#include "vantor/realtime/Message.hpp"

namespace vantor::realtime {

/// A channel's reply bindings, filed under the message reference that each
/// waits for, the bindings of one reference in the order they were added.
/// Every waiting push has one, so an entry is a single small block holding
/// its first binding; a lookup does not depend on how many are waiting.
///
/// Writes are applied in the order they are made, and a thread always sees
/// its own earlier writes. Callbacks are never called under the lock.
///
/// Thread safety: every member may be called from any thread.
class SynchronizedReplyBindings {
 public:
  using Callback = Delegated<Message, void>;
  /// The callbacks of one reference, copied out for calling without the lock.
  using Snapshot = boost::container::small_vector<Callback, 2>;

  void append(std::uint64_t key, int ref, Callback callback) {
    std::unique_lock lock(mutex_);
    auto [entry, added] = entries_.try_emplace(key, ref, std::move(callback));
    if (!added) {
      if (!entry->second.more) {
        entry->second.more = std::make_unique<std::vector<std::pair<int, Callback>>>();
      }
      entry->second.more->emplace_back(ref, std::move(callback));
    }
  }

  /// Removes the bindings of `key`, or only the one with `ref`.
  void remove(std::uint64_t key, std::optional<int> ref) {
    std::unique_lock lock(mutex_);
    auto found = entries_.find(key);
    if (found == entries_.end()) {
      return;
    }
    Entry& entry = found->second;
    if (!ref) {
      erase(found);
      return;
    }
    if (entry.more) {
      std::erase_if(*entry.more, [&](const auto& binding) { return binding.first == *ref; });
    }
    if (entry.ref == *ref) {
      if (!entry.more || entry.more->empty()) {
        erase(found);
        return;
      }
      std::tie(entry.ref, entry.callback) = std::move(entry.more->front());
      entry.more->erase(entry.more->begin());
    }
  }

  [[nodiscard]] Snapshot group(std::uint64_t key) const {
    Snapshot callbacks;
    std::shared_lock lock(mutex_);
    auto found = entries_.find(key);
    if (found != entries_.end()) {
      callbacks.push_back(found->second.callback);
      if (found->second.more) {
        for (const auto& binding : *found->second.more) {
          callbacks.push_back(binding.second);
        }
      }
    }
    return callbacks;
  }

  /// The number of bindings over all references.
  [[nodiscard]] std::size_t size() const {
    std::shared_lock lock(mutex_);
    std::size_t count = 0;
    for (const auto& [key, entry] : entries_) {
      count += 1 + (entry.more ? entry.more->size() : 0);
    }
    return count;
  }

 private:
  struct Entry {
    Entry(int ref, Callback callback) : ref(ref), callback(std::move(callback)) {}
    int ref;
    Callback callback;
    // Further bindings of the same reference: rare, so kept out of line.
    std::unique_ptr<std::vector<std::pair<int, Callback>>> more;
  };

  using Entries = std::unordered_map<std::uint64_t, Entry>;

  void erase(Entries::iterator entry) {
    entries_.erase(entry);
    if (entries_.empty()) {
      // Most channels wait for no reply most of the time: give back the
      // bucket array too.
      Entries().swap(entries_);
    }
  }

  mutable std::shared_mutex mutex_;
  Entries entries_;
};

}  // namespace vantor::realtime
