// Mirror snapshots through the loader's interface against a simulated array:
// the production life with its consistent split, the mount host's life,
// rollback with task polling, the failure paths, and threads.
#include <stdio.h>

#include <regex>
#include <thread>

#include "tests/integration/cow_fixture.h"

namespace {

using cowtest::Array;
using cowtest::Loader;
using Source = cowtest::Array::MirrorSource;

std::string as_literal(const std::string& s) {
    return std::regex_replace(s, std::regex("[.^$|()\\[\\]{}*+?\\\\]"), "\\$&");
}

// The source LUN as a clone record of the handle writes it.
std::string lun3(const std::string& num) {
    char buf[16];
    snprintf(buf, sizeof buf, "%03d", std::stoi(num));
    return buf;
}

// What a source's record of the handle names before its fracture flag: the
// clone group, the clone, the clone LUN and the source LUN.
std::string clone_record(const Source& m) {
    return m.group->uid + "-" + m.group->clones[0].id + "-" + m.clone->num + "-" + lun3(m.lun->num);
}

class MirrorLife : public ::testing::TestWithParam<cowtest::Shape> {
protected:
    void SetUp() override {
        array.reset(new Array(GetParam()));
        ASSERT_TRUE(array->ok()) << "simulated array";
        loader.reset(new Loader(array->frames()));
        ASSERT_TRUE(loader->ok()) << loader->text;
        loader->tech = "MIRROR";
    }
    // The field of the clone a source takes, as its frame lists it.
    std::string clone_field(const Source& m, const std::string& key) {
        std::string out;
        array->admin({"tilloseccli", "-h", array->addr(m.group->frame), "quillset", "-listclone",
                      "-CloneGroupUid", m.group->uid, "-CloneId", m.group->clones[0].id, "-all"},
                     &out);
        size_t at = out.find(key + ":");
        if (at == std::string::npos) return "";
        size_t b = out.find_first_not_of(" ", at + key.size() + 1);
        return out.substr(b, out.find('\n', b) - b);
    }
    std::string rate(const Source& m) { return clone_field(m, "SyncRate"); }
    void set_clone(const Source& m, const std::vector<std::string>& fields) {
        std::vector<std::string> args{"set", "clone", m.group->name, m.group->clones[0].id};
        args.insert(args.end(), fields.begin(), fields.end());
        ASSERT_EQ(array->admin(args), 0);
    }
    void fracture(const Source& m) {
        set_clone(m, {"state=Consistent", "cond=Administratively Fractured", "fractured=1"});
    }
    ldr::ISnapshot* validated(const std::string& guid, const std::string& details) {
        ldr::ISnapshot* s = loader->from_handle(guid, details);
        if (s != nullptr && loader->take(s->validate(nullptr))) {
            loader->finish(s);
            return nullptr;
        }
        return s;
    }
    std::string frames_field() {
        std::string frames;
        for (const std::string& f : array->frames()) frames += (frames.empty() ? "" : ":") + f;
        return frames;
    }
    std::unique_ptr<Array> array;
    std::unique_ptr<Loader> loader;
};

// Declares `var` as the first `n` sources with a clone group, or skips the
// test on a shape that has fewer.
#define MIRROR_SOURCES(var, n)                                                   \
    const std::vector<Source> var = array->mirror_sources(n);                    \
    if (var.size() < (n))                                                        \
    GTEST_SKIP() << GetParam().name << " has " << var.size() << " sources with " \
                 << "a clone group, the life needs " << (n)

TEST_P(MirrorLife, ProductionSplitThenMountHostLife) {
    MIRROR_SOURCES(src, 2);
    std::string guid, details;
    ASSERT_TRUE(loader->take_snapshot({src[0].dev, src[1].dev}, guid, details))
        << loader->text << loader->errors;

    // Each source's record names its clone group, clone, clone LUN, source
    // LUN, whether the clone was fractured when chosen, the delete rule and
    // the time.
    std::regex form("KVTv1;" + as_literal(frames_field()) + ";" + clone_record(src[0]) +
                    "-No-Retain-[0-9]{12}\\|" + as_literal(src[0].dev) + ";" +
                    clone_record(src[1]) + "-No-Retain-[0-9]{12}\\|" + as_literal(src[1].dev));
    EXPECT_TRUE(std::regex_match(details, form)) << details;
    EXPECT_EQ(rate(src[0]), "3981");
    EXPECT_EQ(rate(src[1]), "3981");
    // Both clones were split by one consistent fracture.
    ASSERT_EQ(array->log_lines("-consistentfractureclones").size(), 1u);
    EXPECT_NE(array->log_lines("-consistentfractureclones")[0].find(
                  "-CloneGroupUidCloneId " + src[0].group->uid + " " + src[0].group->clones[0].id +
                  " " + src[1].group->uid + " " + src[1].group->clones[0].id),
              std::string::npos);
    EXPECT_EQ(clone_field(src[0], "IsFractured"), "Yes");

    ldr::ISnapshot* mh = validated(guid, details);
    ASSERT_NE(mh, nullptr) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    ldr::SCSnapshotHandle* again = nullptr;
    ASSERT_FALSE(loader->take(mh->getSnapshotHandle(again)));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(again->m_pdetails)), details);
    cowtest::module().freeSSObject(again);

    ldr::SSSourceList* srcs = ldr::make_sources({src[0].dev, src[1].dev});
    ASSERT_FALSE(loader->take(mh->mount(srcs))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::READY);
    ldr::SSSourceList* paths = nullptr;
    ASSERT_FALSE(loader->take(mh->getSnapshotAccessPath(srcs, paths))) << loader->text;
    // The clones' devices on this host, as its volume map names them: a
    // multipath clone by its first path, not by its pseudo device, though
    // its source was given by the pseudo device.
    EXPECT_EQ(ldr::names_of(paths), (std::vector<std::string>{"/dev/" + src[0].clone->host_path,
                                                              "/dev/" + src[1].clone->host_path}));
    cowtest::module().freeSSObject(paths);
    EXPECT_TRUE(loader->take(mh->mount(srcs)));  // mounted already: illegal state
    EXPECT_EQ(loader->code, 10);
    ASSERT_FALSE(loader->take(mh->unmount(srcs))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);

    // Delete releases the clones and, under "Retain", starts their sync.
    ASSERT_FALSE(loader->take(mh->deleteSnapshot())) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::ERROR);
    EXPECT_EQ(rate(src[0]), "high");
    EXPECT_EQ(rate(src[1]), "high");
    EXPECT_EQ(array->log_lines("-syncclone").size(), 2u);
    delete srcs;
    loader->finish(mh);
}

