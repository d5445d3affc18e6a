// The environment calls the spawner relies on, tunables, program location
// (execpath, find_origin) and the descriptor helpers run in forked children.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "liblocal/kv_env.h"
#include "liblocal/kv_spawn.h"
#include "tests/support/temp_dir.h"

namespace {

bool saved_has(const std::string& entry) {
    char** v = kv_env_saved_copy();
    bool found = false;
    for (char** p = v; *p; ++p)
        if (entry == *p) found = true;
    kv_env_vec_free(v);
    return found;
}

TEST(KvEnv, PutenvRecordsSavedAssignmentAndReplacesByName) {
    static char a[] = "ZOV_ENV_A=one";
    static char b[] = "ZOV_ENV_A=two";
    ASSERT_EQ(0, kv_putenv(a));
    EXPECT_STREQ("one", kv_getenv("ZOV_ENV_A"));
    EXPECT_TRUE(saved_has("ZOV_ENV_A=one"));
    ASSERT_EQ(0, kv_putenv(b));
    EXPECT_STREQ("two", kv_getenv("ZOV_ENV_A"));
    EXPECT_TRUE(saved_has("ZOV_ENV_A=two"));
    EXPECT_FALSE(saved_has("ZOV_ENV_A=one"));
    EXPECT_EQ(-1, kv_putenv(nullptr));
    EXPECT_EQ(nullptr, kv_getenv(nullptr));
    EXPECT_EQ(nullptr, kv_getenv("ZOV_ENV_NEVER_SET"));
}

TEST(KvEnv, InitFromEnvironCopiesTheWholeEnvironment) {
    setenv("ZOV_ENV_INIT", "x", 1);
    kv_env_init_from_environ();
    EXPECT_TRUE(saved_has("ZOV_ENV_INIT=x"));
    unsetenv("ZOV_ENV_INIT");
    kv_env_init_from_environ();
    EXPECT_FALSE(saved_has("ZOV_ENV_INIT=x"));
}

TEST(KvEnv, NonAsciiValuesAreCachedAndPointersStayValid) {
    static char v1[] = "ZOV_ENV_U=caf\xc3\xa9";
    static char v2[] = "ZOV_ENV_U=na\xc3\xafve";
    ASSERT_EQ(0, kv_putenv(v1));
    char* first = kv_getenv("ZOV_ENV_U");
    ASSERT_NE(nullptr, first);
    EXPECT_STREQ("caf\xc3\xa9", first);
    EXPECT_EQ(first, kv_getenv("ZOV_ENV_U"));  // from the cache
    ASSERT_EQ(0, kv_putenv(v2));
    EXPECT_STREQ("na\xc3\xafve", kv_getenv("ZOV_ENV_U"));
    EXPECT_STREQ("caf\xc3\xa9", first);  // the old value is kept

    // Bytes that are no UTF-8 cannot be converted.
    setenv("ZOV_ENV_BAD", "\xff\xfe", 1);
    EXPECT_EQ(nullptr, kv_getenv("ZOV_ENV_BAD"));
    unsetenv("ZOV_ENV_BAD");
    static char bad[] = "ZOV_ENV_BAD2=\xc3";
    EXPECT_EQ(-1, kv_putenv(bad));
}

TEST(KvEnv, AddToEnvironmentAppendPutsNewTextFirst) {
    EXPECT_EQ(1, add_to_environment("ZOV_ENV_P", "b", 0));
    EXPECT_STREQ("b", kv_getenv("ZOV_ENV_P"));
    EXPECT_EQ(1, add_to_environment("ZOV_ENV_P", "c", 1));
    EXPECT_STREQ("c:b", kv_getenv("ZOV_ENV_P"));
    EXPECT_EQ(1, add_to_environment("ZOV_ENV_NEW", "x", 1));
    EXPECT_STREQ("x", kv_getenv("ZOV_ENV_NEW"));
    EXPECT_EQ(0, add_to_environment(nullptr, "x", 0));
    EXPECT_EQ(0, add_to_environment("A=B", "x", 0));
}

TEST(KvEnv, AddenvpPutsVariableFirstAndKeepsOldArray) {
    char a[] = "A=1", b[] = "B=2", v[] = "V=0";
    char* old[] = {a, b, nullptr};
    char** n = addenvp(old, v);
    ASSERT_NE(nullptr, n);
    EXPECT_EQ(v, n[0]);
    EXPECT_EQ(a, n[1]);
    EXPECT_EQ(b, n[2]);
    EXPECT_EQ(nullptr, n[3]);
    EXPECT_EQ(a, old[0]);
    free(n);
    char** m = addenvp(nullptr, v);
    EXPECT_EQ(v, m[0]);
    EXPECT_EQ(nullptr, m[1]);
    free(m);
}

std::vector<std::string> g_reports;
void collect(int level, int, const char* text) {
    if (level < 0) g_reports.push_back(text);
}

TEST(KvEnv, GetenvUlongValueForms) {
    struct Case {
        const char* value;  // null: unset
        const char* desc;
        unsigned long defval;
        unsigned long want;
    } cases[] = {
        {"%50", "ZOV_T=1", 10, 5},
        {"%200", "ZOV_T=1", 10, 20},
        {"<30", "ZOV_T=1", 10, 10},
        {"<3", "ZOV_T=1", 10, 3},
        {">3", "ZOV_T=1", 10, 10},
        {">30", "ZOV_T=1", 10, 30},
        {"=7", "ZOV_T=1", 10, 7},
        {"D", "ZOV_T=1", 10, 10},
        {"42", "ZOV_T=1", 10, 42},
        {nullptr, "ZOV_T=17", 10, 17},
        {nullptr, "ZOV_T=%10", 1000, 100},
        {"garbage", "ZOV_T=17", 10, 17},
        {"500", "ZOV_T=1,5:100", 10, 100},
        {"2", "ZOV_T=1,5:100", 10, 5},
        {"500", "ZOV_T=1,*:", 10, 500},
        {"500", "ZOV_T=1,:*", 10, 500},
        {"18446744073709551615", "ZOV_T=1", 10, 18446744073709551615ul},
        {"99999999999999999999999", "ZOV_T=1", 10, 18446744073709551615ul},
    };
    for (const Case& c : cases) {
        if (c.value)
            setenv("ZOV_T", c.value, 1);
        else
            unsetenv("ZOV_T");
        std::string desc = c.desc;
        EXPECT_EQ(c.want, kv_getenv_ulong(&desc[0], c.defval))
            << c.desc << " " << (c.value ? c.value : "-");
    }
    unsetenv("ZOV_T");

    kv_trace_sink_t old = kv_spawn_set_trace(collect);
    g_reports.clear();
    std::string bad[] = {"ZOV_T", "=5", "ZOV_T=", std::string(200, 'N') + "=1"};
    for (auto& b : bad) EXPECT_EQ(33u, kv_getenv_ulong(&b[0], 33));
    EXPECT_EQ(33u, kv_getenv_ulong(nullptr, 33));
    kv_spawn_set_trace(old);
    ASSERT_EQ(5u, g_reports.size());
    EXPECT_EQ(
        "Unable to get the value of environment variable 'ZOV_T': the string is "
        "improperly formatted.\n",
        g_reports[0]);
}

// A scratch installation: <root>/bin/prog as the running binary, and tools
// in the places execpath knows.
class OriginTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp_.ok());
        root_ = tmp_.path();
        mk(root_ + "/bin");
        mk(root_ + "/lib");
        mk(root_ + "/lib/vmr");
        tool(root_ + "/bin/prog");
        tool(root_ + "/bin/beside");
        tool(root_ + "/lib/vmr/deep");
        kv_spawn_origin_reset_for_test();
    }
    void TearDown() override { kv_spawn_origin_reset_for_test(); }
    static void mk(const std::string& d) { ASSERT_EQ(0, mkdir(d.c_str(), 0755)); }
    static void tool(const std::string& f) {
        int fd = open(f.c_str(), O_CREAT | O_WRONLY, 0755);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    zovtest::TempDir tmp_{"spawn_origin_"};
    std::string root_;
};

