// Parsers of the session commands and of the host tool's activate and
// deactivate, fed captured text.
#include <time.h>

#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_parse_fixture.h"

using sgtest::Feed;
using sgtest::fixture;
using sgtest::Quillset;

namespace {

// A 70-character session name stamped `days_ago` days before now, with the
// month counted from 0 as the provider writes it.
std::string session_name(int days_ago, const char* prefix = "zovmerl-age-cow-") {
    time_t t = time(nullptr) - (time_t)days_ago * 86400;
    struct tm tm;
    localtime_r(&t, &tm);
    char stamp[32];
    snprintf(stamp, sizeof(stamp), "%04d%02d%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon, tm.tm_mday,
             tm.tm_hour, tm.tm_min);
    std::string name = prefix;
    name.resize(54, '-');
    return name + stamp + "0001";
}

TEST(SessNames, NamesAreCollectedAndNonConformingOnesKeptAndVerifiable) {
    Quillset q;
    Feed f(fixture("quillset_listsessions", "mixed_names.txt"));
    EXPECT_EQ(q->processSessionNames(f.get(), "10.1.1.1"), nullptr);
    ASSERT_EQ(q->m_sessionList.size(), 3u);
    const std::string short69 = q->m_sessionList[1];
    EXPECT_EQ(short69.size(), 69u);
    EXPECT_EQ(q.log.count("found non-conforming session name: [" + short69 + "] (69)", 7), 1);
    EXPECT_EQ(q.log.count("found non-conforming session name [" + q->m_sessionList[2] + "]", 7), 1);
    EXPECT_EQ(q->verifySession(short69), 1);
    EXPECT_EQ(q->verifySession(short69 + "x"), 0);
    // The 2001 session is very old.
    EXPECT_EQ(
        q.log.count("INFO - Found session (" + q->m_sessionList[0] + ") on frame (10.1.1.1)", 0),
        1);
}

TEST(SessNames, ThirtyOneDaysIsOldAndTwentyNineIsNot) {
    Quillset q({"10.1.1.1", "10.1.1.2"});
    const std::string old31 = session_name(31), young29 = session_name(29);
    ASSERT_EQ(old31.size(), 70u);
    Feed f("Name of the session:  " + old31 + "\nName of the session:  " + young29 + "\n");
    q->processSessionNames(f.get(), "10.1.1.1");
    EXPECT_EQ(q.log.count("INFO - Found session (" + old31 + ") on frame (10.1.1.1)", 0), 1);
    EXPECT_EQ(q.log.count(young29 + ") on frame", 0), 0);
    // The next frame's query surveys the whole list again, naming that frame.
    Feed g("nothing\n");
    q->processSessionNames(g.get(), "10.1.1.2");
    EXPECT_EQ(q.log.count("INFO - Found session (" + old31 + ") on frame (10.1.1.2)", 0), 1);
    EXPECT_EQ(q.log.count("Context of command output buffer [nothing", 5), 1);
}

TEST(SessVerify, EmptyListVerifiesNothing) {
    Quillset q;
    EXPECT_EQ(q->verifySession(""), 0);
    EXPECT_EQ(q->verifySession("x"), 0);
}

TEST(SessStart, OnlyTheActivateHintMeansStarted) {
    Quillset q;
    Feed ok(fixture("quillset_startsession", "started.txt"));
    EXPECT_EQ(q->processStart(ok.get(), "10.1.1.1"), nullptr);
    Feed bad(fixture("quillset_startsession", "refused.txt"));
    SSError* err = q->processStart(bad.get(), "10.1.1.1");
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_UNABLE_TO_CREATE_SNAPSHOT);
    EXPECT_EQ(
        std::string(err->getErrMsg())
            .find("zov_quillset::processStart: Unable to 'tillocli quillset -startsession' for"),
        0u);
    delete err;
    // The refusal is logged line by line without the line feed.
    EXPECT_EQ(q.log.count("[LUN 17 is not configured for snapshots.]", -1), 1);
    Feed indented("  You must activate a snapshot\n");
    err = q->processStart(indented.get(), "10.1.1.1");
    EXPECT_NE(err, nullptr);
    delete err;
}

TEST(SessActivate, LaterActivatedLineWinsAndNoLineLeavesDstEmpty) {
    Quillset q;
    snapdevice sd;
    sd.dstName = "old";
    Feed f(fixture("gelmot_activate", "two_lines.txt"));
    q->processActivate(f.get(), sd);
    EXPECT_EQ(sd.dstName, "/dev/rdsk//dev/zovhadrixb");
    Feed g(fixture("gelmot_activate", "refused.txt"));
    q->processActivate(g.get(), sd);
    EXPECT_EQ(sd.dstName, "");
    EXPECT_EQ(q.log.count("line [Error: session zovsess-a does not exist", 9), 1);
}

TEST(SessDeactivate, DeactivatedLineIsSuccessAnythingElseAProviderError) {
    Quillset q;
    snapdevice sd;
    sd.sessionId = "zovsess-a";
    Feed ok(fixture("gelmot_deactivate", "ok.txt"));
    EXPECT_EQ(q->processDeactivate(ok.get(), sd), nullptr);
    Feed bad(fixture("gelmot_deactivate", "refused.txt"));
    SSError* err = q->processDeactivate(bad.get(), sd);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_SNAP_PROVIDER_ERROR);
    delete err;
    EXPECT_EQ(q.log.count("line:Error: session zovsess-a is not active", 9), 1);
}

TEST(SessRollback, SilenceSucceedsAndThreeCharactersFail) {
    Quillset q;
    Feed silent(fixture("quillset_startrollback", "silent.txt"));
    EXPECT_EQ(q->processRollback(silent.get(), "10.1.1.1"), nullptr);
    Feed empty("");
    EXPECT_EQ(q->processRollback(empty.get(), "10.1.1.1"), nullptr);

    Feed two(fixture("quillset_startrollback", "two_letters.txt"));
    SSError* err = q->processRollback(two.get(), "10.1.1.1");
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_ROLLBACK_IMPACTS);
    EXPECT_STREQ(err->getErrMsg(),
                 "zov_quillset::processRollback: Unable to rollback session for : [ab\n]");
    delete err;

    // Short lines before the first real one are not part of the message.
    Feed late(fixture("quillset_startrollback", "refused_after_short.txt"));
    err = q->processRollback(late.get(), "10.1.1.1");
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->getErrMsg(),
                 "zov_quillset::processRollback: Unable to rollback session for : "
                 "[Error: session is not active\ncannot start rollback\n]");
    delete err;
}

}  // namespace
