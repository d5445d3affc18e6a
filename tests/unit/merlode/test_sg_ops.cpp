// Storage group and port operations against the array simulator: the command
// lines issued, the caches filled, the purge of frames without a group of
// this host, the HLU choice, faults, and the host lock held across processes.
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_sim.h"

using sgsim::Sim;
using sgtest::Quillset;

namespace {

const std::string kFrame0 = SimArray::addr(0);
const std::string kFrame1 = SimArray::addr(1);

std::string my_group() {
    return "SG_" + sgsim::host();
}

// Lock files go to a private folder: /vmr/tmp may not exist or be shared.
struct LockDir {
    TempDir dir;
    LockDir() { zov_quillset_set_lockdir_for_test(dir.path().c_str()); }
    ~LockDir() { zov_quillset_set_lockdir_for_test(nullptr); }
};

int code_of(SSError* err) {
    int c = err != nullptr ? (int)err->getErrCode() : 0;
    delete err;
    return c;
}

TEST(SgSim, PortListPurgesTheFrameWithoutGroupAndTheGroupListFillsTheRows) {
    Sim sim({"--frames", "3", "--luns", "2"});
    SKIP_WITHOUT_SIM_OR_FAIL(sim);
    Quillset q({SimArray::addr(2), kFrame1, kFrame0});
    // This host's group on frame 1 goes; the simulator then lists no HBA of
    // this host with a group there.
    {
        std::ifstream in(sim.array.dir() + "/state");
        std::stringstream all;
        all << in.rdbuf();
        std::string text = all.str();
        std::string line = "group frame=1 name=" + my_group();
        size_t at = text.find(line);
        ASSERT_NE(at, std::string::npos);
        text.erase(at, text.find('\n', at) + 1 - at);
        std::ofstream(sim.array.dir() + "/state") << text;
    }
    sim.array.clear_commands();
    EXPECT_EQ(q->ncli_portlist(), nullptr);
    EXPECT_EQ(q->m_ipaddrlist, (std::vector<std::string>{kFrame0, SimArray::addr(2)}));
    EXPECT_EQ(q.log.count("ipaddr:" + kFrame1 + " purged", 9), 1);
    // One row per HBA: the same group name through the same HBA on a later
    // frame is a duplicate.
    ASSERT_EQ(q->m_storagegrouplist.size(), 2u);
    for (const storagegroup& sg : q->m_storagegrouplist) EXPECT_EQ(sg.stgName, my_group());
    EXPECT_EQ(q->m_storagegrouplist[0].frameIp, kFrame0);
    EXPECT_EQ(q->m_storagegrouplist[0].HBAdevName, "fc0");
    EXPECT_EQ(q->m_storagegrouplist[1].HBAdevName, "fc1");

    EXPECT_EQ(q->ncli_storagegrouplist(), nullptr);
    // Rows are found by name: both frames' pairs land in each row, in
    // listing order.
    auto want = sgsim::group_pairs(sim.array, 0, my_group());
    auto more = sgsim::group_pairs(sim.array, 2, my_group());
    want.insert(want.end(), more.begin(), more.end());
    for (const storagegroup& sg : q->m_storagegrouplist) {
        std::vector<std::pair<int, int>> got;
        for (const hlualu& h : sg.hlualuList) got.push_back({h.hlu, h.alu});
        EXPECT_EQ(got, want) << sg.HBAdevName;
    }
    // A second listing adds nothing it already has.
    EXPECT_EQ(q->ncli_storagegrouplist(), nullptr);
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.size(), want.size());
    EXPECT_EQ(sim.array.commands(),
              (std::vector<std::string>{
                  "tilloseccli -h " + kFrame0 + " port -list -hba",
                  "tilloseccli -h " + kFrame1 + " port -list -hba",
                  "tilloseccli -h " + SimArray::addr(2) + " port -list -hba",
                  "tilloseccli -h " + kFrame0 + " storagegroup -list -host",
                  "tilloseccli -h " + SimArray::addr(2) + " storagegroup -list -host",
                  "tilloseccli -h " + kFrame0 + " storagegroup -list -host",
                  "tilloseccli -h " + SimArray::addr(2) + " storagegroup -list -host",
              }));
}

