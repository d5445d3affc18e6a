// The snapshot service frame without an array: state guards, the operations
// nothing supports, provider attributes, the lock, and exceptions kept away
// from the loader.
#include <gtest/gtest.h>

#include <string.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "liblocal/kv_thread.h"
#include "storage/ssm/merlode/SCQuillsetCow.h"

namespace {

struct Log {
    std::vector<std::pair<int, std::string>> lines;
    bool has(const std::string& text) const {
        for (const auto& l : lines)
            if (l.second == text) return true;
        return false;
    }
};

void capture(int level, const char*, int, const char* message, void* ctx) {
    static_cast<Log*>(ctx)->lines.emplace_back(level, message);
}

std::string take_text(SSError* e) {
    std::string t = e != nullptr ? e->getErrMsg() : "<no error>";
    delete e;
    return t;
}

TEST(ServiceFrame, OperationsOutsideTheirStatesNameTheState) {
    Log log;
    SCQuillsetCow cow(capture, &log);
    SCSnapshotHandle* h = nullptr;
    SSError* e = cow.getSnapshotHandle(h);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrCode(), SS_EC_ILLEGAL_STATE);
    EXPECT_EQ(
        take_text(e),
        "SCMerlodeQuillset::privateGetSnapshotHandle: Function called with illegal state = 1");
    EXPECT_EQ(h, nullptr);

    SSTaskId task = 42;
    e = cow.snapshot(nullptr, task);
    EXPECT_EQ(take_text(e),
              "SCMerlodeQuillset::privateSnapshot: Function called with illegal state = 1");
    e = cow.deleteSnapshot();
    EXPECT_EQ(e->getErrCode(), SS_EC_ILLEGAL_STATE);
    delete e;
    SSSourceList* paths = nullptr;
    e = cow.getSnapshotAccessPath(nullptr, paths);  // mount-host object, not READY
    EXPECT_EQ(e->getErrCode(), SS_EC_ILLEGAL_STATE);
    delete e;
    EXPECT_EQ(cow.getSnapshotState(), SSHOT_STATE_UNINIT);
    EXPECT_TRUE(log.has("getSnapshotState : state = 1 "));
}

TEST(ServiceFrame, UnsupportedOperationsAndTasks) {
    Log log;
    SCQuillsetCow cow(capture, &log);
    SSExtentList* ext = nullptr;
    SSError* e = cow.getChangedExtents("/dev/sda", ext);
    EXPECT_EQ(e->getErrCode(), SS_EC_OP_UNSUPPORTED);
    EXPECT_EQ(take_text(e),
              "SCMerlodeQuillset::getChangedExtents: Method not supported for this class");
    SSTaskId t = 0;
    e = cow.restoreTo(nullptr, nullptr, nullptr, nullptr, t);
    EXPECT_EQ(take_text(e), "SCMerlodeQuillset::restoreTo: Method not supported for this class");
    e = cow.shareTo(nullptr, "host");
    EXPECT_EQ(take_text(e), "SCMerlodeQuillset::shareTo: Method not supported for this class");

    for (int id : {0, 1, 99}) {
        e = cow.cancelTask(id);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->getErrCode(), SS_EC_INVALID_PARAMETER);
        EXPECT_EQ(take_text(e),
                  "SCMerlodeQuillset::cancelTask: No such task: " + std::to_string(id));
    }
    SSTaskStatus st = SS_TASK_ERROR;
    SSError* taskErr = reinterpret_cast<SSError*>(&st);
    EXPECT_EQ(cow.getTaskStatus(7, st, taskErr), nullptr);
    EXPECT_EQ(st, SS_TASK_DONE);
    EXPECT_EQ(taskErr, nullptr);
    t = 5;
    EXPECT_EQ(cow.getCurrentTask(t), nullptr);
    EXPECT_EQ(t, 0);

    // Operations kept from the interface itself.
    SSSourceList* a = nullptr;
    int flag = 0;
    e = cow.getRollbackSourceList(a, a, flag);
    EXPECT_EQ(e->getErrInfo().MsgId, 308);
    EXPECT_EQ(take_text(e), "Operation not supported");
    errinfo info;
    info.errnum = 77;
    attrlist* out = nullptr;
    e = cow.getMirrorChoices(nullptr, out, info);
    EXPECT_EQ(info.errnum, 0);
    EXPECT_EQ(take_text(e), "Operation \"getMirrorChoices\" is not supported");
    int supported = 1;
    e = cow.isFilesystemSupported("ext4", supported);
    EXPECT_EQ(take_text(e), "Operation \"isFilesystemSupported\" is not supported");
    EXPECT_EQ(cow.SCSnapshotHandleChgAtImport(), 0);
    EXPECT_STREQ(cow.getModuleName(), "zovmerl");
}

