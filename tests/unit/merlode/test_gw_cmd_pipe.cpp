// Tool location (CMD), the pipe, the locators and esv_spawn, with a real
// tiny child (tests/helpers/gw_argv_dump) that reports what it was given.
#include <errno.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "liblocal/kv_spawn.h"
#include "storage/ssm/merlode/cli/cmd_pipe.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "tests/unit/merlode/gw_test_util.h"

namespace {

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> out;
    std::string cur;
    for (char c : s) {
        if (c == sep) {
            if (!cur.empty()) out.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) out.push_back(cur);
    return out;
}

TEST(GwCmd, SearchOrderIsExtraThenPathThenDefaults) {
    ScopedEnv path("PATH", "/p1:/p2 /p3::/p1");
    CMD plain;
    std::vector<std::string> want{"/p1", "/p2", "/p3", "/p1"};
    for (const std::string& d : split(CMD_DEFAULT_SEARCH_PATH, ':')) want.push_back(d);
    EXPECT_EQ(plain.paths(), want);

    CMD extra("/x :/y");
    ASSERT_GE(extra.paths().size(), 2u);
    EXPECT_EQ(extra.paths()[0], "/x");
    EXPECT_EQ(extra.paths()[1], "/y");
    EXPECT_EQ(extra.paths()[2], "/p1");

    size_t before = plain.paths().size();
    plain.AddDirectories(nullptr);
    plain.AddDirectories("");
    plain.AddDirectories(" : ");
    EXPECT_EQ(plain.paths().size(), before);
}

TEST(GwCmd, PathUnsetSearchesDefaultsOnly) {
    ScopedEnv path("PATH", nullptr);
    CMD c;
    EXPECT_EQ(c.paths(), split(CMD_DEFAULT_SEARCH_PATH, ':'));
}

TEST(GwCmd, CachesHitsNotMisses) {
    TempDir a, b;
    ScopedEnv path("PATH", (a.path() + ":" + b.path()).c_str());
    CMD c;
    EXPECT_EQ(c.findCmdPath("gw-no-such-tool"), "");
    // Installed after a miss: found on the next call.
    std::string in_b = add_exe(b, "gw-no-such-tool");
    EXPECT_EQ(c.findCmdPath("gw-no-such-tool"), in_b);
    // A better placed copy later does not displace the cached hit.
    add_exe(a, "gw-no-such-tool");
    EXPECT_EQ(c.findCmdPath("gw-no-such-tool"), in_b);
    // A plain file without execute permission is no hit.
    std::string plainfile = a.path() + "/gw-plain";
    FILE* f = fopen(plainfile.c_str(), "w");
    fclose(f);
    EXPECT_EQ(c.findCmdPath("gw-plain"), "");
}

TEST(GwPipe, PcloseOfAnyOtherValueClosesWriteEnd) {
    int fds_before = open_fd_count();
    {
        Pipe p(&LogCapture::fn, nullptr);  // never initialised: destructor is harmless
    }
    {
        Pipe p(&LogCapture::fn, nullptr);
        ASSERT_EQ(p.init(), nullptr);
        EXPECT_EQ(open_fd_count(), fds_before + 2);
        int w = p.getwrite_fd();
        p.pclose(12345);
        EXPECT_EQ(fcntl(w, F_GETFD), -1);
        // With the write end closed the reader sees the end at once.
        char buf[8];
        EXPECT_EQ(fgets(buf, sizeof buf, p.getread_strm()), nullptr);
        p.pclose(p.getread_fd());
        EXPECT_EQ(p.getread_strm(), nullptr);
    }
    EXPECT_EQ(open_fd_count(), fds_before);
}

// An object whose tools are the argv dumper, started directly.
class GwSpawn : public ::testing::Test {
protected:
    void SetUp() override {
        dumper = build_dir() + "/tests/helpers/gw_argv_dump";
        struct stat st;
        if (stat(dumper.c_str(), &st) != 0) GTEST_SKIP() << "helper not built: " << dumper;
    }
    // Runs `line` through esv_spawn with a pipe and returns the child's output.
    std::string run(zov_quillset& q, const std::string& line, SSError** errp = nullptr) {
        Pipe p(&LogCapture::fn, &log);
        EXPECT_EQ(p.init(), nullptr);
        int pid = -1;
        SSError* err = q.esv_spawn(&p, &pid, "%s", line.c_str());
        if (errp != nullptr)
            *errp = err;
        else {
            EXPECT_EQ(err, nullptr) << err->getErrMsg();
            delete err;
        }
        p.pclose(p.getwrite_fd());
        std::string out, l;
        if (err == nullptr) {
            while (q.lfgets(l, p.getread_strm())) out += l;
            int status = 0;
            EXPECT_EQ(waitchild(pid, &status, 0), pid);
        }
        return out;
    }
    std::string dumper;
    LogCapture log;
};

TEST_F(GwSpawn, CutsAtBlanksWithoutQuoting) {
    zov_quillset q(&LogCapture::fn, &log);
    std::string out = run(q, dumper + "  -h   198.18.0.1 \"a b\" x%y");
    EXPECT_NE(out.find("argc=6\n[-h]\n[198.18.0.1]\n[\"a]\n[b\"]\n[x%y]\n"), std::string::npos)
        << out;
    // Standard error arrives in the same stream.
    EXPECT_NE(out.find("stderr line\r\n"), std::string::npos);
    // One trailing blank adds nothing; two or more add one empty argument.
    EXPECT_NE(run(q, dumper + " a ").find("argc=2\n[a]\nPATH"), std::string::npos);
    EXPECT_NE(run(q, dumper + " a   ").find("argc=3\n[a]\n[]\nPATH"), std::string::npos);
}

TEST_F(GwSpawn, Exactly1023WordsRefused1024AndMoreRunCut) {
    zov_quillset q(&LogCapture::fn, &log);
    auto line_of = [&](int words) {
        std::string l = dumper;
        for (int i = 1; i < words; i++) l += " w" + std::to_string(i);
        return l;
    };
    SSError* err = nullptr;
    run(q, line_of(1023), &err);
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->getErrMsg(), "zov_quillset::esv_spawn:: too many arguments");
    EXPECT_EQ(err->getErrCode(), SS_EC_INTERNAL_ERROR);
    delete err;
    EXPECT_NE(run(q, line_of(1022)).find("argc=1022\n"), std::string::npos);
    EXPECT_NE(run(q, line_of(1024)).find("argc=1024\n"), std::string::npos);
    std::string out = run(q, line_of(2000));
    EXPECT_NE(out.find("argc=1024\n"), std::string::npos);
    EXPECT_NE(out.find("[w1023]\n"), std::string::npos);
    EXPECT_EQ(out.find("[w1024]"), std::string::npos);
}

