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
typedef NDMP_INFO* NDMP_INFOP;

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

// Operations of the tape interface (tape_op.cdi_mtop.operation), mapped to
// the system's by mtop_map; CDI_MT_SETDENSITY has no mapping there.
#define CDI_MT_WEOF 0
#define CDI_MT_FSF 1
#define CDI_MT_BSF 2
#define CDI_MT_FSR 3
#define CDI_MT_BSR 4
#define CDI_MT_REW 5
#define CDI_MT_OFFL 6
#define CDI_MT_NOP 7
#define CDI_MT_RETEN 8
#define CDI_MT_EOM 9
#define CDI_MT_ERASE 10
#define CDI_MT_SETBLK 11
#define CDI_MT_SETDENSITY 12
#define CDI_MT_LOAD 13
#define CDI_MT_COMPRESSION 14
#define CDI_MT_OP 23   // tape_op.mt_cmd: perform cdi_mtop
#define CDI_MT_GET 24  // tape_op.mt_cmd: read the drive's status into mtget

// space.type
#define CDI_SPACE_BLOCKS 0
#define CDI_SPACE_FILEMARKS 1
#define CDI_SPACE_EOD 3

#define CDI_CONFIG_UNKNOWN 3804  // a value get_config_data could not read

struct CDI_GET_STATUS_DATA {
    int ready;            // TEST UNIT READY passed
    int write_protected;  // from the mode header
    int density;          // density code, -1 unknown
    long block_position;  // -1 unknown
    int bop, eop;
    long file_number;  // tape path only, -1 unknown
};
struct CDI_GET_CONFIG_DATA_T {
    int buffer_full_ratio, buffer_empty_ratio;  // page 2
    int data_compression_enabled;               // page 15 DCE
    int data_compression_capable;               // page 15 DCC
    int compression_algorithm;                  // page 15
    int select_data_compression_algorithm;      // page 16
};
struct CDI_WRITE_FILEMARKS_DATA {
    int type;   // 1: return before the marks are on tape (immediate)
    int async;  // tape path: write without flushing the buffer
    long count;
};
struct CDI_SPACE_DATA {
    int type;  // CDI_SPACE_*
    long count;
};
struct CDI_COUNT_DATA {
    long count;
};
struct CDI_IMMEDIATE_DATA {
    int immediate;
};
struct CDI_LOAD_UNLOAD_DATA {
    int immediate;
    int load;  // 1 load, 0 unload
};
struct CDI_TAPEALERT_CLASS {
    unsigned char critical[65], warning[65], information[65];  // by flag number
};
struct CDI_GET_TAPEALERT_DATA {
    CDI_TAPEALERT_CLASS tape, changer;
    unsigned char flags[65];  // every flag's value by number
};
struct CDI_LOCATE_DATA {
    int immediate;
    unsigned long block;
};
struct CDI_GET_TAPE_SIZE_DATA {
    long long remaining_mb, maximum_mb;
};
struct CDI_READ_POSITION_DATA {
    long first_block, last_block;
    int bop, eop, bpu;  // bpu: position unknown
};
struct CDI_SET_COMPRESSION_DATA {
    int on;
};
struct CDI_GET_BLOCK_LIMITS_DATA {
    long long max, min;
    int granularity;
};
struct CDI_DEBUG_DATA {
    int level;
};
struct CDI_BUFFER_ARGS {  // a caller's buffer for a command that moves data
    unsigned char* buf;
    long len;
    long got;  // data in: bytes that arrived
};
struct CDI_LOG_SENSE_DATA {
    int page, page_control, subpage, parameter;
    CDI_BUFFER_ARGS data;
};
struct CDI_RR_DATA {
    int unused;
};
#define CDI_PR_REG_IGNORE 0
#define CDI_PR_RESERVE 1
#define CDI_PR_RELEASE 2
#define CDI_PR_READ_KEYS 3
struct CDI_PR_DATA {
    int action;  // CDI_PR_*
    unsigned long long key;
    int type;   // reservation type (3: exclusive access)
    int scope;  // 0: logical unit
    int nkeys;  // read keys: how many
    unsigned long long keys[8];
};
struct CDI_READ_CAPACITY_DATA {
    unsigned long long last_lba;
    unsigned int block_length;
};
struct CDI_MAM_DATA {
    int first_attribute;
    CDI_BUFFER_ARGS data;
};
struct CDI_WORM_DATA {
    int drive_worm, drive_can_dltworm, media_worm, label_overwrite, filemark_overwrite;
};
struct CDI_RW_DATA {
    unsigned long long lba;
    int blocks;
    CDI_BUFFER_ARGS data;
};
struct CDI_RW_BUFFER_DATA {
    int mode, id;
    long offset;
    CDI_BUFFER_ARGS data;
};
struct CDI_MODE_DATA {
    int page, subpage, page_control, dbd;  // sense
    int pf, sp;                            // select
    CDI_BUFFER_ARGS data;
};
struct CDI_SECURITY_DATA {
    int protocol, specific, inc_512;
    CDI_BUFFER_ARGS data;
};
#define CDI_MAX_ENCRYPT_ALGS 10
struct CDI_ENCRYPT_ALG {
    int index;
    unsigned int id;
    int key_size;
    int encrypt_capable, decrypt_capable;
};
struct CDI_GET_ENCRYPTION_DATA {
    int supported;
    int num_algorithms;
    CDI_ENCRYPT_ALG alg[CDI_MAX_ENCRYPT_ALGS];
    int encryption_mode, decryption_mode, algorithm_index;
    int next_block_status, next_block_algorithm;
};
struct CDI_ENCRYPT_KEY {
    int len;
    unsigned char key[32];
};
struct CDI_SET_ENCRYPTION_DATA {
    int encryption_mode, decryption_mode;  // 0 off, 2 encrypt / decrypt
    unsigned int algorithm_ID;
    CDI_ENCRYPT_KEY key;
    int disable;  // 1: send the fixed page that turns encryption off
};
struct CDI_READ_TAPE_DATA {
    int fixed;  // 1: count in blocks of the set size
    CDI_BUFFER_ARGS data;
    int filemark, eom, ili;
};
struct CDI_SET_BLOCK_SIZE_DATA {
    int size;  // 0: variable
};

