#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

/// A certificate and its private key, both PEM (test support).
struct ZavloTestTlsIdentity {
  std::string certificatePem;
  std::string privateKeyPem;
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
  /// an IP entry for an IPv4 or IPv6 literal, a DNS entry otherwise.
  [[nodiscard]] ZavloTestTlsIdentity issueServerIdentity(const std::vector<std::string>& names) const;

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
