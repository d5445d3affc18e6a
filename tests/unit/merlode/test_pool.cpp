// The clone pool: the snap pool file's grammar and tags, and the choice of a
// clone for a source under the use policy against the array simulator.
#include <time.h>

#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "liblocal/attrlist.h"
#include "storage/ssm/merlode/MerlResourceManager.h"
#include "storage/ssm/merlode/clone_frac.h"
#include "tests/unit/merlode/sg_sim.h"

using sgsim::Sim;
using sgtest::LogSink;
using sgtest::Quillset;

namespace {

const std::string kSerial = "QXR20200001000";  // frame 0 of a simulated array
const std::string kG0 = "50:06:01:60:00:00:00:00:00:00:00:00:C1:00:00:00";

// A local time of a known weekday and minute, for matchTag.
kv_time64_t g_fixed = 0;
kv_time64_t fixed_clock(kv_time64_t* t) {
    if (t != nullptr) *t = g_fixed;
    return g_fixed;
}
kv_time64_t local_time(int year, int mon, int mday, int hour, int min) {
    struct tm tm = {};
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_mday = mday;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_isdst = -1;
    return mktime(&tm);
}

struct ClockGuard {
    explicit ClockGuard(kv_time64_t t) {
        g_fixed = t;
        merl_resource_set_clock_for_test(&fixed_clock);
    }
    ~ClockGuard() { merl_resource_set_clock_for_test(nullptr); }
};

// A manager over a pool file of `text` (none when `text` is null).
struct Pool {
    TempDir dir;
    LogSink log;
    Quillset q;
    std::unique_ptr<MerlResourceManager> mgr;
    attrlist* attrs = nullptr;

