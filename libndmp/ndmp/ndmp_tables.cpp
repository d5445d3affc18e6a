// The wire-form table (one list of procedures per protocol version) and the
// procedures' names for the trace.
#include "libndmp/ndmp/ndmp_priv.h"

namespace {

// Through void (*)(void), the one function type a cast to any other is quiet about.
#define X(f) reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)(void)>(f))
#define VOID_BODY X(xdr_void), 0
#define BODY(t) X(xdr_##t), static_cast<int>(sizeof(t))
#define NO_REPLY nullptr, 0

// Version 1 and 2 speak alike but for one tape request of version 1.
const xdr_ndmp table_v2[] = {
    {NDMP_CONNECT_OPEN, BODY(ndmp_connect_open_request), BODY(ndmp_error_reply)},
    {NDMP_CONNECT_CLIENT_AUTH, BODY(ndmp_connect_client_auth_request), BODY(ndmp_error_reply)},
    {NDMP_CONNECT_CLOSE, VOID_BODY, NO_REPLY},
    {NDMP_CONFIG_GET_HOST_INFO, VOID_BODY, BODY(ndmp_config_get_host_info_reply_v2)},
    {NDMP_CONFIG_GET_BUTYPE_ATTR, BODY(ndmp_config_get_butype_attr_request),
     BODY(ndmp_config_get_butype_attr_reply)},
    {NDMP_CONFIG_GET_AUTH_ATTR, BODY(ndmp_config_get_auth_attr_request),
     BODY(ndmp_config_get_auth_attr_reply)},
    {NDMP_SCSI_OPEN, BODY(ndmp_scsi_open_request), BODY(ndmp_error_reply)},
    {NDMP_SCSI_CLOSE, VOID_BODY, BODY(ndmp_error_reply)},
    {NDMP_SCSI_SET_TARGET, BODY(ndmp_scsi_set_target_request), BODY(ndmp_error_reply)},
    {NDMP_SCSI_RESET_DEVICE, VOID_BODY, BODY(ndmp_error_reply)},
    {NDMP_SCSI_EXECUTE_CDB, BODY(ndmp_execute_cdb_request), BODY(ndmp_execute_cdb_reply)},
    {NDMP_TAPE_OPEN, BODY(ndmp_tape_open_request), BODY(ndmp_error_reply)},
    {NDMP_TAPE_CLOSE, VOID_BODY, BODY(ndmp_error_reply)},
    {NDMP_TAPE_MTIO, BODY(ndmp_tape_mtio_request), BODY(ndmp_tape_mtio_reply)},
    {NDMP_TAPE_WRITE, BODY(ndmp_tape_write_request), BODY(ndmp_tape_write_reply)},
    {NDMP_TAPE_READ, BODY(ndmp_tape_read_request), BODY(ndmp_tape_read_reply)},
    {NDMP_TAPE_EXECUTE_CDB, BODY(ndmp_execute_cdb_request), BODY(ndmp_execute_cdb_reply)},
    {NDMP_NOTIFY_CONNECTED, BODY(ndmp_notify_connected_request), NO_REPLY},
    {NDMP_LOG_LOG, BODY(ndmp_log_log_request_v2), NO_REPLY},
    {NDMP_LOG_DEBUG, BODY(ndmp_log_debug_request_v2), NO_REPLY},
};

const xdr_ndmp table_v1_extra[] = {
    {NDMP_TAPE_SET_RECORD_SIZE, BODY(ndmp_tape_set_record_size_request), BODY(ndmp_error_reply)},
};

// Rows versions 3 and 4 share.
const xdr_ndmp table_v3v4[] = {
    {NDMP_CONNECT_OPEN, BODY(ndmp_connect_open_request), BODY(ndmp_error_reply)},
    {NDMP_CONNECT_CLIENT_AUTH, BODY(ndmp_connect_client_auth_request), BODY(ndmp_error_reply)},
    {NDMP_CONNECT_CLOSE, VOID_BODY, NO_REPLY},
    {NDMP_CONFIG_GET_HOST_INFO, VOID_BODY, BODY(ndmp_config_get_host_info_reply)},
    {NDMP_CONFIG_GET_CONNECTION_TYPE, VOID_BODY, BODY(ndmp_config_get_connection_type_reply)},
    {NDMP_CONFIG_GET_AUTH_ATTR, BODY(ndmp_config_get_auth_attr_request),
     BODY(ndmp_config_get_auth_attr_reply)},
    {NDMP_CONFIG_GET_BUTYPE_INFO, VOID_BODY, BODY(ndmp_config_get_butype_info_reply)},
    {NDMP_CONFIG_GET_FS_INFO, VOID_BODY, BODY(ndmp_config_get_fs_info_reply)},
    {NDMP_CONFIG_GET_TAPE_INFO, VOID_BODY, BODY(ndmp_config_get_tape_info_reply)},
    {NDMP_CONFIG_GET_SCSI_INFO, VOID_BODY, BODY(ndmp_config_get_scsi_info_reply)},
    {NDMP_CONFIG_GET_SERVER_INFO, VOID_BODY, BODY(ndmp_config_get_server_info_reply)},
    {NDMP_SCSI_OPEN, BODY(ndmp_scsi_open_request), BODY(ndmp_error_reply)},
    {NDMP_SCSI_CLOSE, VOID_BODY, BODY(ndmp_error_reply)},
    {NDMP_SCSI_RESET_DEVICE, VOID_BODY, BODY(ndmp_error_reply)},
    {NDMP_SCSI_EXECUTE_CDB, BODY(ndmp_execute_cdb_request), BODY(ndmp_execute_cdb_reply)},
    {NDMP_TAPE_OPEN, BODY(ndmp_tape_open_request), BODY(ndmp_error_reply)},
    {NDMP_TAPE_CLOSE, VOID_BODY, BODY(ndmp_error_reply)},
    {NDMP_TAPE_MTIO, BODY(ndmp_tape_mtio_request), BODY(ndmp_tape_mtio_reply)},
    {NDMP_TAPE_WRITE, BODY(ndmp_tape_write_request), BODY(ndmp_tape_write_reply)},
    {NDMP_TAPE_READ, BODY(ndmp_tape_read_request), BODY(ndmp_tape_read_reply)},
    {NDMP_TAPE_EXECUTE_CDB, BODY(ndmp_execute_cdb_request), BODY(ndmp_execute_cdb_reply)},
    {NDMP_NOTIFY_CONNECTED, BODY(ndmp_notify_connected_request), NO_REPLY},
};

const xdr_ndmp table_v3_only[] = {
    {NDMP_SCSI_SET_TARGET, BODY(ndmp_scsi_set_target_request), BODY(ndmp_error_reply)},
    {NDMP_LOG_MESSAGE, BODY(ndmp_log_message_request_v3), NO_REPLY},
};

const xdr_ndmp table_v4_only[] = {
    {NDMP_CONFIG_SET_EXT_LIST, BODY(ndmp_config_set_ext_list_request), BODY(ndmp_error_reply)},
    {NDMP_CONFIG_GET_EXT_LIST, VOID_BODY, BODY(ndmp_config_get_ext_list_reply)},
    {NDMP_LOG_MESSAGE, BODY(ndmp_log_message_request_v4), NO_REPLY},
};

template <size_t N>
const xdr_ndmp* find(const xdr_ndmp (&t)[N], unsigned int proc) {
    for (const xdr_ndmp& r : t)
        if (static_cast<unsigned int>(r.proceedure) == proc) return &r;
    return nullptr;
}

}  // namespace

