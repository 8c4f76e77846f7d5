#include "vantor/realtime/ReplyError.hpp"

#include <string>

namespace vantor::realtime {

namespace {

class ReplyErrorCategory final : public boost::system::error_category {
 public:
  [[nodiscard]] const char* name() const noexcept override { return "vantor.reply"; }
  [[nodiscard]] std::string message(int value) const override {
    switch (static_cast<ReplyError>(value)) {
      case ReplyError::error: return "the server answered \"error\"";
      case ReplyError::timeout: return "no answer in time";
      case ReplyError::other: return "an answer with another status";
    }
    return "unknown reply error";
  }
};

}  // namespace

const boost::system::error_category& replyErrorCategory() noexcept {
  static const ReplyErrorCategory category;
  return category;
}

}  // namespace vantor::realtime
