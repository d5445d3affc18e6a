// Mutexes, once-controls, thread keys and sleep.
#include "liblocal/kv_thread.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "liblocal/kv_error.h"
#include "liblocal/kv_mem.h"

struct KVMutexStruct {
    int refcount;
    pthread_mutex_t mutex;
    pid_t creator;
};

struct KVThreadStorageStruct {
    pthread_key_t key;
};

namespace {
std::atomic<kv_sleep_hook_t> g_sleep_hook{nullptr};

// The process's id, asked of the kernel once and again only after a fork:
// a lock is taken for every line a parser reads, and getpid is a system call.
std::atomic<pid_t> g_pid{0};

void forget_pid() {
    g_pid.store(0, std::memory_order_relaxed);
}

pid_t current_pid() {
    pid_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid != 0) return pid;
    static std::once_flag registered;
    std::call_once(registered, [] { pthread_atfork(nullptr, nullptr, forget_pid); });
    pid = getpid();
    g_pid.store(pid, std::memory_order_relaxed);
    return pid;
}

// In a forked child the mutex may be held by a thread that did not survive
// the fork; the child starts over with a fresh one.
void kv_mutex_change_pid(KVMutex m) {
    pthread_mutex_init(&m->mutex, nullptr);
    m->creator = current_pid();
}

KVError from_rc(int rc) {
    if (rc == 0) return KV_OK;
    return kv_error_set_errno(rc);
}
}  // namespace

KVMutex kv_mutex_new(void) {
    KVMutex m = static_cast<KVMutex>(xcalloc(1, sizeof(KVMutexStruct)));
    if (pthread_mutex_init(&m->mutex, nullptr) != 0) {
        free(m);
        return nullptr;
    }
    m->refcount = 1;
    m->creator = current_pid();
    return m;
}

KVError kv_mutex_lock(KVMutex m) {
    if (m == nullptr) return KV_EINVAL;
    if (m->creator != current_pid()) kv_mutex_change_pid(m);
    return from_rc(pthread_mutex_lock(&m->mutex));
}

KVError kv_mutex_unlock(KVMutex m) {
    if (m == nullptr) return KV_EINVAL;
    return from_rc(pthread_mutex_unlock(&m->mutex));
}

KVError kv_mutex_trylock(KVMutex m) {
    if (m == nullptr) return KV_EINVAL;
    if (m->creator != current_pid()) kv_mutex_change_pid(m);
    return from_rc(pthread_mutex_trylock(&m->mutex));
}

KVError kv_mutex_destroy(KVMutex m) {
    if (m == nullptr) return KV_EINVAL;
    // Unlocking a mutex we do not hold is harmless for a default mutex on
    // Linux only when it is unlocked; trylock first makes the unlock ours.
    pthread_mutex_trylock(&m->mutex);
    pthread_mutex_unlock(&m->mutex);
    if (--m->refcount <= 0) {
        pthread_mutex_destroy(&m->mutex);
        free(m);
    }
    return KV_OK;
}

KVError kv_once(KVOnce* oc, KVOnceFunc routine) {
    if (oc == nullptr || routine == nullptr) return KV_EINVAL;
    return from_rc(pthread_once(&oc->once, routine));
}

KVError kv_once_reset(KVOnce* oc) {
    if (oc == nullptr) return KV_EINVAL;
    oc->once = PTHREAD_ONCE_INIT;
    return KV_OK;
}

KVThreadStorage kv_threadstorage_new(KVDestructorFunc destructor) {
    KVThreadStorage ts = static_cast<KVThreadStorage>(xcalloc(1, sizeof(KVThreadStorageStruct)));
    if (pthread_key_create(&ts->key, destructor) != 0) {
        free(ts);
        return nullptr;
    }
    return ts;
}

void* kv_threadstorage_get(KVThreadStorage ts) {
    return ts == nullptr ? nullptr : pthread_getspecific(ts->key);
}

KVError kv_threadstorage_set(KVThreadStorage ts, void* value) {
    if (ts == nullptr) return KV_EINVAL;
    return from_rc(pthread_setspecific(ts->key, value));
}

KVError kv_threadstorage_destroy(KVThreadStorage ts) {
    if (ts == nullptr) return KV_EINVAL;
    pthread_key_delete(ts->key);
    free(ts);
    return KV_OK;
}

