// Enumerations, aliases and plain records of the provider interface. Their
// numeric values and field orders are shared with the loader: never reorder.
#pragma once

typedef int SSTaskId;
typedef char* SSSource;

struct SSAPIVersion {
    int m_majorVersion;
    int m_minorVersion;
};

enum SSServiceType {
    SS_SERV_SNAPSHOT = 0,
    SS_SERV_REPLICATION = 1,
    SS_SERV_ECOPY = 2,
    SS_SERV_DISCOVERY = 3,
};

enum SSStorageStackLevel {
    SS_LEVEL_DISK = 0,
    SS_LEVEL_VOLUME = 1,
    SS_LEVEL_FILESYSTEM = 2,
};

enum SSTaskStatus {
    SS_TASK_ERROR = 0,
    SS_TASK_IN_PROGRESS = 1,
    SS_TASK_DONE = 2,
};

// Numbering starts at 1: log lines and messages print these numbers.
enum SCSnapshotState {
    SSHOT_STATE_UNINIT = 1,
    SSHOT_STATE_INIT = 2,
    SSHOT_STATE_PREPARE_IN_PROGRESS = 3,
    SSHOT_STATE_PREPARED = 4,
    SSHOT_STATE_SNAP_IN_PROGRESS = 5,
    SSHOT_STATE_VALID = 6,
    SSHOT_STATE_READY = 7,
    SSHOT_STATE_ERROR = 8,
};

enum SCSnapTechnology {
    SC_SPLIT_MIRROR = 0,
    SC_COW = 1,
    SC_POINTER_REMAP = 2,
};

enum SSErrCode {
    SS_EC_NO_ERROR = 0,
    SS_EC_INVALID_HANDLE = 1,
    SS_EC_INVALID_ACCESS_PATH = 2,
    SS_EC_INVALID_DEVICE = 3,
    SS_EC_INVALID_PARAMETER = 4,
    SS_EC_INVALID_CONFIGURATION = 5,
    SS_EC_UNABLE_TO_PREPARE = 6,
    SS_EC_UNABLE_TO_CREATE_SNAPSHOT = 7,
    SS_EC_SNAPSHOT_NOT_SUPPORTED = 8,
    SS_EC_SSHOT_SUBSERVICE_UNSUPPORTED = 9,
    SS_EC_ILLEGAL_STATE = 10,
    SS_EC_DEVICE_ERROR = 11,
    SS_EC_INSUFFICIENT_MEMORY = 12,
    SS_EC_BUSY_ERROR = 13,
    SS_EC_PERMISSION_ERROR = 14,
    SS_EC_INTERNAL_ERROR = 15,
    SS_EC_OP_UNSUPPORTED = 16,
    SS_EC_INSUFFICIENT_RESOURCES = 17,
    SS_EC_SNAPSHOT_ABORTED = 18,
    SS_EC_SNAP_PROVIDER_ERROR = 19,
    SS_EC_SYS_ERROR = 20,
    SS_EC_SNAPSHOT_INVALID = 21,
    SS_EC_NO_SRC_PROVIDED = 22,
    SS_EC_NO_CURRENT_TASK = 23,
    SS_EC_NO_TASK_ID = 24,
    SS_EC_TASK_ALREADY_FINISHED = 25,
    SS_EC_SERVICE_UNSUPPORTED = 26,
    SS_EC_CMD_EXEC_FAILED = 27,
    SS_EC_INVALID_SNAP_POOL = 28,
    SS_EC_INSUFFICIENT_RES_MATCHING_POLICY = 29,
    SS_EC_UNEXPECTED_STATE = 30,
    SS_EC_ACCESS_PATH_NOT_FOUND = 31,
    SS_EC_HOST_DEVICE_NAME_NOT_FOUND = 32,
    SS_EC_ROLLBACK_IMPACTS = 33,
    SS_EC_UNCLASSIFIED = 34,
    SS_EC_INVALID_POOL_ENTRY = 35,
    SS_EC_CMN_ABORT_SET = 36,
    SS_EC_EXTENT_LIST_EMPTY = 37,
    SS_EC_EXTENT_LEN_BUFFER_MISMATCH = 38,
    SS_EC_TASK_ARE_RUNNING = 39,
    SS_EC_TASK_IN_USE = 40,
    SS_EC_TASK_NO_MORE_SUBTASKS = 41,
    SS_EC_THR_ALREADY_RUNNING_A_TASK = 42,
    SS_EC_THR_NOT_ENOUGH_THREADS = 43,
    SS_EC_THR_NOT_ENOUGH_THREADS_MAX = 44,
    SS_EC_THR_CANNOT_START_THREAD = 45,
    SS_EC_DEV_OPEN_FAILURE = 46,
    SS_EC_DEV_IN_USE = 47,
    SS_EC_DEV_NOT_REGISTERED = 48,
    SS_EC_DEV_READ_FAILURE = 49,
    SS_EC_DEV_WRITE_FAILURE = 50,
    SS_EC_OPERATION_BLOCK_MISALIGNED = 51,
    SS_EC_CMN_MISALIGNMENT = 52,
};

// The loader's log function: (level, source file, line, finished text, context).
typedef void (*SSLOG_FUNC_POINTER)(int debugLevel, const char* fileName, int lineNum,
                                   const char* message, void* context);
