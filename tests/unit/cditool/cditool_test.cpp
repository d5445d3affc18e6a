// cditool end to end: the program runs as a child on the simulator's tape
// drive and changer (through the preload layer) and prints what a person
// needs to see; its arguments are checked without a device.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tests/support/temp_dir.h"
#include "tools/cditool/cditool.h"

namespace {

class CditoolRun : public ::testing::Test {
protected:
    std::string dir, bin, sim;
    void SetUp() override {
        if (!getenv("ZOV_BUILD_DIR")) GTEST_SKIP() << "run through ctest";
        bin = zovtest::build_dir() + "/tools/cditool/cditool";
        sim = zovtest::sim_bin_dir() + "/arraysim";
        ASSERT_TRUE(tmp.ok());
        dir = tmp.path();
        ASSERT_EQ(run({sim, "tape", "--state", dir, "init", "--drives", "2", "--slots", "2"}), "");
        ASSERT_EQ(
            run({sim, "tape", "--state", dir, "set", "medium", "TAPE000", "items=R512*2,F,R100,F"}),
            "");
    }
    // The program as a child over the simulator's drives, through the
    // preloaded device layer, with no real sysfs to find.
    std::string run(const std::vector<std::string>& argv, int* rc = nullptr) {
        zovtest::ChildOptions o;
        o.env = zovtest::preload_env();
        zovtest::set_var(o.env, "ARRAYSIM_STATE", dir);
        zovtest::set_var(o.env, "SYSFS_PATH", dir + "/nosys");
        zovtest::ChildResult r = zovtest::run_child(argv, o);
        if (rc) *rc = r.status;
        return r.out;
    }
    std::string tool(const std::string& args, int* rc = nullptr) {
        std::vector<std::string> argv{bin};
        std::istringstream words(args);
        for (std::string w; words >> w;) argv.push_back(w);
        return run(argv, rc);
    }
    zovtest::TempDir tmp{"cditool"};
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
