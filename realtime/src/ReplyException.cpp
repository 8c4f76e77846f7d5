#include "vantor/realtime/ReplyException.hpp"

#include <boost/json/serialize.hpp>
#include <utility>

namespace vantor::realtime {

namespace {

// Long answers are cut here: the text goes into logs and dialogs.
constexpr std::size_t longestAnswer = 200;

std::string reasonOf(const Message& reply) {
  const auto& answer = reply.payload();
  if (const auto* reason = answer.if_contains("reason"); reason != nullptr && reason->is_string()) {
    return std::string(reason->get_string());
  }
  if (answer.empty()) {
    return {};
  }
  auto text = boost::json::serialize(answer);
  if (text.size() > longestAnswer) {
    text.resize(longestAnswer);
    text += "...";
  }
  return text;
}

}  // namespace

ReplyException::ReplyException(boost::system::error_code error, Message reply)
    : boost::system::system_error(error), reply_(std::move(reply)) {
  what_ = error.message();
  if (auto reason = reasonOf(reply_); !reason.empty()) {
    what_ += ": " + reason;
  }
  what_ += std::string(" [") + error.category().name() + ":" + std::to_string(error.value()) + "]";
}

}  // namespace vantor::realtime
