// The key store contract on every key store of ZavloKeyStoreFactories, so that the double
// cannot drift from the Linux stores.
#include <gtest/gtest.h>

#include "Testing/Contracts/ZavloKeyStoreContract.hpp"
#include "ZavloKeyStoreFactories.hpp"

// The prefix names the contract in ctest's names, which keep only the prefix and the type.
INSTANTIATE_TYPED_TEST_SUITE_P(KeyStoreContract, ZavloKeyStoreContract, ZavloKeyStoreFactories);
