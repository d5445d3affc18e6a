// cdi_open, cdi_cmd and cdi_close: the frame that routes one request record
// to its transport by path type, and the helpers that leave the status and
// its text in the record.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"
#include "drivers/cdi/cdi_tape.h"
#include "liblocal/kv_mem.h"

// Trace levels of this library.
enum { TR_ERROR = 1, TR_WARN = 2, TR_INFO = 3, TR_FLOW = 4 };

namespace {

const char* device_name(CDI_INFOP cdi_info) {
    return cdi_info->path.device_file ? cdi_info->path.device_file : "";
}

bool is_os_path(int type) {
    return type == CDI_PATH_SCSI || type == CDI_PATH_TAPE || type == CDI_PATH_TAPE_NR;
}

// Closes what the pass-through opened. A descriptor the caller handed in is
// left open; only the generic node opened for it goes.
void release_os_handles(CDI_INFOP cdi_info, bool close_primary) {
    if (close_primary) {
        cdi_os_close(cdi_info);
        return;
    }
    kv_fd_t mine = cdi_info->path.handle;
    if (cdi_info->path.aux_handle == mine) cdi_info->path.aux_handle = -1;
    cdi_info->path.handle = -1;
    cdi_os_close(cdi_info);
    cdi_info->path.handle = mine;
}

void fill_stars(char* field, size_t len) {
    memset(field, '*', len);
    field[len] = '\0';
}

}  // namespace

int cdi_open(CDI_INFOP cdi_info) {
    if (!cdi_info) return CDI_STAT_PARAMETER_ERROR;
    cdi_define_messages();
    if (!cdi_info->path.device_file) {
        cdi_info->status = CDI_STAT_NO_DEVICE_FILE;
        cdi_info->error.errnum = ENOENT;
        vcdi_Assign_errstrFrom_status(cdi_info, cdi_info->status);
        return cdi_info->status;
    }
    if (cdi_info->version > current_cdi_version) {
        cdi_info->version = current_cdi_version;
        cdi_info->status = CDI_STAT_VERSION_TOO_OLD;
        cdi_info->error.errnum = EACCES;
        vcdi_Assign_errstrFrom_status(cdi_info, cdi_info->status);
        return cdi_info->status;
    }
    const bool we_open = cdi_info->path.handle < 0;
    // A caller that cleared its record has 0 in the auxiliary descriptor: that
    // is standard input, not a node of ours, and closing it would hand its
    // number to the next open of any thread of the host.
    if (we_open) cdi_info->path.aux_handle = -1;
    const int type = cdi_info->path.type;
    int status;
    if (is_os_path(type)) {
        status = cdi_os_open(cdi_info);
    } else if (type == CDI_PATH_NDMP_SCSI) {
        status = cdi_ndmp_open(cdi_info);
    } else {
        vcdi_unimplemented_path(cdi_info);
        status = cdi_info->status;
    }
    cdi_info->status = status;
    if (status != CDI_STAT_SUCCESS) {
        if (cdi_info->error.errstr)
            cdi_dprintf(TR_ERROR, "CDI error: cdi_open() '%s': %s\n", device_name(cdi_info),
                        cdi_info->error.errstr);
        vcdi_Assign_errstrFrom_status(cdi_info, status);
        return status;
    }

    if (type == CDI_PATH_SCSI || type == CDI_PATH_NDMP_SCSI || type == CDI_PATH_RESERVED) {
        cdi_info->command = CDI_INQUIRY_DATA;
        cdi_info->cmd_data.inquiry.inq_data_requested = CDI_INQ_STANDARD;
        status = cdi_cmd(cdi_info);
        if (status != CDI_STAT_SUCCESS) {
            cdi_dprintf(TR_INFO,
                        "CDI info: cdi_open() open() succeded but Inquiry Failed.\n"
                        "errno=%d, status=%d %s\n",
                        cdi_info->error.errnum, status,
                        cdi_info->error.errstr ? cdi_info->error.errstr : "");
            if (type == CDI_PATH_NDMP_SCSI) {
                cdi_ndmp_close(cdi_info);
                cdi_info->path.handle = -1;
            } else {
                release_os_handles(cdi_info, we_open);
            }
            cdi_info->status = status;
            return status;
        }
        const unsigned char* d = cdi_info->cmd_data.inquiry.inquiry_data;
        memcpy(cdi_info->vendor, d + 8, 8);
        cdi_info->vendor[8] = '\0';
        memcpy(cdi_info->product, d + 16, 16);
        cdi_info->product[16] = '\0';
        memcpy(cdi_info->rev, d + 32, 4);
        cdi_info->rev[4] = '\0';
    } else {
        fill_stars(cdi_info->vendor, 8);
        fill_stars(cdi_info->product, 16);
        fill_stars(cdi_info->rev, 4);
    }
    // Only a descriptor cdi_open made is cdi_close's to close.
    if (we_open && cdi_info->path.handle >= 0) cdi_info->path.cdi_opened_handle = 1;
    cdi_info->status = CDI_STAT_SUCCESS;
    vcdi_Assign_errstrFrom_status(cdi_info, CDI_STAT_SUCCESS);
    return CDI_STAT_SUCCESS;
}

