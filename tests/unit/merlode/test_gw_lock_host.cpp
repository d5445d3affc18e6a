// The storage-group lock file (redirected into a temporary folder) and the
// host address lookup.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "tests/unit/merlode/gw_test_util.h"

namespace {

class GwLock : public ::testing::Test {
protected:
    void SetUp() override { zov_quillset_set_lockdir_for_test(dir.path().c_str()); }
    void TearDown() override { zov_quillset_set_lockdir_for_test(nullptr); }
    std::string lock_file() const { return dir.path() + "/vmr_merlode_access.lck"; }
    TempDir dir;
    LogCapture log;
};

TEST_F(GwLock, TakenCreatesReleaseRemoves) {
    zov_quillset q(&LogCapture::fn, &log);
    int fds = open_fd_count();
    int fd = q.set_file_lock(0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(access(lock_file().c_str(), F_OK), 0);
    EXPECT_TRUE(log.has("set_file_lock() : SUCCESS !!!!! lock file is [" + lock_file() + "]. ", 5));
    q.set_file_unlock(fd);
    EXPECT_NE(access(lock_file().c_str(), F_OK), 0);
    EXPECT_EQ(open_fd_count(), fds);
    EXPECT_TRUE(log.has("exiting : set_file_unlock ", 5));
}

TEST_F(GwLock, OtherProcessCannotTakeItWhileHeld) {
    zov_quillset q(&LogCapture::fn, &log);
    int fd = q.set_file_lock(0);
    ASSERT_GE(fd, 0);
    pid_t child = fork();
    if (child == 0) {
        LogCapture clog;
        zov_quillset other(&LogCapture::fn, &clog);
        int got = other.set_file_lock(1);
        _exit(got < 0 && clog.has("set_file_lock : cannot acquire lock") ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    q.set_file_unlock(fd);
}

TEST_F(GwLock, UnusableFolderAndNegativeDescriptorAreHarmless) {
    zov_quillset q(&LogCapture::fn, &log);
    zov_quillset_set_lockdir_for_test((dir.path() + "/missing").c_str());
    int fds = open_fd_count();
    EXPECT_EQ(q.set_file_lock(1), -1);
    EXPECT_TRUE(log.has("set_file_lock : failed to open lock file", 3));
    // The folder at fault is named.
    EXPECT_TRUE(log.has("set_file_lock : folder [" + dir.path() + "/missing] of lock file", 3));
    q.set_file_unlock(-1);
    EXPECT_EQ(open_fd_count(), fds);
}

TEST(GwHost, LoopbackOnlyNameFailsWithTheNameKept) {
    LogCapture log;
    zov_quillset q(&LogCapture::fn, &log);
    std::string ip = "unchanged";
    EXPECT_EQ(q.getIpAddr("localhost", ip), -1);
    EXPECT_EQ(ip, "localhost");
    EXPECT_TRUE(log.has("ERROR: hostname [localhost] cannot be resolved", 3));
    EXPECT_EQ(q.getIpAddr("192.0.2.7", ip), 0);
    EXPECT_EQ(ip, "192.0.2.7");
    // A name that does not resolve at all leaves the text alone.
    EXPECT_EQ(q.getIpAddr("no-such-host.invalid", ip), -1);
    EXPECT_EQ(ip, "192.0.2.7");
}

}  // namespace
