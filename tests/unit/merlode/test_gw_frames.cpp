// The frame walk of the gateway against the array simulator: which command
// lines ran, in which order, when the walk stops, and the purge.
#include <algorithm>
#include <functional>

#include <gtest/gtest.h>

#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "tests/unit/merlode/gw_test_util.h"
#include "tests/unit/merlode/sim_fixture.h"

namespace {

// A quillset with a probe parser: it records each address, fails on the
// simulator's connection error, and can purge an address while it runs.
class ProbeQuillset : public zov_quillset {
public:
    ProbeQuillset(LogCapture* log) : zov_quillset(&LogCapture::fn, log) {}
    SSError* probe(FILE* stream, const std::string& ipaddr) {
        seen.push_back(ipaddr);
        std::string all, line;
        while (lfgets(line, stream)) all += line;
        if (ipaddr == purge) {
            auto it = std::find(m_ipaddrlist.begin(), m_ipaddrlist.end(), ipaddr);
            if (it != m_ipaddrlist.end()) m_ipaddrlist.erase(it);
        }
        if (all.empty() || all.find("Error:") != std::string::npos)
            return m_e.generr("test", __LINE__, nullptr, SS_EC_CMD_EXEC_FAILED, "failed on %s",
                              ipaddr.c_str());
        return nullptr;
    }
    POUTPUT_FUNC_POINTER parser() {
        return static_cast<POUTPUT_FUNC_POINTER>(&ProbeQuillset::probe);
    }
    std::vector<std::string> seen;
    std::string purge;
};

class GwFrames : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(new SimArray({"--frames", "11"}));
        ASSERT_TRUE(sim->ok());
        q.reset(new ProbeQuillset(&log));
    }
    void init(std::vector<std::string> frames) {
        SSError* err = q->init(frames, nullptr);
        ASSERT_EQ(err, nullptr) << err->getErrMsg();
        tool = q->GetTilloCliExe();
        sim->clear_commands();
    }
    // The -h address of each logged command line.
    std::vector<std::string> logged_addrs() {
        std::vector<std::string> out;
        for (const std::string& c : sim->commands()) {
            size_t h = c.find("-h ");
            if (h == std::string::npos) continue;
            out.push_back(c.substr(h + 3, c.find(' ', h + 3) - h - 3));
        }
        return out;
    }
    LogCapture log;
    std::unique_ptr<SimArray> sim;
    std::unique_ptr<ProbeQuillset> q;
    std::string tool;
};

TEST_F(GwFrames, FramesRunInByteOrderOnceEach) {
    init({SimArray::addr(2), SimArray::addr(10), SimArray::addr(1), SimArray::addr(2)});
    SSError* err = q->perIpAddr(false, q->parser(), tool, " arrayname", {});
    EXPECT_EQ(err, nullptr);
    delete err;
    std::vector<std::string> want{"198.18.1.1", "198.18.10.1", "198.18.2.1"};
    EXPECT_EQ(q->seen, want);
    EXPECT_EQ(logged_addrs(), want);
    ASSERT_FALSE(sim->commands().empty());
    EXPECT_NE(sim->commands()[0].find("-h 198.18.1.1 arrayname"), std::string::npos);
}

TEST_F(GwFrames, TilSuccessStopsAtFirstFrameThatServes) {
    init({"198.18.0.9", SimArray::addr(1), SimArray::addr(2)});  // .0.9 belongs to no frame
    SSError* err = q->perIpAddr(true, q->parser(), tool, " arrayname", {});
    EXPECT_EQ(err, nullptr);
    delete err;
    std::vector<std::string> want{"198.18.0.9", "198.18.1.1"};
    EXPECT_EQ(q->seen, want);
}

TEST_F(GwFrames, TilSuccessAllFailingReturnsLastError) {
    init({"198.18.0.8", "198.18.0.9"});
    SSError* err = q->perIpAddr(true, q->parser(), tool, " arrayname", {});
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->getErrMsg(), "failed on 198.18.0.9");
    delete err;
    EXPECT_EQ(q->seen.size(), 2u);
}

