#pragma once

#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QWidget>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include <vantor/realtime/Channel.hpp>
#include <vantor/realtime/Presence.hpp>
#include <vantor/realtime/Socket.hpp>

#include "ConnectionIndicator.hpp"

namespace vantor::desktop {

class SignInPanel;

/// Where the window connects and who it is there.
struct RoomSettings {
  std::string url;  ///< the socket's endpoint, e.g. ws://127.0.0.1:4000/socket
  std::string topic = "room:lobby";
  std::string user;                  ///< joins as {"user_id": user}
  std::string event = "broadcast";   ///< the event of the room's messages, sent and shown
  std::vector<std::string> certificateAuthorities = {};  ///< further trusted authorities, PEM text
  bool useProxy = true;  ///< false: connect directly, whatever the environment says
};

/// One room of the service in one window: the connection indicator, the
/// people present, the room's messages with an input line, and sign-in.
/// Everything runs on the GUI thread: the library's callbacks land here
/// through the Qt main-loop integration, and update the widgets directly.
class DesktopWindow : public QWidget {
 public:
  /// `signIn` goes in the top right corner; the window takes it.
  explicit DesktopWindow(RoomSettings settings, SignInPanel* signIn = nullptr);
  ~DesktopWindow() override;

  /// Connects and joins the room.
  void start();

 private:
  void send();
  void showPresence();
  void showMessage(const realtime::Payload& payload);
  void showClosed();

  RoomSettings settings_;
  ConnectionIndicator* indicator_;
  QListWidget* people_;
  QListWidget* messages_;
  QLineEdit* input_;
  QPushButton* sendButton_;
  std::shared_ptr<realtime::Socket> socket_;
  std::shared_ptr<realtime::Channel> channel_;
  std::shared_ptr<realtime::Presence> presence_;
  // When the socket's reconnect timer fires next, read off its back-off.
  std::optional<ConnectionIndicator::Clock::time_point> nextAttempt_;
};

}  // namespace vantor::desktop
