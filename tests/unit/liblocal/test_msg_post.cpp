// Output of messages: console forms, the logging hook, log lines and files.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "liblocal/kv_msg.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

std::vector<errinfo> g_hooked;

void keep_hook(int, errinfo* m) {
    errinfo c;
    memset(&c, 0, sizeof(c));
    err_dup2(m, &c);
    g_hooked.push_back(c);
}

class Post : public testing::Test {
protected:
    void TearDown() override {
        msg_set_post_func(nullptr);
        msg_set_timestamps(0);
        for (errinfo& e : g_hooked) msg_free(&e);
        g_hooked.clear();
    }
    std::string prog_ = msg_get_program_name();
};

TEST_F(Post, ConsoleFormsByDestinationBits) {
    errinfo* e = msg_create(7, 0, "disk %s full\n", ARG_PATH, "/d");
    CaptureStdout();
    CaptureStderr();
    msg_post(MSG_DEST_STDOUT | MSG_DEST_STDERR, e);
    EXPECT_EQ(GetCapturedStdout(), "disk /d full\n");
    EXPECT_EQ(GetCapturedStderr(), "7:" + prog_ + ": disk /d full\n");
    CaptureStderr();
    msg_post(MSG_DEST_STDERR | MSG_DEST_NOMSGID, e);
    EXPECT_EQ(GetCapturedStderr(), "disk /d full\n");
    errinfo* z = msg_create(0, 0, "as it stands");
    CaptureStderr();
    msg_post(MSG_DEST_STDERR, z);
    EXPECT_EQ(GetCapturedStderr(), "as it stands");
    // Nothing for a null record or a record without a format.
    msg_post(MSG_DEST_STDERR, nullptr);
    errinfo empty;
    memset(&empty, 0, sizeof(empty));
    msg_post(MSG_DEST_STDERR, &empty);
}

TEST_F(Post, MsgPrintShortcutWritesTheRenderingAsItIs) {
    CaptureStdout();
    CaptureStderr();
    msg_print(5, 0, MSG_DEST_STDOUT | MSG_DEST_STDERR, "hi %s\n", ARG_TEXT, "x");
    EXPECT_EQ(GetCapturedStdout(), "hi x\n");
    EXPECT_EQ(GetCapturedStderr(), "5:" + prog_ + ": hi x\n");
    CaptureStderr();
    msg_print(0, 0, MSG_DEST_STDERR, "plain %d\n", ARG_INT, "3");
    EXPECT_EQ(GetCapturedStderr(), "plain 3\n");
}

TEST_F(Post, HookGetsTheRecordWithSeverityFromAShortErrnum) {
    msg_set_post_func(keep_hook);
    msg_print(1, 3, MSG_DEST_LOGONLY, "sev three");
    msg_print(2, 15000 + EIO, MSG_DEST_LOGONLY, "io");
    msg_print(3, 10000 + EIO, MSG_DEST_LOGONLY, "io default");
    ASSERT_EQ(g_hooked.size(), 3u);
    EXPECT_EQ(g_hooked[0].errnum, 3000);
    EXPECT_EQ(g_hooked[1].errnum, 15000 + EIO);
    EXPECT_EQ(g_hooked[2].errnum, 15000 + EIO);  // errno defaults to critical
    // Console-only posts never reach the hook.
    CaptureStderr();
    msg_print(4, 0, MSG_DEST_STDERR, "console\n");
    GetCapturedStderr();
    EXPECT_EQ(g_hooked.size(), 3u);
}

TEST_F(Post, LogLineLayoutAndRenderedFormRoundTrip) {
    errinfo* e = msg_create(42, 23005, "two\nlines %s|%s\n", ARG_TEXT, "a\nb", ARG_PATH, "p q");
    char buf[4096];
    msg_printbuf(e, buf, sizeof(buf), nullptr, 0);
    char expect_head[512];
    snprintf(expect_head, sizeof(expect_head), "42 %lu 3 2 5 %u %d %d %s %s RPC error ",
             static_cast<unsigned long>(e->timestamp), static_cast<unsigned>(e->threadID),
             e->processID, e->activityID, e->hostName, prog_.c_str());
    std::string line = buf;
    ASSERT_EQ(line.compare(0, strlen(expect_head), expect_head), 0) << line;
    EXPECT_EQ(line.substr(strlen(expect_head)), "16 two\\nlines %s|%s 2 0 2 ab 23 3 p q\n");
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
    // A stored line renders back like the rendered log would have it.
    errinfo* f = msg_create(43, 23005, "two\nlines %s|%d\n", ARG_PATH, "p q", ARG_INT, "-4");
    msg_printbuf(f, buf, sizeof(buf), nullptr, 0);
    char rend[4096];
    msg_printbuf(f, rend, sizeof(rend), nullptr, 1);
    EXPECT_STREQ(render_logline(nullptr, buf), rend);
    EXPECT_NE(std::string(rend).find(" two\nlines p q|-4\n"), std::string::npos) << rend;
    // A line that is no log line comes back as it is.
    char junk[] = "not a log line";
    EXPECT_EQ(render_logline(nullptr, junk), junk);
    // Fields that make no error number are no log line either.
    char huge[] = "3 0 63333333333333333 3 1 1 2 3 h    1 1";
    EXPECT_EQ(render_logline(nullptr, huge), huge);
    // Lines a fuzzer kept as slow, with a field width of six digits, a
    // conversion of no known kind and bytes past a NUL: each renders.
    char wide[] = "50 44 0 6 0 1 2 3 h   1 23 1  e %   -232113E zs%jG 1 32 3 0 \x14 ";
    EXPECT_NE(render_logline(nullptr, wide), nullptr);
    char odd[] = "51 23 1 e%     -232112E 3\xc8  u 1 2 3 0 1";
    EXPECT_NE(render_logline(nullptr, odd), nullptr);
    // A stored message whose "%Ls" went to the C library as "%s" with a
    // double behind it (a crash the fuzzer found) renders.
    EXPECT_NE(render_stbuf(nullptr, "50 33 0 6 3 1 1 23 1e%     - 232111Lsh0 1 2 5 o 5 1"),
              nullptr);
}