TEST_F(GwFrames, GatheringStopsAtFirstFailure) {
    init({SimArray::addr(1), "198.18.1.9", SimArray::addr(2)});
    SSError* err = q->perIpAddr(false, q->parser(), tool, " arrayname", {});
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->getErrMsg(), "failed on 198.18.1.9");
    delete err;
    std::vector<std::string> want{"198.18.1.1", "198.18.1.9"};
    EXPECT_EQ(q->seen, want);
}

TEST_F(GwFrames, PurgeChangesOnlyTheNextQuery) {
    init({SimArray::addr(1), SimArray::addr(2), SimArray::addr(3)});
    q->purge = SimArray::addr(2);
    delete q->perIpAddr(false, q->parser(), tool, " arrayname", {});
    EXPECT_EQ(q->seen.size(), 3u);  // the walk itself is undisturbed
    q->seen.clear();
    delete q->perIpAddr(false, q->parser(), tool, " arrayname", {});
    std::vector<std::string> want{"198.18.1.1", "198.18.3.1"};
    EXPECT_EQ(q->seen, want);
    // A list given for one call overrides the object's list.
    q->seen.clear();
    delete q->perIpAddr(false, q->parser(), tool, " arrayname", {SimArray::addr(2)});
    EXPECT_EQ(q->seen, std::vector<std::string>{"198.18.2.1"});
}

TEST_F(GwFrames, EmptyListRunsNothing) {
    init({});
    EXPECT_EQ(q->perIpAddr(true, q->parser(), tool, " arrayname", {}), nullptr);
    Pipe p(&LogCapture::fn, &log);
    ASSERT_EQ(p.init(), nullptr);
    EXPECT_EQ(q->perIpAddr(p, "x -h %s arrayname", {}), nullptr);
    EXPECT_TRUE(sim->commands().empty());
}

TEST_F(GwFrames, PipeFormSpawnsOnePerFrameIntoOnePipe) {
    init({SimArray::addr(1), SimArray::addr(2)});
    int fds = open_fd_count();
    {
        Pipe p(&LogCapture::fn, &log);
        ASSERT_EQ(p.init(), nullptr);
        std::string cmd = tool + " -h %s arrayname";
        ASSERT_EQ(q->perIpAddr(p, cmd.c_str(), {}), nullptr);
        p.pclose(p.getwrite_fd());
        std::string all, line;
        while (q->lfgets(line, p.getread_strm())) all += line;
        EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 2) << all;
    }
    EXPECT_EQ(logged_addrs().size(), 2u);
    q->reapPipeChildren();
    EXPECT_TRUE(q->m_pipeChildren.empty());
    EXPECT_EQ(open_fd_count(), fds);
}

TEST_F(GwFrames, FrameSerialIsTheLastFrameThatAnswered) {
    init({SimArray::addr(1), SimArray::addr(2), "198.18.2.9"});
    std::string name;
    SSError* err = q->getFrameSN(name);
    // The unknown last address prints an error line, which no name matches.
    EXPECT_EQ(err, nullptr);
    delete err;
    EXPECT_FALSE(name.empty());
    std::string shown;
    sim->admin({"show"}, &shown);
    EXPECT_NE(shown.find(name), std::string::npos) << name;
    for (const std::string& c : sim->commands()) EXPECT_NE(c.find(" arrayname"), std::string::npos);
}

TEST_F(GwFrames, WwnTableFromEveryFrame) {
    init({SimArray::addr(1), SimArray::addr(2)});
    ASSERT_EQ(q->ncli_initArrayLunUID(), nullptr);
    ASSERT_FALSE(q->m_arrayLunUID.empty());
    const ArrayLunUID first = q->m_arrayLunUID.front();
    EXPECT_EQ(first.lunUID.size(), 32u);
    EXPECT_EQ(q->convertWWNToLun(first.lunUID), std::to_string(first.lunID));
    EXPECT_EQ(q->convertWWNToLun("not-a-wwn"), "");
    std::string dev;
    SSError* err = q->convertWWNtoLunID("not-a-wwn", dev);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_CONFIGURATION);
    delete err;
}

