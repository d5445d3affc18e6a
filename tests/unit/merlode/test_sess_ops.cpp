// Session, volume map and capability operations run against fake tools:
// command lines, frame order, retries and what lands in the caches.
#include <algorithm>

#include <gtest/gtest.h>

#include "liblocal/kv_thread.h"
#include "tests/unit/merlode/sg_fake_tools.h"
#include "tests/unit/merlode/sg_parse_fixture.h"

using sgtest::FakeTools;
using sgtest::Quillset;

namespace {

std::vector<uint32_t> g_sleeps;
KVError record_sleep(uint32_t ms) {
    g_sleeps.push_back(ms);
    return 0;
}

snapdevice session(const char* id = "zovsess-a") {
    snapdevice sd;
    sd.sessionId = id;
    sd.srcName = "/dev/sdb";
    sd.srcDev.merllun = 17;
    return sd;
}

TEST(SessOps, StartSessionTriesFramesUntilOneAccepts) {
    FakeTools fake;
    Quillset q({"10.1.1.1", "10.1.1.2"});
    q->m_tilloscli = fake.tool(
        "tilloseccli", "[ \"$2\" = 10.1.1.2 ] && echo 'You must activate a snapshot session first.'");
    snapdevice sd = session();
    EXPECT_EQ(q->startsession(sd), nullptr);
    EXPECT_EQ(fake.commands(),
              (std::vector<std::string>{
                  "tilloseccli -h 10.1.1.1 quillset -startsession zovsess-a -lun 17 -persistence",
                  "tilloseccli -h 10.1.1.2 quillset -startsession zovsess-a -lun 17 -persistence"}));
}

TEST(SessOps, StartSessionRefusedEverywhereNamesTheSource) {
    FakeTools fake;
    Quillset q({"10.1.1.1"});
    q->m_tilloscli = fake.tool("tilloseccli", "echo 'Error: LUN busy'");
    snapdevice sd = session();
    SSError* err = q->startsession(sd);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_UNABLE_TO_CREATE_SNAPSHOT);
    EXPECT_NE(std::string(err->getErrMsg()).find("-startsession' for /dev/sdb"), std::string::npos);
    delete err;
    EXPECT_EQ(q.log.count("Starting the sessions for [/dev/sdb] returned error", 3), 1);
}

TEST(SessOps, StopSessionRunsOneChildPerFrameIntoOnePipe) {
    FakeTools fake;
    Quillset q({"10.1.1.3", "10.1.1.1", "10.1.1.2"});
    q->m_tilloscli = fake.tool("tilloseccli", "echo stopped");
    snapdevice sd = session();
    EXPECT_EQ(q->stopsession(sd), nullptr);
    std::vector<std::string> cmds = fake.commands();
    std::sort(cmds.begin(), cmds.end());
    EXPECT_EQ(cmds, (std::vector<std::string>{
                        "tilloseccli -h 10.1.1.1 quillset -stopsession zovsess-a -o",
                        "tilloseccli -h 10.1.1.2 quillset -stopsession zovsess-a -o",
                        "tilloseccli -h 10.1.1.3 quillset -stopsession zovsess-a -o"}));
}

TEST(SessOps, RefreshAndVerifyAcrossFrames) {
    FakeTools fake;
    Quillset q({"10.1.1.1", "10.1.1.2"});
    q->m_tilloscli = fake.tool("tilloseccli", "echo \"Name of the session:  sess-on-$2\"");
    EXPECT_EQ(q->refreshSessions(), nullptr);
    EXPECT_EQ(q->m_sessionList,
              (std::vector<std::string>{"sess-on-10.1.1.1", "sess-on-10.1.1.2"}));
    EXPECT_EQ(q->verifySession("sess-on-10.1.1.2"), 1);
    EXPECT_EQ(fake.commands().back(), "tilloseccli -h 10.1.1.2 quillset -listsessions");
}

TEST(SessOps, RollbackFailureCarriesTheToolsWords) {
    FakeTools fake;
    Quillset q({"10.1.1.1"});
    q->m_tilloscli = fake.tool("tilloseccli", "echo 'Rollback not allowed'");
    snapdevice sd = session();
    SSError* err = q->rollbacksession(sd);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_ROLLBACK_IMPACTS);
    delete err;
    EXPECT_EQ(fake.commands().back(),
              "tilloseccli -h 10.1.1.1 quillset -startrollback zovsess-a -rate medium -o");
    EXPECT_EQ(q.log.count("Rollback failed for [/dev/sdb] with [", 3), 1);
}

