// Internals shared by the device interface frame and its transports: error
// helpers on a CDI_INFO, command set-up and digestion, the per-thread state.
// Everything here works on one thread's record or on that thread's state.
#pragma once

#include "drivers/cdi/cdi.h"

struct sgnum_list;

// Per-thread state of the device interface.
struct cdi_t_struct {
    sgnum_list* sg_list;       // device cache of the pass-through
    int use_SG_IO;             // 1: kernel from 2.6.16 on, SG_IO preferred
    char cdi_log_file[12288];  // reserved for a per-thread trace file name
    int cdi_debug;             // trace level (CDI_DEBUG)
};

// The calling thread's state, made on first need. Never null.
cdi_t_struct* cdi_t_get(void);
// Frees a thread's state (its device cache included); the thread key's destructor.
void cdi_t_clean(void* state);
// Test hook: drops the calling thread's state so the next use reads the
// environment and the kernel version again.
void cdi_t_reset_thread(void);

// Text of the last call. AssignErrStr keeps a heap copy, freed before the next.
void vcdi_AssignErrStr(CDI_INFOP cdi_info, const char* text);
void vcdi_AssignErrStrf(CDI_INFOP cdi_info, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
void vcdi_Assign_errstrFrom_status(CDI_INFOP cdi_info, int status);
void vcdi_free_errstr(CDI_INFOP cdi_info);

void vcdi_unimplemented_cmd(CDI_INFOP cdi_info);
void vcdi_unimplemented_path(CDI_INFOP cdi_info);
void vcdi_unsupported_cmd(CDI_INFOP cdi_info);
void vcdi_parameter_error(CDI_INFOP cdi_info);

// Defaults of a SCSI command: status 16, scmd_status 255, data in, 300 s,
// the default sense area of 32 bytes, no data, no CDB.
void vcdi_SetupDefaultScmd(CDI_INFOP cdi_info);
// Runs the prepared command on the path and turns the status into a drive status.
int vcdi_DoScmdAndDigestResult(CDI_INFOP cdi_info);
// Records a failed pass-through or tape ioctl: errnum, status, result bit 1.
int vcdi_os_cmdIoCtlError(CDI_INFOP cdi_info, int err, const char* what);

// Command handlers of the frame.
int cdi_inquiry(CDI_INFOP cdi_info);
int cdi_send_scsi_cdb(CDI_INFOP cdi_info);

// Hex dump of len bytes into out (3 characters a byte), for the trace.
void cdi_hex_line(const unsigned char* p, int len, char* out, size_t outlen);
