// A Qt application whose window the library's callbacks update directly.
#include <QCoreApplication>
#include <cstdio>
#include <vantor/qt/QtMainLoop.hpp>
#include <vantor/realtime/Channel.hpp>
#include <vantor/realtime/Push.hpp>
#include <vantor/realtime/Socket.hpp>

using namespace vantor::realtime;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);   // or QGuiApplication, QApplication
  vantor::qt::QtMainLoop loop;         // before anything else uses the library
  auto socket = Socket::make(argc > 1 ? argv[1] : "ws://127.0.0.1:4000/socket");
  auto channel = socket->channel("room:lobby");
  channel->on("new_msg", [](const Message& message) {
    // On the GUI thread: update widgets here, no hop, no lock.
    std::printf("%s\n", message.payload().at("body").as_string().c_str());
  });
  channel->join()->receive("ok", [&](const Message&) {
    channel->push("new_msg", {{"body", "hello from Qt"}});   // acts at once
  });
  socket->connect();
  return app.exec();
}
