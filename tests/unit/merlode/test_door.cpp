// The module door below the entry points: tokeniser, error objects and
// their in-place replacement, boundary records, directory service settings.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "storage/ssm/client/SSRecords.h"
#include "storage/ssm/merlode/merl_err.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"
#include "storage/ssm/merlode/merl_ss.h"
#include "storage/ssm/merlode/merl_ssds.h"

namespace {

struct LogLine {
    int level;
    std::string file;
    std::string text;
};

void capture(int level, const char* file, int, const char* message, void* ctx) {
    static_cast<std::vector<LogLine>*>(ctx)->push_back({level, file, message});
}

std::vector<std::string> tokens_of(std::string s, const char* delim) {
    std::vector<std::string> out;
    while (!s.empty()) out.push_back(merl_space::nextToken(s, delim));
    return out;
}

TEST(NextToken, CutsAtDelimiterSkippingLeadingOnes) {
    using V = std::vector<std::string>;
    EXPECT_EQ(tokens_of("b:a", ":"), (V{"b", "a"}));
    EXPECT_EQ(tokens_of(":a:b", ":"), (V{"a", "b"}));
    EXPECT_EQ(tokens_of(":::a", ":"), (V{"a"}));
    EXPECT_EQ(tokens_of("a::", ":"), (V{"a", ""}));
    EXPECT_EQ(tokens_of(":::", ":"), (V{""}));
    EXPECT_EQ(tokens_of("abc", ":"), (V{"abc"}));
}

TEST(NextToken, LeavesRestAfterEachCall) {
    std::string s = "a::";
    EXPECT_EQ(merl_space::nextToken(s, ":"), "a");
    EXPECT_EQ(s, ":");
    EXPECT_EQ(merl_space::nextToken(s, ":"), "");
    EXPECT_TRUE(s.empty());

    std::string whole = "no-delimiter-here";
    EXPECT_EQ(merl_space::nextToken(whole, ":"), "no-delimiter-here");
    EXPECT_TRUE(whole.empty());
}

TEST(NextToken, MultiCharacterDelimiterErasesOnlyItsFirstCharacter) {
    std::string s = "x, y";
    EXPECT_EQ(merl_space::nextToken(s, ", "), "x");
    EXPECT_EQ(s, " y");
    // Found at the front: one character goes, then the search starts again.
    std::string t = ", , z";
    EXPECT_EQ(merl_space::nextToken(t, ", "), " ");
    EXPECT_EQ(t, " z");
}

TEST(NextToken, DegenerateDelimitersAndLongRunsTerminate) {
    std::string s = "abc";
    EXPECT_EQ(merl_space::nextToken(s, ""), "abc");
    std::string n = "abc";
    EXPECT_EQ(merl_space::nextToken(n, nullptr), "abc");
    std::string run(200000, ':');
    run += "z";
    EXPECT_EQ(merl_space::nextToken(run, ":"), "z");
}

TEST(SSErrorObject, DefaultHoldsMessageWithNoErrorCode) {
    SSError e;
    EXPECT_EQ(e.getErrCode(), SS_EC_NO_ERROR);
    EXPECT_STREQ(e.getErrMsg(), "Untranslated Message: SSError Default Constructor");
    EXPECT_EQ(e.getErrInfo().MsgId, 92370);
    e.reset();
    EXPECT_STREQ(e.getErrMsg(), "NULL");
}

TEST(SSErrorObject, CopiesAreIndependentOfTheSourceMessage) {
    errinfo* m = msg_create(0, 2, "disk %s gone", 0, "sdq");
    SSError a(SS_EC_DEVICE_ERROR, *m);
    msg_free(m);
    EXPECT_STREQ(a.getErrMsg(), "disk sdq gone");
    SSError b;
    a.dupErrorTo(b);
    a.reset();
    EXPECT_EQ(b.getErrCode(), SS_EC_DEVICE_ERROR);
    EXPECT_STREQ(b.getErrMsg(), "disk sdq gone");
    b.setError(b.getErrCode(), b.getErrInfo());  // onto itself: must not lose the text
    EXPECT_STREQ(b.getErrMsg(), "disk sdq gone");
}

TEST(MerlSpace, SetErrorDeletesOldAndBuildsNew) {
    SSError* old = merl_space::setError(nullptr, SS_EC_BUSY_ERROR, "busy");
    ASSERT_NE(old, nullptr);
    EXPECT_STREQ(old->getErrMsg(), "busy");
    EXPECT_EQ(old->getErrInfo().MsgId, 6211);
    // The old error is always consumed; no error code means no object.
    EXPECT_EQ(merl_space::setError(old, SS_EC_NO_ERROR, "ignored"), nullptr);

    SSError* e = merl_space::blderr(
        nullptr, SS_EC_SNAPSHOT_NOT_SUPPORTED,
        "%s: Specified Directory Service Type (%d) for Merlode is not supported:",
        "merlStorageSubsystem::getDirectoryService", 3);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->getErrMsg(),
                 "merlStorageSubsystem::getDirectoryService: Specified Directory Service Type (3) "
                 "for Merlode is not supported:");
    delete e;
}

