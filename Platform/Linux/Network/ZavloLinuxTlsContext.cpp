#include "Platform/Linux/Network/ZavloLinuxTlsContext.hpp"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace {

// The host:port an SSL object connects to, for the new-session callback.
void freeSessionKey(void* /*parent*/, void* pointer, CRYPTO_EX_DATA* /*data*/, int /*index*/, long /*argl*/,
                    void* /*argp*/) {
  delete static_cast<std::string*>(pointer);
}

int sessionKeyIndex() {
  static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, freeSessionKey);
  return index;
}

int contextIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

bool isIpLiteral(const std::string& host) {
  unsigned char address[sizeof(in6_addr)];
  return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// Adds every certificate of one PEM text to the store; false if it holds none or is bad.
bool addAnchors(X509_STORE* store, const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  if (bio == nullptr) return false;
  int added = 0;
  bool bad = false;
  while (X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
    if (X509_STORE_add_cert(store, certificate) == 1) {
      ++added;
    } else if (ERR_GET_REASON(ERR_peek_last_error()) != X509_R_CERT_ALREADY_IN_HASH_TABLE) {
      bad = true;
    }
    X509_free(certificate);
  }
  BIO_free(bio);
  ERR_clear_error();  // the loop ends on a "no start line" error by design
  return added > 0 && !bad;
}

struct ContextCache {
  std::mutex mutex;
  std::map<std::vector<std::string>, std::shared_ptr<ZavloLinuxTlsContext>> contexts;
};

ContextCache& contextCache() {
  static auto* cache = new ContextCache();  // never destroyed: I/O threads may outlive statics
  return *cache;
}

}  // namespace

ZavloLinuxTlsContext::ZavloLinuxTlsContext(ssl_ctx_st* context) : context_(context) {
  SSL_CTX_set_ex_data(context_, contextIndex(), this);
  SSL_CTX_sess_set_new_cb(context_, &ZavloLinuxTlsContext::onNewSession);
}

ZavloLinuxTlsContext::~ZavloLinuxTlsContext() {
  for (auto& [key, session] : sessions_) SSL_SESSION_free(session);
  SSL_CTX_free(context_);
}

std::shared_ptr<ZavloLinuxTlsContext> ZavloLinuxTlsContext::forAnchors(
    const std::vector<std::string>& additionalAnchorsPem, std::string& error) {
  auto& cache = contextCache();
  std::lock_guard lock(cache.mutex);
  if (auto found = cache.contexts.find(additionalAnchorsPem); found != cache.contexts.end()) return found->second;

  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  if (context == nullptr) {
    error = "The TLS library could not be initialised.";
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  // The library keeps no sessions of its own: onNewSession files them by server.
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
  SSL_CTX_set_default_verify_paths(context);
  for (const auto& pem : additionalAnchorsPem) {
    if (!addAnchors(SSL_CTX_get_cert_store(context), pem)) {
      SSL_CTX_free(context);
      error = "An additional trust anchor is not a valid PEM certificate.";
      return nullptr;
    }
  }
  ERR_clear_error();
  std::shared_ptr<ZavloLinuxTlsContext> entry(new ZavloLinuxTlsContext(context));
  cache.contexts.emplace(additionalAnchorsPem, entry);
  return entry;
}

bool ZavloLinuxTlsContext::madeForAnchors(const std::vector<std::string>& additionalAnchorsPem) {
  auto& cache = contextCache();
  std::lock_guard lock(cache.mutex);
  return cache.contexts.contains(additionalAnchorsPem);
}

bool ZavloLinuxTlsContext::prepare(ssl_st* ssl, const std::string& host, unsigned short port) {
  X509_VERIFY_PARAM* verify = SSL_get0_param(ssl);
  if (isIpLiteral(host)) {
    if (X509_VERIFY_PARAM_set1_ip_asc(verify, host.c_str()) != 1) return false;
  } else {
    X509_VERIFY_PARAM_set_hostflags(verify, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (SSL_set_tlsext_host_name(ssl, host.c_str()) != 1 || SSL_set1_host(ssl, host.c_str()) != 1) return false;
  }
  auto key = std::make_unique<std::string>(host + ":" + std::to_string(port));
  {
    std::lock_guard lock(mutex_);
    // A session that cannot be set only costs a full handshake.
    if (auto found = sessions_.find(*key); found != sessions_.end()) (void)SSL_set_session(ssl, found->second);
  }
  if (SSL_set_ex_data(ssl, sessionKeyIndex(), key.get()) != 1) return false;
  (void)key.release();  // owned by the SSL object now (freeSessionKey)
  return true;
}

std::size_t ZavloLinuxTlsContext::cachedSessionCount() const {
  std::lock_guard lock(mutex_);
  return sessions_.size();
}

int ZavloLinuxTlsContext::onNewSession(ssl_st* ssl, ssl_session_st* session) {
  auto* self = static_cast<ZavloLinuxTlsContext*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), contextIndex()));
  const auto* key = static_cast<const std::string*>(SSL_get_ex_data(ssl, sessionKeyIndex()));
  if (self == nullptr || key == nullptr || SSL_SESSION_is_resumable(session) != 1) return 0;
  // A copy: OpenSSL marks the connection's own session object as not resumable when the
  // connection is closed without a close_notify, which is how hops end.
  SSL_SESSION* copy = SSL_SESSION_dup(session);
  if (copy == nullptr) return 0;
  std::lock_guard lock(self->mutex_);
  auto& slot = self->sessions_[*key];
  if (slot != nullptr) SSL_SESSION_free(slot);
  slot = copy;
  return 0;  // the connection keeps its own reference
}
