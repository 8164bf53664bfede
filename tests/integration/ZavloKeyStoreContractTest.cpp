// The keychain and secure-keys contracts on every key store of ZavloKeyStoreFactories, so
// that a double cannot drift from the Linux stores.
#include <gtest/gtest.h>

#include "Testing/Contracts/ZavloKeyStoreContracts.hpp"
#include "ZavloKeyStoreFactories.hpp"

// The prefix names the contract in ctest's names, which keep only the prefix and the type.
INSTANTIATE_TYPED_TEST_SUITE_P(KeychainContract, ZavloKeychainContract, ZavloKeyStoreFactories);
INSTANTIATE_TYPED_TEST_SUITE_P(SecureKeysContract, ZavloSecureKeysContract, ZavloKeyStoreFactories);