// Per-command argument and result records; `array` lets a caller clear or
// copy any of them.
union CMD_DATA {
    CDI_INQUIRY_DATA_T inquiry;
    CDI_GET_STATUS_DATA get_status;
    CDI_GET_CONFIG_DATA_T get_config_data;
    CDI_WRITE_FILEMARKS_DATA write_filemarks;
    CDI_SPACE_DATA space;
    CDI_COUNT_DATA fsr, bsr, fsf, bsf;
    CDI_IMMEDIATE_DATA rewind, eod, offline;
    CDI_LOAD_UNLOAD_DATA load_unload;
    CDI_GET_TAPEALERT_DATA get_tapealert;
    CDI_LOCATE_DATA locate;
    CDI_GET_TAPE_SIZE_DATA get_tape_size;
    CDI_READ_POSITION_DATA read_position;
    CDI_SET_COMPRESSION_DATA set_compression;
    CDI_GET_BLOCK_LIMITS_DATA get_block_limits;
    CDI_DEBUG_DATA get_debug, set_debug;
    CDI_LOG_SENSE_DATA log_sense;
    CDI_RR_DATA rr;
    CDI_PR_DATA pr;
    CDI_READ_CAPACITY_DATA read_capacity;
    CDI_MAM_DATA mam;
    CDI_WORM_DATA worm;
    CDI_RW_DATA read_data, write_data;
    CDI_RW_BUFFER_DATA read_buffer, write_buffer;
    CDI_MODE_DATA mode_data;
    CDI_SECURITY_DATA spin, spout;
    CDI_GET_ENCRYPTION_DATA get_encryption;
    CDI_SET_ENCRYPTION_DATA set_encryption;
    CDI_READ_TAPE_DATA read_tape;
    CDI_SET_BLOCK_SIZE_DATA set_block_size;
    unsigned char array[512];
};
static_assert(sizeof(CMD_DATA) == 512, "array overlays every command record");

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

// Path type 5: the server and credentials to use (copies; the old user and
// password are cleared before they are freed). Set before cdi_open in any
// program without a terminal.
void cdi_set_ndmp_info(NDMP_INFOP ndmp_info, char* server, char* user, char* password);
// Clears a heap text with zeros, frees it and nulls the pointer.
void vObscureAndFreeString(char** ppszStr);
// Kinds of device an NDMP open tries (path.aux_flags).
#define CDI_NDMP_OPEN_SCSI 1
#define CDI_NDMP_OPEN_TAPE 2
#define CDI_NDMP_OPEN_ALL 15

int cdi_errno_to_status(int err);
// 1 if vendor and product are case-insensitive prefixes of the record's; "" matches all.
int cdi_inq_match(CDI_INFOP cdi_info, const char* vendor, const char* product);
const char* map_cdiStatus2cdiMsg(int status);

// Helpers of command assembly.
uint64_t uint_from_scsi_data(const unsigned char* bptr, int size);
// 0 on success, -1 if val does not fit in size bytes (the field is then untouched).
int fill_cdb_multibyte_field(unsigned char* cdbptr, int size, uint64_t val);

// The tape command set (cdi_tape.cpp): persistent reservation keys as text.
// A key is text or "0x" and hexadecimal digits; 0 if it can't be read.
unsigned long long cdi_opt_to_reskey(const char* opt);
void cdi_key_to_string(unsigned long long key, char* out, size_t outlen);
void cdi_res_to_string(const CDI_PR_DATA* pr, char* out, size_t outlen);
// A key option: "0x" and hexadecimal digits (up to 32 bytes). 0 on success.
int cdi_opt_to_encrypt_key(const char* opt, CDI_ENCRYPT_KEY* key);

// Trace of the device interface, by the per-thread level from CDI_DEBUG.
void cdi_dprintf(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void cdi_dump_cdb(int level, const unsigned char* cdb, int len);
void cdi_dump_buffer(int level, const unsigned char* buf, long len);
int cdi_get_debug_level(void);
void cdi_set_debug_level(int level);
