// merlsnap's handle file as a person may have left it.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "tests/fuzz/fuzz_input.h"
#include "tools/merlsnap/handle_file.h"

namespace {
std::string g_path;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char tmpl[] = "/tmp/fuzzhandleXXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) abort();
    close(fd);
    g_path = tmpl;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* f = fopen(g_path.c_str(), "w");
    if (f == nullptr) return 0;
    fwrite(data, 1, size, f);
    fclose(f);
    HandleFile h;
    std::string why;
    if (read_handle_file(g_path, h, why)) {
        // What was read whole is written back whole, or refused for a reason.
        std::string again = g_path + ".back";
        if (!write_handle_file(again, h, why) && why.find("line break") == std::string::npos)
            abort();
        remove(again.c_str());
    }
    return 0;
}
