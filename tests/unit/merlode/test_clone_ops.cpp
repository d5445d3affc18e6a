// Clone operations against the array simulator: the reservation kept in the
// sync rate, synchronisation and fracture advancing by steps, the consistent
// fracture, reverse synchronisation, and the capability questions.
#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_sim.h"

using sgsim::Sim;
using sgtest::Quillset;

namespace {

const std::string kFrame0 = SimArray::addr(0);
const std::string kFrame1 = SimArray::addr(1);
const std::string kG0 = "50:06:01:60:00:00:00:00:00:00:00:00:C1:00:00:00";
const std::string kG1 = "50:06:01:60:00:00:00:00:00:00:00:00:C1:00:00:01";
const std::string kId1 = "0100000000000000";
const std::string kId2 = "0200000000000000";
const std::string kId3 = "0300000000000000";

struct CloneSim : ::testing::Test {
    std::unique_ptr<Sim> sim;
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(new Sim(
            {"--frames", "2", "--clone-groups", "2", "--clones", "3", "--sync-steps", "3"}));
        ASSERT_TRUE(sim->ok());
        sim->array.clear_commands();
    }
    cloneInfo fresh(zov_quillset* q, const std::string& group, const std::string& id) {
        cloneInfo c;
        SSError* err = q->getCloneInfo(id, group, c, 1);
        EXPECT_EQ(err, nullptr) << (err ? err->getErrMsg() : "");
        delete err;
        return c;
    }
};

TEST_F(CloneSim, ReservationLivesInTheSyncRateAndOnlyAReservedCloneIsReleased) {
    Quillset q({kFrame0, kFrame1});
    int rsvd = -1;
    EXPECT_EQ(q->getCloneRsvd(kG0, kId1, rsvd), nullptr);
    EXPECT_EQ(rsvd, 0);

    EXPECT_EQ(q->reserveCloneLun(kG0, kId1, {}), nullptr);
    EXPECT_EQ(q->getCloneRsvd(kG0, kId1, rsvd), nullptr);
    EXPECT_EQ(rsvd, 1);
    EXPECT_EQ(sgsim::commands_with(sim->array, "-changeclone"),
              std::vector<std::string>{"tilloseccli -h " + kFrame0 +
                                       " quillset -changeclone -CloneGroupUid " + kG0 +
                                       " -CloneId " + kId1 + " -SyncRate 3981 -o"});

    sim->array.clear_commands();
    EXPECT_EQ(q->unreserveCloneLun(kG0, kId1), nullptr);
    EXPECT_EQ(q->getCloneRsvd(kG0, kId1, rsvd), nullptr);
    EXPECT_EQ(rsvd, 0);
    EXPECT_EQ(sgsim::commands_with(sim->array, "-SyncRate high").size(), 1u);

    // A free clone is left alone: only the query runs.
    sim->array.clear_commands();
    EXPECT_EQ(q->unreserveCloneLun(kG0, kId2), nullptr);
    EXPECT_TRUE(sgsim::commands_with(sim->array, "-changeclone").empty());
    EXPECT_EQ(q.log.count("is not in the reserved state.", 9), 1);
}

TEST_F(CloneSim, ARateThatBeginsWithTheMarkCountsAsReserved) {
    sim->admin({"set", "clone", "CloneGrp_0", kId1, "rate=39810"});
    Quillset q({kFrame0});
    int rsvd = 0;
    EXPECT_EQ(q->getCloneRsvd(kG0, kId1, rsvd), nullptr);
    EXPECT_EQ(rsvd, 1);
}

TEST_F(CloneSim, RefusedReservationAndUnknownClonesAreReportedWithTheirCodes) {
    Quillset q({kFrame0});
    SSError* err = q->reserveCloneLun(kG0, "0900000000000000", {});
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_ILLEGAL_STATE);
    EXPECT_EQ(std::string(err->getErrMsg()),
              "zov_quillset::reserveCloneLun: Request to reserve clone ID [0900000000000000], "
              "group [" +
                  kG0 + "] failed.");
    delete err;
    int rsvd = 0;
    err = q->getCloneRsvd(kG0, "0900000000000000", rsvd);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_ILLEGAL_STATE);
    delete err;
    cloneInfo c;
    err = q->getCloneInfo("0900000000000000", kG0, c, 1);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_ACCESS_PATH);
    delete err;
}

TEST_F(CloneSim, FractureThenSyncAdvanceByStepsOfTheListing) {
    Quillset q({kFrame0});
    EXPECT_EQ(q->fractureClone("-CloneGroupUid " + kG0 + " -CloneId " + kId1, {kFrame0}), nullptr);
    cloneInfo c = fresh(q.q.get(), kG0, kId1);
    EXPECT_EQ(c.cloneState, "Consistent");
    EXPECT_EQ(c.cloneCondition, "Administratively Fractured");
    EXPECT_EQ(c.cloneIsFractured, "Yes");

    EXPECT_EQ(q->syncClone(kG0, kId1), nullptr);
    std::vector<std::string> states;
    for (int i = 0; i < 4; i++) states.push_back(fresh(q.q.get(), kG0, kId1).cloneState);
    // Each listing moves the clone one of three steps.
    EXPECT_EQ(states, (std::vector<std::string>{"Synchronizing", "Synchronizing", "Synchronized",
                                                "Synchronized"}));

    // A clone that is not fractured cannot be synchronised again.
    SSError* err = q->syncClone(kG0, kId1);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_UNABLE_TO_CREATE_SNAPSHOT);
    EXPECT_EQ(std::string(err->getErrMsg()),
              "zov_quillset::syncClone: Unable to 'tillocli quillset -startsession' for " + kG0);
    delete err;
    EXPECT_EQ(sgsim::commands_with(sim->array, "-syncclone -CloneGroupuid").size(), 2u);
}

