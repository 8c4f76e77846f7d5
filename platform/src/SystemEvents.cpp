#include "vantor/platform/SystemEvents.hpp"

#include <poll.h>
#include <time.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cmath>
#include <cstring>
#include <unistd.h>

#include "vantor/platform/EventLoop.hpp"

#ifdef VANTOR_HAVE_SD_BUS
#include <systemd/sd-bus.h>
#endif

namespace vantor::platform {

namespace asio = boost::asio;

namespace {

// NetworkManager's NMConnectivityState values that matter here.
constexpr std::uint32_t connectivityNone = 1;
constexpr std::uint32_t connectivityFull = 4;

std::chrono::nanoseconds clockNow(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

constexpr const char* noSleepWatch = "a resume from sleep is noticed by the clocks at the next heartbeat";

}  // namespace

#ifdef VANTOR_HAVE_SD_BUS

// The system bus, read on the main loop: sd-bus's descriptor and time-out
// are waited for with Asio, and every wake-up runs sd-bus's queue dry.
class SystemEvents::Bus : public std::enable_shared_from_this<Bus> {
 public:
  Bus(SystemEvents& owner, sd_bus* bus)
      : owner_(owner), bus_(bus), descriptor_(EventLoop::main().context()), timer_(EventLoop::main().context()) {}
  ~Bus() { sd_bus_flush_close_unref(bus_); }
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  // Connects and asks for what is watched; the answers come on the loop.
  static std::shared_ptr<Bus> open(SystemEvents& owner, std::string& why) {
    sd_bus* bus = nullptr;
    if (const int r = sd_bus_open_system(&bus); r < 0) {
      why = "no system bus (" + std::string(std::strerror(-r)) + ")";
      return nullptr;
    }
    auto self = std::make_shared<Bus>(owner, bus);
    const int descriptor = ::dup(sd_bus_get_fd(bus));
    boost::system::error_code error;
    self->descriptor_.assign(descriptor, error);
    if (descriptor < 0 || error) {
      why = "the system bus cannot be watched";
      return nullptr;
    }
    const char* nm = "org.freedesktop.NetworkManager";
    const char* nmPath = "/org/freedesktop/NetworkManager";
    int r = sd_bus_match_signal_async(bus, nullptr, "org.freedesktop.login1", "/org/freedesktop/login1",
                                      "org.freedesktop.login1.Manager", "PrepareForSleep", &Bus::onPrepareForSleep,
                                      nullptr, self.get());
    if (r >= 0) {
      r = sd_bus_match_signal_async(bus, nullptr, nm, nmPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                    &Bus::onPropertiesChanged, nullptr, self.get());
    }
    if (r >= 0) {
      // Older NetworkManager, and its test double, signal on its own interface.
      r = sd_bus_match_signal_async(bus, nullptr, nm, nmPath, nm, "PropertiesChanged", &Bus::onOwnPropertiesChanged,
                                    nullptr, self.get());
    }
    if (r >= 0) {
      // NetworkManager stopping or crashing while it reports no connectivity
      // must not pause reconnects until it comes back.
      r = sd_bus_add_match_async(bus, nullptr,
                                 "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                 "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                                 "arg0='org.freedesktop.NetworkManager'",
                                 &Bus::onNetworkManagerOwner, nullptr, self.get());
    }
    if (r >= 0) {
      r = sd_bus_call_method_async(bus, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "NameHasOwner", &Bus::onLogindOwner, self.get(), "s",
                                   "org.freedesktop.login1");
    }
    if (r >= 0) {
      r = sd_bus_call_method_async(bus, nullptr, nm, nmPath, "org.freedesktop.DBus.Properties", "GetAll",
                                   &Bus::onNetworkManagerState, self.get(), "s", nm);
    }
    if (r < 0) {
      why = "the system bus refused the watch (" + std::string(std::strerror(-r)) + ")";
      return nullptr;
    }
    self->process();
    return self;
  }

 private:
  void process() {
    int r = 0;
    while ((r = sd_bus_process(bus_, nullptr)) > 0) {
    }
    if (r < 0) {
      return lost(r);
    }
    watch();
  }

  void watch() {
    const int events = sd_bus_get_events(bus_);
    if (events < 0) {
      return lost(events);
    }
    if ((events & POLLIN) != 0) {
      waitFor(asio::posix::descriptor_base::wait_read, &Bus::reading_);
    }
    if ((events & POLLOUT) != 0) {
      waitFor(asio::posix::descriptor_base::wait_write, &Bus::writing_);
    }
    auto weak = weak_from_this();
    std::uint64_t until = 0;
    if (sd_bus_get_timeout(bus_, &until) >= 0 && until != UINT64_MAX) {
      // sd-bus counts in CLOCK_MONOTONIC microseconds, as steady_clock does here.
      timer_.expires_at(std::chrono::steady_clock::time_point(std::chrono::microseconds(until)));
      timer_.async_wait([weak](boost::system::error_code error) {
        if (auto self = weak.lock(); self && !error) {
          self->process();
        }
      });
    }
  }

