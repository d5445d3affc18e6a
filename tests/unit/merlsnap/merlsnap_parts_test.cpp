// merlsnap's own parts, in process: the handle file's integrity, what a
// terminal is shown of long texts, and what the log sink makes of the
// module's lines.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/fixture.h"
#include "tests/support/temp_dir.h"
#include "tools/merlsnap/handle_file.h"
#include "tools/merlsnap/module.h"
#include "tools/merlsnap/report.h"

namespace {

class HandleFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_tmp.ok());
        m_dir = m_tmp.path();
        m_path = m_dir + "/snap.handle";
    }
    std::string content() const { return zovtest::read_text(m_path); }
    void put(const std::string& path, const std::string& text) const {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    }

    zovtest::TempDir m_tmp{"handlefile"};
    std::string m_dir, m_path;
    const HandleFile m_handle{"MIRROR", "0a1b-2c3d",
                              "MRRv1;198.18.0.1:198.18.0.2;0a1b-2c3d-0000|/dev/sdd;9|/dev/sdg"};
};

TEST_F(HandleFileTest, RoundTripsAndRefusesEveryCutAndAnyChangedByte) {
    std::string why;
    ASSERT_TRUE(write_handle_file(m_path, m_handle, why)) << why;
    HandleFile back;
    ASSERT_TRUE(read_handle_file(m_path, back, why)) << why;
    EXPECT_EQ(back.tech, m_handle.tech);
    EXPECT_EQ(back.guid, m_handle.guid);
    EXPECT_EQ(back.details, m_handle.details);

    const std::string whole = content();
    const std::string other = m_dir + "/other";
    // A file cut anywhere but after its last line break is refused; most of
    // the cuts leave every line a v1 reader needed.
    for (size_t n = 0; n + 1 < whole.size(); n++) {
        put(other, whole.substr(0, n));
        EXPECT_FALSE(read_handle_file(other, back, why)) << "cut at " << n;
    }
    const size_t in_details = whole.find("/dev/sdg") + 6;
    std::string changed = whole;
    changed[in_details] = 'h';
    put(other, changed);
    EXPECT_FALSE(read_handle_file(other, back, why));
    EXPECT_NE(why.find("damaged"), std::string::npos) << why;
}

TEST_F(HandleFileTest, OlderFilesWithoutADigestAreStillRead) {
    put(m_path, "# merlsnap snapshot handle v1\ntech COW\nguid g\ndetails KVTv1;a;b|/dev/sdd\n");
    HandleFile back;
    std::string why;
    ASSERT_TRUE(read_handle_file(m_path, back, why)) << why;
    EXPECT_EQ(back.details, "KVTv1;a;b|/dev/sdd");
    put(m_path, "# merlsnap snapshot handle v3\ntech COW\nguid g\ndetails d\n");
    EXPECT_FALSE(read_handle_file(m_path, back, why));
}

TEST(CapText, CutsLongTextsSayingHowMuchWasLeftAndNeverSplitsACharacter) {
    EXPECT_EQ(cap_text("short", 10), "short");
    const std::string answer(100000, 'x');
    const std::string shown = cap_text(answer);
    EXPECT_LT(shown.size(), 1200u);
    EXPECT_NE(shown.find("99000 more characters"), std::string::npos) << shown;
    // "é" is two bytes; a cut in its middle moves before it.
    const std::string accents = "ab\xC3\xA9\xC3\xA9";
    EXPECT_EQ(cap_text(accents, 3).substr(0, 3), "ab ");
    EXPECT_NE(cap_text(accents, 3).find("4 more"), std::string::npos);
}

// The module's trace of a release the array refused once, as it logs it.
const char* const kRefusedRelease[] = {
    "zov_quillset::esv_spawn, cmd:/opt/bin/gelmot deactivate -s 80a3-0000-2026102312080000",
    "Entering: zov_quillset::processDeactivate",
    "zov_quillset::processDeactivate: processed 2 lines",
    "zov_quillset::processDeactivate: line:Error: gelmot command failed",
    "zov_quillset::processDeactivate: line:The request was refused by the storage system.",
    "zov_quillset::esv_spawn, cmd:/opt/bin/gelmot deactivate -s 80a3-0000-2026102312080000",
    "zov_quillset::processDeactivate: line:Error: gelmot command failed",
    "zov_quillset::esv_spawn, cmd:/opt/bin/gelmot deactivate -s 80a3-0000-2026102312080000",
    "zov_quillset::processDeactivate: gelmot deactivate successful for 80a3",
    "zov_quillset::esv_spawn, cmd:/opt/bin/gelmot deactivate -s 80a3-0000-2026102312080001",
    "zov_quillset::processDeactivate: gelmot deactivate successful for 80a3",
};

TEST(LogSinkTest, ARefusedReleaseIsToldOncePerSessionWhateverTheLevel) {
    LogSink sink;
    sink.quiet = true;
    std::vector<std::string> told;
    sink.notice = [&told](const std::string& t) { told.push_back(t); };
    for (const char* line : kRefusedRelease) module_log(9, "f", 1, line, &sink);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_NE(told[0].find("80a3-0000-2026102312080000"), std::string::npos) << told[0];
    EXPECT_NE(told[0].find("every 5 seconds"), std::string::npos) << told[0];
}

TEST(LogSinkTest, HeldLinesKeepTheLastOnesUpToTheLevel) {
    LogSink sink;
    sink.level = 3;
    sink.hold = true;
    for (size_t i = 0; i < LogSink::kHeldLines + 5; i++)
        module_log(-1, "walk", static_cast<int>(i), "command failed\n", &sink);
    module_log(7, "trace", 0, "not kept", &sink);
    ASSERT_EQ(sink.held.size(), LogSink::kHeldLines);
    EXPECT_EQ(sink.held.front(), "[-1] walk:5 command failed");
    EXPECT_EQ(sink.held.back().find("not kept"), std::string::npos);
}

}  // namespace
