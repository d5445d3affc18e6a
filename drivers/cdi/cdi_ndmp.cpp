// NDMP transport of the device interface (path type 5): a SCSI device or a
// tape that hangs on an NDMP server, opened, driven and closed with the same
// meaning as on the host.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"
#include "liblocal/kv_mem.h"
#include "libndmp/ndmp_clnt/ndmp_clnt.h"

enum { TR_ERROR = 1, TR_WARN = 2, TR_INFO = 3 };

namespace {

// path.handle of an open NDMP device: no descriptor stands behind it.
const kv_fd_t kNdmpHandle = -4;
const int kKindScsi = 1;
const int kKindTape = 2;
const int kKindAll = 15;
const unsigned int kConnectTimeout = 60;
const unsigned int kReplyTimeout = 600;
const size_t kAnswerMax = 6144;

void wipe(char* s) {
    if (!s) return;
    // Not optimised away: the memory is freed right after.
    explicit_bzero(s, strlen(s));
}

// Closes what the open left behind and forgets the credentials.
int fail_open(CDI_INFOP cdi_info, int status) {
    cdi_ndmp_close(cdi_info);
    cdi_info->status = status;
    vcdi_Assign_errstrFrom_status(cdi_info, status);
    return status;
}

}  // namespace

void vObscureAndFreeString(char** ppszStr) {
    if (!ppszStr || !*ppszStr) return;
    wipe(*ppszStr);
    free(*ppszStr);
    *ppszStr = nullptr;
}

void cdi_set_ndmp_info(NDMP_INFOP ndmp_info, char* server, char* user, char* password) {
    if (!ndmp_info) return;
    free(ndmp_info->ndmp_server);
    ndmp_info->ndmp_server = server ? xstrdup(server) : nullptr;
    vObscureAndFreeString(&ndmp_info->ndmp_user);
    ndmp_info->ndmp_user = user ? xstrdup(user) : nullptr;
    vObscureAndFreeString(&ndmp_info->ndmp_password);
    ndmp_info->ndmp_password = password ? xstrdup(password) : nullptr;
}

// One answer from the controlling terminal; 0 or -1 (no terminal).
int cdi_prompt_ndmp(char* question, char* ans, int noecho) {
    int fd = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return -1;
    if (write(fd, question, strlen(question)) < 0) {
        close(fd);
        return -1;
    }
    struct termios old, quiet;
    bool restore = false;
    if (noecho && tcgetattr(fd, &old) == 0) {
        quiet = old;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        restore = tcsetattr(fd, TCSAFLUSH, &quiet) == 0;
    }
    size_t n = 0;
    char c;
    while (n + 1 < kAnswerMax && read(fd, &c, 1) == 1 && c != '\n') ans[n++] = c;
    ans[n] = '\0';
    if (restore) {
        tcsetattr(fd, TCSAFLUSH, &old);
        if (write(fd, "\n", 1) < 0) {}
    }
    close(fd);
    return 0;
}

namespace {

int prompt_all(NDMP_INFO& info) {
    char* ans = static_cast<char*>(xcalloc(kAnswerMax, 1));
    char* server = nullptr;
    char* user = nullptr;
    int rc = -1;
    if (cdi_prompt_ndmp(msg_lit_create(1279, "Enter the NDMP server name: "), ans, 0) == 0) {
        server = xstrdup(ans);
        if (cdi_prompt_ndmp(msg_lit_create(1280, "Enter the NDMP user name: "), ans, 0) == 0) {
            user = xstrdup(ans);
            if (cdi_prompt_ndmp(msg_lit_create(1281, "Enter the NDMP password: "), ans, 1) == 0) {
                cdi_set_ndmp_info(&info, server, user, ans);
                rc = 0;
            }
        }
    }
    explicit_bzero(ans, kAnswerMax);
    free(ans);
    free(server);
    vObscureAndFreeString(&user);
    return rc;
}

}  // namespace

