// Mirror snapshots through the loader's interface against a simulated array:
// the production life with its consistent split, the mount host's life,
// rollback with task polling, the failure paths, and threads.
#include <regex>
#include <thread>

#include "tests/integration/cow_fixture.h"

namespace {

using cowtest::Array;
using cowtest::Loader;

const std::string kG0 = "50:06:01:60:00:00:00:00:00:00:00:00:C1:00:00:00";
const std::string kG1 = "50:06:01:60:00:00:00:00:00:00:00:00:C1:00:00:01";
const std::string kId1 = "0100000000000000";

class MirrorLife : public ::testing::Test {
protected:
    MirrorLife()
        : array({"--frames", "1", "--clone-groups", "3", "--clones", "2", "--sync-steps", "2"}) {}
    void SetUp() override {
        ASSERT_TRUE(array.ok()) << "simulated array";
        loader.reset(new Loader);
        ASSERT_TRUE(loader->ok()) << loader->text;
        loader->tech = "MIRROR";
    }
    // A clone's field as the array lists it.
    std::string clone_field(const std::string& group, const std::string& id,
                            const std::string& key) {
        std::string out;
        array.admin({"tilloseccli", "-h", "198.18.0.1", "quillset", "-listclone", "-CloneGroupUid",
                     group, "-CloneId", id, "-all"},
                    &out);
        size_t at = out.find(key + ":");
        if (at == std::string::npos) return "";
        size_t b = out.find_first_not_of(" ", at + key.size() + 1);
        return out.substr(b, out.find('\n', b) - b);
    }
    std::string rate(const std::string& group, const std::string& id = kId1) {
        return clone_field(group, id, "SyncRate");
    }
    void set_clone(const std::string& group_name, const std::string& id,
                   const std::vector<std::string>& fields) {
        std::vector<std::string> args{"set", "clone", group_name, id};
        args.insert(args.end(), fields.begin(), fields.end());
        ASSERT_EQ(array.admin(args), 0);
    }
    ldr::ISnapshot* validated(const std::string& guid, const std::string& details) {
        ldr::ISnapshot* s = loader->from_handle(guid, details);
        if (s != nullptr && loader->take(s->validate(nullptr))) {
            loader->finish(s);
            return nullptr;
        }
        return s;
    }
    Array array;
    std::unique_ptr<Loader> loader;
};

TEST_F(MirrorLife, ProductionSplitThenMountHostLife) {
    std::string guid, details;
    ASSERT_TRUE(loader->take_snapshot({array.dev("sdd"), array.dev("sdg")}, guid, details))
        << loader->text << loader->errors;

    // Each source's record names its clone group, clone, clone LUN, source
    // LUN, whether the clone was fractured when chosen, the delete rule and
    // the time.
    std::regex form("KVTv1;198\\.18\\.0\\.1:198\\.18\\.0\\.2;" + kG0 + "-" + kId1 +
                    "-8-000-No-Retain-[0-9]{12}\\|" + array.dev("sdd") + ";" + kG1 + "-" + kId1 +
                    "-10-001-No-Retain-[0-9]{12}\\|" + array.dev("sdg"));
    EXPECT_TRUE(std::regex_match(details, form)) << details;
    EXPECT_EQ(rate(kG0), "3981");
    EXPECT_EQ(rate(kG1), "3981");
    // Both clones were split by one consistent fracture.
    ASSERT_EQ(array.log_lines("-consistentfractureclones").size(), 1u);
    EXPECT_NE(array.log_lines("-consistentfractureclones")[0].find(
                  "-CloneGroupUidCloneId " + kG0 + " " + kId1 + " " + kG1 + " " + kId1),
              std::string::npos);
    EXPECT_EQ(clone_field(kG0, kId1, "IsFractured"), "Yes");

    ldr::ISnapshot* mh = validated(guid, details);
    ASSERT_NE(mh, nullptr) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    ldr::SCSnapshotHandle* again = nullptr;
    ASSERT_FALSE(loader->take(mh->getSnapshotHandle(again)));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(again->m_pdetails)), details);
    cowtest::module().freeSSObject(again);

    ldr::SSSourceList* srcs = ldr::make_sources({array.dev("sdd"), array.dev("sdg")});
    ASSERT_FALSE(loader->take(mh->mount(srcs))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::READY);
    ldr::SSSourceList* paths = nullptr;
    ASSERT_FALSE(loader->take(mh->getSnapshotAccessPath(srcs, paths))) << loader->text;
    // The clones' devices on this host, as its volume map names them.
    EXPECT_EQ(ldr::names_of(paths), (std::vector<std::string>{"/dev/sdz", "/dev/sdad"}));
    cowtest::module().freeSSObject(paths);
    EXPECT_TRUE(loader->take(mh->mount(srcs)));  // mounted already: illegal state
    EXPECT_EQ(loader->code, 10);
    ASSERT_FALSE(loader->take(mh->unmount(srcs))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);

    // Delete releases the clones and, under "Retain", starts their sync.
    ASSERT_FALSE(loader->take(mh->deleteSnapshot())) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::ERROR);
    EXPECT_EQ(rate(kG0), "high");
    EXPECT_EQ(rate(kG1), "high");
    EXPECT_EQ(array.log_lines("-syncclone").size(), 2u);
    delete srcs;
    loader->finish(mh);
}

