// The common device interface: one request record (CDI_INFO) and the calls
// cdi_open, cdi_cmd, cdi_close that drive a SCSI device, a tape or an NDMP
// device through it. A CDI_INFO belongs to one thread; the calls keep their
// other state per thread, so different records may be used concurrently.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/mtio.h>

#include "liblocal/kv_msg.h"

// Descriptor type of the portable layer (same definition there: a repeated
// identical typedef is harmless).
typedef int kv_fd_t;

#define current_cdi_version 1u

// Path types (ACCESS_PATH::type).
#define CDI_PATH_SCSI 1     // SCSI pass-through
#define CDI_PATH_TAPE 2     // tape through the system's tape interface
#define CDI_PATH_TAPE_NR 3  // the same, no-rewind node
#define CDI_PATH_NDMP_TAPE 4
#define CDI_PATH_NDMP_SCSI 5
#define CDI_PATH_RESERVED 6

// ACCESS_PATH::options
#define CDI_OPT_READ_WRITE 1

// CDI status codes: index into cdi_stat_messages.
#define CDI_STAT_SUCCESS 0
#define CDI_STAT_CHECK_CONDITION 1
#define CDI_STAT_CHECK_NO_SENSE 2
#define CDI_STAT_CMD_NOT_IMPLEMENTED 3
#define CDI_STAT_PATH_NOT_IMPLEMENTED 4
#define CDI_STAT_CMD_NOT_SUPPORTED 5
#define CDI_STAT_VERSION_TOO_OLD 6
#define CDI_STAT_NO_DEVICE_FILE 7
#define CDI_STAT_BAD_DEVICE_FILE 8
#define CDI_STAT_BAD_HANDLE 9
#define CDI_STAT_DEVICE_FILE_BUSY 10
#define CDI_STAT_DEVICE_BUSY 11
#define CDI_STAT_RESERVATION_CONFLICT 12
#define CDI_STAT_PARAMETER_ERROR 13
#define CDI_STAT_BUFFERS_ALLOCATED 14
#define CDI_STAT_SCSI_ERROR 15
#define CDI_STAT_SYSTEM_ERROR 16
#define CDI_STAT_IOCTL_ERROR 17
#define CDI_STAT_NDMP_OPEN_CONNECTION 18
#define CDI_STAT_NDMP_CLOSE_TAPE 19
#define CDI_STAT_NDMP_OPEN_PATH 20
#define CDI_STAT_NDMP_COMMUNICATION 21
#define CDI_STAT_NDMP_EXTENSION 22
#define CDI_STAT_DATA_CORRUPTED 23
#define CDI_STAT_SLOTS 29
#define CDI_STAT_MAX_INDEX 24  // what vcdi_Assign_errstrFrom_status accepts is below this
#define CDI_MSG_SLOT_LEN 128

// Drive status codes: index into cdi_drive_stat_messages.
#define CDI_DRIVE_READY 0
#define CDI_DRIVE_NO_ERROR_STATE_UNKNOWN 1
#define CDI_DRIVE_FILEMARK 2
#define CDI_DRIVE_EOM 3
#define CDI_DRIVE_BOM 4
#define CDI_DRIVE_EOD 5
#define CDI_DRIVE_WRITE_PROTECTED 6
#define CDI_DRIVE_MEDIA_CHANGED 7
#define CDI_DRIVE_RESET 8
#define CDI_DRIVE_NEEDS_INIT 9
#define CDI_DRIVE_NO_TAPE 10
#define CDI_DRIVE_NEEDS_ATTENTION 11
#define CDI_DRIVE_BUSY 12
#define CDI_DRIVE_RESERVED 13
#define CDI_DRIVE_UNREADABLE 14
#define CDI_DRIVE_CLEANING_TAPE 15
#define CDI_DRIVE_CARTRIDGE_FAULT 16
#define CDI_DRIVE_LOADING 17
#define CDI_DRIVE_NOT_READY_UNKNOWN 18
#define CDI_DRIVE_STATUS_UNKNOWN 19
#define CDI_DRIVE_VENDOR_SPECIFIC 20
#define CDI_DRIVE_NEEDS_CLEANING 21
#define CDI_DRIVE_DTF_NEEDS_RECOVERY 22
#define CDI_DRIVE_DTF_RECOVERY_FAILED 23
#define CDI_DRIVE_ILLEGAL_CDB_FIELD 24
#define CDI_DRIVE_ILLEGAL_PARAMETER 25
#define CDI_DRIVE_INVALID_COMMAND 26
#define CDI_DRIVE_INVALID_ELEMENT 27
#define CDI_DRIVE_RESERVATION_CONFLICT 28
#define CDI_DRIVE_DLTWORM_ERROR 29
#define CDI_DRIVE_LBA_OUT_OF_RANGE 34
#define CDI_DRIVE_STAT_COUNT 60