const xdr_ndmp* ndmp_xdr_row(int vers, unsigned int proc) {
    const xdr_ndmp* r = nullptr;
    switch (vers) {
    case 1: r = find(table_v1_extra, proc); return r ? r : find(table_v2, proc);
    case 2: return find(table_v2, proc);
    case 3: r = find(table_v3_only, proc); return r ? r : find(table_v3v4, proc);
    case 4: r = find(table_v4_only, proc); return r ? r : find(table_v3v4, proc);
    default: return nullptr;
    }
}

const ndmp_procedure_name ndmp_procedure_namelist[] = {
    {0x900, "NDMP_CONNECT_OPEN"},
    {0x901, "NDMP_CONNECT_CLIENT_AUTH"},
    {0x902, "NDMP_CONNECT_CLOSE"},
    {0x903, "NDMP_CONNECT_SERVER_AUTH"},
    {0x100, "NDMP_CONFIG_GET_HOST_INFO"},
    {0x101, "NDMP_CONFIG_GET_BUTYPE_ATTR"},
    {0x102, "NDMP_CONFIG_GET_CONNECTION_TYPE"},
    {0x103, "NDMP_CONFIG_GET_AUTH_ATTR"},
    {0x104, "NDMP_CONFIG_GET_BUTYPE_INFO"},
    {0x105, "NDMP_CONFIG_GET_FS_INFO"},
    {0x106, "NDMP_CONFIG_GET_TAPE_INFO"},
    {0x107, "NDMP_CONFIG_GET_SCSI_INFO"},
    {0x108, "NDMP_CONFIG_GET_SERVER_INFO"},
    {0x109, "NDMP_CONFIG_SET_EXT_LIST"},
    {0x10A, "NDMP_CONFIG_GET_EXT_LIST"},
    {0x200, "NDMP_SCSI_OPEN"},
    {0x201, "NDMP_SCSI_CLOSE"},
    {0x202, "NDMP_SCSI_GET_STATE"},
    {0x203, "NDMP_SCSI_SET_TARGET"},
    {0x204, "NDMP_SCSI_RESET_DEVICE"},
    {0x205, "NDMP_SCSI_RESET_BUS"},
    {0x206, "NDMP_SCSI_EXECUTE_CDB"},
    {0x300, "NDMP_TAPE_OPEN"},
    {0x301, "NDMP_TAPE_CLOSE"},
    {0x302, "NDMP_TAPE_GET_STATE"},
    {0x303, "NDMP_TAPE_MTIO"},
    {0x304, "NDMP_TAPE_WRITE"},
    {0x305, "NDMP_TAPE_READ"},
    {0x306, "NDMP_TAPE_SET_RECORD_SIZE"},
    {0x307, "NDMP_TAPE_EXECUTE_CDB"},
    {0x400, "NDMP_DATA_GET_STATE"},
    {0x401, "NDMP_DATA_START_BACKUP"},
    {0x402, "NDMP_DATA_START_RECOVER"},
    {0x403, "NDMP_DATA_ABORT"},
    {0x404, "NDMP_DATA_GET_ENV"},
    {0x407, "NDMP_DATA_STOP"},
    {0x409, "NDMP_DATA_LISTEN"},
    {0x40A, "NDMP_DATA_CONNECT"},
    {0x40B, "NDMP_DATA_START_RECOVER_FILEHIST"},
    {0x501, "NDMP_NOTIFY_DATA_HALTED"},
    {0x502, "NDMP_NOTIFY_CONNECTED"},
    {0x503, "NDMP_NOTIFY_MOVER_HALTED"},
    {0x504, "NDMP_NOTIFY_MOVER_PAUSED"},
    {0x505, "NDMP_NOTIFY_DATA_READ"},
    {0x600, "NDMP_LOG_LOG"},
    {0x601, "NDMP_LOG_DEBUG"},
    {0x602, "NDMP_LOG_FILE"},
    {0x603, "NDMP_LOG_MESSAGE"},
    {0x700, "NDMP_FH_ADD_UNIX_PATH"},
    {0x701, "NDMP_FH_ADD_UNIX_DIR"},
    {0x702, "NDMP_FH_ADD_UNIX_NODE"},
    {0x703, "NDMP_FH_ADD_FILE"},
    {0x704, "NDMP_FH_ADD_DIR"},
    {0x705, "NDMP_FH_ADD_NODE"},
    {0xA00, "NDMP_MOVER_GET_STATE"},
    {0xA01, "NDMP_MOVER_LISTEN"},
    {0xA02, "NDMP_MOVER_CONTINUE"},
    {0xA03, "NDMP_MOVER_ABORT"},
    {0xA04, "NDMP_MOVER_STOP"},
    {0xA05, "NDMP_MOVER_SET_WINDOW"},
    {0xA06, "NDMP_MOVER_READ"},
    {0xA07, "NDMP_MOVER_CLOSE"},
    {0xA08, "NDMP_MOVER_SET_RECORD_SIZE"},
    {0xA09, "NDMP_MOVER_CONNECT"},
};
const int ndmp_procedure_count =
    static_cast<int>(sizeof ndmp_procedure_namelist / sizeof ndmp_procedure_namelist[0]);

const char* ndmp_proc_name(unsigned int proc) {
    for (int i = 0; i < ndmp_procedure_count; i++)
        if (ndmp_procedure_namelist[i].proc == proc) return ndmp_procedure_namelist[i].name;
    return "unknown";
}
