// Files of the portable layer: removal rules, byte-order marks, closing
// that protects standard input, the per-thread password buffer.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "liblocal/kv_file.h"
#include "liblocal/kv_print.h"
#include "tests/support/temp_dir.h"

namespace {
class PortFile : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(tmp_.ok()); }
    std::string path(const char* name) const { return dir_ + "/" + name; }
    void write_file(const std::string& p, const std::string& body) const {
        FILE* fp = fopen(p.c_str(), "w");
        ASSERT_NE(nullptr, fp);
        fwrite(body.data(), 1, body.size(), fp);
        fclose(fp);
    }
    std::string read_file(const std::string& p) const {
        std::string out;
        FILE* fp = fopen(p.c_str(), "r");
        if (fp == nullptr) return "<missing>";
        char buf[256];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), fp)) > 0) out.append(buf, n);
        fclose(fp);
        return out;
    }
    zovtest::TempDir tmp_{"zov_port_file_"};
    const std::string& dir_ = tmp_.path();
};
const char k_bom[] = "\xEF\xBB\xBF";
}  // namespace

TEST_F(PortFile, UnlinkOfReadOnlyFileSucceeds) {
    std::string p = path("ro");
    write_file(p, "x");
    ASSERT_EQ(0, chmod(p.c_str(), 0444));
    EXPECT_EQ(0, kv_unlink(p.c_str()));
    EXPECT_NE(0, access(p.c_str(), F_OK));
}

TEST_F(PortFile, StatUnlinkOfMissingFileDependsOnAbsenceOk) {
    std::string p = path("missing");
    struct kv_stat sb;
    EXPECT_EQ(-1, kv_stat_unlink(p.c_str(), &sb, 0));
    EXPECT_EQ(0, kv_stat_unlink(p.c_str(), &sb, 1));
    EXPECT_EQ(-1, kv_unlink(p.c_str()));
    EXPECT_EQ(-1, kv_unlink(nullptr));
}

TEST_F(PortFile, StatUnlinkRemovesEmptyDirectoryAndSymlinkItself) {
    std::string d = path("sub");
    ASSERT_EQ(0, mkdir(d.c_str(), 0755));
    struct kv_stat sb;
    EXPECT_EQ(0, kv_stat_unlink(d.c_str(), &sb, 0));
    EXPECT_TRUE(S_ISDIR(sb.st_mode));
    std::string target = path("target"), link = path("link");
    write_file(target, "t");
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    EXPECT_EQ(0, kv_unlink(link.c_str()));
    EXPECT_EQ("t", read_file(target));
}

TEST_F(PortFile, UnlinkInReadOnlyDirectoryFailsAfterOneRetry) {
    if (geteuid() == 0) GTEST_SKIP() << "root ignores directory permissions";
    std::string p = path("kept");
    write_file(p, "x");
    ASSERT_EQ(0, chmod(dir_.c_str(), 0555));
    EXPECT_EQ(-1, kv_unlink(p.c_str()));
    chmod(dir_.c_str(), 0755);
    EXPECT_EQ("x", read_file(p));
}

TEST_F(PortFile, CloseLeavesStandardInputAlone) {
    EXPECT_EQ(0, kv_close(0));
    EXPECT_EQ(0, kv_close(-3));
    EXPECT_NE(-1, fcntl(0, F_GETFD));
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    kv_set_user_fd(fds[0], 1);
    EXPECT_EQ(1, kv_is_user_fd(fds[0]));
    EXPECT_EQ(0, kv_close(fds[0]));
    EXPECT_EQ(0, kv_is_user_fd(fds[0]));
    EXPECT_EQ(-1, fcntl(fds[0], F_GETFD));
    EXPECT_EQ(0, kv_close(fds[1]));
}

TEST_F(PortFile, FopenWritesAndSkipsByteOrderMark) {
    std::string p = path("bom.txt");
    FILE* fp = kv_fopen(p.c_str(), "w", KV_FOPEN_WRITE_BOM);
    ASSERT_NE(nullptr, fp);
    EXPECT_EQ(1, kv_is_utf8_fp(fp));
    kv_fputs("line\n", fp);
    EXPECT_EQ(0, kv_fclose(fp));
    EXPECT_EQ(std::string(k_bom) + "line\n", read_file(p));

    fp = kv_fopen(p.c_str(), "r", KV_FOPEN_SKIP_BOM);
    ASSERT_NE(nullptr, fp);
    char buf[32];
    ASSERT_NE(nullptr, kv_fgets(buf, sizeof(buf), fp));
    EXPECT_STREQ("line\n", buf);
    kv_fclose(fp);

    // Without a mark nothing is skipped.
    std::string q = path("plain.txt");
    write_file(q, "abc");
    fp = kv_fopen(q.c_str(), "a+", KV_FOPEN_SKIP_BOM);
    ASSERT_NE(nullptr, fp);
    ASSERT_NE(nullptr, fgets(buf, sizeof(buf), fp));
    EXPECT_STREQ("abc", buf);
    kv_fclose(fp);
}

TEST_F(PortFile, AppendGetsAMarkOnlyForANewFile) {
    std::string p = path("old.txt");
    write_file(p, "old\n");
    FILE* fp = kv_fopen(p.c_str(), "a", KV_FOPEN_WRITE_BOM);
    ASSERT_NE(nullptr, fp);
    kv_fputs("more\n", fp);
    kv_fclose(fp);
    EXPECT_EQ("old\nmore\n", read_file(p));
    std::string q = path("new.txt");
    fp = kv_fopen(q.c_str(), "a", KV_FOPEN_WRITE_BOM);
    ASSERT_NE(nullptr, fp);
    kv_fclose(fp);
    EXPECT_EQ(std::string(k_bom), read_file(q));
}

TEST_F(PortFile, OpenMarksOnlyTruncatedOrCreatedFiles) {
    std::string p = path("fd.txt");
    write_file(p, "keep");
    int fd = kv_open(p.c_str(), O_WRONLY | O_CREAT, 0644, KV_FOPEN_WRITE_BOM);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, kv_is_utf8_fd(fd));
    kv_close(fd);
    EXPECT_EQ("keep", read_file(p));
    fd = kv_open(p.c_str(), O_WRONLY | O_TRUNC, 0644, KV_FOPEN_WRITE_BOM);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(1, kv_is_utf8_fd(fd));
    kv_close(fd);
    EXPECT_EQ(std::string(k_bom), read_file(p));
    fd = kv_open(p.c_str(), O_RDONLY, 0, KV_FOPEN_SKIP_BOM);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(3, kv_lseek(fd, 0, SEEK_CUR));
    kv_close(fd);
}

TEST(PortPasswd, LookupOfOwnUidAndUnknownUid) {
    struct passwd* pw = kv_ts_getpwuid(getuid());
    ASSERT_NE(nullptr, pw);
    EXPECT_EQ(getuid(), pw->pw_uid);
    EXPECT_EQ(nullptr, kv_ts_getpwuid(static_cast<uid_t>(0x7ffffff0)));
}
