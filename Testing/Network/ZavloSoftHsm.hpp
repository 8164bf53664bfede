#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "Testing/Network/ZavloProcess.hpp"
#include "tools/peers/ZavloTemporaryDirectory.hpp"

/// A SoftHSM2 token of a test's own: its configuration and token folder in a private
/// temporary directory, initialised with softhsm2-util (tests and benchmarks). SOFTHSM2_CONF is set
/// for this process (SoftHSM2 reads it when a module is initialised) and given to child
/// processes through environment().
class ZavloSoftHsm {
 public:
  static constexpr const char* kModule = "/usr/lib/softhsm/libsofthsm2.so";
  static constexpr const char* kUtility = "/usr/bin/softhsm2-util";
  static constexpr const char* kPin = "4711";

  /// Why no token can be made here (SoftHSM2 is missing), or nothing.
  static std::optional<std::string> unavailable() {
    for (const char* file : {kModule, kUtility}) {
      if (!std::filesystem::exists(file)) {
        return std::string("SoftHSM2 is not installed (") + file + " missing): apt-get install softhsm2";
      }
    }
    return std::nullopt;
  }

  explicit ZavloSoftHsm(std::string label = "zavlo") : label_(std::move(label)) {
    if (unavailable()) return;
    std::filesystem::create_directory(tokens());
    std::ofstream(configuration()) << "directories.tokendir = " << tokens().string()
                                   << "\nobjectstore.backend = file\nlog.level = ERROR\n";
    setenv("SOFTHSM2_CONF", configuration().c_str(), 1);
    initialised_ = addToken(label_).exitStatus == 0;
    std::ofstream(pinFile()) << kPin << '\n';
  }

  /// softhsm2-util's answer to initialising another token in the same folder.
  ZavloProcessResult addToken(const std::string& label) const {
    return zavloRunProcess({"/usr/bin/env", "SOFTHSM2_CONF=" + configuration().string(), kUtility, "--init-token",
                            "--free", "--label", label, "--pin", kPin, "--so-pin", "123456"});
  }
  /// Deletes the token, as pulling a smart card out would.
  ZavloProcessResult removeToken() const {
    return zavloRunProcess(
        {"/usr/bin/env", "SOFTHSM2_CONF=" + configuration().string(), kUtility, "--delete-token", "--token", label_});
  }

  [[nodiscard]] bool initialised() const { return initialised_; }
  [[nodiscard]] std::filesystem::path configuration() const { return directory_.path() / "softhsm2.conf"; }
  [[nodiscard]] std::filesystem::path tokens() const { return directory_.path() / "tokens"; }
  [[nodiscard]] std::filesystem::path pinFile() const { return directory_.path() / "pin"; }
  [[nodiscard]] const std::string& label() const { return label_; }
  /// The token's URI, with the PIN from the PIN file unless other query attributes are given.
  [[nodiscard]] std::string uri(const std::string& query = "") const {
    return "pkcs11:token=" + label_ + "?module-path=" + kModule + "&" +
           (query.empty() ? "pin-source=file:" + pinFile().string() : query);
  }
  [[nodiscard]] std::vector<std::string> environment() const { return {"SOFTHSM2_CONF=" + configuration().string()}; }

 private:
  std::string label_;
  ZavloTemporaryDirectory directory_{"zavlo-softhsm"};
  bool initialised_ = false;
};