    explicit Pool(const char* text, const char* policy = nullptr,
                  std::vector<std::string> frames = {"10.1.1.1"})
        : q(frames) {
        std::string path = dir.path() + "/merlode.res";
        if (text != nullptr) std::ofstream(path) << text;
        attrlist_add(&attrs, "MERL_SNAP_POOL", path.c_str());
        if (policy != nullptr) attrlist_add(&attrs, "MERL_RES_USE_POLICY", policy);
        mgr.reset(new MerlResourceManager(&LogSink::fn, &log));
        SSError* err = mgr->init(attrs, q.q.get());
        EXPECT_EQ(err, nullptr);
        delete err;
    }
    ~Pool() { attrlist_free(attrs); }
    SSError* build() { return mgr->buildResourceList(); }
};

std::string describe(const ResElement* e) {
    std::string out =
        (e->source.isMerlLun ? e->source.merlid + ":" : std::string()) + e->source.dev;
    for (const SnapResource* t : e->targetList) {
        out += " " + t->res.merlid + ":" + t->res.dev;
        if (!t->tag.name.empty())
            out += "[" + t->tag.name + "=" + t->tag.value + "/" + std::to_string(t->tag.gap) + "]";
    }
    return out;
}

TEST(PoolFile, LinesTagsAndTargetsTakeTheirPlaces) {
    const std::string longLine = "QXR9:1 " + std::string(3000, '7') + "\n";
    const std::string text =
        "# pool of the nightly backups\n"
        "\n"
        "   # indented comments count too\n"
        "Day Mon tUe\n"
        "QXR1:0 8 - 10\n"
        "/dev/sdd 9 QXR2:5\n"
        "tIME 08:30 10:00\n"
        "QXR1:1 11 12 13\n"
        "0 8\n"
        "QXR1:abc 8\n"
        ":5 8\n"
        "QXR1:2 :7 x 12\n" +
        longLine + "Day Funday\nTime 7\nQXR1:3 14\n";
    Pool p(text.c_str());
    EXPECT_EQ(p.build(), nullptr);
    std::vector<std::string> got;
    for (const ResElement* e : p.mgr->m_ResourceList) got.push_back(describe(e));
    const std::vector<std::string> want = {
        "QXR1:0 QXR1:8[Day=Mon/0] QXR1:10",          // "-" kept place 2
        "/dev/sdd :9[Day=Mon/0] QXR2:5[Day=tUe/0]",  // a path source lends no identity
        "QXR1:1 QXR1:11[tIME=08:30/122] QXR1:12[tIME=10:00/122] QXR1:13",
        "QXR1:2 QXR1:12",  // the two bad targets dropped
    };
    // The 3000-character line arrives in pieces of 1023: the first stands as
    // a line of its own, the others are refused as sources without identity.
    ASSERT_GE(got.size(), want.size());
    EXPECT_EQ(std::vector<std::string>(got.begin(), got.begin() + 4),
              std::vector<std::string>(want.begin(), want.begin() + 4));
    EXPECT_EQ(got[4].substr(0, 14), "QXR9:1 QXR9:77");
    // "Time 7" replaced the day tag: one value, so a window of no length.
    EXPECT_EQ(got.back(), "QXR1:3 QXR1:14[Time=7/0]");
    EXPECT_EQ(p.log.count("requires format like TRELMID:TRELMDEV", 7), 3);
    EXPECT_EQ(p.log.count("Source token 0 requires format like TRELMID:TRELMDEV", 7), 1);
    EXPECT_GE(p.log.count("Invalid Entry in Snap Pool", 7), 4);
    EXPECT_EQ(p.log.count("Day value [Funday] is not a day name", 7), 1);
}

TEST(PoolFile, TimeGapCountsHoursOnlyAndIsAbsolute) {
    for (const char* line : {"Time 08:30 10:00\n", "Time 10:00 08:30\n"}) {
        Pool p((std::string(line) + "QXR1:0 8\n").c_str());
        EXPECT_EQ(p.build(), nullptr);
        ASSERT_EQ(p.mgr->m_ResourceList.size(), 1u);
        EXPECT_EQ(p.mgr->m_ResourceList[0]->targetList[0]->tag.gap, 122) << line;
    }
    Pool one("Time 09:00\nQXR1:0 8\n");
    EXPECT_EQ(one.build(), nullptr);
    EXPECT_EQ(one.mgr->m_ResourceList[0]->targetList[0]->tag.gap, 0);
    // Hours far past any day (a fuzzer's) make a window that matches nothing,
    // with no arithmetic overflowing on the way.
    Pool huge("Time 9223372036854775807:00 -9223372036854775807:00\nQXR1:0 8\n");
    EXPECT_EQ(huge.build(), nullptr);
    ASSERT_EQ(huge.mgr->m_ResourceList.size(), 1u);
    EXPECT_GT(huge.mgr->m_ResourceList[0]->targetList[0]->tag.gap, 0);
}

TEST(PoolFile, MissingFileIsAnErrorOnlyWhenNamed) {
    Pool named(nullptr);
    SSError* err = named.build();
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_SNAP_POOL);
    EXPECT_NE(std::string(err->getErrMsg()).find("Could not open user specified snap pool file '"),
              std::string::npos);
    delete err;
    EXPECT_EQ(named.log.count("Could not open user specified snap pool file [", 0), 1);

    LogSink log;
    Quillset q;
    MerlResourceManager dflt(&LogSink::fn, &log);
    EXPECT_EQ(dflt.init(nullptr, q.q.get()), nullptr);
    EXPECT_STREQ(dflt.m_snapPool, "/vmr/res/merlode.res");
    EXPECT_STREQ(dflt.m_snapResUsePolicy, "ANY");
    EXPECT_EQ(dflt.m_snapPoolSpecified, 0);
    EXPECT_EQ(dflt.buildResourceList(), nullptr);  // absent on this machine, or readable

    err = dflt.init(nullptr, nullptr);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_PARAMETER);
    delete err;
}

TEST(PoolFile, TagsMatchTheLocalDayAndTimeWindow) {
    ClockGuard clock(local_time(2026, 11, 23, 9, 15));  // a Monday
    Pool p("Day mon Tue\nQXR1:0 8 9 10\nTime 08:30 10:00 7\nQXR1:0 11 12 13 14\n");
    EXPECT_EQ(p.build(), nullptr);
    std::vector<int> matches;
    for (ResElement* e : p.mgr->m_ResourceList)
        for (SnapResource* t : e->targetList) {
            int m = -1;
            EXPECT_EQ(p.mgr->matchTag(t, m), nullptr);
            matches.push_back(m);
        }
    // Mon, Tue, untagged; [08:30, +122 min), [10:00, +122 min), [07:00, +122
    // min) which ends at 09:02, untagged.
    EXPECT_EQ(matches, (std::vector<int>{1, 0, 1, 1, 0, 0, 1}));
}

