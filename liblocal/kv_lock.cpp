// Two-layer advisory lock files.
#include "liblocal/kv_lock.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "liblocal/kv_error.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_thread.h"

namespace {
// The in-process layer of one descriptor. Like the file lock it stands for,
// it belongs to the process: the thread that releases it need not be the one
// that took it (which a mutex would not allow). The holding thread may take
// it again, as may its copy in a forked child, which holds no file lock.
struct Baton {
    std::mutex m;
    std::condition_variable cv;
    int depth = 0;
    pthread_t owner{};
    void take() {
        std::unique_lock<std::mutex> lk(m);
        if (depth > 0 && pthread_equal(owner, pthread_self())) {
            ++depth;
            return;
        }
        cv.wait(lk, [this] { return depth == 0; });
        depth = 1;
        owner = pthread_self();
    }
    void give() {
        {
            std::lock_guard<std::mutex> lk(m);
            if (depth > 0) --depth;
        }
        cv.notify_one();
    }
};

// fcntl locks belong to the process, so two threads of one process would both
// "hold" the file; the per-descriptor baton keeps them apart.
struct LockRec {
    LockRec* next;
    int fd;
    int users;
    Baton* baton;
};

KVOnce g_once = KV_ONCE_INIT;
KVMutex g_list_mutex = nullptr;
LockRec* g_list = nullptr;  // records are never freed, only reused
std::atomic<kv_lock_fcntl_hook_t> g_fcntl_hook{nullptr};

void init_list(void) {
    g_list_mutex = kv_mutex_new();
}

int lock_fcntl(int fd, int cmd, struct flock* fl) {
    kv_lock_fcntl_hook_t hook = g_fcntl_hook.load();
    if (hook != nullptr) return hook(fd, cmd, fl);
    return fcntl(fd, cmd, fl);
}

// Finds or makes the record of `fd`, counts this user, and takes the
// record's baton (blocking). The list mutex is never held while waiting.
LockRec* _kv_file_lock_fd(int fd) {
    kv_once(&g_once, init_list);
    kv_mutex_lock(g_list_mutex);
    LockRec* found = nullptr;
    LockRec* spare = nullptr;
    for (LockRec* r = g_list; r != nullptr; r = r->next) {
        if (r->fd == fd) {
            found = r;
            break;
        }
        if (r->fd < 0 && spare == nullptr) spare = r;
    }
    if (found == nullptr) {
        found = spare;
        if (found == nullptr) {
            found = static_cast<LockRec*>(xcalloc(1, sizeof(LockRec)));
            found->baton = new Baton();
            found->next = g_list;
            g_list = found;
        }
        found->fd = fd;
        found->users = 0;
    }
    ++found->users;
    kv_mutex_unlock(g_list_mutex);
    found->baton->take();
    return found;
}

// The record of `fd` and its user count, read under the list mutex.
LockRec* find_rec(int fd, int* users) {
    kv_once(&g_once, init_list);
    kv_mutex_lock(g_list_mutex);
    LockRec* r = g_list;
    while (r != nullptr && r->fd != fd) r = r->next;
    *users = r != nullptr ? r->users : 0;
    kv_mutex_unlock(g_list_mutex);
    return r;
}

void _kv_file_unlock_fd(LockRec* rec) {
    rec->baton->give();
    kv_mutex_lock(g_list_mutex);
    if (--rec->users <= 0) {
        rec->users = 0;
        rec->fd = -1;
    }
    kv_mutex_unlock(g_list_mutex);
}

void fill_flock(struct flock* fl, short type) {
    memset(fl, 0, sizeof(*fl));
    fl->l_type = type;
    fl->l_whence = SEEK_SET;
    // One byte at offset 0: the lock is a token, not a record lock.
    fl->l_start = 0;
    fl->l_len = 1;
}

int bad_fd(void) {
    errno = EBADF;
    kv_error_set_errno(EBADF);
    return -1;
}

// Takes the in-process layer and prepares the file-layer request; a bad lock
// type is reported through *bad_type with the in-process layer still held.
LockRec* begin_lock(int fd, int lock_type, struct flock* fl, bool* bad_type) {
    LockRec* rec = _kv_file_lock_fd(fd);
    *bad_type = false;
    if (lock_type != KV_LOCK_EXCLUSIVE && lock_type != KV_LOCK_SHARED) {
        // The per-descriptor mutex stays held here; callers pass only 0 and 1.
        errno = EINVAL;
        kv_error_set_errno(EINVAL);
        *bad_type = true;
        return rec;
    }
    fill_flock(fl, lock_type == KV_LOCK_EXCLUSIVE ? F_WRLCK : F_RDLCK);
    return rec;
}
}  // namespace

int kv_trylockfile(int fd, int lock_type) {
    if (fd < 0) return bad_fd();
    struct flock fl;
    bool bad_type;
    LockRec* rec = begin_lock(fd, lock_type, &fl, &bad_type);
    if (bad_type) return -1;
    if (lock_fcntl(fd, F_SETLK, &fl) == 0) return 0;
    int err = errno;
    kv_error_set_errno(err);
    _kv_file_unlock_fd(rec);
    errno = err;
    return -1;
}

int kv_lockfile(int fd, int lock_type) {
    if (fd < 0) return bad_fd();
    struct flock fl;
    bool bad_type;
    LockRec* rec = begin_lock(fd, lock_type, &fl, &bad_type);
    if (bad_type) return -1;
    const int tries = 4;
    int err = 0;
    for (int i = 0; i < tries; ++i) {
        if (lock_fcntl(fd, F_SETLK, &fl) == 0) return 0;
        err = errno;
        // A file system without locks must not stop the system.
        if (err == EINVAL || err == ENOSYS) return 0;
        if (i + 1 < tries) kv_thread_sleep((err == EAGAIN || err == EDEADLK) ? 1000 : 5000);
    }
    kv_error_set_errno(err);
    _kv_file_unlock_fd(rec);
    errno = err;
    return -1;
}

int kv_unlockfile(int fd) {
    if (fd < 0) return bad_fd();
    struct flock fl;
    fill_flock(&fl, F_UNLCK);
    while (lock_fcntl(fd, F_SETLK, &fl) != 0) {
        int err = errno;
        if (err == EINVAL || err == ENOSYS || err == EBADF) break;
        kv_thread_sleep(1000);
    }
    int users;
    LockRec* rec = find_rec(fd, &users);
    if (rec != nullptr && users > 0) _kv_file_unlock_fd(rec);
    return 0;
}

kv_lock_fcntl_hook_t kv_set_lock_fcntl_hook(kv_lock_fcntl_hook_t hook) {
    return g_fcntl_hook.exchange(hook);
}

int kv_lockfile_users(int fd) {
    int users;
    find_rec(fd, &users);
    return users;
}
