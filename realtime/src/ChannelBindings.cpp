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

void ChannelBindings::append(Binding binding) {
  const auto number = replyNumber(binding.event);
  std::unique_lock lock(mutex_);
  if (number) {
    if (!replies_) {
      replies_ = std::make_unique<ReplyIndex>();
    }
    auto [entry, added] = replies_->try_emplace(*number, binding.ref, std::move(binding.callback));
    if (!added) {
      auto& more = entry->second.more;
      if (!more) {
        more = std::make_unique<std::vector<std::pair<int, Callback>>>();
      }
      more->emplace_back(binding.ref, std::move(binding.callback));
    }
    return;
  }
  if (!named_) {
    named_ = std::make_unique<NamedIndex>();
  }
  auto& entry = (*named_)[binding.event];
  entry.bindings.push_back(std::move(binding));
  entry.snapshot.reset();
}

void ChannelBindings::remove(const std::string& event, std::optional<int> ref) {
  if (const auto number = replyNumber(event)) {
    removeReply(*number, ref);
    return;
  }
  std::unique_lock lock(mutex_);
  if (!named_) {
    return;
  }
  auto found = named_->find(event);
  if (found == named_->end()) {
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
  named_->erase(found);
  if (named_->empty()) {
    named_.reset();
  }
}

void ChannelBindings::removeReply(std::uint64_t number, std::optional<int> ref) {
  std::unique_lock lock(mutex_);
  if (!replies_) {
    return;
  }
  auto found = replies_->find(number);
  if (found == replies_->end()) {
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
  replies_->erase(found);
  if (replies_->empty()) {
    // Most channels wait for no reply most of the time.
    replies_.reset();
  }
}

ChannelBindings::Snapshot ChannelBindings::group(const std::string& event) const {
  static const Snapshot none = std::make_shared<const std::vector<Binding>>();
  {
    std::shared_lock lock(mutex_);
    if (!named_) {
      return none;
    }
    auto found = named_->find(event);
    if (found == named_->end()) {
      return none;
    }
    if (found->second.snapshot) {
      return found->second.snapshot;
    }
  }
  std::unique_lock lock(mutex_);
  if (!named_) {
    return none;
  }
  auto found = named_->find(event);
  if (found == named_->end()) {
    return none;
  }
  if (!found->second.snapshot) {
    found->second.snapshot = std::make_shared<const std::vector<Binding>>(found->second.bindings);
  }
  return found->second.snapshot;
}

ChannelBindings::ReplySnapshot ChannelBindings::replyGroup(std::uint64_t number) const {
  ReplySnapshot callbacks;
  std::shared_lock lock(mutex_);
  if (!replies_) {
    return callbacks;
  }
  auto found = replies_->find(number);
  if (found == replies_->end()) {
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
  std::shared_lock lock(mutex_);
  std::size_t count = 0;
  if (named_) {
    for (const auto& [event, entry] : *named_) {
      count += entry.bindings.size();
    }
  }
  if (replies_) {
    for (const auto& [number, entry] : *replies_) {
      count += 1 + (entry.more ? entry.more->size() : 0);
    }
  }
  return count;
}

}  // namespace vantor::realtime