TEST(ServiceFrame, ProviderAttributesAcceptOnlyTheListForm) {
    Log log;
    SCQuillsetCow cow(capture, &log);
    EXPECT_EQ(cow.setProviderAttribute("X", nullptr), nullptr);
    attrlist* al = attr_new("FOO", "bar");
    SSError* e = cow.setProviderAttribute("FOO", al);
    EXPECT_EQ(e->getErrCode(), SS_EC_INVALID_PARAMETER);
    EXPECT_EQ(take_text(e),
              "SCMerlodeQuillset::setProviderAttribute: Attribute not supported: bar");
    EXPECT_EQ(cow.setProviderAttribute(al), nullptr);
    ASSERT_NE(cow.m_attributes, nullptr);
    EXPECT_NE(cow.m_attributes, al);

    attrlist* bare = attr_new("EMPTY", nullptr);
    attrlist* res = al;
    e = cow.getProviderAttribute(bare, res);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(take_text(e),
              "SCMerlodeQuillset::getProviderAttribute: Attribute not supported: unknown");
    res = al;
    e = cow.getProviderAttribute("FOO", al, res);
    EXPECT_EQ(res, al);
    EXPECT_EQ(take_text(e),
              "SCMerlodeQuillset::getSCProviderAttribute: Attribute not supported: bar");
    attrlist_free(al);
    attrlist_free(bare);
}

TEST(ServiceFrame, VersionAndCapabilitiesOfCow) {
    Log log;
    SCQuillsetCow cow(capture, &log);
    SSProviderVersion* v = nullptr;
    ASSERT_EQ(cow.getSupportedProviderVersion(v), nullptr);
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v->product, "ZOV_Quillset");
    EXPECT_EQ(v->majorVersion, 2);
    EXPECT_EQ(v->minorVersion, 0);
    EXPECT_EQ(v->extendedVersionInfo, nullptr);
    delete v;

    SSStorageStackLevel lvl = SS_LEVEL_VOLUME;
    EXPECT_EQ(cow.getStorageStackLevel(lvl), nullptr);
    EXPECT_EQ(lvl, SS_LEVEL_DISK);

    // Device capabilities have no state guard: one node per source.
    SSSourceList* srcs = new SSSourceList;
    srcs->ssSource = strdup("/dev/a");
    srcs->next = new SSSourceList;
    srcs->next->ssSource = strdup("/dev/b");
    SCSnapshotCapabilityList* caps = nullptr;
    ASSERT_EQ(cow.getDeviceSnapshotCapabilities(srcs, caps), nullptr);
    int n = 0;
    for (SCSnapshotCapabilityList* c = caps; c != nullptr; c = c->next, n++) {
        EXPECT_EQ(c->pCap->snapTech, SC_COW);
        EXPECT_EQ(c->pCap->maxSnapshotsPerSource, 8u);
        EXPECT_EQ(c->pCap->maxSnapshotsPerSystem, 1600u);
        EXPECT_EQ(c->pCap->isAccessibleFromAnotherHost, 1);
    }
    EXPECT_EQ(n, 2);
    delete caps;
    delete srcs;
    SCSnapshotCapability* cap = nullptr;
    SSError* e = cow.getSnapshotCapabilities(cap);
    EXPECT_EQ(take_text(e),
              "SCMerlodeQuillset::privateGetSnapshotCapabilities(1): Function called with illegal "
              "state = 1");
}

TEST(ServiceFrame, EndLeavesTheObjectFinished) {
    Log log;
    SCQuillsetCow cow(capture, &log);
    snapdevice sd;
    sd.srcName = "/dev/sdq";
    cow.m_snapdevlist.push_back(sd);
    cow.m_isMountDone = 1;
    cow.end();
    EXPECT_EQ(cow.m_state, SSHOT_STATE_ERROR);
    EXPECT_TRUE(cow.m_snapdevlist.empty());
    EXPECT_EQ(cow.m_isMountDone, 0);
    EXPECT_TRUE(log.has("SCMerlodeQuillset: end()"));
}

// A provider whose device test throws: the loader must get an error, and
// the object must stay usable.
class ThrowingProvider : public SCQuillsetCow {
public:
    using SCQuillsetCow::SCQuillsetCow;
    int privateIsSnappable(std::string) override { throw std::runtime_error("boom"); }
};

