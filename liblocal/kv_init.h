// Start-up of the foundation library and its exit handlers. A plug-in that
// shares a process with a host disables the handlers (kv_atexit_disable).
#pragma once

#include "liblocal/kv_types.h"

void _kvinit(char* app_name, int argc, char** argv);

KVError kv_atexit(void (*func)(void));
KVError kv_unatexit(void (*func)(void));
void kv_exit(int status);
void kv_atexit_disable(void);
void kv_atexit_enable(void);
int kv_atexit_is_executing(void);
