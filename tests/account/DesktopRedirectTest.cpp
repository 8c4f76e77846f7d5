// The sign-in's redirect coming back to the application by itself, against
// the local OpenID provider in headless Chromium, whose script only fills in
// the provider's pages: through the loopback listener, and through the
// application's URL scheme, xdg-open and a second copy of the application.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/url/parse.hpp>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <vantor/account/QMHostApplication.hpp>
#include <vantor/account/QMQuelmoConnectController.hpp>
#include <vantor/account/QMSingleInstance.hpp>
#include <vantor/account/QMURLSchemeRegistration.hpp>
#include <vantor/account/QMWorkspace.hpp>

#include "LocalSignIn.hpp"
#include "SignInWaits.hpp"
#include "ScratchDirectory.hpp"

namespace vantor::account {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Controller = QMQuelmoConnectController;
using Error = QMQuelmoConnectControllerError;
using testing::LocalOpenIdProvider;
using testing::outcomeOf;

constexpr const char* scheme = "com.vantor.signin-test";
constexpr const char* loopbackRedirect = "http://127.0.0.1/qmaccounts/quelmoconnect";

// The status line and body of a GET to 127.0.0.1:port; "" when nothing listens.
std::string get(std::uint16_t port, const std::string& target, const char* address = "127.0.0.1") {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  ::inet_pton(AF_INET, address, &peer.sin_addr);
  std::string response;
  if (::connect(descriptor, reinterpret_cast<sockaddr*>(&peer), sizeof peer) == 0) {
    const std::string request = "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    (void)::send(descriptor, request.data(), request.size(), MSG_NOSIGNAL);
    char buffer[4096];
    for (ssize_t n; (n = ::recv(descriptor, buffer, sizeof buffer, 0)) > 0;) {
      response.append(buffer, static_cast<std::size_t>(n));
    }
  }
  ::close(descriptor);
  return response;
}

std::uint16_t redirectPortOf(const std::string& authorizationURL) {
  auto url = boost::urls::parse_absolute_uri(authorizationURL);
  for (auto param : url->params()) {
    if (param.key == "redirect_uri") {
      auto redirect = boost::urls::parse_absolute_uri(param.value);
      EXPECT_EQ(redirect->host(), "127.0.0.1");
      EXPECT_EQ(redirect->path(), "/qmaccounts/quelmoconnect");
      return redirect->port_number();
    }
  }
  ADD_FAILURE() << "no redirect_uri in " << authorizationURL;
  return 0;
}

std::string run(const std::vector<std::string>& argv, int* status = nullptr) {
  auto done = testing::runToCompletion(argv, 60s);
  if (status != nullptr) {
    *status = done ? done->status : -1;
  }
  return done ? done->output : "";
}

class DesktopRedirectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Every XDG folder is a scratch one; xdg-open takes the generic path,
    // which runs a scheme handler only when a display is named (it needs none).
    for (const char* variable : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"}) {
      auto folder = scratch_.path() / variable;
      fs::create_directories(folder);
      fs::permissions(folder, fs::perms::owner_all);
      ::setenv(variable, folder.c_str(), 1);
    }
    for (const char* variable : {"XDG_CURRENT_DESKTOP", "DESKTOP_SESSION", "KDE_FULL_SESSION", "GNOME_DESKTOP_SESSION_ID"}) {
      ::unsetenv(variable);
    }
    ::setenv("DISPLAY", ":0", 1);
    QMWorkspace::setOpener([this](const std::string& url) {
      browser_.add(url);
      return true;
    });
  }
  void TearDown() override {
    if (provider_) {
      Controller::shared().logout();
    }
  }

  void startProvider(const std::string& redirectURI) {
    provider_.emplace(LocalOpenIdProvider::Options{.redirectURI = redirectURI});
    testing::configureTestApplication(provider_->issuer(), provider_->options());
  }

  testing::ScratchDirectory scratch_{"vantor-desktop-redirect"};
  testing::UrlInbox browser_;
  std::optional<LocalOpenIdProvider> provider_;
};

TEST_F(DesktopRedirectTest, TheLoopbackListenerTakesTheGenuineRedirectOnlyAndThenStops) {
  startProvider(loopbackRedirect);
  auto signIn = Controller::shared().login();
  const auto page = browser_.next();
  ASSERT_TRUE(page);
  const auto port = redirectPortOf(*page);
  ASSERT_NE(port, 0);

  // A probe, a favicon and a forged redirect: the sign-in keeps waiting.
  EXPECT_EQ(get(port, "/favicon.ico").rfind("HTTP/1.1 404", 0), 0u);
  EXPECT_EQ(get(port, "/qmaccounts/quelmoconnect").rfind("HTTP/1.1 400", 0), 0u);
  const auto forged = get(port, "/qmaccounts/quelmoconnect?code=forged&state=forged");
  EXPECT_EQ(forged.rfind("HTTP/1.1 400", 0), 0u);
  EXPECT_NE(forged.find("data-sign-in=\"refused\""), std::string::npos);
  EXPECT_FALSE(signIn.result());

  // Loopback only: the port is closed on the machine's other addresses.
  ifaddrs* interfaces = nullptr;
  ASSERT_EQ(::getifaddrs(&interfaces), 0);
  for (auto* each = interfaces; each != nullptr; each = each->ifa_next) {
    if (each->ifa_addr != nullptr && each->ifa_addr->sa_family == AF_INET) {
      char address[INET_ADDRSTRLEN];
      ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(each->ifa_addr)->sin_addr, address, sizeof address);
      if (std::string(address).rfind("127.", 0) != 0) {
        EXPECT_EQ(get(port, "/favicon.ico", address), "") << "answers on " << address;
      }
    }
  }
  ::freeifaddrs(interfaces);

  EXPECT_EQ(testing::fillInSignInPages(*page, "alice", testing::RedirectHandOff::loopback),
            "PAGE done Signed in");
  ASSERT_EQ(outcomeOf(signIn), std::nullopt);
  EXPECT_EQ(Controller::shared().account()->identifier(), "alice");
  EXPECT_EQ(get(port, "/favicon.ico"), "") << "still listening after the sign-in";
}

