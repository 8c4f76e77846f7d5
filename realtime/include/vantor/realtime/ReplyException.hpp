#pragma once

#include <boost/system/system_error.hpp>
#include <string>

#include "vantor/realtime/Message.hpp"

namespace vantor::realtime {

/// What an operation of AsyncChannel.hpp throws through `use_awaitable` or
/// `use_future` when it ends other than with "ok". It is a
/// `boost::system::system_error` with the `ReplyError` (or
/// `operation_aborted`), whose `what()` also gives the server's "reason",
/// or its answer shortened, and which carries the reply itself.
class ReplyException : public boost::system::system_error {
 public:
  ReplyException(boost::system::error_code error, Message reply);

  /// The server's reply, or the local time-out or cancellation message.
  [[nodiscard]] const Message& reply() const noexcept { return reply_; }
  /// For example: the server answered "error": unmatched topic [vantor.reply:1]
  [[nodiscard]] const char* what() const noexcept override { return what_.c_str(); }

 private:
  Message reply_;
  std::string what_;
};

}  // namespace vantor::realtime
