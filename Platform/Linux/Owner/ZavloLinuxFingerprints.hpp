#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/ZavloKeyStore.hpp"

/// What the fingerprint daemon (fprintd) says about one user's fingers on its default
/// device.
struct ZavloLinuxEnrolledFingers {
  enum class Availability {
    enrolled,     ///< the device knows at least one finger of the user
    notEnrolled,  ///< a device, but no finger of the user
    unavailable,  ///< no bus, no daemon, no device, or the daemon refused to answer
  };
  Availability availability = Availability::unavailable;
  std::vector<std::string> fingers;  ///< sorted; empty unless enrolled
  std::string detail;                ///< why not enrolled or unavailable, for error descriptions
};

/// Asks fprintd at busAddress (the system bus when absent) over a private connection of
/// its own, synchronously, from any thread.
ZavloLinuxEnrolledFingers zavloReadEnrolledFingers(const std::optional<std::string>& busAddress,
                                                   const std::string& user);

/// SHA-256 of the sorted finger names, each followed by a line feed.
ZavloBytes zavloEnrolledFingersDigest(const std::vector<std::string>& sortedFingers);
