#include "Cellular/ZavloCellularSnaClient.hpp"

#include <chrono>

#include "Cellular/ZavloHttp1Codec.hpp"
#include "Core/ZavloAuthValidationUtils.hpp"
#include "Core/ZavloAuthVersion.hpp"

namespace Http1 = ZavloHttp1Codec;

namespace {

constexpr std::size_t kMaximumResponseLength = 65536;
constexpr const char* kUnparsableRedirect = "Invalid URL - unable to parse redirect";

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// Runs on every hop's request and answer; the JSON library's strict serialiser accepts the
// same texts but copies and escapes them on the way.
bool isValidUtf8(std::string_view text) { return ZavloAuthValidationUtils::isWellFormedUtf8(text); }

std::string bodyText(const std::optional<std::string>& body) {
  return body && isValidUtf8(*body) ? *body : std::string();
}

}  // namespace

std::shared_ptr<ZavloCellularSnaClient> ZavloCellularSnaClient::create(ZavloPlatform& platform, EventSink sendEvent) {
  return std::shared_ptr<ZavloCellularSnaClient>(new ZavloCellularSnaClient(platform, std::move(sendEvent)));
}

ZavloCellularSnaClient::ZavloCellularSnaClient(ZavloPlatform& platform, EventSink sendEvent)
    : platform_(platform), sendEvent_(std::move(sendEvent)) {}

std::shared_ptr<const ZavloCellularSnaClient::ResponseHandler> ZavloCellularSnaClient::checkResponseHandler() const {
  std::lock_guard lock(accessQueue_);
  return checkResponseHandler_;
}

void ZavloCellularSnaClient::setCheckResponseHandler(ResponseHandler handler) {
  std::lock_guard lock(accessQueue_);
  checkResponseHandler_ = handler ? std::make_shared<const ResponseHandler>(std::move(handler)) : nullptr;
}

void ZavloCellularSnaClient::open(const ZavloUrl& url, std::optional<std::string> requestId, Completion completion) {
  requestId_ = std::move(requestId);
  if (url.scheme().empty() || url.host().empty()) {
    if (completion) completion(ZavloNetworkError::other("No scheme or host found"));
    return;
  }
  setCheckResponseHandler(makeResponseHandler(std::move(completion)));
  platform_.mainQueue().post([self = shared_from_this(), url] {
    if (self->finished_) return;  // cancelled before its first hop
    self->createTimer();
    if (auto handler = self->checkResponseHandler()) self->activateConnectionForDataFetch(url, std::move(handler));
  });
}

ZavloCellularSnaClient::ResponseHandler ZavloCellularSnaClient::makeResponseHandler(Completion completion) {
  std::weak_ptr<ZavloCellularSnaClient> weak = weak_from_this();
  return [weak, completion = std::move(completion)](ZavloConnectionResult result) {
    const auto self = weak.lock();
    if (!self) {
      if (completion) completion(ZavloChainAbandoned{});
      return;
    }
    // A late result (a cancelled connection reporting after a time-out, say) must not
    // complete the chain a second time.
    if (self->finished_) return;
    const auto finish = [&](ZavloChainOutcome outcome) {
      self->finished_ = true;
      self->cleanUp();
      if (completion) completion(std::move(outcome));
    };
    if (auto* error = std::get_if<ZavloNetworkError>(&result)) {
      finish(std::move(*error));
    } else if (auto* ok = std::get_if<ZavloDataOK>(&result)) {
      finish(std::move(ok->response));
    } else if (auto* err = std::get_if<ZavloDataErr>(&result)) {
      finish(std::move(err->response));
    } else if (const auto* redirect = std::get_if<ZavloRedirectResult>(&result)) {
      if (!redirect->url) {
        self->cleanUp();  // the chain stops without a word; parseRedirect never yields this
        return;
      }
      self->createTimer();
      if (auto handler = self->checkResponseHandler())
        self->activateConnectionForDataFetch(*redirect->url, std::move(handler));
    }
  };
}

void ZavloCellularSnaClient::deliver(const ResponseHandler& completion, ZavloConnectionResult result) {
  if (completion) completion(std::move(result));
}