// Command numbers. The frame carries 0, 18 and 53; the tape command set
// fills in the rest.
#define CDI_GET_VERSION 0
#define CDI_GET_STATUS 1
#define CDI_GET_CONFIG_DATA 2
#define CDI_WRITE_FILEMARKS 3
#define CDI_SPACE 4
#define CDI_FSR 5
#define CDI_BSR 6
#define CDI_FSF 7
#define CDI_BSF 8
#define CDI_REWIND 9
#define CDI_EOD 10
#define CDI_UNLOAD 11
#define CDI_OFFLINE 12
#define CDI_GET_TAPEALERT 13
#define CDI_LOCATE 14
#define CDI_GET_TAPE_SIZE 15
#define CDI_READ_POSITION 16
#define CDI_SET_COMPRESSION 17
#define CDI_INQUIRY_DATA 18
#define CDI_INQUIRY CDI_INQUIRY_DATA
#define CDI_GET_BLOCK_LIMITS 19
#define CDI_GET_DEBUG 20
#define CDI_SET_DEBUG 21
#define CDI_LOG_SENSE 22
#define CDI_TUR 25
#define CDI_RECOVER_DTF 27
#define CDI_CHECK_IF_DRIVE_NEEDS_CLEANING 28
#define CDI_RESERVE 30
#define CDI_PR_CMD 31
#define CDI_RELEASE 32
#define CDI_READ_CAPACITY 34
#define CDI_READ_MAM 35
#define CDI_WRITE_MAM 36
#define CDI_IS_WORM 37
#define CDI_MAKE_DLTWORM 38
#define CDI_REQUEST_SENSE 39
#define CDI_READ 40
#define CDI_WRITE 41
#define CDI_READ_BUFFER 42
#define CDI_MODE_SELECT 44
#define CDI_MODE_SENSE 45
#define CDI_SPIN 46
#define CDI_SPOUT 47
#define CDI_GET_ENCRYPTION 48
#define CDI_SET_ENCRYPTION 49
#define CDI_READ_TAPE 50
#define CDI_SET_BLOCK_SIZE 52
#define CDI_SEND_SCSI_CDB 53
#define CDI_ENABLE_CACHE 55
#define CDI_GET_DENSITY 56
#define CDI_SET_TAPEALERT 57
#define CDI_SET_DENSITY 58
#define CDI_WRITE_BUFFER 59
#define CDI_LAST_ACCEPTED_CMD 53  // cdi_cmd refuses anything above

// CDI_SCSICMD::scmd_result bits.
#define CDI_SCMD_FAILED 1u
#define CDI_SCMD_DONE 2u
#define CDI_SCMD_NO_SENSE 4u

// inquiry.inq_data_requested
#define CDI_INQ_STANDARD 0
#define CDI_INQ_PAGE_LIST 1
#define CDI_INQ_PAGE_82 2
#define CDI_INQ_SERIAL 3
#define CDI_INQ_IDENTIFICATION 4
#define CDI_INQ_OTHER_PAGE 5

#define CDI_DEFAULT_SENSE_LEN 32
#define CDI_INQUIRY_LEN 256

struct NDMP_INFO {
    char* ndmp_server;
    char* ndmp_user;
    char* ndmp_password;
    void* ndmp_connection_handle;
    unsigned int ndmp_connect_timeout;
    unsigned int ndmp_reply_timeout;
};

struct ACCESS_PATH {
    int type;
    char* device_file;      // owned by the CDI_INFO, freed at close
    kv_fd_t handle;         // -1 when closed
    int cdi_opened_handle;  // 1: cdi_open opened handle, so cdi_close closes it
    char* aux_device_file;  // generic node that carries the commands, if any
    kv_fd_t aux_handle;
    int aux_flags;
    void* aux_os_pvt;
    int options;
    NDMP_INFO ndmp;
    char* scsi_ip_path;
};

struct DRIVE_STATUS {
    int status;
    char msg[256];
};

