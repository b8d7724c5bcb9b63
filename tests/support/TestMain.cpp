#include <gtest/gtest.h>

#include <cstdlib>

#include "app/LayerWiring.h"
#include "toolkit/Log.h"
#include "vault/QVCryptoTesting.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Derivations in tests cost milliseconds, not a second; production parameters are untouched.
    qv::QVCryptoUseCheapParametersForTesting(true);
    // The layers joined as every front end joins them.
    qv::QVConnectLayers();
    // QV_TEST_LOG=1 shows the log lines of a failing test on the terminal.
    if (const char* log = std::getenv("QV_TEST_LOG"); log && *log == '1') qv::QVLogSetStderr(true);
    return RUN_ALL_TESTS();
}
