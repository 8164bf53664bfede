#include "ZavloLibcurlChain.hpp"

#include <stdexcept>

namespace {

std::size_t append(char* data, std::size_t size, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

}  // namespace

ZavloLibcurlChainClient::ZavloLibcurlChainClient(const std::string& caFile, bool fastOpen) {
  static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  easy_ = initialised ? curl_easy_init() : nullptr;
  if (easy_ == nullptr) throw std::runtime_error("libcurl: no easy handle");
  // The same request head as the library's, so that both ask the server for the same bytes.
  headers_ =
      curl_slist_append(headers_, "Accept: text/html,application/json,application/xhtml+xml,application/xml,*/*");
  headers_ = curl_slist_append(headers_, "Connection: close");
  curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
  curl_easy_setopt(easy_, CURLOPT_USERAGENT, "ZavloAuthenticationSDK/1.0");
  curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, 64L);
  curl_easy_setopt(easy_, CURLOPT_TIMEOUT, 30L);
  curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &body_);
  if (fastOpen) curl_easy_setopt(easy_, CURLOPT_TCP_FASTOPEN, 1L);
  if (!caFile.empty()) {
    // Only the test CA: loading the system bundle as well would charge curl for certificates
    // the other clients never read.
    curl_easy_setopt(easy_, CURLOPT_CAINFO, caFile.c_str());
    curl_easy_setopt(easy_, CURLOPT_CAPATH, nullptr);
  }
}

ZavloLibcurlChainClient::~ZavloLibcurlChainClient() {
  curl_easy_cleanup(easy_);
  curl_slist_free_all(headers_);
}

std::string ZavloLibcurlChainClient::runChain(const std::string& url, unsigned hops, const std::string& expected) {
  body_.clear();
  curl_easy_setopt(easy_, CURLOPT_URL, url.c_str());
  if (const auto result = curl_easy_perform(easy_); result != CURLE_OK) {
    return std::string("libcurl: ") + curl_easy_strerror(result);
  }
  long status = 0;
  long redirects = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(easy_, CURLINFO_REDIRECT_COUNT, &redirects);
  if (status != 200 || body_.find(expected) == std::string::npos) {
    return "libcurl: the chain ended with " + std::to_string(status) + " " + body_;
  }
  if (redirects + 1 != static_cast<long>(hops)) {
    return "libcurl: the chain took " + std::to_string(redirects + 1) + " hops";
  }
  return {};
}
