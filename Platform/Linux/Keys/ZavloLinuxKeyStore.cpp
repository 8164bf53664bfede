// The platform's key store: the keychain file, with keys in it or in a PKCS#11 token.
#include <sys/stat.h>

#include <filesystem>

#include "Platform/Linux/Keys/ZavloLinuxSecureKeys.hpp"
#include "Platform/Linux/Keys/ZavloLinuxTokenKeyStore.hpp"
#include "Platform/Linux/ZavloLinuxPlatformServices.hpp"

namespace {

ZavloLinuxKeyStore makeKeyStore(ZavloLinuxKeyStoreSettings settings) {
  auto options = std::move(settings.keychain);
  if (settings.defaultPath) {
    // The user's data directory may not exist yet on a fresh account: its missing
    // levels are made private (0700), as XDG asks; the keychain makes its own folder.
    std::filesystem::path level;
    for (const auto& part : std::filesystem::path(settings.path).parent_path().parent_path()) {
      level /= part;
      (void)mkdir(level.c_str(), 0700);  // an existing level stays as it is
    }
    options.createDirectory = true;
  }
  auto trace = options.trace;
  auto keychain = std::make_shared<ZavloLinuxKeychain>(std::move(settings.path), std::move(options));
  if (!settings.keyToken) return {keychain, std::make_shared<ZavloLinuxSecureKeys>(keychain)};
  auto token =
      std::make_shared<ZavloLinuxPkcs11Token>(*settings.keyToken, ZavloLinuxPkcs11Token::Options{std::move(trace)});
  return {std::make_shared<ZavloLinuxTokenKeychain>(token, std::move(keychain)),
          std::make_shared<ZavloLinuxTokenSecureKeys>(std::move(token))};
}

}  // namespace

extern "C" const ZavloLinuxKeyStoreFactory zavloLinuxKeyStoreFactory = &makeKeyStore;
