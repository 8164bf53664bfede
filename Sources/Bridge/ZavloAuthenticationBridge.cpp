#include "Bridge/ZavloAuthenticationBridge.hpp"

#include "Bridge/ZavloAuthJavaScriptUtils.hpp"
#include "Core/ZavloAuthException.hpp"
#include "Core/ZavloAuthResponseUtils.hpp"
#include "Core/ZavloConfigValues.hpp"
#include "Core/ZavloPublicErrors.hpp"
#include "Operations/ZavloAuthenticationOperations.hpp"
#include "Platform/ZavloQueue.hpp"

namespace {

nlohmann::json dictionaryOf(const ZavloAuthException& exception) {
  return ZavloAuthResponseUtils::jsonObject(exception).value_or(nlohmann::json::object());
}

// The operations hand records over as dictionaries already.
nlohmann::json dictionaryOf(const ZavloResult<nlohmann::json>& result) {
  return result ? result.value() : dictionaryOf(result.error());
}

// A completion that answers the asker through the bridge, if the bridge still exists.
ZavloAuthenticationOperations::Completion answering(const std::shared_ptr<ZavloAuthenticationBridge>& bridge,
                                                    ZavloAuthenticationBridge::Asker asker) {
  return [weakBridge = std::weak_ptr(bridge), asker = std::move(asker)](const ZavloResult<nlohmann::json>& result) {
    if (auto bridge = weakBridge.lock()) bridge->answer(asker, dictionaryOf(result));
  };
}

const std::string* stringAt(const nlohmann::json& body, const char* key) {
  const auto found = body.find(key);
  return found != body.end() && found->is_string() ? found->get_ptr<const std::string*>() : nullptr;
}

}  // namespace

std::shared_ptr<ZavloAuthenticationBridge> ZavloAuthenticationBridge::create(std::weak_ptr<ZavloWebView> webView,
                                                                             std::weak_ptr<void> viewController,
                                                                             Services services) {
  return std::shared_ptr<ZavloAuthenticationBridge>(
      new ZavloAuthenticationBridge(std::move(webView), std::move(viewController), std::move(services)));
}

ZavloAuthenticationBridge::ZavloAuthenticationBridge(std::weak_ptr<ZavloWebView> webView,
                                                     std::weak_ptr<void> viewController, Services services)
    : webView_(std::move(webView)), viewController_(std::move(viewController)), services_(std::move(services)) {}

void ZavloAuthenticationBridge::didReceiveScriptMessage(const ZavloScriptMessage& message) {
  const auto& body = message.body;
  if (!body.is_object()) return;
  const auto* method = stringAt(body, "method");
  const auto* callback = stringAt(body, "callback");
  if (!method || !callback) return;
  const Asker asker(*callback, message.reply, message.source.origin);

  if (*method == "initAuth" || *method == "initSNA") {
    handleInitAuth(body, asker);
  } else if (*method == "startAuth" || *method == "startSNA") {
    handleStartAuth(body, asker);
  } else if (*method == "getDeviceBindingState") {
    handleGetDeviceBindingState(body, asker);
  } else if (*method == "enrollDeviceBinding") {
    handleEnrollDeviceBinding(body, asker);
  } else if (*method == "signDeviceBindingChallenge") {
    handleSignDeviceBindingChallenge(body, asker);
  } else if (*method == "getCapabilities") {
    answer(asker, ZavloAuthenticationOperations::capabilities());
  } else {
    answerFailure(asker, ZavloPublicErrors::unsupportedMethod(*method));
  }
}

bool ZavloAuthenticationBridge::expectsAnswer(const nlohmann::json& body) {
  if (!body.is_object() || !stringAt(body, "method")) return false;
  const auto* callback = stringAt(body, "callback");
  return callback && ZavloAuthJavaScriptUtils::isValidCallbackName(*callback);
}

void ZavloAuthenticationBridge::cleanup() {
  if (auto webView = webView_.lock()) webView->removeScriptMessageHandler(std::string(kHandlerName));
  initConfig_.reset();
}

void ZavloAuthenticationBridge::invokeJsonStringCallback(const std::string& name, const nlohmann::json& jsonObject) {
  auto script = ZavloAuthJavaScriptUtils::javaScriptCallbackWithJsonStringArgument(name, jsonObject);
  if (!script) return;
  services_.mainQueue.post([weakSelf = weak_from_this(), script = std::move(*script)] {
    const auto self = weakSelf.lock();
    if (!self) return;
    if (const auto webView = self->webView_.lock()) webView->evaluateJavaScript(script);
  });
}

