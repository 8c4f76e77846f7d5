// vantor-desktop-demo: a Qt Widgets window on one room of the service, with
// the library running inside Qt's main loop.
//
//   vantor-desktop-demo [--user NAME]
//       against a server it starts on loopback, with a local OpenID provider
//       behind the "Sign in" button (headless Chromium fills in its pages)
//   vantor-desktop-demo --url URL [--topic TOPIC] [--event EVENT] [--ca FILE] [--user NAME]
//       against a real server
//   ... --screenshot FILE
//       without a display: joins, waits until NAME is in the room, sends one
//       message, saves a PNG of the window to FILE and exits; exits 1 with the
//       reason when a step does not happen within 20 s
#include <QApplication>
#include <QTextStream>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vantor/account/QMHostApplication.hpp>
#include <vantor/account/QMOAuthAccountManager.hpp>
#include <vantor/account/QMQuelmoConnectController.hpp>
#include <vantor/qt/QtMainLoop.hpp>
#include <vantor/testing/PhoenixTestServer.hpp>

#include "DesktopWindow.hpp"
#include "LocalSignIn.hpp"
#include "ScratchDirectory.hpp"
#include "ScreenshotRun.hpp"
#include "SignInPanel.hpp"

namespace {

using namespace vantor;

struct Options {
  desktop::RoomSettings room;
  std::optional<std::string> screenshot;
};

[[noreturn]] void usage(int status) {
  std::cerr << "usage: vantor-desktop-demo [--url URL] [--topic TOPIC] [--event EVENT] [--ca FILE]\n"
               "                           [--user NAME] [--screenshot FILE]\n"
               "Without --url it starts a local server and OpenID provider.\n"
               "With --screenshot it runs without a display and saves a PNG of the window.\n";
  std::exit(status);
}

Options parse(int argc, char** argv) {
  Options options;
  const char* user = std::getenv("USER");
  options.room.user = user != nullptr && *user != '\0' ? user : "you";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      usage(0);
    }
    if (i + 1 >= argc) {
      usage(2);
    }
    const std::string value = argv[++i];
    if (arg == "--url") {
      options.room.url = value;
    } else if (arg == "--topic") {
      options.room.topic = value;
    } else if (arg == "--event") {
      options.room.event = value;
    } else if (arg == "--user") {
      options.room.user = value;
    } else if (arg == "--screenshot") {
      options.screenshot = value;
    } else if (arg == "--ca") {
      std::ifstream in(value);
      std::stringstream pem;
      pem << in.rdbuf();
      if (!in) {
        std::cerr << "cannot read " << value << "\n";
        std::exit(2);
      }
      options.room.certificateAuthorities.push_back(pem.str());
    } else {
      usage(2);
    }
  }
  if (!options.room.url.empty()) {
    if (auto why = realtime::Socket::checkEndpoint(options.room.url)) {
      std::cerr << options.room.url << ": " << *why << "\n";
      std::exit(2);
    }
  }
  return options;
}

// The account layer as the application sets it up at start, for the local
// provider; its throw-away account stays out of the desktop's keyring.
void configureSignIn(const std::string& issuer, const account::testing::LocalOpenIdProvider::Options& client) {
  account::QMHostApplication::setName("Vantor desktop sample");
  account::QMHostApplication::setBundleIdentifier("com.vantor.desktop-demo");
  account::QMOAuthServiceConfiguration service;
  service.issuer = issuer;
  service.scopes = {"openid", "email", "offline_access"};
  service.additionalAuthorizationParameters = {{"prompt", "consent"}};
  service.useSecretService = false;
  account::QMOAuthAccountManager::install(std::move(service));
  account::QMQuelmoConnectController::setClientId(client.clientId);
  account::QMQuelmoConnectController::setClientSecret(client.clientSecret);
  account::QMQuelmoConnectController::setRedirectURI(client.redirectURI);
  account::QMQuelmoConnectController::shared().load();
}

}  // namespace

int main(int argc, char** argv) {
  auto options = parse(argc, argv);
  if (options.screenshot) {
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
  } else if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr &&
             std::getenv("QT_QPA_PLATFORM") == nullptr) {
    std::cerr << "No display to open the window on. Without one, run it with --screenshot FILE.\n";
    return 2;
  }
  QApplication application(argc, argv);
  qt::QtMainLoop loop;  // before anything else uses the library

  std::optional<testing::PhoenixTestServer> server;
  if (options.room.url.empty()) {
    server.emplace();
    options.room.url = server->url();
    options.room.useProxy = false;  // the server is on this machine
    std::cout << "Local server at " << options.room.url << "\n";
  }

  // The local provider behind "Sign in", with the account kept in a scratch folder.
  std::optional<account::testing::ScratchDirectory> configHome;
  std::optional<account::testing::LocalOpenIdProvider> provider;
  account::testing::LocalOpenIdProvider::Options client;
  client.redirectURI = "http://127.0.0.1/qmaccounts/quelmoconnect";  // a loopback listener per sign-in
  try {
    configHome.emplace("vantor-desktop-demo");
    ::setenv("XDG_CONFIG_HOME", configHome->path().c_str(), 1);
    provider.emplace(client);
    configureSignIn(provider->issuer(), client);
    std::cout << "Local OpenID provider at " << provider->issuer() << "\n";
  } catch (const std::exception& e) {
    std::cerr << "No sign-in: " << e.what() << " (run `make setup`?)\n";
    provider.reset();
  }

  auto* signIn = provider ? new desktop::SignInPanel(options.room.user) : nullptr;
  desktop::DesktopWindow window(options.room, signIn);
  window.show();
  window.start();

  std::optional<desktop::ScreenshotRun> run;
  if (options.screenshot) {
    const QString file = QString::fromStdString(*options.screenshot);
    run.emplace(window, QString::fromStdString(options.room.user), file, std::chrono::seconds(20),
                [file](int status, const QString& reason) {
                  if (status == 0) {
                    std::cout << "Saved " << file.toStdString() << "\n";
                  } else {
                    std::cerr << reason.toStdString() << "\n";
                  }
                  QApplication::exit(status);
                });
  }
  return QApplication::exec();
}