TEST_F(CloneSim, ReverseSyncRestoresTheSourceFromAFracturedClone) {
    Quillset q({kFrame0});
    SSError* err = q->rollbackClone(kG0, kId2);
    ASSERT_NE(err, nullptr);  // not fractured
    delete err;
    EXPECT_EQ(q.log.count("Rollback command [ quillset -reversesyncclone -CloneGroupuid " + kG0 +
                              " -CloneId " + kId2 + " -o] failed to execute",
                          3),
              1);
    EXPECT_EQ(q->fractureClone("-CloneGroupUid " + kG0 + " -CloneId " + kId2, {}), nullptr);
    EXPECT_EQ(q->rollbackClone(kG0, kId2), nullptr);
    // The state is the first word of the array's "Reverse Synchronizing".
    EXPECT_EQ(fresh(q.q.get(), kG0, kId2).cloneState, "Reverse");
    // The other clones stopped following the source.
    EXPECT_EQ(fresh(q.q.get(), kG0, kId1).cloneIsFractured, "Yes");
}

TEST_F(CloneSim, ConsistentFractureSplitsThreeClonesOrSaysWhyNot) {
    Quillset q({kFrame0, kFrame1});
    const std::string three = "-CloneGroupUidCloneId " + kG0 + " " + kId1 + " " + kG0 + " " + kId2 +
                              " " + kG1 + " " + kId3;
    EXPECT_EQ(q->consistentFractureClone(three, {kFrame0, kFrame1}), nullptr);
    for (const std::string& id : {kId1, kId2})
        EXPECT_EQ(fresh(q.q.get(), kG0, id).cloneIsFractured, "Yes") << id;
    EXPECT_EQ(fresh(q.q.get(), kG1, kId3).cloneIsFractured, "Yes");
    EXPECT_EQ(sgsim::commands_with(sim->array, "-consistentfractureclones"),
              std::vector<std::string>{"tilloseccli -h " + kFrame0 +
                                       " quillset -consistentfractureclones " + three + " -o"});

    // The array's three refusals: fractured clones, one clone, no pairs.
    for (const std::string& arg : {three, "-CloneGroupUidCloneId " + kG0 + " " + kId1,
                                   std::string("-CloneGroupUidCloneId")}) {
        SSError* err = q->consistentFractureClone(arg, {kFrame0});
        ASSERT_NE(err, nullptr) << arg;
        EXPECT_EQ(err->getErrCode(), SS_EC_UNABLE_TO_CREATE_SNAPSHOT);
        delete err;
    }
    EXPECT_EQ(q.log.count("Splitting mirror failed.  reason [", 3), 3);
}

TEST_F(CloneSim, SourcesAreCloneableAndClonesAreNot) {
    Quillset q({kFrame0, kFrame1});
    EXPECT_EQ(q->isCloneable("0"), 1);
    EXPECT_EQ(q->isCloneable("14"), 1);  // second frame's first group
    EXPECT_EQ(q->isCloneable("8"), 0);   // a clone LUN
    // The sources were read once, one listing per frame.
    EXPECT_EQ(sgsim::commands_with(sim->array, "-listclonegroup -Sources").size(), 2u);
    EXPECT_EQ(q.log.count("is not configured as a clone capable source LUN.", 3), 1);
}

TEST_F(CloneSim, CloneGroupInfoKeepsTheSourcesClonesAndValidateCountsThem) {
    Quillset q({kFrame0, kFrame1});
    std::vector<cloneInfo> list;
    EXPECT_EQ(q->getCloneGroupInfo(1, list), nullptr);
    ASSERT_EQ(list.size(), 3u);
    for (const cloneInfo& c : list) {
        EXPECT_EQ(c.lun, 1);
        EXPECT_EQ(c.cloneGrpId, kG1);
        EXPECT_EQ(c.frameIp, kFrame0);
    }
    std::list<snapdevice> sources(3);
    auto it = sources.begin();
    it->srcDev.merllun = 0, ++it;
    it->srcDev.merllun = 1, ++it;
    it->srcDev.merllun = 5;
    EXPECT_EQ(q->validateCloneConfig(sources, 4),
              "Clone pool for source LUN 0 needs 4 LUNs but has only 3\n"
              "Clone pool for source LUN 1 needs 4 LUNs but has only 3\n"
              "Unable to find clone pool for source LUN 5\n");
    EXPECT_EQ(q->validateCloneConfig(sources, 0), "Unable to find clone pool for source LUN 5\n");
}

TEST_F(CloneSim, HostToolListAndActivate) {
    Quillset q({kFrame0});
    EXPECT_EQ(q->getActiveClone(), nullptr);
    // The row's pattern takes one character of the brackets as the WWN.
    ASSERT_FALSE(q->m_activeCloneList.empty());
    EXPECT_EQ(q->m_activeCloneList[0].cloneLunWWN.size(), 1u);
    q->m_volMapInited = 1;
    q->m_volMapList.push_back(Hadrix());
    snapdevice sd;
    EXPECT_EQ(q->activateclone(sd), nullptr);
    EXPECT_EQ(q->m_volMapInited, 0);
    EXPECT_TRUE(q->m_volMapList.empty());
    EXPECT_EQ(sgsim::commands_with(sim->array, "clone_activate").size(), 1u);
    EXPECT_EQ(q->deactivateclone(sd), nullptr);
}

}  // namespace