TEST_F(MirrorLife, FracturedCloneMakesPrepareWaitForTheStatusPoll) {
    set_clone("CloneGrp_0", kId1,
              {"state=Consistent", "cond=Administratively Fractured", "fractured=1"});
    ldr::ISnapshot* s = loader->production();
    ASSERT_NE(s, nullptr) << loader->text;
    ldr::SSSourceList* srcs = ldr::make_sources({array.dev("sdd")});
    ASSERT_FALSE(loader->take(s->addComponent(srcs)));
    ldr::SSTaskId task = -1;
    ASSERT_FALSE(loader->take(s->prepareForSnapshot(nullptr, nullptr, task))) << loader->text;
    EXPECT_EQ(task, 1);
    EXPECT_EQ(s->getSnapshotState(), ldr::PREPARE_IN_PROGRESS);
    // Asked for too early, the snapshot is refused and nothing is split.
    EXPECT_TRUE(loader->take(s->snapshot(nullptr, task)));
    EXPECT_EQ(loader->code, 10);
    int polls = 0, status = 1;
    while (status == 1 && polls < 20) {
        ldr::SSError* taskErr = nullptr;
        ASSERT_FALSE(loader->take(s->getTaskStatus(1, status, taskErr)));
        polls++;
    }
    EXPECT_EQ(status, 2);
    EXPECT_GT(polls, 1);
    EXPECT_EQ(s->getSnapshotState(), ldr::PREPARED);
    ASSERT_FALSE(loader->take(s->snapshot(nullptr, task))) << loader->text;
    EXPECT_EQ(task, 2);
    // One clone: a single fracture, never a consistent one.
    EXPECT_EQ(array.log_lines("-fractureclone ").size(), 1u);
    EXPECT_TRUE(array.log_lines("-consistentfractureclones").empty());
    ldr::SCSnapshotHandle* h = nullptr;
    ASSERT_FALSE(loader->take(s->getSnapshotHandle(h)));
    EXPECT_NE(std::string(reinterpret_cast<char*>(h->m_pdetails)).find("-8-000-Yes-Retain-"),
              std::string::npos);
    cowtest::module().freeSSObject(h);
    delete srcs;
    loader->finish(s);
}

TEST_F(MirrorLife, RollbackIsPolledToItsEnd) {
    std::string guid, details;
    ASSERT_TRUE(loader->take_snapshot({array.dev("sdd")}, guid, details)) << loader->text;
    ldr::ISnapshot* s = validated(guid, details);
    ASSERT_NE(s, nullptr) << loader->text;
    ldr::SSSourceList* srcs = ldr::make_sources({array.dev("sdd")});
    ldr::SSTaskId task = -1;
    ASSERT_FALSE(loader->take(s->rollBack(srcs, nullptr, task))) << loader->text;
    EXPECT_EQ(task, 3);
    EXPECT_EQ(s->getSnapshotState(), ldr::UNINIT);
    EXPECT_EQ(rate(kG0), "high");
    ASSERT_EQ(array.log_lines("-reversesyncclone").size(), 1u);
    int status = 1, polls = 0;
    while (status == 1 && polls < 20) {
        ldr::SSError* taskErr = nullptr;
        ASSERT_FALSE(loader->take(s->getTaskStatus(3, status, taskErr)));
        polls++;
    }
    EXPECT_EQ(status, 2);
    EXPECT_EQ(clone_field(kG0, kId1, "CloneState"), "Synchronized");
    // An unknown task number is an error of its own.
    int st = 0;
    ldr::SSError* taskErr = nullptr;
    EXPECT_TRUE(loader->take(s->getTaskStatus(4, st, taskErr)));
    EXPECT_EQ(st, 0);
    EXPECT_NE(loader->text.find("No such task: 4"), std::string::npos);
    delete srcs;
    loader->finish(s);
}

