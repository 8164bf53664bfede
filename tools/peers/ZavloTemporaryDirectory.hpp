#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

/// A fresh private directory (mode 0700, from mkdtemp), removed with everything in it at
/// the end of the scope (tests, benchmarks, the demo).
class ZavloTemporaryDirectory {
 public:
  /// The folder's name is prefix, a dash and six random characters.
  explicit ZavloTemporaryDirectory(const std::string& prefix = "zavlo-test") {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = pattern;
  }
  ZavloTemporaryDirectory(const ZavloTemporaryDirectory&) = delete;
  ZavloTemporaryDirectory& operator=(const ZavloTemporaryDirectory&) = delete;
  ~ZavloTemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};