TEST(SessOps, DeactivateRefusedFourTimesSleepsFourTimesAndSucceeds) {
    FakeTools fake;
    Quillset q;
    q->m_gelmot = fake.tool("gelmot", "echo 'Error: not active'");
    g_sleeps.clear();
    kv_sleep_hook_t old = kv_set_sleep_hook(record_sleep);
    snapdevice sd = session();
    EXPECT_EQ(q->deactivatesession(sd), nullptr);
    kv_set_sleep_hook(old);
    EXPECT_EQ(g_sleeps, (std::vector<uint32_t>{5000, 5000, 5000, 5000}));
    EXPECT_EQ(fake.commands().size(), 4u);
    EXPECT_EQ(fake.commands()[0], "gelmot deactivate -s zovsess-a");
}

TEST(SessOps, DeactivateSucceedingFirstTimeDoesNotSleep) {
    FakeTools fake;
    Quillset q;
    q->m_gelmot = fake.tool("gelmot", "echo 'Deactivated session zovsess-a'");
    g_sleeps.clear();
    kv_sleep_hook_t old = kv_set_sleep_hook(record_sleep);
    snapdevice sd = session();
    EXPECT_EQ(q->deactivatesession(sd), nullptr);
    kv_set_sleep_hook(old);
    EXPECT_TRUE(g_sleeps.empty());
}

TEST(SessOps, ActivateMapsTheToolsDeviceToTheLastPathOfTheVolumeMap) {
    FakeTools fake;
    Quillset q;
    q->m_gelmot =
        fake.tool("gelmot", "echo 'Activated session zovsess-a on device /dev/rdsk//dev/zovhadrixbX.'");
    Hadrix h;
    h.pseudoNm = "/dev/zovhadrixbY";
    ArrayLun p1, p2;
    p1.pathname = "/dev/sdd";
    p2.pathname = "/dev/sde";
    h.patharray = {p1, p2};
    q->m_volMapList.push_back(h);
    snapdevice sd = session();
    EXPECT_EQ(q->activatesession(sd), nullptr);
    EXPECT_EQ(sd.dstName, "/dev/sde");
    EXPECT_EQ(fake.commands().back(), "gelmot activate -s zovsess-a");
}

TEST(SessOps, ActivateWithAShortDeviceNameKeepsItAndDoesNotCrash) {
    FakeTools fake;
    Quillset q;
    q->m_gelmot = fake.tool("gelmot", "echo 'Activated session s on device /dev/x.'");
    Hadrix h;
    h.pseudoNm = "x";
    ArrayLun p;
    p.pathname = "/dev/sdd";
    h.patharray = {p};
    q->m_volMapList.push_back(h);
    snapdevice sd = session();
    EXPECT_EQ(q->activatesession(sd), nullptr);
    EXPECT_EQ(sd.dstName, "/dev/x");
}

TEST(SessOps, ActivateWithoutADeviceIsAnAccessPathError) {
    FakeTools fake;
    Quillset q;
    q->m_gelmot = fake.tool("gelmot", "echo 'Error: no such session'");
    snapdevice sd = session();
    SSError* err = q->activatesession(sd);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_ACCESS_PATH);
    delete err;
}

// tilloseccli answering the volume map queries; $D/update is the first
// line of "-update".
const char* kVolmapTool = R"SH(
shift 2
case "$1 $2" in
"getlun -uid") printf 'LOGICAL UNIT NUMBER 31\nUID:  60:06:01:60:3B:40:2D:00:A2:6B:8C:11:9E:41:E6:31\n' ;;
"server -update") cat "$D/update" 2>/dev/null ;;
"server -volmap") cat "$D/volmap" ;;
"quillset -listsnapshots") [ "$4" = 17 ] && printf 'Target Logical Unit:  1.7\n' ;;
esac
)SH";

TEST(VolMapOps, InitVolMapRefreshesAndReadsEachFrame) {
    FakeTools fake;
    Quillset q({"10.1.1.1", "10.1.1.2"});
    q->m_tilloscli = fake.tool("tilloseccli", kVolmapTool);
    fake.write("volmap", sgtest::fixture("server_volmap", "two_devices.txt"));
    fake.write("update", "Agent not running on this host\n");
    EXPECT_EQ(q->initVolMap("/dev/sdb"), nullptr);
    EXPECT_EQ(q->m_volMapInited, 1);
    EXPECT_EQ(q->m_volMapList.size(), 2u);  // once per frame: the map accumulates
    std::vector<std::string> cmds = fake.commands();
    ASSERT_EQ(cmds.size(), 6u);
    EXPECT_EQ(cmds[0], "tilloseccli -h 10.1.1.1 getlun -uid");
    EXPECT_EQ(cmds[2].find("tilloseccli -h 10.1.1.1 server -update -host "), 0u);
    EXPECT_EQ(cmds[2].substr(cmds[2].size() - 18), " -rescanDevices -o");
    EXPECT_EQ(cmds[3].find("tilloseccli -h 10.1.1.1 server -volmap -host "), 0u);
    EXPECT_EQ(q.log.count("hostagent process is down", 3), 0);
}

