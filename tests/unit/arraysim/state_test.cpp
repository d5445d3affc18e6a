// The state file (round trip, version, bad lines) and the program as the
// module meets it: real children, concurrent, under the folder lock, with the
// command log and the fault rules.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/temp_dir.h"
#include "tools/arraysim/sim.h"

using namespace arraysim;

namespace {

TEST(StateFile, RoundTripKeepsEveryRecord) {
    InitOptions o;
    o.frames = 2;
    o.multipath = true;
    o.host = "h one";  // a blank inside a value survives escaping
    State st = make_state(o);
    st.sessions.push_back(Session{"s=1,%x", 0, 1, 42, true, 2});
    st.kvtsnaps.push_back(KvtSnap{1, "k", "CG1_0", {5, 6}, 7, "sdq", 1});
    st.faults.push_back(Fault{"gelmot", "activate -s", "refuse", "no way", 3});
    std::string text = format_state(st);
    State back;
    std::string err;
    ASSERT_TRUE(parse_state(text.data(), text.size(), back, err)) << err;
    EXPECT_EQ(text, format_state(back));
    EXPECT_EQ("h one", back.hosts[0].name);
    EXPECT_EQ("s=1,%x", back.sessions[0].name);
    EXPECT_EQ((std::vector<int>{5, 6}), back.kvtsnaps[0].sources);
    EXPECT_EQ(2u, back.luns[0].devs[0].paths.size());
}

TEST(StateFile, RefusesOtherVersionsAndBadLinesWithAReason) {
    State st;
    std::string err;
    const char* old = "arraysim-state 0\n";
    EXPECT_FALSE(parse_state(old, strlen(old), st, err));
    EXPECT_NE(std::string::npos, err.find("version 0 is not supported"));
    const char* none = "frame name=x\n";
    EXPECT_FALSE(parse_state(none, strlen(none), st, err));
    for (const char* bad :
         {"arraysim-state 1\nlun frame=0 num=x\n", "arraysim-state 1\nlun frame=0 bogus=1\n",
          "arraysim-state 1\nclone id=1\n", "arraysim-state 1\nwhat is this\n",
          "arraysim-state 1\ngroup pairs=1-2\n", "arraysim-state 1\nframe down=2\n"}) {
        EXPECT_FALSE(parse_state(bad, strlen(bad), st, err)) << bad;
        EXPECT_NE(std::string::npos, err.find("line 2")) << err;
    }
    const char* ok = "arraysim-state 1\n# comment\n\nframe name=A addrs=1.2.3.4\r\n";
    ASSERT_TRUE(parse_state(ok, strlen(ok), st, err)) << err;
    EXPECT_EQ("1.2.3.4", st.frames[0].addrs[0]);
}

TEST(StateFile, ScenarioIsCompletedIntoAConsistentArray) {
    const char* sc =
        "arraysim-state 1\n"
        "frame addrs=10.0.0.1,10.0.0.2\n"
        "host name=me addr=10.9.9.9\n"
        "hba uid=20:00 dev=fc0\n"
        "group frame=0 name=SG_me host=0 pairs=0:7\n"
        "lun frame=0 num=7 snapname=S7 smp=99\n"
        "clonegroup frame=0 src=7\n"
        "clone lun=8\n";
    State st;
    std::string err;
    ASSERT_TRUE(parse_state(sc, strlen(sc), st, err)) << err;
    complete_state(st);
    EXPECT_TRUE(st.hosts[0].local);
    EXPECT_EQ(47u, st.luns[0].wwn.size());
    EXPECT_FALSE(st.luns[0].snapdev.empty());
    EXPECT_FALSE(st.luns[0].smpdev.empty());
    ASSERT_EQ(1u, st.luns[0].devs.size());
    EXPECT_EQ("0100000000000000", st.clonegroups[0].clones[0].id);
    EXPECT_EQ(47u, st.clonegroups[0].uid.size());
}

// ------------------------------------------------------------ the program

class Program : public ::testing::Test {
protected:
    void SetUp() override {
        bin_ = zovtest::sim_bin_dir();
        if (access((bin_ + "/arraysim").c_str(), X_OK) != 0) {
            GTEST_SKIP() << "arraysim not built at " << bin_;
        }
        ASSERT_TRUE(tmp_.ok());
        dir_ = tmp_.path();
        setenv("ARRAYSIM_STATE", dir_.c_str(), 1);
        ASSERT_EQ(0, run({"arraysim", "init", "--luns", "6", "--host", "prodhost", "--host-addr",
                          "10.1.1.5"}));
        addr_ = "198.18.0.1";
    }
    // Runs the program under argv[0]'s name; returns its exit status.
    int run(const std::vector<std::string>& argv, std::string* out = nullptr) {
        zovtest::ChildOptions o;
        o.path = bin_ + "/" + argv[0];
        zovtest::ChildResult r = zovtest::run_child(argv, o);
        if (out) *out = r.out;
        return r.status;
    }
    std::string state_text() {
        std::string s;
        read_file(dir_ + "/state", s);
        return s;
    }