TEST_P(MirrorLife, FracturedCloneMakesPrepareWaitForTheStatusPoll) {
    MIRROR_SOURCES(src, 1);
    fracture(src[0]);
    ldr::ISnapshot* s = loader->production();
    ASSERT_NE(s, nullptr) << loader->text;
    ldr::SSSourceList* srcs = ldr::make_sources({src[0].dev});
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
    EXPECT_EQ(array->log_lines("-fractureclone ").size(), 1u);
    EXPECT_TRUE(array->log_lines("-consistentfractureclones").empty());
    ldr::SCSnapshotHandle* h = nullptr;
    ASSERT_FALSE(loader->take(s->getSnapshotHandle(h)));
    EXPECT_NE(std::string(reinterpret_cast<char*>(h->m_pdetails))
                  .find(";" + clone_record(src[0]) + "-Yes-Retain-"),
              std::string::npos);
    cowtest::module().freeSSObject(h);
    delete srcs;
    loader->finish(s);
}

TEST_P(MirrorLife, RollbackIsPolledToItsEnd) {
    MIRROR_SOURCES(src, 1);
    std::string guid, details;
    ASSERT_TRUE(loader->take_snapshot({src[0].dev}, guid, details)) << loader->text;
    ldr::ISnapshot* s = validated(guid, details);
    ASSERT_NE(s, nullptr) << loader->text;
    ldr::SSSourceList* srcs = ldr::make_sources({src[0].dev});
    ldr::SSTaskId task = -1;
    ASSERT_FALSE(loader->take(s->rollBack(srcs, nullptr, task))) << loader->text;
    EXPECT_EQ(task, 3);
    EXPECT_EQ(s->getSnapshotState(), ldr::UNINIT);
    EXPECT_EQ(rate(src[0]), "high");
    ASSERT_EQ(array->log_lines("-reversesyncclone").size(), 1u);
    int status = 1, polls = 0;
    while (status == 1 && polls < 20) {
        ldr::SSError* taskErr = nullptr;
        ASSERT_FALSE(loader->take(s->getTaskStatus(3, status, taskErr)));
        polls++;
    }
    EXPECT_EQ(status, 2);
    EXPECT_EQ(clone_field(src[0], "CloneState"), "Synchronized");
    // An unknown task number is an error of its own.
    int st = 0;
    ldr::SSError* taskErr = nullptr;
    EXPECT_TRUE(loader->take(s->getTaskStatus(4, st, taskErr)));
    EXPECT_EQ(st, 0);
    EXPECT_NE(loader->text.find("No such task: 4"), std::string::npos);
    delete srcs;
    loader->finish(s);
}

