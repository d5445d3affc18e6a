// Mutexes, once-controls, thread keys, threads and sleep of the foundation.
// All calls are thread-safe. The sleep goes through a replaceable hook so
// that tests of code with fixed waits run on a fake clock.
#pragma once

#include "liblocal/kv_types.h"

// Default, non-recursive mutexes. A mutex locked in a forked child is
// re-created first, so a lock held by a thread that does not exist in the
// child cannot block it. Return null / a portable code.
KVMutex kv_mutex_new(void);
KVError kv_mutex_lock(KVMutex mutex);
KVError kv_mutex_unlock(KVMutex mutex);
KVError kv_mutex_trylock(KVMutex mutex);  // non-zero when busy
KVError kv_mutex_destroy(KVMutex mutex);  // unlocks, then frees at refcount 0

KVError kv_once(KVOnce* once_control, KVOnceFunc once_routine);
KVError kv_once_reset(KVOnce* once_control);

KVThreadStorage kv_threadstorage_new(KVDestructorFunc destructor);
void* kv_threadstorage_get(KVThreadStorage ts);
KVError kv_threadstorage_set(KVThreadStorage ts, void* value);
KVError kv_threadstorage_destroy(KVThreadStorage ts);

// Threads: made with kv_thread_new, run by kv_thread_start, reaped by
// kv_thread_join (or kv_thread_tryjoin, which returns KV_EBUSY while it runs)
// and released by kv_thread_destroy.
struct KVThreadStruct;
typedef KVThreadStruct* KVThread;
typedef void* (*KVThreadFunc)(void* arg);
typedef pthread_t KVThreadId;
#define KV_EBUSY 12

KVThread kv_thread_new(KVThreadFunc func, void* arg);  // null on a null func
KVError kv_thread_start(KVThread thread);
KVError kv_thread_join(KVThread thread, void** result);
KVError kv_thread_tryjoin(KVThread thread, void** result);
KVError kv_thread_destroy(KVThread thread);  // joins first if started and not joined
KVThreadId kv_thread_self(void);
int kv_thread_equal(KVThreadId a, KVThreadId b);
KVThreadId kv_thread_get_id(KVThread thread);
KVError kv_thread_signal(KVThread thread, int sig);
KVError kv_thread_cancel(KVThread thread);
// Signal masks of the calling thread.
KVError kv_thread_block_signal(int sig);
KVError kv_thread_unblock_signal(int sig);
KVError kv_thread_block_all_signals(void);

// One nanosleep; an interruption by a signal returns non-zero and is not resumed.
KVError kv_thread_sleep(uint32_t milliseconds);
KVError kv_thread_yield(void);
int kv_thread_id(void);

// Test hook: replaces the real sleep of kv_thread_sleep (and of every fixed
// wait built on it). Null restores the real one. Returns the previous hook.
typedef KVError (*kv_sleep_hook_t)(uint32_t milliseconds);
kv_sleep_hook_t kv_set_sleep_hook(kv_sleep_hook_t hook);
