// Loader threads sharing what a loader shares: one directory service asked
// from several threads at once, and directory services made and freed while
// others are asked. Run under the thread checker too.
#include <atomic>
#include <memory>
#include <thread>

#include "tests/integration/cow_fixture.h"

namespace {

using cowtest::Array;
using cowtest::Loader;

class LoaderThreads : public ::testing::TestWithParam<cowtest::Shape> {
protected:
    void SetUp() override {
        array.reset(new Array(GetParam()));
        ASSERT_TRUE(array->ok()) << "simulated array";
    }
    std::unique_ptr<Array> array;
};

TEST_P(LoaderThreads, OneDirectoryServiceAskedFromFourThreads) {
    COWTEST_SOURCES(src, 1);
    Loader loader(array->frames());
    ASSERT_TRUE(loader.ok()) << loader.text;
    const char* subtypes[] = {"COW", "MIRROR", "KVT-SNAP", "cow"};
    std::atomic<int> yes{0}, failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3; i++) {
                int answer = -1;
                std::string dev = src[0];
                ldr::SSError* e =
                    loader.ds()->isServiceSupported(&dev[0], subtypes[t], nullptr, answer);
                if (e != nullptr) {
                    failed++;
                    cowtest::module().freeSSObject(e);
                } else if (answer == 1) {
                    yes++;
                }
            }
        });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(yes.load(), 12);
}

TEST_P(LoaderThreads, DirectoryServicesMadeAndFreedWhileOthersAreAsked) {
    COWTEST_SOURCES(src, 1);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < 3; i++) {
                Loader loader(array->frames());
                if (!loader.ok()) {
                    failed++;
                    continue;
                }
                int answer = -1;
                std::string dev = src[0];
                if (loader.take(loader.ds()->isServiceSupported(&dev[0], "COW", nullptr, answer)) ||
                    answer != 1)
                    failed++;
            }
        });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(failed.load(), 0);
}

COWTEST_OVER_SHAPES(LoaderThreads);

}  // namespace