// The second table form shows HLUs only. Where its rows keep the header's
// indentation the number capture comes out empty, and the HLU keeps the
// value it had (0 before any row), so the next free HLU is misjudged.
TEST(SgSim, SecondTableFormGivesPlaceholderAlusAndIndentedRowsNoNumber) {
    Sim sim({"--frames", "1", "--luns", "2"});
    SKIP_WITHOUT_SIM_OR_FAIL(sim);
    struct Case {
        const char* form;
        bool numbered;
    } cases[] = {{"form=2", true}, {"form=3", false}};
    for (const Case& c : cases) {
        sim.admin({"set", "group", "0", my_group(), c.form});
        Quillset q({kFrame0});
        delete q->ncli_portlist();
        EXPECT_EQ(q->ncli_storagegrouplist(), nullptr);
        ASSERT_FALSE(q->m_storagegrouplist.empty());
        std::vector<int> hlus;
        for (const hlualu& h : q->m_storagegrouplist[0].hlualuList) {
            EXPECT_EQ(h.alu, 77777777) << c.form;
            hlus.push_back(h.hlu);
        }
        std::vector<int> want;
        for (const auto& p : sgsim::group_pairs(sim.array, 0, my_group()))
            want.push_back(c.numbered ? p.first : 0);
        EXPECT_EQ(hlus, want) << c.form;
    }
}

struct SgMove : ::testing::Test {
    LockDir lockdir;
    std::unique_ptr<sgsim::Scenario> scen;
    std::unique_ptr<Sim> sim;
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        scen.reset(new sgsim::Scenario(sgsim::clone_move_scenario(8)));
        sim.reset(new Sim(scen->init_args()));
        ASSERT_TRUE(sim->ok());
        sim->array.clear_commands();
    }
};

TEST_F(SgMove, AddCloneTakesTheNextHluAndTheDeviceAppears) {
    Quillset q({kFrame0});
    ASSERT_FALSE(q->m_cmdPaths.findCmdPath("vxdisk").empty());
    EXPECT_EQ(q->addCloneToStorageGroup(my_group(), 5), nullptr);
    EXPECT_EQ(q->addCloneToStorageGroup(my_group(), 6), nullptr);
    EXPECT_EQ(sgsim::group_pairs(sim->array, 0, my_group()),
              (std::vector<std::pair<int, int>>{{0, 0}, {1, 5}, {2, 6}}));
    auto adds = sgsim::commands_with(sim->array, "-addhlu");
    ASSERT_EQ(adds.size(), 2u);
    // The line ends in a blank, as built.
    EXPECT_EQ(adds[1], "tilloseccli -h " + kFrame0 + " storagegroup -addhlu -gname " + my_group() +
                           " -hlu 2 -alu 6");
    EXPECT_EQ(sim->array.commands()[0], "tilloseccli -h " + kFrame0 + " port -list -hba");
    EXPECT_EQ(sim->array.commands()[1], "tilloseccli -h " + kFrame0 + " storagegroup -list -host");
    // The cache holds what was added.
    ASSERT_FALSE(q->m_storagegrouplist.empty());
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.back().hlu, 2);
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.back().alu, 6);
    EXPECT_FALSE(sgsim::field(sim->array, "lun", "num", "6", "num").empty());
    // The lock file is gone after the release.
    EXPECT_NE(access((lockdir.dir.path() + "/vmr_merlode_access.lck").c_str(), F_OK), 0);
}

TEST_F(SgMove, RemoveCloneUsesTheHluOfTheAluAndKeepsTheCachedPair) {
    Quillset q({kFrame0});
    ASSERT_EQ(q->addCloneToStorageGroup(my_group(), 3), nullptr);
    EXPECT_EQ(q->removeCloneFromStorageGroup(my_group(), 3), nullptr);
    EXPECT_EQ(sim->array.commands().back(), "tilloseccli -h " + kFrame0 +
                                                " storagegroup -removehlu -gname " + my_group() +
                                                " -hlu 1 -o");
    EXPECT_EQ(sgsim::group_pairs(sim->array, 0, my_group()),
              (std::vector<std::pair<int, int>>{{0, 0}}));
    EXPECT_EQ(q->m_storagegrouplist[0].hlualuList.back().alu, 3);
    // An ALU in no group runs nothing.
    size_t n = sim->array.commands().size();
    EXPECT_EQ(q->removeCloneFromStorageGroup(my_group(), 7), nullptr);
    EXPECT_EQ(sim->array.commands().size(), n);
    EXPECT_EQ(q.log.count("Failed to find clone lun [7] within a storagegroup.", 3), 1);
}

