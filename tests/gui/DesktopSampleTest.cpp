// The Qt Widgets sample, driven as a user would on the offscreen platform:
// its screenshot run, then a server restart with the reconnect countdown, and
// the "Sign in" button against the local OpenID provider in headless
// Chromium. The checks read the widgets, not pixels.
#include <gtest/gtest.h>

#include <QApplication>
#include <QEventLoop>
#include <QFile>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QTimer>
#include <atomic>
#include <boost/signals2/connection.hpp>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <thread>
#include <vantor/account/QMHostApplication.hpp>
#include <vantor/account/QMQuelmoConnectController.hpp>

#include "DesktopWindow.hpp"
#include "LocalSignIn.hpp"
#include "ScratchDirectory.hpp"
#include "ScreenshotRun.hpp"
#include "SignInPanel.hpp"
#include "vantor/qt/QtMainLoop.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::desktop {
namespace {

using namespace std::chrono_literals;

bool pump(const std::function<bool()>& done, std::chrono::seconds limit = 20s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < end) {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
  }
  return done();
}

TEST(DesktopSample, ShowsTheRoomRecoversFromARestartAndSignsIn) {
  ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
  int argc = 1;
  char name[] = "desktop_sample_tests";
  char* argv[] = {name, nullptr};
  QApplication application(argc, argv);
  qt::QtMainLoop loop;
  QTimer tick;  // wakes the waits now and then, so that a missing step fails instead of hanging
  tick.start(20);

  account::testing::ScratchDirectory scratch("vantor-desktop-sample-test");
  ::setenv("XDG_CONFIG_HOME", scratch.path().c_str(), 1);
  account::testing::LocalOpenIdProvider provider({.redirectURI = "http://127.0.0.1/qmaccounts/quelmoconnect"});
  account::testing::configureTestApplication(provider.issuer(), provider.options());

  std::optional<testing::PhoenixTestServer> server(std::in_place);
  const auto port = server->port();
  RoomSettings room{.url = server->url(), .user = "alice", .useProxy = false};
  DesktopWindow window(room, new SignInPanel("alice"));
  window.show();
  window.start();
  const auto* indicator = window.findChild<QLabel*>("indicator");
  const auto* people = window.findChild<QListWidget*>("presence");
  const auto* messages = window.findChild<QListWidget*>("messages");
  auto present = [&](const char* who) { return !people->findItems(who, Qt::MatchExactly).isEmpty(); };

  // The screenshot run: alice is present, her message is shown, a PNG is written.
  const QString file = QString::fromStdString((scratch.path() / "window.png").string());
  std::optional<int> status;
  QString reason;
  ScreenshotRun run(window, "alice", file, 20s, [&](int code, const QString& why) {
    status = code;
    reason = why;
  });
  ASSERT_TRUE(pump([&] { return status.has_value(); }));
  ASSERT_EQ(*status, 0) << reason.toStdString();
  EXPECT_TRUE(QFile::exists(file));
  EXPECT_EQ(indicator->text(), "connected");
  EXPECT_TRUE(present("alice"));
  EXPECT_FALSE(messages->findItems("alice: " + run.message(), Qt::MatchExactly).isEmpty());

  // The server goes away: the indicator counts down to the next attempt.
  server.reset();
  EXPECT_TRUE(pump([&] { return indicator->text().startsWith("reconnecting in "); }))
      << "indicator shows " << indicator->text().toStdString();
  // It comes back on the same port: connected, and alice has rejoined the room.
  // (Waits here pump the GUI loop, which runs the library: never block it.)
  server.emplace(testing::PhoenixTestServer::Options{.port = port});
  EXPECT_TRUE(pump([&] { return indicator->text() == "connected" && server->memberCount("room:lobby") == 1; }))
      << "indicator shows " << indicator->text().toStdString();

  // "Sign in": the account and the controller's notifications arrive on the GUI thread.
  const auto gui = std::this_thread::get_id();
  std::atomic<int> offThread{0};
  boost::signals2::scoped_connection watching =
      account::QMQuelmoConnectController::shared().objectWillChange().connect([&] {
        if (std::this_thread::get_id() != gui) {
          ++offThread;
        }
      });
  const auto* account = window.findChild<QLabel*>("account");
  EXPECT_EQ(account->text(), "not signed in");
  window.findChild<QPushButton*>("signIn")->click();
  EXPECT_TRUE(pump([&] { return account->text() == "signed in as alice"; }, 60s))
      << "the account label shows " << account->text().toStdString();
  EXPECT_EQ(offThread.load(), 0);
  account::QMQuelmoConnectController::shared().logout();
}

}  // namespace
}  // namespace vantor::desktop