int cdi_close(CDI_INFOP cdi_info) {
    if (!cdi_info) return 0;
    const int type = cdi_info->path.type;
    if (is_os_path(type)) {
        release_os_handles(cdi_info, cdi_info->path.cdi_opened_handle != 0);
        if (cdi_info->path.cdi_opened_handle) cdi_info->path.handle = -1;
    } else if (type == CDI_PATH_NDMP_SCSI) {
        cdi_ndmp_close(cdi_info);
    }
    cdi_info->path.cdi_opened_handle = 0;
    cdi_info->path.aux_flags = 0;
    free(cdi_info->path.device_file);
    cdi_info->path.device_file = nullptr;
    if (cdi_info->free_bufferlist_on_close) cdi_free_bufferlist(cdi_info);
    cdi_info->status = CDI_STAT_SUCCESS;
    cdi_info->error.errnum = 0;
    vcdi_Assign_errstrFrom_status(cdi_info, CDI_STAT_SUCCESS);
    return 0;
}

int cdi_cmd(CDI_INFOP cdi_info) {
    if (!cdi_info) return CDI_STAT_PARAMETER_ERROR;
    cdi_define_messages();
    cdi_dprintf(TR_FLOW, "CDI info: cdi_cmd() top.\n");
    cdi_info->scmd.scmd_status = 255;
    cdi_info->scmd.scmd_result = 0;
    cdi_info->scmd.scmd_resid = 0;
    cdi_info->drivestat.status = CDI_DRIVE_STATUS_UNKNOWN;
    cdi_info->drivestat.msg[0] = '\0';

    // Commands 54 to 59 are known further down but refused here; callers
    // have always seen 5 for them.
    if (cdi_info->command > CDI_LAST_ACCEPTED_CMD) {
        cdi_info->status = CDI_STAT_CMD_NOT_SUPPORTED;
        cdi_info->error.errnum = 0;
        vcdi_unsupported_cmd(cdi_info);
        return cdi_info->status;
    }
    if (cdi_info->command == CDI_GET_VERSION) {
        cdi_info->version = current_cdi_version;
        cdi_info->status = CDI_STAT_SUCCESS;
        vcdi_Assign_errstrFrom_status(cdi_info, CDI_STAT_SUCCESS);
        return CDI_STAT_SUCCESS;
    }
    if (cdi_info->path.handle == -1) {
        cdi_info->status = CDI_STAT_BAD_HANDLE;
        vcdi_Assign_errstrFrom_status(cdi_info, CDI_STAT_BAD_HANDLE);
        return cdi_info->status;
    }
    if (!cdi_info->path.device_file || !cdi_info->path.device_file[0])
        cdi_dprintf(0, "CDI info: cdi_cmd() called without a device file name\n");

    vcdi_free_errstr(cdi_info);
    cdi_info->error.errnum = 0;
    memset(cdi_info->default_sense_buffer, 0, sizeof cdi_info->default_sense_buffer);
    cdi_dprintf(TR_FLOW, "CDI enter: Device '%s', CdiCmd %d\n", device_name(cdi_info),
                cdi_info->command);

    const int type = cdi_info->path.type;
    int status;
    switch (cdi_info->command) {
    case CDI_INQUIRY_DATA:
        if (type == CDI_PATH_SCSI || type == CDI_PATH_NDMP_SCSI) {
            status = cdi_inquiry(cdi_info);
        } else if (type >= CDI_PATH_TAPE && type <= CDI_PATH_RESERVED) {
            vcdi_unimplemented_cmd(cdi_info);
            status = cdi_info->status;
        } else {
            vcdi_unimplemented_path(cdi_info);
            status = cdi_info->status;
        }
        break;
    case CDI_SEND_SCSI_CDB: status = cdi_send_scsi_cdb(cdi_info); break;
    default: {
        int handled = 0;
        status = cdi_tape_dispatch(cdi_info, &handled);
        if (!handled) {
            vcdi_unsupported_cmd(cdi_info);
            status = cdi_info->status;
        }
        break;
    }
    }

    if (status < 0) {
        if (!cdi_info->error.errnum) cdi_info->error.errnum = -status;
        status = cdi_errno_to_status(-status);
    }
    cdi_info->status = status;
    if (!cdi_info->error.errstr) vcdi_Assign_errstrFrom_status(cdi_info, status);
    cdi_dprintf(TR_FLOW,
                "CDI exit: Device '%s', CdiCmd %d, Status %d,DriveStat %d, '%s', ErrNum %d, '%s'\n",
                device_name(cdi_info), cdi_info->command, status, cdi_info->drivestat.status,
                cdi_info->drivestat.msg, cdi_info->error.errnum,
                cdi_info->error.errstr ? cdi_info->error.errstr : "");
    return status;
}

