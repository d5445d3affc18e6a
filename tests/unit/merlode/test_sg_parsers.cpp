// Parsers of the port list and the storage group list, fed captured text.
#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_parse_fixture.h"

using sgtest::Feed;
using sgtest::fixture;
using sgtest::Quillset;

namespace {

const hlualu* find_pair(const storagegroup& sg, int hlu, int alu) {
    for (const hlualu& h : sg.hlualuList)
        if (h.hlu == hlu && h.alu == alu) return &h;
    return nullptr;
}

TEST(SgPortList, ThisHostsGroupsBecomeRowsPerHbaAndOtherHostsAreIgnored) {
    Quillset q({"10.1.1.1", "10.1.1.2"});
    IP2UID u;
    u.frameIp = "10.1.1.1";
    u.frameId = "50:06:01:60:BB:20:11:22";
    q->m_arrayUIDmap.push_back(u);
    Feed f(fixture("port_list_hba", "this_host_two_groups.txt"));
    EXPECT_EQ(q->processPortList(f.get(), "10.1.1.1"), nullptr);
    ASSERT_EQ(q->m_storagegrouplist.size(), 2u);  // prod_sg through two HBAs
    EXPECT_EQ(q->m_storagegrouplist[0].stgName, "prod_sg");
    EXPECT_EQ(q->m_storagegrouplist[0].HBAdevName, "/dev/sg2");
    EXPECT_EQ(q->m_storagegrouplist[0].frameIp, "10.1.1.1");
    EXPECT_EQ(q->m_storagegrouplist[0].frameId, "50:06:01:60:BB:20:11:22");
    EXPECT_EQ(q->m_storagegrouplist[1].HBAdevName, "/dev/sg3");
    EXPECT_EQ(q->m_ipaddrlist.size(), 2u);  // the frame served: not purged
}

TEST(SgPortList, SameGroupAndHbaReadTwiceIsNotAddedAgain) {
    Quillset q;
    for (int i = 0; i < 2; i++) {
        Feed f(fixture("port_list_hba", "this_host_two_groups.txt"));
        q->processPortList(f.get(), "10.1.1.1");
    }
    EXPECT_EQ(q->m_storagegrouplist.size(), 2u);
    EXPECT_EQ(q.log.count("This group is a dup, not adding", 9), 2);
}

TEST(SgPortList, FrameWithoutAGroupOfThisHostIsPurged) {
    Quillset q({"10.1.1.1", "10.1.1.2", "10.1.1.3"});
    Feed f(fixture("port_list_hba", "other_host_only.txt"));
    q->processPortList(f.get(), "10.1.1.2");
    EXPECT_TRUE(q->m_storagegrouplist.empty());
    EXPECT_EQ(q->m_ipaddrlist, (std::vector<std::string>{"10.1.1.1", "10.1.1.3"}));
    EXPECT_EQ(q.log.count("ipaddr:10.1.1.2 purged", 9), 1);
    // Purging an address that is already gone changes nothing.
    Feed g(fixture("port_list_hba", "other_host_only.txt"));
    q->processPortList(g.get(), "10.1.1.2");
    EXPECT_EQ(q->m_ipaddrlist.size(), 2u);
}

TEST(SgPortList, OtherHostsHbaWaitsForTheNextHbaUidLine) {
    Quillset q;
    Feed f(fixture("port_list_hba", "other_host_then_this_host.txt"));
    q->processPortList(f.get(), "10.1.1.1");
    ASSERT_EQ(q->m_storagegrouplist.size(), 1u);
    EXPECT_EQ(q->m_storagegrouplist[0].stgName, "late_sg");
    EXPECT_EQ(q->m_storagegrouplist[0].HBAdevName, "/dev/sg2");
}

TEST(SgPortList, PortWithoutGroupEndsTheHbaAndTheNextHbaIsRead) {
    Quillset q;
    Feed f(fixture("port_list_hba", "port_without_group.txt"));
    q->processPortList(f.get(), "10.1.1.1");
    ASSERT_EQ(q->m_storagegrouplist.size(), 1u);
    EXPECT_EQ(q->m_storagegrouplist[0].stgName, "second_sg");
    EXPECT_EQ(q->m_storagegrouplist[0].HBAdevName, "/dev/sg4");
    EXPECT_EQ(q.log.count("strange behavior in tillocli output", 7), 1);
}

TEST(SgPortList, GarbageAndEmptyOutputPurgeWithoutCrashing) {
    const std::string inputs[] = {"", "\n\n", std::string(3000, 'x') + "\n",
                                  "HBA UID: \nServer Name:\n", "StorageGroup Name:     x\n"};
    for (const std::string& in : inputs) {
        Quillset q({"10.1.1.1"});
        Feed f(in);
        EXPECT_EQ(q->processPortList(f.get(), "10.1.1.1"), nullptr);
        EXPECT_TRUE(q->m_storagegrouplist.empty());
        EXPECT_TRUE(q->m_ipaddrlist.empty());
    }
}

// The storage group list fills only the rows the port list made.
struct SgListTest : ::testing::Test {
    Quillset q;
    void SetUp() override {
        Feed f(fixture("port_list_hba", "this_host_two_groups.txt"));
        q->processPortList(f.get(), "10.1.1.1");
    }
    void read(const char* name) {
        Feed f(fixture("storagegroup_list_host", name));
        EXPECT_EQ(q->processStorageList(f.get(), "10.1.1.1"), nullptr);
    }
};

TEST_F(SgListTest, FirstFormFillsEveryRowOfTheGroupAndSkipsUnknownGroups) {
    read("two_groups.txt");
    for (const storagegroup& sg : q->m_storagegrouplist) {
        ASSERT_EQ(sg.hlualuList.size(), 3u) << sg.HBAdevName;
        EXPECT_NE(find_pair(sg, 1, 17), nullptr);
        EXPECT_NE(find_pair(sg, 2, 18), nullptr);
        EXPECT_NE(find_pair(sg, 3, 20), nullptr);  // "0x14" read as %i
        EXPECT_EQ(find_pair(sg, 1, 40), nullptr);  // other_sg isn't ours
        EXPECT_EQ(sg.hlualuList[0].snappable + sg.hlualuList[0].cloneable, 0);
    }
}

TEST_F(SgListTest, RereadingAddsOnlyWhatIsNew) {
    read("two_groups.txt");
    read("two_groups.txt");
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.size(), 3u);
}