TEST(ServiceFrame, ExceptionInAddComponentWWNBecomesInternalErrorAndFreesTheLock) {
    Log log;
    ThrowingProvider p(capture, &log);
    ASSERT_EQ(p.m_mtx.init(), nullptr);
    p.m_instanceIsProduction = 1;
    // A context without frames: the WWN lookup finds nothing and the
    // provider's own test is what throws.
    p.m_quillsetContext = new zov_quillset(capture, &log);
    SSError* e = p.addComponentWWN({"6006016012345678"});
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrCode(), SS_EC_INTERNAL_ERROR);
    EXPECT_EQ(take_text(e), "Caught unexpected exception.");
    EXPECT_TRUE(log.has("SCMerlodeQuillset::addComponentWWN: Caught unexpected exception."));
    EXPECT_EQ(p.m_usingWWN, 1);
    // The lock was released: another thread can take it at once.
    bool got = false;
    std::thread t([&] {
        got = kv_mutex_trylock(p.m_mtx.m_mtx) == 0;
        if (got) kv_mutex_unlock(p.m_mtx.m_mtx);
    });
    t.join();
    EXPECT_TRUE(got);
}

TEST(ServiceFrame, InitWithoutStructOrMoverFails) {
    Log log;
    SCQuillsetCow cow(capture, &log);
    SSError* e = cow.init(nullptr);
    EXPECT_EQ(take_text(e), "SCMerlodeQuillset::privateInit: Null init pointer");
    EXPECT_EQ(cow.m_state, SSHOT_STATE_UNINIT);

    SCQuillsetCow prod(capture, &log);
    SCInitStruct is;
    attrlist* al = attr_new("FRAME_IP", "10.0.0.1:10.0.0.2");
    attrlist* pol = attr_new("MERL_ON_DELETE", "release_resource");
    al->next = pol;
    is.attributes = al;
    e = prod.init(&is);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrCode(), SS_EC_INVALID_CONFIGURATION);
    EXPECT_EQ(take_text(e),
              "SCMerlodeQuillset::privateInit, Vaultmere Mount Host designation missing from "
              "environment");
    EXPECT_EQ(prod.m_state, SSHOT_STATE_UNINIT);
    EXPECT_EQ(prod.m_retainOnDelete, "Release");
    std::vector<std::string> want{"10.0.0.1", "10.0.0.2"};
    EXPECT_EQ(prod.m_ipaddrlist, want);
    attrlist_free(al);
}

TEST(ServiceFrame, HandleWithOnlyTheTagHasNoFrames) {
    Log log;
    SCQuillsetCow mh(capture, &log);
    SCSnapshotHandle h;
    h.m_pguid = reinterpret_cast<unsigned char*>(strdup("guid"));
    h.m_pdetails = reinterpret_cast<unsigned char*>(strdup("KVTv1"));
    SCInitStruct is;
    is.snapshotHandle = &h;
    SSError* e = mh.init(&is);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrCode(), SS_EC_INVALID_CONFIGURATION);
    EXPECT_EQ(take_text(e),
              "SCMerlodeQuillset::privateInit: Frame IP address(s) missing from environment");
    EXPECT_EQ(mh.m_instanceIsProduction, 0);
    EXPECT_EQ(mh.m_handleVersion, "KVTv1");
}

TEST(ServiceFrame, HandleReaderCutsSourcesAtTheFirstDash) {
    Log log;
    SCQuillsetCow mh(capture, &log);
    SCSnapshotHandle h;
    h.m_pguid = reinterpret_cast<unsigned char*>(strdup("g"));
    h.m_pdetails = reinterpret_cast<unsigned char*>(
        strdup("KVTv1;10.1.1.1:10.1.1.2;aa-2013041215300000|/dev/mapper/vg-lv;bb-0001|/dev/sdc"));
    SCInitStruct is;
    is.snapshotHandle = &h;
    delete mh.init(&is);  // the array part may fail here; the reading is what counts
    ASSERT_EQ(mh.m_snapdevlist.size(), 2u);
    EXPECT_EQ(mh.m_snapdevlist.front().sessionId, "aa-2013041215300000");
    EXPECT_EQ(mh.m_snapdevlist.front().srcName, "/dev/mapper/vg");
    EXPECT_EQ(mh.m_snapdevlist.back().srcName, "/dev/sdc");
    EXPECT_EQ(mh.m_handle.details_str,
              "10.1.1.1:10.1.1.2;aa-2013041215300000|/dev/mapper/vg-lv;bb-0001|/dev/sdc");
    std::vector<std::string> want{"10.1.1.1", "10.1.1.2"};
    EXPECT_EQ(mh.m_ipaddrlist, want);

    SCQuillsetCow other(capture, &log);
    h.m_pdetails[4] = '2';  // "KVTv2": an unknown tag keeps the whole record as the source
    delete other.init(&is);
    ASSERT_FALSE(other.m_snapdevlist.empty());
    EXPECT_EQ(other.m_snapdevlist.front().srcName, "/dev/mapper/vg-lv");
}

}  // namespace
