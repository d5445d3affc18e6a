// COW snapshots through the loader's interface against a simulated array:
// the production life, the mount host's life from the handle, rollback,
// delete, the failure paths, and threads.
#include <regex>
#include <thread>

#include "tests/integration/cow_fixture.h"

namespace {

using cowtest::Array;
using cowtest::Loader;

class CowLife : public ::testing::TestWithParam<cowtest::Shape> {
protected:
    void SetUp() override {
        array.reset(new Array(GetParam()));
        ASSERT_TRUE(array->ok()) << "simulated array";
        loader.reset(new Loader(array->frames()));
        ASSERT_TRUE(loader->ok()) << loader->text;
    }
    std::unique_ptr<Array> array;
    std::unique_ptr<Loader> loader;
};

TEST_P(CowLife, ProductionHandleThenMountHostLife) {
    COWTEST_SOURCES(src, 2);
    std::string guid, details;
    ASSERT_TRUE(loader->take_snapshot({src[0], src[1]}, guid, details)) << loader->text;

    // The identity is the long identifier form; the details name the frames
    // and one session per source, indexed in source order.
    EXPECT_TRUE(std::regex_match(guid, std::regex("[0-9a-f]{8}(-[0-9a-f]{8}){5}"))) << guid;
    std::string frames;
    for (const std::string& f : array->frames()) frames += (frames.empty() ? "" : ":") + f;
    std::regex form("KVTv1;" + std::regex_replace(frames, std::regex("\\."), "\\.") + ";" + guid +
                    "-[0-9]{12}0000\\|" + src[0] + ";" + guid + "-[0-9]{12}0001\\|" + src[1]);
    EXPECT_TRUE(std::regex_match(details, form)) << details;
    EXPECT_EQ(array->sessions().size(), 2u);
    EXPECT_EQ(array->log_lines("-startsession").size(), 2u);

    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::INIT);
    ldr::SSSourceList* srcs = nullptr;
    EXPECT_TRUE(loader->take(mh->getSourceList(srcs)));  // not before validate on a mount host
    EXPECT_EQ(loader->code, 10);
    ASSERT_FALSE(loader->take(mh->validate(nullptr))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);

    // Read back and asked for again, the handle is the same, byte for byte.
    ldr::SCSnapshotHandle* again = nullptr;
    ASSERT_FALSE(loader->take(mh->getSnapshotHandle(again)));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(again->m_pguid)), guid);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(again->m_pdetails)), details);
    EXPECT_EQ(again->m_detailLen, details.size());
    cowtest::module().freeSSObject(again);

    ASSERT_FALSE(loader->take(mh->getSourceList(srcs)));
    ASSERT_NE(srcs, nullptr);
    std::vector<std::string> want{src[0], src[1]};
    EXPECT_EQ(ldr::names_of(srcs), want);
    ASSERT_FALSE(loader->take(mh->mount(srcs))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::READY);
    ldr::SSSourceList* paths = nullptr;
    ASSERT_FALSE(loader->take(mh->getSnapshotAccessPath(srcs, paths))) << loader->text;
    // No map was read on the way: the devices are as the host tool names them.
    std::vector<std::string> snapdevs{"/dev/zsnp/" + array->snapdev_of(src[0]) + "0",
                                      "/dev/zsnp/" + array->snapdev_of(src[1]) + "0"};
    EXPECT_EQ(ldr::names_of(paths), snapdevs);
    cowtest::module().freeSSObject(paths);
    EXPECT_EQ(array->log_lines("gelmot activate").size(), 2u);

    ASSERT_FALSE(loader->take(mh->unmount(srcs))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::UNINIT);
    EXPECT_EQ(array->log_lines("gelmot deactivate").size(), 2u);
    cowtest::module().freeSSObject(srcs);
    loader->finish(mh);

    // Deleting needs a fresh object: the one that unmounted is done.
    ldr::ISnapshot* del = loader->from_handle(guid, details);
    ASSERT_NE(del, nullptr);
    ASSERT_FALSE(loader->take(del->validate(nullptr)));
    ASSERT_FALSE(loader->take(del->deleteSnapshot())) << loader->text;
    EXPECT_EQ(del->getSnapshotState(), ldr::ERROR);
    EXPECT_TRUE(array->sessions().empty());
    loader->finish(del);
}