TEST(VolMapOps, AgentWordsNotAtTheStartTakeTheAgentDownPathAndStillReadTheMap) {
    FakeTools fake;
    Quillset q({"10.1.1.1"});
    q->m_tilloscli = fake.tool("tilloseccli", kVolmapTool);
    fake.write("volmap", sgtest::fixture("server_volmap", "two_devices.txt"));
    fake.write("update", " agent not running\n");
    EXPECT_EQ(q->initVolMap("sdc"), nullptr);
    EXPECT_EQ(q.log.count("hostagent process is down", 3), 1);
    EXPECT_EQ(q->m_volMapList.size(), 1u);
}

TEST(VolMapOps, DeviceOnNoFrameIsNotSupported) {
    FakeTools fake;
    Quillset q({"10.1.1.1"});
    q->m_tilloscli = fake.tool("tilloseccli", kVolmapTool);
    fake.write("volmap", "");
    SSError* err = q->initVolMap("/dev/sdq");
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_SNAPSHOT_NOT_SUPPORTED);
    delete err;
}

TEST(VolMapOps, ProxyLookupAnswersOnceThenNeedsAFreshObject) {
    FakeTools fake;
    Quillset q({"10.1.1.1"});
    q->m_tilloscli = fake.tool("tilloseccli", kVolmapTool);
    fake.write("volmap", sgtest::fixture("server_volmap", "clone_on_mount_host.txt"));
    EXPECT_EQ(q->proxyCloneInitVolMap(31, 0), "/dev/sdg");
    EXPECT_EQ(q->proxyCloneInitVolMap(31, 0), "");
    Quillset none(std::vector<std::string>{});
    none->m_tilloscli = q->m_tilloscli;
    EXPECT_EQ(none->proxyCloneInitVolMap(31, 0), "");  // no frame: no endless loop
}

TEST(CapOps, IsSnappableByNumberAsksEachFrameUntilOneListsIt) {
    FakeTools fake;
    Quillset q({"10.1.1.1", "10.1.1.2"});
    q->m_tilloscli = fake.tool("tilloseccli", kVolmapTool);
    EXPECT_EQ(q->isSnappable("17"), 1);
    EXPECT_EQ(fake.commands().size(), 1u);
    EXPECT_EQ(fake.commands()[0], "tilloseccli -h 10.1.1.1 quillset -listsnapshots -lun 17");
    EXPECT_EQ(q->isSnappable("18"), 0);
    EXPECT_EQ(fake.commands().size(), 3u);
}

TEST(CapOps, VersionSurveyAsksEveryToolAndEveryFrame) {
    FakeTools fake;
    attrlist* attrs = nullptr;
    Quillset q({"10.1.1.1", "10.1.1.2"}, attrs);
    q->m_tilloscli = fake.tool(
        "tilloseccli", "case \"$*\" in -help) echo 'Revision 7.33.1.0.12';; *ndu*) cat \"$D/ndu\";; esac");
    q->m_gelmot = fake.tool("gelmot", "echo 'Revision number: V2.31.0'");
    fake.write("ndu", sgtest::fixture("ndu_list", "three_packages.txt"));
    pkgRevision pkgs[3];
    const char* names[] = {"GELMOT", "ZOVhadrix", "TILLOCLI"};
    for (int i = 0; i < 3; i++) {
        pkgs[i].installed = 0;
        pkgs[i].optional = 0;
        pkgs[i].pkgid = (MerlPkgs)i;
        pkgs[i].m_pkgName = names[i];
    }
    EXPECT_EQ(q->getVersions(pkgs, 3), nullptr);
    EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].m_revision, "7.33.1.0.12");
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].m_revision, "2.31.0");  // the array's list came last
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].optional, 1);
    std::vector<std::string> cmds = fake.commands();
    EXPECT_EQ(cmds.front(), "tilloseccli -help");
    EXPECT_EQ(cmds.back(), "tilloseccli -h 10.1.1.2 ndu -list");
}

}  // namespace