TEST(MerlErrorHelper, TellerrReplacesInPlaceAndLogsAtThree) {
    std::vector<LogLine> lines;
    MerlError me(capture, &lines);
    SSError* e = me.generr("f", 1, nullptr, SS_EC_DEVICE_ERROR, "%s: lower failure", "Low::op");
    ASSERT_NE(e, nullptr);
    EXPECT_TRUE(lines.empty());
    SSError* same = me.tellerr("storage/ssm/merlode/x", 2, e, SS_EC_UNABLE_TO_PREPARE,
                               "%s: wrapped: %s", "High::op", "why");
    EXPECT_EQ(same, e);
    EXPECT_EQ(e->getErrCode(), SS_EC_UNABLE_TO_PREPARE);
    EXPECT_STREQ(e->getErrMsg(), "High::op: wrapped: why");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 3);
    EXPECT_EQ(lines[0].text, "High::op: wrapped: why");
    EXPECT_EQ(lines[0].file, "storage/ssm/merlode/x");

    SSError* lvl = me.tellerrLvl(7, "f", 3, e, SS_EC_BUSY_ERROR, "%s", "again");
    EXPECT_EQ(lvl, e);
    EXPECT_EQ(lines.back().level, 7);
    delete e;
}

TEST(MerlErrorHelper, PercentSignsInArgumentsAreNotFormats) {
    std::vector<LogLine> lines;
    MerlError me(capture, &lines);
    SSError* e = me.tellerr("f", 1, nullptr, SS_EC_INVALID_DEVICE, "%s: bad device %s", "A::b",
                            "/dev/%s%n%d");
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->getErrMsg(), "A::b: bad device /dev/%s%n%d");
    delete e;
    MerlError silent(nullptr, nullptr);  // no log function yet: nothing to call
    silent.logprintf(9, "f", 1, "%s", "dropped");
}

TEST(BoundaryRecords, SourceListHeadOwnsChainAndAppendAddsNothing) {
    SSSourceList* head = new SSSourceList;
    head->ssSource = strdup("/dev/sda");
    head->next = new SSSourceList;
    head->next->ssSource = strdup("/dev/sdb");
    head->next->next = new SSSourceList;
    head->next->next->ssSource = strdup("/dev/sdc");
    SSSourceList extra;
    head->append(&extra);
    int n = 0;
    for (SSSourceList* p = head; p != nullptr; p = p->next) n++;
    EXPECT_EQ(n, 3);
    delete head;  // the leak checker holds us to freeing all three names
}

TEST(BoundaryRecords, HandleCopyIsDeep) {
    SCSnapshotHandle* a = new SCSnapshotHandle;
    a->m_pguid = reinterpret_cast<unsigned char*>(strdup("guid-text"));
    a->m_guidLen = 9;
    a->m_pdetails = reinterpret_cast<unsigned char*>(strdup("details"));
    a->m_detailLen = 7;
    SCSnapshotHandle* b = new SCSnapshotHandle(a);
    EXPECT_NE(a->m_pguid, b->m_pguid);
    EXPECT_EQ(b->m_guidLen, 9u);
    EXPECT_EQ(b->m_detailLen, 7u);
    EXPECT_EQ(b->m_pdetailsChgAtImport, 0);
    delete b;
    EXPECT_STREQ(reinterpret_cast<char*>(a->m_pguid), "guid-text");
    delete a;

    SCSnapshotHandle empty;
    SCSnapshotHandle copy(&empty);  // must not crash on missing texts
    EXPECT_EQ(copy.m_pguid, nullptr);
}

class DirectoryServiceTest : public ::testing::Test {
protected:
    std::vector<LogLine> lines;
    merlDirectoryService ds{capture, &lines};

    static attrlist* frames(std::initializer_list<const char*> values) {
        vallist* vals = nullptr;
        vallist** tail = &vals;
        for (const char* v : values) {
            *tail = val_new(v);
            tail = &(*tail)->next;
        }
        attrlist* al = nullptr;
        attrlist_setlist(&al, "FRAME_IP", vals);
        vallist_free(vals);
        return al;
    }
    void TearDown() override { ds.deInit(); }
};

TEST_F(DirectoryServiceTest, FrameListIsSortedWithoutDuplicates) {
    attrlist* al = frames({"10.0.0.9:10.0.0.10", "10.0.0.9", "b:a", "a"});
    ASSERT_EQ(ds.init(al), nullptr);
    attrlist_free(al);  // the service keeps its own copy
    std::vector<std::string> want{"10.0.0.10", "10.0.0.9", "a", "b"};
    EXPECT_EQ(ds.m_ipaddrlist, want);
    EXPECT_NE(ds.m_attrlist, nullptr);
    EXPECT_EQ(lines.back().text, "END: merlDirectoryService::init");
}