  // One wait on the descriptor for `kind`, unless one is out (`waiting`).
  void waitFor(asio::posix::descriptor_base::wait_type kind, bool Bus::*waiting) {
    if (this->*waiting) {
      return;
    }
    this->*waiting = true;
    descriptor_.async_wait(kind, [weak = weak_from_this(), waiting](boost::system::error_code error) {
      if (auto self = weak.lock()) {
        self.get()->*waiting = false;
        if (!error) {
          self->process();
        }
      }
    });
  }

  // The bus went away (its daemon stopped): back to what works without it.
  void lost(int error) {
    boost::system::error_code ignored;
    descriptor_.cancel(ignored);
    timer_.cancel();
    owner_.watchesSleep_ = false;
    owner_.publish({Kind::unavailable, "lost the system bus (" + std::string(std::strerror(-error)) + "): " + noSleepWatch});
    owner_.forgetNetworkState("lost the system bus");
    EventLoop::main().post([keep = shared_from_this(), &owner = owner_] { owner.bus_.reset(); });
  }

  static Bus& of(void* userdata) { return *static_cast<Bus*>(userdata); }

  static int onPrepareForSleep(sd_bus_message* message, void* userdata, sd_bus_error*) {
    int sleeping = 0;
    if (sd_bus_message_read(message, "b", &sleeping) >= 0 && sleeping == 0) {
      of(userdata).owner_.publish({Kind::resumed, "logind"});
    }
    return 0;
  }

  static int onLogindOwner(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    int owned = 0;
    auto& owner = of(userdata).owner_;
    if (!sd_bus_message_is_method_error(reply, nullptr) && sd_bus_message_read(reply, "b", &owned) >= 0 && owned != 0) {
      owner.watchesSleep_ = true;
    } else {
      owner.publish({Kind::unavailable, std::string("no logind on the system bus: ") + noSleepWatch});
    }
    return 0;
  }

  static int onNetworkManagerState(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto& self = of(userdata);
    if (sd_bus_message_is_method_error(reply, nullptr)) {
      self.owner_.publish({Kind::unavailable, "no NetworkManager on the system bus: network changes are not watched"});
      return 0;
    }
    self.readProperties(reply);
    return 0;
  }

  // NetworkManager left the bus, or came (back): then its state is read again.
  static int onNetworkManagerOwner(sd_bus_message* message, void* userdata, sd_bus_error*) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &after) < 0 || after == nullptr) {
      return 0;
    }
    auto& self = of(userdata);
    if (after[0] == '\0') {
      self.owner_.forgetNetworkState("NetworkManager left the bus");
    } else {
      sd_bus_call_method_async(self.bus_, nullptr, "org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager",
                               "org.freedesktop.DBus.Properties", "GetAll", &Bus::onNetworkManagerState, &self, "s",
                               "org.freedesktop.NetworkManager");
    }
    return 0;
  }

  static int onPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    const char* interface = nullptr;
    if (sd_bus_message_read(message, "s", &interface) >= 0 && interface != nullptr &&
        std::strcmp(interface, "org.freedesktop.NetworkManager") == 0) {
      of(userdata).readProperties(message);
    }
    return 0;
  }

  static int onOwnPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    of(userdata).readProperties(message);
    return 0;
  }

  // Takes Connectivity and PrimaryConnection from an a{sv}.
  void readProperties(sd_bus_message* message) {
    if (sd_bus_message_enter_container(message, 'a', "{sv}") <= 0) {
      return;
    }
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
      const char* name = nullptr;
      if (sd_bus_message_read(message, "s", &name) < 0) {
        return;
      }
      char type = 0;
      const char* contents = nullptr;
      sd_bus_message_peek_type(message, &type, &contents);
      if (std::strcmp(name, "Connectivity") == 0 && contents != nullptr && std::strcmp(contents, "u") == 0) {
        std::uint32_t value = 0;
        if (sd_bus_message_read(message, "v", "u", &value) >= 0) {
          owner_.setConnectivity(value);
        }
      } else if (std::strcmp(name, "PrimaryConnection") == 0 && contents != nullptr && std::strcmp(contents, "o") == 0) {
        const char* path = nullptr;
        if (sd_bus_message_read(message, "v", "o", &path) >= 0 && path != nullptr) {
          owner_.setPrimaryConnection(path);
        }
      } else if (sd_bus_message_skip(message, "v") < 0) {
        return;
      }
      sd_bus_message_exit_container(message);
    }
    sd_bus_message_exit_container(message);
    owner_.networkKnown_ = true;
  }

  SystemEvents& owner_;
  sd_bus* bus_;
  asio::posix::stream_descriptor descriptor_;
  asio::steady_timer timer_;
  bool reading_ = false;
  bool writing_ = false;
};

