#include <random>
#include "vantor/realtime/Defaults.hpp"

#include <algorithm>
#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/serializer.hpp>
#include <charconv>
#include <cmath>
#include <cstring>

#include "Encoding.hpp"
#include "Text.hpp"
#include "vantor/platform/DispatchQueue.hpp"
#include "vantor/platform/Fatal.hpp"

namespace vantor::realtime {

namespace json = boost::json;

namespace {

constexpr std::array<double, 9> reconnectTable{0.01, 0.05, 0.1, 0.15, 0.2, 0.25, 0.5, 1.0, 2.0};
constexpr std::array<double, 3> rejoinTable{1.0, 2.0, 5.0};

template <std::size_t N>
double steppedBackOff(const std::array<double, N>& table, double ceiling, std::int64_t tries) {
  if (tries < 1) {
    platform::fatalError("Back-off attempt numbers start at 1, got " + std::to_string(tries));
  }
  if (static_cast<std::size_t>(tries) > N) {
    return ceiling;
  }
  return table[static_cast<std::size_t>(tries) - 1];
}

// The JSON writer refuses what is not JSON, as a strict writer would.
void checkWritableString(std::string_view text) {
  if (!detail::isValidUtf8(text)) {
    platform::fatalError("Invalid UTF-8 string in JSON write");
  }
}

void checkWritable(const json::value& value);

void checkWritable(const json::object& object) {
  for (const auto& entry : object) {
    if (!detail::isValidUtf8(entry.key())) {
      platform::fatalError("Invalid UTF-8 key in JSON write");
    }
    checkWritable(entry.value());
  }
}

void checkWritable(const json::value& value) {
  switch (value.kind()) {
    case json::kind::double_:
      if (!std::isfinite(value.get_double())) {
        platform::fatalError("Invalid number in JSON write: " + std::to_string(value.get_double()));
      }
      break;
    case json::kind::string:
      checkWritableString(value.get_string());
      break;
    case json::kind::array:
      for (const auto& element : value.get_array()) {
        checkWritable(element);
      }
      break;
    case json::kind::object:
      checkWritable(value.get_object());
      break;
    default:
      break;
  }
}

// Appends what `serializer` writes of the value it was reset to.
void appendSerialized(std::string& out, json::serializer& serializer) {
  char buffer[512];
  while (!serializer.done()) {
    const auto written = serializer.read(buffer, sizeof buffer);
    out.append(written.data(), written.size());
  }
}

// Whether `text` is written as it is between quotes: the JSON serializer
// escapes control characters, quotes and backslashes, and nothing else.
bool isPlain(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
  });
}

// Appends `text` as a JSON string, escaped as the JSON serializer escapes it.
void appendString(std::string& out, std::string_view text, json::serializer& serializer) {
  if (isPlain(text)) {
    out += '"';
    out.append(text);
    out += '"';
    return;
  }
  serializer.reset(json::string_view(text.data(), text.size()));
  appendSerialized(out, serializer);
}

// Appends `value` as the JSON serializer writes it. Scalars and strings are
// written here; doubles and nested containers go through the serializer.
void appendValue(std::string& out, const json::value& value, json::serializer& serializer) {
  char digits[24];
  switch (value.kind()) {
    case json::kind::null:
      out += "null";
      return;
    case json::kind::bool_:
      out += value.get_bool() ? "true" : "false";
      return;
    case json::kind::int64: {
      const auto written = std::to_chars(digits, digits + sizeof digits, value.get_int64());
      out.append(digits, written.ptr);
      return;
    }
    case json::kind::uint64: {
      const auto written = std::to_chars(digits, digits + sizeof digits, value.get_uint64());
      out.append(digits, written.ptr);
      return;
    }
    case json::kind::string:
      appendString(out, value.get_string(), serializer);
      return;
    default:
      serializer.reset(&value);
      appendSerialized(out, serializer);
      return;
  }
}

