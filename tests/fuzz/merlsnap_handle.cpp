// merlsnap's handle file as a person may have left it.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "tests/fuzz/fuzz_input.h"
#include "tools/merlsnap/handle_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fuzz::ScratchFile file("fuzzhandle");
    if (!file.put(data, size)) return 0;
    const std::string& path = file.path();
    HandleFile h;
    std::string why;
    if (read_handle_file(path, h, why)) {
        // What was read whole is written back whole, or refused for a reason.
        std::string again = path + ".back";
        if (!write_handle_file(again, h, why) && why.find("line break") == std::string::npos)
            abort();
        remove(again.c_str());
    }
    return 0;
}