#else

class SystemEvents::Bus {
 public:
  static std::shared_ptr<Bus> open(SystemEvents&, std::string& why) {
    why = "built without D-Bus (sd-bus)";
    return nullptr;
  }
};

#endif

SystemEvents& SystemEvents::shared() {
  // Never destroyed: sockets may still tick while the process exits.
  static SystemEvents* const instance = new SystemEvents();
  return *instance;
}

SystemEvents::SystemEvents()
    : clocks_{[] { return clockNow(CLOCK_BOOTTIME); }, [] { return clockNow(CLOCK_MONOTONIC); }} {}

void SystemEvents::start() {
  std::call_once(started_, [this] {
    EventLoop::main().post([this] {
      std::string why;
      bus_ = Bus::open(*this, why);
      if (!bus_) {
        publish({Kind::unavailable, why + ": " + noSleepWatch + ", network changes are not watched"});
      }
    });
  });
}

void SystemEvents::subscribe(Subscriber subscriber) {
  std::lock_guard lock(mutex_);
  subscribers_.push_back(std::move(subscriber));
}

void SystemEvents::publish(const Event& event) {
  EventLoop::main().dispatch([this, event] {
    std::vector<Subscriber> current;
    {
      std::lock_guard lock(mutex_);
      current = subscribers_;
    }
    std::vector<bool> gone(current.size());
    for (std::size_t i = 0; i < current.size(); ++i) {
      gone[i] = !current[i](event);
    }
    // Subscribers are only ever appended, so the first `current.size()`
    // entries are the ones just called.
    std::lock_guard lock(mutex_);
    for (std::size_t i = current.size(); i-- > 0;) {
      if (gone[i]) {
        subscribers_.erase(subscribers_.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
  });
}

void SystemEvents::setConnectivity(std::uint32_t connectivity) {
  const bool wasOffline = connectivity_ == connectivityNone;
  const bool wasFull = connectivity_ == connectivityFull;
  const bool known = networkKnown_;
  connectivity_ = connectivity;
  offline_ = connectivity == connectivityNone;
  if (connectivity == connectivityNone && !wasOffline) {
    publish({Kind::offline, "NetworkManager reports no connectivity"});
  } else if (connectivity != connectivityNone && wasOffline) {
    publish({Kind::online, "NetworkManager reports connectivity again"});
  } else if (connectivity == connectivityFull && !wasFull && known) {
    publish({Kind::networkChanged, "full connectivity"});
  }
}

void SystemEvents::forgetNetworkState(const std::string& why) {
  const bool wasOffline = connectivity_ == connectivityNone;
  connectivity_ = 0;
  primaryConnection_.clear();
  networkKnown_ = false;
  offline_ = false;
  if (wasOffline) {
    publish({Kind::online, why});
  }
}

void SystemEvents::setPrimaryConnection(const std::string& path) {
  const bool changed = path != primaryConnection_;
  primaryConnection_ = path;
  if (changed && networkKnown_ && path != "/") {
    publish({Kind::networkChanged, "another primary connection"});
  }
}

void SystemEvents::heartbeatTick() {
  Clocks clocks;
  {
    std::lock_guard lock(mutex_);
    clocks = clocks_;
  }
  const auto boottime = clocks.boottime();
  const auto monotonic = clocks.monotonic();
  std::chrono::nanoseconds slept{0};
  {
    std::lock_guard lock(mutex_);
    if (lastBoottime_.count() >= 0) {
      slept = (boottime - lastBoottime_) - (monotonic - lastMonotonic_);
    }
    lastBoottime_ = boottime;
    lastMonotonic_ = monotonic;
  }
  if (slept > clockJumpThreshold && !watchesSleep_) {
    publish({Kind::resumed, "the boot-time clock ran " +
                             std::to_string(std::chrono::duration_cast<std::chrono::seconds>(slept).count()) +
                             " s ahead"});
  }
}

void SystemEvents::setClocks(Clocks clocks) {
  std::lock_guard lock(mutex_);
  clocks_ = std::move(clocks);
  lastBoottime_ = std::chrono::nanoseconds(-1);
  lastMonotonic_ = std::chrono::nanoseconds(-1);
}

}  // namespace vantor::platform
