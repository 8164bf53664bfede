#pragma once

#include <functional>
#include <string>
#include <vector>

/// A network namespace made by a test with iproute2 and deleted when this object goes,
/// whatever happened in between (test support). Its name holds the process id and a
/// counter, so parallel runs never meet.
class ZavloTestNetworkNamespace {
 public:
  explicit ZavloTestNetworkNamespace(const std::string& role);
  ~ZavloTestNetworkNamespace();
  ZavloTestNetworkNamespace(const ZavloTestNetworkNamespace&) = delete;
  ZavloTestNetworkNamespace& operator=(const ZavloTestNetworkNamespace&) = delete;

  /// False when the namespace could not be made (not root, no iproute2, no support);
  /// problem() then says why.
  [[nodiscard]] bool ok() const noexcept { return ok_; }
  [[nodiscard]] const std::string& problem() const noexcept { return problem_; }
  [[nodiscard]] const std::string& name() const noexcept { return name_; }

  /// Runs `ip -n NAME arguments...`; an empty string on success, the error text otherwise.
  std::string ip(const std::vector<std::string>& arguments) const;
  /// Runs work on a new thread that has entered this namespace, and waits for it. False if
  /// the thread could not enter it.
  bool runInside(const std::function<void()>& work) const;

  /// The iproute2 program, or empty if there is none.
  static std::string ipProgram();

 private:
  std::string name_;
  bool created_ = false;
  bool ok_ = false;
  std::string problem_;
};
