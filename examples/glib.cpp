// A GLib (GTK 4) application whose window the library's callbacks update directly.
#include <glib.h>
#include <cstdio>
#include <vantor/glib/GLibMainLoop.hpp>
#include <vantor/realtime/Channel.hpp>
#include <vantor/realtime/Push.hpp>
#include <vantor/realtime/Socket.hpp>

using namespace vantor::realtime;

int main(int argc, char** argv) {
  vantor::glib::GLibMainLoop loop;   // the default main context, before anything else uses the library
  auto socket = Socket::make(argc > 1 ? argv[1] : "ws://127.0.0.1:4000/socket");
  auto channel = socket->channel("room:lobby");
  channel->on("new_msg", [](const Message& message) {
    // On the GLib thread: update widgets here, no hop, no lock.
    std::printf("%s\n", message.payload().at("body").as_string().c_str());
  });
  channel->join()->receive("ok", [&](const Message&) {
    channel->push("new_msg", {{"body", "hello from GLib"}});   // acts at once
  });
  socket->connect();
  GMainLoop* main = g_main_loop_new(nullptr, FALSE);   // or gtk_application's run
  g_main_loop_run(main);
  g_main_loop_unref(main);
  return 0;
}
