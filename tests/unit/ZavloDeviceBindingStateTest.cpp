// The binding state query and the key store calls behind it.
#include <functional>

#include "ZavloBindingHarness.hpp"

using nlohmann::json;
using Policy = ZavloOwnerAuthenticationPolicy;
using Operation = ZavloTestKeyStore::Operation;

namespace {

json stateOf(const char* state, std::optional<std::string> keyId = std::nullopt) {
  json expected = {{"status", "SUCCESS"}, {"state", state}};
  if (keyId) expected["keyId"] = *keyId;
  return expected;
}

std::string described(const ZavloTestKeyStore::Call& call) {
  static const char* const kNames[] = {"createKey", "findKey", "sign", "deleteKey", "domainState", "setDomainState"};
  return std::string(kNames[static_cast<int>(call.operation)]) + " " + call.subject;
}

}  // namespace

TEST(ZavloDeviceBindingState, ReportsEveryStateWordSynchronouslyWithoutTelemetry) {
  using Arrange = std::function<void(ZavloBindingHarness&)>;
  struct Case {
    const char* name;
    Arrange arrange;
    json config;
    json expected;
    bool storeUntouched;
  };
  const json k1 = {{"keyId", "k1"}};
  const Arrange none = [](auto&) {};
  const Arrange changed = [](auto& h) { h.enrolled("k1", "biometry-0"); };
  const Arrange enrolled = [](auto& h) { h.enrolled("k1"); };
  const Arrange noRecord = [](auto& h) { h.enrolled("k1", std::nullopt); };
  const Arrange noScreenLock = [](auto& h) {
    h.owner.queueCanEvaluatePolicyAnswers(Policy::deviceOwnerAuthentication, {false});
  };
  const Arrange hardware = [](auto& h) {
    h.owner.queueCanEvaluatePolicyAnswers(Policy::deviceOwnerAuthentication, {true, false});
  };
  const Arrange biometricsRemoved = [](auto& h) {
    h.enrolled("k1", "biometry-0");
    h.owner.setCanEvaluatePolicy(Policy::deviceOwnerAuthenticationWithBiometrics, false);
  };
  const Arrange recordFails = [](auto& h) {
    h.enrolled("k1", "biometry-0");
    h.store.fail(Operation::domainState, {ZavloKeyStoreFailure::unavailable, 5, "busy"});
  };
  const Arrange lookupFails = [](auto& h) {
    h.enrolled("k1");
    h.store.fail(Operation::findKey, {ZavloKeyStoreFailure::damaged, 11, "damaged"});
  };
  const std::vector<Case> cases = {
      {"no screen lock", noScreenLock, k1, stateOf("NO_SCREEN_LOCK"), false},
      {"second evaluation fails", hardware, k1, stateOf("UNSUPPORTED"), false},
      {"missing key id", none, json::object(), stateOf("NOT_ENROLLED"), true},
      {"blank key id", none, {{"keyId", " \n\t\u2003"}}, stateOf("NOT_ENROLLED"), true},
      {"no key", none, {{"keyId", "nobody"}}, stateOf("NOT_ENROLLED"), false},
      {"enrolled, padded id", enrolled, {{"keyId", "  k1\n"}}, stateOf("ENROLLED", "k1"), false},
      {"number as key id", [](auto& h) { h.enrolled("42"); }, {{"keyId", 42}}, stateOf("ENROLLED", "42"), false},
      {"biometrics changed", changed, k1, stateOf("INVALIDATED", "k1"), false},
      {"enrolled without biometrics, biometrics added since", noRecord, k1, stateOf("ENROLLED", "k1"), false},
      {"biometrics changed, then removed", biometricsRemoved, k1, stateOf("ENROLLED", "k1"), false},
      {"record lookup fails", recordFails, k1, stateOf("ENROLLED", "k1"), false},
      {"record unreadable, so equal to no state", [](auto& h) { h.enrolled("k1", ""); }, k1,
       stateOf("INVALIDATED", "k1"), false},
      {"key lookup fails", lookupFails, k1, stateOf("NOT_ENROLLED"), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ZavloBindingHarness h;
    c.arrange(h);
    const auto outcomes = h.call(ZavloBindingHarness::kState, c.config);
    ASSERT_EQ(outcomes.results.size(), 1U);
    EXPECT_TRUE(outcomes.beforeReturn);
    ASSERT_TRUE(outcomes.results[0]);
    EXPECT_EQ(outcomes.results[0].value(), c.expected);
    EXPECT_TRUE(h.order == std::vector<std::string>{"completion"}) << "no telemetry";
    if (c.storeUntouched) {
      EXPECT_TRUE(h.store.calls().empty()) << "an empty id never reaches the key store";
    }
  }
}

TEST(ZavloDeviceBindingState, InvalidationDeletesExactlyThatKeyAndItsRecordOnce) {
  ZavloBindingHarness h;
  h.enrolled("k1", "biometry-0");
  h.enrolled("k2", "biometry-0");
  h.enrolled("  blank  ");  // never looked at: ids are trimmed first
  const auto before = h.store.itemCount();

  EXPECT_EQ(h.success(ZavloBindingHarness::kState, {{"keyId", " k1 "}}), stateOf("INVALIDATED", "k1"));
  const std::string tag = "in.zavlo.authsdk.devicebinding.k1";
  std::vector<std::string> calls;
  for (const auto& call : h.store.calls()) calls.push_back(described(call));
  EXPECT_EQ(calls,
            (std::vector<std::string>{"findKey " + tag, "domainState k1", "deleteKey " + tag, "setDomainState k1"}));
  EXPECT_EQ(h.store.itemCount(), before - 2);
  EXPECT_FALSE(h.hasKey("k1"));
  EXPECT_FALSE(h.hasDomainState("k1"));
  EXPECT_TRUE(h.hasKey("k2") && h.hasDomainState("k2") && h.hasKey("  blank  "));

  EXPECT_EQ(h.success(ZavloBindingHarness::kState, {{"keyId", "k1"}}), stateOf("NOT_ENROLLED"));
  EXPECT_EQ(h.success(ZavloBindingHarness::kState, {{"keyId", "k2"}}), stateOf("INVALIDATED", "k2"));
}
