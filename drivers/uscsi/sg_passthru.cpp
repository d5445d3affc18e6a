// The two Linux transports of a CDB: SG_IO (sg_io_hdr) on a generic node or
// the device, and the old SCSI_IOCTL_SEND_COMMAND block on the device. This
// is the only file that sees either ioctl's structures; what the bytes that
// come back mean is decoded elsewhere.
#include <errno.h>
#include <limits.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <stdio.h>
#include <string.h>

#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"
#include "drivers/uscsi/uscsi.h"

namespace {

// The old transport's block: sizes, then the CDB (and data that comes
// back), then the data that goes out. Its limits are the st driver's.
struct s_cmd {
    unsigned int inlen;
    unsigned int outlen;
    unsigned char cdb_or_outbuf[512];
    unsigned char wdata[3576];
};
static_assert(sizeof(s_cmd) == 4096, "the driver's block is one page");

const unsigned int kStMaxData = 3576;
const int kStMaxCdb = 12;
const unsigned int kStOutLen = 4088;

const char* const apstrDriverErrMsgs[] = {"OK",      "Busy",    "Soft", "Media", "Error",
                                          "Invalid", "TimeOut", "Hard", "Sense"};
const char* const hosterrs[] = {
    "Couldn't connect before timeout period",
    "BUS stayed busy through time out period",
    "TIMED OUT for other reason",
    "BAD target -or- Device not responsive",
    "Told to abort for some other reason",
    "Parity error",
    "Internal error",
    "Reset by somebody",
    "Got an interrupt we weren't expecting",
    "Force command past mid-layer",
    "The low level driver wants a retry",
};

// SCSI status byte values (SAM), masked with 0x3E.
enum { ST_GOOD = 0x00, ST_CHECK_CONDITION = 0x02, ST_BUSY = 0x08, ST_RESERVATION_CONFLICT = 0x18 };
// Linux driver_status: bits of a sense-carrying result.
const unsigned kDriverSense = 0x08;
const unsigned kSuggestSense = 0x80;

int status_from_scsi_status(int st) {
    switch (st) {
    case ST_BUSY: return CDI_STAT_DEVICE_BUSY;
    case ST_RESERVATION_CONFLICT: return CDI_STAT_RESERVATION_CONFLICT;
    default: return CDI_STAT_SCSI_ERROR;
    }
}

const char* suggestion(unsigned ds) {
    switch (ds & 0xf0) {
    case 0x10: return "suggest retry";
    case 0x20: return "suggest abort";
    case 0x30: return "suggest remap";
    case 0x40: return "suggest die";
    default: return "no suggestion";
    }
}

bool bad_request(CDI_INFOP cdi_info) {
    const CDI_SCSICMD& s = cdi_info->scmd;
    return s.scmd_cdblen < 0 || s.scmd_cdblen > 255 || (s.scmd_cdblen > 0 && !s.scmd_cdb) ||
           (s.scmd_buflen > 0 && !s.scmd_bufaddr) || s.scmd_senselen < 0;
}

int st_cmd(CDI_INFOP cdi_info);
int sg_cmd(CDI_INFOP cdi_info, int fd);

}  // namespace

int cdi_os_cmd(CDI_INFOP cdi_info) {
    CDI_SCSICMD& s = cdi_info->scmd;
    if (!bad_request(cdi_info)) cdi_dump_cdb(4, s.scmd_cdb, s.scmd_cdblen);
    cdi_info->status = CDI_STAT_SYSTEM_ERROR;
    cdi_info->error.errnum = 0;
    s.scmd_status = 0;
    if (bad_request(cdi_info)) {
        vcdi_parameter_error(cdi_info);
        return cdi_info->status;
    }
    if (cdi_info->path.aux_handle < 0 && !cdi_t_get()->use_SG_IO) return st_cmd(cdi_info);
    int fd = cdi_info->path.aux_handle >= 0 ? cdi_info->path.aux_handle : cdi_info->path.handle;
    return sg_cmd(cdi_info, fd);
}

