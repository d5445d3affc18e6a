// Every parser of the array tools' output is given the same input: one input
// thus exercises each reading of a line, and the captured outputs of the
// fixtures seed them all.
#include <stdlib.h>

#include <memory>

#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

// Compiling the expression table is the costly part of an object; one serves
// a batch of inputs, then a fresh one keeps the caches from growing.
zov_quillset& quillset() {
    static std::unique_ptr<zov_quillset> q;
    static int uses = 0;
    if (!q || ++uses % 256 == 0) {
        q.reset(new zov_quillset(&fuzz::drop_log, nullptr));
        std::vector<std::string> frames{"198.18.0.1", "198.18.0.2"};
        delete q->init(frames, nullptr);
    }
    return *q;
}

typedef SSError* (zov_quillset::*Parser)(FILE*, const std::string&);

const Parser kParsers[] = {
    &zov_quillset::processInitArrayLunUID,
    &zov_quillset::processConvertWWNToLun,
    &zov_quillset::processFrameSN,
    &zov_quillset::processGetSourceSnapInfo,
    &zov_quillset::processGetSnapshotList,
    &zov_quillset::processStart,
    &zov_quillset::processRollback,
    &zov_quillset::processSessionNames,
    &zov_quillset::processPortList,
    &zov_quillset::processStorageList,
    &zov_quillset::processMoverUID,
    &zov_quillset::processAddHluAlu,
    &zov_quillset::processGetStorageGroupLunList,
    &zov_quillset::verifyCloneCmd,
    &zov_quillset::processGetCloneInfo,
    &zov_quillset::processGetCloneGroupInfo,
    &zov_quillset::processGetCloneList,
    &zov_quillset::processGetSourceCloneInfo,
    &zov_quillset::processGetCloneWWN,
    &zov_quillset::processDeleteKVTSnap,
    &zov_quillset::processRollbackKVT,
};

// Runs `read` over a fresh stream of the input.
template <typename F>
void feed(std::string& text, F read) {
    FILE* f = fuzz::stream_over(text);
    if (f == nullptr) return;
    read(f);
    fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // A parser that looks for a tool finds none: no child is ever started.
    setenv("PATH", "/nonexistent", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    zov_quillset& q = quillset();
    for (Parser p : kParsers) feed(text, [&](FILE* f) { delete (q.*p)(f, "198.18.0.1"); });
    feed(text, [&](FILE* f) { q.processInitVolMap(f, "/dev/sdd"); });
    feed(text, [&](FILE* f) { q.processProxyCloneInitVolMap(f, 2, 0); });
    feed(text, [&](FILE* f) { q.processProxyCloneInitVolMap(f, 2, 1); });
    for (int tool = 0; tool <= 4; tool++)  // the tools' own versions, then the array's packages
        feed(text, [&](FILE* f) {
            pkgRevision pkgs[8];
            delete q.processVersions(f, tool, pkgs, 8);
        });
    feed(text, [&](FILE* f) { delete q.processVxdiskScan(f); });
    snapdevice sd;
    sd.sessionId = "S1";
    sd.srcName = "/dev/sdd";
    feed(text, [&](FILE* f) { delete q.processDeactivate(f, sd); });
    feed(text, [&](FILE* f) { q.processActivate(f, sd); });
    feed(text, [&](FILE* f) { q.processAttachSnapshotsession(f, sd); });
    return 0;
}
