// The snap pool file, written where MERL_SNAP_POOL points and read by a fresh
// clone pool for each input, as a snapshot's preparation reads it.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "storage/ssm/merlode/MerlResourceManager.h"
#include "tests/fuzz/fuzz_input.h"

namespace {
const fuzz::ScratchFile* g_file = nullptr;
zov_quillset* g_quillset = nullptr;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("PATH", "/nonexistent", 1);  // no tool is ever found, so none runs
    g_file = new fuzz::ScratchFile("fuzzpool");
    g_quillset = new zov_quillset(&fuzz::drop_log, nullptr);
    std::vector<std::string> frames{"198.18.0.1"};
    delete g_quillset->init(frames, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!g_file->put(data, size)) return 0;
    attrlist* attrs = nullptr;
    attrlist_add(&attrs, "MERL_SNAP_POOL", g_file->path().c_str());
    {
        MerlResourceManager pool(&fuzz::drop_log, nullptr);
        SSError* err = pool.init(attrs, g_quillset);
        if (err == nullptr) err = pool.buildResourceList();
        delete err;
    }
    attrlist_free(attrs);
    return 0;
}
