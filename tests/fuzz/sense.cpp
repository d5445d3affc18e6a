// Sense data of whatever length arrived: the fields code acts on, and the
// dump a person reads.
#include <stdio.h>

#include "drivers/cdi/cdi_rqs.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FILE* sink = fopen("/dev/null", "w");
    // An exact-size copy: a read past the end is the sanitizer's to see.
    std::vector<unsigned char> sense(data, data + size);
    SenseFields f;
    cdi_sense_fields(sense.data(), static_cast<int>(size), &f);
    asc_info_t info = {nullptr, 0, 0, 0, nullptr, nullptr};
    dump_sense_n(sense.data(), static_cast<int>(size), "TEST UNIT READY", &info, sink, sink);
    return 0;
}
