// Error types and severities, system and RPC error texts, the catalogue.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "liblocal/kv_error.h"
#include "liblocal/kv_msg.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(ErrSetsev, DefaultsByType) {
    // System errors: 0 is a notice, a few are errors, the rest critical.
    EXPECT_EQ(err_setsev(1, 0, 0), 11000);
    for (int e : {4, 100, 102, 104, 110}) EXPECT_EQ(err_setsev(1, 0, e), 13000 + e) << e;
    EXPECT_EQ(err_setsev(1, 0, 2), 15002);
    EXPECT_EQ(err_setsev(1, 0, 999), 15999);
    // Other types: their table inside 0..maxerrno, else 0.
    EXPECT_EQ(err_setsev(2, 0, 0), 20000);
    EXPECT_EQ(err_setsev(2, 0, 1), 23001);
    EXPECT_EQ(err_setsev(2, 0, 30), 20030);
    EXPECT_EQ(err_setsev(16, 0, 1), 163001);
    // A severity given is kept; unregistered and out-of-range types are plain.
    EXPECT_EQ(err_setsev(2, 4, 1), 24001);
    EXPECT_EQ(err_setsev(4, 0, 3), 40003);
    EXPECT_EQ(err_setsev(22, 0, 3), 220003);
    EXPECT_EQ(err_setsev(-1, 0, 3), -10000 + 3);
}

TEST(ErrDesc, TypeAndSeverityNames) {
    EXPECT_STREQ(err_typedesc(1), "SYSTEM");
    EXPECT_STREQ(err_typedesc(2), "RPC");
    EXPECT_STREQ(err_typedesc(3), "RAP");
    EXPECT_STREQ(err_typedesc(16), "SSNCHNL");
    EXPECT_STREQ(err_typedesc(19), "SYSTEM_VSS");
    EXPECT_STREQ(err_typedesc(4), "VMR");
    EXPECT_STREQ(err_typedesc(99), "VMR");
    EXPECT_STREQ(err_typedesc(-3), "VMR");
    const char* names[] = {"info", "notice", "warning", "error", "severe", "critical"};
    for (int i = 0; i < 6; ++i) EXPECT_STREQ(err_sevdesc(i), names[i]);
    EXPECT_STREQ(err_sevdesc(9), "info");
    EXPECT_STREQ(err_sevdesc(-1), "info");
}

TEST(RpcErrstr, EveryCodeHasItsLiteralAndBoundsAreSafe) {
    std::string first = rpc_errstr(0);
    EXPECT_EQ(first.substr(first.find(':') + 1), "Success");
    std::string last = rpc_errstr(29);
    EXPECT_EQ(last.substr(last.find(':') + 1), "Can't store request");
    for (int i = 0; i <= 29; ++i) EXPECT_NE(strchr(rpc_errstr(i), ':'), nullptr) << i;
    EXPECT_STREQ(rpc_errstr(30), "Unknown error code: 30");
    EXPECT_STREQ(rpc_errstr(-1), "Unknown error code: -1");
    EXPECT_STREQ(rpc_errstr(2147483647), "Unknown error code: 2147483647");
}

TEST(ErrSet, TableTextsAndKinds) {
    errinfo* e = err_set(2, 5);
    EXPECT_EQ(e->errnum, 22005);
    EXPECT_EQ(e->arglist[0]->argdesc, ARG_LITERAL_ID);
    EXPECT_STREQ(e->errstr, "Timed out");
    errinfo* s = err_set(1, ENOENT);
    EXPECT_EQ(s->errnum, 15000 + ENOENT);
    EXPECT_EQ(s->arglist[0]->argdesc, ARG_SYSERR);
    EXPECT_STREQ(s->errstr, strerror(ENOENT));
    EXPECT_STREQ(err_set(2, 400)->errstr, "Unknown error");
    errinfo* t = err_setstr(5, 7, const_cast<char*>("custom"));
    EXPECT_STREQ(t->errstr, "custom");
    EXPECT_EQ(t->MsgId, 0);
}