TEST_P(CowLife, RollbackRunsInAnyStateAndKeepsIt) {
    COWTEST_SOURCES(src, 2);
    std::string guid, details;
    ASSERT_TRUE(loader->take_snapshot({src[0], src[1]}, guid, details)) << loader->text;
    ldr::ISnapshot* rb = loader->from_handle(guid, details);
    ASSERT_NE(rb, nullptr);
    ldr::SSSourceList* one = ldr::make_sources({src[1]});
    ldr::SSTaskId task = 77;
    ASSERT_FALSE(loader->take(rb->rollBack(one, nullptr, task))) << loader->text;
    EXPECT_EQ(rb->getSnapshotState(), ldr::INIT);
    EXPECT_EQ(task, 77);  // untouched by COW
    std::vector<std::string> rolls = array->log_lines("-startrollback");
    ASSERT_EQ(rolls.size(), 1u);
    EXPECT_NE(rolls[0].find(guid + "-"), std::string::npos);
    EXPECT_NE(rolls[0].find("0001"), std::string::npos) << rolls[0];

    ldr::SSSourceList* unknown = ldr::make_sources({"/dev/not-in-snapshot"});
    EXPECT_TRUE(loader->take(rb->rollBack(unknown, nullptr, task)));
    EXPECT_EQ(loader->code, 4);
    EXPECT_NE(loader->text.find("No source device found for /dev/not-in-snapshot"),
              std::string::npos);
    delete unknown;
    delete one;
    loader->finish(rb);
}

TEST_P(CowLife, FailedMiddleSessionIsFoundAtValidate) {
    COWTEST_SOURCES(src, 3);
    ASSERT_EQ(array->admin({"fault", "add", "tilloseccli", "refuse", "--match", "0001 -lun"}), 0);
    std::string guid, details;
    // Only the last session decides the snapshot's outcome.
    ASSERT_TRUE(loader->take_snapshot({src[0], src[1], src[2]}, guid, details)) << loader->text;
    EXPECT_EQ(array->sessions().size(), 2u);
    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr);
    EXPECT_TRUE(loader->take(mh->validate(nullptr)));
    EXPECT_EQ(loader->code, 21);
    EXPECT_NE(loader->text.find("Failed to validate session name (" + guid), std::string::npos)
        << loader->text;
    EXPECT_NE(loader->text.find("0001) for snapshot"), std::string::npos) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::INIT);
    EXPECT_TRUE(array->sessions().empty());  // a failed validate leaves no session behind
    loader->finish(mh);
}

TEST_P(CowLife, FailedLastSessionStopsAllAndStaysPrepared) {
    COWTEST_SOURCES(src, 3);
    ASSERT_EQ(array->admin({"fault", "add", "tilloseccli", "refuse", "--match", "0002 -lun"}), 0);
    ldr::ISnapshot* s = loader->production();
    ASSERT_NE(s, nullptr);
    ldr::SSSourceList* srcs = ldr::make_sources({src[0], src[1], src[2]});
    ldr::SSTaskId task = 0;
    ASSERT_FALSE(loader->take(s->addComponent(srcs))) << loader->text;
    ASSERT_FALSE(loader->take(s->prepareForSnapshot(nullptr, nullptr, task)));
    EXPECT_TRUE(loader->take(s->snapshot(nullptr, task)));
    EXPECT_EQ(s->getSnapshotState(), ldr::PREPARED);
    EXPECT_TRUE(array->sessions().empty());
    // Each session is stopped on every address the loader named, a frame
    // that is down included: the stop is not a walk that ends at the first
    // answer.
    EXPECT_EQ(array->log_lines("-stopsession").size(), 3 * 2 * array->frames().size());
    delete srcs;
    loader->finish(s);
}

TEST_P(CowLife, SessionGoneBeforeValidate) {
    COWTEST_SOURCES(src, 1);
    std::string guid, details;
    ASSERT_TRUE(loader->take_snapshot({src[0]}, guid, details));
    std::vector<std::string> names = array->sessions();
    ASSERT_EQ(names.size(), 1u);
    ASSERT_EQ(array->admin(
                  {"tilloseccli", "-h", "198.18.0.1", "quillset", "-stopsession", names[0], "-o"}),
              0);
    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr);
    EXPECT_TRUE(loader->take(mh->validate(nullptr)));
    EXPECT_EQ(loader->code, 21);
    loader->finish(mh);
}

TEST_P(CowLife, EnrolmentIsAllOrNothingAndMountNeedsKnownSources) {
    COWTEST_SOURCES(src, 1);
    const std::string plain = array->plain_device();
    ldr::ISnapshot* s = loader->production();
    ASSERT_NE(s, nullptr);
    // A device on the array with no COW configuration.
    ldr::SSSourceList* mixed = ldr::make_sources({src[0], plain});
    EXPECT_TRUE(loader->take(s->addComponent(mixed)));
    EXPECT_EQ(loader->code, 7);
    EXPECT_NE(loader->text.find("Device (" + plain + ") is not snappable"), std::string::npos);
    ldr::SSSourceList* got = nullptr;
    ASSERT_FALSE(loader->take(s->getSourceList(got)));
    EXPECT_EQ(got, nullptr);  // nothing was added
    ldr::SSSourceList* once = ldr::make_sources({src[0]});
    ASSERT_FALSE(loader->take(s->addComponent(once)));
    EXPECT_TRUE(loader->take(s->addComponent(once)));
    EXPECT_NE(loader->text.find("already in source list"), std::string::npos);
    delete mixed;
    delete once;
    loader->finish(s);

    std::string guid, details;
    ASSERT_TRUE(loader->take_snapshot({src[0]}, guid, details));
    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr);
    ASSERT_FALSE(loader->take(mh->validate(nullptr)));
    ldr::SSSourceList* stranger = ldr::make_sources({"/dev/stranger"});
    EXPECT_TRUE(loader->take(mh->mount(stranger)));
    EXPECT_EQ(loader->code, 4);
    EXPECT_NE(loader->text.find("No source device found for /dev/stranger"), std::string::npos);
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    EXPECT_TRUE(loader->take(mh->mount(nullptr)));
    EXPECT_EQ(loader->code, 4);
    delete stranger;
    loader->finish(mh);
}

