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
KVError kv_mutex_trylock(KVMutex mutex);   // non-zero when busy
KVError kv_mutex_destroy(KVMutex mutex);   // unlocks, then frees at refcount 0

KVError kv_once(KVOnce* once_control, KVOnceFunc once_routine);
KVError kv_once_reset(KVOnce* once_control);

KVThreadStorage kv_threadstorage_new(KVDestructorFunc destructor);
void* kv_threadstorage_get(KVThreadStorage ts);
KVError kv_threadstorage_set(KVThreadStorage ts, void* value);
KVError kv_threadstorage_destroy(KVThreadStorage ts);

// One nanosleep; an interruption by a signal returns non-zero and is not resumed.
KVError kv_thread_sleep(uint32_t milliseconds);
KVError kv_thread_yield(void);
int kv_thread_id(void);

// Test hook: replaces the real sleep of kv_thread_sleep (and of every fixed
// wait built on it). Null restores the real one. Returns the previous hook.
typedef KVError (*kv_sleep_hook_t)(uint32_t milliseconds);
kv_sleep_hook_t kv_set_sleep_hook(kv_sleep_hook_t hook);
