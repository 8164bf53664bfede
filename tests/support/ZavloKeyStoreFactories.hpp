#pragma once

#include <gtest/gtest.h>

#include "ZavloLinuxKeyStoreFactory.hpp"

/// Every key store the keychain and secure-keys contract suites run on (test support).
using ZavloKeyStoreFactories = ::testing::Types<ZavloLinuxKeyStoreFactory>;