void ZavloCellularSnaClient::activateConnectionForDataFetch(const ZavloUrl& url,
                                                            std::shared_ptr<const ResponseHandler> completion) {
  if (connection_) {
    connection_->cancel();
    connection_.reset();
  }
  if (url.scheme().empty() || url.host().empty()) {
    return deliver(*completion, ZavloNetworkError::other("URL has no Host or Scheme"));
  }
  const auto command = Http1::createHttpCommand(url);
  if (!command || !isValidUtf8(*command)) {
    return deliver(*completion, ZavloNetworkError::other("Unable to create HTTP Request command"));
  }
  std::optional<std::int64_t> port;
  if (url.port()) port = *url.port();
  auto hop = std::make_shared<const Hop>(
      Hop{url, std::vector<std::uint8_t>(command->begin(), command->end()), std::move(completion), port});
  hopStarted_ = std::chrono::steady_clock::now();
  connectTime_.reset();
  requestSent_.reset();
  if (!createConnection(url.scheme(), url.host(), port, ZavloConnectionParameters::IpVersion::v6)) {
    return deliver(*hop->completion,
                   ZavloNetworkError::connectionCantBeCreated("Problem creating a connection " + url.absoluteString()));
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
    return deliver(*hop->completion, ZavloNetworkError::connectionCantBeCreated(
                                         "Problem creating IPv4 fallback connection " + hop->url.absoluteString()));
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
        } else if (*hop->completion) {
          (*hop->completion)(ZavloNetworkError::other(
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
      if (*hop->completion) (*hop->completion)(ZavloNetworkError::other(error->localizedDescription));
    } else if (const auto self = weak.lock()) {
      self->requestSent_ = std::chrono::steady_clock::now();
    }
  });
  // One receive only: an answer longer than this, or split in pieces, is judged on what
  // this read returns.
  connection_->receive(1, kMaximumResponseLength,
                       [weak, hop](const std::vector<std::uint8_t>& received, bool /*isComplete*/,
                                   const std::optional<ZavloConnectionError>& error) {
                         if (auto self = weak.lock())
                           self->processResponse(hop->url, received, error, *hop->completion);
                       });
}

void ZavloCellularSnaClient::createTimer() {
  if (timer_) timer_->cancel();
  const auto interval =
      std::chrono::duration_cast<ZavloQueue::Duration>(std::chrono::duration<double>(CONNECTION_TIME_OUT));
  // The timer holds the client: it is what keeps a chain alive between hops.
  timer_ = platform_.mainQueue().postAfter(interval, [self = shared_from_this()] { self->fireTimer(); });
}

void ZavloCellularSnaClient::cancel() {
  platform_.mainQueue().post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    if (auto handler = self->checkResponseHandler()) (*handler)(ZavloNetworkError::other("Connection cancelled"));
  });
}

void ZavloCellularSnaClient::fireTimer() {
  if (timer_) {
    timer_->cancel();
    timer_.reset();
  }
  if (auto handler = checkResponseHandler()) {
    (*handler)(ZavloNetworkError::connectionCantBeCreated("Connection cancelled - time out"));
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
  sendEvent_(HopEvent{requestId_, requestUrl.absoluteString(), responseUrl, httpCode, responseBody, failure,
                      std::chrono::system_clock::now()});
}

std::shared_ptr<ZavloAuthEventLog> ZavloCellularSnaClient::HopEvent::toEventLog() const {
  auto event = std::make_shared<ZavloAuthEventLog>();
  event->timestamp = ZavloAuthEventLog::makeTimestamp(at);
  event->requestId = requestId;
  event->authProvider = "NATIVE_SNA";
  event->eventName = "SNA_HOP";
  // Key by key: an initialiser list would build and copy a two-element array per entry.
  nlohmann::json metaData(nlohmann::json::value_t::object);
  metaData["requestUrl"] = requestUrl;
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
  return event;
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
    return deliver(completion, ZavloNetworkError::other(error->localizedDescription));
  }
  const std::string response = Http1::decodeResponse(data);
  if (response.empty()) {
    traceHop(requestUrl, 0, std::nullopt, std::string("Response has no data or corrupt"));
    sendHopEvent(requestUrl, "", 0, "", std::string("Response has no data or is corrupt"));
    return deliver(completion, ZavloNetworkError::other("Response has no data or corrupt"));
  }

  const auto status = Http1::parseHttpStatusCode(response);
  std::optional<ZavloRedirectResult> redirect;
  if (Http1::isRedirectStatus(status)) redirect = Http1::parseRedirect(requestUrl, response);
  traceHop(requestUrl, status,
           redirect && redirect->url ? std::optional<std::string>(redirect->url->absoluteString()) : std::nullopt,
           std::nullopt);
  const auto& requestText = requestUrl.absoluteString();
  if (status == 200 || status == 201 || status == 202) {
    auto body = Http1::getResponseBody(response);
    sendHopEvent(requestUrl, requestText, status, bodyText(body), std::nullopt);
    return deliver(completion, ZavloDataOK{{status, std::move(body)}});
  }
  if (status == 204) {  // the body is not looked at
    sendHopEvent(requestUrl, requestText, status, "", std::nullopt);
    return deliver(completion, ZavloDataOK{{status, std::nullopt}});
  }
  if (Http1::isRedirectStatus(status)) {
    if (!redirect) return deliver(completion, ZavloNetworkError::invalidRedirectURL(kUnparsableRedirect));
    const auto body = Http1::getResponseBody(response);
    sendHopEvent(requestUrl, redirect->url ? redirect->url->absoluteString() : "", status, bodyText(body),
                 std::nullopt);
    return deliver(completion, std::move(*redirect));
  }
  // An error status is a final answer only with a body; any other status is no answer.
  const bool errorStatus = (status >= 400 && status <= 451) || (status >= 500 && status <= 511);
  auto body = errorStatus ? Http1::getResponseBody(response) : std::nullopt;
  sendHopEvent(requestUrl, requestText, status, bodyText(body), std::nullopt);
  if (!body) return deliver(completion, ZavloNetworkError::other("Unexpected HTTP Status " + std::to_string(status)));
  deliver(completion, ZavloDataErr{{status, std::move(body)}});
}
