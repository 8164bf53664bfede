#pragma once

#include "Platform/ZavloKeychain.hpp"

/// True when signature (an X9.62 DER SEQUENCE of r and s) is a valid ECDSA-SHA256
/// signature of message under the P-256 public key with this X9.63 point (test support,
/// checked by OpenSSL).
bool zavloVerifyEs256(const ZavloBytes& point, const ZavloBytes& message, const ZavloBytes& signature);
