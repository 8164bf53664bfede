#pragma once

#include <memory>

#include "Session/ZavloAuthRequestManager.hpp"

/// The operations' door to the session manager; clears the session when it goes.
/// It stays because hosts may reach it, shared() being one of the named process-wide instances.
class ZavloAuthenticationRepository {
 public:
  explicit ZavloAuthenticationRepository(std::shared_ptr<ZavloAuthRequestManager> requestManager)
      : requestManager(std::move(requestManager)) {}
  ZavloAuthenticationRepository(const ZavloAuthenticationRepository&) = delete;
  ZavloAuthenticationRepository& operator=(const ZavloAuthenticationRepository&) = delete;
  ~ZavloAuthenticationRepository() {
    if (requestManager) requestManager->clearSession();
  }

  /// The process-wide repository: the process-wide graph's (ZavloAuthenticationGraph).
  static std::shared_ptr<ZavloAuthenticationRepository> shared();

  const std::shared_ptr<ZavloAuthRequestManager> requestManager;
};

/// An object with no fields and no operations, built with the graph; the spelling is the library's own.
/// It stays because hosts may reach it, shared() being one of the named process-wide instances.
class ZavloAuthenticationManger {
 public:
  /// The process-wide graph's (ZavloAuthenticationGraph).
  static ZavloAuthenticationManger& shared();

 private:
  friend class ZavloAuthenticationGraph;
  ZavloAuthenticationManger() = default;
};
