// Capability queries and the version survey against the array simulator:
// snapshot configuration per LUN, the marks on the storage group rows, and
// the revisions of the tools and of the arrays' software.
#include <gtest/gtest.h>

#include "liblocal/attrlist.h"
#include "tests/unit/merlode/sg_sim.h"

using sgsim::Sim;
using sgtest::Quillset;

namespace {

const std::string kFrame0 = SimArray::addr(0);
const std::string kFrame1 = SimArray::addr(1);

struct CapSim : ::testing::Test {
    std::unique_ptr<Sim> sim;
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(
            new Sim({"--frames", "2", "--luns", "2", "--clone-groups", "1", "--clones", "1"}));
        ASSERT_TRUE(sim->ok());
        sim->array.clear_commands();
    }
    // LUN numbers of frame `f`, with (true) or without a COW configuration.
    std::vector<int> luns(int f, bool configured) {
        std::vector<int> out;
        for (auto& r : sgsim::records(sim->array, "lun"))
            if (r["frame"] == std::to_string(f) && (r.count("snapname") > 0) == configured)
                out.push_back(atoi(r["num"].c_str()));
        return out;
    }
};

TEST_F(CapSim, IsSnappableByNumberAsksEachFrameUntilOneListsIt) {
    Quillset q({kFrame0, kFrame1});
    ASSERT_FALSE(luns(1, true).empty());
    ASSERT_FALSE(luns(0, false).empty());
    EXPECT_EQ(q->isSnappable("0"), 1);
    EXPECT_EQ(sim->array.commands(), std::vector<std::string>{"tilloseccli -h " + kFrame0 +
                                                              " quillset -listsnapshots -lun 0"});
    std::string on_second = std::to_string(luns(1, true)[0]);
    EXPECT_EQ(q->isSnappable(on_second), 1);
    EXPECT_EQ(sim->array.commands().size(), 3u);
    // A clone LUN has no configuration anywhere.
    EXPECT_EQ(q->isSnappable(std::to_string(luns(0, false)[0])), 0);
    EXPECT_EQ(sim->array.commands().size(), 5u);
    EXPECT_EQ(q.log.count("is not configured as a snapshot capable source LUN.", 0), 1);
}

TEST_F(CapSim, SnapshotListMarksTheConfiguredLunsOfThisHostsRows) {
    Quillset q({kFrame0});
    delete q->ncli_portlist();
    delete q->ncli_storagegrouplist();
    ASSERT_FALSE(q->m_storagegrouplist.empty());
    EXPECT_EQ(q->ncli_getSnapshotList(), nullptr);
    std::vector<int> want = luns(0, true);
    for (const storagegroup& sg : q->m_storagegrouplist) {
        std::vector<int> marked;
        for (const hlualu& h : sg.hlualuList)
            if (h.snappable) marked.push_back(h.alu);
        EXPECT_EQ(marked, want) << sg.HBAdevName;
    }
    EXPECT_EQ(sim->array.commands().back(),
              "tilloseccli -h " + kFrame0 + " quillset -listsnapshots -lun");
}

TEST_F(CapSim, ValidateSnapConfigNamesEachSourceWithoutConfiguration) {
    Quillset q({kFrame0, kFrame1});
    std::list<snapdevice> sources(3);
    auto it = sources.begin();
    it->srcName = "sdd", it->srcDev.merllun = luns(0, true)[0], ++it;
    it->srcName = "clone_a", it->srcDev.merllun = luns(0, false)[0], ++it;
    it->srcName = "far_b", it->srcDev.merllun = luns(1, false)[0];
    EXPECT_EQ(q->validateSnapConfig(sources),
              "Cannot find snapshot pool information for source LUN clone_a\n"
              "Cannot find snapshot pool information for source LUN far_b\n");
    EXPECT_EQ(q->m_snapIdToName.size(), luns(0, true).size() + luns(1, true).size());
    EXPECT_EQ(q.log.count("Exiting zov_quillset::validateSnapConfig with", 7), 1);
    EXPECT_EQ(q.log.count("with no problems"), 0);
    // The mount map was read on the way: one -volmap per frame.
    EXPECT_EQ(sgsim::commands_with(sim->array, "server -volmap").size(), 2u);
    EXPECT_EQ(sgsim::commands_with(sim->array, "quillset -listsnapshots -lun").size(), 2u);
}

// Package names a caller could give: the array knows "Quillset" only.
void name_packages(pkgRevision (&pkgs)[3]) {
    const char* names[] = {"Quillset", "ZOVhadrix", "TILLOCLI"};
    for (int i = 0; i < 3; i++) {
        pkgs[i].installed = 0;
        pkgs[i].optional = 0;
        pkgs[i].pkgid = (MerlPkgs)i;
        pkgs[i].m_pkgName = names[i];
    }
}