TEST_F(DirectoryServiceTest, NullAttributesKnowNoFrames) {
    ASSERT_EQ(ds.init(nullptr), nullptr);
    EXPECT_TRUE(ds.m_ipaddrlist.empty());
    int supported = 7;
    SSError* e = ds.isServiceSupported(const_cast<char*>("/dev/sdb"), "cow", nullptr, supported);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrCode(), SS_EC_INVALID_CONFIGURATION);
    EXPECT_STREQ(
        e->getErrMsg(),
        "merlDirectoryService::isServiceSupported: Frame IP address(s) missing from environment");
    EXPECT_EQ(supported, 0);
    delete e;
    // An unknown subtype is a plain no, tested before the configuration.
    supported = 7;
    EXPECT_EQ(ds.isServiceSupported(const_cast<char*>("/dev/sdb"), "BCV", nullptr, supported),
              nullptr);
    EXPECT_EQ(supported, 0);
}

TEST_F(DirectoryServiceTest, SubtypeQuestionsIgnoreCaseAndNameTheOperation) {
    ASSERT_EQ(ds.init(nullptr), nullptr);
    SSAPIVersion v{0, 0};
    EXPECT_EQ(ds.getAPIVersion("kvt-snap", v), nullptr);
    EXPECT_EQ(v.m_majorVersion, 1);
    EXPECT_EQ(v.m_minorVersion, 1);
    SSStorageStackLevel lvl = SS_LEVEL_FILESYSTEM;
    EXPECT_EQ(ds.getStorageStackLevel("Mirror", lvl), nullptr);
    EXPECT_EQ(lvl, SS_LEVEL_DISK);

    SSError* e = ds.getAPIVersion("CLONE", v);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrCode(), SS_EC_SNAPSHOT_NOT_SUPPORTED);
    EXPECT_STREQ(e->getErrMsg(),
                 "merlDirectoryService::getApiVersion: Specified storage subsystem type (CLONE) is "
                 "not supported");
    EXPECT_EQ(lines.back().level, 3);
    delete e;
    lvl = SS_LEVEL_VOLUME;
    e = ds.getStorageStackLevel(nullptr, lvl);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(lvl, SS_LEVEL_VOLUME);  // untouched on failure
    // A missing text prints the way the foundation's renderer prints it.
    EXPECT_STREQ(e->getErrMsg(),
                 "merlDirectoryService::getStorageStackLevel: Specified storage subsystem type "
                 "(<null>) is not supported");
    delete e;
    IService* svc = nullptr;
    e = ds.getServiceInstance(nullptr, svc);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->getErrMsg(),
                 "merlDirectoryService::getServiceInstance: Specified storage subsystem type "
                 "(<null>) is not supported");
    delete e;

    char** subs = nullptr;
    int n = 0;
    EXPECT_EQ(ds.querySupportedServiceSubType(subs, n), nullptr);
    ASSERT_EQ(n, 3);
    EXPECT_STREQ(subs[0], "COW");
    EXPECT_STREQ(subs[1], "MIRROR");
    EXPECT_STREQ(subs[2], "KVT-SNAP");

    attrlist* out = reinterpret_cast<attrlist*>(&n);
    EXPECT_EQ(ds.getServiceAttributes("COW", nullptr, out), nullptr);
    EXPECT_EQ(out, nullptr);
    e = ds.getSourceAttributes("/dev/sda", nullptr, out);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrCode(), SS_EC_SNAP_PROVIDER_ERROR);
    EXPECT_STREQ(e->getErrMsg(),
                 "Snap Provider Error : No source attributes supported for this vendor.");
    delete e;
}

TEST(StorageSubsystemObject, OffersOnlySnapshotsAndFreshDirectoryServices) {
    std::vector<LogLine> lines;
    merlStorageSubsystem ss;
    ASSERT_EQ(ss.init(nullptr, capture, &lines), nullptr);
    EXPECT_EQ(lines.back().text, "END: merlStorageSubsystem::init");
    SSServiceType* types = nullptr;
    int n = 0;
    EXPECT_EQ(ss.querySupportedServices(types, n), nullptr);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(types[0], SS_SERV_SNAPSHOT);

    for (SSServiceType t : {SS_SERV_REPLICATION, SS_SERV_ECOPY, SS_SERV_DISCOVERY}) {
        SSDirectoryService* ds = reinterpret_cast<SSDirectoryService*>(&n);
        SSError* e = ss.getDirectoryService(t, ds);
        EXPECT_EQ(ds, nullptr);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->getErrCode(), SS_EC_SNAPSHOT_NOT_SUPPORTED);
        std::string text = e->getErrMsg();
        EXPECT_EQ(text.back(), ':');
        delete e;
    }
    SSDirectoryService* a = nullptr;
    SSDirectoryService* b = nullptr;
    ASSERT_EQ(ss.getDirectoryService(SS_SERV_SNAPSHOT, a), nullptr);
    ASSERT_EQ(ss.getDirectoryService(SS_SERV_SNAPSHOT, b), nullptr);
    EXPECT_NE(a, b);
    delete a;
    delete b;
}

TEST(StorageSubsystemObject, NullLogFunctionFallsBackToSnapLog) {
    merlStorageSubsystem ss;
    int ctx = 0;
    ss.m_logCtx = &ctx;
    ASSERT_EQ(ss.init(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(ss.m_fpLog, &merl_space::snapLog);
    EXPECT_EQ(ss.m_logCtx, &ctx);  // kept as it was
}

}  // namespace
