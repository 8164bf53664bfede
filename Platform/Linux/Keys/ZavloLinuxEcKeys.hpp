#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "Platform/ZavloKeyStore.hpp"

struct evp_pkey_st;  // OpenSSL's EVP_PKEY; kept out of the installed headers

/// P-256 helpers the Linux key stores share (OpenSSL underneath).
namespace ZavloLinuxEcKeys {

/// A key's X9.63 uncompressed public point (0x04, X, Y), or nothing when it is no P-256 key.
std::optional<ZavloBytes> publicPoint(const evp_pkey_st* key);
/// The public point of a plain private key (an RFC 5915 ECPrivateKey in DER).
std::optional<ZavloBytes> publicPointOfDer(std::span<const std::uint8_t> der);
/// r and s, big-endian as a TPM or a token gives them, as one X9.62 DER SEQUENCE.
std::optional<ZavloBytes> derSignature(std::span<const std::uint8_t> r, std::span<const std::uint8_t> s);

}  // namespace ZavloLinuxEcKeys
