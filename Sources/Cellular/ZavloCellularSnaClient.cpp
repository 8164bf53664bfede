#include "Cellular/ZavloCellularSnaClient.hpp"

#include <charconv>
#include <chrono>

#include "Core/ZavloAuthValidationUtils.hpp"
#include "Core/ZavloAuthVersion.hpp"

namespace {

constexpr std::size_t kMaximumResponseLength = 65536;
constexpr std::string_view kHeaderEnd = "\r\n\r\n";

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// Runs on every hop's request and answer; the JSON library's strict serialiser accepts the
// same texts but copies and escapes them on the way.
bool isValidUtf8(std::string_view text) { return ZavloAuthValidationUtils::isWellFormedUtf8(text); }

// The answer as text: UTF-8 when it is UTF-8, otherwise 8-bit ASCII, where each byte is
// the character of that number (so every answer decodes); the text is held as UTF-8.
std::string decodeResponse(const std::vector<std::uint8_t>& data) {
  std::string text(data.begin(), data.end());
  if (isValidUtf8(text)) return text;
  text.clear();
  for (const std::uint8_t byte : data) {
    if (byte < 0x80) {
      text += static_cast<char>(byte);
    } else {
      text += static_cast<char>(0xC0 | (byte >> 6));
      text += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return text;
}

std::string bodyText(const std::optional<std::string>& body) {
  return body && isValidUtf8(*body) ? *body : std::string();
}

}  // namespace

std::shared_ptr<ZavloCellularSnaClient> ZavloCellularSnaClient::create(ZavloPlatform& platform, EventSink sendEvent) {
  return std::shared_ptr<ZavloCellularSnaClient>(new ZavloCellularSnaClient(platform, std::move(sendEvent)));
}

ZavloCellularSnaClient::ZavloCellularSnaClient(ZavloPlatform& platform, EventSink sendEvent)
    : platform_(platform), sendEvent_(std::move(sendEvent)) {}

ZavloCellularSnaClient::ResponseHandler ZavloCellularSnaClient::checkResponseHandler() const {
  std::lock_guard lock(accessQueue_);
  return checkResponseHandler_;
}

void ZavloCellularSnaClient::setCheckResponseHandler(ResponseHandler handler) {
  std::lock_guard lock(accessQueue_);
  checkResponseHandler_ = std::move(handler);
}

void ZavloCellularSnaClient::open(const ZavloUrl& url, std::optional<std::string> requestId, Completion completion) {
  requestId_ = std::move(requestId);
  if (url.scheme().empty() || url.host().empty()) {
    if (completion) completion(convertNetworkErrorToDictionary(ZavloNetworkError::other("No scheme or host found")));
    return;
  }
  setCheckResponseHandler(makeResponseHandler(std::move(completion)));
  platform_.mainQueue().post([self = shared_from_this(), url] {
    self->createTimer();
    if (auto handler = self->checkResponseHandler()) self->activateConnectionForDataFetch(url, handler);
  });
}

ZavloCellularSnaClient::ResponseHandler ZavloCellularSnaClient::makeResponseHandler(Completion completion) {
  std::weak_ptr<ZavloCellularSnaClient> weak = weak_from_this();
  return [weak, completion = std::move(completion)](ZavloConnectionResult result) {
    const auto self = weak.lock();
    if (!self) {
      if (completion) completion({{"error", "sdk_error"}, {"error_description", "Unable to carry on"}});
      return;
    }
    // A late result (a cancelled connection reporting after a time-out, say) must not
    // complete the chain a second time.
    if (self->finished_) return;
    const auto finish = [&](nlohmann::json dictionary) {
      self->finished_ = true;
      self->cleanUp();
      if (completion) completion(std::move(dictionary));
    };
    if (const auto* error = std::get_if<ZavloNetworkError>(&result)) {
      finish(convertNetworkErrorToDictionary(*error));
    } else if (const auto* ok = std::get_if<ZavloDataOK>(&result)) {
      finish(convertConnectionResponseToDictionary(ok->response));
    } else if (const auto* err = std::get_if<ZavloDataErr>(&result)) {
      finish(convertConnectionResponseToDictionary(err->response));
    } else if (const auto* redirect = std::get_if<ZavloRedirectResult>(&result)) {
      if (!redirect->url) {
        self->cleanUp();  // the chain stops without a word; parseRedirect never yields this
        return;
      }
      self->createTimer();
      if (auto handler = self->checkResponseHandler()) self->activateConnectionForDataFetch(*redirect->url, handler);
    }
  };
}

void ZavloCellularSnaClient::deliver(const ResponseHandler& completion, ZavloConnectionResult result) {
  if (completion) completion(std::move(result));
}

void ZavloCellularSnaClient::activateConnectionForDataFetch(const ZavloUrl& url, const ResponseHandler& completion) {
  if (connection_) {
    connection_->cancel();
    connection_.reset();
  }
  if (url.scheme().empty() || url.host().empty()) {
    deliver(completion, ZavloNetworkError::other("URL has no Host or Scheme"));
    return;
  }
  const auto command = createHttpCommand(url);
  if (!command || !isValidUtf8(*command)) {
    deliver(completion, ZavloNetworkError::other("Unable to create HTTP Request command"));
    return;
  }
  std::optional<std::int64_t> port;
  if (url.port()) port = *url.port();
  auto hop = std::make_shared<const Hop>(
      Hop{url, std::vector<std::uint8_t>(command->begin(), command->end()), completion, port});
  hopStarted_ = std::chrono::steady_clock::now();
  connectTime_.reset();
  requestSent_.reset();
  if (!createConnection(url.scheme(), url.host(), port, ZavloConnectionParameters::IpVersion::v6)) {
    deliver(completion,
            ZavloNetworkError::connectionCantBeCreated("Problem creating a connection " + url.absoluteString()));
    return;
  }
  connection_->setStateUpdateHandler(createConnectionUpdateHandler(std::move(hop), true));
  connection_->start(platform_.mainQueue());
}

void ZavloCellularSnaClient::connectionReady(const std::shared_ptr<const Hop>& hop) {
  connectTime_ = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - hopStarted_);
  sendAndReceiveWithBody(hop);
}

void ZavloCellularSnaClient::fallBackFromIpv6(const std::shared_ptr<const Hop>& hop) {
  if (connection_) {
    connection_->cancel();
    connection_.reset();
  }
  // Any IP version, not IPv4 only: the second try may still use IPv6.
  auto retry =
      createConnection(hop->url.scheme(), hop->url.host(), hop->port, ZavloConnectionParameters::IpVersion::any);
  if (!retry) {
    deliver(hop->completion, ZavloNetworkError::connectionCantBeCreated("Problem creating IPv4 fallback connection " +
                                                                        hop->url.absoluteString()));
    return;
  }
  retry->setStateUpdateHandler(createConnectionUpdateHandler(hop, false));
  retry->start(platform_.mainQueue());
}

std::shared_ptr<ZavloConnection> ZavloCellularSnaClient::createConnection(
    const std::string& scheme, const std::string& host, std::optional<std::int64_t> port,
    ZavloConnectionParameters::IpVersion ipVersion) {
  if (scheme.empty() || host.empty() || !startsWith(scheme, "http")) return nullptr;
  ZavloConnectionParameters parameters;
  parameters.tcp.connectionTimeout = std::chrono::seconds(5);
  parameters.tcp.enableKeepalive = false;
  std::int64_t chosenPort = 80;
  if (port) {
    if (*port < 0 || *port > 65535) return nullptr;
    chosenPort = *port;
  }
  if (startsWith(scheme, "https")) {
    if (!port) chosenPort = 443;
    parameters.tls = ZavloConnectionParameters::Tls{};
    parameters.tcp.enableFastOpen = true;
  }
  parameters.serviceClass = ZavloConnectionParameters::ServiceClass::responsiveData;
  parameters.requiredInterfaceType = ZavloInterfaceType::cellular;
  parameters.prohibitExpensivePaths = false;
  parameters.prohibitedInterfaceTypes = {ZavloInterfaceType::wifi, ZavloInterfaceType::loopback,
                                         ZavloInterfaceType::wiredEthernet};
  parameters.ipVersion = ipVersion;
  connection_ = platform_.makeConnection(host, static_cast<std::uint16_t>(chosenPort), std::move(parameters));
  return connection_;
}

ZavloConnection::StateHandler ZavloCellularSnaClient::createConnectionUpdateHandler(std::shared_ptr<const Hop> hop,
                                                                                    bool ipv6Fallback) {
  return [weak = weak_from_this(), hop = std::move(hop), ipv6Fallback](
             ZavloConnection::State state, const std::optional<ZavloConnectionError>& error) {
    switch (state) {
      case ZavloConnection::State::setup:
      case ZavloConnection::State::preparing:
      case ZavloConnection::State::waiting:  // the hop's timer covers a connection that never gets ready
      case ZavloConnection::State::cancelled:
        return;
      case ZavloConnection::State::ready:
        if (const auto self = weak.lock()) self->connectionReady(hop);
        return;
      case ZavloConnection::State::failed:
        if (ipv6Fallback) {
          if (const auto self = weak.lock()) self->fallBackFromIpv6(hop);
        } else if (hop->completion) {
          hop->completion(ZavloNetworkError::other(
              "Connection failed: " + (error ? error->localizedDescription : std::string("unknown error"))));
        }
        return;
    }
  };
}

void ZavloCellularSnaClient::sendAndReceiveWithBody(const std::shared_ptr<const Hop>& hop) {
  if (!connection_) return;
  std::weak_ptr<ZavloCellularSnaClient> weak = weak_from_this();
  connection_->send(hop->request, [weak, hop](const std::optional<ZavloConnectionError>& error) {
    if (error) {
      if (hop->completion) hop->completion(ZavloNetworkError::other(error->localizedDescription));
    } else if (const auto self = weak.lock()) {
      self->requestSent_ = std::chrono::steady_clock::now();
    }
  });
  // One receive only: an answer longer than this, or split in pieces, is judged on what
  // this read returns.
  connection_->receive(1, kMaximumResponseLength,
                       [weak, hop](const std::vector<std::uint8_t>& received, bool /*isComplete*/,
                                   const std::optional<ZavloConnectionError>& error) {
                         if (auto self = weak.lock()) self->processResponse(hop->url, received, error, hop->completion);
                       });
}

void ZavloCellularSnaClient::createTimer() {
  if (timer_) timer_->cancel();
  const auto interval =
      std::chrono::duration_cast<ZavloQueue::Duration>(std::chrono::duration<double>(CONNECTION_TIME_OUT));
  // The timer holds the client: it is what keeps a chain alive between hops.
  timer_ = platform_.mainQueue().postAfter(interval, [self = shared_from_this()] { self->fireTimer(); });
}

void ZavloCellularSnaClient::fireTimer() {
  if (timer_) {
    timer_->cancel();
    timer_.reset();
  }
  if (auto handler = checkResponseHandler()) {
    handler(ZavloNetworkError::connectionCantBeCreated("Connection cancelled - time out"));
  }
}

void ZavloCellularSnaClient::cleanUp() {
  if (connection_) {
    connection_->cancel();
    connection_.reset();
  }
  if (timer_) {
    timer_->cancel();
    timer_.reset();
  }
}

void ZavloCellularSnaClient::sendHopEvent(const ZavloUrl& requestUrl, const std::string& responseUrl,
                                          std::int64_t httpCode, const std::string& responseBody,
                                          const std::optional<std::string>& failure) {
  if (!sendEvent_) return;
  auto event = std::make_shared<ZavloAuthEventLog>();
  event->requestId = requestId_;
  event->authProvider = "NATIVE_SNA";
  event->eventName = "SNA_HOP";
  // Key by key: an initialiser list would build and copy a two-element array per entry,
  // on every hop.
  nlohmann::json metaData(nlohmann::json::value_t::object);
  metaData["requestUrl"] = requestUrl.absoluteString();
  metaData["responseUrl"] = responseUrl;
  metaData["httpCode"] = httpCode;
  metaData["requestBody"] = "";
  metaData["responseBody"] = responseBody;
  if (failure) {
    event->status = "FAILURE";
    event->failureReason = failure;
    metaData["failureReason"] = *failure;
  }
  metaData["sdkVersion"] = ZavloAuthSDKVersion;
  event->metaData = std::move(metaData);
  sendEvent_(std::move(event));
}

void ZavloCellularSnaClient::traceHop(const ZavloUrl& url, std::int64_t status, std::optional<std::string> redirect,
                                      std::optional<std::string> failure) const {
  if (!hopObserver) return;
  using std::chrono::microseconds;
  HopTrace trace{url.absoluteString(), connectTime_, status,       std::move(redirect),
                 std::move(failure),   hopStarted_,  std::nullopt, std::nullopt};
  if (connectTime_) {
    const auto ready = hopStarted_ + *connectTime_;
    const auto answered = std::chrono::steady_clock::now();
    if (requestSent_) trace.requestTime = std::chrono::duration_cast<microseconds>(*requestSent_ - ready);
    trace.responseTime = std::chrono::duration_cast<microseconds>(answered - requestSent_.value_or(ready));
  }
  hopObserver(trace);
}

void ZavloCellularSnaClient::processResponse(const ZavloUrl& requestUrl, const std::vector<std::uint8_t>& data,
                                             const std::optional<ZavloConnectionError>& error,
                                             const ResponseHandler& completion) {
  if (error) {
    traceHop(requestUrl, 0, std::nullopt, error->localizedDescription);
    sendHopEvent(requestUrl, "", 0, "", error->localizedDescription);
    deliver(completion, ZavloNetworkError::other(error->localizedDescription));
    return;
  }
  const std::string response = decodeResponse(data);
  if (response.empty()) {
    traceHop(requestUrl, 0, std::nullopt, std::string("Response has no data or corrupt"));
    sendHopEvent(requestUrl, "", 0, "", std::string("Response has no data or is corrupt"));
    deliver(completion, ZavloNetworkError::other("Response has no data or corrupt"));
    return;
  }

  const auto status = parseHttpStatusCode(response);
  std::optional<ZavloRedirectResult> redirect;
  if (status == 301 || status == 302 || status == 303 || status == 307 || status == 308) {
    redirect = parseRedirect(requestUrl, response);
  }
  traceHop(requestUrl, status,
           redirect && redirect->url ? std::optional<std::string>(redirect->url->absoluteString()) : std::nullopt,
           std::nullopt);
  const auto& requestText = requestUrl.absoluteString();
  const auto unexpected = [&] {
    sendHopEvent(requestUrl, requestText, status, "", std::nullopt);
    deliver(completion, ZavloNetworkError::other("Unexpected HTTP Status " + std::to_string(status)));
  };
  switch (status) {
    case 200:
    case 201:
    case 202: {
      auto body = getResponseBody(response);
      sendHopEvent(requestUrl, requestText, status, bodyText(body), std::nullopt);
      deliver(completion, ZavloDataOK{{status, std::move(body)}});
      return;
    }
    case 204:
      sendHopEvent(requestUrl, requestText, status, "", std::nullopt);
      deliver(completion, ZavloDataOK{{status, std::nullopt}});
      return;
    case 301:
    case 302:
    case 303:
    case 307:
    case 308: {
      if (!redirect) {
        deliver(completion, ZavloNetworkError::invalidRedirectURL("Invalid URL - unable to parse redirect"));
        return;
      }
      const auto body = getResponseBody(response);
      sendHopEvent(requestUrl, redirect->url ? redirect->url->absoluteString() : "", status, bodyText(body),
                   std::nullopt);
      deliver(completion, std::move(*redirect));
      return;
    }
    default:
      break;
  }
  if ((status >= 400 && status <= 451) || (status >= 500 && status <= 511)) {
    auto body = getResponseBody(response);
    if (!body) {
      unexpected();
      return;
    }
    sendHopEvent(requestUrl, requestText, status, bodyText(body), std::nullopt);
    deliver(completion, ZavloDataErr{{status, std::move(body)}});
    return;
  }
  unexpected();
}

std::optional<std::string> ZavloCellularSnaClient::createHttpCommand(const ZavloUrl& url) {
  if (url.host().empty() || url.scheme().empty()) return std::nullopt;
  if (!url.decodedPath()) return std::nullopt;
  std::string path = *url.decodedPath();
  const auto& absolute = url.absoluteString();
  if (!absolute.empty() && absolute.back() == '/' && (path.empty() || path.back() != '/')) path += '/';
  if (path.empty()) path = "/";

  std::string command = "GET " + path;
  if (url.query()) command += "?" + *url.query();
  command += " HTTP/1.1\r\nHost: " + url.host();
  const auto& scheme = url.scheme();
  // An https URL naming port 443 fails the first test and passes the second, so it keeps
  // ":443"; intended.
  const auto port = url.port();
  if (port && ((startsWith(scheme, "https") && *port != 443) || (startsWith(scheme, "http") && *port != 80))) {
    command += ":" + std::to_string(*port);
  }
  command += "\r\nAccept: text/html,application/json,application/xhtml+xml,application/xml,*/*";
  command += "\r\nUser-Agent: ZavloAuthenticationSDK/1.0";
  command += "\r\nConnection: close\r\n\r\n";
  return command;
}

std::int64_t ZavloCellularSnaClient::parseHttpStatusCode(std::string_view response) {
  if (response.size() < 12) return 0;
  auto digits = response.substr(9, 3);
  // A leading sign is part of a decimal integer's text.
  if (digits.front() == '+') digits.remove_prefix(1);
  std::int64_t status = 0;
  const auto* end = digits.data() + digits.size();
  const auto [parsedTo, error] = std::from_chars(digits.data(), end, status);
  if (error != std::errc() || parsedTo != end || digits.empty() || digits.front() == '+') return 0;
  return status;
}

std::optional<std::string> ZavloCellularSnaClient::getResponseBody(std::string_view response) {
  const auto headerEnd = response.find(kHeaderEnd);
  if (headerEnd == std::string_view::npos) return std::nullopt;
  const auto bodyStart = headerEnd + kHeaderEnd.size();
  if (response.find("Transfer-Encoding: chunked") != std::string_view::npos) {
    // Deliberately narrow: one chunk holding a JSON object, its size line dropped by
    // starting at the first "{".
    const auto terminator = response.find("\r\n0\r\n", bodyStart);
    if (terminator != std::string_view::npos) {
      auto chunk = response.substr(bodyStart, terminator - bodyStart);
      if (const auto brace = chunk.find('{'); brace != std::string_view::npos) chunk.remove_prefix(brace);
      return std::string(chunk);
    }
  }
  const auto rest = ZavloAuthValidationUtils::trimWhitespaceAndNewlines(response.substr(bodyStart));
  if (rest.empty()) return std::nullopt;
  return std::string(rest);
}

std::optional<ZavloRedirectResult> ZavloCellularSnaClient::parseRedirect(const ZavloUrl& requestUrl,
                                                                         std::string_view response) {
  if (requestUrl.host().empty()) return std::nullopt;
  // Without its "L" the header name matches "Location" and "location" alike. The value
  // runs to the first line break, which must be CR LF.
  constexpr std::string_view kName = "ocation: ";
  std::optional<std::string> value;
  for (auto at = response.find(kName); at != std::string_view::npos; at = response.find(kName, at + 1)) {
    const auto start = at + kName.size();
    const auto lineEnd = response.find_first_of("\r\n", start);
    if (lineEnd != std::string_view::npos && response.substr(lineEnd, 2) == "\r\n") {
      value = std::string(response.substr(start, lineEnd - start));
      break;
    }
  }
  if (!value) return std::nullopt;
  for (auto& c : *value) {
    if (c == ' ') c = '+';
  }
  auto url = ZavloUrl::parse(*value);
  if (!url || url->host().empty()) url = ZavloUrl::resolve(requestUrl, *value);
  if (!url) return std::nullopt;
  return ZavloRedirectResult{std::move(url), std::nullopt};
}

nlohmann::json ZavloCellularSnaClient::convertNetworkErrorToDictionary(const ZavloNetworkError& error) {
  const auto dictionary = [](const char* code, const std::string& description) {
    return nlohmann::json{{"error", code}, {"error_description", description}};
  };
  switch (error.kind) {
    case ZavloNetworkError::Kind::invalidRedirectURL:
      return dictionary("SNA_INVALID_REDIRECT", error.message);
    case ZavloNetworkError::Kind::connectionFailed:
    case ZavloNetworkError::Kind::connectionCantBeCreated:
      return dictionary("SNA_CONNECTION_FAILED", error.message);
    case ZavloNetworkError::Kind::other:
      return dictionary("SNA_CELLULAR_REQUEST_FAILED", error.message);
    case ZavloNetworkError::Kind::tooManyRedirects:
      return dictionary("SNA_TOO_MANY_REDIRECTS", "Too many redirects");
  }
  return dictionary("SNA_CELLULAR_REQUEST_FAILED", error.message);
}

nlohmann::json ZavloCellularSnaClient::convertConnectionResponseToDictionary(const ZavloConnectionResponse& response) {
  nlohmann::json dictionary = {{"httpStatusCode", response.status}};
  if (response.body) {
    auto parsed = nlohmann::json::parse(*response.body, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_object()) {
      for (auto& [key, value] : parsed.items()) dictionary[key] = std::move(value);  // the body wins a clash
    }
  }
  return dictionary;
}
