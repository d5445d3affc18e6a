// Two-layer lock files: threads of one process wait at the in-process
// layer, other processes are refused at the file layer, and file systems
// without locks do not stop anyone. Fixed waits run on the sleep hook.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "liblocal/kv_error.h"
#include "liblocal/kv_lock.h"
#include "liblocal/kv_thread.h"

namespace {
std::atomic<int> g_sleeps{0};
std::atomic<uint32_t> g_slept_ms{0};
std::vector<uint32_t> g_sleep_log;  // written only from one thread per test

KVError count_sleep(uint32_t ms) {
    ++g_sleeps;
    g_slept_ms += ms;
    g_sleep_log.push_back(ms);
    return KV_OK;
}

// A scripted fcntl: the next calls fail with the given errors, then the real
// call takes over.
std::vector<int> g_fcntl_errors;
std::atomic<int> g_fcntl_calls{0};
int scripted_fcntl(int fd, int cmd, struct flock* fl) {
    ++g_fcntl_calls;
    if (!g_fcntl_errors.empty()) {
        errno = g_fcntl_errors.front();
        g_fcntl_errors.erase(g_fcntl_errors.begin());
        return -1;
    }
    return fcntl(fd, cmd, fl);
}

class PortLock : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zov_port_lock_XXXXXX";
        int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = tmpl;
        fd_ = open(path_.c_str(), O_RDWR);
        ASSERT_GE(fd_, 0);
        g_sleeps = 0;
        g_slept_ms = 0;
        g_sleep_log.clear();
        g_fcntl_errors.clear();
        g_fcntl_calls = 0;
        kv_set_sleep_hook(count_sleep);
    }
    void TearDown() override {
        kv_set_sleep_hook(nullptr);
        kv_set_lock_fcntl_hook(nullptr);
        close(fd_);
        unlink(path_.c_str());
    }
    // Runs `body` in a forked child and returns its exit status (or -1).
    template <typename F>
    int in_child(F body) {
        pid_t pid = fork();
        if (pid == 0) _exit(body());
        int st = 0;
        if (pid < 0 || waitpid(pid, &st, 0) != pid || !WIFEXITED(st)) return -1;
        return WEXITSTATUS(st);
    }
    std::string path_;
    int fd_ = -1;
};
}  // namespace

