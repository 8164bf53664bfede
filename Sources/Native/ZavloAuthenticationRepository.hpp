#pragma once

#include <memory>

#include "Native/ZavloAuthRequestManager.hpp"

/// Gives the entry points their session manager; clears the session when it goes.
class ZavloAuthenticationRepository {
 public:
  explicit ZavloAuthenticationRepository(std::shared_ptr<ZavloAuthRequestManager> requestManager)
      : requestManager(std::move(requestManager)) {}
  ZavloAuthenticationRepository(const ZavloAuthenticationRepository&) = delete;
  ZavloAuthenticationRepository& operator=(const ZavloAuthenticationRepository&) = delete;
  ~ZavloAuthenticationRepository() {
    if (requestManager) requestManager->clearSession();
  }

  /// The process-wide repository, a member of the process-wide graph.
  static std::shared_ptr<ZavloAuthenticationRepository> shared();

  const std::shared_ptr<ZavloAuthRequestManager> requestManager;
};

/// A process-wide object with no fields and no operations; clean-up touches it. The
/// spelling of its name is the library's own.
class ZavloAuthenticationManger {
 public:
  static ZavloAuthenticationManger& shared() {
    static ZavloAuthenticationManger instance;
    return instance;
  }

 private:
  ZavloAuthenticationManger() = default;
};
