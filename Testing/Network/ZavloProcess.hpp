#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// Runs a program to completion and captures what it wrote (test support).
struct ZavloProcessResult {
  int exitStatus = -1;  ///< the exit code, or -1 if it did not exit normally
  std::string standardOutput;
  std::string standardError;
  long maxResidentKilobytes = 0;  ///< zavloRunProcess: the peak resident size seen while it ran
};

ZavloProcessResult zavloRunProcess(const std::vector<std::string>& arguments, const std::string& standardInput = "");

/// A program talked to a line at a time: the test writes a line, reads the answer, and
/// writes the next (test support). Standard error is collected until the end.
class ZavloInteractiveProcess {
 public:
  explicit ZavloInteractiveProcess(const std::vector<std::string>& arguments);
  ~ZavloInteractiveProcess();  ///< kills the process if it still runs
  ZavloInteractiveProcess(const ZavloInteractiveProcess&) = delete;
  ZavloInteractiveProcess& operator=(const ZavloInteractiveProcess&) = delete;

  void writeLine(const std::string& line);
  /// The next line of standard output, without its line feed; absent at the end of the
  /// output or when nothing arrives within limit (a safety bound, not a measurement).
  std::optional<std::string> readLine(std::chrono::milliseconds limit = std::chrono::seconds(30));
  /// Closes standard input, then collects the rest of the output and the exit status.
  ZavloProcessResult finish();

 private:
  int pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
  std::string pending_;
  std::string standardError_;
};