namespace {

int st_cmd(CDI_INFOP cdi_info) {
    CDI_SCSICMD& s = cdi_info->scmd;
    if (cdi_info->path.handle < 0) {
        vcdi_AssignErrStr(cdi_info, "no valid device handles supplied.");
        cdi_info->status = CDI_STAT_PARAMETER_ERROR;
        return cdi_info->status;
    }
    if (s.scmd_buflen > kStMaxData) {
        vcdi_AssignErrStrf(
            cdi_info,
            "Requested transfer (size:x%lx) is too large for SCSI_IOCTL_SEND_COMMAND "
            "via st driver",
            s.scmd_buflen);
        cdi_info->error.errnum = E2BIG;
        cdi_info->status = CDI_STAT_PARAMETER_ERROR;
        return cdi_info->status;
    }
    if (s.scmd_cdblen > kStMaxCdb) {
        vcdi_AssignErrStrf(cdi_info, "cdb (size:%d) is too large for use via st driver",
                           s.scmd_cdblen);
        cdi_info->error.errnum = E2BIG;
        cdi_info->status = CDI_STAT_PARAMETER_ERROR;
        return cdi_info->status;
    }
    s_cmd blk;
    memset(&blk, 0, sizeof blk);
    if (s.scmd_flags == 1) {
        blk.inlen = 0;
        blk.outlen = kStOutLen;
    } else {
        blk.inlen = static_cast<unsigned int>(s.scmd_buflen);
        blk.outlen = 0;
        if (s.scmd_buflen) memcpy(blk.wdata, s.scmd_bufaddr, s.scmd_buflen);
    }
    if (s.scmd_cdblen > 0) memcpy(blk.cdb_or_outbuf, s.scmd_cdb, s.scmd_cdblen);

    int ret = uscsi_ioctl(cdi_info->path.handle, SCSI_IOCTL_SEND_COMMAND, &blk);
    if (ret < 0) return vcdi_os_cmdIoCtlError(cdi_info, errno, "SCSI_IOCTL_SEND_COMMAND");

    s.scmd_result = CDI_SCMD_DONE;
    const int st = ret & 0x3e;
    s.scmd_status = st;
    switch (st) {
    case ST_GOOD:
        cdi_info->status = CDI_STAT_SUCCESS;
        if (s.scmd_flags == 1 && s.scmd_buflen)
            memcpy(s.scmd_bufaddr, blk.cdb_or_outbuf, s.scmd_buflen);
        break;
    case ST_CHECK_CONDITION:
        if ((static_cast<unsigned>(ret) >> 24) & kDriverSense) {
            if (s.scmd_sense && s.scmd_senselen > 0) {
                size_t n = s.scmd_senselen < 512 ? s.scmd_senselen : 512;
                memcpy(s.scmd_sense, blk.cdb_or_outbuf, n);
            }
            vcdi_AssignErrStr(cdi_info, "SCSI error occurred - see sense data");
            cdi_info->status = CDI_STAT_CHECK_CONDITION;
        } else {
            vcdi_AssignErrStr(cdi_info, "SCSI error occurred - no sense data returned");
            s.scmd_result |= CDI_SCMD_NO_SENSE;
            cdi_info->status = CDI_STAT_CHECK_NO_SENSE;
        }
        break;
    default: cdi_info->status = status_from_scsi_status(st); break;
    }
    return cdi_info->status;
}

int sg_cmd(CDI_INFOP cdi_info, int fd) {
    CDI_SCSICMD& s = cdi_info->scmd;
    if (s.scmd_buflen > UINT_MAX) {
        vcdi_parameter_error(cdi_info);
        return cdi_info->status;
    }
    sg_io_hdr_t h;
    memset(&h, 0, sizeof h);
    h.interface_id = 'S';
    h.dxfer_direction = s.scmd_flags == 1   ? SG_DXFER_FROM_DEV
                        : s.scmd_flags == 0 ? SG_DXFER_TO_DEV
                                            : SG_DXFER_NONE;
    h.cmd_len = static_cast<unsigned char>(s.scmd_cdblen);
    h.mx_sb_len = s.scmd_sense ? static_cast<unsigned char>(s.scmd_senselen & 0xff) : 0;
    h.dxfer_len = static_cast<unsigned int>(s.scmd_buflen);
    h.dxferp = s.scmd_bufaddr;
    h.cmdp = s.scmd_cdb;
    h.sbp = s.scmd_sense;
    long long ms = s.scmd_time > 0 ? 1000LL * s.scmd_time : 0;
    h.timeout = ms > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(ms);

    int ret = uscsi_ioctl(fd, SG_IO, &h);
    if (ret != 0) return vcdi_os_cmdIoCtlError(cdi_info, errno ? errno : EIO, "SG_IO");

    const int st = h.status & 0x3e;
    s.scmd_status = st;
    s.scmd_resid = h.resid;
    s.scmd_result = CDI_SCMD_DONE;
    char text[256];
    if (st == ST_CHECK_CONDITION) {
        if (h.sb_len_wr > 0 && s.scmd_sense) {
            cdi_info->status = CDI_STAT_CHECK_CONDITION;
            s.scmd_senselen = h.sb_len_wr;
        } else {
            s.scmd_result |= CDI_SCMD_NO_SENSE;
            cdi_info->status = CDI_STAT_CHECK_NO_SENSE;
        }
    } else if (st != ST_GOOD) {
        cdi_info->status = status_from_scsi_status(st);
    } else if (h.driver_status) {
        const unsigned ds = h.driver_status;
        const unsigned low = ds & 0x0f;
        const char* dtext = low < sizeof apstrDriverErrMsgs / sizeof apstrDriverErrMsgs[0]
                                ? apstrDriverErrMsgs[low]
                                : "Unknown";
        if ((ds & 0xf0) == kSuggestSense || low == kDriverSense) {
            if (h.sb_len_wr > 0 && s.scmd_sense) {
                cdi_dprintf(3, "CDI info: Check Condition w/ Sense Data\n");
                cdi_info->status = CDI_STAT_CHECK_CONDITION;
                s.scmd_senselen = h.sb_len_wr;
            } else {
                cdi_dprintf(3, "CDI info: Check Condition, No Sense data\n");
                cdi_info->status = CDI_STAT_CHECK_NO_SENSE;
                s.scmd_result = CDI_SCMD_DONE | CDI_SCMD_NO_SENSE;
            }
        } else {
            cdi_info->status = CDI_STAT_SYSTEM_ERROR;
        }
        cdi_info->error.errnum = EIO;
        snprintf(text, sizeof text, "SCSI Driver Error: 0x%02x (%s:%s)", ds, dtext, suggestion(ds));
        vcdi_AssignErrStr(cdi_info, text);
        cdi_dprintf(1, "mt: sg_scmd.driver_status: %s\n", text);
    } else if (h.host_status) {
        const unsigned hs = h.host_status;
        cdi_info->status = CDI_STAT_SYSTEM_ERROR;
        cdi_info->error.errnum = EIO;
        if (hs >= 1 && hs <= sizeof hosterrs / sizeof hosterrs[0])
            snprintf(text, sizeof text, "Host Adaptor Error: 0x%02x (%s)", hs, hosterrs[hs - 1]);
        else
            snprintf(text, sizeof text, "Host Adaptor Error: 0x%02x", hs);
        vcdi_AssignErrStr(cdi_info, text);
        cdi_dprintf(1, "sg_scmd.host_status != 0: %s\n", text);
    } else if (h.msg_status) {
        cdi_info->status = CDI_STAT_SYSTEM_ERROR;
        cdi_info->error.errnum = EIO;
        snprintf(text, sizeof text, "Messaging Level Data: 0x%02x", h.msg_status);
        vcdi_AssignErrStr(cdi_info, text);
        cdi_dprintf(1, "sg_scmd.msg_status != 0\n");
    } else {
        cdi_info->status = CDI_STAT_SUCCESS;
    }
    if (!cdi_info->error.errstr) {
        if (cdi_info->status != CDI_STAT_SUCCESS) cdi_info->error.errnum = EIO;
        vcdi_Assign_errstrFrom_status(cdi_info, cdi_info->status);
    }
    if (s.scmd_flags == 1) {
        long got = static_cast<long>(s.scmd_buflen) - (h.resid > 0 ? h.resid : 0);
        cdi_dump_buffer(4, s.scmd_bufaddr, got);
    }
    return cdi_info->status;
}

// INQUIRY for an identity: 32 bytes of sense and a second for each step.
int sg_send_inquiry(int fd, const unsigned char* cdb, unsigned char* buf, int len) {
    unsigned char sense[32];
    sg_io_hdr_t h;
    memset(&h, 0, sizeof h);
    h.interface_id = 'S';
    h.dxfer_direction = SG_DXFER_FROM_DEV;
    h.cmd_len = 6;
    h.mx_sb_len = sizeof sense;
    h.dxfer_len = static_cast<unsigned int>(len);
    h.dxferp = buf;
    h.cmdp = const_cast<unsigned char*>(cdb);
    h.sbp = sense;
    h.timeout = 1000;
    int ret = uscsi_ioctl(fd, SG_IO, &h);
    if (ret < 0) {
        cdi_dprintf(2, "CDI warn: sg_inquiry() - ioctl ret(%d) errno(%d).\n", ret, errno);
        return -1;
    }
    if ((h.status & 0x3e) || h.host_status || (h.driver_status & 0x0f)) return -1;
    return 0;
}

int st_send_inquiry(int fd, const unsigned char* cdb, unsigned char* buf, int len) {
    s_cmd blk;
    memset(&blk, 0, sizeof blk);
    blk.inlen = 0;
    blk.outlen = 512;
    memcpy(blk.cdb_or_outbuf, cdb, 6);
    int ret = uscsi_ioctl(fd, SCSI_IOCTL_SEND_COMMAND, &blk);
    if (ret < 0) {
        cdi_dprintf(2, "CDI warn: st_inquiry() - ioctl ret(%d) errno(%d).\n", ret, errno);
        return -1;
    }
    if (ret != 0) return -1;
    memcpy(buf, blk.cdb_or_outbuf, len < 512 ? len : 512);
    return 0;
}

}  // namespace

int sg_inquiry(int handle, INQP ip) {
    return read_identity(handle, sg_send_inquiry, ip);
}
int st_inquiry(int handle, INQP ip) {
    return read_identity(handle, st_send_inquiry, ip);
}