TEST_F(SgListTest, ShareableLineInsideTheTableResetsAndRowsBelowAreLost) {
    read("shareable_inside_table.txt");
    const storagegroup& sg = q->m_storagegrouplist[0];
    ASSERT_EQ(sg.hlualuList.size(), 1u);
    EXPECT_NE(find_pair(sg, 1, 17), nullptr);
}

TEST_F(SgListTest, SecondFormAddsPlaceholderAluAndAContinuationKeepsTheLastNumber) {
    read("second_form.txt");
    const storagegroup& sg = q->m_storagegrouplist[0];
    ASSERT_EQ(sg.hlualuList.size(), 3u);
    EXPECT_NE(find_pair(sg, 1, 17), nullptr);
    // The UID continuation line has no number: sscanf leaves the 5 standing,
    // and the second form has no duplicate test.
    EXPECT_EQ(sg.hlualuList[1].hlu, 5);
    EXPECT_EQ(sg.hlualuList[1].alu, 77777777);
    EXPECT_EQ(sg.hlualuList[2].hlu, 5);
    EXPECT_EQ(sg.hlualuList[2].alu, 77777777);
}

TEST(SgStorageList, WithoutPortListRowsNothingIsRecorded) {
    Quillset q;
    Feed f(fixture("storagegroup_list_host", "two_groups.txt"));
    q->processStorageList(f.get(), "10.1.1.1");
    EXPECT_TRUE(q->m_storagegrouplist.empty());
}

TEST(SgMoverUID, FirstListingWhoseHostLineHoldsThisHostWins) {
    Quillset q;
    std::string text = sgtest::replace_all(fixture("storagegroup_list_host", "mover_hosts.txt"),
                                           "HOSTNAME_PLACEHOLDER", sgtest::this_host());
    q->m_MoverUIDStr = "stale";
    Feed f(text);
    EXPECT_EQ(q->processMoverUID(f.get(), "10.1.1.1"), nullptr);
    // A substring test: "host.backup.example" holds "host" and comes first.
    EXPECT_EQ(q->m_MoverUIDStr, "11:22:33:44:55:66:77:88:99:AA:BB:CC:DD:EE:FF:00");
    EXPECT_EQ(q->m_MoverSTGName, "mover_sg");
}

TEST(SgMoverUID, NoListingOfThisHostClearsTheUid) {
    Quillset q;
    q->m_MoverUIDStr = "from an earlier frame";
    Feed f(fixture("storagegroup_list_host", "two_groups.txt"));
    q->processMoverUID(f.get(), "10.1.1.2");
    EXPECT_EQ(q->m_MoverUIDStr, "");
}

TEST(SgAddHluAlu, AnyTextCountsAsDoneAndEveryLineIsLogged) {
    Quillset q;
    Feed f("Error: storagegroup command failed\nHLU already in use\n");
    EXPECT_EQ(q->processAddHluAlu(f.get(), "10.1.1.1"), nullptr);
    EXPECT_EQ(q.log.count("[8] ", 9), 2);
    EXPECT_EQ(q.log.count("processed 2 lines", 9), 1);
    Feed g("VxVM vxdisk: scanning\n");
    EXPECT_EQ(q->processVxdiskScan(g.get()), nullptr);
    EXPECT_EQ(q.log.count("inbuf[VxVM vxdisk: scanning", 9), 1);
}

TEST(SgGetStorageGroupLunList, MatchesTheMoverByExactNameOnly) {
    Quillset q({"10.1.1.1"});
    q->moverHostName = "10.99.99.99";
    Feed f(fixture("port_list_hba", "this_host_two_groups.txt"));
    q->processGetStorageGroupLunList(f.get(), "10.1.1.1");
    ASSERT_EQ(q->m_storagegrouplist.size(), 1u);
    EXPECT_EQ(q->m_storagegrouplist[0].stgName, "other_sg");
    EXPECT_EQ(q->m_ipaddrlist.size(), 1u);
    q->moverHostName = "nobody";
    Feed g(fixture("port_list_hba", "this_host_two_groups.txt"));
    q->processGetStorageGroupLunList(g.get(), "10.1.1.1");
    EXPECT_TRUE(q->m_ipaddrlist.empty());
    EXPECT_EQ(q.log.count("ipaddr [10.1.1.1] purged", 9), 1);
}

}  // namespace
