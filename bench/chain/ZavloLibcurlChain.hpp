#pragma once

#include <curl/curl.h>

#include <string>

/// Follows a redirect chain with libcurl's easy API in the calling thread (and its network
/// namespace): one handle for every chain, so its TLS session and CA caches carry over from
/// one chain to the next, as the library's do. Sends the library's request headers and asks
/// for "Connection: close". Benchmark code.
class ZavloLibcurlChainClient {
 public:
  /// caFile: the CA the TLS server certificate must chain to, as a PEM file; empty for http.
  /// fastOpen: CURLOPT_TCP_FASTOPEN, data in the SYN where a cookie allows.
  explicit ZavloLibcurlChainClient(const std::string& caFile, bool fastOpen = false);
  ~ZavloLibcurlChainClient();
  ZavloLibcurlChainClient(const ZavloLibcurlChainClient&) = delete;
  ZavloLibcurlChainClient& operator=(const ZavloLibcurlChainClient&) = delete;

  /// Runs one chain from url. Returns an empty string when it ended with a 200 whose body holds
  /// expected after exactly hops requests, otherwise what went wrong.
  std::string runChain(const std::string& url, unsigned hops, const std::string& expected);

 private:
  CURL* easy_ = nullptr;
  curl_slist* headers_ = nullptr;
  std::string body_;
};
