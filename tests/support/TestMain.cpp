#include <gtest/gtest.h>

#include "vault/QVCryptoTesting.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Derivations in tests cost milliseconds, not a second; production parameters are untouched.
    qv::QVCryptoUseCheapParametersForTesting(true);
    return RUN_ALL_TESTS();
}
