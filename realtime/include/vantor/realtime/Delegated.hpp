#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

namespace vantor::realtime {

namespace detail {

template <class Output>
using StoredOutput = std::conditional_t<std::is_void_v<Output>, std::monostate, Output>;

template <class Output, class... Args>
class DelegatedBase {
 public:
  /// What `call` gives: nothing for a void `Output`, otherwise the output or
  /// "no result" when no callback ran.
  using Result = std::conditional_t<std::is_void_v<Output>, void, std::optional<Output>>;

  /// Stores `callback(owner&, args...)`, holding `owner` weakly. While the
  /// callback runs the owner is held strongly; once the owner is gone a call
  /// does nothing and gives no result.
  template <class Owner, class F>
  void delegate(const std::shared_ptr<Owner>& owner, F callback) {
    store(Weak<Owner, F>{std::weak_ptr<Owner>(owner), std::move(callback)});
  }

  /// As `delegate`, but holds `owner` strongly for as long as the callback
  /// is stored; the callback always runs.
  template <class Owner, class F>
  void stronglyDelegate(std::shared_ptr<Owner> owner, F callback) {
    store(Strong<Owner, F>{std::move(owner), std::move(callback)});
  }

  /// Stores `callback(args...)` as it is, with no owner.
  template <class F>
  void manuallyDelegate(F callback) {
    store(Plain<F>{std::move(callback)});
  }

  /// Drops the stored callback and whatever it captured.
  void removeDelegate() noexcept { callback_.reset(); }

  /// True while a callback is stored, whether or not its owner is alive.
  [[nodiscard]] bool isDelegateSet() const noexcept { return callback_ != nullptr; }

  /// Calls the stored callback; does nothing when none is stored or its
  /// weakly held owner is gone.
  Result call(Args... args) const {
    // Held for the call, so a callback that replaces or removes itself does
    // not destroy the closure that is running.
    const auto callback = callback_;
    if constexpr (std::is_void_v<Output>) {
      if (callback) {
        (*callback)(args...);
      }
    } else {
      if (!callback) {
        return std::nullopt;
      }
      return (*callback)(args...);
    }
  }

 private:
  using Stored = std::optional<StoredOutput<Output>>;

  // The closure and its owner live in one allocation with the shared count:
  // a binding costs one block, not one for a std::function and another for
  // what it captured.
  struct Function {
    Function() = default;
    Function(const Function&) = delete;
    Function& operator=(const Function&) = delete;
    virtual ~Function() = default;
    virtual Stored operator()(Args... args) const = 0;
  };

  template <class Closure>
  struct Holder final : Function {
    explicit Holder(Closure closure) : closure(std::move(closure)) {}
    Stored operator()(Args... args) const override { return closure(args...); }
    Closure closure;
  };

  template <class Owner, class F>
  struct Weak {
    std::weak_ptr<Owner> owner;
    [[no_unique_address]] mutable F callback;  // most are captureless
    Stored operator()(Args... args) const {
      auto strongOwner = owner.lock();
      if (!strongOwner) {
        return std::nullopt;
      }
      return invoke(callback, *strongOwner, args...);
    }
  };

  template <class Owner, class F>
  struct Strong {
    std::shared_ptr<Owner> owner;
    [[no_unique_address]] mutable F callback;
    Stored operator()(Args... args) const { return invoke(callback, *owner, args...); }
  };

  template <class F>
  struct Plain {
    [[no_unique_address]] mutable F callback;
    Stored operator()(Args... args) const { return invoke(callback, args...); }
  };

  template <class F, class... CallArgs>
  static Stored invoke(F& callback, CallArgs&&... args) {
    if constexpr (std::is_void_v<Output>) {
      std::invoke(callback, std::forward<CallArgs>(args)...);
      return std::monostate{};
    } else {
      return std::invoke(callback, std::forward<CallArgs>(args)...);
    }
  }

  template <class Closure>
  void store(Closure closure) {
    // Shared, so that copies of a Delegated call the same closure.
    callback_ = std::make_shared<const Holder<Closure>>(std::move(closure));
  }

  std::shared_ptr<const Function> callback_;
};

}  // namespace detail

/// A holder of one optional callback from `Input` to `Output` that can call
/// back to an owner held weakly (`delegate`), strongly (`stronglyDelegate`)
/// or to no owner (`manuallyDelegate`). Callback slots that point back to an
/// object's owner are `Delegated`, so that no callback keeps its owner alive.
///
/// `Input` and `Output` may be `void`. Callbacks with an owner take the owner
/// by reference first: `callback(Owner&, const Input&)`.
///
/// Thread safety: a value type with no synchronisation of its own; the rules
/// of the object that stores it apply. Loading the weak owner is atomic with
/// respect to the owner's destruction.
template <class Input, class Output>
class Delegated : public detail::DelegatedBase<Output, const Input&> {};

template <class Output>
class Delegated<void, Output> : public detail::DelegatedBase<Output> {};

}  // namespace vantor::realtime
