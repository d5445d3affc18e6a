// Basic types of the foundation library: portable error codes, 64-bit time,
// and the opaque handles of mutexes, once-controls and thread keys.
// Plain data; safe to include anywhere.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// 0 on success, otherwise a portable code (2 for a bad argument).
typedef int KVError;
#define KV_OK 0
#define KV_EINVAL 2

// Seconds since the epoch, signed 64 bits.
typedef int64_t kv_time64_t;
#define KV_FOREVER_TIME ((kv_time64_t)0x7FFFFFFF)

struct KVMutexStruct;
typedef KVMutexStruct* KVMutex;

struct KVOnce {
    pthread_once_t once;
};
#define KV_ONCE_INIT \
    { PTHREAD_ONCE_INIT }
typedef void (*KVOnceFunc)(void);

struct KVThreadStorageStruct;
typedef KVThreadStorageStruct* KVThreadStorage;
typedef void (*KVDestructorFunc)(void*);

// Element type of the generic list primitives: any record that begins with `next`.
struct kv_list_t {
    kv_list_t* next;
};
