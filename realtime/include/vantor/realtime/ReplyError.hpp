#pragma once

#include <boost/system/error_code.hpp>
#include <type_traits>

namespace vantor::realtime {

/// How an asynchronous channel operation (see AsyncChannel.hpp) can end
/// other than with an "ok" reply. The reply itself still comes with it.
enum class ReplyError {
  error = 1,    ///< the server answered "error"
  timeout = 2,  ///< no answer within the push's time-out
  other = 3,    ///< an answer with another status, or none
};

[[nodiscard]] const boost::system::error_category& replyErrorCategory() noexcept;

[[nodiscard]] inline boost::system::error_code make_error_code(ReplyError error) noexcept {
  return {static_cast<int>(error), replyErrorCategory()};
}

}  // namespace vantor::realtime

template <>
struct boost::system::is_error_code_enum<vantor::realtime::ReplyError> : std::true_type {};