TEST(ErrSetall, FillsThePerThreadRecordWithoutAMessage) {
    errinfo* e = err_setall(2, 0, 26, nullptr);
    EXPECT_EQ(e->errnum, 23026);
    EXPECT_STREQ(e->errstr, "Couldn't make connection");
    EXPECT_EQ(e->form, nullptr);
    EXPECT_STREQ(err_setall(9, 0, 77, nullptr)->errstr, "Unknown error");
    EXPECT_STREQ(err_setall(9, 2, 1, const_cast<char*>("mine"))->errstr, "mine");
}

// The record is released like any other, on its own thread or another, and
// the next err_setall fills it again.
TEST(ErrSetall, RecordIsReleasedByTheUsualCalls) {
    errinfo* e = err_setall(2, 0, 5, nullptr);
    msg_free(e);
    EXPECT_EQ(e->errstr, nullptr);
    e = err_setall(2, 0, 26, nullptr);
    EXPECT_STREQ(e->errstr, "Couldn't make connection");
    err_free(e);
    err_free(e);  // twice is harmless: the text pointer is gone
    errinfo copy = {};
    err_dup2(err_setall(9, 2, 1, const_cast<char*>("kept")), &copy);
    msg_free(err_setall(9, 2, 1, const_cast<char*>("gone")));
    EXPECT_STREQ(copy.errstr, "kept");
    msg_free(&copy);

    errinfo* mine = err_setall(3, 0, 2, nullptr);
    std::thread freer([mine] { msg_free(mine); });
    freer.join();
    EXPECT_EQ(mine->errstr, nullptr);
    EXPECT_STREQ(err_setall(3, 0, 2, nullptr)->errstr, "Resource already exists");
}

TEST(ErrAccrue, CollectsNewestFirstOnceSwitchedOn) {
    EXPECT_EQ(err_accrue("ignored while off"), nullptr);
    EXPECT_EQ(blow_err(1), nullptr);  // switches it on; nothing collected yet
    err_accrue("first");
    err_accrue("second");
    errinfo* e = blow_err(1);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->errstr, "second->(first)");
    EXPECT_EQ(e->errnum, -10001);
    EXPECT_EQ(blow_err(1), nullptr);
    std::string huge(20000, 'h');
    err_accrue(huge.c_str());  // dropped
    EXPECT_EQ(blow_err(1), nullptr);
}

TEST(KvStrerror, KeepsErrnoAndLastErrorAndRefusesForeignCodes) {
    kv_error_set_last(KV_ERRKIND_GAI, 42);
    errno = EAGAIN;
    EXPECT_STREQ(kv_strerror(ENOENT), strerror(ENOENT));
    EXPECT_EQ(errno, EAGAIN);
    int kind = 0;
    EXPECT_EQ(kv_error_get_last(&kind), 42);
    EXPECT_EQ(kind, KV_ERRKIND_GAI);
    EXPECT_STREQ(kv_strerror((1 << 28) | 5), "Unknown error");
    kv_error_set_last(KV_ERRKIND_ERRNO, EACCES);
    EXPECT_STREQ(kv_error_get_message(), strerror(EACCES));
    kv_error_clear_last();
}

std::string long_literal(int i) {
    return "L" + std::to_string(i) + std::string(1500, 'a' + i);
}

// A catgets catalogue made with gencat in a scratch folder.
class Catalogue : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp_.ok());
        dir_ = tmp_.path();
        std::string loc = dir_ + "/xx_XX";
        ASSERT_EQ(mkdir(loc.c_str(), 0755), 0);
        std::string src = dir_ + "/cat.msg";
        FILE* f = fopen(src.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs("$set 1\n5 Bonjour %s\n6 %2$s puis %1$s\n7 100%\n", f);
        // A format of ten literals, each translated into a long text.
        fputs("8 <%s|%s|%s|%s|%s|%s|%s|%s|%s|%s>\n", f);
        for (int i = 1; i <= 10; ++i) fprintf(f, "%d %s\n", 10 + i, long_literal(i).c_str());
        fputs("$set 2\n1 set two\n", f);
        fclose(f);
        std::string cmd = "gencat " + loc + "/vmr.cat " + src + " 2>/dev/null";
        if (system(cmd.c_str()) != 0) GTEST_SKIP() << "gencat is not available";
        kv_set_catalog_dir(dir_.c_str());
    }
    void TearDown() override {
        kv_set_my_locale(nullptr);
        kv_set_catalog_dir(nullptr);
        kv_i18n_enable(1);
    }
    zovtest::TempDir tmp_{"msgcat"};
    std::string dir_;
};

