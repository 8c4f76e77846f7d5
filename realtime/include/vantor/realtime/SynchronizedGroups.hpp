#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vantor::realtime {

/// Elements filed under string keys, the elements of each key in the order
/// they were appended, guarded by a reader-writer lock. A reader gets the
/// elements of one key as an immutable snapshot that it can use without the
/// lock; the snapshot is made once per change of that key and shared by
/// every read until the next change, so repeated reads copy nothing. Keys
/// left without elements are dropped.
///
/// Writes are applied in the order they are made, and a thread always sees
/// its own earlier writes. Writers hold the lock only for the change itself,
/// never for a callback. Predicates run under the lock and must not touch
/// the same object.
///
/// Thread safety: every member may be called from any thread.
template <class Element>
class SynchronizedGroups {
 public:
  using Group = std::vector<Element>;
  using Snapshot = std::shared_ptr<const Group>;

  void append(const std::string& key, Element element) {
    std::unique_lock lock(mutex_);
    if (!entries_) {
      entries_ = std::make_unique<Entries>();
    }
    auto& entry = (*entries_)[key];
    entry.elements.push_back(std::move(element));
    entry.snapshot.reset();
  }

  /// Removes the elements of `key` for which `where` is true, keeping the
  /// order of the rest.
  template <class Predicate>
  void removeAll(const std::string& key, Predicate where) {
    std::unique_lock lock(mutex_);
    if (!entries_) {
      return;
    }
    auto found = entries_->find(key);
    if (found == entries_->end()) {
      return;
    }
    if (std::erase_if(found->second.elements, where) == 0) {
      return;
    }
    if (found->second.elements.empty()) {
      entries_->erase(found);
      if (entries_->empty()) {
        entries_.reset();
      }
    } else {
      found->second.snapshot.reset();
    }
  }

  /// The elements of `key`, in order; never null.
  [[nodiscard]] Snapshot group(const std::string& key) const {
    {
      std::shared_lock lock(mutex_);
      if (!entries_) {
        return empty();
      }
      auto found = entries_->find(key);
      if (found == entries_->end()) {
        return empty();
      }
      if (found->second.snapshot) {
        return found->second.snapshot;
      }
    }
    std::unique_lock lock(mutex_);
    if (!entries_) {
      return empty();
    }
    auto found = entries_->find(key);
    if (found == entries_->end()) {
      return empty();
    }
    if (!found->second.snapshot) {
      found->second.snapshot = std::make_shared<const Group>(found->second.elements);
    }
    return found->second.snapshot;
  }

  /// The number of elements over all keys.
  [[nodiscard]] std::size_t size() const {
    std::shared_lock lock(mutex_);
    std::size_t count = 0;
    if (!entries_) {
      return 0;
    }
    for (const auto& [key, entry] : *entries_) {
      count += entry.elements.size();
    }
    return count;
  }

 private:
  struct Entry {
    Group elements;
    Snapshot snapshot;  // null until read after a change
  };

  static Snapshot empty() {
    static const Snapshot none = std::make_shared<const Group>();
    return none;
  }

  using Entries = std::unordered_map<std::string, Entry>;

  mutable std::shared_mutex mutex_;
  // Made at the first element: many owners never file one.
  std::unique_ptr<Entries> entries_;
};

}  // namespace vantor::realtime