TEST_F(Post, TimeTheSystemCannotShowLeavesTheStampEmpty) {
    errinfo* m = msg_create(43, 23005, "late");
    ASSERT_NE(m, nullptr);
    m->timestamp = 68000000000000000ULL;  // beyond any calendar year the system shows
    rendered_msg* r = msg_render(m, nullptr, 0);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->timestamp, "");
    free_rendered_msgs(r);
}

TEST_F(Post, TimestampedConsoleGetsTheLogLine) {
    msg_set_timestamps(1);
    errinfo* e = msg_create(9, 0, "stamped");
    CaptureStdout();
    msg_post(MSG_DEST_STDOUT, e);
    std::string out = GetCapturedStdout();
    EXPECT_EQ(out.compare(0, 2, "9 "), 0);
    EXPECT_NE(out.find(" 7 stamped 0\n"), std::string::npos) << out;
}

class LogFile : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp_.ok());
        dir_ = tmp_.path();
        path_ = dir_ + "/daemon.raw";
    }
    void TearDown() override { setlog_dtls_query_func(nullptr); }
    std::vector<std::string> lines() {
        std::ifstream in(path_);
        std::vector<std::string> v;
        for (std::string l; std::getline(in, l);) v.push_back(l);
        return v;
    }
    zovtest::TempDir tmp_{"msglog"};
    std::string dir_, path_;
};

TEST_F(LogFile, LinesOfSeveralProcessesStayWhole) {
    FILE* fp = msg_log_open(path_.c_str(), "test", MSG_LOG_CUSTOM);
    ASSERT_NE(fp, nullptr);
    const int kProcs = 4;
    const int kLines = 40;
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // Longer than a stdio buffer, so each line takes several writes.
            std::string body(6000, static_cast<char>('a' + p));
            for (int i = 0; i < kLines; ++i)
                msg_post(MSG_DEST_CUSTLOG, msg_create(100 + p, 0, "%s", ARG_PATH, body.c_str()));
            _exit(0);
        }
        kids.push_back(pid);
    }
    for (pid_t k : kids) {
        int st = 0;
        ASSERT_EQ(waitpid(k, &st, 0), k);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    msg_log_close(fp);
    std::vector<std::string> ls = lines();
    ASSERT_EQ(ls.size(), static_cast<size_t>(kProcs * kLines));
    int broken = 0;
    for (const std::string& l : ls) {
        int id = atoi(l.c_str());
        std::string tail = " 1 23 6000 " + std::string(6000, static_cast<char>('a' + id - 100));
        bool whole = id >= 100 && id < 100 + kProcs && l.size() >= tail.size() &&
                     l.compare(l.size() - tail.size(), tail.size(), tail) == 0;
        if (!whole) ++broken;
    }
    EXPECT_EQ(broken, 0);
}

TEST_F(LogFile, RenderedLogAndRollOut) {
    {
        std::ofstream big(path_);
        big << std::string(1024 * 1024 + 10, 'o');
        std::ofstream old(path_ + ".1");
        old << "older";
    }
    setlog_dtls_query_func([](const char*, int* size, int* versions) {
        *size = 1;
        *versions = 3;
    });
    FILE* fp = msg_log_open(path_.c_str(), "app", MSG_LOG_RENDERED);
    ASSERT_NE(fp, nullptr);
    struct stat st;
    ASSERT_EQ(stat((path_ + ".1").c_str(), &st), 0);
    EXPECT_GT(st.st_size, 1024 * 1024);
    std::ifstream two(path_ + ".2");
    std::string older;
    two >> older;
    EXPECT_EQ(older, "older");
    msg_post(MSG_DEST_LOGONLY, msg_create(31, 0, "rendered %s\n", ARG_TEXT, "text"));
    msg_log_close(fp);
    std::vector<std::string> ls = lines();
    ASSERT_EQ(ls.size(), 1u);
    EXPECT_EQ(ls[0].compare(0, 3, "31 "), 0);
    EXPECT_EQ(ls[0].substr(ls[0].size() - 14), " rendered text") << ls[0];
}

}  // namespace
