// The process environment as the foundation sees it: the saved assignments
// (`myenv`) that children inherit, UTF-8 reads and writes, tunables read from
// variables. All calls are thread-safe: they share one process lock (env_lock).
#pragma once

#include <stddef.h>
#include <sys/types.h>

// Copies the current environment into the saved assignments, replacing what
// was saved before. Start-up (_kvinit) calls it; the spawner calls it once by
// itself if nobody did, so a plug-in that skipped start-up still passes the
// host's environment on to its children.
void kv_env_init_from_environ(void);

// A null-terminated copy of the saved assignments (each string and the array
// allocated; release with kv_env_vec_free). Taken under env_lock.
char** kv_env_saved_copy(void);
void kv_env_vec_free(char** vec);

// Text of a rendered log that children should be told about
// ("VMR_RENDERED_PATH"); null when none is open. The message layer sets it.
void kv_env_set_rendered_path(const char* path);
char* kv_env_rendered_path_dup(void);  // allocated copy, or null

// name=value in UTF-8. Converted to the locale's form when not pure ASCII,
// then putenv (the pointer is kept for the process's life) and recorded in
// the saved assignments. 0 on success, -1 with errno on failure.
int kv_putenv(char* string);

// The value of a variable in UTF-8, or null when unset or not convertible.
// Pointers handed out stay valid for the life of the process.
char* kv_getenv(const char* name);

// A tunable described as "NAME=default,min:max" (see kv_env.cpp for the value
// forms: "%50", "<10", ">10", "=10", "D", "10"). A malformed description is
// reported and rt_defval returned.
unsigned long kv_getenv_ulong(char* init_str, unsigned long rt_defval);

// Sets name=value (with append: "name=value:old"), 1 on success, 0 on
// failure. The assignment text lives for the process; a text already set
// once is not copied again.
int add_to_environment(const char* name, const char* value, int append);

// A new array: var, then the pointers of envp (which may be null). The old
// array is not freed. Null with errno ENOMEM when out of memory.
char** addenvp(char** envp, char* var);

// Test aid: forgets the UTF-8 cache entries (kept values stay allocated).
void kv_env_cache_reset_for_test(void);
