// The NDMP client: connect, negotiate the version and authenticate,
// configuration requests, extension negotiation, and the SCSI and tape
// requests the device interface sends over a connection. A connection
// belongs to one thread.
#pragma once

#include <stddef.h>

#include "libndmp/ndmp/ndmp.h"

// The client's dispatch table (NOTIFY_CONNECTED and the log messages), by version.
extern ndmp_func* ndmp_clnt_tbl[NDMP_HIGHEST_VERSION + 1];

// Connection set-up. timeout: seconds to wait for the server's greeting;
// timeout2: the reply limit. Null on failure.
void* ndmp_create_connect(char* host, char* user, char* pas, void* data, int timeout, int timeout2);
void* ndmp_create_connect_without_auth(char* host, char* user, char* pas, void* data, int timeout,
                                       int timeout2);
int ndmp_connect_auth(void* ndp, char* host, char* userp, char* pas);  // 0 or -1

// Configuration requests: the reply is the caller's, freed with ndmp_free_reply.
int ndmp_config_get_host_info(void* ndp, void** reply);
int ndmp_config_get_server_info(void* ndp, ndmp_config_get_server_info_reply** reply);
int ndmp_config_get_butype_info(void* ndp, ndmp_config_get_butype_info_reply** reply);
int ndmp_config_get_fs_info(void* ndp, ndmp_config_get_fs_info_reply** reply);
int ndmp_config_get_tape_info(void* ndp, ndmp_config_get_tape_info_reply** reply);
int ndmp_config_get_scsi_info(void* ndp, ndmp_config_get_scsi_info_reply** reply);
int ndmp_config_get_connection_type(void* ndp, ndmp_config_get_connection_type_reply** reply);
int ndmp_config_get_butype_attr(void* ndp, char* name, ndmp_config_get_butype_attr_reply** reply);
int ndmp_config_get_auth_attr(void* ndp, ndmp_auth_type type,
                              ndmp_config_get_auth_attr_reply** reply);
int ndmp_config_get_ext_list(void* ndp, ndmp_config_get_ext_list_reply** reply);
int ndmp_config_set_ext_list(void* ndp, ndmp_class_version* list, unsigned int count);
// The authentication methods the server offers, as a bit mask of 1 << ndmp_auth_type.
int ndmp_config_get_auth_type(void* ndp, unsigned int* mask);     // versions 1 and 2
int ndmp_config_get_auth_type_v3(void* ndp, unsigned int* mask);  // from version 3
// Copies the operating system text of the host info; 0 or -1.
int ndmp_config_get_host_os(void* ndp, char* os, size_t size);

// Extension negotiation, from version 4 on.
#define NDMP_EXT_CLASS_BRE 0x2050
#define NDMP_EXT_CLASS_CAE 0x2051
#define NDMP_EXT_CLASS_CAB 0x2052
int ndmp_negotiate_extensions(void* ndp, int try_bre, int* got_bre, int try_cae, int* got_cae,
                              int try_cab, int* got_cab);
int ndmp_server_supports_getextlst(void* ndp, int* getextlst_supported);
// Folder whose "ndmpgetextlist_disable_<vendor>" files switch the extension
// query off for a vendor's servers; null restores the default.
void ndmp_set_debug_dir(const char* dir);

// Tape requests. 1 (open) or 0 on success, -1 on failure with *error set.
int ndmp_tape_open(void* ndp, char* device, int mode, ndmp_error* error);
int ndmp_tape_close(void* ndp, ndmp_error* error);
int ndmp_tape_mtio(void* ndp, ndmp_tape_mtio_op op, int count, ndmp_error* error,
                   u_long* resid_count);
int ndmp_tape_write(void* ndp, char* buf, int size, ndmp_error* error);
int ndmp_tape_read(void* ndp, char* buf, int size, ndmp_error* error);  // bytes read or -1
int ndmp_tape_flush_weof(void* ndp, ndmp_error* error);
int ndmp_tape_write_must_chunk(void* ndp, ndmp_u_quad* total_backup_size);
int ndmp_tape_set_record_size(void* ndp, u_long size, ndmp_error* error);
ndmp_tape_execute_cdb_reply* ndmp_tape_execute_cdb(void* tape_ndp, u_long flags, u_long timeout,
                                                   u_long datain_len, u_int cdb_len, char* cdb_val,
                                                   u_int dataout_len, char* dataout_val);

// SCSI device requests. 0 on success, -1 on failure with *error set.
int ndmp_scsidev_open(void* ndp, char* device, ndmp_error* error);
int ndmp_scsidev_close(void* ndp, char* device, ndmp_error* error);

// The device interface's view of one device.
struct ndmpscsihandle {
    void* stream;  // the connection
    int otype;     // 1 opened as a tape, 0 as a SCSI device
    char* filename;
};

#define NDMPSCSI_DATA_IN 1
#define NDMPSCSI_DATA_OUT 2
struct ndmpscsi {
    unsigned char* cdb;
    int cdblen;
    unsigned char* bufaddr;
    long buflen;
    unsigned char* sense;
    int senselen;
    long to;  // seconds
    int flags;
    int status;
};

struct ndmpscsitarget {
    int bus;
    int target;
    int lun;
};

int pscNdmpOpen(ndmpscsihandle* dmh, char* user, char* passwd);
int pscNdmpIoctl(ndmpscsihandle* dmh, ndmpscsi* dmpr);
int pscNdmpClose(ndmpscsihandle* dmh);
int pscNdmpTarget(ndmpscsihandle* dmh, ndmpscsitarget* dmstarget);

// The table the device interface calls through, in this order.
struct ndmpscsi_ops {
    int (*open)(ndmpscsihandle*, char*, char*);
    int (*ioctl)(ndmpscsihandle*, ndmpscsi*);
    int (*close)(ndmpscsihandle*);
    int (*target)(ndmpscsihandle*, ndmpscsitarget*);
};
extern const ndmpscsi_ops ndmpscsitbl;

// Discovery: the tape and SCSI devices of a server. Arrays are the caller's
// (free each path, then the arrays). Returns the number of devices or -1.
int ndmp_device_auto_discovery(char* host, char* user, char* passwd,
                               ndmpscsitarget** scsi_device_btl, char*** device_paths,
                               int* busy_devices_count);
int check_ndmp_auto_discovery_support(char* snode, char* ndmp_user, char* ndmp_passwd);
