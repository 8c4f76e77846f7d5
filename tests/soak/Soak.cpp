// Soak: one socket with many joined channels through a long series of forced
// connection faults (in turn: a reset, a freeze only the heartbeat notices, a
// server close with 1012, a server frame cut in the middle), through the
// fault proxy and the bundled server, while an application thread keeps
// pushing. Every push must get exactly one outcome; a push made while its
// channel was errored must reach the server exactly once, after the rejoin,
// and be answered "ok"; at the end every channel is joined with its bindings
// at their count after the first join, and memory and file descriptors have
// not grown since the tenth of the run. RELIABILITY.md has the details.
//
//   vantor-soak [--cycles N] [--channels N]
//
// Prints its figures, the last lines machine-readable, and exits 1 when one
// falls short. extra_closes counts closes beyond one per fault.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "../realtime/support/Eventually.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"
#include "vantor/testing/FaultProxy.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;  // the sanitizers' own heaps grow by design
#else
constexpr bool sanitized = false;
#endif

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using vantor::platform::EventLoop;
using vantor::realtime::Channel;
using vantor::realtime::Message;
using vantor::realtime::PhoenixTransport;
using vantor::realtime::Socket;
using vantor::realtime::URLSessionConfiguration;
using vantor::realtime::URLSessionTransport;
using vantor::realtime::testing::eventually;
using vantor::testing::FaultProxy;
using vantor::testing::PhoenixTestServer;

// A busy machine stalls the loop or the server for more than 0.1 s now and
// then (a sanitizer's more often, and longer): a heartbeat that short adds
// faults of its own, which cut off pushes the run counts on.
constexpr double heartbeatInterval = sanitized ? 0.5 : 0.25;
constexpr auto pushTimeout = 5s;
// A push has its outcome within its time-out; after this long it is judged.
constexpr auto judgeAfter = 7s;
constexpr auto recoveryLimit = 15s;
// Memory is compared only once the pushes in flight have reached their
// steady number (a push time-out and the judging delay), in runs this long.
constexpr auto warmUp = judgeAfter + 3s;
constexpr int cyclesToJudgeMemory = 200;

enum class Fault { reset, freeze, close1012, cut };
constexpr Fault faults[] = {Fault::reset, Fault::freeze, Fault::close1012, Fault::cut};
constexpr const char* faultNames[] = {"reset", "freeze", "close 1012", "cut frame"};

struct Figures {
  long pushes = 0, pushesWhileErrored = 0;
  long ok = 0, errors = 0, timeouts = 0;
  long withoutOutcome = 0, withSeveralOutcomes = 0, outcomesAfterJudging = 0;
  long erroredNotDeliveredOnce = 0, erroredNotAnsweredOk = 0;
  long deliveredTwice = 0, deliveriesAfterJudging = 0;
};

enum class Outcome { ok, error, timeout };

// Every push from the moment it is made until it is judged. The pusher opens
// records, the loop thread adds outcomes, the main thread adds the server's
// deliveries and judges.
class Ledger {
 public:
  long open(bool whileErrored) {
    std::lock_guard lock(mutex_);
    records_.emplace(nextId_, Record{Clock::now(), whileErrored});
    ++figures_.pushes;
    figures_.pushesWhileErrored += whileErrored ? 1 : 0;
    return nextId_++;
  }

  void outcome(long id, Outcome outcome) {
    std::lock_guard lock(mutex_);
    auto found = records_.find(id);
    if (found == records_.end()) {
      ++figures_.outcomesAfterJudging;
      return;
    }
    ++found->second.outcomes;
    found->second.ok += outcome == Outcome::ok ? 1 : 0;
    ++(outcome == Outcome::ok ? figures_.ok : outcome == Outcome::error ? figures_.errors : figures_.timeouts);
    changed_.notify_all();
  }

  void delivered(long id) {
    std::lock_guard lock(mutex_);
    auto found = records_.find(id);
    if (found == records_.end()) {
      ++figures_.deliveriesAfterJudging;
    } else {
      ++found->second.deliveries;
    }
  }

