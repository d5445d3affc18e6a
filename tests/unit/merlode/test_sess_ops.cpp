// COW session operations against the array simulator: the whole cycle of
// one session, frame order, the age survey, retries of deactivation without
// real sleeps, and faults of the tools.
#include <time.h>

#include <algorithm>
#include <list>

#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_sim.h"

using sgsim::Sim;
using sgsim::SleepRecorder;
using sgtest::Quillset;

namespace {

const std::string kFrame0 = SimArray::addr(0);
const std::string kFrame1 = SimArray::addr(1);

// A session name of the form the COW provider makes: 70 characters with a
// time stamp (month counted from 0) at offset 54.
std::string session_name(int year, int mon0, int day, int hour, int min) {
    char stamp[32];
    snprintf(stamp, sizeof stamp, "%04d%02d%02d%02d%02d", year, mon0, day, hour, min);
    std::string name = "zovmerl_cow_";
    name.resize(54, 'a');
    return name + stamp + "_s01";
}

std::string recent_session_name() {
    time_t now = time(nullptr);
    struct tm t;
    localtime_r(&now, &t);
    return session_name(t.tm_year + 1900, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min);
}

snapdevice source(const std::string& session, int lun) {
    snapdevice sd;
    sd.sessionId = session;
    sd.srcName = "sdd";
    sd.srcDev.merllun = lun;
    return sd;
}

int code_of(SSError* err) {
    int c = err != nullptr ? (int)err->getErrCode() : 0;
    delete err;
    return c;
}

std::string text_of(SSError* err) {
    std::string t = err != nullptr && err->getErrMsg() != nullptr ? err->getErrMsg() : "";
    delete err;
    return t;
}

struct SessSim : ::testing::Test {
    std::unique_ptr<Sim> sim;
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(new Sim({"--frames", "2", "--luns", "2"}));
        ASSERT_TRUE(sim->ok());
        sim->array.clear_commands();
    }
    std::string first_lun_of(int frame) {
        for (const auto& r : sgsim::records(sim->array, "lun"))
            if (r.at("frame") == std::to_string(frame)) return r.at("num");
        return "";
    }
};

TEST_F(SessSim, WholeCycleStartVerifyActivateDeactivateRollbackStop) {
    Quillset q({kFrame1, kFrame0});
    std::string name = recent_session_name();
    ASSERT_EQ(name.size(), 70u);
    snapdevice sd = source(name, 0);

    EXPECT_EQ(q->startsession(sd), nullptr);
    EXPECT_EQ(sgsim::field(sim->array, "session", "name", name, "lun"), "0");

    EXPECT_EQ(q->refreshSessions(), nullptr);
    EXPECT_EQ(q->m_sessionList, std::vector<std::string>{name});
    EXPECT_EQ(q->verifySession(name), 1);
    EXPECT_EQ(q->verifySession(name + "x"), 0);
    EXPECT_EQ(q.log.count("appears to be very old"), 0);

    EXPECT_EQ(q->activatesession(sd), nullptr);
    std::string snapdev = sgsim::field(sim->array, "lun", "num", "0", "snapdev");
    ASSERT_FALSE(snapdev.empty());
    // No map was read: the device stays as the host tool names it.
    EXPECT_EQ(sd.dstName, "/dev/zsnp/" + snapdev + "0");
    EXPECT_EQ(sgsim::field(sim->array, "session", "name", name, "activated"), "1");

    {
        SleepRecorder sleeps;
        EXPECT_EQ(q->deactivatesession(sd), nullptr);
        EXPECT_TRUE(SleepRecorder::slept().empty());
    }
    EXPECT_EQ(sgsim::field(sim->array, "session", "name", name, "activated"), "0");

    EXPECT_EQ(q->rollbacksession(sd), nullptr);
    EXPECT_EQ(q->stopsession(sd), nullptr);
    EXPECT_TRUE(sgsim::records(sim->array, "session").empty());

    std::vector<std::string> cmds = sim->array.commands();
    std::sort(cmds.end() - 2, cmds.end());  // the stops run at once
    EXPECT_EQ(cmds, (std::vector<std::string>{
                        "tilloseccli -h " + kFrame0 + " quillset -startsession " + name +
                            " -lun 0 -persistence",
                        "tilloseccli -h " + kFrame0 + " quillset -listsessions",
                        "tilloseccli -h " + kFrame1 + " quillset -listsessions",
                        "gelmot activate -s " + name,
                        "gelmot deactivate -s " + name,
                        "tilloseccli -h " + kFrame0 + " quillset -startrollback " + name +
                            " -rate medium -o",
                        "tilloseccli -h " + kFrame0 + " quillset -stopsession " + name + " -o",
                        "tilloseccli -h " + kFrame1 + " quillset -stopsession " + name + " -o",
                    }));

    // The list is never cleared: a session gone from the array still
    // verifies on this object, and a fresh object doesn't see it.
    EXPECT_EQ(q->refreshSessions(), nullptr);
    EXPECT_EQ(q->verifySession(name), 1);
    Quillset fresh({kFrame0, kFrame1});
    EXPECT_EQ(fresh->refreshSessions(), nullptr);
    EXPECT_EQ(fresh->verifySession(name), 0);
}

