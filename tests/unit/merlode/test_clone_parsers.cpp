// Parsers of the clone listings and of the clone change commands, fed
// captured and hand-made text.
#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_parse_fixture.h"

using sgtest::Feed;
using sgtest::fixture;
using sgtest::Quillset;

namespace {

const char* const kG0 = "50:06:01:60:00:00:00:00:00:00:00:00:C1:00:00:00";

std::vector<std::string> ids(const std::vector<cloneInfo>& rows) {
    std::vector<std::string> out;
    for (const cloneInfo& c : rows)
        out.push_back(c.cloneGrpName + "/" + c.cloneId + "@" + std::to_string(c.cloneLun));
    return out;
}

TEST(CloneGroupParse, EachCloneOfEachGroupIsOneRowWithItsGroupsSourceAndFrame) {
    Quillset q;
    Feed f(fixture("quillset_listclonegroup", "mid_sync.txt"));
    EXPECT_EQ(q->processGetCloneGroupInfo(f.get(), "198.18.0.1"), nullptr);
    const auto& rows = q->m_clonestoragegrouplist;
    ASSERT_EQ(rows.size(), 6u);
    EXPECT_EQ(ids(rows)[2], "CloneGrp_1/0100000000000000@10");
    const cloneInfo& syncing = rows[2];
    EXPECT_EQ(syncing.lun, 1);
    EXPECT_EQ(syncing.cloneGrpId, "50:06:01:60:00:00:00:00:00:00:00:00:C1:00:00:01");
    EXPECT_EQ(syncing.cloneState, "Synchronizing");
    EXPECT_EQ(syncing.cloneCondition, "Synchronizing");
    EXPECT_EQ(syncing.cloneIsFractured, "No");
    EXPECT_EQ(syncing.frameIp, "198.18.0.1");
}

TEST(CloneGroupParse, AwkwardListings) {
    struct Case {
        const char* file;
        std::vector<std::string> rows;
    };
    const std::vector<Case> cases = {
        // A group without clones gives nothing; the next group is read, and
        // its LUN is read the way "%i" reads it.
        {"no_clones.txt", {"CloneGrp_3/0100000000000000@31"}},
        // A listing that stops in the middle of a clone: the next group's
        // name starts over and the half-read clone is not kept.
        {"cut_short.txt", {"CloneGrp_5/0100000000000000@20"}},
        // Two frames printing the same clone give one row.
        {"twice.txt", {"CloneGrp_0/0100000000000000@8", "CloneGrp_0/0200000000000000@9"}},
    };
    for (const Case& c : cases) {
        Quillset q;
        Feed f(fixture("quillset_listclonegroup", c.file));
        EXPECT_EQ(q->processGetCloneGroupInfo(f.get(), "198.18.0.1"), nullptr) << c.file;
        EXPECT_EQ(ids(q->m_clonestoragegrouplist), c.rows) << c.file;
    }
}

TEST(CloneInfoParse, OneCloneWithItsFractureBeforeItsLun) {
    Quillset q;
    Feed f(fixture("quillset_listclone", "one_clone.txt"));
    EXPECT_EQ(q->processGetCloneInfo(f.get(), "198.18.0.2"), nullptr);
    ASSERT_EQ(q->m_clonestoragegrouplist.size(), 1u);
    const cloneInfo& c = q->m_clonestoragegrouplist[0];
    EXPECT_EQ(c.cloneGrpName, "CloneGrp_0");
    EXPECT_EQ(c.cloneGrpId, kG0);
    EXPECT_EQ(c.cloneId, "0200000000000000");
    EXPECT_EQ(c.cloneLun, 9);
    EXPECT_EQ(c.frameIp, "198.18.0.2");
    // The same text twice is two rows here: this listing keeps duplicates.
    Feed again(fixture("quillset_listclone", "one_clone.txt") +
               fixture("quillset_listclone", "one_clone.txt"));
    EXPECT_EQ(q->processGetCloneInfo(again.get(), "198.18.0.2"), nullptr);
    EXPECT_EQ(q->m_clonestoragegrouplist.size(), 3u);
}

TEST(CloneInfoParse, CacheLookupComparesIdsOverSixteenAndGroupsOverFortySeven) {
    Quillset q;
    cloneInfo row;
    row.cloneId = "0100000000000000";
    row.cloneGrpId = kG0;
    row.cloneLun = 8;
    row.cloneState = "Consistent";
    q->m_clonestoragegrouplist.push_back(row);
    cloneInfo got;
    // A longer id that starts with the same 16 characters is the same clone,
    // and the cache answers without a command.
    EXPECT_EQ(q->getCloneInfo("0100000000000000XYZ", std::string(kG0) + "EXTRA", got, 0), nullptr);
    EXPECT_EQ(got.cloneLun, 8);
    EXPECT_EQ(got.cloneState, "Consistent");
}

TEST(CloneSourceCount, PairsOfSourceAndCountFirstWins) {
    Quillset q;
    Feed f(fixture("quillset_listclonegroup", "sources_count.txt") +
           "Name: late\nSources: 0\nCloneCount: 9\n");
    EXPECT_EQ(q->processGetSourceCloneInfo(f.get(), "198.18.0.1"), nullptr);
    EXPECT_EQ(q->m_cloneIdToCount.size(), 3u);
    EXPECT_EQ(q->m_cloneIdToCount[0], 2);
    EXPECT_EQ(q->m_cloneIdToCount[2], 2);
}

TEST(CloneList, OnlyTheLineRightAfterTheSourceMarksItsLunOnThisFramesRows) {
    Quillset q;
    storagegroup sg;
    sg.frameIp = "198.18.0.1";
    for (int alu : {0, 1, 3}) {
        hlualu h;
        h.alu = alu;
        sg.hlualuList.push_back(h);
    }
    storagegroup other = sg;
    other.frameIp = "198.18.9.9";
    q->m_storagegrouplist = {sg, other};
    Feed f(
        "Sources: 0\nClones: 2\nSources: 1\nInSync: Yes\nClones: 2\n"
        "Sources: 3\nClones: Not Available\n");
    EXPECT_EQ(q->processGetCloneList(f.get(), "198.18.0.1"), nullptr);
    std::vector<int> marked;
    for (const hlualu& h : q->m_storagegrouplist[0].hlualuList) marked.push_back(h.cloneable);
    // LUN 1's clones line came late; "Not Available" still matches "Clones:".
    EXPECT_EQ(marked, (std::vector<int>{1, 0, 1}));
    for (const hlualu& h : q->m_storagegrouplist[1].hlualuList) EXPECT_EQ(h.cloneable, 0);
}

TEST(CloneChange, FailedAnywhereInALineFailsTheCommandWithTheCutMessage) {
    struct Case {
        std::string text;
        bool fails;
        std::string message;
    };
    const std::vector<Case> cases = {
        {fixture("quillset_changeclone", "unknown_clone.txt"), true,
         // From the line's start, as many characters as the match's end lies
         // past "failed": the start of the line survives, its tail does not.
         "Error: "},
        {"step one\nthe fracture failed because of x\n", true, "the fracture failed "},
        {"", false, ""},
        {"Clone changed.\nfailed\n", false, ""},  // needs a character before it
    };
    for (const Case& c : cases) {
        Quillset q;
        Feed f(c.text);
        SSError* err = q->verifyCloneCmd(f.get(), "198.18.0.1");
        EXPECT_EQ(err != nullptr, c.fails) << c.text;
        if (err != nullptr) {
            EXPECT_EQ(err->getErrCode(), SS_EC_CMD_EXEC_FAILED);
            EXPECT_EQ(std::string(err->getErrMsg()),
                      "zov_quillset::verifyCloneCmd: Command output not as expected : [" +
                          c.message + "]")
                << c.text;
        }
        delete err;
    }
}

TEST(CloneWwn, TheLastWwnLineWins) {
    Quillset q;
    Feed f(fixture("quillset_listclonegroup", "mid_sync.txt"));
    EXPECT_EQ(q->processGetCloneWWN(f.get(), "198.18.0.1"), nullptr);
    EXPECT_EQ(q->m_cloneWWNStr, "60:06:01:60:00:00:00:00:00:00:00:00:00:00:00:0D");
}

}  // namespace
