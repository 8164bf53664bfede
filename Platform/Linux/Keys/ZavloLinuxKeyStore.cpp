// The platform's key store: the key file, with new keys made by the TPM, sealed in
// software, or kept in a PKCS#11 token.
#include <sys/stat.h>

#include <filesystem>

#include "Platform/Linux/Keys/ZavloLinuxFileKeyStore.hpp"
#include "Platform/Linux/Keys/ZavloLinuxSealedProtection.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTpmProtection.hpp"
#include "Platform/Linux/ZavloLinuxPlatformServices.hpp"

namespace {

ZavloLinuxKeyStoreService makeKeyStore(ZavloLinuxKeyStoreSettings settings) {
  auto options = std::move(settings.file);
  if (settings.defaultPath) {
    // The user's data directory may not exist yet on a fresh account: its missing
    // levels are made private (0700), as XDG asks; the key file makes its own folder.
    std::filesystem::path level;
    for (const auto& part : std::filesystem::path(settings.path).parent_path().parent_path()) {
      level /= part;
      (void)mkdir(level.c_str(), 0700);  // an existing level stays as it is
    }
    options.createDirectory = true;
  }
  const auto path = settings.path;
  const auto trace = options.trace;
  auto file = std::make_shared<ZavloLinuxKeyFile>(std::move(settings.path), std::move(options));
  if (settings.keyToken) {
    // Keys in the token, the domain-state records in the key file.
    auto token =
        std::make_shared<ZavloLinuxPkcs11Token>(std::move(*settings.keyToken), ZavloLinuxPkcs11Token::Options{trace});
    auto description = "keys in the PKCS#11 token " + token->shownUri() + ", unlocked by " +
                       (token->pinFromUri() ? "the URI's PIN (the owner is not asked for it)" : "the owner's PIN") +
                       ", key file " + path;
    return {std::make_shared<ZavloLinuxTokenKeyStore>(std::move(token), std::move(file)), std::move(description)};
  }
  auto sealed = std::make_shared<ZavloLinuxSealedProtection>(settings.sealingCost);
  // A TPM named in the settings makes every new key, reachable or not; without one, the
  // system's TPM does when it answers once now, else keys are sealed in software. Sealed
  // keys already in the file keep signing either way.
  std::optional<std::string> tpm = std::move(settings.tpm);
  if (!tpm && ZavloLinuxTpmProtection::probe(std::string(ZavloLinuxTpmProtection::kSystemTcti))) tpm.emplace();
  if (tpm) {
    auto protection = std::make_shared<ZavloLinuxTpmProtection>(
        std::move(*tpm),
        ZavloLinuxTpmProtection::Options{.iterations = ZavloLinuxTpmProtection::kDefaultIterations, .trace = trace});
    std::string description = "TPM 2.0 (" + protection->tcti() + "), key file " + path;
    return {std::make_shared<ZavloLinuxFileKeyStore>(std::move(file), std::move(protection), sealed),
            std::move(description)};
  }
  return {std::make_shared<ZavloLinuxFileKeyStore>(std::move(file), sealed, sealed),
          "keys sealed under the owner's secret, key file " + path};
}

}  // namespace

extern "C" const ZavloLinuxKeyStoreFactory zavloLinuxKeyStoreFactory = &makeKeyStore;
