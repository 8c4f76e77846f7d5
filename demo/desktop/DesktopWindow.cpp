#include "DesktopWindow.hpp"

#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QVBoxLayout>
#include <boost/json/serialize.hpp>
#include <vantor/platform/SystemEvents.hpp>
#include <vantor/realtime/Defaults.hpp>
#include <vantor/realtime/Push.hpp>
#include <vantor/realtime/URLSessionTransport.hpp>

#include "SignInPanel.hpp"

namespace vantor::desktop {

namespace {

using namespace vantor::realtime;

QString text(const Payload& payload, const char* key) {
  const auto* value = payload.if_contains(key);
  if (value == nullptr) {
    return {};
  }
  return QString::fromStdString(value->is_string() ? std::string(value->get_string())
                                                   : boost::json::serialize(*value));
}

// Runs `f` only while the window exists: a callback of the library may come
// after the window has gone (a push's time-out, a late close).
template <class F>
auto whileAlive(QWidget* window, F f) {
  return [window = QPointer<QWidget>(window), f = std::move(f)](auto&&... args) {
    if (window) {
      f(std::forward<decltype(args)>(args)...);
    }
  };
}

}  // namespace

DesktopWindow::DesktopWindow(RoomSettings settings, SignInPanel* signIn)
    : settings_(std::move(settings)),
      indicator_(new ConnectionIndicator(this)),
      people_(new QListWidget(this)),
      messages_(new QListWidget(this)),
      input_(new QLineEdit(this)),
      sendButton_(new QPushButton("Send", this)) {
  setWindowTitle(QString::fromStdString("Vantor desktop sample: " + settings_.topic));
  people_->setObjectName("presence");
  messages_->setObjectName("messages");
  input_->setObjectName("input");
  sendButton_->setObjectName("send");
  input_->setPlaceholderText(QString::fromStdString("Message " + settings_.topic + " as " + settings_.user));
  people_->setMaximumWidth(200);

  auto* top = new QHBoxLayout;
  top->addWidget(indicator_);
  top->addStretch();
  if (signIn != nullptr) {
    signIn->setParent(this);
    top->addWidget(signIn);
  }
  auto* room = new QVBoxLayout;
  room->addWidget(new QLabel(QString::fromStdString(settings_.topic), this));
  room->addWidget(messages_);
  auto* present = new QVBoxLayout;
  present->addWidget(new QLabel("In the room", this));
  present->addWidget(people_);
  auto* middle = new QHBoxLayout;
  middle->addLayout(room, 3);
  middle->addLayout(present, 1);
  auto* bottom = new QHBoxLayout;
  bottom->addWidget(input_);
  bottom->addWidget(sendButton_);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(top);
  layout->addLayout(middle);
  layout->addLayout(bottom);
  resize(720, 440);

  QObject::connect(input_, &QLineEdit::returnPressed, this, [this] { send(); });
  QObject::connect(sendButton_, &QPushButton::clicked, this, [this] { send(); });

  URLSessionConfiguration configuration;
  if (!settings_.useProxy) {
    configuration.proxy = platform::ProxySettings::none();
  }
  configuration.additionalCertificateAuthorities = settings_.certificateAuthorities;
  socket_ = Socket::make(settings_.url, [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
    return URLSessionTransport::make(url, configuration);
  });
  socket_->setDropsMalformedInput(true);
  // The default back-off, noting when the next attempt comes for the countdown.
  socket_->setReconnectAfter([window = QPointer<DesktopWindow>(this)](std::int64_t tries) {
    const double seconds = Defaults::reconnectSteppedBackOff(tries);
    if (window) {
      window->nextAttempt_ = ConnectionIndicator::Clock::now() +
                             std::chrono::duration_cast<ConnectionIndicator::Clock::duration>(
                                 std::chrono::duration<double>(seconds));
    }
    return seconds;
  });
  socket_->onOpen(whileAlive(this, [this] {
    nextAttempt_.reset();
    indicator_->showConnected();
  }));
  socket_->onClose(whileAlive(this, [this] { showClosed(); }));
  // While the desktop reports no connectivity the socket makes no attempts.
  platform::SystemEvents::shared().subscribe([window = QPointer<DesktopWindow>(this)](const platform::SystemEvents::Event& event) {
    if (!window) {
      return false;
    }
    if (event.kind == platform::SystemEvents::Kind::offline && !window->socket_->isConnected()) {
      window->indicator_->showOffline();
    } else if (event.kind == platform::SystemEvents::Kind::online && !window->socket_->isConnected()) {
      window->indicator_->showConnecting();
    }
    return true;
  });

  channel_ = socket_->channel(settings_.topic, {{"user_id", settings_.user}});
  channel_->on(settings_.event, whileAlive(this, [this](const Message& message) { showMessage(message.payload()); }));
  presence_ = Presence::make(channel_);
  presence_->onSync(whileAlive(this, [this] { showPresence(); }));
}

DesktopWindow::~DesktopWindow() {
  // No callback reaches the widgets from here on, and the connection closes.
  socket_->releaseCallbacks();
  socket_->disconnect();
}

void DesktopWindow::start() {
  channel_->join();
  socket_->connect();
}

void DesktopWindow::send() {
  const auto body = input_->text().trimmed();
  if (body.isEmpty()) {
    return;
  }
  input_->clear();
  channel_->push(settings_.event, {{"user", settings_.user}, {"body", body.toStdString()}})
      ->receive("error", whileAlive(this, [this](const Message& reply) {
        messages_->addItem("(not sent: " + text(reply.payload(), "response") + ")");
      }))
      ->receive("timeout", whileAlive(this, [this](const Message&) {
        messages_->addItem("(not sent: no answer from the server)");
      }));
}

void DesktopWindow::showPresence() {
  people_->clear();
  for (const auto& [name, entry] : presence_->state()) {
    people_->addItem(QString::fromStdString(name));
  }
}

void DesktopWindow::showMessage(const Payload& payload) {
  messages_->addItem(text(payload, "user") + ": " + text(payload, "body"));
  messages_->scrollToBottom();
}

void DesktopWindow::showClosed() {
  const auto status = socket_->closeStatus();
  const bool retrying = status == Socket::CloseStatus::unknown || status == Socket::CloseStatus::abnormal;
  if (platform::SystemEvents::shared().isOffline()) {
    indicator_->showOffline();
  } else if (nextAttempt_ && *nextAttempt_ > ConnectionIndicator::Clock::now()) {
    indicator_->showReconnecting(*nextAttempt_);
  } else if (retrying) {
    indicator_->showConnecting();
  } else {
    indicator_->showOffline();
  }
}

}  // namespace vantor::desktop
