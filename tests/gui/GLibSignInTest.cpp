// A sign-in through the account controller inside a real GLib main loop:
// against the local OpenID provider in headless Chromium, the published
// account, the controller's change notifications and the promise's
// continuation all arrive on the loop's thread.
#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/signals2/connection.hpp>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vantor/account/QMQuelmoConnectController.hpp>
#include <vantor/account/QMWorkspace.hpp>

#include "LocalSignIn.hpp"
#include "ScratchDirectory.hpp"
#include "vantor/glib/GLibMainLoop.hpp"

namespace vantor::account {
namespace {

// Iterates the default main context until `done()` or a minute passed.
bool pump(const std::function<bool()>& done) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!done() && std::chrono::steady_clock::now() < limit) {
    g_main_context_iteration(nullptr, TRUE);
  }
  return done();
}

TEST(GLibSignIn, TheSignedInAccountArrivesOnTheLoopThread) {
  glib::GLibMainLoop loop;
  const guint tick = g_timeout_add(20, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  testing::ScratchDirectory configHome("vantor-glib-signin");
  ::setenv("XDG_CONFIG_HOME", configHome.path().c_str(), 1);
  // The default browser is the test: it keeps the page that login() opens.
  std::deque<std::string> opened;
  QMWorkspace::setOpener([&opened](const std::string& url) {
    opened.push_back(url);  // on the loop thread: the controller opens it there
    return true;
  });
  testing::LocalOpenIdProvider provider(testing::LocalOpenIdProvider::Options{});
  testing::configureTestApplication(provider.issuer(), provider.options());
  auto& controller = QMQuelmoConnectController::shared();

  const auto gui = std::this_thread::get_id();
  std::atomic<int> offThread{0};
  int changes = 0;
  boost::signals2::scoped_connection watching = controller.objectWillChange().connect([&] {
    if (std::this_thread::get_id() != gui) {
      ++offThread;
    }
    ++changes;
  });
  std::shared_ptr<QMAccount> signedIn;
  bool settled = false;
  controller.login().pipe([&](const util::QMPromiseResult<std::shared_ptr<QMAccount>>& result) {
    if (std::this_thread::get_id() != gui) {
      ++offThread;
    }
    settled = true;
    if (result.isFulfilled()) {
      signedIn = result.value();
    }
  });
  ASSERT_TRUE(pump([&] { return !opened.empty(); })) << "login() opened no page";
  const auto redirect = testing::signInWithHeadlessBrowser(opened.front(), "com.vantor.signin-test:", "alice");
  ASSERT_TRUE(redirect) << "the browser brought no redirect back";
  controller.handleOAuthResponse(*redirect);  // from the GUI thread, as the URL-scheme hand-off does
  ASSERT_TRUE(pump([&] { return settled; }));
  ASSERT_NE(signedIn, nullptr);
  EXPECT_EQ(signedIn->identifier(), "alice");
  EXPECT_EQ(controller.account(), signedIn);
  EXPECT_GE(changes, 1);
  EXPECT_EQ(offThread.load(), 0) << "notifications or continuations off the loop thread";
  controller.logout();
  g_source_remove(tick);
}

}  // namespace
}  // namespace vantor::account