TEST_F(DesktopRedirectTest, ASecondSignInReplacesTheWaitingListener) {
  startProvider(loopbackRedirect);
  auto first = Controller::shared().login();
  const auto firstPage = browser_.next();
  ASSERT_TRUE(firstPage);
  const auto firstPort = redirectPortOf(*firstPage);
  auto second = Controller::shared().login();
  const auto secondPage = browser_.next();
  ASSERT_TRUE(secondPage);
  EXPECT_EQ(outcomeOf(first), Error::notLoggedIn);
  EXPECT_EQ(get(firstPort, "/favicon.ico"), "") << "the replaced sign-in still listens";
  EXPECT_EQ(testing::fillInSignInPages(*secondPage, "alice", testing::RedirectHandOff::loopback),
            "PAGE done Signed in");
  EXPECT_EQ(outcomeOf(second), std::nullopt);
}

TEST_F(DesktopRedirectTest, TheSchemeBringsTheRedirectBackThroughASecondCopy) {
  startProvider(std::string(scheme) + ":/qmaccounts/quelmoconnect");
  const auto files = QMURLSchemeRegistration::registerHandler(scheme, {VANTOR_HANDOFF_HELPER, "com.vantor.signin-test"});
  EXPECT_EQ(run({"xdg-mime", "query", "default", std::string("x-scheme-handler/") + scheme}),
            files.desktopEntry.filename().string() + "\n");

  testing::UrlInbox handedOver;
  QMSingleInstance instance([&handedOver](const std::string& url) {
    handedOver.add(url);
    try {
      Controller::shared().handleOAuthResponse(url);
    } catch (const QMQuelmoConnectControllerException&) {
    }
  });
  EXPECT_THROW(QMSingleInstance([](const std::string&) {}), std::runtime_error) << "two running copies";

  auto signIn = Controller::shared().login();
  const auto page = browser_.next();
  ASSERT_TRUE(page);
  // A forged redirect through the desktop reaches the application and changes nothing.
  const std::string forged = std::string(scheme) + ":/qmaccounts/quelmoconnect?code=forged&state=forged";
  int status = -1;
  run({"xdg-open", forged}, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(handedOver.next(), forged);
  EXPECT_FALSE(signIn.result());

  EXPECT_EQ(testing::fillInSignInPages(*page, "alice", testing::RedirectHandOff::scheme, std::string(scheme) + ":"),
            "XDG-OPEN 0");
  ASSERT_EQ(outcomeOf(signIn), std::nullopt);
  EXPECT_EQ(Controller::shared().account()->identifier(), "alice");
  EXPECT_TRUE(handedOver.next());
}

TEST_F(DesktopRedirectTest, WithNoCopyRunningTheNewCopyHandlesTheURLAndUnregisteringUndoesOnlyItsOwn) {
  QMHostApplication::setBundleIdentifier("com.vantor.signin-test");
  // A socket left behind by a copy that crashed: nobody listens on it.
  {
    const auto path = QMSingleInstance::socketPath();
    const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(stale);
  }
  const std::string url = std::string(scheme) + ":/qmaccounts/quelmoconnect?code=c&state=s";
  int status = -1;
  EXPECT_EQ(run({VANTOR_HANDOFF_HELPER, "com.vantor.signin-test", url}, &status), "HANDLED HERE " + url + "\n");
  EXPECT_EQ(status, 3);

  const auto mimeApps = fs::path(std::getenv("XDG_CONFIG_HOME")) / "mimeapps.list";
  std::ofstream(mimeApps) << "[Default Applications]\ntext/html=browser.desktop\n";
  QMURLSchemeRegistration::registerHandler(scheme, {VANTOR_HANDOFF_HELPER});
  const auto files = QMURLSchemeRegistration::registerHandler("other-scheme", {VANTOR_HANDOFF_HELPER});
  QMURLSchemeRegistration::registerHandler(scheme, {VANTOR_HANDOFF_HELPER});  // again: nothing doubles
  auto text = [](const fs::path& path) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
  };
  EXPECT_EQ(text(mimeApps), "[Default Applications]\n"
                            "x-scheme-handler/other-scheme=com.vantor.signin-test.urlhandler.desktop\n"
                            "x-scheme-handler/com.vantor.signin-test=com.vantor.signin-test.urlhandler.desktop\n"
                            "text/html=browser.desktop\n");
  EXPECT_NE(text(files.desktopEntry).find("MimeType=x-scheme-handler/com.vantor.signin-test;x-scheme-handler/other-scheme;\n"),
            std::string::npos);

  EXPECT_TRUE(QMURLSchemeRegistration::unregisterHandler(scheme));
  EXPECT_EQ(run({"xdg-mime", "query", "default", std::string("x-scheme-handler/") + scheme}), "");
  EXPECT_TRUE(fs::exists(files.desktopEntry)) << "the other scheme's registration went too";
  EXPECT_TRUE(QMURLSchemeRegistration::unregisterHandler("other-scheme"));
  EXPECT_FALSE(fs::exists(files.desktopEntry));
  EXPECT_EQ(text(mimeApps), "[Default Applications]\ntext/html=browser.desktop\n");
  EXPECT_FALSE(QMURLSchemeRegistration::unregisterHandler(scheme));
}

}  // namespace
}  // namespace vantor::account