TEST_F(Catalogue, TranslationIsChosenByNumberAndLocale) {
    EXPECT_STREQ(render_string(5, "xx_XX.UTF-8", "Hello %s", ARG_TEXT, "bob"), "Bonjour bob");
    EXPECT_STREQ(get_localized_form(10001, "xx_XX", "x"), "set two");
    // Number 0 is never translated; English locales keep the form.
    EXPECT_STREQ(render_string(0, "xx_XX", "Hello %s", ARG_TEXT, "bob"), "Hello bob");
    EXPECT_STREQ(render_string(5, "en_US.utf8", "Hello %s", ARG_TEXT, "bob"), "Hello bob");
    EXPECT_STREQ(render_string(5, "C", "Hello %s", ARG_TEXT, "bob"), "Hello bob");
    EXPECT_STREQ(render_string(5, "yy_YY", "Hello %s", ARG_TEXT, "bob"), "Hello bob");
    EXPECT_STREQ(get_localized_form(99, "xx_XX", "missing"), "missing");
    kv_i18n_enable(0);
    EXPECT_STREQ(render_string(5, "xx_XX", "Hello %s", ARG_TEXT, "bob"), "Hello bob");
}

TEST_F(Catalogue, TranslationMayReorderArguments) {
    EXPECT_STREQ(render_string(6, "xx_XX", "%s then %s", ARG_TEXT, "A", ARG_TEXT, "B"), "B puis A");
}

// Under the process locale every literal is looked up as the format is
// walked; the translated format must outlive all those lookups.
TEST_F(Catalogue, TranslatedFormOutlivesTheLookupsOfItsLiterals) {
    kv_set_my_locale("xx_XX");
    std::string want = "<";
    for (int i = 1; i <= 10; ++i) want += long_literal(i) + (i < 10 ? "|" : ">");
    const char* en = "%s %s %s %s %s %s %s %s %s %s";
    const char* r = render_string(
        8, nullptr, en, ARG_LITERAL_ID, "11:a", ARG_LITERAL_ID, "12:b", ARG_LITERAL_ID, "13:c",
        ARG_LITERAL_ID, "14:d", ARG_LITERAL_ID, "15:e", ARG_LITERAL_ID, "16:f", ARG_LITERAL_ID,
        "17:g", ARG_LITERAL_ID, "18:h", ARG_LITERAL_ID, "19:i", ARG_LITERAL_ID, "20:j");
    EXPECT_EQ(std::string(r), want);
    errinfo* e = msg_create(8, 0, en, ARG_LITERAL_ID, "11:a", ARG_LITERAL_ID, "12:b",
                            ARG_LITERAL_ID, "13:c", ARG_LITERAL_ID, "14:d", ARG_LITERAL_ID, "15:e",
                            ARG_LITERAL_ID, "16:f", ARG_LITERAL_ID, "17:g", ARG_LITERAL_ID, "18:h",
                            ARG_LITERAL_ID, "19:i", ARG_LITERAL_ID, "20:j");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e->errstr), want);
    msg_free(e);
}

TEST_F(Catalogue, LiteralByIdAndErrnoPreserved) {
    errno = ERANGE;
    EXPECT_STREQ(render_string(0, "xx_XX", "[%s]", ARG_LITERAL_ID, "5:Hello"), "[Bonjour %s]");
    EXPECT_EQ(errno, ERANGE);
    EXPECT_STREQ(render_literal_id("xx_XX", "no colon", nullptr), "no colon");
}

}  // namespace
