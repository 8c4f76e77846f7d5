// The library inside a real GLib main loop (the default main context).
#include "vantor/glib/GLibMainLoop.hpp"

#include <glib.h>

#include "GuiScenario.hpp"

namespace vantor::glib {
namespace {

TEST(GLibMainLoop, EveryCallbackRunsOnTheLoopThreadThroughASession) {
  GLibMainLoop loop;
  // Wakes the iteration below now and then, so that a step that never comes
  // fails the test instead of hanging it.
  const guint tick = g_timeout_add(20, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  gui_test::runDesktopSession([](const std::function<bool()>& done) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done() && std::chrono::steady_clock::now() < limit) {
      g_main_context_iteration(nullptr, TRUE);
    }
    return done();
  });
  g_source_remove(tick);
}

}  // namespace
}  // namespace vantor::glib