int cdi_errno_to_status(int err) {
    switch (err) {
    case ENOENT: return CDI_STAT_NO_DEVICE_FILE;
    case EIO:
    case ENOMEM:
    case EACCES:
    case ENFILE:
    case EMFILE:
    case ENOSPC: return CDI_STAT_SYSTEM_ERROR;
    case EBADF: return CDI_STAT_BAD_HANDLE;
    case EBUSY: return CDI_STAT_DEVICE_FILE_BUSY;
    case EINVAL: return CDI_STAT_PARAMETER_ERROR;
    default: return CDI_STAT_BAD_DEVICE_FILE;
    }
}

int cdi_inq_match(CDI_INFOP cdi_info, const char* vendor, const char* product) {
    if (!cdi_info) return 0;
    if (!vendor) vendor = "";
    if (!product) product = "";
    return strncasecmp(vendor, cdi_info->vendor, strlen(vendor)) == 0 &&
           strncasecmp(product, cdi_info->product, strlen(product)) == 0;
}

// ---- error text of the record ----

void vcdi_free_errstr(CDI_INFOP cdi_info) {
    if (cdi_info->errstr_can_be_freed) free(cdi_info->error.errstr);
    cdi_info->error.errstr = nullptr;
    cdi_info->errstr_can_be_freed = 0;
}

void vcdi_AssignErrStr(CDI_INFOP cdi_info, const char* text) {
    char* copy = xstrdup(text ? text : "");
    vcdi_free_errstr(cdi_info);
    cdi_info->error.errstr = copy;
    cdi_info->errstr_can_be_freed = 1;
}

void vcdi_AssignErrStrf(CDI_INFOP cdi_info, const char* fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    vcdi_AssignErrStr(cdi_info, buf);
}

// The limit stays one below the table's last filled row: statuses 24 and 25
// have never been reachable through here.
void vcdi_Assign_errstrFrom_status(CDI_INFOP cdi_info, int status) {
    cdi_define_messages();
    if (status < 0 || status > CDI_STAT_DATA_CORRUPTED) {
        vcdi_AssignErrStrf(cdi_info, "CDI status(%d) exceeds maximum cdi_stat_message index(%d)",
                           status, CDI_STAT_MAX_INDEX);
        return;
    }
    vcdi_free_errstr(cdi_info);
    cdi_info->error.errstr = cdi_stat_messages[status];
}

static void set_error(CDI_INFOP cdi_info, int status, int err) {
    cdi_info->status = status;
    cdi_info->error.errnum = err;
    vcdi_AssignErrStr(cdi_info, map_cdiStatus2cdiMsg(status));
}

void vcdi_unimplemented_cmd(CDI_INFOP cdi_info) {
    set_error(cdi_info, CDI_STAT_CMD_NOT_IMPLEMENTED, ENOTTY);
}
void vcdi_unimplemented_path(CDI_INFOP cdi_info) {
    set_error(cdi_info, CDI_STAT_PATH_NOT_IMPLEMENTED, ENODEV);
}
void vcdi_unsupported_cmd(CDI_INFOP cdi_info) {
    set_error(cdi_info, CDI_STAT_CMD_NOT_SUPPORTED, EPERM);
}
void vcdi_parameter_error(CDI_INFOP cdi_info) {
    set_error(cdi_info, CDI_STAT_PARAMETER_ERROR, EINVAL);
}

int vcdi_os_cmdIoCtlError(CDI_INFOP cdi_info, int err, const char* what) {
    cdi_info->error.errnum = err;
    cdi_info->scmd.scmd_result |= CDI_SCMD_FAILED;
    cdi_info->status = cdi_errno_to_status(err);
    vcdi_AssignErrStrf(cdi_info, "%s ioctl failed: %s (errno %d)", what ? what : "device",
                       strerror(err), err);
    cdi_dprintf(TR_ERROR, "CDI error: %s\n", cdi_info->error.errstr);
    return cdi_info->status;
}
