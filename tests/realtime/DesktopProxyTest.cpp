// The desktop's own proxy settings, for an application that does not see a
// shell's proxy variables: GNOME's, kept in a private dconf on a private
// session bus (dbus-run-session) and read through libproxy. Through
// tinyproxy, and through the upgrade-refusing proxy with the fallback.
#include <gtest/gtest.h>

#include <cstdlib>

#include "ChildProcess.hpp"
#include "ScratchDirectory.hpp"
#include "support/Eventually.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/FallbackTransport.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"
#include "vantor/testing/TinyProxy.hpp"
#include "vantor/testing/UpgradeRefusingProxy.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using account::testing::ChildProcess;
using account::testing::runToCompletion;
using testing::eventually;
using vantor::testing::PhoenixTestServer;

// A GNOME session's settings: a private bus whose dconf writes under a
// scratch XDG_CONFIG_HOME, and the variables that make libproxy read them.
class GnomeProxySettings : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("XDG_CONFIG_HOME", scratch_.path().c_str(), 1);  // before the bus starts dconf
    bus_.emplace(std::vector<std::string>{"dbus-run-session", "--", "sh", "-c", "echo $DBUS_SESSION_BUS_ADDRESS; exec cat"});
    const auto address = bus_->readLine(30s);
    ASSERT_TRUE(address && !address->empty());
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address->c_str(), 1);
    ::setenv("GSETTINGS_BACKEND", "dconf", 1);
    ::setenv("XDG_CURRENT_DESKTOP", "GNOME", 1);
    ::setenv("DESKTOP_SESSION", "gnome", 1);
    for (const char* name : {"http_proxy", "https_proxy", "no_proxy", "HTTP_PROXY", "HTTPS_PROXY", "NO_PROXY"}) {
      ::unsetenv(name);
    }
  }

  // The HTTP proxy in GNOME's settings; loopback is not exempt.
  void useProxy(std::uint16_t port) {
    for (const std::vector<std::string>& setting :
         {std::vector<std::string>{"org.gnome.system.proxy", "mode", "manual"},
          {"org.gnome.system.proxy.http", "host", "127.0.0.1"},
          {"org.gnome.system.proxy.http", "port", std::to_string(port)},
          {"org.gnome.system.proxy", "ignore-hosts", "[]"}}) {
      auto done = runToCompletion({"gsettings", "set", setting[0], setting[1], setting[2]}, 30s);
      ASSERT_TRUE(done && done->status == 0) << "gsettings set " << setting[1];
    }
  }

  account::testing::ScratchDirectory scratch_{"vantor-gnome-proxy"};
  std::optional<ChildProcess> bus_;
  PhoenixTestServer server_;
};

TEST_F(GnomeProxySettings, ASocketConnectsThroughTheProxyTheDesktopNames) {
  vantor::testing::TinyProxy proxy;
  useProxy(proxy.port());
  auto socket = Socket::make(server_.url());  // the default configuration
  ASSERT_TRUE(URLSessionConfiguration().proxy.asksDesktop());
  auto channel = socket->channel("room:1");
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); })) << proxy.log();
  EXPECT_GE(proxy.tunnelsOpened(), 1u) << "connected around the proxy";
  socket->disconnect();
}

TEST_F(GnomeProxySettings, BehindAnUpgradeRefusingProxyTheFallbackGoesToLongPoll) {
  vantor::testing::UpgradeRefusingProxy proxy({.targetPort = server_.port()});
  useProxy(proxy.port());
  auto choice = std::make_shared<FallbackTransport::Choice>();
  auto socket = Socket::make(server_.url(), FallbackTransport::factory({}, choice));
  auto channel = socket->channel("room:1");
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  EXPECT_TRUE(choice->longPoll);
  EXPECT_EQ(proxy.upgradesRefused(), 1u);
  EXPECT_GE(proxy.requestsPassed(), 2u);
  socket->disconnect();
}

}  // namespace
}  // namespace vantor::realtime
