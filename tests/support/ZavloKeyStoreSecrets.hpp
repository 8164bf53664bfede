#pragma once

// Finds the private keys a key store file holds, whatever its table layout, so that tests
// can look for their bytes where they must never appear.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sqlite3.h>

#include <cstdio>
#include <string>
#include <vector>

namespace zavlo_key_store_secrets_detail {

// The 32-byte private scalar of an EC key given as DER or PEM, or nothing.
inline std::vector<unsigned char> scalarOf(const unsigned char* bytes, std::size_t size) {
  EVP_PKEY* key = nullptr;
  const unsigned char* cursor = bytes;
  key = d2i_AutoPrivateKey(nullptr, &cursor, static_cast<long>(size));
  if (key == nullptr) {
    BIO* bio = BIO_new_mem_buf(bytes, static_cast<int>(size));
    key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
  }
  std::vector<unsigned char> scalar;
  BIGNUM* number = nullptr;
  if (key != nullptr && EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, &number) == 1) {
    scalar.resize(32);
    BN_bn2binpad(number, scalar.data(), 32);
  }
  BN_clear_free(number);
  EVP_PKEY_free(key);
  return scalar;
}

}  // namespace zavlo_key_store_secrets_detail

/// The private scalars of every EC key stored in any column of any table of the file.
inline std::vector<std::vector<unsigned char>> zavloPrivateKeysInStore(const std::string& path) {
  std::vector<std::vector<unsigned char>> found;
  sqlite3* database = nullptr;
  if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(database);
    return found;
  }
  std::vector<std::string> tables;
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database, "SELECT name FROM sqlite_master WHERE type='table'", -1, &statement, nullptr);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    tables.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
  }
  sqlite3_finalize(statement);
  for (const auto& table : tables) {
    const std::string query = "SELECT * FROM \"" + table + "\"";
    if (sqlite3_prepare_v2(database, query.c_str(), -1, &statement, nullptr) != SQLITE_OK) continue;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      for (int column = 0; column < sqlite3_column_count(statement); ++column) {
        const auto* bytes = static_cast<const unsigned char*>(sqlite3_column_blob(statement, column));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
        if (bytes == nullptr || size < 32) continue;
        auto scalar = zavlo_key_store_secrets_detail::scalarOf(bytes, size);
        if (!scalar.empty()) found.push_back(std::move(scalar));
      }
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(database);
  return found;
}

/// The forms a leaked key would take in text: hex in either case, and base64.
inline std::vector<std::string> zavloEncodings(const std::vector<unsigned char>& bytes) {
  std::string lower, upper;
  for (const auto byte : bytes) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", byte);
    lower += pair;
    std::snprintf(pair, sizeof pair, "%02X", byte);
    upper += pair;
  }
  std::string base64(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()), bytes.data(), static_cast<int>(bytes.size()));
  base64.resize(static_cast<std::size_t>(length));
  // Base64 without its padding also finds the key inside a longer encoded blob when the
  // alignment matches; the first 24 bytes (32 characters) are enough to be unmistakable.
  return {lower, upper, base64.substr(0, 32)};
}