TEST_F(OriginTest, FindOriginKeepsFirstAnswer) {
    EXPECT_EQ(nullptr, find_origin(nullptr));
    std::string prog = root_ + "/bin/../bin/./prog";
    char* o = find_origin(&prog[0]);
    ASSERT_NE(nullptr, o);
    EXPECT_EQ(root_ + "/bin", o);
    char other[] = "/usr/bin/env";
    EXPECT_EQ(o, find_origin(other));
}

TEST_F(OriginTest, FindOriginSearchesPathForBareName) {
    std::string old = getenv("PATH") ? getenv("PATH") : "";
    setenv("PATH", (root_ + "/lib:" + root_ + "/bin").c_str(), 1);
    char name[] = "prog";
    char* o = find_origin(name);
    setenv("PATH", old.c_str(), 1);
    ASSERT_NE(nullptr, o);
    EXPECT_EQ(root_ + "/bin", o);
}

TEST_F(OriginTest, ExecpathBesideRelocatedOrAsGiven) {
    std::string prog = root_ + "/bin/prog";
    find_origin(&prog[0]);
    char buf[4096];
    char beside[] = "beside", deep[] = "deep", missing[] = "missing", empty[] = "";
    EXPECT_EQ(buf, execpath(beside, buf, sizeof buf));
    EXPECT_EQ(root_ + "/bin/beside", buf);
    EXPECT_EQ(buf, execpath(deep, buf, sizeof buf));
    EXPECT_EQ(root_ + "/lib/vmr/deep", buf);
    EXPECT_EQ(missing, execpath(missing, buf, sizeof buf));
    EXPECT_STREQ("missing", buf);
    EXPECT_EQ(empty, execpath(empty, buf, sizeof buf));
    EXPECT_EQ(nullptr, execpath(nullptr, buf, sizeof buf));
    // A buffer too small for origin and command: the command as it stands.
    char small[8];
    EXPECT_EQ(beside, execpath(beside, small, sizeof small));
    std::string abs = root_ + "/lib/vmr/deep";
    EXPECT_EQ(buf, execpath(&abs[0], buf, sizeof buf));
    EXPECT_EQ(abs, buf);
}

