#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Cellular/ZavloCellularSnaClient.hpp"
#include "Core/ZavloAuthEnvironment.hpp"
#include "Core/ZavloAuthException.hpp"
#include "Core/ZavloCancellation.hpp"
#include "Core/ZavloResult.hpp"

class ZavloAuthLogManager;
class ZavloAuthenticationRepository;
class ZavloDeviceBindingManager;

/// The operations of the library as both entry classes offer them: the native entry
/// class and the web bridge call these and nothing below, so a page and a native host
/// get the same session, the same configuration reading and the same dictionaries.
/// Records leave as their dictionaries (empty when one cannot be converted), failures as
/// the ZavloAuthException unchanged.
///
/// Threading: as the managers behind it. Completions of the session start run on the
/// main queue; those of startAuth and device binding where their managers complete.
class ZavloAuthenticationOperations {
 public:
  using Completion = std::function<void(ZavloResult<nlohmann::json>)>;

  ZavloAuthenticationOperations(std::shared_ptr<ZavloAuthenticationRepository> repository,
                                std::shared_ptr<ZavloAuthLogManager> logManager,
                                std::shared_ptr<ZavloDeviceBindingManager> deviceBindingManager);
  ZavloAuthenticationOperations(const ZavloAuthenticationOperations&) = delete;
  ZavloAuthenticationOperations& operator=(const ZavloAuthenticationOperations&) = delete;

  /// Turns telemetry on for the environment's tracking endpoint, if that endpoint passes
  /// the endpoint check; otherwise leaves telemetry as it is.
  void configureTelemetry(ZavloAuthEnvironment environment);

  /// Starts a session for requestId over the host's screen.
  void initAuth(std::optional<std::string> requestId, std::shared_ptr<void> viewController, Completion completion);
  void startAuth(const std::string& snaUrl, Completion completion,
                 std::shared_ptr<ZavloCancellation> cancellation = nullptr);
  [[nodiscard]] static nlohmann::json capabilities();

  /// Reads "keyId" (text, empty when missing) and answers the binding state.
  void getDeviceBindingState(const nlohmann::json& config, Completion completion);
  /// Reads "attestationChallenge", "promptTitle", "promptSubtitle", "requestId" and
  /// "entityId" (each as trimmed text; empty ones absent or defaulted) and enrols.
  /// requestingOrigin is the origin of the page that asked (the web bridge's caller), shown
  /// with the prompt; empty when the host asks.
  void enrollDeviceBinding(const nlohmann::json& config, Completion completion, std::string requestingOrigin = {});
  /// Reads "challenge", "allowedKeyIds" (a list of texts, or one string as one id) and the
  /// prompt and telemetry keys of enrollDeviceBinding, and signs the challenge.
  /// requestingOrigin as for enrollDeviceBinding.
  void signDeviceBindingChallenge(const nlohmann::json& config, Completion completion,
                                  std::string requestingOrigin = {});

  void clearSession();
  /// Clears the session, shuts telemetry down synchronously, and clears the session again
  /// (a start that completed meanwhile does not survive the clean-up).
  void cleanupAll();

  /// Told about every hop of every chain started afterwards (a host's diagnostics);
  /// callable from any thread. An empty observer stops the reports.
  void setHopObserver(ZavloCellularSnaClient::HopObserver observer);

 private:
  const std::shared_ptr<ZavloAuthenticationRepository> repository_;
  const std::shared_ptr<ZavloAuthLogManager> logManager_;
  const std::shared_ptr<ZavloDeviceBindingManager> deviceBindingManager_;
};
