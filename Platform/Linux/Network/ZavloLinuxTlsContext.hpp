#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct ssl_ctx_st;
struct ssl_st;
struct ssl_session_st;

/// The client TLS configuration of the Linux connections: TLS 1.2 or later, the system
/// trust store plus any extra trust anchors, peer verification, and a client session
/// cache keyed by host:port so that later connections to the same server resume.
///
/// Loading the system trust store is expensive, so there is one context per set of extra
/// anchors for the whole process, made on first use and kept until exit.
///
/// Threading contract: all operations may be called from any thread.
class ZavloLinuxTlsContext {
 public:
  /// The shared context for these extra anchors (PEM text, each holding one or more
  /// certificates). Null, with a sentence in error, when an anchor cannot be read.
  static std::shared_ptr<ZavloLinuxTlsContext> forAnchors(const std::vector<std::string>& additionalAnchorsPem,
                                                          std::string& error);

  /// Whether forAnchors has already made the context for these anchors (and so would
  /// succeed at once).
  static bool madeForAnchors(const std::vector<std::string>& additionalAnchorsPem);

  ZavloLinuxTlsContext(const ZavloLinuxTlsContext&) = delete;
  ZavloLinuxTlsContext& operator=(const ZavloLinuxTlsContext&) = delete;
  ~ZavloLinuxTlsContext();

  [[nodiscard]] ssl_ctx_st* nativeHandle() const noexcept { return context_; }

  /// Prepares a new client SSL object for host:port: SNI (for names), host-name or IP
  /// verification, and the cached session of that server if there is one. Returns false
  /// when the host cannot be set for verification.
  bool prepare(ssl_st* ssl, const std::string& host, unsigned short port);

  /// How many sessions are cached (for tests and diagnostics).
  [[nodiscard]] std::size_t cachedSessionCount() const;

 private:
  explicit ZavloLinuxTlsContext(ssl_ctx_st* context);
  static int onNewSession(ssl_st* ssl, ssl_session_st* session);

  ssl_ctx_st* context_;
  mutable std::mutex mutex_;
  std::map<std::string, ssl_session_st*> sessions_;
};
