// cditool end to end: the program runs as a child on the simulator's tape
// drive and changer (through the preload layer) and prints what a person
// needs to see; its arguments are checked without a device.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>

#include "tools/cditool/cditool.h"

namespace {

class CditoolRun : public ::testing::Test {
protected:
    std::string dir, bin, sim;
    void SetUp() override {
        const char* b = getenv("ZOV_BUILD_DIR");
        if (!b) GTEST_SKIP() << "run through ctest";
        bin = std::string(b) + "/tools/cditool/cditool";
        sim = std::string(b) + "/arraysim-bin";
        char tmpl[] = "/tmp/cditoolXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        ASSERT_EQ(sh(sim + "/arraysim tape --state " + dir + " init --drives 2 --slots 2"), "");
        ASSERT_EQ(
            sh(sim + "/arraysim tape --state " + dir + " set medium TAPE000 items=R512*2,F,R100,F"),
            "");
    }
    void TearDown() override {
        if (!dir.empty()) {
            ASSERT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0);
        }
    }
    std::string sh(const std::string& cmd, int* rc = nullptr) {
        std::string full = "ARRAYSIM_STATE=" + dir + " SYSFS_PATH=" + dir +
                           "/nosys ASAN_OPTIONS=verify_asan_link_order=0 LD_PRELOAD=" + sim +
                           "/libarraysim_scsi.so " + cmd + " 2>&1";
        FILE* p = popen(full.c_str(), "r");
        std::string out;
        char buf[512];
        while (p && fgets(buf, sizeof buf, p)) out += buf;
        int st = p ? pclose(p) : -1;
        if (rc) *rc = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        return out;
    }
    std::string tool(const std::string& args, int* rc = nullptr) {
        return sh(bin + " " + args, rc);
    }
};

TEST_F(CditoolRun, PrintsTheAnswerDriveStatusAndSense) {
    int rc = -1;
    std::string out = tool(dir + "/dev/nst0 fsf 1", &rc);
    EXPECT_EQ(rc, 0) << out;
    out = tool(dir + "/dev/nst0 position", &rc);
    EXPECT_NE(out.find("block position:          3"), std::string::npos) << out;
    EXPECT_NE(out.find("drive status:            0 (The tape drive is ready for use)"),
              std::string::npos)
        << out;
    out = tool(dir + "/dev/nst1 tur", &rc);
    EXPECT_EQ(rc, 1);
    EXPECT_NE(out.find("There is not a tape in the drive"), std::string::npos) << out;
    EXPECT_NE(out.find("key 0x2, ASC 0x3a, ASCQ 0x00: Not Ready, Medium Not Present"),
              std::string::npos)
        << out;
    out = tool("--json " + dir + "/dev/nst1 tur", &rc);
    EXPECT_NE(out.find("\"drive_status\": 10"), std::string::npos) << out;
    EXPECT_NE(out.find("\"sense\": {\"key\": 2, \"asc\": 58"), std::string::npos) << out;
}

TEST_F(CditoolRun, ChangerElementsAndMoves) {
    int rc = -1;
    std::string out = tool(dir + "/dev/sch0 move 0x1000 0x0101", &rc);
    EXPECT_EQ(rc, 0) << out;
    out = tool(dir + "/dev/sch0 elements", &rc);
    EXPECT_NE(out.find("slot 0x1000:             empty"), std::string::npos) << out;
    EXPECT_NE(out.find("drive 0x0101:            full TAPE002"), std::string::npos) << out;
    out = tool(dir + "/dev/sch0 move 0x1000 0x0010", &rc);
    EXPECT_EQ(rc, 1);
    EXPECT_NE(out.find("Medium Source Element Empty"), std::string::npos) << out;
    // The tape driver path does the positioning of the drive the changer loaded.
    out = tool("--tape " + dir + "/dev/nst1 eod", &rc);
    EXPECT_EQ(rc, 0) << out;
}

TEST(CditoolArgs, OptionsDeviceCommandAndMistakes) {
    cditool::Options o;
    std::string err;
    ASSERT_TRUE(cditool::parse_args({"--json", "--tape", "/dev/nst0", "fsf", "2"}, o, err));
    EXPECT_TRUE(o.json);
    EXPECT_EQ(o.transport.path_type, 2);
    EXPECT_EQ(o.device, "/dev/nst0");
    EXPECT_EQ(o.command, "fsf");
    ASSERT_EQ(o.args.size(), 1u);
    const struct {
        std::vector<std::string> argv;
        const char* err;
    } bad[] = {{{}, "no device given"},
               {{"/dev/x"}, "no command given"},
               {{"--bogus", "/dev/x", "tur"}, "unknown option --bogus"},
               {{"--ndmp"}, "--ndmp needs a server"}};
    for (const auto& b : bad) {
        cditool::Options x;
        err.clear();
        EXPECT_FALSE(cditool::parse_args(b.argv, x, err));
        EXPECT_EQ(err, b.err);
    }
    cditool::Options h;
    err.clear();
    EXPECT_FALSE(cditool::parse_args({"--help"}, h, err));
    EXPECT_EQ(err, "");  // help is not an error
}

}  // namespace
