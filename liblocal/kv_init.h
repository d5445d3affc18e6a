// Start-up of the foundation library and its exit handlers. A plug-in that
// shares a process with a host disables the handlers (kv_atexit_disable).
#pragma once

#include "liblocal/kv_types.h"

// The library's start-up, called once by a program or plug-in (again is
// harmless: the one-time steps are skipped). `app_name` may be
// "name-module" to name a module of the program (up to 30 characters).
void _kvinit(char* app_name, int argc, char** argv);

// What start-up kept: the application and module names (null before it),
// the ids the process started with, and the debug command file path.
const char* kv_get_appname(void);
const char* kv_get_modname(void);
void kv_get_startup_ids(uid_t* ruid, uid_t* euid, gid_t* rgid, gid_t* egid);
const char* kv_get_debug_cmdfile(void);

// Start-up steps, also callable alone. init_locales: a program of its own
// (`own_process` 1) takes the environment's locale; in every case the
// module's messages follow the process's message locale when it is not "C".
// debug_check: VMR_DEBUGPROCS lists "name[=level[/mask]]" entries separated
// by commas or blanks ("*" for every program, a bare name is level 1); an
// entry for `progname` raises Debug and adds to Debug_mask. 1 if one matched.
void init_locales(int own_process);
int debug_check(const char* progname);

// Exit handlers of the library run in reverse order of registration, at
// kv_exit and at the process's normal exit, unless disabled.

KVError kv_atexit(void (*func)(void));
KVError kv_unatexit(void (*func)(void));
void kv_exit(int status);
void kv_atexit_disable(void);
void kv_atexit_enable(void);
int kv_atexit_is_executing(void);
