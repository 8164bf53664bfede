// Device binding end to end, as a host calls it: enrolDeviceBinding and
// signDeviceBindingChallenge through the native wrapper on the Linux platform (SQLite key
// store in a private temporary folder, owner authentication set to allow, telemetry to a
// loopback collector), each next to its floor: the bare OpenSSL key generation and
// ECDSA-SHA256 signature with the key already in memory. The ratio floor/library is the
// share of the time that is cryptography; the rest is the store, the prompt round trip,
// the checks and the telemetry hand-off. (The token figures are in ZavloTokenBench.cpp.)
// Names are WHAT/WHO; scripts/bench compares WHAT/library with the others.
#include <benchmark/benchmark.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "Telemetry/ZavloAuthLogManager.hpp"
#include "Graph/ZavloAuthenticationGraph.hpp"
#include "Platform/Linux/Keys/ZavloLinuxKeychain.hpp"
#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"

namespace {

using namespace std::chrono_literals;

// One platform, key store and graph per benchmark, removed with their folder.
class BindingHost {
 public:
  BindingHost() : folder_(makeFolder()), platform_(options(folder_)), graph_(platform_) {
    graph_.logManager->configure(ZavloAuthEnvironment::development, collector_.url("/events"));
  }
  BindingHost(const BindingHost&) = delete;
  BindingHost& operator=(const BindingHost&) = delete;
  ~BindingHost() {
    platform_.ownerAuthentication()->waitForEvaluations();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  // Runs one operation to its completion on the platform's run loop.
  nlohmann::json run(void (ZavloAuthenticationNativeWrapper::*operation)(const nlohmann::json&,
                                                                         ZavloAuthenticationNativeWrapper::Completion),
                     const nlohmann::json& config) {
    std::optional<nlohmann::json> outcome;
    (graph_.nativeWrapper.*operation)(config, [&outcome](ZavloResult<nlohmann::json> result) {
      outcome = result ? result.value() : nlohmann::json{{"status", "FAILURE"}};
    });
    platform_.runLoop().runUntil([&outcome] { return outcome.has_value(); }, 10s);
    if (!outcome || outcome->value("status", "") != "SUCCESS") {
      throw std::runtime_error("binding operation failed: " + (outcome ? outcome->dump() : std::string("timeout")));
    }
    return *outcome;
  }

 private:
  static std::string makeFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zavlo-binding-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
  }
  static ZavloLinuxPlatform::Options options(const std::string& folder) {
    ZavloLinuxPlatform::Options options;
    options.keychainPath = folder + "/keychain.db";
    options.ownerAuthentication.mode = ZavloLinuxOwnerAuthentication::Mode::allow;
    return options;
  }

  std::string folder_;
  ZavloHttpTestServer collector_;
  ZavloLinuxPlatform platform_;
  ZavloAuthenticationGraph graph_;
};

void BM_EnrollLibrary(benchmark::State& state) {
  BindingHost host;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        host.run(&ZavloAuthenticationNativeWrapper::enrollDeviceBinding, nlohmann::json::object()));
  }
}

void BM_EnrollFloor(benchmark::State& state) {
  for (auto _ : state) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    unsigned char point[65];
    std::size_t length = 0;
    EVP_PKEY_get_octet_string_param(key, "encoded-pub-key", point, sizeof point, &length);
    benchmark::DoNotOptimize(length);
    EVP_PKEY_free(key);
  }
}

void BM_SignLibrary(benchmark::State& state) {
  BindingHost host;
  const std::string keyId =
      host.run(&ZavloAuthenticationNativeWrapper::enrollDeviceBinding, nlohmann::json::object()).at("keyId");
  const nlohmann::json config{{"allowedKeyIds", {keyId}}, {"challenge", "3f9a1c7e-challenge-from-the-server"}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(host.run(&ZavloAuthenticationNativeWrapper::signDeviceBindingChallenge, config));
  }
}

void BM_SignFloor(benchmark::State& state) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::string challenge = "3f9a1c7e-challenge-from-the-server";
  unsigned char signature[80];
  for (auto _ : state) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::size_t length = sizeof signature;
    if (EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), signature, &length, reinterpret_cast<const unsigned char*>(challenge.data()),
                       challenge.size()) != 1) {
      state.SkipWithError("OpenSSL refused to sign");
      break;
    }
    benchmark::DoNotOptimize(signature);
  }
}

}  // namespace

BENCHMARK(BM_EnrollLibrary)->Name("enroll/library")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EnrollFloor)->Name("enroll/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SignLibrary)->Name("sign/library")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SignFloor)->Name("sign/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