TEST_F(SessSim, StartTriesFramesUntilTheOneOwningTheLun) {
    Quillset q({kFrame0, kFrame1});
    std::string lun = first_lun_of(1);
    snapdevice sd = source(recent_session_name(), atoi(lun.c_str()));
    EXPECT_EQ(q->startsession(sd), nullptr);
    EXPECT_EQ(sgsim::commands_with(sim->array, "-startsession").size(), 2u);
    EXPECT_EQ(sgsim::field(sim->array, "session", "name", sd.sessionId, "frame"), "1");
    // The first frame's refusal is dropped.
    EXPECT_EQ(q.log.count("returned error"), 0);
}

TEST_F(SessSim, StartRefusedEverywhereNamesTheSource) {
    Quillset q({kFrame0, kFrame1});
    snapdevice sd = source(recent_session_name(), 999);
    SSError* err = q->startsession(sd);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_UNABLE_TO_CREATE_SNAPSHOT);
    EXPECT_NE(std::string(err->getErrMsg()).find("-startsession' for sdd"), std::string::npos);
    delete err;
    EXPECT_EQ(q.log.count("Starting the sessions for [sdd] returned error", 3), 1);
    EXPECT_GE(q.log.count("The specified LUN does not exist", -1), 1);
    EXPECT_TRUE(sgsim::records(sim->array, "session").empty());
}

TEST_F(SessSim, OldSessionIsReportedAtEachFrameAndLeftAlone) {
    Quillset q({kFrame0, kFrame1});
    std::string old = session_name(2001, 0, 15, 10, 30);
    std::string odd = "short_name";
    snapdevice a = source(old, 0), b = source(odd, 1);
    ASSERT_EQ(q->startsession(a), nullptr);
    ASSERT_EQ(q->startsession(b), nullptr);
    EXPECT_EQ(q->refreshSessions(), nullptr);
    EXPECT_EQ(q.log.count("INFO - Found session (" + old + ") on frame (" + kFrame0 + ")", 0), 1);
    // The second frame has no session, but the survey covers the whole list.
    EXPECT_EQ(q.log.count("INFO - Found session (" + old + ") on frame (" + kFrame1 + ")", 0), 1);
    EXPECT_EQ(q.log.count("found non-conforming session name: [short_name] (10)", 7), 2);
    EXPECT_EQ(q->verifySession(odd), 1);
    EXPECT_EQ(sgsim::records(sim->array, "session").size(), 2u);
}

TEST_F(SessSim, DeactivateRefusedFourTimesSleepsFourTimesAndSucceeds) {
    Quillset q({kFrame0});
    std::string name = recent_session_name();
    snapdevice sd = source(name, 0);
    ASSERT_EQ(q->startsession(sd), nullptr);
    SleepRecorder sleeps;
    // Never activated: the tool refuses each time.
    EXPECT_EQ(q->deactivatesession(sd), nullptr);
    EXPECT_EQ(SleepRecorder::slept(), (std::vector<uint32_t>{5000, 5000, 5000, 5000}));
    EXPECT_EQ(sgsim::commands_with(sim->array, "gelmot deactivate -s " + name).size(), 4u);
    EXPECT_EQ(q.log.count("is not activated"), 4);
}

