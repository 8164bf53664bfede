#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloKeyStore.hpp"

/// What the fingerprint daemon (fprintd) says about one user's fingers on its default
/// device, and what its print storage holds for them where this process can read it.
struct ZavloLinuxEnrolledFingers {
  enum class Availability {
    enrolled,     ///< the device knows at least one finger of the user
    notEnrolled,  ///< a device, but no finger of the user
    unavailable,  ///< no bus, no daemon, no device, or the daemon refused to answer
  };
  /// One stored print: its file below the user's storage folder, and the file's SHA-256
  /// (empty when the file exists but cannot be read).
  struct StoredPrint {
    std::string path;
    ZavloBytes sha256;
  };

  Availability availability = Availability::unavailable;
  std::vector<std::string> fingers;  ///< sorted; empty unless enrolled
  std::string detail;                ///< why not enrolled or unavailable, for error descriptions
  std::string devicePath;            ///< the default device's D-Bus object path
  /// The device's "name" and "scan-type" properties; empty where the daemon did not tell.
  std::string deviceName;
  std::string scanType;
  /// The stored prints of the enrolled fingers, sorted by path; empty when the user's
  /// storage folder cannot be read (fprintd keeps it root's alone).
  std::vector<StoredPrint> prints;
};

/// Asks fprintd at busAddress (the system bus when absent) over a private connection of
/// its own, synchronously, from any thread, and reads the prints of the enrolled fingers
/// from printStorage (fprintd's layout: USER/DRIVER/DEVICE/FINGER, FINGER being the
/// finger's number in hexadecimal) where it can. Never throws but for want of memory.
ZavloLinuxEnrolledFingers zavloReadEnrolledFingers(const std::optional<std::string>& busAddress,
                                                   const std::string& user, const std::string& printStorage);

/// SHA-256 over the device (path, name, scan type), the sorted finger names and the stored
/// prints, each field length-prefixed. What could not be read adds nothing, so that the
/// state then differs from the one a complete answer gave. Empty only if OpenSSL fails.
ZavloBytes zavloFingerprintDomainState(const ZavloLinuxEnrolledFingers& enrolment);
