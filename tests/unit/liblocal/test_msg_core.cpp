// Message records: ring and pool lifetimes, creation, copies, release.
#include <string.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "liblocal/kv_msg.h"

namespace {

TEST(MsgCreate, RendersEnglishAndFillsCircumstances) {
    errinfo* e = msg_create(12, 0, "File %s holds %d bytes\n", ARG_PATH, "/tmp/x", ARG_INT, "42");
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->errstr, "File /tmp/x holds 42 bytes\n");
    EXPECT_EQ(e->MsgId, 12);
    ASSERT_EQ(e->argcount, 2);
    EXPECT_EQ(e->arglist[0]->argdesc, ARG_PATH);
    EXPECT_STREQ(e->arglist[1]->arg, "42");
    EXPECT_EQ(e->processID, getpid());
    EXPECT_NE(e->programName, nullptr);
    EXPECT_GT(strlen(e->hostName), 0u);
    EXPECT_GT(e->timestamp, 0u);
    msg_free(e);
}

TEST(MsgCreate, NullFormGivesNullAndTakesNoSlot) {
    errinfo* first = msg_create(0, 0, "first");
    EXPECT_EQ(msg_create(0, 0, nullptr), nullptr);
    // Had the null call taken a slot, the 31st of these would reuse first's.
    for (int i = 0; i < MSG_ERRINFO_RING_SIZE - 1; ++i) EXPECT_NE(msg_create(0, 0, "x"), first);
    EXPECT_STREQ(first->errstr, "first");
}

TEST(MsgRing, RecordSurvives31CreationsAndThe33rdReusesTheFirstSlot) {
    errinfo* first = msg_create(0, 0, "%s", ARG_TEXT, "keep me");
    for (int i = 0; i < MSG_ERRINFO_RING_SIZE - 1; ++i) {
        errinfo* e = msg_create(0, 0, "%d", ARG_INT, std::to_string(i).c_str());
        EXPECT_NE(e, first);
    }
    EXPECT_STREQ(first->errstr, "keep me");
    errinfo* again = msg_create(0, 0, "new");
    EXPECT_EQ(again, first);
    EXPECT_STREQ(again->errstr, "new");
    EXPECT_EQ(again->argcount, 0);
}

TEST(MsgRing, EachThreadHasItsOwnRing) {
    errinfo* mine = msg_create(0, 0, "main thread");
    std::thread t([] {
        for (int i = 0; i < 3 * MSG_ERRINFO_RING_SIZE; ++i) msg_create(0, 0, "other");
    });
    t.join();
    EXPECT_STREQ(mine->errstr, "main thread");
}

TEST(MsgFree, ReleasesStringsMarksSlotFreeAndIsSafeTwice) {
    errinfo* e = msg_create(3, 0, "%s", ARG_TEXT, "a");
    msg_free(e);
    EXPECT_EQ(e->MsgId, MSG_FREE_SLOT);
    EXPECT_EQ(e->errstr, nullptr);
    EXPECT_EQ(e->form, nullptr);
    EXPECT_EQ(e->arglist, nullptr);
    EXPECT_EQ(e->argcount, 0);
    msg_free(e);
    err_free(e);
    msg_free(nullptr);
}

TEST(ErrDup2, CopySurvivesFreeOfSourceAndRingReuse) {
    errinfo* src =
        msg_create(7, 35021, "Attribute '%s' too long [%d]", ARG_ATTRNAME, "NAME", ARG_INT, "63");
    errinfo copy;
    memset(&copy, 0, sizeof(copy));
    err_dup2(src, &copy);
    msg_free(src);
    for (int i = 0; i < 2 * MSG_ERRINFO_RING_SIZE; ++i) msg_create(0, 0, "churn");
    EXPECT_STREQ(copy.errstr, "Attribute 'NAME' too long [63]");
    EXPECT_EQ(copy.errnum, 35021);
    EXPECT_EQ(copy.MsgId, 7);
    ASSERT_EQ(copy.argcount, 2);
    EXPECT_STREQ(copy.arglist[0]->arg, "NAME");
    EXPECT_STREQ(render_structext(nullptr, errinfo_structext(&copy)),
                 "Attribute 'NAME' too long [63]");
    msg_free(&copy);
}

