// A loader written from the interface declarations alone (no header of the
// module): it opens the built module with dlopen, follows the loader's
// calling order and checks what comes back, byte for byte, with the frames
// and devices of each array shape.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "tests/integration/cow_fixture.h"
#include "tests/integration/loader_decls.h"

namespace {

struct Captured {
    std::vector<std::string> lines;
};

void capture(int level, const char*, int, const char* message, void* ctx) {
    static_cast<Captured*>(ctx)->lines.push_back(std::to_string(level) + " " + message);
}

class LoaderDoor : public ::testing::TestWithParam<cowtest::Shape> {
protected:
    void* handle = nullptr;
    ldr::SSError* (*instantiateSS)(ldr::StorageSubsystem*&) = nullptr;
    void (*freeSSObject)(ldr::SSObject*) = nullptr;
    ldr::SSAPIVersion (*getSSAPIVersion)() = nullptr;
    void (*freeSSAttrlist)(ldr::attrlist*) = nullptr;

    void SetUp() override {
        handle = dlopen(ZOVMERL_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << dlerror();
        instantiateSS = reinterpret_cast<decltype(instantiateSS)>(dlsym(handle, "instantiateSS"));
        freeSSObject = reinterpret_cast<decltype(freeSSObject)>(dlsym(handle, "freeSSObject"));
        getSSAPIVersion =
            reinterpret_cast<decltype(getSSAPIVersion)>(dlsym(handle, "getSSAPIVersion"));
        freeSSAttrlist =
            reinterpret_cast<decltype(freeSSAttrlist)>(dlsym(handle, "freeSSAttrlist"));
        ASSERT_TRUE(instantiateSS && freeSSObject && getSSAPIVersion && freeSSAttrlist);
        // Nothing else of the module may be reachable by name.
        EXPECT_EQ(dlsym(handle, "_kvinit"), nullptr);
        EXPECT_EQ(dlsym(handle, "msg_create"), nullptr);
    }
    // The module stays loaded, as loaders keep it: its process-wide pools
    // live as long as the process.
    std::string text_of(ldr::SSError* e) {
        std::string t = e->errInfo.errstr != nullptr ? e->errInfo.errstr : "";
        freeSSObject(e);
        return t;
    }
};

TEST_P(LoaderDoor, FollowsTheCallingOrderEndToEnd) {
    cowtest::Array array(GetParam());
    ASSERT_TRUE(array.ok()) << "simulated array";
    ASSERT_FALSE(array.luns().empty());
    const std::string source = array.luns()[0].dev;
    ldr::SSAPIVersion v = getSSAPIVersion();
    EXPECT_EQ(v.m_majorVersion, 1);
    EXPECT_EQ(v.m_minorVersion, 1);
    freeSSObject(nullptr);

    ldr::StorageSubsystem* ss = nullptr;
    ASSERT_EQ(instantiateSS(ss), nullptr);
    ASSERT_NE(ss, nullptr);
    Captured log;
    ASSERT_EQ(ss->init(nullptr, capture, &log), nullptr);
    EXPECT_EQ(log.lines.back(), "9 END: merlStorageSubsystem::init");
    EXPECT_EQ(ss->m_fpLog, &capture);
    EXPECT_EQ(ss->m_logCtx, &log);

    ldr::SSAPIVersion sv{0, 0};
    ss->getAPIVersion(sv);
    EXPECT_EQ(sv.m_majorVersion, 1);
    int* types = nullptr;
    int n = 0;
    ASSERT_EQ(ss->querySupportedServices(types, n), nullptr);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(types[0], 0);

    ldr::SSDirectoryService* ds = nullptr;
    ldr::SSError* e = ss->getDirectoryService(2, ds);
    EXPECT_EQ(ds, nullptr);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->errorCode, 8);
    EXPECT_EQ(text_of(e),
              "merlStorageSubsystem::getDirectoryService: Specified Directory Service Type (2) for "
              "Merlode is not supported:");

    ASSERT_EQ(ss->getDirectoryService(0, ds), nullptr);
    ASSERT_NE(ds, nullptr);
    ldr::attrlist* frames = ldr::make_attr("FRAME_IP", array.frames());
    ASSERT_EQ(ds->init(frames), nullptr);
    ldr::free_attrs(frames);
    EXPECT_EQ(log.lines.back(), "9 END: merlDirectoryService::init");

    char** subs = nullptr;
    ASSERT_EQ(ds->querySupportedServiceSubType(subs, n), nullptr);
    ASSERT_EQ(n, 3);
    EXPECT_STREQ(subs[0], "COW");
    EXPECT_STREQ(subs[1], "MIRROR");
    EXPECT_STREQ(subs[2], "KVT-SNAP");
    for (int i = 0; i < n; i++) {
        ldr::SSAPIVersion tv{0, 0};
        int level = 9;
        EXPECT_EQ(ds->getAPIVersion(subs[i], tv), nullptr);
        EXPECT_EQ(tv.m_majorVersion, 1);
        EXPECT_EQ(tv.m_minorVersion, 1);
        EXPECT_EQ(ds->getStorageStackLevel(subs[i], level), nullptr);
        EXPECT_EQ(level, 0);
    }
    ldr::SSAPIVersion tv{0, 0};
    e = ds->getAPIVersion("SNAPVIEW", tv);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->errorCode, 8);
    EXPECT_EQ(
        text_of(e),
        "merlDirectoryService::getApiVersion: Specified storage subsystem type (SNAPVIEW) is not "
        "supported");
    int level = 2;
    e = ds->getStorageStackLevel("x", level);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(
        text_of(e),
        "merlDirectoryService::getStorageStackLevel: Specified storage subsystem type (x) is not "
        "supported");
    EXPECT_EQ(level, 2);
    EXPECT_EQ(
        log.lines.back(),
        "3 merlDirectoryService::getStorageStackLevel: Specified storage subsystem type (x) is not "
        "supported");

    ldr::attrlist* out = nullptr;
    e = ds->getSourceAttributes(source.c_str(), nullptr, out);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->errorCode, 19);
    EXPECT_EQ(text_of(e), "Snap Provider Error : No source attributes supported for this vendor.");

    EXPECT_EQ(ds->deInit(), nullptr);
    freeSSObject(ds);
    ss->deInit();
    EXPECT_EQ(log.lines.back(), "9 END: merlStorageSubsystem::deInit");
    freeSSObject(ss);
}

// Shape-free: no array is made or asked.
TEST_P(LoaderDoor, FreeSSAttrlistTakesAModuleLayoutList) {
    // The module frees what it produced; a list in the shared layout made by
    // the module's own allocator family (malloc) is accepted too.
    freeSSAttrlist(nullptr);
    freeSSAttrlist(ldr::make_attr("A", {"1", "2"}));
}

COWTEST_OVER_SHAPES(LoaderDoor);

}  // namespace