TEST_F(MirrorLife, FailurePathsEndInTheirErrorsAndLeaveNoReservation) {
    // No free clone under FREE: every clone is in sync.
    {
        loader->extra_attrs = {{"MERL_RES_USE_POLICY", "FREE"}};
        ldr::attrlist* policy = ldr::make_attr("MERL_RES_USE_POLICY", {"FREE"});
        loader->prepare_attrs = policy;
        std::string guid, details;
        EXPECT_FALSE(loader->take_snapshot({array.dev("sdd")}, guid, details));
        EXPECT_EQ(loader->code, 5);
        EXPECT_NE(loader->text.find("Failed to find a valid clone candidate for device"),
                  std::string::npos);
        EXPECT_EQ(rate(kG0), "high");
        loader->prepare_attrs = nullptr;
        loader->extra_attrs.clear();
        ldr::free_attrs(policy);
    }
    // A clone split behind the module's back makes the consistent fracture
    // fail; the snapshot still ends valid, as only the log can tell.
    std::string guid, details;
    {
        ldr::ISnapshot* s = loader->production();
        ldr::SSSourceList* srcs = ldr::make_sources({array.dev("sdd"), array.dev("sdg")});
        ldr::SSTaskId task = -1;
        ASSERT_FALSE(loader->take(s->addComponent(srcs)));
        ASSERT_FALSE(loader->take(s->prepareForSnapshot(nullptr, nullptr, task)));
        set_clone("CloneGrp_1", kId1,
                  {"state=Consistent", "cond=Administratively Fractured", "fractured=1"});
        EXPECT_TRUE(loader->take(s->snapshot(nullptr, task)));
        EXPECT_EQ(loader->code, 27);
        EXPECT_EQ(s->getSnapshotState(), ldr::VALID);
        ldr::SCSnapshotHandle* h = nullptr;
        ASSERT_FALSE(loader->take(s->getSnapshotHandle(h)));
        guid = reinterpret_cast<char*>(h->m_pguid);
        details = reinterpret_cast<char*>(h->m_pdetails);
        cowtest::module().freeSSObject(h);
        delete srcs;
        loader->finish(s);
    }
    // The first clone was never split: validate refuses the snapshot.
    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr);
    EXPECT_TRUE(loader->take(mh->validate(nullptr)));
    EXPECT_EQ(loader->code, 21);
    EXPECT_NE(loader->text.find("Failed to validate clone ID (" + kId1 + ")"), std::string::npos);
    loader->finish(mh);

    // Once both are split, a mount of an unknown source is refused, and a
    // delete after the clone was released elsewhere still succeeds.
    set_clone("CloneGrp_0", kId1,
              {"state=Consistent", "cond=Administratively Fractured", "fractured=1"});
    mh = validated(guid, details);
    ASSERT_NE(mh, nullptr) << loader->text;
    ldr::SSSourceList* unknown = ldr::make_sources({array.dev("sdm")});
    EXPECT_TRUE(loader->take(mh->mount(unknown)));
    EXPECT_EQ(loader->code, 4);
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    delete unknown;
    set_clone("CloneGrp_0", kId1, {"rate=high"});
    EXPECT_FALSE(loader->take(mh->deleteSnapshot())) << loader->text;
    EXPECT_EQ(rate(kG0), "high");
    EXPECT_EQ(rate(kG1), "high");
    loader->finish(mh);
}

TEST_F(MirrorLife, ThreadsWithTheirOwnObjectsTakeDifferentClones) {
    const std::vector<std::string> devs{"sdd", "sdg", "sdj"};
    std::vector<std::string> handles(devs.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < devs.size(); i++)
        threads.emplace_back([&, i] {
            Loader mine;
            mine.tech = "MIRROR";
            std::string guid;
            if (!mine.take_snapshot({array.dev(devs[i])}, guid, handles[i])) handles[i].clear();
        });
    for (std::thread& t : threads) t.join();
    for (size_t i = 0; i < devs.size(); i++) {
        ASSERT_FALSE(handles[i].empty()) << devs[i];
        EXPECT_NE(handles[i].find("-" + std::to_string(8 + 2 * i) + "-00" + std::to_string(i)),
                  std::string::npos)
            << handles[i];
    }
    for (const std::string& g : {kG0, kG1}) EXPECT_EQ(rate(g), "3981");
}

}  // namespace