TEST(ErrDup2, NullSourceZeroesAndNullTargetIsIgnored) {
    errinfo t;
    memset(&t, 0x5a, sizeof(t));
    err_dup2(nullptr, &t);
    EXPECT_EQ(t.errstr, nullptr);
    EXPECT_EQ(t.form, nullptr);
    EXPECT_EQ(t.errnum, 0);
    err_dup2(msg_create(0, 0, "x"), nullptr);
}

TEST(ErrDup, RestoreCopiesIntoTheRingAndFreesTheSource) {
    errinfo own;
    memset(&own, 0, sizeof(own));
    err_dup2(msg_create(0, 0, "%s", ARG_TEXT, "saved"), &own);
    errinfo* r = err_restore(&own);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->errstr, "saved");
    EXPECT_EQ(own.errstr, nullptr);
    EXPECT_EQ(err_restore(nullptr), nullptr);
}

TEST(MsgCreate, NestedErrinfoBecomesAnStbufAndRendersRecursively) {
    errinfo* inner = msg_create(5, 0, "disk %s failed", ARG_PATH, "/dev/sda");
    errinfo* outer =
        msg_create(6, 0, "backup stopped: %s", ARG_NESTED_ERRINFO, reinterpret_cast<char*>(inner));
    ASSERT_EQ(outer->argcount, 1);
    EXPECT_EQ(outer->arglist[0]->argdesc, ARG_NESTED_STBUF);
    EXPECT_STREQ(outer->arglist[0]->arg, "5 14 disk %s failed 1 23 8 /dev/sda");
    EXPECT_STREQ(outer->errstr, "backup stopped: disk /dev/sda failed");
    // The nested text no longer depends on the inner record.
    msg_free(inner);
    EXPECT_STREQ(render_structext(nullptr, errinfo_structext(outer)),
                 "backup stopped: disk /dev/sda failed");
}

TEST(MsgCreate, NullArgumentBecomesTheWordNull) {
    testing::internal::CaptureStderr();
    errinfo* e = msg_create(77, 0, "value %s", ARG_PATH, static_cast<char*>(nullptr));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(e->errstr, "value null");
    EXPECT_EQ(e->arglist[0]->argdesc, ARG_TEXT);
    EXPECT_NE(err.find("passing null into one of the msg creation calls with msg id 77"),
              std::string::npos);
}

TEST(MsgCreate, ArgumentTextIsNeverAFormat) {
    errinfo* e = msg_create(0, 0, "%s|%d", ARG_TEXT, "%n%s%s%x%n", ARG_INT, "%n");
    EXPECT_STREQ(e->errstr, "%n%s%s%x%n|0");
}

TEST(MsgCreate, ErrorCodeGetsTheTypesDefaultSeverity) {
    EXPECT_EQ(msg_create(0, 10000 + 5, "x")->errnum, 15005);  // errno 5: critical
    EXPECT_EQ(msg_create(0, 10000 + 4, "x")->errnum, 13004);  // EINTR: error
    EXPECT_EQ(msg_create(0, 12005, "x")->errnum, 12005);      // given severity kept
    EXPECT_EQ(msg_create(0, -10001, "x")->errnum, -10001);
}

TEST(LiteralPool, NumbersAsText) {
    EXPECT_STREQ(inttostr(-12), "-12");
    EXPECT_STREQ(uinttostr(4000000000u), "4000000000");
    EXPECT_STREQ(longtostr(-9000000000L), "-9000000000");
    EXPECT_STREQ(ulongtostr(18446744073709551615UL), "18446744073709551615");
    EXPECT_STREQ(floattostr(1.5), "1.500000");
    EXPECT_STREQ(chartostr('q'), "q");
    EXPECT_EQ(std::string(ptrtostr(nullptr)), "(nil)");
}