TEST_F(OriginTest, FindOriginExitsOnHardLinksPrintOriginQuitAndLongNames) {
    std::string prog = root_ + "/bin/prog";
    std::string link = root_ + "/bin/prog2";
    ASSERT_EQ(0, ::link(prog.c_str(), link.c_str()));
    EXPECT_EXIT(find_origin(&prog[0]), ::testing::ExitedWithCode(1), "hardlinks");
    ASSERT_EQ(0, unlink(link.c_str()));
    EXPECT_EXIT(
        {
            setenv("VMR_PRINT_ORIGIN", "quit", 1);
            find_origin(&prog[0]);
        },
        ::testing::ExitedWithCode(0), "");
    std::string longname(12288, 'a');
    EXPECT_EXIT(find_origin(&longname[0]), ::testing::ExitedWithCode(111), "");
}

void close_all_but_listed() {
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
    getrlimit(RLIMIT_NOFILE, &rl);
    int top = rl.rlim_cur > 20000 ? 19999 : static_cast<int>(rl.rlim_cur) - 1;
    int base = open("/dev/null", O_RDONLY);
    int fds[] = {10, 700, top - 1, top};
    for (int fd : fds)
        if (dup2(base, fd) != fd) _exit(10);
    struct pollfd keep[] = {{700, 0, 0}, {-1, 0, 0}};
    kv_closenstdfiles(keep, 2);
    bool ok = fcntl(700, F_GETFD) >= 0 && fcntl(10, F_GETFD) < 0 && fcntl(top - 1, F_GETFD) < 0 &&
              fcntl(top, F_GETFD) < 0 && fcntl(base, F_GETFD) < 0 && fcntl(2, F_GETFD) >= 0;
    _exit(ok ? 0 : 1);
}

void fill_std_slots() {
    close(0);
    kv_openstdfiles();
    char buf[64] = {0};
    ssize_t n = readlink("/proc/self/fd/0", buf, sizeof buf - 1);
    _exit(n > 0 && strcmp(buf, "/dev/null") == 0 ? 0 : 1);
}

TEST(SpawnDescriptors, ClosenstdfilesClosesAllButListedInChild) {
    EXPECT_EXIT(close_all_but_listed(), ::testing::ExitedWithCode(0), "");
}

TEST(SpawnDescriptors, OpenstdfilesFillsEmptySlots) {
    EXPECT_EXIT(fill_std_slots(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
