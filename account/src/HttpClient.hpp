#pragma once

// The account layer's HTTP requests go through the platform's client.
#include "vantor/platform/HttpClient.hpp"

namespace vantor::account::detail {

using platform::HttpClientOptions;
using platform::HttpCompletion;
using platform::HttpOutcome;
using platform::HttpRequest;
using platform::sendHttpRequest;
using platform::sendHttpRequestAndWait;

}  // namespace vantor::account::detail
