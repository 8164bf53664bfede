#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"
#include "Platform/Linux/Network/ZavloLinuxConnection.hpp"
#include "Platform/Linux/Network/ZavloLinuxInterfaces.hpp"
#include "Platform/Linux/Network/ZavloLinuxModems.hpp"
#include "Platform/Linux/ZavloLinuxDeviceInfo.hpp"
#include "Platform/Linux/ZavloLinuxPlatformServices.hpp"
#include "Platform/ZavloPlatform.hpp"

/// The Linux platform, made of real parts. The host runs runLoop() on its main thread,
/// unless it gives a main queue of its own (Options::mainQueue), such as a
/// ZavloGLibMainQueue on the context its GTK main loop runs.
///
/// The key store and owner authentication come from the targets that make them
/// (ZavloAuthenticationSDK::LinuxKeys, ::LinuxOwner; ::Linux links both). Without the first,
/// every key store operation fails as unavailable; without the second, no policy can be
/// evaluated and every prompt fails with biometryNotAvailable.
class ZavloLinuxPlatform final : public ZavloPlatform {
 public:
  struct Options {
    std::optional<std::string> hostApplicationVersion = {};
    /// Interfaces to treat as cellular whatever the kernel says (tests, demos, odd modems).
    std::vector<std::string> cellularInterfaces = {};
    /// The bus ModemManager is reached on (a D-Bus address); absent: the system bus. The
    /// links of its connected bearers count as cellular. Only where ::LinuxModems is linked
    /// (::Linux links it); nothing is reached before the first listing of interfaces.
    std::optional<std::string> modemManagerBusAddress = {};
    /// Trust anchors (PEM) that every TLS connection accepts beside the system trust store:
    /// a private operator CA, or a test's own.
    std::vector<std::string> additionalTrustAnchorsPem = {};
    /// The key file. By default zavlo-auth/keychain.db in the user's data directory
    /// ($XDG_DATA_HOME, else ~/.local/share), whose missing folders are then made (0700);
    /// a path given here must be in a folder that exists. Nothing is opened or created
    /// before the first key store operation.
    std::optional<std::string> keyFilePath = {};
    /// Key file tracing and failure descriptions (createDirectory applies to a given path);
    /// the trace also receives a TPM's and a key token's failures.
    ZavloLinuxKeyFile::Options keyFile = {};
    /// A PKCS#11 URI (RFC 7512): binding keys are then generated and used inside that
    /// token, and only the domain-state records stay in the key file.
    std::optional<std::string> keyToken = {};
    /// The TPM 2.0 that makes new keys, as a tpm2-tss TCTI string ("" for the system's
    /// TPM, device:/dev/tpmrm0). Absent: the system's TPM when it answers, else keys sealed
    /// under the owner's secret in the key file.
    std::optional<std::string> tpm = {};
    /// scrypt's cost for keys sealed under the owner's secret (the default takes some
    /// 32 MiB and tens of milliseconds per signature, which is what slows a guess down).
    /// Lower it only where signatures must be cheap and secrets are strong, as in load tests.
    ZavloLinuxSealedProtection::Cost sealingCost = {};
    /// How the device owner is authenticated: PAM by default. Its secret is set here from
    /// keyToken, whatever the host gave: the login password without a token, the token's
    /// PIN for a token whose URI has none, no secret when the URI carries its PIN
    /// (pin-source= or pin-value=).
    ZavloLinuxOwnerAuthentication::Options ownerAuthentication = {};
    /// The main queue: every completion, connection event, timer and prompt reply of the
    /// library is delivered there. Absent: runLoop(), which the host then runs, and which
    /// then also runs the connections' I/O (with a queue given here, they have a thread).
    std::shared_ptr<ZavloQueue> mainQueue = {};
    /// Name servers for the cellular links ("192.0.2.53", "192.0.2.53:5353",
    /// "[2001:db8::53]:5353"). Connections that require a cellular interface resolve host
    /// names only over that link, with its own servers: these when given, else those
    /// systemd-resolved or NetworkManager report for the link, else modemDnsServers'. With
    /// none, such a connection waits; it never asks the default route's resolver.
    std::vector<std::string> cellularDnsServers = {};
    /// The servers a modem's bearer reports for an interface (ModemManager); asked last,
    /// off the I/O thread.
    std::function<std::vector<std::string>(const std::string& interfaceName)> modemDnsServers = {};
  };

  ZavloLinuxPlatform() : ZavloLinuxPlatform(Options{}) {}
  explicit ZavloLinuxPlatform(Options options);

  ZavloQueue& mainQueue() override { return mainQueue_ ? *mainQueue_ : runLoop_; }
  std::shared_ptr<ZavloQueue> makeSerialQueue(const std::string& label) override;
  const ZavloDeviceInfo& deviceInfo() override { return deviceInfo_; }
  std::shared_ptr<ZavloPathMonitor> makePathMonitor() override;
  std::shared_ptr<ZavloHttpSession> makeHttpSession(const ZavloHttpSessionConfiguration& configuration) override;
  std::shared_ptr<ZavloConnection> makeConnection(const std::string& host, std::uint16_t port,
                                                  ZavloConnectionParameters parameters) override;
  /// The key store opens its file on first use; a file that cannot be used makes every
  /// operation fail (Options::keyFile.trace says why).
  ZavloKeyStore& keyStore() override;
  std::shared_ptr<ZavloOwnerAuthenticationContext> makeOwnerAuthenticationContext() override;
  /// OpenSSL's RAND_bytes, which reseeds in a forked child.
  void fillRandom(std::span<std::uint8_t> bytes) override;
  /// Where new keys go, in words (for traces); opens the key store.
  const std::string& keyStoreDescription();

  /// Null when the host links no owner authentication.
  ZavloLinuxOwnerAuthentication* ownerAuthentication() { return ownerAuthentication_.authentication.get(); }
  /// The default key file path for this user (see Options::keyFilePath).
  static std::string defaultKeyFilePath();

  /// The run loop, for the host to run when it gave no main queue of its own (otherwise
  /// nothing is ever posted to it).
  ZavloLinuxRunLoop& runLoop() { return runLoop_; }
  const ZavloLinuxInterfaceClassifier& interfaceClassifier() const { return classifier_; }
  /// Forgets the answers kept for names over the cellular links (see Options::cellularDnsServers).
  void forgetCellularNames() { connections_.forgetNames(); }
  /// ModemManager's modems (their bearers' name servers, for resolving over a bearer's
  /// link); null when the host links no ::LinuxModems.
  const std::shared_ptr<ZavloLinuxModems>& modems() const { return classifier_.modems(); }

 private:
  void openKeyStore();

  ZavloLinuxRunLoop runLoop_;
  std::shared_ptr<ZavloQueue> mainQueue_;
  ZavloLinuxDeviceInfo deviceInfo_;
  ZavloLinuxInterfaceClassifier classifier_;
  std::vector<std::string> trustAnchors_;
  ZavloLinuxKeyStoreSettings keyStoreSettings_;
  std::once_flag keyStoreOpened_;
  ZavloLinuxKeyStoreService keyStore_;
  ZavloLinuxOwnerAuthenticationService ownerAuthentication_;
  ZavloLinuxConnectionService connections_;  // last: its I/O stops first
};
