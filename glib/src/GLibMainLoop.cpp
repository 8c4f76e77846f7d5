#include "vantor/glib/GLibMainLoop.hpp"

#include <glib-unix.h>
#include <glib.h>

namespace vantor::glib {

GLibMainLoop::GLibMainLoop(GMainContext* context, std::chrono::microseconds turnBudget)
    : context_(context != nullptr ? g_main_context_ref(context) : g_main_context_ref(g_main_context_default())),
      turns_(turnBudget) {
  watch_ = g_unix_fd_source_new(turns_.descriptor(), G_IO_IN);
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
  if (turns_.run()) {
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
