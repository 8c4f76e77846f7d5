#pragma once

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

namespace vantor::realtime {

/// An array guarded by a reader-writer lock. Readers get snapshot copies
/// (`filter`), so what they found can be used without holding the lock.
/// Writes are applied in the order they are made, and a thread always sees
/// its own earlier writes.
///
/// Writers hold the lock only for the change itself: a few element moves,
/// never a callback. Predicates run under the lock and must not touch the
/// same array.
///
/// Thread safety: every member may be called from any thread.
template <class Element>
class SynchronizedArray {
 public:
  void append(Element element) {
    std::unique_lock lock(mutex_);
    array_.push_back(std::move(element));
  }

  /// Removes every element for which `where` is true, keeping the order of
  /// the rest.
  template <class Predicate>
  void removeAll(Predicate where) {
    std::unique_lock lock(mutex_);
    std::erase_if(array_, where);
  }

  /// A copy of the elements for which `isIncluded` is true, in order.
  template <class Predicate>
  [[nodiscard]] std::vector<Element> filter(Predicate isIncluded) const {
    std::shared_lock lock(mutex_);
    std::vector<Element> result;
    std::copy_if(array_.begin(), array_.end(), std::back_inserter(result), isIncluded);
    return result;
  }

 private:
  mutable std::shared_mutex mutex_;
  std::vector<Element> array_;
};

}  // namespace vantor::realtime
