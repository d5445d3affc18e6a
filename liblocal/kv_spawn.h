// Child processes: start (spawn, spawn_as_user), reap (waitchild), the
// descriptor and signal helpers around them, and program location
// (execpath, find_origin). Thread-safe: several threads may spawn at once.
// A child's exit status 76 means that its start failed after the fork.
#pragma once

#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <sys/select.h>
#include <sys/types.h>

// Mode bits of spawn and spawn_as_user.
#define SPAWN_WAIT 1        // wait; a failed child gives -1
#define SPAWN_ASYNC 2       // for callers only: reap later with waitchild
#define SPAWN_SETSID 4      // new session; stdin on /dev/null unless given
#define SPAWN_DEVNULL 8     // standard files on /dev/null first
#define SPAWN_CORESDIR 16   // run in the program's core directory
#define SPAWN_ENVP_ONLY 32  // envp alone is the environment
#define SPAWN_SHELL 64      // through "/bin/sh" "-c"

// Exit status of a child whose start failed after the fork.
#define SPAWN_EXEC_FAILED 76

typedef fd_set kv_fd_set;
typedef void* (*thread_proc_func_t)(void*);

// REQUIRES: argv non-null with a non-null first element (else -1, EINVAL).
// dupfdset: null or three descriptors for the child's 0, 1, 2 (negative:
// leave that slot alone). exfds: descriptors the child keeps (only fd is
// read; the parent strikes dupfdset's descriptors out of it). argv, envp
// and exfds remain the caller's.
pid_t spawn(int mode, char** argv, struct pollfd* exfds, nfds_t nfds, int* dupfdset, char** envp);
pid_t spawn_as_user(int mode, char** argv, struct pollfd* exfds, nfds_t nfds, int* dupfdset,
                    char** envp, void* usercontext, char* cwd, int utf8_args);

// waitpid that resumes after EINTR; stat_loc gets the raw status.
pid_t waitchild(int pid, int* stat_loc, int options);

int kv_kill(pid_t pid, int signo);
int spawn_openfd(int fd);
int spawn_closefd(int fd);
// Closes every descriptor of the set from the top of the table down to 1.
void closefdset(fd_set* cfdset);

// Forks a process that runs proc(param) and exits with 0.
pid_t spawnthread(thread_proc_func_t proc, void* param, kv_fd_set* parentfdset,
                  kv_fd_set* childfdset);

const char* signal_to_str(int sig);
const char* exception_to_str(int exc);
int exception_to_signal(int exc);

// A program found relative to the running binary, in buf, or cmd itself.
char* execpath(char* cmd, char* buf, size_t bufsz);
// Directory of the running binary, found from argv0 the first time and kept
// for the process; null while unknown.
char* find_origin(char* argv0);

// Closes every descriptor from 3 up except those listed (async-signal-safe,
// so the child can use it between its start and exec).
void kv_closenstdfiles(struct pollfd* exfds, nfds_t nfds);
// Fills empty slots 0 to 2 with "/dev/null".
void kv_openstdfiles(void);

// User context of spawn_as_user (opaque).
void* build_spawn_user_context(const char* username);
void* duplicate_spawn_user_context(void* usercontext);
void free_spawn_user_context(void* usercontext);
int set_effective_user(void* usercontext);

// Per-program core directory, made if missing; 0 on success.
int prepare_coresdir(const char* dir);

// Impersonation pipes have no function on this platform.
int get_impersonation_pipe(void);
int client_open_impersonation_pipe(void);
int impersonate_user_from_pipe(int fd);
int get_usercontext_from_pipe(int fd, void** usercontext);
int pipe_is_open(int fd);
void destroy_impersonation_pipe(int fd);
void revert_to_self(void);
int pipe_for_select(int fds[2]);

// Where the trace and the messages of this layer go. level >= 0 is a trace
// line (with its trace mask bit); level -1 is a message for users (mask is
// its severity). Without a sink, messages go to standard error and trace
// lines nowhere. Returns the previous sink.
typedef void (*kv_trace_sink_t)(int level, int mask, const char* text);
kv_trace_sink_t kv_spawn_set_trace(kv_trace_sink_t sink);
void kv_spawn_trace(int level, int mask, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
void kv_spawn_report(int msgid, int severity, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Test aid: forgets the origin found by find_origin.
void kv_spawn_origin_reset_for_test(void);
