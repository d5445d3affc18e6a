// Standard INQUIRY data as a device answers it, of whatever length arrived.
#include <string>

#include "storage/ssm/merlode/cli/gw_internal.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    unsigned int lun = 0;
    std::string frame;
    gw_decode_array_inquiry(data, size, &lun, &frame);
    gw_decode_array_inquiry(data, size, nullptr, nullptr);
    return 0;
}