    zovtest::TempDir tmp_{"arraysim-test-"};
    std::string bin_, dir_, addr_;
};

TEST_F(Program, ConcurrentChildrenLoseNoUpdate) {
    std::vector<int> rcs(12, -1);
    std::vector<std::thread> children;
    for (int i = 0; i < 12; ++i)
        children.emplace_back([this, i, &rcs] {
            rcs[i] =
                run({"tilloseccli", "-h", addr_, "quillset", "-startsession",
                     "sess" + std::to_string(i), "-lun", std::to_string(i % 6), "-persistence"});
        });
    for (std::thread& t : children) t.join();
    for (int rc : rcs) EXPECT_EQ(0, rc);
    State st;
    std::string err;
    ASSERT_TRUE(load_state(dir_, st, err)) << err;
    EXPECT_EQ(12u, st.sessions.size());
    std::string log;
    read_file(dir_ + "/commands.log", log);
    EXPECT_NE(
        std::string::npos,
        log.find("tilloseccli -h 198.18.0.1 quillset -startsession sess7 -lun 1 -persistence\n"));
}

TEST_F(Program, BadInvocationsAnswerInWordsAndLeaveTheStateAlone) {
    std::string before = state_text(), out;
    const std::vector<std::vector<std::string>> bad = {
        {"tilloseccli"},
        {"tilloseccli", "-h"},
        {"tilloseccli", "-h", addr_, "quillset", "-startsession"},
        {"tilloseccli", "-h", addr_, "storagegroup", "-addhlu", "-gname", "SG_prodhost", "-hlu"},
        {"tilloseccli", "-h", addr_, "storagegroup", "-addhlu", "-gname", "SG_prodhost", "-hlu",
         "x", "-alu", "1"},
        {"tilloseccli", "-h", addr_, "quillset", "-changeclone", "-CloneGroupUid", "nope",
         "-CloneId", "1", "-SyncRate", "1"},
        {"tilloseccli", "-h", addr_, "getlun", "-frobnicate"},
        {"gelmot", "activate"},
        {"fenlok", "attach", "-s"},
        {"arraysim", "set", "lun", "0", "0", "trespassed=maybe"},
        {"arraysim", "fault", "add", "gelmot", "explode"},
        {"arraysim", "init", "--frames", "0"},
    };
    for (const auto& b : bad) {
        EXPECT_NE(0, run(b, &out)) << b[0] << " " << (b.size() > 1 ? b[1] : "");
        EXPECT_FALSE(out.empty());
    }
    EXPECT_EQ(before, state_text());
}

// The folder named on the command line wins over the environment, for the
// administration commands and for a tool run through the program alike.
TEST_F(Program, StateFolderOnTheCommandLineServesToolsToo) {
    zovtest::TempDir other{"arraysim-other-"};
    ASSERT_TRUE(other.ok());
    ASSERT_EQ(0, run({"arraysim", "--state", other.path(), "init", "--frames", "2", "--luns", "1",
                      "--host", "otherhost", "--host-addr", "10.1.1.6"}));
    std::string out;
    ASSERT_EQ(0, run({"arraysim", "--state", other.path(), "tilloseccli", "-h", "198.18.1.1",
                      "arrayname"},
                     &out))
        << out;
    EXPECT_NE(out.find("SIMARRAY01"), std::string::npos) << out;
    // The environment's array has one frame: the second frame's address is
    // not one of its own.
    EXPECT_NE(0, run({"arraysim", "tilloseccli", "-h", "198.18.1.1", "arrayname"}, &out));
    std::string log;
    ASSERT_TRUE(read_file(other.path() + "/commands.log", log));
    EXPECT_NE(log.find("tilloseccli -h 198.18.1.1 arrayname"), std::string::npos) << log;
}

TEST_F(Program, StateOfAnotherVersionIsRefusedAndKept) {
    std::string old = "arraysim-state 0\nframe name=x\n";
    ASSERT_TRUE(write_file_atomic(dir_ + "/state", old));
    std::string out;
    EXPECT_EQ(2, run({"tilloseccli", "-h", addr_, "arrayname"}, &out));
    EXPECT_NE(std::string::npos, out.find("version 0 is not supported"));
    EXPECT_EQ(old, state_text());
}

// A command reads only the LUN records it uses: one that uses a malformed
// record stops with the line before it prints or writes anything; one that
// does not use it works.
TEST_F(Program, MalformedLunRecordStopsOnlyTheCommandsThatUseIt) {
    std::string text = state_text();
    size_t at = text.find("lun frame=0 num=3 ");
    ASSERT_NE(std::string::npos, at);
    text.insert(text.find('\n', at), " bogus=1");
    ASSERT_TRUE(write_file_atomic(dir_ + "/state", text));
    std::string out;
    EXPECT_EQ(2, run({"tilloseccli", "-h", addr_, "lun", "-list", "-l", "3"}, &out));
    EXPECT_EQ(0u, out.find("tilloseccli: malformed state line ")) << out;
    EXPECT_NE(std::string::npos, out.find("bogus=1"));
    EXPECT_EQ(2, run({"tilloseccli", "-h", addr_, "quillset", "-startsession", "s3", "-lun", "3",
                      "-persistence"},
                     &out));
    EXPECT_EQ(text, state_text());
    EXPECT_EQ(0, run({"tilloseccli", "-h", addr_, "quillset", "-startsession", "s1", "-lun", "1",
                      "-persistence"},
                     &out));
    EXPECT_NE(std::string::npos, state_text().find(" bogus=1"));
    EXPECT_EQ(0, run({"tilloseccli", "-h", addr_, "arrayname"}, &out));
    EXPECT_EQ(1, run({"arraysim", "show"}, &out));  // administration reads everything
    EXPECT_NE(std::string::npos, out.find("malformed state line"));
}

TEST_F(Program, FaultRules_RefuseGarbageLongLineMissingExecFailDown) {
    std::string out;
    ASSERT_EQ(0, run({"arraysim", "fault", "add", "tilloseccli", "refuse", "--match", "arrayname",
                      "--count", "1"}));
    EXPECT_EQ(1, run({"tilloseccli", "-h", addr_, "arrayname"}, &out));
    EXPECT_NE(std::string::npos, out.find("failed"));
    EXPECT_EQ(0, run({"tilloseccli", "-h", addr_, "arrayname"}, &out));  // used up
    EXPECT_EQ(0u, out.find("Array Name:"));

    ASSERT_EQ(0, run({"arraysim", "fault", "add", "tilloseccli", "longline", "--match", "getlun"}));
    run({"tilloseccli", "-h", addr_, "getlun", "-uid"}, &out);
    EXPECT_EQ(3000u, out.find('\n'));
    EXPECT_NE(std::string::npos, out.find("LOGICAL UNIT NUMBER 0"));

    ASSERT_EQ(0, run({"arraysim", "fault", "add", "gelmot", "garbage"}));
    run({"gelmot", "help"}, &out);
    EXPECT_EQ(std::string::npos, out.find("Revision number:"));

    ASSERT_EQ(0, run({"arraysim", "fault", "add", "fenlok", "missing"}));
    EXPECT_NE(0, access((dir_ + "/bin/fenlok").c_str(), F_OK));
    ASSERT_EQ(0, run({"arraysim", "fault", "add", "pirnet", "execfail"}));
    struct stat sb;
    ASSERT_EQ(0, stat((dir_ + "/bin/pirnet").c_str(), &sb));
    EXPECT_TRUE(S_ISDIR(sb.st_mode));  // found on PATH, refused by exec
    EXPECT_EQ(76, run({"pirnet", "version"}, &out));

    ASSERT_EQ(0, run({"arraysim", "fault", "add", "*", "down", "--arg", "198.18.0.2"}));
    EXPECT_EQ(3, run({"tilloseccli", "-h", "198.18.0.2", "arrayname"}, &out));
    EXPECT_EQ(0, run({"tilloseccli", "-h", addr_, "arrayname"}, &out));

    ASSERT_EQ(0, run({"arraysim", "fault", "clear"}));
    EXPECT_EQ(0, access((dir_ + "/bin/fenlok").c_str(), X_OK));
    EXPECT_EQ(0, run({"pirnet", "version"}));
}

TEST_F(Program, TickAdvancesSynchronisationWithoutListings) {
    ASSERT_EQ(0, run({"arraysim", "set", "option", "sync_steps=3"}));
    State st;
    std::string err, out;
    ASSERT_TRUE(load_state(dir_, st, err));
    std::string sel_g = st.clonegroups[0].uid, id = st.clonegroups[0].clones[0].id;
    ASSERT_EQ(0, run({"tilloseccli", "-h", addr_, "quillset", "-fractureclone", "-CloneGroupUid",
                      sel_g, "-CloneId", id, "-o"}));
    ASSERT_EQ(0, run({"tilloseccli", "-h", addr_, "quillset", "-syncclone", "-CloneGroupuid", sel_g,
                      "-CloneId", id, "-o"}));
    ASSERT_EQ(0, run({"arraysim", "tick", "2"}));
    ASSERT_TRUE(load_state(dir_, st, err));
    EXPECT_EQ(68, st.clonegroups[0].clones[0].pct);
    ASSERT_EQ(0, run({"arraysim", "tick"}));
    ASSERT_TRUE(load_state(dir_, st, err));
    EXPECT_EQ("Synchronized", st.clonegroups[0].clones[0].state);
    ASSERT_EQ(0, run({"arraysim", "show"}, &out));
    EXPECT_NE(std::string::npos, out.find("clone " + id));
}

}  // namespace
