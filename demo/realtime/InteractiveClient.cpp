#include "InteractiveClient.hpp"

#include <boost/json/serialize.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <utility>
#include <atomic>
#include <memory>

#include "Transcript.hpp"
#include "vantor/platform/SystemEvents.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/FallbackTransport.hpp"
#include "vantor/realtime/LongPollTransport.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"

namespace vantor::demo {

namespace {

using namespace vantor::realtime;

extern "C" void onInterrupt(int) {}  // only interrupts the blocking read

Payload payloadOf(const std::vector<std::pair<std::string, std::string>>& pairs) {
  Payload payload;
  for (const auto& [key, value] : pairs) {
    payload[key] = value;
  }
  return payload;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace

int runInteractive(const InteractiveOptions& options) {
  Transcript out;
  URLSessionConfiguration configuration;
  if (!options.caFile.empty()) {
    try {
      configuration.additionalCertificateAuthorities.push_back(readFile(options.caFile));
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 2;
    }
  }
  configuration.perMessageDeflate = options.compress;
  if (options.proxy == "none") {
    configuration.proxy = platform::ProxySettings::none();
  } else if (!options.proxy.empty()) {
    configuration.proxy = platform::ProxySettings::explicitProxy(options.proxy);
  }
  Socket::ParamsClosure params;
  if (!options.params.empty()) {
    params = [payload = payloadOf(options.params)] { return std::optional<Payload>(payload); };
  }
  std::function<void(Transcript&)> openNote;
  std::function<bool()> overLongPoll = [] { return false; };
  Socket::TransportFactory transport;
  if (options.transport == "longpoll") {
    overLongPoll = [] { return true; };
    transport = [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
      return LongPollTransport::make(url, configuration);
    };
  } else if (options.transport == "auto") {
    auto choice = std::make_shared<FallbackTransport::Choice>();
    transport = FallbackTransport::factory(configuration, choice);
    overLongPoll = [choice] { return choice->longPoll.load(); };
    // Said once, at the first connection that went over long-poll.
    openNote = [choice, said = false](Transcript& out) mutable {
      if (choice->longPoll && !std::exchange(said, true)) {
        out.say("socket", "the WebSocket upgrade failed; using long-poll");
      }
    };
  } else {
    transport = [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
      return URLSessionTransport::make(url, configuration);
    };
  }
  auto socket = Socket::make(options.url, transport, params);
  socket->setAuthToken(options.authToken);
  // A server we do not control must not be able to stop the client with a
  // short frame or broken presence data: drop such input and go on.
  socket->setDropsMalformedInput(true);
  // Many desktops reconnect to one server after it restarts: spread them.
  socket->setReconnectAfter(&Defaults::reconnectJitteredBackOff);
  // What the desktop reports, and what the socket does about it.
  auto listening = std::make_shared<std::atomic<bool>>(true);
  platform::SystemEvents::shared().subscribe([&out, listening](const platform::SystemEvents::Event& event) {
    if (!*listening) {
      return false;
    }
    using Kind = platform::SystemEvents::Kind;
    switch (event.kind) {
      case Kind::resumed: out.say("system", "resumed from sleep: checking the connection"); break;
      case Kind::offline: out.say("system", "offline: reconnects paused"); break;
      case Kind::online: out.say("system", "online: reconnecting now"); break;
      case Kind::networkChanged: out.say("system", "network changed: checking the connection"); break;
      case Kind::unavailable: out.say("system", event.detail); break;
    }
    return true;
  });
  auto printStats = [&](const std::string& prefix) {
    const auto m = socket->metrics();
    out.say("stats", prefix + "frames in " + std::to_string(m.framesIn) + " (" + std::to_string(m.bytesIn) +
                         " B), out " + std::to_string(m.framesOut) + " (" + std::to_string(m.bytesOut) +
                         " B), reconnects " + std::to_string(m.reconnects) + ", rejoins " +
                         std::to_string(m.rejoins) + ", pushes ok " + std::to_string(m.pushesOk) + " error " +
                         std::to_string(m.pushesError) + " timeout " + std::to_string(m.pushesTimeout) +
                         ", malformed dropped " + std::to_string(m.malformedDropped) + ", resumes " +
                         std::to_string(m.resumes) + ", network changes " + std::to_string(m.networkChanges));
  };
  if (options.stats) {
    socket->setCollectsMetrics(true);
    socket->onHeartbeatRoundTrip([&](std::chrono::nanoseconds roundTrip) {
      char rtt[32];
      std::snprintf(rtt, sizeof rtt, "%.2f", std::chrono::duration<double, std::milli>(roundTrip).count());
      printStats("heartbeat " + std::string(rtt) + " ms; ");
    });
  }
  if (options.verbose) {
    socket->setLogger([](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
  }
  // The socket reports a close for each failed attempt as well (its tear-down
  // before the attempt, then the attempt's own); say it once per lost connection.
  bool connected = false;
  socket->onOpen([&] {
    connected = true;
    if (openNote) {
      openNote(out);
    }
    out.say("socket", overLongPoll() ? "connected over long-poll to " +
                                           std::string(LongPollTransport::longPollUrl(socket->endPointUrl()).buffer())
                                     : "connected to " + std::string(socket->endPointUrl().buffer()));
  });
  socket->onError([&](const TransportError& error, const std::optional<HttpResponse>& response) {
    out.say("socket", "error: " + error.description +
                          (response ? " (HTTP " + std::to_string(response->statusCode) + ")" : ""));
  });
  socket->onClose([&] {
    if (std::exchange(connected, false)) {
      out.say("socket", "closed; reconnecting unless you quit");
    }
  });
  socket->onMessage([&](const Message& message) {
    if (message.topic() == options.topic && message.event() != "phx_reply" &&
        message.event() != "presence_state" && message.event() != "presence_diff") {
      out.say("<-", message.event() + " " + boost::json::serialize(message.payload()));
    }
  });

  auto channel = socket->channel(options.topic, payloadOf(options.joinParams));
  auto presence = Presence::make(channel);
  presence->onJoin([&](const std::string& key, const std::optional<Presence::Map>& current,
                       const Presence::Map&) {
    if (!current) {
      out.say("presence", key + " joined");
    }
  });
  presence->onLeave([&](const std::string& key, const Presence::Map& remaining, const Presence::Map&) {
    if (remaining.at("metas").empty()) {
      out.say("presence", key + " left");
    }
  });
  channel->join()
      ->receive("ok", [&](const Message&) { out.say("channel", "joined " + options.topic); })
      ->receive("error", [&](const Message& reply) {
        out.say("channel", "join refused: " + boost::json::serialize(reply.payload()));
      })
      ->receive("timeout", [&](const Message&) { out.say("channel", "join timed out; retrying"); });
  socket->connect();

  // Ctrl-C interrupts the read below instead of killing the process, so the
  // client leaves the channel and closes the socket cleanly.
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: the read fails with EINTR
  sigaction(SIGINT, &action, nullptr);

  out.say("demo", "type a line to push it as \"" + options.event + "\"; end with Ctrl-D or Ctrl-C");
  std::string line;
  while (std::getline(std::cin, line)) {
    if (line.empty()) {
      continue;
    }
    channel->push(options.event, {{"body", line}})
        ->receive("ok", [&](const Message& reply) {
          out.say("reply", "ok " + boost::json::serialize(reply.payload()));
        })
        ->receive("error", [&](const Message& reply) {
          out.say("reply", "error " + boost::json::serialize(reply.payload()));
        })
        ->receive("timeout", [&](const Message&) { out.say("reply", "timed out"); });
  }
  out.say("demo", "leaving");
  if (options.stats) {
    printStats("");
  }
  channel->leave();
  socket->disconnect();
  socket->releaseCallbacks();
  *listening = false;
  return 0;
}

}  // namespace vantor::demo
