// Paths of the installation: the directory above the running binary's, and
// the fixed sub-directories joined to it once and kept. Thread-safe (one
// process lock, Installdir_mutex); returned texts live for the process.
#pragma once

// Used when the installation cannot be found (and as the root of "cst").
#define KV_DEFAULT_INSTALLDIR "/opt/vmr"

// The parent of the directory of the running binary, found the first time
// from argv0 (or the saved argv0, or the kernel's idea of the executable) and
// kept. Null when it cannot be found.
char* kv_find_installdir(char* argv0);
char* kv_get_installdir(void);
void kv_set_argv0(const char* argv0);
char* kv_get_argv0(void);

// Joins the installation directory (KV_DEFAULT_INSTALLDIR when unknown) and
// `word` the first time, keeps the result in *cache and returns it.
char* kv_getset_dir(char** cache, const char* word);

char* kv_get_tmpdir(void);      // "tmp"
char* kv_get_securedir(void);   // "sec"
char* kv_get_resdir(void);      // "res"
char* kv_get_rapdir(void);      // "rap"
char* kv_get_moddir(void);      // "mod"
char* kv_get_mmdir(void);       // "mm"
char* kv_get_logsdir(void);     // "logs"
char* kv_get_libdir(void);      // "lib"
char* kv_get_indexdir(void);    // "index"
char* kv_get_glsdir(void);      // "gls"
char* kv_get_etcdir(void);      // "etc"
char* kv_get_debugdir(void);    // "debug"
char* kv_get_coresdir(void);    // "cores"
char* kv_get_bindir(void);      // the running binary's own directory
char* kv_get_applogsdir(void);  // "applogs"
char* kv_get_cstdir(void);      // "cst"

// Test aid: forgets the installation directory and every kept path.
void kv_path_reset_for_test(void);
