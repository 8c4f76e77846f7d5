#include "vantor/glib/GLibMainLoop.hpp"

#include <glib-unix.h>
#include <glib.h>

#include <algorithm>

#include "vantor/platform/EventLoop.hpp"

namespace vantor::glib {

using platform::EventLoop;

GLibMainLoop::GLibMainLoop(GMainContext* context, std::chrono::microseconds turnBudget)
    : context_(context != nullptr ? g_main_context_ref(context) : g_main_context_ref(g_main_context_default())),
      turnBudget_(turnBudget) {
  EventLoop::useHostThreadForMain();
  const int descriptor = EventLoop::main().readinessDescriptor();
  watch_ = g_unix_fd_source_new(descriptor, G_IO_IN);
  g_source_set_callback(
      watch_,
      G_SOURCE_FUNC(+[](gint, GIOCondition, gpointer self) -> gboolean {
        static_cast<GLibMainLoop*>(self)->turn();
        return G_SOURCE_CONTINUE;
      }),
      this, nullptr);
  g_source_attach(watch_, context_);
  turnAgainSoon();  // whatever was queued before the context runs
}

GLibMainLoop::~GLibMainLoop() {
  g_source_destroy(watch_);
  g_source_unref(watch_);
  if (again_ != nullptr) {
    g_source_destroy(again_);
    g_source_unref(again_);
  }
  g_main_context_unref(context_);
}

void GLibMainLoop::turn() {
  const auto start = std::chrono::steady_clock::now();
  const bool more = EventLoop::main().runReady(turnBudget_);
  ++turns_;
  longestTurn_ = std::max(longestTurn_, std::chrono::steady_clock::now() - start);
  if (more) {
    turnAgainSoon();
  }
}

// More was ready than one turn's budget allowed: go on once the context's
// other ready sources have had their turn.
void GLibMainLoop::turnAgainSoon() {
  if (again_ != nullptr) {
    return;
  }
  again_ = g_idle_source_new();
  g_source_set_callback(
      again_,
      +[](gpointer data) -> gboolean {
        auto* self = static_cast<GLibMainLoop*>(data);
        g_source_unref(self->again_);
        self->again_ = nullptr;
        self->turn();
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
  g_source_attach(again_, context_);
}

}  // namespace vantor::glib
