#include "Telemetry/ZavloAuthHTTPManager.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <exception>

#include "Platform/ZavloPlatform.hpp"

namespace {

using Code = ZavloHttpTransportError::Code;

// libcurl's URL parser decides what a URL is; any scheme is syntax-checked here, the
// transport refuses the ones it cannot speak.
bool parsesAsURL(const std::string& url) {
  if (url.find('\0') != std::string::npos) return false;
  CURLU* handle = curl_url();
  if (handle == nullptr) return false;
  const CURLUcode result = curl_url_set(handle, CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME);
  curl_url_cleanup(handle);
  return result == CURLUE_OK;
}

bool sameFieldName(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

void setHeader(ZavloAuthHTTPManager::Headers& headers, const std::string& name, const std::string& value) {
  const auto existing =
      std::find_if(headers.begin(), headers.end(), [&](const auto& field) { return sameFieldName(field.first, name); });
  if (existing != headers.end()) {
    existing->second = value;
  } else {
    headers.emplace_back(name, value);
  }
}

ZavloResult<ZavloAuthHTTPManager::Bytes, ZavloAuthHttpError> decide(ZavloHttpTaskOutcome outcome) {
  if (outcome.error) return zavloFailure(ZavloAuthHttpError::networkError(std::move(*outcome.error)));
  if (outcome.statusCode) {
    const int status = *outcome.statusCode;
    if (status >= 200 && status <= 299) return std::move(outcome.data).value_or(ZavloAuthHTTPManager::Bytes{});
    return zavloFailure(ZavloAuthHttpError::httpError(status, std::move(outcome.data)));
  }
  return zavloFailure(ZavloAuthHttpError::invalidResponse());
}

}  // namespace

ZavloHttpSessionConfiguration ZavloAuthHTTPManager::sessionConfiguration() {
  ZavloHttpSessionConfiguration configuration;
  configuration.requestTimeout = std::chrono::seconds(30);
  configuration.resourceTimeout = std::chrono::seconds(60);
  configuration.ignoresLocalCache = true;
  return configuration;
}

std::shared_ptr<ZavloAuthHTTPManager> ZavloAuthHTTPManager::create(ZavloPlatform& platform) {
  return std::shared_ptr<ZavloAuthHTTPManager>(new ZavloAuthHTTPManager(platform));
}

ZavloAuthHTTPManager::ZavloAuthHTTPManager(ZavloPlatform& platform) : platform_(platform) {
  urlSession_ = makeSession();  // absent on failure: the next post tries again
}

ZavloAuthHTTPManager::~ZavloAuthHTTPManager() {
  // Completions check that the manager exists; it no longer does, so none is reported.
  if (auto session = takeSessionForShutdown()) session->invalidateAndCancel();
}

std::shared_ptr<ZavloHttpSession> ZavloAuthHTTPManager::makeSession() noexcept {
  try {
    return platform_.makeHttpSession(sessionConfiguration());
  } catch (...) {
    return nullptr;
  }
}

bool ZavloAuthHTTPManager::rebuildLocked(std::shared_ptr<ZavloHttpSession>& replaced) {
  if (!isShutdown_ && urlSession_) return false;
  auto session = makeSession();
  if (!session) return false;
  replaced = std::exchange(urlSession_, std::move(session));
  isShutdown_ = false;
  return true;
}

bool ZavloAuthHTTPManager::rebuildIfNeeded() {
  std::shared_ptr<ZavloHttpSession> replaced;
  std::lock_guard lock(stateQueue_);
  return rebuildLocked(replaced);
}

std::shared_ptr<ZavloHttpSession> ZavloAuthHTTPManager::takeSessionForShutdown() {
  std::lock_guard lock(stateQueue_);
  isShutdown_ = true;
  return std::exchange(urlSession_, nullptr);
}

void ZavloAuthHTTPManager::cleanup() {
  // Invalidated outside the state lock: the cancelled requests' completions run during the
  // call and may post again.
  if (auto session = takeSessionForShutdown()) session->invalidateAndCancel();
}

bool ZavloAuthHTTPManager::isShutdown() const {
  std::lock_guard lock(stateQueue_);
  return isShutdown_;
}

bool ZavloAuthHTTPManager::waitForOutstandingPosts(std::chrono::milliseconds timeout) {
  std::shared_ptr<ZavloHttpSession> session;
  {
    std::lock_guard lock(stateQueue_);
    session = urlSession_;
  }
  return !session || session->waitForOutstandingTasks(timeout);
}

void ZavloAuthHTTPManager::post(const std::string& url, const nlohmann::json& body,
                                const std::optional<Headers>& headers, Completion completion) {
  std::optional<ZavloAuthHttpError> failure;
  try {
    failure = start(url, body, headers, completion);
  } catch (const std::exception& error) {
    failure = ZavloAuthHttpError::networkError({Code::other, error.what()});
  }
  if (failure && completion) {  // still ours: it was not handed to the session
    try {
      completion(zavloFailure(std::move(*failure)));
    } catch (...) {
      // The caller's own exception stops here rather than cross the library's surface.
    }
  }
}

std::optional<ZavloAuthHttpError> ZavloAuthHTTPManager::start(const std::string& url, const nlohmann::json& body,
                                                              const std::optional<Headers>& headers,
                                                              Completion& completion) {
  rebuildIfNeeded();
  if (!parsesAsURL(url)) return ZavloAuthHttpError::invalidURL(url);

  ZavloHttpRequest request;
  request.url = url;
  request.timeoutInterval = kRequestTimeoutInterval;
  setHeader(request.headers, "Content-Type", "application/json");
  setHeader(request.headers, "Accept", "application/json");
  if (headers) {
    for (const auto& [name, value] : *headers) {
      if (!zavloIsValidHeaderField(name, value)) {
        return ZavloAuthHttpError::encodingError({"The header field \"" + name + "\" cannot be sent."});
      }
      setHeader(request.headers, name, value);
    }
  }

  if (!body.is_object()) return ZavloAuthHttpError::encodingError({"The body is not a JSON object."});
  std::string text;
  try {
    text = body.dump();  // strict: text that is not UTF-8 cannot be serialised
  } catch (const nlohmann::json::exception& error) {
    return ZavloAuthHttpError::encodingError({error.what()});
  }
  request.body.assign(text.begin(), text.end());

  std::shared_ptr<ZavloHttpSession> session;
  std::shared_ptr<ZavloHttpSession> replaced;
  {
    std::lock_guard lock(stateQueue_);
    rebuildLocked(replaced);  // a cleanup may have run since the rebuild above
    session = urlSession_;
  }
  if (!session) return ZavloAuthHttpError::networkError({Code::other, "The HTTP session could not be created."});

  std::weak_ptr<ZavloAuthHTTPManager> weak = weak_from_this();
  session->post(std::move(request), [weak, completion = std::move(completion)](ZavloHttpTaskOutcome outcome) {
    // Only a manager that still exists reports; expired() never takes ownership, so the
    // manager is never destroyed on the session's thread by this check.
    if (weak.expired() || !completion) return;
    completion(decide(std::move(outcome)));
  });
  completion = nullptr;
  return std::nullopt;
}