TEST_F(SessSim, RollbackRefusalCarriesTheToolsWords) {
    Quillset q({kFrame0});
    sim->admin({"fault", "add", "tilloseccli", "refuse", "--match", "-startrollback", "--arg",
                "Error: rollback not allowed now"});
    snapdevice sd = source(recent_session_name(), 0);
    SSError* err = q->rollbacksession(sd);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_ROLLBACK_IMPACTS);
    EXPECT_NE(std::string(err->getErrMsg()).find("Error: rollback not allowed now"),
              std::string::npos);
    delete err;
    EXPECT_EQ(q.log.count("Rollback failed for [sdd] with [", 3), 1);
}

TEST_F(SessSim, ActivateWithoutADeviceIsAnAccessPathError) {
    Quillset q({kFrame0});
    for (const char* kind : {"garbage", "refuse"}) {
        sim->admin({"fault", "clear"});
        sim->admin({"fault", "add", "gelmot", kind});
        snapdevice sd = source(recent_session_name(), 0);
        EXPECT_EQ(code_of(q->activatesession(sd)), SS_EC_INVALID_ACCESS_PATH) << kind;
        EXPECT_TRUE(sd.dstName.empty());
    }
}

// The host tool names a snapshot's device under a 10-character folder and
// with a slice letter; the map names it without either. A map read after
// the session started turns the tool's name into the map's device name.
TEST_F(SessSim, ActivateTurnsTheRawDeviceIntoTheMapsDevice) {
    std::string snapdev = sgsim::field(sim->array, "lun", "num", "0", "snapdev");
    ASSERT_FALSE(snapdev.empty());
    for (const char* form : {"raw", "path"}) {
        sim->admin({"set", "option", std::string("gelmot_form=") + form});
        Quillset q({kFrame0, kFrame1});
        snapdevice sd = source(recent_session_name() + form, 0);
        ASSERT_EQ(q->startsession(sd), nullptr);
        std::list<snapdevice> sources{sd};
        q->validateSnapConfig(sources);
        EXPECT_EQ(q->activatesession(sd), nullptr);
        if (std::string(form) == "raw") {
            EXPECT_EQ(sd.dstName, snapdev) << form;
            EXPECT_EQ(q.log.count("Access path is [" + snapdev + "]", 9), 1);
        } else {
            // A device path of the state folder is kept as the tool gave it.
            EXPECT_EQ(sd.dstName, sim->array.dir() + "/dev/" + snapdev);
        }
        delete q->deactivatesession(sd);
        delete q->stopsession(sd);
    }
}

// The rewrite itself, on names the simulator would not print: a name must
// hold exactly the map's id less its last character between the folder and
// the slice letter.
TEST(SessSimMultipath, ActivateMapsTheDeviceThroughTheVolumeMap) {
    SKIP_WITHOUT_SIM();
    Sim sim({"--frames", "1", "--luns", "1", "--clone-groups", "0", "--multipath"});
    ASSERT_TRUE(sim.ok());
    std::string path;
    for (auto& r : sgsim::records(sim.array, "dev"))
        if (r["host"] == "0" && r["pseudo"] == "zovhadrixd") path = r["paths"];
    path = path.substr(0, path.find(','));
    ASSERT_FALSE(path.empty());
    Quillset q({kFrame0});
    ASSERT_EQ(q->initVolMap(path), nullptr);
    ASSERT_EQ(q->m_volMapList.size(), 1u);
    ASSERT_EQ(q->m_volMapList[0].pseudoNm, "zovhadrixd");
    struct Case {
        std::string device;
        std::string access;
    } cases[] = {
        {"/dev/rdsk/zovhadrixs", path},                      // folder and slice letters dropped
        {"/dev/rdsk/zovhadrixXs", "/dev/rdsk/zovhadrixXs"},  // one letter too many
        {"/dev/dsk/zovhadrixs", "/dev/dsk/zovhadrixs"},      // a 9-character folder
    };
    for (const Case& c : cases) {
        sim.admin({"fault", "clear"});
        sim.admin({"fault", "add", "gelmot", "refuse", "--arg",
                   "Activated session s1 on device " + c.device + "."});
        snapdevice sd = source("s1", 0);
        EXPECT_EQ(q->activatesession(sd), nullptr) << c.device;
        EXPECT_EQ(sd.dstName, c.access) << c.device;
    }
    EXPECT_EQ(q.log.count("Access path is [" + path + "]", 9), 1);
}