  // Waits until every push (or every one made while errored) has an outcome.
  bool waitForOutcomes(bool onlyWhileErrored, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      return std::none_of(records_.begin(), records_.end(), [&](const auto& entry) {
        return (entry.second.whileErrored || !onlyWhileErrored) && entry.second.outcomes == 0;
      });
    });
  }

  // Judges and forgets the pushes made before `before`.
  void judge(Clock::time_point before) {
    std::lock_guard lock(mutex_);
    std::erase_if(records_, [&](const auto& entry) {
      const auto& record = entry.second;
      if (record.made >= before) {
        return false;
      }
      figures_.withoutOutcome += record.outcomes == 0 ? 1 : 0;
      figures_.withSeveralOutcomes += record.outcomes > 1 ? 1 : 0;
      figures_.deliveredTwice += record.deliveries > 1 ? 1 : 0;
      if (record.whileErrored) {
        figures_.erroredNotDeliveredOnce += record.deliveries != 1 ? 1 : 0;
        figures_.erroredNotAnsweredOk += record.ok != 1 ? 1 : 0;
      }
      return true;
    });
  }

  Figures figures() const {
    std::lock_guard lock(mutex_);
    return figures_;
  }

 private:
  struct Record {
    Clock::time_point made;
    bool whileErrored = false;
    int outcomes = 0;
    int ok = 0;
    int deliveries = 0;
  };

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::unordered_map<long, Record> records_;
  long nextId_ = 0;
  Figures figures_;
};

struct Sample {
  long residentKiB = 0;
  long heapKiB = 0;
  long fds = 0;

  static Sample now() {
    std::ifstream statm("/proc/self/statm");
    long size = 0;
    long resident = 0;
    statm >> size >> resident;
    const auto info = mallinfo2();
    return {resident * (sysconf(_SC_PAGESIZE) / 1024), static_cast<long>((info.uordblks + info.hblkhd) / 1024),
            std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                          std::filesystem::directory_iterator{})};
  }
};

double percentGrowth(long from, long to) {
  return from == 0 ? 0.0 : 100.0 * static_cast<double>(to - from) / static_cast<double>(from);
}

int parseCount(const char* text, const char* what) {
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (*end != '\0' || value < 1 || value > 1'000'000) {
    std::cerr << "vantor-soak: " << what << " must be a positive count, got " << text << "\n";
    std::exit(2);
  }
  return static_cast<int>(value);
}

class Soak {
 public:
  Soak(int cycles, int channelCount) : cycles_(cycles) {
    URLSessionConfiguration configuration;
    configuration.handshakeTimeout = 1s;
    configuration.closeTimeout = 200ms;
    // Only the fault proxy stands between the socket and its loopback server.
    configuration.proxy = vantor::platform::ProxySettings::none();
    socket_ = Socket::make(proxy_.url("/socket"),
                           [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
                             return URLSessionTransport::make(url, configuration);
                           });
    socket_->setHeartbeatInterval(heartbeatInterval);
    socket_->setReconnectAfter([](int) { return 0.02; });
    socket_->setRejoinAfter([](int) { return 0.02; });
    socket_->onOpen([this] { ++opens_; });
    socket_->onClose([this] { ++closes_; });
    for (int i = 0; i < channelCount; ++i) {
      channels_.push_back(socket_->channel("soak:" + std::to_string(i)));
      channels_.back()->join();
    }
  }

  ~Soak() {
    pusher_ = {};
    socket_->releaseCallbacks();
    socket_->disconnect();
  }

  // Runs the soak; true when every figure holds.
  bool run() {
    started_ = Clock::now();
    socket_->connect();
    if (!eventually([&] { return allJoined(); }, recoveryLimit)) {
      std::cout << "the channels never joined\n";
      return false;
    }
    for (const auto& channel : channels_) {
      baselineBindings_.push_back(channel->bindingCount());
    }
    pusher_ = std::jthread([this](std::stop_token stop) { pushUntil(stop); });

    for (int cycle = 1; cycle <= cycles_; ++cycle) {
      const auto fault = static_cast<std::size_t>(cycle - 1) % std::size(faults);
      cyclesRun_ = cycle;
      if (!runCycle(faults[fault])) {
        std::cout << "cycle " << cycle << " (" << faultNames[fault] << "): no recovery within "
                  << recoveryLimit.count() << " s; " << joinedCount() << " of " << channels_.size()
                  << " channels joined\n";
        failedCycle_ = cycle;
        break;
      }
      if (cycle == sampleCycle() && judgesMemory()) {
        // Pushes keep flowing meanwhile: the reference is taken in the steady state.
        std::this_thread::sleep_until(started_ + warmUp);
      }
      if (cycle == sampleCycle() || cycle == cycles_) {
        (cycle == sampleCycle() ? sampleAtTenth_ : sampleAtEnd_) = settledSample();
      }
      if (cycle % sampleCycle() == 0) {
        const auto now = Sample::now();
        std::cout << "cycle " << cycle << ": " << ledger_->figures().pushes << " pushes, rss "
                  << now.residentKiB << " KiB, heap " << now.heapKiB << " KiB, " << now.fds
                  << " fds, slowest recovery " << slowestRecovery_.count() << " ms\n"
                  << std::flush;
      }
    }

    pusher_.request_stop();
    pusher_.join();
    const bool settled = ledger_->waitForOutcomes(false, pushTimeout + 2s);
    std::this_thread::sleep_for(300ms);  // room for a duplicate outcome to show
    takeDeliveries();
    ledger_->judge(Clock::time_point::max());
    // A close the run did not make (a heartbeat missed on a busy machine)
    // may have come after the last fault: the channels get a fault's
    // recovery time before they are counted.
    eventually([&] { return allJoined(); }, recoveryLimit);
    return report(settled, std::chrono::duration<double>(Clock::now() - started_).count());
  }

