// Parsers of the host agent's volume map, fed captured text.
#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_parse_fixture.h"

using sgtest::Feed;
using sgtest::fixture;
using sgtest::Quillset;

namespace {

std::string volmap(const char* name) {
    return fixture("server_volmap", name);
}

TEST(VolMapParse, MatchingDeviceIsStoredWithItsPathWwnAndSize) {
    Quillset q;
    ArrayLunUID known;
    known.lunUID = "6006016030B402D00A26B8C119E41E611";  // not this WWN
    known.lunID = 99;
    q->m_arrayLunUID.push_back(known);
    Feed f(volmap("two_devices.txt"));
    EXPECT_EQ(q->processInitVolMap(f.get(), "/dev/sdc"), "sdc");
    ASSERT_EQ(q->m_volMapList.size(), 1u);
    const Hadrix& h = q->m_volMapList[0];
    EXPECT_EQ(h.pseudoNm, "/dev/sdc");
    EXPECT_EQ(h.deviceName, "sdc");
    EXPECT_EQ(h.arrayLun, 18);
    EXPECT_EQ(h.arrayLunUID, "600601603B402D00A26B8C119E41E612");
    EXPECT_EQ(h.lunSize, "1048576");
    ASSERT_EQ(h.patharray.size(), 1u);
    EXPECT_EQ(h.patharray[0].alive, 1);
    // The number read is added to the WWN table.
    ASSERT_EQ(q->m_arrayLunUID.size(), 2u);
    EXPECT_EQ(q->m_arrayLunUID[1].lunID, 18);
    EXPECT_EQ(q->m_arrayLunUID[1].lunUID, h.arrayLunUID);
    EXPECT_EQ(q.log.count("is trespassed. Snapshot or Clone operation might fail.", 3), 1);
}

TEST(VolMapParse, DeviceNameIsComparedWithTheLastPathComponent) {
    Quillset p;
    Feed g(volmap("two_devices.txt"));
    EXPECT_EQ(p->processInitVolMap(g.get(), "/some/where/sdb"), "sdb");
    ASSERT_EQ(p->m_volMapList.size(), 1u);
    EXPECT_EQ(p->m_volMapList[0].pseudoNm, "/dev/zovhadrixa");

    Quillset q;
    Feed f(volmap("two_devices.txt"));
    EXPECT_EQ(q->processInitVolMap(f.get(), "/dev/sdz"), "");
    EXPECT_TRUE(q->m_volMapList.empty());
    EXPECT_EQ(q.log.count("Unable to find LUN associated with source [/dev/sdz]", 0), 1);
}

TEST(VolMapParse, KnownWwnGivesTheNumberBeforeTheNumberLine) {
    Quillset q;
    Feed f(
        "Device Id:   /dev/sdb\nDevice Name:  sdb\nDevice Mapping: /m\n"
        "LOGICAL UNIT WWN:  60:06:01:60:3B:40:2D:00:A2:6B:8C:11:9E:41:E6:11\n");
    ArrayLunUID known;
    known.lunUID = "600601603B402D00A26B8C119E41E611";
    known.lunID = 17;
    q->m_arrayLunUID.push_back(known);
    q->processInitVolMap(f.get(), "sdb");
    EXPECT_EQ(q.log.count("adding the lunID ==>[17] to our list.", 9), 1);
    EXPECT_TRUE(q->m_volMapList.empty());  // the block never completed
}

TEST(VolMapParse, BlockCutShortByTheNextDeviceIdIsThrownAway) {
    Quillset q;
    Feed f(volmap("block_cut_short.txt"));
    EXPECT_EQ(q->processInitVolMap(f.get(), "sdb"), "");
    EXPECT_TRUE(q->m_volMapList.empty());
    // Its number was read into the WWN table before the block broke off.
    ASSERT_EQ(q->m_arrayLunUID.size(), 1u);
    EXPECT_EQ(q->m_arrayLunUID[0].lunID, 17);

    // The block behind it stands on its own, with a fresh path list.
    Quillset p;
    Feed g(volmap("block_cut_short.txt"));
    EXPECT_EQ(p->processInitVolMap(g.get(), "sdc"), "sdc");
    ASSERT_EQ(p->m_volMapList.size(), 1u);
    EXPECT_EQ(p->m_volMapList[0].arrayLun, 18);
    EXPECT_EQ(p->m_volMapList[0].patharray.size(), 1u);
}

TEST(VolMapParse, ConfigWizardFillsTheMountMapAndKeepsNoDevice) {
    Quillset q;
    Feed f(volmap("two_devices.txt"));
    EXPECT_EQ(q->processInitVolMap(f.get(), CONFIGWIZARD), "");
    EXPECT_TRUE(q->m_volMapList.empty());
    EXPECT_EQ(q->m_mountToLun.size(), 2u);
    EXPECT_EQ(q->m_mountToLun["/mnt/data"], 17);
    EXPECT_EQ(q->m_mountToLun["/mnt/logs"], 18);
}

TEST(VolMapParse, OnceTheListHoldsADeviceEveryLaterRunReportsSuccess) {
    Quillset q;
    Feed f(volmap("two_devices.txt"));
    EXPECT_EQ(q->processInitVolMap(f.get(), "sdb"), "sdb");
    Feed g("nothing of use\n");
    EXPECT_EQ(q->processInitVolMap(g.get(), "/dev/whatever"), "whatever");
}

TEST(VolMapParse, GarbageNeverCrashes) {
    const std::string inputs[] = {"",
                                  "Device Id:\n",
                                  "Device Id:   \nDevice Name:\n",
                                  "LOGICAL UNIT NUMBER: 99999999999999999999\n",
                                  std::string(5000, ':') + "\n",
                                  "Device Name: x\n"};
    for (const std::string& in : inputs) {
        Quillset q;
        Feed f(in);
        EXPECT_EQ(q->processInitVolMap(f.get(), CONFIGWIZARD), "");
        Feed g(in);
        EXPECT_EQ(q->processProxyCloneInitVolMap(g.get(), 31, 0), "");
    }
}

TEST(VolMapProxyParse, PhysicalSourceTakesThePhysicalDeviceOfTheClone) {
    Quillset q;
    Feed f(volmap("clone_on_mount_host.txt"));
    EXPECT_EQ(q->processProxyCloneInitVolMap(f.get(), 31, 0), "/dev/sdg");
    ASSERT_EQ(q->m_volMapList.size(), 1u);
    EXPECT_EQ(q->m_volMapList[0].arrayLun, 31);
    EXPECT_EQ(q->m_volMapList[0].lunSize, "2097152");
    EXPECT_EQ(q.log.count("Skipping this device and continue looking for a physical device", 7), 1);
    // Every number read goes to the WWN table.
    EXPECT_EQ(q->m_arrayLunUID.size(), 2u);
}

TEST(VolMapProxyParse, PseudoSourceIsAnsweredWithTheDeviceName) {
    Quillset q;
    Feed f(volmap("clone_on_mount_host.txt"));
    EXPECT_EQ(q->processProxyCloneInitVolMap(f.get(), 31, 1), "sdf");
    ASSERT_EQ(q->m_volMapList.size(), 1u);
    EXPECT_EQ(q->m_volMapList[0].pseudoNm, "/dev/zovhadrixc");
    EXPECT_EQ(q.log.count("Skipping this device and continue looking for a pseudo device", 7), 2);
}

TEST(VolMapProxyParse, PhysicalSourceWhereOnlyPseudoDevicesShowFindsNothing) {
    Quillset q;
    Feed f(volmap("pseudo_only.txt"));
    EXPECT_EQ(q->processProxyCloneInitVolMap(f.get(), 31, 0), "");
    EXPECT_TRUE(q->m_volMapList.empty());
    EXPECT_EQ(q.log.count("Unable to find a LUN associated with source [31]", 0), 1);
}

TEST(VolMapProxyParse, OtherLunIsNotKept) {
    Quillset q;
    Feed f(volmap("clone_on_mount_host.txt"));
    EXPECT_EQ(q->processProxyCloneInitVolMap(f.get(), 77, 0), "");
    EXPECT_TRUE(q->m_volMapList.empty());
}

}  // namespace