std::string path_line(const std::string& out) {
    size_t at = out.find("PATH=");
    if (at == std::string::npos) return "";
    return out.substr(at + 5, out.find('\n', at) - at - 5);
}

TEST_F(GwSpawn, ChildPathGetsMissingMustHaveDirsOncePerObject) {
    {
        ScopedEnv path("PATH", "/opt/x:/usr/bin");
        zov_quillset q(&LogCapture::fn, &log);
        EXPECT_EQ(path_line(run(q, dumper)), "/opt/x:/usr/bin:/usr/sbin:/etc:/sbin:/bin");
        // A changed environment later does not change this object's PATH.
        ScopedEnv again("PATH", "/elsewhere");
        EXPECT_EQ(path_line(run(q, dumper)), "/opt/x:/usr/bin:/usr/sbin:/etc:/sbin:/bin");
    }
    {
        ScopedEnv path("PATH", "/bin:/sbin:/etc:/usr/bin:/usr/sbin:/usr/bin");
        zov_quillset q(&LogCapture::fn, &log);
        EXPECT_EQ(path_line(run(q, dumper)), "/bin:/sbin:/etc:/usr/bin:/usr/sbin:/usr/bin");
    }
    {
        ScopedEnv path("PATH", nullptr);
        zov_quillset q(&LogCapture::fn, &log);
        EXPECT_EQ(path_line(run(q, dumper)), "/usr/sbin:/usr/bin:/etc:/sbin:/bin");
        EXPECT_TRUE(log.has("native path was null"));
    }
}

