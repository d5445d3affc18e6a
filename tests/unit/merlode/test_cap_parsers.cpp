// Parsers of the snapshot configuration list and of the version survey.
#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_parse_fixture.h"

using sgtest::Feed;
using sgtest::fixture;
using sgtest::Quillset;

namespace {

TEST(CapSourceSnapInfo, EachTargetLunMapsToItsSourcesText) {
    Quillset q;
    q->m_snapIdToName[17] = "kept from before";
    Feed f(fixture("quillset_listsnapshots", "two_configs.txt"));
    EXPECT_EQ(q->processGetSourceSnapInfo(f.get(), "10.1.1.1"), nullptr);
    EXPECT_EQ(q->m_snapIdToName[17], "kept from before");  // an existing key keeps its value
    EXPECT_EQ(q->m_snapIdToName[1], "LUN 18 logs");        // "1.8" read base 10 stops at the dot
    // A configuration without a Sources line isn't recorded.
    EXPECT_EQ(q->m_snapIdToName.count(99), 0u);
}

TEST(CapSnapshotList, MarksTheMatchingAluOfGroupsOnTheSameFrame) {
    Quillset q;
    storagegroup here, there;
    here.frameIp = "10.1.1.1";
    here.stgName = "prod_sg";
    there.frameIp = "10.1.1.2";
    there.stgName = "prod_sg";
    hlualu a, b;
    a.hlu = 1;
    a.alu = 17;
    b.hlu = 2;
    b.alu = 17;  // only the first with that ALU in a group is marked
    here.hlualuList = {a, b};
    there.hlualuList = {a};
    q->m_storagegrouplist = {here, there};
    Feed f(fixture("quillset_listsnapshots", "two_configs.txt"));
    EXPECT_EQ(q->processGetSnapshotList(f.get(), "10.1.1.1"), nullptr);
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList[0].snappable, 1);
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList[1].snappable, 0);
    EXPECT_EQ(q->m_storagegrouplist[1].hlualuList[0].snappable, 0);
    EXPECT_EQ(q.log.count("Setting snapshot name [snapcfg_prod17] that corresponds to Lun [17]", 5),
              1);
}

struct VersionsTest : ::testing::Test {
    Quillset q;
    pkgRevision pkgs[3];
    void SetUp() override {
        const char* names[] = {"GELMOT", "ZOVhadrix", "TILLOCLI"};
        for (int i = 0; i < 3; i++) {
            pkgs[i].installed = 0;
            pkgs[i].optional = 0;
            pkgs[i].pkgid = (MerlPkgs)i;
            pkgs[i].m_pkgName = names[i];
        }
    }
    void read(int index, const std::string& text) {
        Feed f(text);
        EXPECT_EQ(q->processVersions(f.get(), index, pkgs, 3), nullptr);
    }
};

TEST_F(VersionsTest, EachToolsOwnOutputFillsItsRecord) {
    read(1, fixture("tool_versions", "tilloseccli_help.txt"));
    read(2, fixture("tool_versions", "gelmot_help.txt"));
    read(3, fixture("tool_versions", "hadrix_version.txt"));
    EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].m_revision, "7.33.1.0.12");
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].m_revision, "V2.31.0");
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].m_revision, "3.2.1 (build 117)");
    for (const pkgRevision& p : pkgs) EXPECT_EQ(p.installed, 1);
    // Short outputs leave their last line in the log for the administrator.
    EXPECT_EQ(q.log.count("Context of command output buffer", 5), 3);
}

TEST_F(VersionsTest, NduListCountsOnlyActivePackagesWithoutPendingCommit) {
    read(4, fixture("ndu_list", "three_packages.txt"));
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].installed, 1);
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].m_revision, "2.31.0");
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].installed, 0);  // commit pending
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].m_revision, "");
    EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].installed, 0);  // not active
}

TEST_F(VersionsTest, NameLineRestartsTheBlockAndABlockWithoutRevisionChangesNothing) {
    pkgs[MERL_PKG_GELMOT].m_revision = "before";
    read(4, fixture("ndu_list", "name_line_restarts.txt"));
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].m_revision, "before");
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].installed, 0);
    EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].installed, 0);
}

TEST_F(VersionsTest, LaterMatchOverwritesAndUnknownIndexOrShortTableIsHarmless) {
    read(1, "Revision 7.1\nRevision 7.2\n");
    EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].m_revision, "7.2");
    read(9, "Revision 1\n");
    Feed f("Revision 8.0\n");
    EXPECT_EQ(q->processVersions(f.get(), 1, pkgs, 1), nullptr);  // record 2 is out of reach
    EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].m_revision, "7.2");
    Feed g(fixture("ndu_list", "three_packages.txt"));
    EXPECT_EQ(q->processVersions(g.get(), 4, nullptr, 0), nullptr);
}

}  // namespace
