// The product's own directory table: a root (VMR_DIR_PATH, or VMR_DEFAULT_ROOT)
// and fixed paths below it, each computed once and kept for the process.
// Thread-safe; returned texts must not be freed.
#pragma once

// The root used when VMR_DIR_PATH is not set: the same root as the module's
// fixed lock file and snap pool paths ("/vmr/tmp/...", "/vmr/res/...").
#define VMR_DEFAULT_ROOT "/vmr"

char* find_vmrdir(void);            // read at every call, not kept
char* find_vmrrundir(void);         // root + "/vmr/run"
char* find_vmrtmpdir(void);         // root/tmp
char* find_vmrdefaulttmpdir(void);  // root/vmr/tmp
char* find_vmrindexdir(void);       // root/index
char* find_vmrmmdir(void);          // root/mm
char* find_vmrrapdir(void);         // root/rap
char* find_vmrcoresdir(void);       // root/cores
char* find_vmrdebugdir(void);       // root/debug
char* find_vmrlockdir(void);        // root/lock
char* find_vmrsecuredir(void);      // root/sec
char* find_vmrresdir(void);         // root/res
char* find_vmrlaresfile(void);      // root/vmrla.res
char* find_vmrjbresfile(void);      // root/vmrjb.res
char* find_vmrresfile(void);        // root/vmr.res
char* find_vmrresdb(void);          // root/vmrdb
char* find_vmrlaresdb(void);        // root/vmrladb
char* find_vmrlogsdir(void);        // root/logs
char* find_vmrlogfile(void);        // root/daemon.raw
char* find_vmrRendLogFile(void);    // root/daemon.log
char* find_vmrraplogfile(void);     // root/rap.log
char* find_vmrappsdir(void);        // root/apps
char* find_vmrapplogsdir(void);     // root/applogs
