#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Platform/Linux/Loop/ZavloLinuxSerialQueue.hpp"

#include "Platform/Linux/Network/ZavloLinuxHttpSession.hpp"
#include "Platform/Linux/Network/ZavloLinuxPathMonitor.hpp"

#include <openssl/rand.h>
#include <pwd.h>
#include <sys/random.h>
#include <unistd.h>

#include <cstdlib>

// The key and owner targets define these when linked (each with --undefined, so that a
// static link keeps them); otherwise they stay null and the services are unavailable.
#pragma weak zavloLinuxKeyStoreFactory
#pragma weak zavloLinuxOwnerAuthenticationFactory

namespace {

// The secret the key store needs, told by its settings alone: the core does not call into
// the key target to ask.
ZavloLinuxOwnerAuthentication::Secret secretFor(const std::optional<std::string>& keyToken) {
  using Secret = ZavloLinuxOwnerAuthentication::Secret;
  if (!keyToken) return Secret::loginPassword;
  const bool carriesPin =
      keyToken->find("pin-source=") != std::string::npos || keyToken->find("pin-value=") != std::string::npos;
  return carriesPin ? Secret::none : Secret::tokenPin;
}

ZavloLinuxOwnerAuthenticationService makeOwnerAuthentication(ZavloLinuxOwnerAuthentication::Options options,
                                                             const std::optional<std::string>& keyToken) {
  if (&zavloLinuxOwnerAuthenticationFactory == nullptr) return {};
  options.secret = secretFor(keyToken);
  return zavloLinuxOwnerAuthenticationFactory(std::move(options));
}

// The modem's name servers, when the host gave no source of its own: ModemManager's, for
// a connected bearer's link.
ZavloLinuxLinkDnsOptions linkDns(ZavloLinuxPlatform::Options& options,
                                 const std::shared_ptr<ZavloLinuxModems>& modems) {
  auto modemServers = std::move(options.modemDnsServers);
  if (!modemServers && modems) {
    modemServers = [weakModems = std::weak_ptr(modems)](const std::string& interfaceName) {
      const auto alive = weakModems.lock();
      return alive ? alive->dnsServers(interfaceName) : std::vector<std::string>{};
    };
  }
  return {
      .hostServers = std::move(options.cellularDnsServers), .modemServers = std::move(modemServers), .askSystem = true};
}

std::shared_ptr<ZavloLinuxModems> makeModems(std::optional<std::string> busAddress) {
  if (!ZavloLinuxModems::supported()) return {};
  return std::make_shared<ZavloLinuxModems>(std::move(busAddress));
}

}  // namespace

ZavloLinuxPlatform::ZavloLinuxPlatform(Options options)
    : mainQueue_(std::move(options.mainQueue)),
      deviceInfo_(std::move(options.hostApplicationVersion)),
      classifier_(std::move(options.cellularInterfaces), makeModems(std::move(options.modemManagerBusAddress))),
      trustAnchors_(std::move(options.additionalTrustAnchorsPem)),
      keyStoreSettings_{.path = options.keyFilePath.value_or(defaultKeyFilePath()),
                        .defaultPath = !options.keyFilePath,
                        .file = std::move(options.keyFile),
                        .keyToken = std::move(options.keyToken),
                        .tpm = std::move(options.tpm),
                        .sealingCost = options.sealingCost},
      ownerAuthentication_(makeOwnerAuthentication(std::move(options.ownerAuthentication), keyStoreSettings_.keyToken)),
      connections_(mainQueue_
                       ? ZavloLinuxConnectionService(classifier_, linkDns(options, classifier_.modems()))
                       : ZavloLinuxConnectionService(classifier_, linkDns(options, classifier_.modems()), runLoop_)) {}

std::shared_ptr<ZavloConnection> ZavloLinuxPlatform::makeConnection(const std::string& host, std::uint16_t port,
                                                                    ZavloConnectionParameters parameters) {
  if (parameters.tls) {
    auto& anchors = parameters.tls->additionalTrustAnchorsPem;
    anchors.insert(anchors.end(), trustAnchors_.begin(), trustAnchors_.end());
  }
  return connections_.makeConnection(host, port, std::move(parameters));
}

std::shared_ptr<ZavloQueue> ZavloLinuxPlatform::makeSerialQueue(const std::string& label) {
  return std::make_shared<ZavloLinuxSerialQueue>(label);
}

std::shared_ptr<ZavloPathMonitor> ZavloLinuxPlatform::makePathMonitor() {
  return std::make_shared<ZavloLinuxPathMonitor>(classifier_);
}

std::shared_ptr<ZavloHttpSession> ZavloLinuxPlatform::makeHttpSession(
    const ZavloHttpSessionConfiguration& configuration) {
  return std::make_shared<ZavloLinuxHttpSession>(configuration);
}

std::string ZavloLinuxPlatform::defaultKeyFilePath() {
  const char* data = std::getenv("XDG_DATA_HOME");
  std::string folder;
  if (data != nullptr && *data == '/') {
    folder = data;
  } else {
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') {
      const passwd* entry = getpwuid(geteuid());
      home = entry != nullptr ? entry->pw_dir : "/";
    }
    folder = std::string(home) + "/.local/share";
  }
  return folder + "/zavlo-auth/keychain.db";
}

void ZavloLinuxPlatform::openKeyStore() {
  std::call_once(keyStoreOpened_, [this] {
    if (&zavloLinuxKeyStoreFactory != nullptr) {
      keyStore_ = zavloLinuxKeyStoreFactory(keyStoreSettings_);
      return;
    }
    keyStore_ = {std::make_shared<ZavloLinuxUnavailableKeyStore>(), "no key store (the host links none)"};
  });
}

ZavloKeyStore& ZavloLinuxPlatform::keyStore() {
  openKeyStore();
  return *keyStore_.store;
}

const std::string& ZavloLinuxPlatform::keyStoreDescription() {
  openKeyStore();
  return keyStore_.description;
}

std::shared_ptr<ZavloOwnerAuthenticationContext> ZavloLinuxPlatform::makeOwnerAuthenticationContext() {
  if (!ownerAuthentication_.makeContext) return std::make_shared<ZavloLinuxUnavailableOwnerAuthenticationContext>();
  return ownerAuthentication_.makeContext();
}

void ZavloLinuxPlatform::fillRandom(std::span<std::uint8_t> bytes) {
  if (bytes.empty()) return;
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1) return;
  // OpenSSL could not seed itself: the kernel's generator, which blocks only until the
  // system has entropy at all.
  for (std::size_t done = 0; done < bytes.size();) {
    const auto got = getrandom(bytes.data() + done, bytes.size() - done, 0);
    if (got > 0) done += static_cast<std::size_t>(got);
  }
}