// The common frame, written in one pass into a string sized beforehand:
// every string needs no escape and every payload value is null, a boolean,
// an integer or such a string. Any other frame gives nothing.
std::optional<std::string> encodePlainFrame(const std::optional<std::string>& joinRef,
                                            const std::optional<std::string>& ref,
                                            std::string_view topic, std::string_view event,
                                            const Payload& payload) {
  constexpr std::size_t longestInteger = 20;  // "-9223372036854775808"
  bool plain = true;
  // "[", four commas, "{", "}" and "]".
  std::size_t size = 8;
  auto addString = [&](std::string_view text) {
    plain = plain && isPlain(text);
    size += text.size() + 2;
  };
  auto addReference = [&](const std::optional<std::string>& text) {
    if (text) {
      addString(*text);
    } else {
      size += 4;
    }
  };
  addReference(joinRef);
  addReference(ref);
  addString(topic);
  addString(event);
  for (const auto& entry : payload) {
    addString(entry.key());
    size += 2;  // ":" and ","
    const auto& value = entry.value();
    switch (value.kind()) {
      case json::kind::null: size += 4; break;
      case json::kind::bool_: size += 5; break;
      case json::kind::int64:
      case json::kind::uint64: size += longestInteger; break;
      case json::kind::string: addString(value.get_string()); break;
      default: return std::nullopt;
    }
    if (!plain) {
      return std::nullopt;
    }
  }
  if (!plain) {
    return std::nullopt;
  }

  std::string out(size, '\0');
  char* at = out.data();
  auto put = [&](std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    at += text.size();
  };
  auto putString = [&](std::string_view text) {
    *at++ = '"';
    put(text);
    *at++ = '"';
  };
  auto putReference = [&](const std::optional<std::string>& text) {
    if (text) {
      putString(*text);
    } else {
      put("null");
    }
  };
  *at++ = '[';
  putReference(joinRef);
  *at++ = ',';
  putReference(ref);
  *at++ = ',';
  putString(topic);
  *at++ = ',';
  putString(event);
  *at++ = ',';
  *at++ = '{';
  bool first = true;
  for (const auto& entry : payload) {
    if (!first) {
      *at++ = ',';
    }
    first = false;
    putString(entry.key());
    *at++ = ':';
    const auto& value = entry.value();
    switch (value.kind()) {
      case json::kind::null: put("null"); break;
      case json::kind::bool_: put(value.get_bool() ? "true" : "false"); break;
      case json::kind::int64: at = std::to_chars(at, at + longestInteger, value.get_int64()).ptr; break;
      case json::kind::uint64: at = std::to_chars(at, at + longestInteger, value.get_uint64()).ptr; break;
      default: putString(value.get_string()); break;
    }
  }
  *at++ = '}';
  *at++ = ']';
  out.resize(static_cast<std::size_t>(at - out.data()));
  return out;
}

}  // namespace

namespace detail {

std::string encodeFrame(const std::optional<std::string>& joinRef,
                        const std::optional<std::string>& ref, std::string_view topic,
                        std::string_view event, const Payload& payload) {
  // Checked in the order the elements are written, as `Defaults::encode`
  // checks a frame array.
  if (joinRef) {
    checkWritableString(*joinRef);
  }
  if (ref) {
    checkWritableString(*ref);
  }
  checkWritableString(topic);
  checkWritableString(event);
  checkWritable(payload);

  if (auto out = encodePlainFrame(joinRef, ref, topic, event, payload)) {
    return std::move(*out);
  }
  json::serializer serializer;
  std::string out;
  out.reserve(128);
  out += '[';
  if (joinRef) {
    appendString(out, *joinRef, serializer);
  } else {
    out += "null";
  }
  out += ',';
  if (ref) {
    appendString(out, *ref, serializer);
  } else {
    out += "null";
  }
  out += ',';
  appendString(out, topic, serializer);
  out += ',';
  appendString(out, event, serializer);
  out += ',';
  out += '{';
  bool first = true;
  for (const auto& entry : payload) {
    if (!first) {
      out += ',';
    }
    first = false;
    appendString(out, entry.key(), serializer);
    out += ':';
    appendValue(out, entry.value(), serializer);
  }
  out += "}]";
  return out;
}

}  // namespace detail

double Defaults::reconnectSteppedBackOff(std::int64_t tries) {
  return steppedBackOff(reconnectTable, 5.0, tries);
}

double Defaults::reconnectJitteredBackOff(std::int64_t tries) {
  const double step = reconnectSteppedBackOff(tries);
  // One generator per thread, seeded apart, so that clients started together
  // draw differently.
  thread_local std::mt19937_64 generator{std::random_device{}()};
  return std::uniform_real_distribution<double>(0.0, step)(generator);
}

double Defaults::rejoinSteppedBackOff(std::int64_t tries) { return steppedBackOff(rejoinTable, 10.0, tries); }

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