TEST(PoolFile, DevicesMatchByLunAndIdentityOrByExactPath) {
    Pool p(nullptr);
    snapdevice sd;
    sd.srcName = "/dev/sdd";
    sd.srcDev.merllun = 12;
    sd.srcDev.merlid = "qxr1";
    struct Case {
        int isMerlLun;
        const char* dev;
        const char* merlid;
        int want;
    } cases[] = {{1, "12", "QXR1", 1}, {1, "012", "QXR1", 1},  {1, "12", "", 0},
                 {1, "13", "QXR1", 0}, {0, "/dev/sdd", "", 1}, {0, "/dev/sdd1", "", 0}};
    for (const Case& c : cases) {
        MerlResourceDev d;
        d.isMerlLun = c.isMerlLun;
        d.dev = c.dev;
        d.merlid = c.merlid;
        EXPECT_EQ(p.mgr->matchDevice(&sd, d), c.want) << c.dev << " " << c.merlid;
    }
}

// ------------------------------------------------------------ the choice

struct PoolSim : ::testing::Test {
    std::unique_ptr<Sim> sim;
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(new Sim(
            {"--frames", "1", "--clone-groups", "2", "--clones", "3", "--sync-steps", "2"}));
        ASSERT_TRUE(sim->ok());
    }
    void clone(const std::string& id, const std::string& state, const std::string& cond,
               bool fractured, const std::string& rate = "high") {
        sim->admin({"set", "clone", "CloneGrp_0", id, "state=" + state, "cond=" + cond,
                    std::string("fractured=") + (fractured ? "1" : "0"), "rate=" + rate});
    }
    void fractured(const std::string& id, const std::string& rate = "high") {
        clone(id, "Consistent", "Administratively Fractured", true, rate);
    }
    // The source LUN 0 of frame 0 as the provider hands it over.
    static snapdevice source() {
        snapdevice sd;
        sd.srcName = "/dev/sdd";
        sd.srcDev.merllun = 0;
        sd.srcDev.merlid = kSerial;
        return sd;
    }
};

TEST_F(PoolSim, ChoiceFollowsPoolFileStateAndPolicy) {
    const std::string id1 = "0100000000000000", id2 = "0200000000000000", id3 = "0300000000000000";
    struct Case {
        const char* name;
        const char* pool;  // null: no file
        const char* policy;
        std::function<void(PoolSim&)> states;
        int lun;  // -1: none
        int syncReq;
    };
    const std::vector<Case> cases = {
        {"all synchronised, ANY", nullptr, nullptr, [](PoolSim&) {}, 8, 0},
        {"all synchronised, FREE", nullptr, "FREE", [](PoolSim&) {}, -1, 0},
        {"order decides under ANY", nullptr, "ANY", [&](PoolSim& s) { s.fractured(id2); }, 8, 0},
        {"fractured first wins and must sync", nullptr, nullptr,
         [&](PoolSim& s) { s.fractured(id1); }, 8, 1},
        {"reserved fractured clone skipped", nullptr, "FREE",
         [&](PoolSim& s) {
             s.fractured(id1, "3981");
             s.fractured(id2);
         },
         9, 1},
        {"reserved synchronised clone still usable", nullptr, nullptr,
         [&](PoolSim& s) { s.clone(id1, "Synchronized", "Normal", false, "3981"); }, 8, 0},
        {"EXISTING passes over fractured", nullptr, "EXISTING",
         [&](PoolSim& s) { s.fractured(id1); }, 9, 0},
        {"unusable states skipped", nullptr, nullptr,
         [&](PoolSim& s) {
             s.clone(id1, "Out-of-sync", "Normal", false);
             s.clone(id2, "Consistent", "Administratively Fractured", false);
         },
         10, 0},
        {"pool names the third clone", "QXR20200001000:0 10\n", nullptr, [](PoolSim&) {}, 10, 0},
        {"pool by device path", "/dev/sdd 9\n", nullptr, [](PoolSim&) {}, 9, 0},
        {"pool entry without a usable clone does not fall back", "QXR20200001000:0 9\n", "FREE",
         [](PoolSim&) {}, -1, 0},
        {"pool for another source falls back to the group", "QXR20200001000:1 11\n", nullptr,
         [](PoolSim&) {}, 8, 0},
        {"unknown policy acts as ANY", nullptr, "SOMETIMES", [&](PoolSim& s) { s.fractured(id3); },
         8, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const std::string& id : {id1, id2, id3}) clone(id, "Synchronized", "Normal", false);
        c.states(*this);
        Pool p(c.pool, c.policy, {SimArray::addr(0)});
        if (c.pool == nullptr) {
            free(p.mgr->m_snapPool);
            p.mgr->m_snapPool = strdup((p.dir.path() + "/none").c_str());
            p.mgr->m_snapPoolSpecified = 0;
        }
        snapdevice sd = source();
        SSError* err = p.mgr->allocateResource(&sd, "192.0.2.50");
        EXPECT_EQ(sd.cloneDev.merllun, c.lun);
        if (c.lun < 0) {
            ASSERT_NE(err, nullptr);
            EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_CONFIGURATION);
            EXPECT_STREQ(err->getErrMsg(), "No Matching Device Found");
        } else {
            EXPECT_EQ(err, nullptr) << (err ? err->getErrMsg() : "");
            EXPECT_EQ(sd.cloneDev.syncReq, c.syncReq);
            EXPECT_EQ(sd.cloneDev.merlgrp, kG0);
            EXPECT_EQ(sd.frameIp, SimArray::addr(0));
        }
        delete err;
    }
}

