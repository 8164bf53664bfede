#pragma once

#include <span>
#include <string>

#include "Platform/ZavloKeyStore.hpp"

/// True when signature (an X9.62 DER SEQUENCE of r and s) is a valid ECDSA-SHA256
/// signature of message under the P-256 public key with this X9.63 point (test support,
/// checked by OpenSSL).
bool zavloVerifyEs256(const ZavloBytes& point, std::span<const std::uint8_t> message, const ZavloBytes& signature);

/// The same check on what an enrolment and a signing publish: a base64 SubjectPublicKeyInfo
/// (whose last 65 bytes are the point) and a base64 signature.
bool zavloVerifyPublishedEs256(const std::string& publicKeyBase64, const std::string& message,
                               const std::string& signatureBase64);
