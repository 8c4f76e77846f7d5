// Soak: one socket with many joined channels goes through a long series of
// forced connection faults, through the fault-injecting proxy and the bundled
// server, while an application thread keeps pushing. The faults alternate: a
// reset, a freeze that the heartbeat must notice, a server close with 1012,
// and a server frame cut in the middle.
//
// Every push is tracked from the moment it is made: it must get exactly one
// outcome (its reply or its time-out), and a push made while its channel was
// errored must reach the server exactly once, after the rejoin, and be
// answered "ok". At the end every channel must be joined with its bindings
// back at their count after the first join, and memory and file descriptors
// must not have grown between the tenth of the run and its end.
//
// Prints its figures, the last lines machine-readable, and exits 1 when one
// falls short.
//
//   vantor-soak [--cycles N] [--channels N]
//
// extra_closes counts closes beyond one per fault: failed reconnect
// attempts, and faults the run did not make.
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
using vantor::testing::FaultProxy;
using vantor::testing::PhoenixTestServer;

// Under a sanitizer on a busy machine the loop and the server stall for
// more than 0.1 s now and then; a heartbeat that short would then add faults
// of its own, and the replies of pushes that had just been delivered would
// be lost with them (they time out, as they must).
constexpr double heartbeatInterval = sanitized ? 0.5 : 0.1;
constexpr double pushTimeout = 5.0;
// A push has its outcome within its time-out; after this long it is judged.
constexpr auto judgeAfter = 7s;
constexpr auto recoveryLimit = 15s;
constexpr auto pushEvery = 1ms;
// Memory is compared only once the pushes in flight have reached their
// steady number, which takes a push time-out and the judging delay: the
// sample at the tenth of the run waits for that if it comes earlier. Runs
// shorter than this many cycles print memory without judging it.
constexpr auto warmUp = judgeAfter + 3s;
constexpr int cyclesToJudgeMemory = 200;

enum class Fault { reset, freeze, close1012, cut };
constexpr Fault faults[] = {Fault::reset, Fault::freeze, Fault::close1012, Fault::cut};

const char* nameOf(Fault fault) {
  switch (fault) {
    case Fault::reset: return "reset";
    case Fault::freeze: return "freeze";
    case Fault::close1012: return "close 1012";
    case Fault::cut: return "cut frame";
  }
  return "?";
}

struct Figures {
  long pushes = 0;
  long pushesWhileErrored = 0;
  long ok = 0;
  long errors = 0;
  long timeouts = 0;
  long withoutOutcome = 0;
  long withSeveralOutcomes = 0;
  long outcomesAfterJudging = 0;
  long erroredNotDeliveredOnce = 0;
  long deliveredTwice = 0;
  long deliveriesAfterJudging = 0;
  long erroredNotAnsweredOk = 0;
  // The first few pushes made while errored that were not delivered once
  // or not answered "ok": when they were made (seconds into the run), their
  // outcomes and deliveries.
  std::vector<std::string> erroredMisses;
};

enum class Outcome { ok, error, timeout };

// Every push from the moment it is made until it is judged. Thread-safe: the
// pusher opens records, the loop thread adds outcomes, the main thread adds
// the server's deliveries and judges.
class Ledger {
 public:
  explicit Ledger(Clock::time_point start) : start_(start) {}

  long open(bool whileErrored) {
    std::lock_guard lock(mutex_);
    const long id = nextId_++;
    records_.emplace(id, Record{Clock::now(), whileErrored});
    ++figures_.pushes;
    figures_.pushesWhileErrored += whileErrored ? 1 : 0;
    return id;
  }