TEST_F(SgMove, ArrayRefusingTheAddIsNotNoticed) {
    Quillset q({kFrame0});
    // LUN 0 is already in the group: the array refuses, the module can't tell.
    EXPECT_EQ(q->addCloneToStorageGroup(my_group(), 0), nullptr);
    EXPECT_EQ(sgsim::group_pairs(sim->array, 0, my_group()).size(), 1u);
    EXPECT_EQ(q.log.count("command failed"), 1);
}

TEST_F(SgMove, WithoutVxdiskNothingIsRunAndTheMoveSucceeds) {
    sim->admin({"set", "option", "vxdisk=0"});
    sim->array.clear_commands();
    Quillset q({kFrame0});
    if (!q->m_cmdPaths.findCmdPath("vxdisk").empty()) GTEST_SKIP() << "this host has vxdisk";
    EXPECT_EQ(q->addCloneToStorageGroup(my_group(), 5), nullptr);
    EXPECT_EQ(q->removeCloneFromStorageGroup(my_group(), 0), nullptr);
    EXPECT_TRUE(sim->array.commands().empty());
    EXPECT_EQ(q.log.count("Veritas is not installed.  Not moving clone LUN into storage group", 3),
              1);
    EXPECT_EQ(
        q.log.count("Veritas is not installed.  Not moving clone LUN out of storage group", 3), 1);
}

TEST_F(SgMove, LockThatCannotBeTakenIsAnInternalErrorAndNothingIsAdded) {
    Quillset q({kFrame0});
    zov_quillset_set_lockdir_for_test((lockdir.dir.path() + "/no/such/dir").c_str());
    SSError* err = q->addCloneToStorageGroup(my_group(), 5);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INTERNAL_ERROR);
    EXPECT_NE(std::string(err->getErrMsg()).find("Unknown exception"), std::string::npos);
    delete err;
    EXPECT_TRUE(sgsim::commands_with(sim->array, "-addhlu").empty());
    EXPECT_TRUE(sgsim::commands_with(sim->array, "storagegroup -list").empty());
}

TEST_F(SgMove, FrameThatIsDownLeavesNoGroupAndTheAddFails) {
    sim->admin({"set", "frame", "0", "down=1"});
    Quillset q({kFrame0});
    EXPECT_EQ(code_of(q->addCloneToStorageGroup(my_group(), 5)), SS_EC_INTERNAL_ERROR);
    EXPECT_EQ(q.log.count("The storage group list is not populated.", 3), 1);
    EXPECT_TRUE(q->m_ipaddrlist.empty());  // purged: nothing of this host there
}

TEST_F(SgMove, FaultyOutputNeverCrashesAndFindsNoGroup) {
    for (const char* kind : {"garbage", "refuse"}) {
        sim->admin({"fault", "clear"});
        sim->admin({"fault", "add", "tilloseccli", kind, "--match", "port -list"});
        Quillset q({kFrame0});
        EXPECT_EQ(code_of(q->addCloneToStorageGroup(my_group(), 5)), SS_EC_INTERNAL_ERROR) << kind;
        EXPECT_TRUE(q->m_storagegrouplist.empty()) << kind;
    }
    EXPECT_TRUE(sgsim::commands_with(sim->array, "-addhlu").empty());
}

TEST_F(SgMove, LongLineBeforeTheListingsStillFindsTheGroup) {
    sim->admin({"fault", "add", "tilloseccli", "longline"});
    Quillset q({kFrame0});
    EXPECT_EQ(q->addCloneToStorageGroup(my_group(), 5), nullptr);
    EXPECT_EQ(sgsim::group_pairs(sim->array, 0, my_group()).back(), std::make_pair(1, 5));
}

