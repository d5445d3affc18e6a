// Advanced-snapshot operations of the command layer: the host tool's attach
// output, the restore's parsers, and the mount point query and the create
// against the simulator, frame by frame.
#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_sim.h"

using sgsim::Sim;
using sgtest::Feed;
using sgtest::fixture;
using sgtest::Quillset;

namespace {

TEST(KvtParse, AttachTakesTheLastDeviceWithoutItsFullStop) {
    struct Case {
        std::string text;
        std::string dst;
    };
    const std::vector<Case> cases = {
        {fixture("fenlok_attach", "group.txt"), "/var/tmp/merl/dev/sdl"},
        {"Attached snapshot S to SMP 1 on device  /dev/sdq .\r\n", "/dev/sdq"},
        {"nothing useful\n", ""},
        // "device" too near the line's end leaves nothing to take.
        {"Attached snapshot S on device", ""},
    };
    for (const Case& c : cases) {
        Quillset q;
        snapdevice sd;
        sd.dstName = "stale";
        Feed f(c.text);
        q->processAttachSnapshotsession(f.get(), sd);
        EXPECT_EQ(sd.dstName, c.dst) << c.text;
    }
}

TEST(KvtParse, RestoreOutputOfMoreThanTwoCharactersIsARefusal) {
    Quillset q;
    Feed quiet("\n\r\n");
    EXPECT_EQ(q->processRollbackKVT(quiet.get(), "a"), nullptr);
    Feed refused(fixture("snap_list", "missing.txt"));
    SSError* err = q->processRollbackKVT(refused.get(), "a");
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_ROLLBACK_IMPACTS);
    delete err;
    Feed anything(fixture("snap_create", "name_taken.txt"));
    EXPECT_EQ(q->processDeleteKVTSnap(anything.get(), "a"), nullptr);
}

struct KvtSim : ::testing::Test {
    std::unique_ptr<Sim> sim;
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(new Sim({"--frames", "2", "--luns", "4"}));
        ASSERT_TRUE(sim->ok());
        sim->array.clear_commands();
    }
};

TEST_F(KvtSim, MountPointQueryLetsTheLastFrameAskedSpeak) {
    Quillset q({SimArray::addr(0), SimArray::addr(1)});
    std::string cg = "x", smp = "x";
    // LUN 2 is in a group on the first frame only: the answer stays yes, but
    // the second frame, which does not know it, leaves both texts empty.
    EXPECT_EQ(q->isKVTSnappable("2", cg, smp), 1);
    EXPECT_EQ(cg, "");
    EXPECT_EQ(smp, "");
    EXPECT_EQ(
        sgsim::commands_with(sim->array, "lun -list -l 2 -snapMountPoints -belongsToCG").size(),
        2u);
    // Asked of the first frame alone, the group and the mount point show.
    Quillset one({SimArray::addr(0)});
    EXPECT_EQ(one->isKVTSnappable("2", cg, smp), 1);
    EXPECT_EQ(cg, "CG0_0");
    EXPECT_EQ(smp, "10002");
    // A clone LUN has no mount point.
    EXPECT_EQ(one->isKVTSnappable("5", cg, smp), 0);
    EXPECT_EQ(smp, "N/A");
    EXPECT_EQ(one.log.count("is not configured as a snapshot capable source LUN.", 0), 1);
}

TEST_F(KvtSim, CreateTriesEachFrameUntilOneAnswersWithAnEmptyLine) {
    Quillset q({SimArray::addr(0), SimArray::addr(1)});
    std::string object = "0", name = "S1", source = "/dev/sdd";
    // LUN 0 lives on the first frame: it answers, the second is not asked.
    EXPECT_EQ(q->createKVTsnapshot(object, name, source), nullptr);
    EXPECT_EQ(sgsim::commands_with(sim->array, "snap -create").size(), 1u);
    EXPECT_EQ(q->verifyKVTSession("S1"), 1);
    EXPECT_EQ(q->verifyKVTSession("S2"), 0);
    // The same name again is refused on both frames: every frame is tried,
    // the refusals are logged, and the result is still null.
    sim->array.clear_commands();
    EXPECT_EQ(q->createKVTsnapshot(object, name, source), nullptr);
    EXPECT_EQ(sgsim::commands_with(sim->array, "snap -create").size(), 2u);
    EXPECT_EQ(q.log.count("Creating the KVT snapshot returned an error", 0), 2);
    snapdevice sd;
    sd.sessionId = "S1";
    EXPECT_EQ(q->deleteKVTsession(sd), nullptr);
    EXPECT_EQ(q->verifyKVTSession("S1"), 0);
}

}  // namespace
