#include "tools/peers/ZavloTestCertificates.hpp"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <stdexcept>

namespace {

void require(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test certificate: ") + what);
}

EVP_PKEY* newKey() {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  require(key != nullptr, "key generation failed");
  return key;
}

std::string toPem(X509* certificate) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, certificate);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return pem;
}

std::string toPem(EVP_PKEY* key) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return pem;
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  require(extension != nullptr, "bad extension");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

// A certificate for subjectKey named commonName, valid in the given window around now; the
// caller adds extensions and signs it.
X509* newCertificate(EVP_PKEY* subjectKey, const std::string& commonName, X509_NAME* issuerName,
                     const ZavloTestValidity& validity = {}) {
  X509* certificate = X509_new();
  X509_set_version(certificate, 2);
  unsigned char serial[16];
  RAND_bytes(serial, sizeof serial);
  serial[0] &= 0x7F;  // positive
  BIGNUM* number = BN_bin2bn(serial, sizeof serial, nullptr);
  BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate));
  BN_free(number);
  X509_gmtime_adj(X509_getm_notBefore(certificate), static_cast<long>(validity.notBefore.count()));
  X509_gmtime_adj(X509_getm_notAfter(certificate), static_cast<long>(validity.notAfter.count()));
  X509_set_pubkey(certificate, subjectKey);
  X509_NAME* name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                             -1, 0);
  X509_set_issuer_name(certificate, issuerName != nullptr ? issuerName : name);
  return certificate;
}

bool isIpLiteral(const std::string& text) {
  unsigned char buffer[16];
  return inet_pton(AF_INET, text.c_str(), buffer) == 1 || inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

}  // namespace

struct ZavloTestCertificateAuthority::Keys {
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  ~Keys() {
    X509_free(certificate);
    EVP_PKEY_free(key);
  }
};

ZavloTestCertificateAuthority::ZavloTestCertificateAuthority(const std::string& commonName)
    : keys_(std::make_unique<Keys>()) {
  keys_->key = newKey();
  keys_->certificate = newCertificate(keys_->key, commonName, nullptr);
  addExtension(keys_->certificate, keys_->certificate, NID_basic_constraints, "critical,CA:TRUE");
  addExtension(keys_->certificate, keys_->certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(keys_->certificate, keys_->certificate, NID_subject_key_identifier, "hash");
  require(X509_sign(keys_->certificate, keys_->key, EVP_sha256()) > 0, "signing the authority failed");
  certificatePem_ = toPem(keys_->certificate);
}

ZavloTestCertificateAuthority::~ZavloTestCertificateAuthority() = default;

ZavloTestTlsIdentity ZavloTestCertificateAuthority::issueServerIdentity(const std::vector<std::string>& names,
                                                                        ZavloTestValidity validity) const {
  require(!names.empty(), "a server certificate needs a name");
  EVP_PKEY* key = newKey();
  X509* certificate = newCertificate(key, names.front(), X509_get_subject_name(keys_->certificate), validity);
  std::string alternativeNames;
  for (const auto& name : names) {
    if (!alternativeNames.empty()) alternativeNames += ",";
    alternativeNames += (isIpLiteral(name) ? "IP:" : "DNS:") + name;
  }
  addExtension(certificate, keys_->certificate, NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate, keys_->certificate, NID_key_usage, "critical,digitalSignature");
  addExtension(certificate, keys_->certificate, NID_ext_key_usage, "serverAuth");
  addExtension(certificate, keys_->certificate, NID_subject_alt_name, alternativeNames);
  addExtension(certificate, keys_->certificate, NID_authority_key_identifier, "keyid");
  const bool signedOk = X509_sign(certificate, keys_->key, EVP_sha256()) > 0;
  ZavloTestTlsIdentity identity{toPem(certificate), toPem(key)};
  X509_free(certificate);
  EVP_PKEY_free(key);
  require(signedOk, "signing the server certificate failed");
  return identity;
}

bool zavloUseTlsIdentity(SSL_CTX* context, const ZavloTestTlsIdentity& identity) {
  BIO* certificate = BIO_new_mem_buf(identity.certificatePem.data(), static_cast<int>(identity.certificatePem.size()));
  BIO* key = BIO_new_mem_buf(identity.privateKeyPem.data(), static_cast<int>(identity.privateKeyPem.size()));
  X509* x509 = PEM_read_bio_X509(certificate, nullptr, nullptr, nullptr);
  EVP_PKEY* privateKey = PEM_read_bio_PrivateKey(key, nullptr, nullptr, nullptr);
  const bool ok = x509 != nullptr && privateKey != nullptr && SSL_CTX_use_certificate(context, x509) == 1 &&
                  SSL_CTX_use_PrivateKey(context, privateKey) == 1 && SSL_CTX_check_private_key(context) == 1;
  X509_free(x509);
  EVP_PKEY_free(privateKey);
  BIO_free(certificate);
  BIO_free(key);
  return ok;
}

std::string zavloOpenSslErrors() {
  std::string text;
  while (const auto code = ERR_get_error()) {
    std::array<char, 256> line{};
    ERR_error_string_n(code, line.data(), line.size());
    text += text.empty() ? "" : "; ";
    text += line.data();
  }
  return text.empty() ? "no OpenSSL detail" : text;
}
