#pragma once

// A complete native object graph on the test platform, with telemetry recorded by the
// test HTTP sessions: what a host gets from the shared instances, but private to a test.
#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Session/ZavloAuthRequestManager.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Testing/ZavloTestPlatform.hpp"

struct ZavloNativeGraph {
  ZavloTestPlatform platform;
  ZavloAuthenticationGraph graph{platform};
  const std::shared_ptr<ZavloAuthLogManager>& log = graph.logManager;
  const std::shared_ptr<ZavloAuthRequestManager>& requests = graph.requestManager;
  ZavloAuthenticationNativeWrapper& wrapper = graph.nativeWrapper;
  std::shared_ptr<int> screen = std::make_shared<int>(0);

  /// Every telemetry event posted so far, as the collector would parse it.
  [[nodiscard]] std::vector<nlohmann::json> events() {
    std::vector<nlohmann::json> parsed;
    for (const auto& exchange : platform.http().exchanges())
      parsed.push_back(nlohmann::json::parse(exchange.bodyText()));
    return parsed;
  }
  [[nodiscard]] std::vector<std::string> eventNames() {
    std::vector<std::string> names;
    for (const auto& event : events()) names.push_back(event.value("eventName", "?"));
    return names;
  }
  /// The path every monitor reports from now on.
  void setPath(std::vector<ZavloNetworkInterface> interfaces) {
    platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath(std::move(interfaces)));
  }
};

/// Collects completions of the native wrapper and says on which queue they arrived.
struct ZavloCompletions {
  std::vector<ZavloResult<nlohmann::json>> results;
  std::vector<bool> onMainQueue;

  ZavloAuthenticationNativeWrapper::Completion collect(ZavloPlatform& platform) {
    return [this, &platform](ZavloResult<nlohmann::json> result) {
      results.push_back(std::move(result));
      onMainQueue.push_back(platform.mainQueue().isCurrent());
    };
  }
};