 private:
  bool runCycle(Fault fault) {
    const auto start = Clock::now();
    const int closesBefore = closes_;
    const int opensBefore = opens_;
    switch (fault) {
      case Fault::reset: proxy_.reset(); break;
      case Fault::freeze: proxy_.freeze(); break;
      case Fault::close1012: server_.closeAndDrop(1012); break;
      case Fault::cut: proxy_.cutNextServerChunk(); break;
    }
    const bool noticed = eventually([&] { return closes_ > closesBefore; }, recoveryLimit);
    if (fault == Fault::freeze) {
      proxy_.unfreeze();
    }
    if (!noticed || !eventually([&] { return opens_ > opensBefore && allJoined(); }, recoveryLimit)) {
      return false;
    }
    slowestRecovery_ = std::max(slowestRecovery_,
                                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start));
    // The pushes buffered while errored go out after the rejoin; let them be
    // answered before the next fault can cut them off.
    if (!ledger_->waitForOutcomes(true, pushTimeout)) {
      return false;
    }
    takeDeliveries();
    ledger_->judge(Clock::now() - judgeAfter);
    return true;
  }

  // An application thread pushing on the channels in turn, every millisecond.
  void pushUntil(const std::stop_token& stop) {
    for (std::size_t next = 0; !stop.stop_requested(); ++next) {
      const auto& channel = channels_[next % channels_.size()];
      EventLoop::main().sync([&] {
        const long id = ledger_->open(channel->isErrored());
        // The hooks hold the ledger: a time-out may fire after the soak ends.
        auto note = [ledger = ledger_, id](Outcome outcome) {
          return [ledger, id, outcome](const Message&) { ledger->outcome(id, outcome); };
        };
        channel->push("echo", {{"id", id}}, std::chrono::duration<double>(pushTimeout).count())
            ->receive("ok", note(Outcome::ok))
            ->receive("error", note(Outcome::error))
            ->receive("timeout", note(Outcome::timeout));
      });
      std::this_thread::sleep_for(1ms);
    }
  }

  void takeDeliveries() {
    for (const auto& frame : server_.takeReceivedFrames()) {
      if (const auto* id = frame.payload.if_contains("id"); frame.event == "echo" && id && id->is_int64()) {
        ledger_->delivered(static_cast<long>(id->as_int64()));
      }
    }
  }

  int sampleCycle() const { return std::max(1, cycles_ / 10); }
  bool judgesMemory() const { return !sanitized && cycles_ >= cyclesToJudgeMemory; }
  bool allJoined() const { return joinedCount() == channels_.size() && socket_->isConnected(); }
  std::size_t joinedCount() const {
    return static_cast<std::size_t>(
        std::count_if(channels_.begin(), channels_.end(), [](const auto& channel) { return channel->isJoined(); }));
  }

  // Once the connections of earlier cycles are gone on every side, so that
  // only what the client keeps is counted.
  Sample settledSample() {
    eventually([&] { return server_.openConnections() == 1 && proxy_.openConnections() == 1; }, 5s);
    return Sample::now();
  }

  bool report(bool settled, double elapsed) {
    const Figures f = ledger_->figures();
    std::size_t bindingsOver = 0;
    for (std::size_t i = 0; i < channels_.size(); ++i) {
      const auto now = channels_[i]->bindingCount();
      bindingsOver += now > baselineBindings_[i] ? now - baselineBindings_[i] : 0;
    }
    const double rssGrowth = percentGrowth(sampleAtTenth_.residentKiB, sampleAtEnd_.residentKiB);
    const std::size_t joined = joinedCount();

    std::vector<std::string> shortfalls;
    auto require = [&](bool holds, const char* what) {
      if (!holds) {
        shortfalls.emplace_back(what);
      }
    };
    require(failedCycle_ == 0, "a cycle did not recover");
    require(joined == channels_.size(), "not every channel is joined");
    require(settled && f.withoutOutcome == 0, "pushes without an outcome");
    require(f.withSeveralOutcomes == 0 && f.outcomesAfterJudging == 0, "pushes with several outcomes");
    require(f.errors == 0, "pushes answered \"error\"");
    require(f.pushesWhileErrored > 0, "no push was made while a channel was errored");
    require(f.erroredNotDeliveredOnce == 0, "pushes made while errored not delivered exactly once");
    require(f.erroredNotAnsweredOk == 0, "pushes made while errored not answered \"ok\"");
    require(f.deliveredTwice == 0, "pushes delivered twice");
    require(bindingsOver == 0, "bindings above their baseline");
    require(percentGrowth(sampleAtTenth_.fds, sampleAtEnd_.fds) <= 5.0, "file descriptors grew by more than 5%");
    require(!judgesMemory() || rssGrowth <= 5.0, "resident memory grew by more than 5%");

    std::cout << "\nsoak: " << cycles_ << " cycles of faults (reset, freeze, close 1012, cut frame in turn), "
              << channels_.size() << " channels, heartbeat " << heartbeatInterval << " s, push time-out "
              << pushTimeout.count() << " s\n";
    if (!judgesMemory()) {
      std::cout << "(resident memory is printed, not judged: "
                << (sanitized ? "the sanitizer's heap grows by design" : "the run is too short") << ")\n";
    }
    for (const auto& what : shortfalls) {
      std::cout << "SHORT: " << what << "\n";
    }
    const int tenth = sampleCycle();
    std::printf(
        "cycles=%d\nelapsed_s=%.1f\nslowest_recovery_ms=%lld\nchannels_joined=%zu/%zu\n"
        "pushes=%ld\npushes_while_errored=%ld\noutcomes_ok=%ld\noutcomes_timeout=%ld\n"
        "outcomes_error=%ld\npushes_without_outcome=%ld\npushes_with_several_outcomes=%ld\n"
        "errored_pushes_not_delivered_once=%ld\nerrored_pushes_not_answered_ok=%ld\n"
        "pushes_delivered_twice=%ld\ndeliveries_after_judging=%ld\n"
        "rss_kib_cycle_%d=%ld\nrss_kib_end=%ld\nrss_growth_pct=%.2f\nheap_kib_cycle_%d=%ld\nheap_kib_end=%ld\n"
        "fds_cycle_%d=%ld\nfds_end=%ld\nbindings_over_baseline=%zu\nextra_closes=%d\nresult=%s\n",
        cycles_, elapsed, static_cast<long long>(slowestRecovery_.count()), joined, channels_.size(), f.pushes,
        f.pushesWhileErrored, f.ok, f.timeouts, f.errors, f.withoutOutcome,
        f.withSeveralOutcomes + f.outcomesAfterJudging, f.erroredNotDeliveredOnce, f.erroredNotAnsweredOk,
        f.deliveredTwice, f.deliveriesAfterJudging, tenth, sampleAtTenth_.residentKiB, sampleAtEnd_.residentKiB,
        rssGrowth, tenth, sampleAtTenth_.heapKiB, sampleAtEnd_.heapKiB, tenth, sampleAtTenth_.fds,
        sampleAtEnd_.fds, bindingsOver, closes_ - std::min(closes_.load(), cyclesRun_),
        shortfalls.empty() ? "PASS" : "FAIL");
    std::fflush(stdout);
    return shortfalls.empty();
  }

  const int cycles_;
  PhoenixTestServer server_{{.presence = false, .recordConnections = false}};
  FaultProxy proxy_{{.targetPort = server_.port()}};
  std::shared_ptr<Ledger> ledger_ = std::make_shared<Ledger>();
  std::shared_ptr<Socket> socket_;
  std::vector<std::shared_ptr<Channel>> channels_;
  std::vector<std::size_t> baselineBindings_;
  std::atomic<int> opens_{0};
  std::atomic<int> closes_{0};
  std::jthread pusher_;
  int failedCycle_ = 0;
  int cyclesRun_ = 0;
  std::chrono::milliseconds slowestRecovery_{0};
  Sample sampleAtTenth_;
  Sample sampleAtEnd_;
  Clock::time_point started_;
};

}  // namespace

int main(int argc, char** argv) {
  int cycles = 1000;
  int channels = 100;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--cycles" && i + 1 < argc) {
      cycles = parseCount(argv[++i], "--cycles");
    } else if (arg == "--channels" && i + 1 < argc) {
      channels = parseCount(argv[++i], "--channels");
    } else {
      std::cerr << "usage: vantor-soak [--cycles N] [--channels N]\n";
      return 2;
    }
  }
  Soak soak(cycles, channels);
  return soak.run() ? 0 : 1;
}
