#pragma once

#include <string>
#include <vector>

/// Runs a program to completion and captures what it wrote (test support).
struct ZavloProcessResult {
  int exitStatus = -1;  ///< the exit code, or -1 if it did not exit normally
  std::string standardOutput;
  std::string standardError;
};

ZavloProcessResult zavloRunProcess(const std::vector<std::string>& arguments, const std::string& standardInput = "");