TEST_F(GwFrames, InitRefusesWithoutTheTool) {
    ScopedEnv path("PATH", "/nonexistent");
    ProbeQuillset bare(&log);
    std::vector<std::string> frames{SimArray::addr(1)};
    SSError* err = bare.init(frames, nullptr);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_CONFIGURATION);
    EXPECT_STREQ(err->getErrMsg(),
                 "zov_quillset::constructor: Unable to locate tillocli in standard locations.");
    delete err;
    // The table is compiled all the same.
    EXPECT_EQ(bare.m_cpCompiled, ZOV_QUILLSET_NUM_REGEX);
}

// Every operation that runs a tool opens the same way when the tool is
// missing; what differs is the word its message shows and how it is logged.
TEST_F(GwFrames, MissingToolIsReportedAsEachOperationSays) {
    ScopedEnv path("PATH", "/nonexistent");
    struct Case {
        const char* op;
        std::function<SSError*(zov_quillset&)> run;
        const char* word;
        std::vector<int> levels;  // of the lines that carry the message
        bool error;
    };
    sim->clear_commands();
    snapdevice sd;
    sd.sessionId = "S1";
    const std::vector<Case> cases = {
        {"startsession",
         [&](zov_quillset& z) { return z.startsession(sd); },
         "tillocli",
         {3},
         true},
        // The secure tool is the one missing; the message names the host tool.
        {"stopsession", [&](zov_quillset& z) { return z.stopsession(sd); }, "gelmot", {3}, true},
        {"deactivatesession",
         [&](zov_quillset& z) { return z.deactivatesession(sd); },
         "gelmot",
         {3},
         true},
        {"rollbacksession",
         [&](zov_quillset& z) { return z.rollbacksession(sd); },
         "tillocli",
         {0, 3},
         true},
        {"getStorageGroupUID",
         [&](zov_quillset& z) {
             std::string uid;
             return z.getStorageGroupUID("h", uid);
         },
         "tillocli",
         {0, 3},
         true},
        {"isSnappable",
         [&](zov_quillset& z) {
             EXPECT_EQ(z.isSnappable("17"), -1);
             return static_cast<SSError*>(nullptr);
         },
         "tillocli",
         {3},
         false},
        {"convertWWNToLun",
         [&](zov_quillset& z) {
             ArrayLunUID known;
             known.lunUID = "60060160A0B01100A1B2C3D4E5F60718";
             z.m_arrayLunUID.push_back(known);
             EXPECT_EQ(z.convertWWNToLun(known.lunUID), "");
             return static_cast<SSError*>(nullptr);
         },
         "tillocli",
         {0},
         false},
    };
    for (const Case& c : cases) {
        LogCapture caught;
        zov_quillset z(&LogCapture::fn, &caught);
        std::vector<std::string> frames{SimArray::addr(1)};
        delete z.init(frames, nullptr);
        caught.lines.clear();
        SSError* err = c.run(z);
        const std::string fname = std::string("zov_quillset::") + c.op;
        const std::string text = fname + ": Unable to locate " + c.word + " in standard locations.";
        std::vector<int> levels;
        for (const LoggedLine& l : caught.lines)
            if (l.text == text) levels.push_back(l.level);
        EXPECT_EQ(levels, c.levels) << c.op;
        if (c.error) {
            ASSERT_NE(err, nullptr) << c.op;
            EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_CONFIGURATION) << c.op;
            EXPECT_EQ(std::string(err->getErrMsg()), text) << c.op;
        } else {
            EXPECT_EQ(err, nullptr) << c.op;
        }
        delete err;
        EXPECT_TRUE(sim->commands().empty()) << c.op << " ran a command";
    }
}

// A frame address can be empty ("FRAME_IP" of "10.0.0.1::"); every command
// line built with it must still be whole.
TEST_F(GwFrames, EmptyFrameAddressStillGivesWholeCommandLines) {
    init({"", SimArray::addr(1)});
    pkgRevision pkgs[3];
    for (int i = 0; i < 3; i++) pkgs[i].pkgid = (MerlPkgs)i;
    delete q->getVersions(pkgs, 3);
    std::vector<std::string> ndu;
    for (const std::string& c : sim->commands())
        if (c.find("ndu -list") != std::string::npos) ndu.push_back(c);
    EXPECT_EQ(ndu,
              (std::vector<std::string>{"tilloseccli -h ndu -list",
                                        "tilloseccli -h " + SimArray::addr(1) + " ndu -list"}));
}

}  // namespace