void ZavloAuthenticationBridge::answer(const Asker& asker, const nlohmann::json& jsonObject) {
  if (!asker.reply) {
    invokeJsonStringCallback(asker.callbackName, jsonObject);
    return;
  }
  // The promise is settled even when the callback's name is not one that may be called.
  auto script = ZavloAuthJavaScriptUtils::javaScriptCallbackWithJsonStringArgument(asker.callbackName, jsonObject);
  services_.mainQueue.post(
      [weakSelf = weak_from_this(), reply = asker.reply, script = std::move(script).value_or(""), jsonObject] {
        const auto self = weakSelf.lock();
        if (!self || !self->webView_.lock()) return;
        reply->answer(script, jsonObject);
      });
}

void ZavloAuthenticationBridge::handleInitAuth(const nlohmann::json& body, const Asker& asker) {
  const auto* text = stringAt(body, "initConfig");
  auto config = text ? ZavloAuthInitConfig::fromJsonString(*text) : nullptr;
  if (!config) {
    answerFailure(asker, ZavloPublicErrors::exception(ZavloPublicError::invalidJsonConfiguration));
    return;
  }
  // Kept even when the start below cannot run.
  initConfig_ = config;
  auto viewController = viewController_.lock();
  if (!viewController) {
    answerFailure(asker, ZavloPublicErrors::exception(ZavloPublicError::noViewController));
    return;
  }
  services_.mainQueue.post([operations = services_.operations, requestId = config->requestId(),
                            viewController = std::move(viewController),
                            completion = answering(shared_from_this(), asker)]() mutable {
    operations->initAuth(std::move(requestId), std::move(viewController), std::move(completion));
  });
}

void ZavloAuthenticationBridge::handleStartAuth(const nlohmann::json& body, const Asker& asker) {
  const std::string* url = nullptr;
  for (const char* key : {"snaUri", "snaURL", "snaLink"}) {
    if ((url = stringAt(body, key))) break;
  }
  if (!url) {
    answerFailure(asker, ZavloPublicErrors::exception(ZavloPublicError::invalidSnaUri));
    return;
  }
  services_.operations->startAuth(*url, answering(shared_from_this(), asker));
}

void ZavloAuthenticationBridge::handleGetDeviceBindingState(const nlohmann::json& body, const Asker& asker) {
  if (auto config = deviceBindingConfig(body, asker)) {
    services_.operations->getDeviceBindingState(*config, answering(shared_from_this(), asker));
  }
}

void ZavloAuthenticationBridge::handleEnrollDeviceBinding(const nlohmann::json& body, const Asker& asker) {
  if (auto config = deviceBindingConfig(body, asker)) {
    services_.operations->enrollDeviceBinding(*config, answering(shared_from_this(), asker), asker.origin);
  }
}

void ZavloAuthenticationBridge::handleSignDeviceBindingChallenge(const nlohmann::json& body, const Asker& asker) {
  if (auto config = deviceBindingConfig(body, asker)) {
    services_.operations->signDeviceBindingChallenge(*config, answering(shared_from_this(), asker), asker.origin);
  }
}

std::optional<nlohmann::json> ZavloAuthenticationBridge::deviceBindingConfig(const nlohmann::json& body,
                                                                             const Asker& asker) {
  const auto found = body.find("config");
  if (found != body.end()) {
    if (found->is_object()) return *found;
    if (found->is_string()) {
      if (auto parsed = ZavloConfigValues::parseObject(found->get_ref<const std::string&>())) return parsed;
    }
  }
  answerFailure(asker, ZavloPublicErrors::exception(ZavloPublicError::invalidJsonConfiguration));
  return std::nullopt;
}

std::vector<std::string> ZavloAuthenticationBridge::stringListValue(const nlohmann::json& dictionary,
                                                                    std::string_view key) {
  return ZavloConfigValues::stringListValue(dictionary, key);
}

void ZavloAuthenticationBridge::answerFailure(const Asker& asker, const ZavloAuthException& exception) {
  answer(asker, dictionaryOf(exception));
}