TEST(LiteralPool, OtherThreadsNeverWrapOntoABufferAndItsOwnThreadAfter200) {
    char* mine = inttostr(4242);
    std::vector<std::thread> ts;
    for (int k = 0; k < 8; ++k)
        ts.emplace_back([] {
            for (int i = 0; i < 500; ++i) inttostr(i);
        });
    for (auto& t : ts) t.join();
    EXPECT_STREQ(mine, "4242");  // 4000 uses elsewhere leave it alone
    for (int i = 0; i < 198; ++i) inttostr(i);
    EXPECT_STREQ(mine, "4242");    // 198 uses of its own thread since
    EXPECT_NE(inttostr(1), mine);  // 199th
    EXPECT_EQ(inttostr(2), mine);  // 200th: the thread's ring came round
}

TEST(MsgPool, RenderStringBuffersAreReusedAfter200) {
    char* first = render_string(0, nullptr, "%s", ARG_TEXT, "one");
    for (int i = 0; i < MSG_BUFFER_POOL_COUNT - 2; ++i) render_string(0, nullptr, "x");
    EXPECT_STREQ(first, "one");
    EXPECT_NE(render_string(0, nullptr, "y"), first);
    EXPECT_EQ(render_string(0, nullptr, "z"), first);
}

TEST(MsgLit, CutTo3071Bytes) {
    std::string big(5000, 'a');
    char* lit = msg_lit_create(0, big.c_str());
    EXPECT_EQ(strlen(lit), 3071u);
    EXPECT_STREQ(msg_mlit_create(42, "hello"), "42:hello");
}

TEST(StructextRing, CreateAndPopulate) {
    structext* s = msg_structext_create(9, "%s-%s", ARG_TEXT, "a", ARG_TEXT, "b");
    EXPECT_STREQ(render_structext(nullptr, s), "a-b");
    structext mine;
    memset(&mine, 0, sizeof(mine));
    EXPECT_EQ(msg_structext_populate(nullptr, 1, "x"), nullptr);
    EXPECT_EQ(msg_structext_populate(&mine, 1, nullptr), nullptr);
    ASSERT_EQ(msg_structext_populate(&mine, 1, "%d", ARG_INT, "5"), &mine);
    EXPECT_STREQ(render_structext(nullptr, &mine), "5");
    msg_structext_depopulate(&mine);
    EXPECT_EQ(mine.form, nullptr);
    int kinds[2] = {ARG_TEXT, ARG_INT};
    char* args[2] = {const_cast<char*>("n"), const_cast<char*>("3")};
    structext* n = msg_structext_new(4, "%s=%d", 2, kinds, args);
    EXPECT_STREQ(render_structext(nullptr, n), "n=3");
}

// The structext ring's size is read when a thread makes its first record.
int structext_ring_size_with(const char* env) {
    int size = 0;
    std::thread t([&] {
        setenv("MSG_STRUCTURED_TEXT_POOL_SIZE", env, 1);
        structext* first = msg_structext_create(0, "first");
        unsetenv("MSG_STRUCTURED_TEXT_POOL_SIZE");
        for (int i = 1; i <= 200 && size == 0; ++i)
            if (msg_structext_create(0, "next") == first) size = i;
    });
    t.join();
    return size;
}

TEST(StructextRing, SizeFromTheEnvironment) {
    EXPECT_EQ(structext_ring_size_with("100"), 64);
    EXPECT_EQ(structext_ring_size_with("64"), 64);
    EXPECT_EQ(structext_ring_size_with("127"), 64);
    EXPECT_EQ(structext_ring_size_with("128"), 128);
    EXPECT_EQ(structext_ring_size_with("5000"), 128);
    EXPECT_EQ(structext_ring_size_with("63"), 32);
    EXPECT_EQ(structext_ring_size_with("junk"), 32);
}

}  // namespace
