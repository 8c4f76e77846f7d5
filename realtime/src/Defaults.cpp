#include "vantor/realtime/Defaults.hpp"

#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cmath>

#include "Text.hpp"
#include "vantor/platform/DispatchQueue.hpp"
#include "vantor/platform/Fatal.hpp"

namespace vantor::realtime {

namespace json = boost::json;

namespace {

constexpr std::array<double, 9> reconnectTable{0.01, 0.05, 0.1, 0.15, 0.2, 0.25, 0.5, 1.0, 2.0};
constexpr std::array<double, 3> rejoinTable{1.0, 2.0, 5.0};

template <std::size_t N>
double steppedBackOff(const std::array<double, N>& table, double ceiling, int tries) {
  if (tries < 1) {
    platform::fatalError("Back-off attempt numbers start at 1, got " + std::to_string(tries));
  }
  if (static_cast<std::size_t>(tries) > N) {
    return ceiling;
  }
  return table[static_cast<std::size_t>(tries) - 1];
}

// The JSON writer refuses what is not JSON, as a strict writer would.
void checkWritable(const json::value& value) {
  switch (value.kind()) {
    case json::kind::double_:
      if (!std::isfinite(value.get_double())) {
        platform::fatalError("Invalid number in JSON write: " + std::to_string(value.get_double()));
      }
      break;
    case json::kind::string:
      if (!detail::isValidUtf8(value.get_string())) {
        platform::fatalError("Invalid UTF-8 string in JSON write");
      }
      break;
    case json::kind::array:
      for (const auto& element : value.get_array()) {
        checkWritable(element);
      }
      break;
    case json::kind::object:
      for (const auto& entry : value.get_object()) {
        if (!detail::isValidUtf8(entry.key())) {
          platform::fatalError("Invalid UTF-8 key in JSON write");
        }
        checkWritable(entry.value());
      }
      break;
    default:
      break;
  }
}

}  // namespace

double Defaults::reconnectSteppedBackOff(int tries) {
  return steppedBackOff(reconnectTable, 5.0, tries);
}

double Defaults::rejoinSteppedBackOff(int tries) { return steppedBackOff(rejoinTable, 10.0, tries); }

std::string Defaults::encode(const json::value& value) {
  checkWritable(value);
  return json::serialize(value);
}

std::optional<json::value> Defaults::decode(std::string_view bytes) {
  boost::system::error_code error;
  json::parse_options options;
  options.max_depth = maxNestingDepth;
  auto value = json::parse(bytes, error, {}, options);
  if (error || !(value.is_array() || value.is_object())) {
    return std::nullopt;
  }
  return value;
}

platform::DispatchQueue& Defaults::heartbeatQueue() {
  // Never destroyed: timers may still be stopped on it during exit.
  static auto* const queue = new platform::DispatchQueue("com.phoenix.socket.heartbeat");
  return *queue;
}

}  // namespace vantor::realtime
