// Push/reply round trips over a loopback WebSocket: the server and the
// clients sit on different cores, and every client does the same work per
// message: encode a frame, send it, read the reply and parse it.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <limits>
#include <future>
#include <semaphore>
#include <string>
#include <utility>
#include <vector>

#include "Clients.hpp"
#include "EchoServer.hpp"
#include "Summary.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::bench {

namespace {

using Clock = std::chrono::steady_clock;
using realtime::Message;

constexpr auto warmUp = std::chrono::milliseconds(200);
constexpr auto measured = std::chrono::milliseconds(1500);
constexpr int repetitions = 3;

std::chrono::nanoseconds processCpuTime() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

struct Run {
  std::int64_t messages = 0;
  double seconds = 0;
  double clientCpuSeconds = 0;
  double serverCpuSeconds = 0;

  [[nodiscard]] double perSecond() const { return static_cast<double>(messages) / seconds; }
  [[nodiscard]] double clientCpuPerMessage() const {
    return clientCpuSeconds / static_cast<double>(messages);
  }
  [[nodiscard]] double serverLoad() const { return serverCpuSeconds / seconds; }
};

/// Measures `phase(deadline)`, which runs round trips until the deadline and
/// returns how many it completed, after a warm-up phase.
template <class Phase>
Run measure(const EchoServer& server, Phase&& phase) {
  phase(Clock::now() + warmUp);
  const auto cpuBefore = processCpuTime();
  const auto serverBefore = server.cpuTime();
  const auto start = Clock::now();
  Run run;
  run.messages = phase(start + measured);
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const auto serverCpu = server.cpuTime() - serverBefore;
  const auto clientCpu = processCpuTime() - cpuBefore - serverCpu;
  run.clientCpuSeconds = std::chrono::duration<double>(clientCpu).count();
  run.serverCpuSeconds = std::chrono::duration<double>(serverCpu).count();
  return run;
}

template <class BareLike = BareClient>
Run bare(EchoServer& server, int window) {
  BareLike client(server.port());
  pinThreads(server.threadId());
  return measure(server, [&](Clock::time_point deadline) {
    return client.run(window, [&] { return Clock::now() < deadline; });
  });
}

// Ours, its threads pinned away from the server.
struct Client : LibraryClient {
  explicit Client(const EchoServer& server, bool collectMetrics = false,
                  std::size_t maximumGatheredBytes = realtime::URLSessionConfiguration{}.maximumGatheredBytes)
      : LibraryClient(server.port(), collectMetrics, maximumGatheredBytes) {
    pinThreads(server.threadId());
  }
};


// Pushes from the loop thread: each reply's hook makes the next push.
Run oursOnTheLoop(EchoServer& server, int window, bool collectMetrics = false,
                  std::size_t maximumGatheredBytes = realtime::URLSessionConfiguration{}.maximumGatheredBytes) {
  Client client(server, collectMetrics, maximumGatheredBytes);
  auto phase = [&](Clock::time_point deadline) {
    std::int64_t sent = 0;
    std::int64_t done = 0;
    std::promise<void> finished;
    std::function<void()> pushOne = [&] {
      ++sent;
      client.channel->push("echo", echoPayload(sent))->receive("ok", [&](const Message& reply) {
        ++done;
        if (reply.payload().empty()) {
          std::fprintf(stderr, "unexpected reply\n");
        }
        if (Clock::now() < deadline) {
          pushOne();
        } else if (done == sent) {
          finished.set_value();
        }
      });
    };
    platform::EventLoop::main().sync([&] {
      for (int i = 0; i < window; ++i) {
        pushOne();
      }
    });
    finished.get_future().wait();
    return platform::EventLoop::main().sync([&] { return done; });
  };
  return measure(server, phase);
}

// Pushes from an application thread, at most `window` awaiting replies.
Run oursFromAnApplicationThread(EchoServer& server, int window) {
  Client client(server);
  auto phase = [&](Clock::time_point deadline) {
    std::counting_semaphore<1024> permits(window);
    std::atomic<std::int64_t> done{0};
    std::int64_t sent = 0;
    while (Clock::now() < deadline) {
      permits.acquire();
      ++sent;
      client.channel->push("echo", echoPayload(sent))->receive("ok", [&](const Message& reply) {
        if (reply.payload().empty()) {
          std::fprintf(stderr, "unexpected reply\n");
        }
        done.fetch_add(1);
        permits.release();
      });
    }
    for (int i = 0; i < window; ++i) {
      permits.acquire();
    }
    return done.load();
  };
  return measure(server, phase);
}

// The median of an odd number of ratios.
double middle(std::vector<double> ratios) {
  std::sort(ratios.begin(), ratios.end());
  return ratios[ratios.size() / 2];
}

Run medianOf(std::vector<Run> runs) {
  std::sort(runs.begin(), runs.end(),
            [](const Run& a, const Run& b) { return a.perSecond() < b.perSecond(); });
  return runs[runs.size() / 2];
}

template <class F>
Run median(F&& make) {
  std::vector<Run> runs;
  for (int i = 0; i < repetitions; ++i) {
    runs.push_back(make());
  }
  return medianOf(std::move(runs));
}

void print(const char* name, const Run& run) {
  std::printf("%-34s %12.0f %14.2f %12.0f%%\n", name, run.perSecond(),
              run.clientCpuPerMessage() * 1e6, run.serverLoad() * 100.0);
}

}  // namespace