// The host tool's revision is good; the array's record of it, under the
// name the check looks for, decides, unless a commit is still pending.
TEST_P(CowLife, ArraysSoftwareListDecidesTheVersionCheck) {
    ldr::ISnapshot* s = loader->production();
    ASSERT_NE(s, nullptr) << loader->text;
    loader->finish(s);
    // The survey asks every address and a later frame's record overwrites an
    // earlier one's: a bad revision on the first frame alone fails the check
    // only where no later frame answers.
    const size_t frames = array->frames().size();
    bool later_answers = false;
    for (size_t f = 1; f < frames; f++) later_answers = later_answers || array->up(f);
    ASSERT_EQ(array->admin({"set", "package", "0", "TILLOCLI", "rev=7.29.9.0.0"}), 0);
    s = loader->production();
    EXPECT_EQ(s != nullptr, later_answers) << loader->text;
    loader->finish(s);
    for (size_t f = 0; f < frames; f++)
        ASSERT_EQ(array->admin({"set", "package", std::to_string(f), "TILLOCLI", "rev=7.29.9.0.0"}),
                  0);
    EXPECT_EQ(loader->production(), nullptr);
    EXPECT_EQ(loader->code, 16);
    EXPECT_NE(loader->text.find("Invalid Quillset Version"), std::string::npos) << loader->text;
    EXPECT_NE(loader->errors.find("revision: 7.29.9.0.0, minimum: 7.30.0.0.0"), std::string::npos)
        << loader->errors;
    for (size_t f = 0; f < frames; f++)
        ASSERT_EQ(array->admin({"set", "package", std::to_string(f), "TILLOCLI", "commit=1"}), 0);
    s = loader->production();
    EXPECT_NE(s, nullptr) << loader->text;
    loader->finish(s);
}

TEST_P(CowLife, ThreadsWithTheirOwnObjectsLoseNoSession) {
    COWTEST_SOURCES(disks, 4);
    std::vector<std::string> guids(disks.size());
    std::vector<int> ok(disks.size(), 0);
    std::vector<std::string> why(disks.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < disks.size(); i++)
        threads.emplace_back([&, i] {
            Loader own(
                array->frames());  // a loader may give each thread its own directory service too
            std::string details;
            ok[i] = own.ok() && own.take_snapshot({disks[i]}, guids[i], details);
            why[i] = own.text + "\n" + own.errors;
        });
    for (auto& t : threads) t.join();
    for (size_t i = 0; i < disks.size(); i++) EXPECT_TRUE(ok[i]) << disks[i] << ": " << why[i];
    EXPECT_EQ(array->sessions().size(), disks.size());
    if (HasFailure())
        for (const std::string& l : array->log_lines("quillset"))
            printf("  array got: %s\n", l.c_str());
    for (size_t i = 1; i < guids.size(); i++) EXPECT_NE(guids[i], guids[0]);
}

TEST_P(CowLife, OneObjectSharedByTwoThreadsIsPutInARow) {
    COWTEST_SOURCES(src, 1);
    ldr::ISnapshot* s = loader->production();
    ASSERT_NE(s, nullptr);
    // Both threads add the same device: only one may get it in.
    std::vector<ldr::SSError*> results(2, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; i++)
        threads.emplace_back([&, i] {
            ldr::SSSourceList* l = ldr::make_sources({src[0]});
            results[i] = s->addComponent(l);
            delete l;
        });
    for (auto& t : threads) t.join();
    int failures = (results[0] != nullptr) + (results[1] != nullptr);
    EXPECT_EQ(failures, 1);
    for (ldr::SSError* e : results) loader->take(e);
    EXPECT_NE(loader->text.find("already in source list"), std::string::npos);
    ldr::SSSourceList* got = nullptr;
    ASSERT_FALSE(loader->take(s->getSourceList(got)));
    EXPECT_EQ(ldr::names_of(got).size(), 1u);
    cowtest::module().freeSSObject(got);
    loader->finish(s);
}

COWTEST_OVER_SHAPES(CowLife);

}  // namespace
