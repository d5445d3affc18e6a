// SCSI commands of the frame: default set-up of a command, running it and
// turning its status into a drive status, and the two commands that need no
// tape, INQUIRY and the caller's own CDB.
#include <stdio.h>
#include <string.h>

#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"

// Sense to drive status; the sense decoder provides it.
void vXlateScmdSense_to_DriveStatus(CDI_INFOP cdi_info);

void vcdi_SetupDefaultScmd(CDI_INFOP cdi_info) {
    CDI_SCSICMD& s = cdi_info->scmd;
    cdi_info->status = CDI_STAT_SYSTEM_ERROR;
    s.scmd_result = 0;
    s.scmd_status = 255;
    s.scmd_flags = 1;
    s.scmd_time = 300;
    s.scmd_sense = cdi_info->default_sense_buffer;
    s.scmd_senselen = CDI_DEFAULT_SENSE_LEN;
    s.scmd_bufaddr = nullptr;
    s.scmd_buflen = 0;
    s.scmd_resid = 0;
    s.scmd_cdb = nullptr;
    s.scmd_cdblen = 0;
}

namespace {

// An immediate command returns before the drive has finished, so success
// says nothing yet about the drive's state.
bool immediate_command(CDI_INFOP cdi_info) {
    int first;
    memcpy(&first, cdi_info->cmd_data.array, sizeof first);
    switch (cdi_info->command) {
    case CDI_WRITE_FILEMARKS:
    case CDI_REWIND:
    case CDI_UNLOAD:
    case CDI_OFFLINE: return first == 1;
    case CDI_LOCATE: return cdi_info->cmd_data.locate.immediate == 1;
    default: return false;
    }
}

void set_drive_status(CDI_INFOP cdi_info, int drive_status) {
    cdi_info->drivestat.status = drive_status;
    if (drive_status >= 0 && drive_status < CDI_DRIVE_STAT_COUNT) {
        const char* text = cdi_drive_stat_messages[drive_status];
        size_t n = strnlen(text, CDI_MSG_SLOT_LEN - 1);
        memcpy(cdi_info->drivestat.msg, text, n);
        cdi_info->drivestat.msg[n] = '\0';
    }
}

}  // namespace

int vcdi_DoScmdAndDigestResult(CDI_INFOP cdi_info) {
    cdi_define_messages();
    CDI_SCSICMD& s = cdi_info->scmd;
    if (s.scmd_sense && s.scmd_senselen > 0) memset(s.scmd_sense, 0, s.scmd_senselen);
    int status =
        cdi_info->path.type == CDI_PATH_NDMP_SCSI ? cdi_ndmp_cmd(cdi_info) : cdi_os_cmd(cdi_info);
    cdi_info->status = status;
    set_drive_status(cdi_info, CDI_DRIVE_STATUS_UNKNOWN);
    switch (status) {
    case CDI_STAT_SUCCESS:
        set_drive_status(cdi_info, immediate_command(cdi_info) ? CDI_DRIVE_NO_ERROR_STATE_UNKNOWN
                                                               : CDI_DRIVE_READY);
        break;
    case CDI_STAT_CHECK_CONDITION: vXlateScmdSense_to_DriveStatus(cdi_info); break;
    case CDI_STAT_CHECK_NO_SENSE: set_drive_status(cdi_info, CDI_DRIVE_NOT_READY_UNKNOWN); break;
    case CDI_STAT_DEVICE_BUSY: set_drive_status(cdi_info, CDI_DRIVE_BUSY); break;
    case CDI_STAT_RESERVATION_CONFLICT: set_drive_status(cdi_info, CDI_DRIVE_RESERVED); break;
    default: break;
    }
    return status;
}

// Standard INQUIRY data, or one vital product data page, into
// cmd_data.inquiry.inquiry_data (cleared first, so short data reads as zeros).
int cdi_inquiry(CDI_INFOP cdi_info) {
    CDI_INQUIRY_DATA_T& inq = cdi_info->cmd_data.inquiry;
    unsigned char evpd = 1;
    unsigned char page = 0;
    switch (inq.inq_data_requested) {
    case CDI_INQ_PAGE_LIST: page = 0x00; break;
    case CDI_INQ_PAGE_82: page = 0x82; break;
    case CDI_INQ_SERIAL: page = 0x80; break;
    case CDI_INQ_IDENTIFICATION: page = 0x83; break;
    case CDI_INQ_OTHER_PAGE: page = static_cast<unsigned char>(inq.other_vpd_page); break;
    default: evpd = 0; break;  // 0, negative, 6 and up: the standard data
    }
    unsigned char cdb[6] = {0x12, evpd, page, 0, 255, 0};
    vcdi_SetupDefaultScmd(cdi_info);
    memset(inq.inquiry_data, 0, sizeof inq.inquiry_data);
    cdi_info->scmd.scmd_cdb = cdb;
    cdi_info->scmd.scmd_cdblen = sizeof cdb;
    cdi_info->scmd.scmd_bufaddr = inq.inquiry_data;
    cdi_info->scmd.scmd_buflen = sizeof inq.inquiry_data;
    cdi_info->scmd.scmd_flags = 1;
    cdi_info->scmd.scmd_time = 60;
    int status = vcdi_DoScmdAndDigestResult(cdi_info);
    // The CDB lived on this frame only.
    cdi_info->scmd.scmd_cdb = nullptr;
    cdi_info->scmd.scmd_cdblen = 0;
    return status;
}

// The caller's CDB, buffer and time as set in scmd, not digested.
int cdi_send_scsi_cdb(CDI_INFOP cdi_info) {
    switch (cdi_info->path.type) {
    case CDI_PATH_SCSI: return cdi_os_cmd(cdi_info);
    case CDI_PATH_TAPE:
    case CDI_PATH_TAPE_NR: return cdi_tape_cmd(cdi_info);
    case CDI_PATH_NDMP_SCSI: return cdi_ndmp_cmd(cdi_info);
    case CDI_PATH_NDMP_TAPE:
    case CDI_PATH_RESERVED: vcdi_unimplemented_cmd(cdi_info); return cdi_info->status;
    default: vcdi_unimplemented_path(cdi_info); return cdi_info->status;
    }
}
