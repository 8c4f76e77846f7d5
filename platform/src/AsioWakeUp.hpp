#pragma once

#include <boost/asio/io_context.hpp>

namespace vantor::platform::detail {

/// What a loop driven from another main loop (Qt's, GLib's) needs of Asio's
/// Linux scheduler, which has no public interface for it:
/// - `readinessDescriptor`: the reactor's epoll descriptor. It becomes
///   readable when a socket or the timer descriptor is ready, and when the
///   scheduler interrupts the reactor for work posted from elsewhere.
/// - `armWakeUp`: after a round of `poll()`, tells the scheduler that the
///   reactor counts as waiting, so that work posted from another thread (or
///   Asio's resolver thread) interrupts it, which makes the descriptor
///   readable. Without it, a posted handler would wait for the next socket
///   or timer event.
int readinessDescriptor(boost::asio::io_context& context);
void armWakeUp(boost::asio::io_context& context);

}  // namespace vantor::platform::detail