struct CDI_SCSICMD {
    long unsigned int scmd_result;  // CDI_SCMD_* bits
    unsigned char* scmd_sense;
    int scmd_senselen;
    unsigned char* scmd_bufaddr;
    long unsigned int scmd_buflen;
    long int scmd_resid;
    int scmd_time;  // seconds
    unsigned char* scmd_cdb;
    int scmd_cdblen;
    int scmd_status;  // SCSI status byte, 255 if not set
    int scmd_flags;   // 1 data in, 0 data out or none
};

struct CDI_MTOP {
    int operation;
    int count;
};

struct CDI_TAPE_OP_DATA {
    int reserved;
    int mt_cmd;
    CDI_MTOP cdi_mtop;
    struct mtget mtget;
};

struct CDI_INQUIRY_DATA_T {
    int inq_data_requested;  // CDI_INQ_*; 0 and anything from 6 up: standard data
    int other_vpd_page;
    int dummy;
    unsigned char inquiry_data[CDI_INQUIRY_LEN];
};

// Per-command argument and result records. The tape command set adds its
// records here; `array` lets a caller clear or copy any of them.
union CMD_DATA {
    CDI_INQUIRY_DATA_T inquiry;
    unsigned char array[512];
};

struct BUFFERLIST {
    BUFFERLIST* next;
    void* buffer;
};

struct CDI_INFO {
    unsigned int version;
    ACCESS_PATH path;
    char vendor[9];
    char product[17];
    char rev[5];
    int command;
    int status;
    DRIVE_STATUS drivestat;
    errinfo error;  // errnum: errno-style value; errstr: the text
    int errstr_can_be_freed;
    BUFFERLIST* bufferlist;
    int free_bufferlist_on_close;
    CDI_SCSICMD scmd;
    CDI_TAPE_OP_DATA tape_op;
    unsigned char* sense_buffer;
    unsigned char default_sense_buffer[CDI_DEFAULT_SENSE_LEN];
    CMD_DATA cmd_data;
};
typedef CDI_INFO* CDI_INFOP;

// Message tables, filled at the first cdi_open of the process.
extern char cdi_stat_messages[CDI_STAT_SLOTS][CDI_MSG_SLOT_LEN];
extern char cdi_drive_stat_messages[CDI_DRIVE_STAT_COUNT][CDI_MSG_SLOT_LEN];
void cdi_define_messages(void);

// Record life cycle.
CDI_INFOP cdi_build_cdi_info(CDI_INFOP cdi_info);  // null: allocates
CDI_INFO* cdi_create_cdi_info(char* pszDeviceFile, int iPathType, int iPathOptions,
                              unsigned int uiCdiMinVersion);
void cdi_free_cdi_info(CDI_INFOP cdi_info, int cdi_info_is_malloced);
void cdi_destory_cdi_info(CDI_INFO** pcdi_info);
void cdi_copy_cdi_info(CDI_INFOP target, CDI_INFOP source);
// Buffers that live as long as the record (freed by cdi_close when
// free_bufferlist_on_close is set, and by cdi_free_cdi_info).
void* cdi_calloc(CDI_INFOP cdi_info, size_t nmemb, size_t size);
char* cdi_strdup(CDI_INFOP cdi_info, const char* s);
void cdi_free_bufferlist(CDI_INFOP cdi_info);

// The three calls. Each returns the CDI status, also left in cdi_info->status.
int cdi_open(CDI_INFOP cdi_info);
int cdi_cmd(CDI_INFOP cdi_info);
int cdi_close(CDI_INFOP cdi_info);  // always 0

int cdi_errno_to_status(int err);
// 1 if vendor and product are case-insensitive prefixes of the record's; "" matches all.
int cdi_inq_match(CDI_INFOP cdi_info, const char* vendor, const char* product);
const char* map_cdiStatus2cdiMsg(int status);

// Helpers of command assembly.
uint64_t uint_from_scsi_data(const unsigned char* bptr, int size);
// 0 on success, -1 if val does not fit in size bytes (the field is then untouched).
int fill_cdb_multibyte_field(unsigned char* cdbptr, int size, uint64_t val);

// Trace of the device interface, by the per-thread level from CDI_DEBUG.
void cdi_dprintf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void cdi_dump_cdb(int level, const unsigned char* cdb, int len);
void cdi_dump_buffer(int level, const unsigned char* buf, long len);
int cdi_get_debug_level(void);
void cdi_set_debug_level(int level);
