#include "vantor/realtime/ChannelBindings.hpp"

#include <charconv>

namespace vantor::realtime {

std::optional<std::uint64_t> ChannelBindings::replyNumber(std::string_view event) {
  constexpr std::string_view prefix = "chan_reply_";
  if (!event.starts_with(prefix)) {
    return std::nullopt;
  }
  const auto digits = event.substr(prefix.size());
  if (digits.empty() || (digits.size() > 1 && digits.front() == '0')) {
    return std::nullopt;
  }
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc{} || end != digits.data() + digits.size()) {
    return std::nullopt;
  }
  return number;
}

ChannelBindings::Indexes& ChannelBindings::indexes() {
  if (!indexes_) {
    indexes_ = std::make_unique<Indexes>();
  }
  return *indexes_;
}

void ChannelBindings::releaseIfEmpty() {
  if (indexes_ && indexes_->named.empty() && indexes_->replies.empty()) {
    // Most channels wait for no reply most of the time.
    indexes_.reset();
  }
}

void ChannelBindings::append(Binding binding) {
  if (const auto number = replyNumber(binding.event)) {
    appendReply(*number, binding.ref, std::move(binding.callback));
    return;
  }
  std::lock_guard lock(mutex_);
  auto& entry = indexes().named[binding.event];
  entry.bindings.push_back(std::move(binding));
  entry.snapshot.reset();
}

void ChannelBindings::appendReply(std::uint64_t number, std::int64_t ref, Callback callback) {
  std::lock_guard lock(mutex_);
  auto [entry, added] = indexes().replies.try_emplace(number, ref, std::move(callback));
  if (!added) {
    auto& more = entry->second.more;
    if (!more) {
      more = std::make_unique<std::vector<std::pair<std::int64_t, Callback>>>();
    }
    more->emplace_back(ref, std::move(callback));
  }
}

void ChannelBindings::remove(const std::string& event, std::optional<std::int64_t> ref) {
  if (const auto number = replyNumber(event)) {
    removeReply(*number, ref);
    return;
  }
  std::lock_guard lock(mutex_);
  if (!indexes_) {
    return;
  }
  auto& named = indexes_->named;
  auto found = named.find(event);
  if (found == named.end()) {
    return;
  }
  auto& bindings = found->second.bindings;
  if (std::erase_if(bindings, [&](const Binding& binding) { return !ref || binding.ref == *ref; }) == 0) {
    return;
  }
  if (!bindings.empty()) {
    found->second.snapshot.reset();
    return;
  }
  named.erase(found);
  releaseIfEmpty();
}

void ChannelBindings::removeReply(std::uint64_t number, std::optional<std::int64_t> ref) {
  std::lock_guard lock(mutex_);
  if (!indexes_) {
    return;
  }
  auto& replies = indexes_->replies;
  auto found = replies.find(number);
  if (found == replies.end()) {
    return;
  }
  auto& entry = found->second;
  if (ref) {
    if (entry.more) {
      std::erase_if(*entry.more, [&](const auto& binding) { return binding.first == *ref; });
    }
    if (entry.ref != *ref) {
      return;
    }
    if (entry.more && !entry.more->empty()) {
      std::tie(entry.ref, entry.callback) = std::move(entry.more->front());
      entry.more->erase(entry.more->begin());
      return;
    }
  }
  replies.erase(found);
  releaseIfEmpty();
}

ChannelBindings::Snapshot ChannelBindings::group(const std::string& event) const {
  static const Snapshot none = std::make_shared<const std::vector<Binding>>();
  std::lock_guard lock(mutex_);
  if (!indexes_) {
    return none;
  }
  auto found = indexes_->named.find(event);
  if (found == indexes_->named.end()) {
    return none;
  }
  if (!found->second.snapshot) {
    found->second.snapshot = std::make_shared<const std::vector<Binding>>(found->second.bindings);
  }
  return found->second.snapshot;
}

ChannelBindings::ReplySnapshot ChannelBindings::replyGroup(std::uint64_t number) const {
  ReplySnapshot callbacks;
  std::lock_guard lock(mutex_);
  if (!indexes_) {
    return callbacks;
  }
  auto found = indexes_->replies.find(number);
  if (found == indexes_->replies.end()) {
    return callbacks;
  }
  callbacks.push_back(found->second.callback);
  if (found->second.more) {
    for (const auto& binding : *found->second.more) {
      callbacks.push_back(binding.second);
    }
  }
  return callbacks;
}

std::size_t ChannelBindings::size() const {
  std::lock_guard lock(mutex_);
  std::size_t count = 0;
  if (indexes_) {
    for (const auto& [event, entry] : indexes_->named) {
      count += entry.bindings.size();
    }
    for (const auto& [number, entry] : indexes_->replies) {
      count += 1 + (entry.more ? entry.more->size() : 0);
    }
  }
  return count;
}

}  // namespace vantor::realtime