TEST_P(MirrorLife, FailurePathsEndInTheirErrorsAndLeaveNoReservation) {
    MIRROR_SOURCES(src, 2);
    // No free clone under FREE: every clone is in sync.
    {
        loader->extra_attrs = {{"MERL_RES_USE_POLICY", "FREE"}};
        ldr::attrlist* policy = ldr::make_attr("MERL_RES_USE_POLICY", {"FREE"});
        loader->prepare_attrs = policy;
        std::string guid, details;
        EXPECT_FALSE(loader->take_snapshot({src[0].dev}, guid, details));
        EXPECT_EQ(loader->code, 5);
        EXPECT_NE(loader->text.find("Failed to find a valid clone candidate for device"),
                  std::string::npos);
        EXPECT_EQ(rate(src[0]), "high");
        loader->prepare_attrs = nullptr;
        loader->extra_attrs.clear();
        ldr::free_attrs(policy);
    }
    // A clone split behind the module's back makes the consistent fracture
    // fail; the snapshot still ends valid, as only the log can tell.
    std::string guid, details;
    {
        ldr::ISnapshot* s = loader->production();
        ASSERT_NE(s, nullptr) << loader->text;
        ldr::SSSourceList* srcs = ldr::make_sources({src[0].dev, src[1].dev});
        ldr::SSTaskId task = -1;
        ASSERT_FALSE(loader->take(s->addComponent(srcs)));
        ASSERT_FALSE(loader->take(s->prepareForSnapshot(nullptr, nullptr, task)));
        fracture(src[1]);
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
    EXPECT_NE(loader->text.find("Failed to validate clone ID (" + src[0].group->clones[0].id + ")"),
              std::string::npos)
        << loader->text;
    loader->finish(mh);

    // Once both are split, a mount of a source the snapshot lacks is
    // refused, and a delete after the clone was released elsewhere still
    // succeeds.
    fracture(src[0]);
    mh = validated(guid, details);
    ASSERT_NE(mh, nullptr) << loader->text;
    const std::string stranger = array->other_device({src[0].dev, src[1].dev});
    ldr::SSSourceList* unknown = ldr::make_sources({stranger});
    EXPECT_TRUE(loader->take(mh->mount(unknown))) << stranger;
    EXPECT_EQ(loader->code, 4);
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    delete unknown;
    set_clone(src[0], {"rate=high"});
    EXPECT_FALSE(loader->take(mh->deleteSnapshot())) << loader->text;
    EXPECT_EQ(rate(src[0]), "high");
    EXPECT_EQ(rate(src[1]), "high");
    loader->finish(mh);
}

TEST_P(MirrorLife, ThreadsWithTheirOwnObjectsTakeDifferentClones) {
    MIRROR_SOURCES(src, 3);
    std::vector<std::string> handles(src.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < src.size(); i++)
        threads.emplace_back([&, i] {
            Loader mine(array->frames());
            mine.tech = "MIRROR";
            std::string guid;
            if (!mine.take_snapshot({src[i].dev}, guid, handles[i])) handles[i].clear();
        });
    for (std::thread& t : threads) t.join();
    for (size_t i = 0; i < src.size(); i++) {
        ASSERT_FALSE(handles[i].empty()) << src[i].dev;
        EXPECT_NE(handles[i].find(";" + clone_record(src[i]) + "-"), std::string::npos)
            << handles[i];
        EXPECT_EQ(rate(src[i]), "3981") << src[i].dev;
    }
}

COWTEST_OVER_SHAPES(MirrorLife);

}  // namespace