TEST_F(PoolSim, WaitsMinuteByMinuteWhileTheOnlyCandidateSynchronises) {
    for (const char* id : {"0200000000000000", "0300000000000000"})
        clone(id, "Out-of-sync", "Normal", false);
    // The first clone is re-synchronising; each listing moves it a step.
    clone("0100000000000000", "Consistent", "Administratively Fractured", true);
    Quillset q({SimArray::addr(0)});
    SSError* e = q->syncClone(kG0, "0100000000000000");
    ASSERT_EQ(e, nullptr);
    sgsim::SleepRecorder sleeps;
    Pool p(nullptr, nullptr, {SimArray::addr(0)});
    p.mgr->m_snapPoolSpecified = 0;
    snapdevice sd = source();
    SSError* err = p.mgr->allocateResource(&sd, "192.0.2.50");
    EXPECT_EQ(err, nullptr);
    EXPECT_EQ(sd.cloneDev.merllun, 8);
    ASSERT_FALSE(sgsim::SleepRecorder::slept().empty());
    for (uint32_t ms : sgsim::SleepRecorder::slept()) EXPECT_EQ(ms, 60000u);
    EXPECT_GE(p.log.count("Will sleep for 1 minute then recheck.", 0), 1);
}

TEST_F(PoolSim, TwoThreadsChooseForTwoSourcesAtOnce) {
    std::vector<int> chosen(2, -2);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; i++)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 3; round++) {
                Pool p(nullptr, nullptr, {SimArray::addr(0)});
                p.mgr->m_snapPoolSpecified = 0;
                snapdevice sd = source();
                sd.srcDev.merllun = i;
                SSError* err = p.mgr->allocateResource(&sd, "192.0.2.50");
                delete err;
                chosen[i] = sd.cloneDev.merllun;
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(chosen, (std::vector<int>{8, 11}));
}

TEST(CloneToFrac, AKeyKeepsItsFirstCommandsAndThreadsDoNotTrip) {
    EXPECT_TRUE(cloneToFrac.insert("pool-test-key", {"first"}));
    EXPECT_FALSE(cloneToFrac.insert("pool-test-key", {"second"}));
    std::vector<std::string> got;
    EXPECT_TRUE(cloneToFrac.find("pool-test-key", got));
    EXPECT_EQ(got, std::vector<std::string>{"first"});
    cloneToFrac.erase("pool-test-key");
    EXPECT_FALSE(cloneToFrac.find("pool-test-key", got));

    const size_t before = cloneToFrac.size();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 500; i++) {
                std::string key = "k" + std::to_string(t) + "-" + std::to_string(i);
                cloneToFrac.insert(key, {key});
                std::vector<std::string> cmds;
                if (cloneToFrac.find(key, cmds) && cmds == std::vector<std::string>{key})
                    cloneToFrac.erase(key);
            }
        });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(cloneToFrac.size(), before);
}

}  // namespace