TEST_F(SgMove, MissingToolIsAConfigurationErrorAndRunsNothing) {
    sim->admin({"fault", "add", "tilloseccli", "missing"});
    sim->array.clear_commands();
    Quillset q({kFrame0});
    if (!q->GetTilloCliExe().empty()) GTEST_SKIP() << "a real tilloseccli is installed";
    EXPECT_EQ(code_of(q->ncli_portlist()), SS_EC_INVALID_CONFIGURATION);
    EXPECT_EQ(code_of(q->ncli_storagegrouplist()), SS_EC_INVALID_CONFIGURATION);
    EXPECT_EQ(code_of(q->addCloneToStorageGroup(my_group(), 5)), SS_EC_INVALID_CONFIGURATION);
    std::vector<std::string> list{"keep"};
    EXPECT_EQ(code_of(q->getStorageGroupLunList("mover1", list)), SS_EC_INVALID_CONFIGURATION);
    EXPECT_EQ(list, std::vector<std::string>{"keep"});
    EXPECT_TRUE(sim->array.commands().empty());
}

TEST(SgSim, MoverUidComesFromTheGroupListingThisHost) {
    Sim sim({"--frames", "2", "--luns", "1"});
    SKIP_WITHOUT_SIM_OR_FAIL(sim);
    Quillset q({kFrame0, kFrame1});
    sim.array.clear_commands();
    std::string uid;
    EXPECT_EQ(q->getStorageGroupUID("ignored", uid), nullptr);
    // The last frame's answer stands.
    auto groups = sgsim::records(sim.array, "group");
    ASSERT_EQ(groups.size(), 4u);
    EXPECT_EQ(groups[2]["frame"] + " " + groups[2]["name"], "1 " + my_group());
    EXPECT_EQ(uid, groups[2]["uid"]);
    EXPECT_EQ(q->m_MoverSTGName, my_group());
    EXPECT_EQ(
        sim.array.commands(),
        (std::vector<std::string>{"tilloseccli -h " + kFrame0 + " storagegroup -list -host",
                                  "tilloseccli -h " + kFrame1 + " storagegroup -list -host"}));
    // The mount host's lookup fills the rows only, never the list.
    std::vector<std::string> list;
    delete q->ncli_portlist();
    EXPECT_EQ(q->getStorageGroupLunList("mover1", list), nullptr);
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(q->m_storagegrouplist.empty());
    EXPECT_FALSE(q->m_storagegrouplist[0].hlualuList.empty());
}

// ------------------------------------------------------------ the host lock

// Sleeps of the lock's retries, shortened: a waiter tries again soon, and
// gives up (and its caller tries again) sooner than the real second would.
KVError short_sleep(uint32_t ms) {
    struct timespec ts = {0, (long)(ms / 100 + 1) * 1000000L};
    nanosleep(&ts, nullptr);
    return 0;
}

// Runs in a child process: adds each ALU of `alus`, each through a fresh
// object as separate snapshots would, and tries again while the host lock
// can't be had. Exit 0 when all were added.
int add_clones(const std::vector<int>& alus, bool own_process = true) {
    if (own_process) kv_set_sleep_hook(short_sleep);
    for (int alu : alus) {
        bool done = false;
        for (int attempt = 0; attempt < 400 && !done; attempt++) {
            Quillset q({kFrame0});
            SSError* err = q->addCloneToStorageGroup(my_group(), alu);
            int code = err != nullptr ? (int)err->getErrCode() : 0;
            delete err;
            if (code == 0)
                done = true;
            else if (code != SS_EC_INTERNAL_ERROR)
                return 2;  // lock busy: anything else is a fault
        }
        if (!done) return 3;
    }
    return 0;
}

