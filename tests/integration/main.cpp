// The integration tests are a loader process: the module in it asks devices
// INQUIRY, which the simulated array's device layer answers only when it is
// preloaded at process start. Without it, the binary starts itself again
// with the layer preloaded.
#include <gtest/gtest.h>

#include "tests/support/child.h"

int main(int argc, char** argv) {
    // Returns only where the layer is missing: the tests that need devices
    // will say so.
    zovtest::reexec_preloaded(argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