TEST_F(CapSim, VersionSurveyAsksEveryToolAndEveryFrame) {
    Quillset q({kFrame1, kFrame0});
    pkgRevision pkgs[3];
    name_packages(pkgs);
    EXPECT_EQ(q->getVersions(pkgs, 3), nullptr);
    EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].m_revision, "7.33.1.0.12");
    // The array's record of the host software has the last word.
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].m_revision,
              sgsim::field(sim->array, "package", "name", "ZOVhadrix", "rev"));
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].optional, 1);
    // The array's list came last and names the first record's package.
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].m_revision,
              sgsim::field(sim->array, "package", "name", "Quillset", "rev"));
    for (const pkgRevision& p : pkgs) EXPECT_EQ(p.installed, 1);
    EXPECT_EQ(sim->array.commands(),
              (std::vector<std::string>{"tilloseccli -help", "gelmot help", "hadrix version",
                                        "tilloseccli -h " + kFrame0 + " ndu -list",
                                        "tilloseccli -h " + kFrame1 + " ndu -list"}));
}

TEST_F(CapSim, OldRevisionsAreReportedAsTheToolsGiveThem) {
    sim->admin({"set", "option", "rev_tillo=6.22.0.1.1", "rev_gelmot=V1.0.9", "rev_hadrix=2.0"});
    // A pending commit keeps the array's record of a package out.
    sim->admin({"set", "package", "0", "TILLOCLI", "rev=7.40.0.0.0", "commit=1"});
    sim->admin({"set", "package", "0", "ZOVhadrix", "active=0"});
    Quillset q({kFrame0});
    pkgRevision pkgs[3];
    name_packages(pkgs);
    pkgs[MERL_PKG_GELMOT].m_pkgName = "GELMOT";  // not on the array
    EXPECT_EQ(q->getVersions(pkgs, 3), nullptr);
    EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].m_revision, "6.22.0.1.1");
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].m_revision, "V1.0.9");
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].m_revision, "2.0");
}

TEST_F(CapSim, MissingHostToolsAreMarkedAndTheSurveyGoesOnOnTheClient) {
    sim->admin({"set", "option", "hadrix_installed=0"});
    sim->admin({"set", "package", "0", "ZOVhadrix", "active=0"});
    sim->admin({"fault", "add", "gelmot", "missing"});
    sim->array.clear_commands();
    Quillset q({kFrame0});
    if (!q->GetGelmotCliExe().empty() || !q->m_cmdPaths.findCmdPath("hadrix").empty())
        GTEST_SKIP() << "real host tools are installed";
    pkgRevision pkgs[3];
    name_packages(pkgs);
    EXPECT_EQ(q->getVersions(pkgs, 3), nullptr);
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].m_revision, "0 <not installed>");
    EXPECT_EQ(pkgs[MERL_PKG_HADRIPATH].installed, 0);
    // The first record's name is on the array, so the array's list fills it.
    EXPECT_EQ(pkgs[MERL_PKG_GELMOT].optional, 1);
    EXPECT_EQ(q.log.count("On the client, ignoring missing gelmot binary.", 7), 1);
    EXPECT_EQ(sim->array.commands(),
              (std::vector<std::string>{"tilloseccli -help",
                                        "tilloseccli -h " + kFrame0 + " ndu -list"}));
}

TEST_F(CapSim, MissingGelmotOnTheMountHostStopsTheSurvey) {
    sim->admin({"fault", "add", "gelmot", "missing"});
    sim->array.clear_commands();
    attrlist* attrs = nullptr;
    attrlist_add(&attrs, "VMR_PQ_IS_PROXY", "1");
    attrlist_add(&attrs, "VMR_DATA_MOVER", "mover1");
    {
        Quillset q({kFrame0}, attrs);
        if (!q->GetGelmotCliExe().empty()) GTEST_SKIP() << "a real gelmot is installed";
        pkgRevision pkgs[3];
        name_packages(pkgs);
        EXPECT_EQ(q->getVersions(pkgs, 3), nullptr);
        EXPECT_EQ(pkgs[MERL_PKG_GELMOT].m_revision, "0 <not installed>");
        EXPECT_EQ(pkgs[MERL_PKG_GELMOT].optional, 0);
        EXPECT_EQ(q.log.count("Required gelmot binary is not installed on the Mount Host.", 3), 1);
        EXPECT_TRUE(sim->array.commands().empty());
    }
    attrlist_free(attrs);
}

TEST_F(CapSim, FaultyAnswersLeaveTheRecordsAlone) {
    for (const char* kind : {"garbage", "refuse", "longline"}) {
        sim->admin({"fault", "clear"});
        sim->admin({"fault", "add", "*", kind});
        Quillset q({kFrame0});
        pkgRevision pkgs[3];
        name_packages(pkgs);
        EXPECT_EQ(q->getVersions(pkgs, 3), nullptr) << kind;
        if (std::string(kind) == "longline") {
            // The answer follows the long line and is still read.
            EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].m_revision, "7.33.1.0.12");
        } else {
            EXPECT_EQ(pkgs[MERL_PKG_TILLOCLI].installed, 0) << kind;
            EXPECT_EQ(pkgs[MERL_PKG_GELMOT].installed, 0) << kind;
        }
        EXPECT_EQ(q->isSnappable("0"), kind == std::string("longline") ? 1 : 0) << kind;
    }
}

}  // namespace
