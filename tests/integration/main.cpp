// The integration tests are a loader process: the module in it asks devices
// INQUIRY, which the simulated array's device layer answers only when it is
// preloaded at process start. Without it, the binary starts itself again
// with the layer preloaded.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

int main(int argc, char** argv) {
    std::string layer = std::string(ARRAYSIM_BIN_DIR) + "/libarraysim_scsi.so";
    const char* preload = getenv("LD_PRELOAD");
    if (access(layer.c_str(), R_OK) == 0 &&
        (preload == nullptr || strstr(preload, layer.c_str()) == nullptr)) {
        std::string value = preload != nullptr && *preload != '\0' ? layer + ":" + preload : layer;
        setenv("LD_PRELOAD", value.c_str(), 1);
        // The layer is built without the sanitizer runtime on purpose.
        const char* asan = getenv("ASAN_OPTIONS");
        std::string opts = std::string(asan != nullptr ? asan : "") +
                           (asan != nullptr && *asan ? ":" : "") + "verify_asan_link_order=0";
        setenv("ASAN_OPTIONS", opts.c_str(), 1);
        execv("/proc/self/exe", argv);
        // Carry on without it: the tests that need devices will say so.
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