void runEndToEnd(Summary& summary) {
  EchoServer server;
  const auto bare64 = median([&] { return bare(server, 64); });
  const auto ours64 = median([&] { return oursOnTheLoop(server, 64); });
  // At one outstanding the figure is latency, which drifts with the
  // machine more than the clients differ: runs go in rounds of one each of
  // bare, bare on an event loop and ours, in a rotating order, and each
  // ratio is the median of the rounds'. Ours runs both with the loop's
  // polling before sleeping, as by default, and without it.
  enum { bareClient, asyncClient, ourClient, ourClientNoPolling, clients };
  std::vector<Run> rounds[clients];
  for (int i = 0; i < 5; ++i) {
    for (int k = 0; k < clients; ++k) {
      const int which = (i + k) % clients;
      if (which == ourClientNoPolling) {
        platform::EventLoop::main().setPollBeforeSleep(std::chrono::microseconds::zero());
      }
      rounds[which].push_back(which == bareClient    ? bare(server, 1)
                              : which == asyncClient ? bare<AsyncBareClient>(server, 1)
                                                     : oursOnTheLoop(server, 1));
      platform::EventLoop::main().setPollBeforeSleep(std::chrono::microseconds(50));
    }
  }
  // The median over the rounds of one client's rate over another's.
  auto ratio = [&](int over, int under) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < rounds[over].size(); ++i) {
      ratios.push_back(rounds[over][i].perSecond() / rounds[under][i].perSecond());
    }
    return middle(std::move(ratios));
  };
  const auto bare1 = medianOf(rounds[bareClient]);
  const auto async1 = medianOf(rounds[asyncClient]);
  const auto ours1 = medianOf(rounds[ourClient]);
  const auto ours1NoPolling = medianOf(rounds[ourClientNoPolling]);
  const double ours1OverBare = ratio(ourClient, bareClient);
  const auto host64 = median([&] { return oursFromAnApplicationThread(server, 64); });

  std::printf("\nEnd to end, loopback, server on core 1, clients on core 0 (median of %d runs of %.1f s)\n",
              repetitions, std::chrono::duration<double>(measured).count());
  std::printf("%-34s %12s %14s %13s\n", "client", "replies/s", "client us/msg", "server busy");
  print("bare Beast, 64 outstanding", bare64);
  print("Socket+Channel, 64 outstanding", ours64);
  print("Socket+Channel, app thread, 64", host64);
  print("bare Beast, 1 outstanding", bare1);
  print("bare Beast async, 1 outstanding", async1);
  print("Socket+Channel, 1 outstanding", ours1);
  print("Socket+Channel, 1, no polling", ours1NoPolling);
  std::printf("%-34s %12.3f\n%-34s %12.3f\n%-34s %12.3f\n%-34s %12.3f\n", "1 outstanding, ours/bare", ours1OverBare,
              "1 outstanding, bare async/bare", ratio(asyncClient, bareClient), "1 outstanding, ours/bare async",
              ratio(ourClient, asyncClient), "1, ours without polling/bare", ratio(ourClientNoPolling, bareClient));
  std::fflush(stdout);

  // The cost of a feature at 64 outstanding: runs without and with it in
  // pairs, so that drifts of the machine hit both alike; the median of the
  // pairs' ratios.
  auto cost = [&](const char* title, const char* offName, const char* onName, auto run) {
    std::vector<double> ratios;
    double off = 0;
    double on = 0;
    for (int i = 0; i < 2 * repetitions + 1; ++i) {
      // The order alternates too: the second run of a pair is slower.
      const bool withFirst = i % 2 == 1;
      const double first = run(withFirst).perSecond();
      const double second = run(!withFirst).perSecond();
      const double with = withFirst ? first : second;
      const double without = withFirst ? second : first;
      ratios.push_back(with / without);
      off += without;
      on += with;
    }
    std::printf("\n%s, 64 outstanding (%zu pairs of runs)\n", title, ratios.size());
    std::printf("%-34s %12.0f\n%-34s %12.0f\n%-34s %11.2f%%\n", offName,
                off / static_cast<double>(ratios.size()), onName, on / static_cast<double>(ratios.size()),
                "throughput cost (median of pairs)", 100.0 * (1.0 - middle(ratios)));
    std::fflush(stdout);
  };
  cost("Connection metrics", "counters off, mean replies/s", "counters on, mean replies/s",
       [&](bool with) { return oursOnTheLoop(server, 64, with); });
  cost("Bound on gathered bytes", "unbounded, mean replies/s", "256 KiB bound, mean replies/s", [&](bool with) {
    return oursOnTheLoop(server, 64, false,
                         with ? realtime::URLSessionConfiguration{}.maximumGatheredBytes : std::numeric_limits<std::size_t>::max());
  });

  summary.emplace_back("e2e_throughput_ratio", ours64.perSecond() / bare64.perSecond());
  summary.emplace_back("e2e_cpu_per_msg_ratio",
                       ours64.clientCpuPerMessage() / bare64.clientCpuPerMessage());
  summary.emplace_back("e2e_throughput_ratio_w1", ours1OverBare);
  summary.emplace_back("e2e_throughput_ratio_host_thread", host64.perSecond() / bare64.perSecond());
}

}  // namespace vantor::bench
