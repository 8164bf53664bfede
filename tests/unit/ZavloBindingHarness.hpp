#pragma once

// Device binding on the test platform, through the native entry points: the key store and
// owner authentication are the platform's doubles, telemetry is recorded.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DeviceBinding/ZavloDeviceBindingManager.hpp"
#include "ZavloNativeGraph.hpp"

/// One native graph on a test platform of its own, with telemetry turned on and recorded.
struct ZavloBindingHarness {
  using Policy = ZavloOwnerAuthenticationPolicy;
  using Operation = ZavloTestKeyStore::Operation;
  using Outcome = ZavloTestOwnerAuthentication::Outcome;
  using Entry = void (ZavloAuthenticationNativeWrapper::*)(const nlohmann::json&,
                                                           ZavloAuthenticationNativeWrapper::Completion);

  static constexpr Entry kState = &ZavloAuthenticationNativeWrapper::getDeviceBindingState;
  static constexpr Entry kEnroll = &ZavloAuthenticationNativeWrapper::enrollDeviceBinding;
  static constexpr Entry kSign = &ZavloAuthenticationNativeWrapper::signDeviceBindingChallenge;

  ZavloBindingHarness() {
    graph.wrapper.setup(graph.screen, ZavloAuthEnvironment::development);
    graph.log->setObserver(
        [this](const ZavloAuthEventLog& event, const std::string&) { order.push_back(event.eventName.value_or("?")); });
  }
  ZavloBindingHarness(const ZavloBindingHarness&) = delete;
  ZavloBindingHarness& operator=(const ZavloBindingHarness&) = delete;

  struct Outcomes {
    std::vector<ZavloResult<nlohmann::json>> results;
    bool beforeReturn = false;  ///< the completion ran before the entry point returned
    bool onMainQueue = false;
  };

  /// Calls an entry point and runs the platform's queues until nothing is left.
  Outcomes call(Entry entry, const nlohmann::json& config) {
    Outcomes outcomes;
    (graph.wrapper.*entry)(config, [this, &outcomes](ZavloResult<nlohmann::json> result) {
      order.emplace_back("completion");
      outcomes.results.push_back(std::move(result));
      outcomes.onMainQueue = graph.platform.mainQueue().isCurrent();
    });
    outcomes.beforeReturn = !outcomes.results.empty();
    graph.platform.runUntilIdle();
    return outcomes;
  }

  /// The one completion's dictionary, failing the test when it was an exception.
  nlohmann::json success(Entry entry, const nlohmann::json& config) {
    auto outcomes = call(entry, config);
    EXPECT_EQ(outcomes.results.size(), 1U);
    if (outcomes.results.size() != 1U) return nullptr;
    if (!outcomes.results[0]) {
      ADD_FAILURE() << outcomes.results[0].error().errorMessage();
      return nullptr;
    }
    return outcomes.results[0].value();
  }

  static ZavloBytes tag(const std::string& keyId) {
    return zavloBytes(std::string(ZavloDeviceBindingManager::kKeyTagPrefix) + keyId);
  }

  /// A key for keyId as enrolment leaves it, made for secret (empty: it signs for any
  /// proof), with a domain-state record of state when given.
  ZavloBytes enrolled(const std::string& keyId, std::optional<std::string> state = "biometry-1",
                      std::string_view secret = {}) {
    auto point = store.installKey(tag(keyId), secret);
    if (state) (void)store.setDomainState(keyId, zavloBytes(*state));
    store.clearCalls();
    return point;
  }
  bool hasKey(const std::string& keyId) {
    const auto found = store.findKey(tag(keyId));
    return found && found.value().has_value();
  }
  bool hasDomainState(const std::string& keyId) {
    const auto found = store.domainState(keyId);
    return found && found.value().has_value();
  }

  ZavloNativeGraph graph;
  ZavloTestKeyStore& store = graph.platform.testKeyStore();
  ZavloTestOwnerAuthentication& owner = graph.platform.ownerAuthentication();
  /// Event names and "completion", in the order they happened.
  std::vector<std::string> order;
};