TEST_F(GwSpawn, WithoutPipeOutputGoesToTheLog) {
    zov_quillset q(&LogCapture::fn, &log);
    int fds = open_fd_count();
    int pid = -1;
    ASSERT_EQ(q.esv_spawn(nullptr, &pid, "%s one %d", dumper.c_str(), 2), nullptr);
    int status = 0;
    EXPECT_EQ(waitchild(pid, &status, 0), pid);
    EXPECT_TRUE(log.has("zov_quillset::esv_spawn, spawned output [[one]]", 9));
    // Trailing carriage returns and line feeds are stripped before logging.
    EXPECT_TRUE(log.has("spawned output [stderr line]"));
    EXPECT_TRUE(log.has("zov_quillset::esv_spawn: processed 5 lines"));
    EXPECT_EQ(open_fd_count(), fds);
}

TEST_F(GwSpawn, ProgramThatCannotStartLeavesNothingBehind) {
    zov_quillset q(&LogCapture::fn, &log);
    int fds = open_fd_count();
    int pid = 0;
    // A program that does not exist starts a child that fails after the fork.
    ASSERT_EQ(q.esv_spawn(nullptr, &pid, "%s", "/nonexistent/gw-tool -h x"), nullptr);
    int status = 0;
    EXPECT_EQ(waitchild(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), SPAWN_EXEC_FAILED);
    EXPECT_EQ(open_fd_count(), fds);
}

TEST_F(GwSpawn, EmptyCommandLineStartsNoChild) {
    zov_quillset q(&LogCapture::fn, &log);
    int fds = open_fd_count();
    for (const char* line : {"", " ", "   "}) {
        SCOPED_TRACE(std::string("[") + line + "]");
        Pipe p(&LogCapture::fn, &log);
        ASSERT_EQ(p.init(), nullptr);
        int pid = 12345;
        SSError* err = q.esv_spawn(&p, &pid, "%s", line);
        if (*line == '\0') {
            // Nothing to run: refused before any fork.
            ASSERT_NE(err, nullptr);
            EXPECT_STREQ(err->getErrMsg(),
                         "zov_quillset::esv_spawn: Spawn of external command failed");
            EXPECT_EQ(err->getErrCode(), SS_EC_INTERNAL_ERROR);
            EXPECT_LT(pid, 0);
            EXPECT_TRUE(log.has("zov_quillset::esv_spawn: Failed spawn of \"\", err: ", 1));
        } else {
            // Blanks alone make one empty program name, which cannot start.
            ASSERT_EQ(err, nullptr) << err->getErrMsg();
            int status = 0;
            EXPECT_EQ(waitchild(pid, &status, 0), pid);
            EXPECT_EQ(WEXITSTATUS(status), SPAWN_EXEC_FAILED);
        }
        delete err;
    }
    EXPECT_EQ(open_fd_count(), fds);
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(GwLocators, ToolsFoundOnceAndMissesRepeated) {
    TempDir bin;
    ScopedEnv path("PATH", bin.path().c_str());
    LogCapture log;
    zov_quillset q(&LogCapture::fn, &log);
    EXPECT_EQ(q.GetGelmotCliExe(), "");
    EXPECT_EQ(q.GetPirnetCliExe(), "");
    std::string g = add_exe(bin, "gelmot");
    std::string p = add_exe(bin, "pirnet");
    std::string t = add_exe(bin, "tilloseccli");
    EXPECT_EQ(q.GetGelmotCliExe(), g);
    EXPECT_EQ(q.GetPirnetCliExe(), p);
    EXPECT_EQ(q.GetTilloCliExe(), t);
    EXPECT_EQ(q.m_tilloscli, t);
    EXPECT_TRUE(log.has("Entering zov_quillset::GetTilloCliExe", 7));
}

// HOME is set up once per process, so this runs in a fresh process.
TEST(GwLocatorsDeathTest, HomeSetOncePerProcessWhenUnsetOrEmpty) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("HOME", "", 1);
            LogCapture log;
            zov_quillset q(&LogCapture::fn, &log);
            q.GetTilloCliExe();
            const char* home = getenv("HOME");
            bool ok = home != nullptr && *home != '\0' &&
                      (log.has("Setting HOME from getpwuid() to [HOME=") ||
                       log.has("Setting HOME arbitrarily to [/]"));
            // The second object finds it set and leaves it.
            setenv("HOME", "", 1);
            zov_quillset q2(&LogCapture::fn, &log);
            q2.GetTilloCliExe();
            ok = ok && getenv("HOME")[0] == '\0' && !log.has("HOME already set");
            exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
