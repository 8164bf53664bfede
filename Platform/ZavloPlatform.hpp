#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "Platform/ZavloConnection.hpp"
#include "Platform/ZavloDeviceInfo.hpp"
#include "Platform/ZavloHttpSession.hpp"
#include "Platform/ZavloKeyStore.hpp"
#include "Platform/ZavloOwnerAuthentication.hpp"
#include "Platform/ZavloPathMonitor.hpp"
#include "Platform/ZavloQueue.hpp"

/// Every system service the library reaches, behind one injectable object. Managers take
/// the services they need in their constructors; only the process-wide shared()
/// accessors read current().
///
/// Threading contract: the accessors are callable from any thread; each service states
/// its own contract.
class ZavloPlatform {
 public:
  ZavloPlatform() = default;
  ZavloPlatform(const ZavloPlatform&) = delete;
  ZavloPlatform& operator=(const ZavloPlatform&) = delete;
  virtual ~ZavloPlatform() = default;

  /// The host's main queue: completions, timers and connection events run here.
  virtual ZavloQueue& mainQueue() = 0;
  /// A new private serial queue that runs work asynchronously.
  virtual std::shared_ptr<ZavloQueue> makeSerialQueue(const std::string& label) = 0;
  virtual const ZavloDeviceInfo& deviceInfo() = 0;
  /// A new, unstarted monitor of the network path of all interface types.
  virtual std::shared_ptr<ZavloPathMonitor> makePathMonitor() = 0;
  /// A new HTTP session with these limits (the telemetry transport).
  virtual std::shared_ptr<ZavloHttpSession> makeHttpSession(const ZavloHttpSessionConfiguration& configuration) = 0;
  /// A new connection to host:port, not yet started.
  virtual std::shared_ptr<ZavloConnection> makeConnection(const std::string& host, std::uint16_t port,
                                                          ZavloConnectionParameters parameters) = 0;
  /// Device binding's keys and domain-state records.
  virtual ZavloKeyStore& keyStore() = 0;
  /// A new owner-authentication context: one per prompt, never shared or reused.
  virtual std::shared_ptr<ZavloOwnerAuthenticationContext> makeOwnerAuthenticationContext() = 0;
  /// Fills bytes from a cryptographically secure generator whose output differs in every
  /// process, also between a parent and a child forked from it (key ids are made of it).
  virtual void fillRandom(std::span<std::uint8_t> bytes) = 0;

  /// The process-wide platform: the one installed, or zavloMakeDefaultPlatform()'s on first use.
  static ZavloPlatform& current();
  /// Installs the process-wide platform. Returns false (and changes nothing) once
  /// current() has been used, so that no shared object ever sees two platforms.
  static bool install(std::shared_ptr<ZavloPlatform> platform);
};

/// The platform a process gets when its host installs none; defined by the platform
/// library that is linked (the Linux one makes a ZavloLinuxPlatform).
std::shared_ptr<ZavloPlatform> zavloMakeDefaultPlatform();
