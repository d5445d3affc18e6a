// merlsnap as people and scripts run it against each shape of simulated
// array: what it shows of the module's work, and how it ends when the array,
// the handle file or the person's own command misbehaves.
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/integration/cow_fixture.h"

namespace {

using cowtest::Array;

class Merlsnap : public ::testing::TestWithParam<cowtest::Shape> {
protected:
    void SetUp() override {
        ASSERT_TRUE(array.ok());
        ASSERT_FALSE(source(0).empty()) << "a COW source on the first frame";
    }

    int merlsnap(std::vector<std::string> args, std::string* out = nullptr) {
        args.insert(args.begin(), MERLSNAP_PATH);
        std::string text;
        int rc = cowtest::run(args, &text);
        if (out != nullptr) *out = text;
        return rc;
    }
    // The host device of the first COW source LUN of a frame that answers.
    std::string source(int frame) const {
        for (const Array::Lun& l : array.luns())
            if (l.frame == frame && l.cow) return l.dev;
        return "";
    }
    int snapshot(const std::vector<std::string>& devices, std::string* out = nullptr,
                 std::vector<std::string> extra = {}) {
        std::vector<std::string> a{"snapshot", "--handle", handle};
        for (const std::string& f : array.frames()) {
            a.push_back("--frame");
            a.push_back(f);
        }
        a.insert(a.end(), extra.begin(), extra.end());
        a.insert(a.end(), devices.begin(), devices.end());
        return merlsnap(a, out);
    }

    Array array{GetParam()};
    const std::string handle = array.dir() + "/snap.handle";
};

TEST_P(Merlsnap, ShowsTheOutcomeNotTheFrameWalkUnlessAskedOrFailing) {
    // A source on each of the first two frames that answer: the second
    // one's session is started after the first frame's addresses refuse it.
    std::vector<std::string> sources{source(0)};
    const std::vector<std::string> frames = array.frames();
    for (size_t f = 1; f < frames.size() && sources.size() < 2; f++)
        if (!source(static_cast<int>(f)).empty()) sources.push_back(source(static_cast<int>(f)));
    const bool walks = sources.size() > 1;
    std::string out;
    ASSERT_EQ(snapshot(sources, &out), 0) << out;
    EXPECT_EQ(out.find("[-1]"), std::string::npos) << out;
    EXPECT_NE(out.find("Took the snapshot"), std::string::npos) << out;
    // The walk over the other frame's addresses is one option away; with no
    // source beyond the first frame there is no walk to show.
    ASSERT_EQ(snapshot(sources, &out, {"--log-level", "3"}), 0) << out;
    EXPECT_EQ(out.find("[-1]") != std::string::npos, walks) << out;
    // A failure shows what the module logged on the way to it.
    EXPECT_NE(snapshot({array.foreign_device()}, &out), 0);
    EXPECT_NE(out.find("The module's log up to the failure:"), std::string::npos) << out;
    EXPECT_NE(out.find("is not snappable"), std::string::npos) << out;
}

TEST_P(Merlsnap, MountRunPassesTheCommandsFailureOnAfterReleasing) {
    ASSERT_EQ(snapshot({source(0)}), 0);
    std::string out;
    EXPECT_EQ(
        merlsnap({"mount", "--handle", handle, "--run", "test -n \"$MERLSNAP_DEVICES\""}, &out), 0)
        << out;
    array.admin({"log", "--clear"});
    EXPECT_EQ(merlsnap({"mount", "--handle", handle, "--run", "exit 3"}, &out), 6) << out;
    EXPECT_NE(out.find("run-status       3"), std::string::npos) << out;
    EXPECT_EQ(array.log_lines("deactivate").size(), 1u) << out;
    EXPECT_EQ(merlsnap({"mount", "--handle", handle, "--run", "kill -9 $$"}, &out), 6) << out;
    EXPECT_NE(out.find("killed by signal 9"), std::string::npos) << out;
}

TEST_P(Merlsnap, ALongToolAnswerIsCappedOnTheTerminalAndWholeInJson) {
    ASSERT_EQ(snapshot({source(0)}), 0);
    const std::string answer = "Error: " + std::string(100000, 'q');
    ASSERT_EQ(array.admin({"fault", "add", "tilloseccli", "refuse", "--match", "startrollback",
                           "--arg", answer}),
              0);
    std::string out;
    EXPECT_EQ(merlsnap({"rollback", "--handle", handle}, &out), 1);
    EXPECT_LT(out.size(), 8000u) << out.substr(0, 3000);
    EXPECT_NE(out.find("more characters; --json and --log-file keep the whole text"),
              std::string::npos);
    EXPECT_EQ(merlsnap({"rollback", "--json", "--handle", handle}, &out), 1);
    EXPECT_NE(out.find(answer), std::string::npos);
}

TEST_P(Merlsnap, ADamagedHandleFileIsRefusedBeforeTheModuleSeesIt) {
    ASSERT_EQ(snapshot({source(0)}), 0);
    std::string whole;
    {
        std::ifstream in(handle);
        whole.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    // Cut inside the details, the one line a reader could still take whole.
    const size_t cut = whole.find("\nlength ") - 4;
    std::ofstream(handle, std::ios::trunc) << whole.substr(0, cut) << "\n";
    array.admin({"log", "--clear"});
    std::string out;
    EXPECT_EQ(merlsnap({"validate", "--handle", handle}, &out), 4) << out;
    EXPECT_NE(out.find("damaged"), std::string::npos) << out;
    EXPECT_TRUE(array.log_lines("").empty());
}

TEST_P(Merlsnap, ASourceNamedWithADashIsRefusedBeforeAnyWork) {
    const std::string link = array.dir() + "/data-disk";
    ASSERT_EQ(symlink(source(0).c_str(), link.c_str()), 0);
    array.admin({"log", "--clear"});
    std::string out;
    EXPECT_EQ(snapshot({link}, &out), 2) << out;
    EXPECT_NE(out.find("holds a \"-\" in its name"), std::string::npos) << out;
    EXPECT_TRUE(array.log_lines("").empty());
    EXPECT_NE(access(handle.c_str(), F_OK), 0);
}

COWTEST_OVER_SHAPES(Merlsnap);

}  // namespace
