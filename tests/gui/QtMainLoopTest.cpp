// The library inside a real Qt event loop (QCoreApplication).
#include "vantor/qt/QtMainLoop.hpp"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include "GuiScenario.hpp"

namespace vantor::qt {
namespace {

TEST(QtMainLoop, EveryCallbackRunsOnTheGuiThreadThroughASession) {
  int argc = 1;
  char name[] = "qt_main_loop_tests";
  char* argv[] = {name, nullptr};
  QCoreApplication application(argc, argv);
  QtMainLoop loop;
  // Wakes the wait below now and then, so that a step that never comes
  // fails the test instead of hanging it.
  QTimer tick;
  tick.start(20);
  gui_test::runDesktopSession([](const std::function<bool()>& done) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done() && std::chrono::steady_clock::now() < limit) {
      QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return done();
  });
}

}  // namespace
}  // namespace vantor::qt
