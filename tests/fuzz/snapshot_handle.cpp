// The snapshot handle as a mount host's service object reads it: the first
// line is the handle's identity, the rest its details, given to each
// technology's object in turn.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "storage/ssm/merlode/SCQuillsetClone.h"
#include "storage/ssm/merlode/SCQuillsetCow.h"
#include "storage/ssm/merlode/SCQuillsetSnaps.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

void read_handle(SCMerlodeQuillset& object, const std::string& guid, const std::string& details) {
    SCSnapshotHandle h;
    h.m_pguid = reinterpret_cast<unsigned char*>(strdup(guid.c_str()));
    h.m_guidLen = guid.size();
    h.m_pdetails = reinterpret_cast<unsigned char*>(strdup(details.c_str()));
    h.m_detailLen = details.size();
    SCInitStruct is;
    is.snapshotHandle = &h;
    delete object.init(&is);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("PATH", "/nonexistent", 1);  // no tool is ever found, so none runs
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    const size_t nl = text.find('\n');
    const std::string guid = text.substr(0, nl);
    const std::string details = nl == std::string::npos ? "" : text.substr(nl + 1);
    {
        SCQuillsetCow cow(&fuzz::drop_log, nullptr);
        read_handle(cow, guid, details);
    }
    {
        SCQuillsetClone mirror(&fuzz::drop_log, nullptr);
        read_handle(mirror, guid, details);
    }
    {
        SCQuillsetSnaps snaps(&fuzz::drop_log, nullptr);
        read_handle(snaps, guid, details);
    }
    return 0;
}