  void outcome(long id, Outcome outcome) {
    std::lock_guard lock(mutex_);
    auto found = records_.find(id);
    if (found == records_.end()) {
      ++figures_.outcomesAfterJudging;
      return;
    }
    auto& record = found->second;
    ++record.outcomes;
    record.ok += outcome == Outcome::ok ? 1 : 0;
    switch (outcome) {
      case Outcome::ok: ++figures_.ok; break;
      case Outcome::error: ++figures_.errors; break;
      case Outcome::timeout: ++figures_.timeouts; break;
    }
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

  // Waits until the pushes made while errored all have an outcome.
  bool waitForErroredOutcomes(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      return std::none_of(records_.begin(), records_.end(), [](const auto& entry) {
        return entry.second.whileErrored && entry.second.outcomes == 0;
      });
    });
  }

  // Waits until every push has an outcome.
  bool waitForAllOutcomes(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      return std::none_of(records_.begin(), records_.end(),
                          [](const auto& entry) { return entry.second.outcomes == 0; });
    });
  }

  // Judges and forgets the pushes made before `before`.
  void judge(Clock::time_point before) {
    std::lock_guard lock(mutex_);
    std::erase_if(records_, [&](const auto& entry) {
      const auto& [id, record] = entry;
      if (record.made >= before) {
        return false;
      }
      figures_.withoutOutcome += record.outcomes == 0 ? 1 : 0;
      figures_.withSeveralOutcomes += record.outcomes > 1 ? 1 : 0;
      figures_.deliveredTwice += record.deliveries > 1 ? 1 : 0;
      if (record.whileErrored && (record.deliveries != 1 || record.ok != 1)) {
        figures_.erroredNotDeliveredOnce += record.deliveries != 1 ? 1 : 0;
        figures_.erroredNotAnsweredOk += record.ok != 1 ? 1 : 0;
        if (figures_.erroredMisses.size() < 5) {
          figures_.erroredMisses.push_back(
              "push " + std::to_string(id) + " made at " +
              std::to_string(std::chrono::duration<double>(record.made - start_).count()) + " s: " +
              std::to_string(record.outcomes) + " outcomes (" + std::to_string(record.ok) + " ok), " +
              std::to_string(record.deliveries) + " deliveries");
        }
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

  const Clock::time_point start_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::unordered_map<long, Record> records_;
  long nextId_ = 0;
  Figures figures_;
};

long heapInUseKiB() {
  const auto info = mallinfo2();
  return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

long residentKiB() {
  std::ifstream statm("/proc/self/statm");
  long size = 0;
  long resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long openFileDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator{});
}

template <class Predicate>
bool waitUntil(Predicate done, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!done()) {
    if (Clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

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

  Soak(const Soak&) = delete;
  Soak& operator=(const Soak&) = delete;

  // Runs the soak; true when every figure holds.
  bool run() {
    started_ = Clock::now();
    socket_->connect();
    if (!waitUntil([&] { return allJoined(); }, recoveryLimit)) {
      std::cout << "the channels never joined\n";
      return false;
    }
    for (const auto& channel : channels_) {
      baselineBindings_.push_back(channel->bindingCount());
    }
    pusher_ = std::jthread([this](std::stop_token stop) { pushUntil(stop); });

    const int sampleCycle = std::max(1, cycles_ / 10);
    for (int cycle = 1; cycle <= cycles_; ++cycle) {
      const Fault fault = faults[(cycle - 1) % std::size(faults)];
      cyclesRun_ = cycle;
      if (!runCycle(fault)) {
        std::cout << "cycle " << cycle << " (" << nameOf(fault) << "): no recovery within "
                  << recoveryLimit.count() << " s; " << joinedCount() << " of " << channels_.size()
                  << " channels joined\n";
        failedCycle_ = cycle;
        break;
      }
      if (cycle == sampleCycle && judgesMemory()) {
        // Pushes keep flowing meanwhile: the reference sample is taken in
        // the steady state.
        std::this_thread::sleep_until(started_ + warmUp);
      }
      if (cycle == sampleCycle || cycle == cycles_) {
        sample(cycle == sampleCycle ? sampleAtTenth_ : sampleAtEnd_);
      }
      if (cycle % std::max(1, cycles_ / 10) == 0) {
        std::cout << "cycle " << cycle << ": " << ledger_->figures().pushes << " pushes, rss "
                  << residentKiB() << " KiB, heap " << heapInUseKiB() << " KiB, "
                  << openFileDescriptors() << " fds, slowest recovery "
                  << slowestRecovery_.count() << " ms\n"
                  << std::flush;
      }
    }

    pusher_.request_stop();
    pusher_.join();
    const bool settled = ledger_->waitForAllOutcomes(
        std::chrono::milliseconds(static_cast<int>(pushTimeout * 1000)) + 2s);
    std::this_thread::sleep_for(300ms);  // room for a duplicate outcome to show
    takeDeliveries();
    ledger_->judge(Clock::time_point::max());
    // A close the run did not make (a heartbeat missed while the machine
    // was busy) may have come after the last fault: the channels are judged
    // once they have had the same time to recover as after a fault.
    waitUntil([&] { return allJoined(); }, recoveryLimit);
    elapsed_ = std::chrono::duration<double>(Clock::now() - started_).count();
    return report(settled);
  }

 private:
  struct Sample {
    long residentKiB = 0;
    long heapKiB = 0;
    long fds = 0;
  };

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
    const bool noticed = waitUntil([&] { return closes_ > closesBefore; }, recoveryLimit);
    if (fault == Fault::freeze) {
      proxy_.unfreeze();
    }
    if (!noticed || !waitUntil([&] { return opens_ > opensBefore && allJoined(); }, recoveryLimit)) {
      return false;
    }
    slowestRecovery_ = std::max(
        slowestRecovery_, std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start));
    // The pushes buffered while errored go out after the rejoin; let them be
    // answered before the next fault can cut them off.
    if (!ledger_->waitForErroredOutcomes(std::chrono::milliseconds(static_cast<int>(pushTimeout * 1000)))) {
      return false;
    }
    takeDeliveries();
    ledger_->judge(Clock::now() - judgeAfter);
    return true;
  }

  // An application thread pushing on the channels in turn.
  void pushUntil(const std::stop_token& stop) {
    std::size_t next = 0;
    while (!stop.stop_requested()) {
      const auto& channel = channels_[next++ % channels_.size()];
      EventLoop::main().sync([&] {
        const long id = ledger_->open(channel->isErrored());
        // The hooks hold the ledger: a time-out may fire after the soak ends.
        auto note = [ledger = ledger_, id](Outcome outcome) {
          return [ledger, id, outcome](const Message&) { ledger->outcome(id, outcome); };
        };
        channel->push("echo", {{"id", id}}, pushTimeout)
            ->receive("ok", note(Outcome::ok))
            ->receive("error", note(Outcome::error))
            ->receive("timeout", note(Outcome::timeout));
      });
      std::this_thread::sleep_for(pushEvery);
    }
  }

  void takeDeliveries() {
    for (const auto& frame : server_.takeReceivedFrames()) {
      if (frame.event == "echo") {
        if (const auto* id = frame.payload.if_contains("id"); id && id->is_int64()) {
          ledger_->delivered(static_cast<long>(id->as_int64()));
        }
      }
    }
  }

  bool judgesMemory() const { return !sanitized && cycles_ >= cyclesToJudgeMemory; }

  bool allJoined() const { return joinedCount() == channels_.size() && socket_->isConnected(); }

  std::size_t joinedCount() const {
    return static_cast<std::size_t>(std::count_if(channels_.begin(), channels_.end(),
                                                  [](const auto& channel) { return channel->isJoined(); }));
  }

  // Reads memory and descriptors once the connections of earlier cycles are
  // gone on every side, so that only what the client keeps is counted.
  void sample(Sample& into) {
    waitUntil([&] { return server_.openConnections() == 1 && proxy_.openConnections() == 1; }, 5s);
    into = {residentKiB(), heapInUseKiB(), openFileDescriptors()};
  }

  bool report(bool settled) {
    const Figures f = ledger_->figures();
    std::size_t bindingsOver = 0;
    for (std::size_t i = 0; i < channels_.size(); ++i) {
      const auto now = channels_[i]->bindingCount();
      bindingsOver += now > baselineBindings_[i] ? now - baselineBindings_[i] : 0;
    }
    const double rssGrowth = percentGrowth(sampleAtTenth_.residentKiB, sampleAtEnd_.residentKiB);
    const double fdGrowth = percentGrowth(sampleAtTenth_.fds, sampleAtEnd_.fds);
    const std::size_t joined = joinedCount();

    std::vector<std::string> shortfalls;
    auto require = [&](bool holds, const std::string& what) {
      if (!holds) {
        shortfalls.push_back(what);
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
    require(fdGrowth <= 5.0, "file descriptors grew by more than 5%");
    const bool judgeMemory = judgesMemory();
    require(!judgeMemory || rssGrowth <= 5.0, "resident memory grew by more than 5%");

    const int sampleCycle = std::max(1, cycles_ / 10);
    std::cout << "\nsoak: " << cycles_ << " cycles of faults (reset, freeze, close 1012, cut frame in turn), "
              << channels_.size() << " channels, heartbeat " << heartbeatInterval << " s, push time-out "
              << pushTimeout << " s\n";
    if (!judgeMemory) {
      std::cout << "(resident memory is printed, not judged: "
                << (sanitized ? "the sanitizer's heap grows by design" : "the run is too short")
                << ")\n";
    }
    for (const auto& what : shortfalls) {
      std::cout << "SHORT: " << what << "\n";
    }
    for (const auto& miss : f.erroredMisses) {
      std::cout << "  " << miss << "\n";
    }
    std::printf(
        "cycles=%d\nelapsed_s=%.1f\nslowest_recovery_ms=%lld\nchannels_joined=%zu/%zu\n"
        "pushes=%ld\npushes_while_errored=%ld\noutcomes_ok=%ld\noutcomes_timeout=%ld\n"
        "outcomes_error=%ld\npushes_without_outcome=%ld\npushes_with_several_outcomes=%ld\n"
        "errored_pushes_not_delivered_once=%ld\nerrored_pushes_not_answered_ok=%ld\n"
        "pushes_delivered_twice=%ld\n"
        "deliveries_after_judging=%ld\nrss_kib_cycle_%d=%ld\nrss_kib_end=%ld\nrss_growth_pct=%.2f\n"
        "heap_kib_cycle_%d=%ld\nheap_kib_end=%ld\nfds_cycle_%d=%ld\nfds_end=%ld\nbindings_over_baseline=%zu\nextra_closes=%d\nresult=%s\n",
        cycles_, elapsed_, static_cast<long long>(slowestRecovery_.count()), joined, channels_.size(),
        f.pushes, f.pushesWhileErrored, f.ok, f.timeouts, f.errors, f.withoutOutcome,
        f.withSeveralOutcomes + f.outcomesAfterJudging, f.erroredNotDeliveredOnce, f.erroredNotAnsweredOk, f.deliveredTwice,
        f.deliveriesAfterJudging, sampleCycle, sampleAtTenth_.residentKiB, sampleAtEnd_.residentKiB,
        rssGrowth, sampleCycle, sampleAtTenth_.heapKiB, sampleAtEnd_.heapKiB, sampleCycle, sampleAtTenth_.fds, sampleAtEnd_.fds, bindingsOver,
        closes_ - std::min(closes_.load(), cyclesRun_), shortfalls.empty() ? "PASS" : "FAIL");
    std::fflush(stdout);
    return shortfalls.empty();
  }

  const int cycles_;
  PhoenixTestServer server_{{.presence = false, .recordConnections = false}};
  FaultProxy proxy_{{.targetPort = server_.port()}};
  std::shared_ptr<Ledger> ledger_ = std::make_shared<Ledger>(Clock::now());
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
  double elapsed_ = 0;
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
