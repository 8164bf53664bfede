#pragma once

#include <string>
#include <vector>

/// The words to put in front of a command that runs with pam_wrapper preloaded, so that no
/// two such processes live at once on this machine (test support).
///
/// pam_wrapper 1.1.4 gives each process the folder /tmp/pam.C, with C picked from the pid
/// among a few dozen letters, and checks that it is free before making it: two processes
/// starting together can pick the same folder, and the first to end removes it under the
/// other, whose next pam_start then fails. flock(1) from util-linux holds one lock file
/// across every test binary that CTest runs in parallel.
inline std::vector<std::string> zavloPamWrapperSerialised() {
  return {"/usr/bin/flock", "/tmp/zavlo-pam-wrapper.lock"};
}