int cdi_ndmp_open(CDI_INFOP cdi_info) {
    NDMP_INFO& info = cdi_info->path.ndmp;
    if (!info.ndmp_connection_handle && !info.ndmp_server && prompt_all(info) < 0)
        return fail_open(cdi_info, CDI_STAT_NDMP_OPEN_CONNECTION);
    info.ndmp_connect_timeout = kConnectTimeout;
    info.ndmp_reply_timeout = kReplyTimeout;
    if (!info.ndmp_connection_handle) {
        cdi_dprintf(0, "\n\nCommunicating to device on NDMP Server '%s', this may take a while...",
                    info.ndmp_server ? info.ndmp_server : "");
        info.ndmp_connection_handle = ndmp_create_connect(
            info.ndmp_server, info.ndmp_user, info.ndmp_password, cdi_info,
            static_cast<int>(info.ndmp_connect_timeout), static_cast<int>(info.ndmp_reply_timeout));
        if (!info.ndmp_connection_handle) {
            cdi_info->path.aux_flags &= ~(kKindScsi | kKindTape);
            return fail_open(cdi_info, CDI_STAT_NDMP_OPEN_CONNECTION);
        }
        // The record owns this connection: only its own close or free ends it.
        cdi_info->path.cdi_opened_handle = 1;
        int got_cab = 0;
        if (ndmp_negotiate_extensions(info.ndmp_connection_handle, 0, nullptr, 0, nullptr, 1,
                                      &got_cab) < 0)
            return fail_open(cdi_info, CDI_STAT_NDMP_EXTENSION);
    }
    if (cdi_info->path.handle == kNdmpHandle) {
        cdi_info->status = CDI_STAT_SUCCESS;
        return CDI_STAT_SUCCESS;
    }
    void* ndp = info.ndmp_connection_handle;
    const int mode = (cdi_info->path.options & CDI_OPT_READ_WRITE) ? 2 : 0;
    if (cdi_info->path.aux_flags == 0) cdi_info->path.aux_flags = kKindAll;
    const int kinds = cdi_info->path.aux_flags;
    ndmp_error err = NDMP_NO_ERR;
    if ((kinds & kKindScsi) && ndmp_scsidev_open(ndp, cdi_info->path.device_file, &err) == 0) {
        cdi_info->path.aux_flags = kKindScsi;
        cdi_info->path.handle = kNdmpHandle;
        cdi_info->status = CDI_STAT_SUCCESS;
        return CDI_STAT_SUCCESS;
    }
    if ((kinds & kKindTape) && ndmp_tape_open(ndp, cdi_info->path.device_file, mode, &err) > 0) {
        cdi_info->path.aux_flags = kKindTape;
        cdi_info->path.handle = kNdmpHandle;
        cdi_info->status = CDI_STAT_SUCCESS;
        return CDI_STAT_SUCCESS;
    }
    cdi_info->path.aux_flags = 0;
    if (ndmp_get_vers(ndp) < 4) return fail_open(cdi_info, CDI_STAT_NDMP_OPEN_PATH);
    // Some version 4 servers take a tape only in raw mode.
    if (ndmp_tape_open(ndp, cdi_info->path.device_file, 2, &err) > 0) {
        cdi_dprintf(TR_INFO, "CDI info: cdi_ndmp_open(%s) NDMP_RAW mode\n",
                    cdi_info->path.device_file ? cdi_info->path.device_file : "");
        cdi_info->path.aux_flags = 6;
        cdi_info->path.handle = kNdmpHandle;
        cdi_info->status = CDI_STAT_SUCCESS;
        return CDI_STAT_SUCCESS;
    }
    return fail_open(cdi_info, CDI_STAT_NDMP_OPEN_PATH);
}

int cdi_ndmp_close(CDI_INFOP cdi_info) {
    NDMP_INFO& info = cdi_info->path.ndmp;
    if (info.ndmp_connection_handle) {
        ndmp_error err = NDMP_NO_ERR;
        if (cdi_info->path.handle == kNdmpHandle) {
            if (cdi_info->path.aux_flags & kKindTape) {
                if (ndmp_tape_close(info.ndmp_connection_handle, &err) < 0)
                    cdi_dprintf(TR_WARN, "CDI warn: cdi_ndmp_close() tape close failed: %s\n",
                                ndmp_err2str(err));
            } else if (cdi_info->path.aux_flags & kKindScsi) {
                if (ndmp_scsidev_close(info.ndmp_connection_handle, cdi_info->path.device_file,
                                       &err) < 0)
                    cdi_dprintf(TR_WARN, "CDI warn: cdi_ndmp_close() scsi close failed: %s\n",
                                ndmp_err2str(err));
            }
        }
        ndmp_connect_close(&info.ndmp_connection_handle);
    }
    free(info.ndmp_server);
    info.ndmp_server = nullptr;
    vObscureAndFreeString(&info.ndmp_user);
    vObscureAndFreeString(&info.ndmp_password);
    cdi_info->path.handle = -1;
    cdi_info->path.aux_flags = 0;
    return 0;
}

int cdi_ndmp_cmd(CDI_INFOP cdi_info) {
    CDI_SCSICMD& s = cdi_info->scmd;
    cdi_info->status = CDI_STAT_SYSTEM_ERROR;
    cdi_info->error.errnum = 0;
    s.scmd_status = 255;
    s.scmd_result = 0;
    s.scmd_resid = 0;

    ndmpscsi cmd;
    memset(&cmd, 0, sizeof cmd);
    cmd.cdb = s.scmd_cdb;
    cmd.cdblen = s.scmd_cdblen;
    cmd.bufaddr = s.scmd_bufaddr;
    cmd.buflen = static_cast<long>(s.scmd_buflen);
    cmd.sense = s.scmd_sense;
    cmd.senselen = s.scmd_sense ? s.scmd_senselen : 0;
    cmd.to = s.scmd_time;
    cmd.flags = s.scmd_flags == 1 ? NDMPSCSI_DATA_IN : NDMPSCSI_DATA_OUT;

    ndmpscsihandle dmh;
    dmh.stream = cdi_info->path.ndmp.ndmp_connection_handle;
    dmh.otype = (cdi_info->path.aux_flags & kKindTape) ? 1 : 0;
    dmh.filename = cdi_info->path.device_file;

    if (ndmpscsitbl.ioctl(&dmh, &cmd) < 0) {
        errno = EIO;
        vcdi_os_cmdIoCtlError(cdi_info, EIO, "ndmp synthesized errno = EIO");
        return cdi_info->status;
    }
    s.scmd_result |= CDI_SCMD_DONE;
    if (cmd.buflen < static_cast<long>(s.scmd_buflen))
        s.scmd_resid = static_cast<long>(s.scmd_buflen) - cmd.buflen;
    const int st = cmd.status & 0x3E;
    s.scmd_status = st;
    int status;
    switch (st) {
    case 0: status = CDI_STAT_SUCCESS; break;
    case 2:
        if (cmd.senselen > 0) {
            status = CDI_STAT_CHECK_CONDITION;
        } else {
            status = CDI_STAT_CHECK_NO_SENSE;
            s.scmd_result |= CDI_SCMD_DONE | CDI_SCMD_NO_SENSE;
        }
        break;
    case 8: status = CDI_STAT_DEVICE_BUSY; break;
    case 24: status = CDI_STAT_RESERVATION_CONFLICT; break;
    default: status = CDI_STAT_SCSI_ERROR; break;
    }
    cdi_info->status = status;
    return status;
}
