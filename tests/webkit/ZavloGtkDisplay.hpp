#pragma once

#include <gtest/gtest.h>

#include <string>

/// GTK on a virtual display of the test process's own (test support): Xvfb on a display
/// number it picks itself (-displayfd), started on first use and ended with the process.
/// Empty when GTK is ready on the calling (main) thread, otherwise why it is not.
const std::string& zavloGtkUnavailableReason();

/// Skips the current test, saying why, when there is no display to run GTK on.
#define ZAVLO_REQUIRE_GTK()                                                                                       \
  do {                                                                                                            \
    if (const auto& zavloReason = zavloGtkUnavailableReason(); !zavloReason.empty()) GTEST_SKIP() << zavloReason; \
  } while (false)
