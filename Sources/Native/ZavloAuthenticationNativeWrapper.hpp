#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Core/ZavloAuthEnvironment.hpp"
#include "Core/ZavloAuthException.hpp"
#include "Core/ZavloResult.hpp"
#include "Operations/ZavloAuthenticationOperations.hpp"
#include "Session/ZavloAuthInitConfig.hpp"

/// The entry class for native hosts: setup, then initAuth, then the operations, then
/// cleanupAll. Every result leaves as a dictionary, every failure as a ZavloAuthException.
///
/// Threading: call setup, initAuth and cleanupAll from one thread (normally the main
/// thread). Completions run on the main queue, except synchronous failures (no screen,
/// no session, a bad URL), which run on the caller's thread before the call returns. The
/// device binding operations complete where the manager does: the state query and
/// failures before the owner prompt on the caller's thread, the rest on the main queue.
class ZavloAuthenticationNativeWrapper {
 public:
  using Completion = ZavloAuthenticationOperations::Completion;

  explicit ZavloAuthenticationNativeWrapper(std::shared_ptr<ZavloAuthenticationOperations> operations);
  ZavloAuthenticationNativeWrapper(const ZavloAuthenticationNativeWrapper&) = delete;
  ZavloAuthenticationNativeWrapper& operator=(const ZavloAuthenticationNativeWrapper&) = delete;

  /// The process-wide instance: the process-wide graph's (ZavloAuthenticationGraph).
  static ZavloAuthenticationNativeWrapper& shared();

  /// Remembers the host's screen (weakly) and environment, and turns telemetry on for
  /// that environment's tracking endpoint.
  void setup(std::weak_ptr<void> viewController, ZavloAuthEnvironment environment);
  void initAuth(const nlohmann::json& config, Completion completion);
  void initSNA(const nlohmann::json& config, Completion completion) { initAuth(config, std::move(completion)); }
  /// A cancellation, when given, ends the chain where it is.
  void startAuth(const std::string& snaUrl, Completion completion,
                 std::shared_ptr<ZavloCancellation> cancellation = nullptr);
  void startSNA(const std::string& snaUrl, Completion completion) { startAuth(snaUrl, std::move(completion)); }
  [[nodiscard]] nlohmann::json getCapabilities() const;

  /// The device binding operations read their configuration as ZavloAuthenticationOperations says.
  void getDeviceBindingState(const nlohmann::json& config, Completion completion);
  void enrollDeviceBinding(const nlohmann::json& config, Completion completion);
  void signDeviceBindingChallenge(const nlohmann::json& config, Completion completion);
  /// Clears the session and the configuration and shuts telemetry down, synchronously.
  void cleanupAll();

  [[nodiscard]] std::shared_ptr<ZavloAuthInitConfig> initConfig() const { return initConfig_; }
  [[nodiscard]] std::optional<ZavloAuthEnvironment> environment() const { return environment_; }

 private:
  std::shared_ptr<ZavloAuthInitConfig> initConfig_;
  const std::shared_ptr<ZavloAuthenticationOperations> operations_;
  std::weak_ptr<void> viewController_;
  std::optional<ZavloAuthEnvironment> environment_;
};
