#pragma once

#include <memory>

#include "Bridge/ZavloAuthenticationBridge.hpp"
#include "Core/ZavloAuthEnvironment.hpp"
#include "Platform/ZavloWebView.hpp"

/// The entry class for web hosts: installs the bridge in the host's web view, so that the
/// page reaches every operation by posting to "zavlo_authentication_bridge".
///
/// Threading: call every method on the main queue (the web view's thread).
class ZavloAuthenticationWrapper {
 public:
  explicit ZavloAuthenticationWrapper(ZavloAuthenticationBridge::Services services);
  ZavloAuthenticationWrapper(const ZavloAuthenticationWrapper&) = delete;
  ZavloAuthenticationWrapper& operator=(const ZavloAuthenticationWrapper&) = delete;

  /// The process-wide instance: the process-wide graph's (ZavloAuthenticationGraph).
  static ZavloAuthenticationWrapper& shared();

  /// Removes any bridge installed before, turns telemetry on for the environment's
  /// tracking endpoint, and installs a new bridge in webView. The wrapper and the web view
  /// hold the bridge; the bridge holds the web view and the screen weakly.
  ///
  /// Only the top frames of documents that allowedOrigins admits reach the bridge; without
  /// rules, the page the view shows now and pages of its origin (see ZavloWebView).
  void setupWebView(const std::shared_ptr<ZavloWebView>& webView, std::weak_ptr<void> viewController,
                    ZavloAuthEnvironment environment, const ZavloOriginRules& allowedOrigins = ZavloOriginRules());
  /// Removes the bridge only.
  void cleanup();
  /// Removes the bridge, clears the session and shuts telemetry down, synchronously.
  void cleanupAll();

  [[nodiscard]] std::shared_ptr<ZavloAuthenticationBridge> bridge() const { return bridge_; }

 private:
  ZavloAuthenticationBridge::Services services_;
  std::shared_ptr<ZavloAuthenticationBridge> bridge_;
};