KVError kv_thread_sleep(uint32_t milliseconds) {
    kv_sleep_hook_t hook = g_sleep_hook.load();
    if (hook != nullptr) return hook(milliseconds);
    struct timespec ts;
    ts.tv_sec = milliseconds / 1000;
    ts.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    if (nanosleep(&ts, nullptr) != 0) return kv_error_set_errno(errno);
    return KV_OK;
}

KVError kv_thread_yield(void) {
    sched_yield();
    return KV_OK;
}

int kv_thread_id(void) {
    return static_cast<int>(syscall(SYS_gettid));
}

kv_sleep_hook_t kv_set_sleep_hook(kv_sleep_hook_t hook) {
    return g_sleep_hook.exchange(hook);
}

struct KVThreadStruct {
    KVThreadFunc func;
    void* arg;
    pthread_t tid;
    bool started;
    bool joined;
    void* result;
};

KVThread kv_thread_new(KVThreadFunc func, void* arg) {
    if (func == nullptr) {
        kv_error_set_errno(EINVAL);
        return nullptr;
    }
    KVThread t = static_cast<KVThread>(xcalloc(1, sizeof(KVThreadStruct)));
    t->func = func;
    t->arg = arg;
    return t;
}

KVError kv_thread_start(KVThread t) {
    if (t == nullptr || t->started) return kv_error_set_errno(EINVAL);
    int rc = pthread_create(&t->tid, nullptr, t->func, t->arg);
    if (rc != 0) return kv_error_set_errno(rc);
    t->started = true;
    return KV_OK;
}

KVError kv_thread_join(KVThread t, void** result) {
    if (t == nullptr || !t->started) return kv_error_set_errno(EINVAL);
    if (!t->joined) {
        int rc = pthread_join(t->tid, &t->result);
        if (rc != 0) return kv_error_set_errno(rc);
        t->joined = true;
    }
    if (result != nullptr) *result = t->result;
    return KV_OK;
}

KVError kv_thread_tryjoin(KVThread t, void** result) {
    if (t == nullptr || !t->started) return kv_error_set_errno(EINVAL);
    if (!t->joined) {
        int rc = pthread_tryjoin_np(t->tid, &t->result);
        if (rc == EBUSY) return KV_EBUSY;
        if (rc != 0) return kv_error_set_errno(rc);
        t->joined = true;
    }
    if (result != nullptr) *result = t->result;
    return KV_OK;
}

KVError kv_thread_destroy(KVThread t) {
    if (t == nullptr) return KV_EINVAL;
    // A thread never reaped would keep its stack for the process's life.
    if (t->started && !t->joined) pthread_join(t->tid, nullptr);
    free(t);
    return KV_OK;
}

KVThreadId kv_thread_self(void) {
    return pthread_self();
}

int kv_thread_equal(KVThreadId a, KVThreadId b) {
    return pthread_equal(a, b) ? 1 : 0;
}

KVThreadId kv_thread_get_id(KVThread t) {
    return t != nullptr ? t->tid : KVThreadId();
}

KVError kv_thread_signal(KVThread t, int sig) {
    if (t == nullptr || !t->started || t->joined) return kv_error_set_errno(EINVAL);
    return from_rc(pthread_kill(t->tid, sig));
}

KVError kv_thread_cancel(KVThread t) {
    if (t == nullptr || !t->started || t->joined) return kv_error_set_errno(EINVAL);
    return from_rc(pthread_cancel(t->tid));
}

namespace {
KVError mask_one(int how, int sig) {
    sigset_t set;
    sigemptyset(&set);
    if (sigaddset(&set, sig) != 0) return kv_error_set_errno(EINVAL);
    return from_rc(pthread_sigmask(how, &set, nullptr));
}
}  // namespace

KVError kv_thread_block_signal(int sig) {
    return mask_one(SIG_BLOCK, sig);
}
KVError kv_thread_unblock_signal(int sig) {
    return mask_one(SIG_UNBLOCK, sig);
}

KVError kv_thread_block_all_signals(void) {
    sigset_t set;
    sigfillset(&set);
    return from_rc(pthread_sigmask(SIG_BLOCK, &set, nullptr));
}