TEST_F(SessSim, ShortDeviceNameIsKeptAndNeverCompared) {
    Quillset q({kFrame0});
    ASSERT_EQ(q->initVolMap("sdd"), nullptr);
    ASSERT_FALSE(q->m_volMapList.empty());
    for (const char* dev : {"/d/x", "x", "/dev/sdd12"}) {
        sim->admin({"fault", "clear"});
        sim->admin({"fault", "add", "gelmot", "refuse", "--arg",
                    std::string("Activated session s on device ") + dev + "."});
        snapdevice sd = source("s", 0);
        EXPECT_EQ(q->activatesession(sd), nullptr) << dev;
        EXPECT_EQ(sd.dstName, dev);
    }
}

TEST_F(SessSim, OverlongAndGarbageAnswersNeitherCrashNorInvent) {
    Quillset q({kFrame0, kFrame1});
    std::string name = recent_session_name();
    snapdevice sd = source(name, 0);
    sim->admin({"fault", "add", "*", "longline"});
    EXPECT_EQ(q->startsession(sd), nullptr);
    EXPECT_EQ(q->refreshSessions(), nullptr);
    EXPECT_EQ(q->verifySession(name), 1);
    EXPECT_EQ(q->activatesession(sd), nullptr);
    EXPECT_FALSE(sd.dstName.empty());
    // Anything printed to a rollback is a refusal, a long line too.
    EXPECT_EQ(code_of(q->rollbacksession(sd)), SS_EC_ROLLBACK_IMPACTS);

    sim->admin({"fault", "clear"});
    sim->admin({"fault", "add", "*", "garbage"});
    Quillset g({kFrame0, kFrame1});
    EXPECT_EQ(g->refreshSessions(), nullptr);
    EXPECT_TRUE(g->m_sessionList.empty());
    snapdevice other = source(recent_session_name() + "b", 1);
    EXPECT_EQ(code_of(g->startsession(other)), SS_EC_UNABLE_TO_CREATE_SNAPSHOT);
    SleepRecorder sleeps;
    EXPECT_EQ(g->deactivatesession(sd), nullptr);
    EXPECT_EQ(SleepRecorder::slept().size(), 4u);
}

TEST_F(SessSim, MissingToolsAreConfigurationErrorsNamingGelmot) {
    sim->admin({"fault", "add", "gelmot", "missing"});
    sim->admin({"fault", "add", "tilloseccli", "missing"});
    sim->array.clear_commands();
    Quillset q({kFrame0});
    if (!q->GetTilloCliExe().empty() || !q->GetGelmotCliExe().empty())
        GTEST_SKIP() << "real tools are installed";
    snapdevice sd = source(recent_session_name(), 0);
    for (SSError* err : {q->activatesession(sd), q->deactivatesession(sd), q->stopsession(sd)}) {
        ASSERT_NE(err, nullptr);
        EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_CONFIGURATION);
        EXPECT_NE(text_of(err).find("Unable to locate gelmot in standard locations."),
                  std::string::npos);
    }
    EXPECT_EQ(code_of(q->startsession(sd)), SS_EC_INVALID_CONFIGURATION);
    EXPECT_EQ(code_of(q->rollbacksession(sd)), SS_EC_INVALID_CONFIGURATION);
    EXPECT_EQ(code_of(q->refreshSessions()), SS_EC_INVALID_CONFIGURATION);
    EXPECT_TRUE(sim->array.commands().empty());
}

}  // namespace
