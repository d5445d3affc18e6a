// Storage group operations run against fake array tools: the command lines
// issued, the caches filled, the purge, the HLU choice and the host lock
// held across processes.
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_fake_tools.h"
#include "tests/unit/merlode/sg_parse_fixture.h"

using sgtest::FakeTools;
using sgtest::Quillset;

namespace {

// tilloseccli for one group "prod_sg" whose pairs live in $D/pairs (one
// "hlu alu" a line, in listing order); -addhlu appends, -removehlu drops.
const char* kSgTool = R"SH(
addr=$2; shift 2
case "$*" in
"port -list -hba") cat "$D/ports.$addr" 2>/dev/null ;;
"storagegroup -list -host")
  sleep 0.05
  printf 'Storage Group Name:    prod_sg\nStorage Group UID:     AA:BB:CC\n\nHLU/ALU Pairs:\n\n'
  printf '  HLU Number     ALU Number\n  ----------     ----------\n'
  if [ -f "$D/pairs" ]; then while read h a; do printf '    %s               %s\n' "$h" "$a"; done < "$D/pairs"; fi
  printf 'Shareable:             YES\n' ;;
"storagegroup -addhlu -gname prod_sg -hlu "*) echo "$6 $8" >> "$D/pairs" ;;
"storagegroup -removehlu "*) grep -v "^$6 " "$D/pairs" > "$D/pairs.new"; mv "$D/pairs.new" "$D/pairs" ;;
esac
)SH";

const char* kThisHostPorts =
    "Information about each HBA:\nHBA UID:   20:00:01\nServer Name:   localhost\n"
    "Server IP Address:   127.0.0.1\nInformation about each port of this HBA:\n"
    "    HBA Devicename:   /dev/sg2\n    StorageGroup Name:   prod_sg\n";
const char* kOtherHostPorts =
    "Information about each HBA:\nHBA UID:   20:00:02\nServer Name:   10.99.99.99\n"
    "Server IP Address:   10.99.99.99\nInformation about each port of this HBA:\n"
    "    HBA Devicename:   /dev/sg9\n    StorageGroup Name:   other_sg\n";

struct SgOps : ::testing::Test {
    FakeTools fake;
    std::string tillo;
    void SetUp() override {
        tillo = fake.tool("tilloseccli", kSgTool);
        fake.write("ports.10.1.1.1", kThisHostPorts);
        fake.write("ports.10.1.1.2", kOtherHostPorts);
        zov_quillset_set_lockdir_for_test(fake.dir().c_str());
    }
    void TearDown() override { zov_quillset_set_lockdir_for_test(nullptr); }
    void arm(Quillset& q, bool vxdisk = true) {
        q->m_tilloscli = tillo;
        if (vxdisk) {
            fake.tool("vxdisk", "");
            q->m_cmdPaths.AddDirectories(fake.dir().c_str());
        }
    }
};

TEST_F(SgOps, PortListPurgesTheFrameWithoutGroupAndTheGroupListFillsTheRows) {
    Quillset q({"10.1.1.2", "10.1.1.1"});
    arm(q);
    fake.write("pairs", "1 17\n2 18\n");
    EXPECT_EQ(q->ncli_portlist(), nullptr);
    EXPECT_EQ(q->m_ipaddrlist, std::vector<std::string>{"10.1.1.1"});
    EXPECT_EQ(q->ncli_storagegrouplist(), nullptr);
    ASSERT_EQ(q->m_storagegrouplist.size(), 1u);
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.size(), 2u);
    EXPECT_EQ(fake.commands(), (std::vector<std::string>{
                                   "tilloseccli -h 10.1.1.1 port -list -hba",
                                   "tilloseccli -h 10.1.1.2 port -list -hba",
                                   "tilloseccli -h 10.1.1.1 storagegroup -list -host",
                               }));
}

TEST_F(SgOps, AddCloneTakesTheNextHluInOnePassAndRecordsIt) {
    Quillset q;
    arm(q);
    fake.write("pairs", "1 17\n2 18\n3 19\n");
    EXPECT_EQ(q->addCloneToStorageGroup("prod_sg", 42), nullptr);
    EXPECT_EQ(fake.commands().back(),
              "tilloseccli -h 10.1.1.1 storagegroup -addhlu -gname prod_sg -hlu 4 -alu 42");
    EXPECT_EQ(fake.read("pairs"), "1 17\n2 18\n3 19\n4 42\n");
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.back().hlu, 4);
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.back().alu, 42);
}

TEST_F(SgOps, AddCloneOnePassCanCollideWhenTheListIsOutOfOrder) {
    Quillset q;
    arm(q);
    fake.write("pairs", "3 19\n2 18\n1 17\n");
    EXPECT_EQ(q->addCloneToStorageGroup("prod_sg", 42), nullptr);
    EXPECT_EQ(fake.commands().back(),
              "tilloseccli -h 10.1.1.1 storagegroup -addhlu -gname prod_sg -hlu 2 -alu 42");
}

TEST_F(SgOps, FullGroupRefusesTheNextHluWithTheReusedText) {
    Quillset q;
    arm(q);
    std::string pairs;
    for (int h = 1; h <= 255; h++) pairs += std::to_string(h) + " " + std::to_string(h + 1000) + "\n";
    fake.write("pairs", pairs);
    SSError* err = q->addCloneToStorageGroup("prod_sg", 42);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_CONFIGURATION);
    EXPECT_NE(std::string(err->getErrMsg()).find("Unable to locate tillocli in standard locations."),
              std::string::npos);
    delete err;
    EXPECT_EQ(fake.commands().back(), "tilloseccli -h 10.1.1.1 storagegroup -list -host");
}

