#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/ZavloOwnerAuthentication.hpp"

/// An owner-authentication context with a fixed answer: the owner has authenticated or
/// has not (test support). An evaluation replies with that answer on a thread of its own.
class ZavloFixedOwnerContext final : public ZavloOwnerAuthenticationContext {
 public:
  explicit ZavloFixedOwnerContext(bool authenticated) : authenticated_(authenticated) {}
  ~ZavloFixedOwnerContext() override {
    for (auto& reply : replies_) reply.join();
  }

  bool canEvaluatePolicy(ZavloOwnerAuthenticationPolicy /*policy*/) override { return true; }
  void setLocalizedFallbackTitle(std::optional<std::string> /*title*/) override {}
  void evaluatePolicy(ZavloOwnerAuthenticationPolicy /*policy*/, const std::string& /*localizedReason*/,
                      Reply reply) override {
    std::lock_guard lock(mutex_);
    replies_.emplace_back([reply = std::move(reply), success = authenticated_] {
      if (success) {
        reply(true, std::nullopt);
      } else {
        reply(false, ZavloOwnerAuthenticationError::localAuthentication(ZavloLAError::authenticationFailed,
                                                                        "The owner did not authenticate."));
      }
    });
  }
  std::optional<ZavloBytes> evaluatedPolicyDomainState() override { return std::nullopt; }
  [[nodiscard]] bool isAuthenticated() const override { return authenticated_; }

 private:
  const bool authenticated_;
  std::mutex mutex_;
  std::vector<std::thread> replies_;
};