TEST_F(PortLock, NegativeDescriptorIsBadFile) {
    EXPECT_EQ(-1, kv_lockfile(-1, 0));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(EBADF, kv_error_get_last(nullptr));
    EXPECT_EQ(-1, kv_trylockfile(-5, 1));
    EXPECT_EQ(-1, kv_unlockfile(-1));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(PortLock, SecondThreadWaitsAtTheInProcessLayer) {
    ASSERT_EQ(0, kv_lockfile(fd_, KV_LOCK_EXCLUSIVE));
    EXPECT_EQ(1, kv_lockfile_users(fd_));
    std::atomic<bool> done{false};
    std::atomic<int> rc{-2};
    std::thread second([&] {
        rc = kv_lockfile(fd_, KV_LOCK_EXCLUSIVE);
        done = true;
    });
    // Poll until the second thread is counted as a user, i.e. is waiting.
    for (int i = 0; i < 20000 && kv_lockfile_users(fd_) < 2; ++i) usleep(100);
    ASSERT_EQ(2, kv_lockfile_users(fd_));
    EXPECT_FALSE(done.load());
    // It never reached fcntl: a refusal there would have slept.
    EXPECT_EQ(0, g_sleeps.load());
    EXPECT_EQ(0, kv_unlockfile(fd_));
    second.join();
    EXPECT_EQ(0, rc.load());
    EXPECT_EQ(1, kv_lockfile_users(fd_));
    EXPECT_EQ(0, kv_unlockfile(fd_));
    EXPECT_EQ(0, kv_lockfile_users(fd_));
    EXPECT_EQ(0, g_sleeps.load());
}

TEST_F(PortLock, TryLockOfBusyDescriptorInAnotherThreadWaitsItsTurnThenSucceeds) {
    // The in-process layer of trylock blocks as well; only the file layer is tried once.
    ASSERT_EQ(0, kv_trylockfile(fd_, KV_LOCK_SHARED));
    std::atomic<int> rc{-2};
    std::thread second([&] { rc = kv_trylockfile(fd_, KV_LOCK_SHARED); });
    for (int i = 0; i < 20000 && kv_lockfile_users(fd_) < 2; ++i) usleep(100);
    EXPECT_EQ(-2, rc.load());
    kv_unlockfile(fd_);
    second.join();
    EXPECT_EQ(0, rc.load());
    kv_unlockfile(fd_);
}

TEST_F(PortLock, OtherProcessIsRefusedAfterFourTriesWithOneSecondWaits) {
    ASSERT_EQ(0, kv_lockfile(fd_, KV_LOCK_EXCLUSIVE));
    std::string p = path_;
    int st = in_child([&] {
        int fd2 = open(p.c_str(), O_RDWR);
        if (fd2 < 0) return 10;
        if (kv_trylockfile(fd2, KV_LOCK_EXCLUSIVE) != -1) return 11;
        if (errno != EAGAIN && errno != EACCES) return 12;
        if (g_sleeps != 0) return 13;
        if (kv_lockfile(fd2, KV_LOCK_SHARED) != -1) return 14;
        if (g_sleep_log != std::vector<uint32_t>{1000, 1000, 1000}) return 15;
        if (kv_lockfile_users(fd2) != 0) return 16;  // in-process layer released
        return 0;
    });
    EXPECT_EQ(0, st);
    kv_unlockfile(fd_);
    st = in_child([&] {
        int fd2 = open(p.c_str(), O_RDWR);
        return kv_lockfile(fd2, KV_LOCK_EXCLUSIVE) == 0 && g_sleeps == 0 ? 0 : 20;
    });
    EXPECT_EQ(0, st);
}

TEST_F(PortLock, SharedLocksOfTwoProcessesCoexist) {
    ASSERT_EQ(0, kv_lockfile(fd_, KV_LOCK_SHARED));
    std::string p = path_;
    EXPECT_EQ(0, in_child([&] {
                  int fd2 = open(p.c_str(), O_RDONLY);
                  return kv_trylockfile(fd2, KV_LOCK_SHARED) == 0 ? 0 : 1;
              }));
    EXPECT_EQ(0, in_child([&] {
                  int fd2 = open(p.c_str(), O_RDWR);
                  return kv_trylockfile(fd2, KV_LOCK_EXCLUSIVE) == -1 ? 0 : 1;
              }));
    kv_unlockfile(fd_);
}

TEST_F(PortLock, ForkedChildIsNotBlockedByTheParentsInProcessLayer) {
    ASSERT_EQ(0, kv_lockfile(fd_, KV_LOCK_EXCLUSIVE));
    int fd = fd_;
    // The child inherits the descriptor and the held record mutex, but not the
    // fcntl lock: it must get past the mutex and be refused by the file.
    EXPECT_EQ(0, in_child([&] {
                  if (kv_trylockfile(fd, KV_LOCK_EXCLUSIVE) != -1) return 1;
                  return errno == EAGAIN || errno == EACCES ? 0 : 2;
              }));
    kv_unlockfile(fd_);
}

TEST_F(PortLock, FileSystemWithoutLocksCountsAsLocked) {
    kv_set_lock_fcntl_hook(scripted_fcntl);
    g_fcntl_errors = {EINVAL};
    EXPECT_EQ(0, kv_lockfile(fd_, KV_LOCK_EXCLUSIVE));
    EXPECT_EQ(0, g_sleeps.load());
    g_fcntl_errors = {EINVAL};
    EXPECT_EQ(0, kv_unlockfile(fd_));
    g_fcntl_errors = {ENOSYS};
    EXPECT_EQ(0, kv_lockfile(fd_, KV_LOCK_SHARED));
    g_fcntl_errors = {ENOSYS};
    EXPECT_EQ(0, kv_unlockfile(fd_));
    EXPECT_EQ(0, kv_lockfile_users(fd_));
    // Only the waiting form forgives it; the single try reports it.
    g_fcntl_errors = {EINVAL};
    EXPECT_EQ(-1, kv_trylockfile(fd_, KV_LOCK_EXCLUSIVE));
    EXPECT_EQ(EINVAL, kv_error_get_last(nullptr));
    EXPECT_EQ(0, kv_lockfile_users(fd_));
}

TEST_F(PortLock, OtherErrorsWaitFiveSecondsAndBusyOneSecond) {
    kv_set_lock_fcntl_hook(scripted_fcntl);
    g_fcntl_errors = {ENOLCK, EAGAIN, EDEADLK};
    EXPECT_EQ(0, kv_lockfile(fd_, KV_LOCK_EXCLUSIVE));
    EXPECT_EQ((std::vector<uint32_t>{5000, 1000, 1000}), g_sleep_log);
    EXPECT_EQ(4, g_fcntl_calls.load());
    EXPECT_EQ(0, kv_unlockfile(fd_));

    g_sleep_log.clear();
    g_fcntl_calls = 0;
    g_fcntl_errors = {ENOLCK, ENOLCK, ENOLCK, ENOLCK, ENOLCK};
    EXPECT_EQ(-1, kv_lockfile(fd_, KV_LOCK_EXCLUSIVE));
    EXPECT_EQ(4, g_fcntl_calls.load());
    EXPECT_EQ(ENOLCK, kv_error_get_last(nullptr));
    EXPECT_EQ(0, kv_lockfile_users(fd_));
}

TEST_F(PortLock, UnlockRetriesEverySecondUntilItSucceeds) {
    ASSERT_EQ(0, kv_lockfile(fd_, KV_LOCK_EXCLUSIVE));
    kv_set_lock_fcntl_hook(scripted_fcntl);
    g_fcntl_errors = {EINTR, EAGAIN};
    EXPECT_EQ(0, kv_unlockfile(fd_));
    EXPECT_EQ((std::vector<uint32_t>{1000, 1000}), g_sleep_log);
    EXPECT_EQ(3, g_fcntl_calls.load());
    EXPECT_EQ(0, kv_lockfile_users(fd_));
}

TEST_F(PortLock, BadLockTypeKeepsTheInProcessLayerUntilUnlocked) {
    EXPECT_EQ(-1, kv_lockfile(fd_, 7));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(1, kv_lockfile_users(fd_));
    EXPECT_EQ(0, kv_unlockfile(fd_));
    EXPECT_EQ(0, kv_lockfile(fd_, KV_LOCK_EXCLUSIVE));
    EXPECT_EQ(0, kv_unlockfile(fd_));
}

TEST_F(PortLock, RecordsOfClosedDescriptorsAreReused) {
    for (int i = 0; i < 50; ++i) {
        int fd = open(path_.c_str(), O_RDWR);
        ASSERT_EQ(0, kv_lockfile(fd, KV_LOCK_SHARED));
        ASSERT_EQ(0, kv_unlockfile(fd));
        close(fd);
    }
    EXPECT_EQ(0, g_sleeps.load());
}