// The lock file is removed at each release; processes that open it around a
// removal must still never hold the lock at the same time, or two of them
// read the same group and pick the same HLU.
TEST_F(SgMove, ProcessesAddingAtOnceNeverPickTheSameHlu) {
    const int kProcs = 4, kEach = 4;
    scen.reset(new sgsim::Scenario(sgsim::clone_move_scenario(1 + kProcs * kEach)));
    sim.reset();
    sim.reset(new Sim(scen->init_args()));
    ASSERT_TRUE(sim->ok());
    sim->array.clear_commands();
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    std::vector<pid_t> kids;
    for (int i = 0; i < kProcs; i++) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(go[1]);
            char c;
            if (read(go[0], &c, 1) < 0) _exit(4);
            std::vector<int> alus;
            for (int k = 0; k < kEach; k++) alus.push_back(1 + i * kEach + k);
            _exit(add_clones(alus));
        }
        kids.push_back(pid);
    }
    close(go[0]);
    close(go[1]);  // releases all children at once
    for (pid_t pid : kids) {
        int st = 0;
        ASSERT_EQ(waitpid(pid, &st, 0), pid);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "child status " << st;
    }
    // Each HLU was asked for once, and the array holds every clone.
    std::set<std::string> hlus;
    for (const std::string& c : sgsim::commands_with(sim->array, "-addhlu")) {
        size_t h = c.find(" -hlu ");
        EXPECT_TRUE(hlus.insert(c.substr(h, c.find(" -alu") - h)).second) << c;
    }
    auto pairs = sgsim::group_pairs(sim->array, 0, my_group());
    ASSERT_EQ(pairs.size(), (size_t)(1 + kProcs * kEach));
    std::set<int> seen_hlu, seen_alu;
    for (const auto& p : pairs) {
        seen_hlu.insert(p.first);
        seen_alu.insert(p.second);
    }
    EXPECT_EQ(seen_hlu.size(), pairs.size());
    EXPECT_EQ(seen_alu.size(), pairs.size());
    EXPECT_EQ(*seen_hlu.rbegin(), kProcs * kEach);  // 1 to N in some order
    EXPECT_NE(access((lockdir.dir.path() + "/vmr_merlode_access.lck").c_str(), F_OK), 0);
}

// fcntl locks belong to the process: two threads of one process, each with
// its own object and its own descriptor of the lock file, must still take
// turns.
TEST_F(SgMove, ThreadsAddingAtOnceNeverPickTheSameHlu) {
    const int kThreads = 3, kEach = 4;
    scen.reset(new sgsim::Scenario(sgsim::clone_move_scenario(1 + kThreads * kEach)));
    sim.reset();
    sim.reset(new Sim(scen->init_args()));
    ASSERT_TRUE(sim->ok());
    kv_sleep_hook_t old = kv_set_sleep_hook(short_sleep);
    std::vector<int> results(kThreads, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([i, &results] {
            std::vector<int> alus;
            for (int k = 0; k < kEach; k++) alus.push_back(1 + i * kEach + k);
            results[i] = add_clones(alus, false);
        });
    }
    for (std::thread& t : threads) t.join();
    kv_set_sleep_hook(old);
    EXPECT_EQ(results, std::vector<int>(kThreads, 0));
    auto pairs = sgsim::group_pairs(sim->array, 0, my_group());
    std::set<int> seen_hlu;
    for (const auto& p : pairs) seen_hlu.insert(p.first);
    EXPECT_EQ(pairs.size(), (size_t)(1 + kThreads * kEach));
    EXPECT_EQ(seen_hlu.size(), pairs.size());
}

KVError no_sleep(uint32_t) {
    return 0;
}

// A child forked while a thread of its parent holds the host lock inherits
// neither the file lock nor that thread: it must go to the file and find the
// parent's lock there, not wait for a release that can't come to it.
TEST(SgLock, ChildForkedWhileTheLockIsHeldAsksTheFileNotTheParentsThreads) {
    LockDir lockdir;
    Quillset q;
    int fd = q->set_file_lock(0);
    ASSERT_GE(fd, 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        alarm(20);  // a hang ends the child, and the test fails
        kv_set_sleep_hook(no_sleep);
        Quillset child;
        int busy = child->set_file_lock(0);
        int nb = child->set_file_lock(1);
        _exit(busy == -1 && nb == -1 && child.log.count("cannot acquire lock", 3) == 2 ? 0 : 1);
    }
    int st = 0;
    ASSERT_EQ(waitpid(pid, &st, 0), pid);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "child status " << st;
    q->set_file_unlock(fd);
    // Released: the next taker in this process gets it at once.
    int again = q->set_file_lock(1);
    EXPECT_GE(again, 0);
    q->set_file_unlock(again);
}

}  // namespace
