#include "vantor/realtime/LongPollTransport.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/system/errc.hpp>

#include "vantor/platform/Base64.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/platform/Fatal.hpp"
#include "vantor/platform/TlsClient.hpp"

namespace vantor::realtime {

namespace json = boost::json;
using platform::EventLoop;
using platform::HttpOutcome;

namespace {

// Phoenix answers a poll within about 10 s with 204 when nothing came.
constexpr auto serverPollTime = std::chrono::seconds(10);

constexpr std::string_view tokenPrefix = "base64url.bearer.phx.";

// What a long-poll answer says: its status, and the token and messages when given.
struct Answer {
  std::int64_t status = 0;
  std::optional<std::string> token;
  std::vector<std::string> messages;
};

std::optional<Answer> readAnswer(const std::string& body) {
  boost::system::error_code error;
  auto value = json::parse(body, error);
  if (error || !value.is_object()) {
    return std::nullopt;
  }
  const auto& object = value.get_object();
  Answer answer;
  const auto* status = object.if_contains("status");
  if (status == nullptr || !status->is_int64()) {
    return std::nullopt;
  }
  answer.status = status->get_int64();
  if (const auto* token = object.if_contains("token"); token != nullptr && token->is_string()) {
    answer.token = std::string(token->get_string());
  }
  if (const auto* messages = object.if_contains("messages"); messages != nullptr && messages->is_array()) {
    for (const auto& message : messages->get_array()) {
      if (message.is_string()) {
        answer.messages.emplace_back(message.get_string());
      }
    }
  }
  return answer;
}

TransportError errorWith(std::string description) {
  return {boost::system::errc::make_error_code(boost::system::errc::connection_aborted), std::move(description)};
}

}  // namespace

boost::urls::url LongPollTransport::longPollUrl(boost::urls::url_view endpoint) {
  boost::urls::url url(endpoint);
  if (url.scheme() == "ws") {
    url.set_scheme("http");
  } else if (url.scheme() == "wss") {
    url.set_scheme("https");
  }
  std::string path(url.encoded_path());
  if (const auto at = path.rfind("websocket"); at != std::string::npos) {
    path.replace(at, 9, "longpoll");
  } else {
    path += path.empty() || path.back() != '/' ? "/longpoll" : "longpoll";
  }
  url.set_encoded_path(path);
  return url;
}

std::shared_ptr<LongPollTransport> LongPollTransport::make(boost::urls::url_view url,
                                                           URLSessionConfiguration configuration) {
  return std::make_shared<LongPollTransport>(longPollUrl(url), std::move(configuration));
}

LongPollTransport::LongPollTransport(boost::urls::url url, URLSessionConfiguration configuration)
    : url_(std::move(url)) {
  options_.useSystemTrustStore = configuration.useSystemTrustStore;
  options_.additionalCertificateAuthorities = configuration.additionalCertificateAuthorities;
  options_.timeout = configuration.handshakeTimeout;
  options_.proxy = configuration.proxy;
  options_.allowPlainHttp = true;
  if (url_.scheme() == "https") {
    // One TLS set-up for the many requests of the connection.
    boost::system::error_code ignored;
    options_.tls = platform::makeTlsClientContext(options_.useSystemTrustStore,
                                                  options_.additionalCertificateAuthorities, ignored);
  }
  pollOptions_ = options_;
  pollOptions_.timeout = configuration.handshakeTimeout + serverPollTime;
}

std::shared_ptr<PhoenixTransportDelegate> LongPollTransport::delegate() const {
  std::lock_guard lock(delegateMutex_);
  return delegate_;
}

void LongPollTransport::setDelegate(std::shared_ptr<PhoenixTransportDelegate> delegate) {
  std::lock_guard lock(delegateMutex_);
  delegate_ = std::move(delegate);
}

void LongPollTransport::setSubprotocols(std::vector<std::string> subprotocols) {
  EventLoop::main().sync([&] {
    authToken_.reset();
    for (const auto& offered : subprotocols) {
      if (offered.rfind(tokenPrefix, 0) == 0) {
        authToken_ = platform::base64Decode(std::string_view(offered).substr(tokenPrefix.size()));
      }
    }
  });
}

void LongPollTransport::connect() {
  EventLoop::main().dispatch([self = shared_from_this()] {
    const auto generation = ++self->generation_;
    const auto& token = self->authToken_;
    if (token && std::any_of(token->begin(), token->end(), [](char c) {
          const auto byte = static_cast<unsigned char>(c);
          return (byte < 0x20 && byte != '\t') || byte == 0x7f;
        })) {
      // Control characters cannot travel in an HTTP header, where long-poll
      // sends the token.
      self->readyState_ = PhoenixTransportReadyState::connecting;
      return EventLoop::main().post([self] { self->fail("the auth token has control characters, which an HTTP header cannot carry", std::nullopt); });
    }
    self->token_.clear();
    self->pollConnection_ = platform::makeHttpConnection();
    self->sendConnection_ = platform::makeHttpConnection();
    self->queue_.clear();
    self->sending_ = false;
    self->buffered_ = 0;
    self->readyState_ = PhoenixTransportReadyState::connecting;
    self->request("GET", {}, false, [self, generation](const HttpOutcome& outcome) {
      if (generation == self->generation_) {
        self->opened(outcome);
      }
    });
  });
}

void LongPollTransport::disconnect(int code, std::optional<std::string> /*reason*/) {
  EventLoop::main().dispatch([self = shared_from_this(), code] {
    if (self->readyState_ == PhoenixTransportReadyState::closed) {
      return;
    }
    // Nothing more is polled or sent; answers still on their way are stale.
    ++self->generation_;
    self->readyState_ = PhoenixTransportReadyState::closed;
    self->pollConnection_.reset();  // kept connections close; requests in flight finish on their own
    self->sendConnection_.reset();
    self->queue_.clear();
    self->buffered_ = 0;
    EventLoop::main().post([self, code] {
      if (auto delegate = self->delegate()) {
        delegate->onClose(code);
      }
    });
  });
}

void LongPollTransport::send(std::string data) {
  buffered_ += data.size();
  EventLoop::main().dispatch([self = shared_from_this(), data = std::move(data)]() mutable {
    if (self->readyState_ != PhoenixTransportReadyState::open) {
      self->buffered_ -= data.size();
      return;
    }
    self->queue_.push_back(std::move(data));
    self->flush();
  });
}

std::string LongPollTransport::urlWithToken() const {
  boost::urls::url url(url_);
  if (!token_.empty()) {
    url.params().set("token", token_);
  }
  return std::string(url.buffer());
}

void LongPollTransport::request(const std::string& method, std::string body, bool ndjson,
                                std::function<void(const HttpOutcome&)> done) {
  platform::HttpRequest request;
  request.method = method;
  request.url = urlWithToken();
  request.headers.emplace_back("accept", "application/json");
  if (authToken_) {
    request.headers.emplace_back("x-phoenix-authtoken", *authToken_);
  }
  if (method == "POST") {
    request.headers.emplace_back("content-type", ndjson ? "application/x-ndjson" : "application/json");
    request.body = std::move(body);
  }
  const bool polling = method == "GET" && !token_.empty();
  auto options = polling ? pollOptions_ : options_;
  options.keepAlive = method == "POST" ? sendConnection_ : pollConnection_;
  platform::sendHttpRequest(EventLoop::main().context(), std::move(request), options, std::move(done));
}

void LongPollTransport::opened(const HttpOutcome& outcome) {
  if (!outcome.succeeded()) {
    return fail(outcome.failure, std::nullopt);
  }
  if (outcome.status != 200) {
    return fail("the long-poll endpoint answered HTTP " + std::to_string(outcome.status), outcome.status);
  }
  const auto answer = readAnswer(outcome.body);
  if (answer && answer->status == 403) {
    return fail("the server refused the connection", 403);
  }
  if (!answer || answer->status != 410 || !answer->token) {
    return fail("the long-poll endpoint did not open a session", std::nullopt);
  }
  token_ = *answer->token;
  readyState_ = PhoenixTransportReadyState::open;
  if (auto delegate = this->delegate()) {
    delegate->onOpen();
  }
  if (readyState_ == PhoenixTransportReadyState::open) {
    poll();
    flush();
  }
}

void LongPollTransport::poll() {
  const auto generation = generation_;
  request("GET", {}, false, [self = shared_from_this(), generation](const HttpOutcome& outcome) {
    if (generation == self->generation_) {
      self->polled(outcome);
    }
  });
}

void LongPollTransport::polled(const HttpOutcome& outcome) {
  if (!outcome.succeeded()) {
    return fail("the poll failed: " + outcome.failure, std::nullopt);
  }
  const auto answer = outcome.status == 200 ? readAnswer(outcome.body) : std::nullopt;
  if (!answer) {
    return fail("the poll got an unreadable answer (HTTP " + std::to_string(outcome.status) + ")", std::nullopt);
  }
  switch (answer->status) {
    case 200: {
      const auto generation = generation_;
      const auto delegate = this->delegate();
      for (const auto& message : answer->messages) {
        // A message may make the socket close this transport.
        if (generation != generation_) {
          return;
        }
        if (delegate) {
          delegate->onMessage(message);
        }
      }
      if (generation != generation_) {
        return;
      }
      [[fallthrough]];
    }
    case 204:
    case 408:
      if (answer->token) {
        token_ = *answer->token;
      }
      return poll();
    case 403:
      return fail("the server refused the session", 403);
    case 410:
      return fail("the server ended the long-poll session", std::nullopt);
    default:
      return fail("the poll got status " + std::to_string(answer->status), std::nullopt);
  }
}

void LongPollTransport::flush() {
  if (sending_ || queue_.empty() || readyState_ != PhoenixTransportReadyState::open) {
    return;
  }
  sendingBody_.clear();
  sendingBytes_ = 0;
  sendingSeveral_ = queue_.size() > 1;
  for (auto& frame : queue_) {
    sendingBytes_ += frame.size();
    if (!sendingBody_.empty()) {
      sendingBody_ += '\n';
    }
    sendingBody_ += frame;
  }
  queue_.clear();
  sending_ = true;
  post();
}

void LongPollTransport::post() {
  const auto generation = generation_;
  request("POST", sendingBody_, sendingSeveral_, [self = shared_from_this(), generation](const HttpOutcome& outcome) {
    if (generation == self->generation_) {
      self->sent(outcome);
    }
  });
}

void LongPollTransport::sent(const HttpOutcome& outcome) {
  const auto answer = outcome.succeeded() && outcome.status == 200 ? readAnswer(outcome.body) : std::nullopt;
  if (answer && answer->status == 408) {
    // The server timed the request out before acting on it: the same frames again.
    return post();
  }
  sending_ = false;
  buffered_ -= sendingBytes_;
  sendingBody_.clear();
  if (!outcome.succeeded()) {
    return fail("sending failed: " + outcome.failure, std::nullopt);
  }
  if (!answer) {
    return fail("sending got an unreadable answer (HTTP " + std::to_string(outcome.status) + ")", std::nullopt);
  }
  if (answer->status == 200) {
    return flush();
  }
  if (answer->status == 403) {
    return fail("the server refused the session", 403);
  }
  fail(answer->status == 410 ? "the server ended the long-poll session"
                             : "sending got status " + std::to_string(answer->status),
       std::nullopt);
}

void LongPollTransport::fail(const std::string& description, std::optional<int> httpStatus) {
  if (readyState_ == PhoenixTransportReadyState::closed) {
    return;
  }
  ++generation_;
  readyState_ = PhoenixTransportReadyState::closed;
  pollConnection_.reset();
  sendConnection_.reset();
  queue_.clear();
  buffered_ = 0;
  auto delegate = this->delegate();
  if (!delegate) {
    return;
  }
  std::optional<HttpResponse> response;
  if (httpStatus) {
    response = HttpResponse{*httpStatus, {}, {}, {}};
  }
  delegate->onError(errorWith(description), response);
  delegate->onClose(999);
}

}  // namespace vantor::realtime
