// The URL a socket connects to, built from its endpoint text, the serializer
// version and the connection parameters.
//
// Line 1 is the endpoint, line 2 the version; each further line is one
// parameter: "name=value" with a text value (any bytes), or a JSON object
// whose members are added with their JSON values.
//
// An endpoint that does not parse stops the process by design ("Malformed
// URL: ..."); such endpoints are not played.

#include <boost/json/value.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.hpp"
#include "FuzzTransport.hpp"
#include "vantor/platform/NetworkTarget.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/Socket.hpp"

namespace vantor::realtime {
namespace {

using fuzz::violated;

constexpr std::size_t maxLines = 16;

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return -1;
}

// A query item as a form decoder reads it: "%XX" is a byte, "+" a space.
std::string formDecoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] != '%') {
      out += text[i];
    } else if (i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      violated("the built URL's query holds a broken escape");
    }
  }
  return out;
}

void check(const boost::urls::url& built, const boost::urls::url& endpoint, const std::string& vsn,
           const Payload& params) {
  if (!boost::urls::parse_uri_reference(built.buffer())) {
    violated("the built URL does not parse");
  }
  if (built.scheme() != endpoint.scheme() || built.encoded_authority() != endpoint.encoded_authority() ||
      built.has_authority() != endpoint.has_authority()) {
    violated("the built URL names another scheme or server than the endpoint");
  }
  if (built.encoded_path().find("/websocket") == std::string_view::npos) {
    violated("the built URL's path does not lead to the WebSocket endpoint");
  }
  // The query is exactly "vsn" and then each parameter, in order; every byte
  // is escaped but the unreserved characters.
  const auto query = built.encoded_query();
  for (char c : query) {
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                            c == '-' || c == '.' || c == '_' || c == '~';
    if (!unreserved && c != '%' && c != '&' && c != '=') {
      violated("the built URL's query holds a byte that a form decoder changes");
    }
  }
  std::vector<std::pair<std::string, std::string>> items;
  std::size_t start = 0;
  while (start <= query.size()) {
    auto end = query.find('&', start);
    auto item = query.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    auto equals = item.find('=');
    if (equals == std::string_view::npos) {
      violated("a query item of the built URL has no value");
    }
    items.emplace_back(formDecoded(item.substr(0, equals)), formDecoded(item.substr(equals + 1)));
    if (end == std::string_view::npos) {
      break;
    }
    start = end + 1;
  }
  if (items.size() != params.size() + 1 || items[0] != std::pair<std::string, std::string>("vsn", vsn)) {
    violated("the built URL's query does not start with vsn followed by one item per parameter");
  }
  std::size_t i = 1;
  for (const auto& entry : params) {
    const auto& [name, value] = items[i++];
    if (name != std::string_view(entry.key())) {
      violated("a parameter name does not read back");
    }
    if (const auto* text = entry.value().if_string(); text != nullptr && value != std::string_view(*text)) {
      violated("a text parameter does not read back");
    }
  }
}

void play(const std::vector<std::string_view>& lines) {
  const std::string endpoint(lines[0]);
  const auto parsed = platform::parseUrl(endpoint);
  if (!parsed) {
    return;
  }
  const std::string vsn(lines.size() > 1 ? lines[1] : Defaults::vsn);
  Payload params;
  for (std::size_t i = 2; i < lines.size(); ++i) {
    const auto line = lines[i];
    if (line.starts_with('{')) {
      if (auto decoded = Defaults::decode(line); decoded && decoded->is_object()) {
        for (const auto& entry : decoded->get_object()) {
          params[entry.key()] = entry.value();
        }
      }
      continue;
    }
    const auto equals = line.find('=');
    params[line.substr(0, equals)] = equals == std::string_view::npos ? "" : line.substr(equals + 1);
  }
  const Socket::ParamsClosure closure = [&params] { return std::optional<Payload>(params); };
  const auto built = Socket::buildEndpointUrl(endpoint, closure, vsn);
  check(built, *parsed, vsn, params);

  // A socket builds the same URL, and names its protocol from it.
  auto socket = Socket::make(
      endpoint, [](const boost::urls::url&) { return std::make_shared<fuzz::FuzzTransport>(); }, closure, vsn);
  if (socket->endPointUrl().buffer() != built.buffer()) {
    violated("a socket builds another URL than buildEndpointUrl");
  }
  (void)socket->websocketProtocol();
}

}  // namespace
}  // namespace vantor::realtime

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  vantor::fuzz::useFuzzerThreadAsLoop();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vantor::realtime::play(vantor::fuzz::lines(data, size, vantor::realtime::maxLines));
  vantor::fuzz::runReadyWork(100);
  return 0;
}
