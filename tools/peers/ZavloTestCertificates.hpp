#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

/// A certificate and its private key, both PEM (test support).
struct ZavloTestTlsIdentity {
  std::string certificatePem;
  std::string privateKeyPem;
};

/// When a certificate is valid, relative to the moment it is issued.
struct ZavloTestValidity {
  std::chrono::seconds notBefore = std::chrono::hours(-1);
  std::chrono::seconds notAfter = std::chrono::hours(24);
};

/// A certificate authority made by the test itself with the OpenSSL API: a fresh P-256 key
/// and a self-signed CA certificate valid for a day around now.
class ZavloTestCertificateAuthority {
 public:
  explicit ZavloTestCertificateAuthority(const std::string& commonName = "Zavlo Test CA");
  ~ZavloTestCertificateAuthority();
  ZavloTestCertificateAuthority(const ZavloTestCertificateAuthority&) = delete;
  ZavloTestCertificateAuthority& operator=(const ZavloTestCertificateAuthority&) = delete;

  [[nodiscard]] const std::string& certificatePem() const noexcept { return certificatePem_; }

  /// A server certificate signed by this authority. Each name becomes a subjectAltName:
  /// an IP entry for an IPv4 or IPv6 literal, a DNS entry otherwise. By default it is valid
  /// from an hour ago for a day; validity gives it another window (an expired one, say).
  [[nodiscard]] ZavloTestTlsIdentity issueServerIdentity(const std::vector<std::string>& names,
                                                         ZavloTestValidity validity = {}) const;

 private:
  struct Keys;
  std::unique_ptr<Keys> keys_;
  std::string certificatePem_;
};

/// Installs identity as the certificate and key of a server context; false when the PEM
/// does not load or the key does not match.
bool zavloUseTlsIdentity(SSL_CTX* context, const ZavloTestTlsIdentity& identity);

/// The OpenSSL errors queued on this thread, as one line (and clears them).
std::string zavloOpenSslErrors();
