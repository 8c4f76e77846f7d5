#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::platform {

/// What the desktop says about sleep and the network, for the connections
/// that depend on them. It watches, on the system bus:
/// - logind (`org.freedesktop.login1.Manager.PrepareForSleep(false)`): the
///   machine resumed from sleep;
/// - NetworkManager's `Connectivity` and `PrimaryConnection`: no
///   connectivity (offline), connectivity back (online), full connectivity
///   reached or another primary connection (the network changed).
///
/// The system bus is the one `DBUS_SYSTEM_BUS_ADDRESS` names, when set.
/// Without a bus, or without logind on it, a resume is noticed instead by
/// the boot-time clock running ahead of the monotonic one (which stops
/// during sleep), checked at every heartbeat of a socket (`heartbeatTick`).
/// Without NetworkManager there are no network events. Neither is an error.
///
/// Watching starts with `start()`, which sockets call at their first
/// connect; the bus is read on the main event loop, without blocking it.
///
/// Thread safety: every member may be called from any thread. Subscribers
/// are called on the main event loop.
class SystemEvents {
 public:
  enum class Kind {
    resumed,         ///< the machine woke from sleep
    offline,         ///< NetworkManager reports no connectivity
    online,          ///< connectivity is back after `offline`
    networkChanged,  ///< full connectivity reached, or another primary connection
    unavailable,     ///< what is not watched, and why (`detail`); once, after `start()`
  };
  struct Event {
    Kind kind;
    std::string detail;
  };
  /// Answers false once the subscriber is gone; it is then dropped.
  using Subscriber = std::function<bool(const Event&)>;

  /// The two clocks compared for the fallback, as durations since an
  /// arbitrary start: CLOCK_BOOTTIME and CLOCK_MONOTONIC by default.
  struct Clocks {
    std::function<std::chrono::nanoseconds()> boottime;
    std::function<std::chrono::nanoseconds()> monotonic;
  };

  /// A sleep shorter than this is not told from a late heartbeat.
  static constexpr std::chrono::seconds clockJumpThreshold{5};

  static SystemEvents& shared();

  /// Starts watching; later calls do nothing.
  void start();
  void subscribe(Subscriber subscriber);
  /// True while NetworkManager reports no connectivity.
  [[nodiscard]] bool isOffline() const noexcept { return offline_.load(); }
  /// True once logind is watched on the system bus.
  [[nodiscard]] bool watchesSleep() const noexcept { return watchesSleep_.load(); }

  /// Compares the clocks since the last tick and reports `resumed` when the
  /// boot-time clock ran ahead by more than `clockJumpThreshold`, unless
  /// logind is watched. Sockets call it at each heartbeat.
  void heartbeatTick();
  /// Replaces the clocks, for tests; the next tick starts afresh.
  void setClocks(Clocks clocks);

  SystemEvents(const SystemEvents&) = delete;
  SystemEvents& operator=(const SystemEvents&) = delete;

 private:
  class Bus;
  SystemEvents();
  ~SystemEvents() = default;
  void publish(const Event& event);
  void setConnectivity(std::uint32_t connectivity);
  // NetworkManager's reports no longer hold (it left the bus, or the bus
  // went): a pause for "offline" ends, with `why` as the cause.
  void forgetNetworkState(const std::string& why);
  void setPrimaryConnection(const std::string& path);

  std::mutex mutex_;
  std::vector<Subscriber> subscribers_;
  Clocks clocks_;
  std::chrono::nanoseconds lastBoottime_{-1};
  std::chrono::nanoseconds lastMonotonic_{-1};
  std::once_flag started_;
  std::shared_ptr<Bus> bus_;  // on the loop
  std::atomic<bool> offline_{false};
  std::atomic<bool> watchesSleep_{false};
  // On the loop: NetworkManager's last values (connectivity 0 is unknown).
  std::uint32_t connectivity_ = 0;
  std::string primaryConnection_;
  bool networkKnown_ = false;  // NetworkManager's state has been read once
};

}  // namespace vantor::platform