TEST_F(SgOps, WithoutVxdiskNothingIsRunAndTheMoveSucceeds) {
    Quillset q;
    arm(q, false);
    if (!q->m_cmdPaths.findCmdPath("vxdisk").empty()) GTEST_SKIP() << "this host has vxdisk";
    EXPECT_EQ(q->addCloneToStorageGroup("prod_sg", 42), nullptr);
    EXPECT_EQ(q->removeCloneFromStorageGroup("prod_sg", 42), nullptr);
    EXPECT_TRUE(fake.commands().empty());
    EXPECT_EQ(q.log.count("Veritas is not installed.  Not moving clone LUN into storage group", 3), 1);
}

TEST_F(SgOps, NoGroupReadIsACriticalInternalError) {
    Quillset q({"10.1.1.2"});
    arm(q);
    SSError* err = q->addCloneToStorageGroup("prod_sg", 42);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INTERNAL_ERROR);
    delete err;
    EXPECT_EQ(q.log.count("The storage group list is not populated.", 3), 1);
}

TEST_F(SgOps, LockThatCannotBeTakenIsAnInternalErrorAndNothingIsAdded) {
    Quillset q;
    arm(q);
    zov_quillset_set_lockdir_for_test((fake.dir() + "/no/such/dir").c_str());
    SSError* err = q->addCloneToStorageGroup("prod_sg", 42);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INTERNAL_ERROR);
    EXPECT_NE(std::string(err->getErrMsg()).find("Unknown exception"), std::string::npos);
    delete err;
    EXPECT_EQ(fake.read("pairs"), "");
}

TEST_F(SgOps, RemoveCloneUsesTheHluOfTheAluAndKeepsTheCachedPair) {
    Quillset q;
    arm(q);
    fake.write("pairs", "1 17\n5 42\n");
    delete q->ncli_portlist();
    delete q->ncli_storagegrouplist();
    EXPECT_EQ(q->removeCloneFromStorageGroup("prod_sg", 42), nullptr);
    EXPECT_EQ(fake.commands().back(),
              "tilloseccli -h 10.1.1.1 storagegroup -removehlu -gname prod_sg -hlu 5 -o");
    EXPECT_EQ(fake.read("pairs"), "1 17\n");
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.size(), 2u);
    // An ALU in no group runs nothing.
    size_t n = fake.commands().size();
    EXPECT_EQ(q->removeCloneFromStorageGroup("prod_sg", 99), nullptr);
    EXPECT_EQ(fake.commands().size(), n);
    EXPECT_EQ(q.log.count("Failed to find clone lun [99] within a storagegroup.", 3), 1);
}

// Each child process adds one clone; the host lock must keep their choices
// of HLU apart even though both read the group at the same moment.
TEST_F(SgOps, ProcessesAddingAtOnceNeverPickTheSameHlu) {
    fake.write("pairs", "1 17\n");
    const int kProcs = 4;
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    std::vector<pid_t> kids;
    for (int i = 0; i < kProcs; i++) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(go[1]);
            char c;
            if (read(go[0], &c, 1) < 0) _exit(3);
            Quillset q;
            arm(q);
            SSError* err = q->addCloneToStorageGroup("prod_sg", 100 + i);
            _exit(err == nullptr ? 0 : 1);
        }
        kids.push_back(pid);
    }
    close(go[0]);
    close(go[1]);  // release all children at once
    for (pid_t pid : kids) {
        int st = 0;
        ASSERT_EQ(waitpid(pid, &st, 0), pid);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    std::istringstream in(fake.read("pairs"));
    std::set<int> hlus;
    int lines = 0;
    for (int h, a; in >> h >> a; lines++) hlus.insert(h);
    EXPECT_EQ(lines, kProcs + 1);
    EXPECT_EQ(hlus.size(), (size_t)lines) << fake.read("pairs");
}

TEST_F(SgOps, MoverUidComesFromTheGroupListingThisHost) {
    Quillset q;
    arm(q);
    fake.tool("tilloseccli", std::string("printf 'Storage Group Name:  mover_sg\\nStorage Group UID:  "
                                         "DE:AD:BE:EF\\n  Host name:  ") +
                                 sgtest::this_host() + "\\nShareable:  YES\\n'");
    std::string uid;
    EXPECT_EQ(q->getStorageGroupUID("ignored", uid), nullptr);
    EXPECT_EQ(uid, "DE:AD:BE:EF");
    EXPECT_EQ(q->m_MoverSTGName, "mover_sg");
    EXPECT_EQ(fake.commands().back(), "tilloseccli -h 10.1.1.1 storagegroup -list -host");
}

TEST_F(SgOps, MissingToolIsAConfigurationError) {
    Quillset q;
    q->m_tilloscli.clear();
    q->m_cmdPaths = CMD("/nonexistent");
    // Only directories without the tool remain when PATH holds none.
    if (!q->GetTilloCliExe().empty()) GTEST_SKIP() << "a real tilloseccli is installed";
    SSError* err = q->ncli_portlist();
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_CONFIGURATION);
    delete err;
    std::vector<std::string> list{"keep"};
    err = q->getStorageGroupLunList("mover", list);
    ASSERT_NE(err, nullptr);
    delete err;
    EXPECT_EQ(list, std::vector<std::string>{"keep"});
}

}  // namespace
