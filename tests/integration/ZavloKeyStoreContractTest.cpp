// The keychain and secure-keys contracts on every key store of ZavloKeyStoreFactories, so
// that a double cannot drift from the Linux stores.
#include <gtest/gtest.h>

#include "Testing/Contracts/ZavloKeyStoreContracts.hpp"
#include "ZavloKeyStoreFactories.hpp"

INSTANTIATE_TYPED_TEST_SUITE_P(KeyStores, ZavloKeychainContract, ZavloKeyStoreFactories);
INSTANTIATE_TYPED_TEST_SUITE_P(KeyStores, ZavloSecureKeysContract, ZavloKeyStoreFactories);
