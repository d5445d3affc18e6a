// SCMerlodeQuillset: the public operations (lock, private operation, trace),
// the frame's own bodies of the technology operations, and the lock.
#include "storage/ssm/merlode/SCQuillset.h"

#include <stdlib.h>
#include <string.h>

#include <new>

#include "liblocal/kv_msg.h"
#include "liblocal/kv_thread.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

static const char* const kFile = "storage/ssm/merlode/SCQuillset";

// --- SCQuillsetLock ----------------------------------------------------------

SCQuillsetLock::~SCQuillsetLock() {
    if (m_mtx != nullptr) kv_mutex_destroy(m_mtx);
}

SSError* SCQuillsetLock::init() {
    // A second init keeps the mutex: another thread may be waiting on it.
    if (m_mtx == nullptr) m_mtx = kv_mutex_new();
    m_count = 0;
    if (m_mtx == nullptr)
        return merl_space::blderr(nullptr, SS_EC_INTERNAL_ERROR, "%s: Caught internal",
                                  "SCQuillsetLock::init");
    return nullptr;
}

bool SCQuillsetLock::lock() {
    bool ok = kv_mutex_lock(m_mtx) == 0;
    m_count++;  // counted under the mutex, like the release
    return ok;
}

bool SCQuillsetLock::unlock() {
    m_count--;
    return kv_mutex_unlock(m_mtx) == 0;
}

namespace {

// Holds the object's lock for a scope, so an exception cannot leave it taken.
class Held {
public:
    explicit Held(SCQuillsetLock& l) : m_lock(l) { m_lock.lock(); }
    ~Held() { m_lock.unlock(); }

private:
    SCQuillsetLock& m_lock;
};

}  // namespace

// Runs one private operation under the lock. The loader's process must never
// see an exception, so any that escapes the work becomes an internal error.
#define SCQ_GUARDED(fname, expr)                                                          \
    [&]() -> SSError* {                                                                   \
        try {                                                                             \
            Held held(m_mtx);                                                             \
            return (expr);                                                                \
        } catch (...) {                                                                   \
            m_e.logprintf(7, kFile, __LINE__, "%s: Caught unexpected exception.", fname); \
            return m_e.generr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR, "%s",       \
                              "Caught unexpected exception.");                            \
        }                                                                                 \
    }()

// --- construction ------------------------------------------------------------

SCMerlodeQuillset::SCMerlodeQuillset(SSLOG_FUNC_POINTER fpLog, void* logCtx)
    : m_fpLog(fpLog),
      m_logCtx(logCtx),
      m_instanceIsProduction(0),
      m_quillsetContext(nullptr),
      m_haveVersion(0),
      m_validVersion(0),
      m_usingWWN(0),
      m_attrlist(nullptr),
      m_e(fpLog, logCtx),
      m_currentTaskId(0),
      m_isMountDone(0) {
    m_state = SSHOT_STATE_UNINIT;
}

SCMerlodeQuillset::~SCMerlodeQuillset() {
    m_e.logprintf(9, kFile, __LINE__, "SCMerlodeQuillset: destructor");
    delete m_quillsetContext;
    m_quillsetContext = nullptr;
    attrlist_free(m_attrlist);
    m_attrlist = nullptr;
    attrlist_free(m_attributes);
    m_attributes = nullptr;
}

SSError* SCMerlodeQuillset::illegalState(const char* fname, int line) {
    char* text = render_string(32778, nullptr, "%s: Function called with illegal state = %d", 0,
                               fname, 1, inttostr(static_cast<int>(m_state)));
    return m_e.tellerr(kFile, line, nullptr, SS_EC_ILLEGAL_STATE, "%s",
                       text != nullptr ? text : "");
}

// --- public operations -------------------------------------------------------

SSError* SCMerlodeQuillset::init(SCInitStruct* initStruct) {
    static const char* const fname = "SCMerlodeQuillset::init";
    SSError* err = m_mtx.init();
    if (err != nullptr) {
        m_e.logprintf(1, kFile, __LINE__, "%s", err->getErrMsg());
        return err;
    }
    try {
        if (initStruct != nullptr) {
            attrlist_free(m_attrlist);
            m_attrlist = attrlist_dup(initStruct->attributes);
        }
    } catch (...) {
        return m_e.generr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR, "%s",
                          "Caught unexpected exception.");
    }
    err = SCQ_GUARDED(fname, privateInit(initStruct));
    if (err == nullptr) {
        try {
            err = checkVersion();
        } catch (...) {
            err = m_e.generr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR, "%s",
                             "Caught unexpected exception.");
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::validate(void* arg) {
    static const char* const fname = "SCMerlodeQuillset::validate";
    SSError* err = SCQ_GUARDED(fname, privateValidate(arg));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

void SCMerlodeQuillset::end() {
    m_e.logprintf(9, kFile, __LINE__, "SCMerlodeQuillset: end()");
    {
        Held held(m_mtx);
        m_state = SSHOT_STATE_ERROR;
    }
    try {
        privateCleanup();
    } catch (...) {
        m_e.logprintf(7, kFile, __LINE__, "%s: Caught unexpected exception.",
                      "SCMerlodeQuillset::end");
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: END", "SCMerlodeQuillset::end");
}

SSError* SCMerlodeQuillset::getStorageStackLevel(SSStorageStackLevel& level) {
    level = SS_LEVEL_DISK;
    m_e.logprintf(9, kFile, __LINE__, "%s: END", "SCMerlodeQuillset::getStorageStackLevel");
    return nullptr;
}

SSError* SCMerlodeQuillset::getSnapshotCapabilities(SCSnapshotCapability*& cap) {
    static const char* const fname = "SCMerlodeQuillset::getSnapshotCapabilities";
    SSError* err = SCQ_GUARDED(fname, privateGetSnapshotCapabilities(cap));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::getDeviceSnapshotCapabilities(SSSourceList* srcList,
                                                          SCSnapshotCapabilityList*& capList) {
    static const char* const fname = "SCMerlodeQuillset::getDeviceSnapshotCapabilities";
    SSError* err = SCQ_GUARDED(fname, privateGetDeviceSnapshotCapabilities(srcList, capList));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::getSupportedProviderVersion(SSProviderVersion*& version) {
    static const char* const fname = "SCMerlodeQuillset::getSupportedProviderVersion";
    version = new (std::nothrow) SSProviderVersion();
    SSError* err = nullptr;
    char* product = version != nullptr ? msg_lit_create(0, "ZOV_Quillset") : nullptr;
    if (product != nullptr) {
        // The literal lives in a shared pool; the record owns and frees its copy.
        version->product = strdup(product);
        version->majorVersion = 2;
        version->minorVersion = 0;
        version->patchNum = 0;
        version->extendedVersionInfo = nullptr;
        m_e.logprintf(9, kFile, __LINE__, "getSupportedProviderVersion: %d\n",
                      version->majorVersion);
    } else {
        err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                          "%s: Memory allocation error", fname);
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::getSourceList(SSSourceList*& srcList) {
    static const char* const fname = "SCMerlodeQuillset::getSourceList";
    SSError* err = SCQ_GUARDED(fname, privateGetSourceList(srcList));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::getChangedExtents(const char*, SSExtentList*&) {
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_OP_UNSUPPORTED,
                       "%s: Method not supported for this class",
                       "SCMerlodeQuillset::getChangedExtents");
}

SCSnapshotState SCMerlodeQuillset::getSnapshotState() {
    SCSnapshotState state;
    {
        Held held(m_mtx);
        state = m_state;
        m_e.logprintf(9, kFile, __LINE__, "getSnapshotState : state = %d ",
                      static_cast<int>(state));
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: END", "SCMerlodeQuillset::getSnapshotState");
    return state;
}

SSError* SCMerlodeQuillset::getSnapshotHandle(SCSnapshotHandle*& handle) {
    static const char* const fname = "SCMerlodeQuillset::getSnapshotHandle";
    SSError* err = SCQ_GUARDED(fname, privateGetSnapshotHandle(handle));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::getSnapshotAccessPath(SSSourceList* srcList,
                                                  SSSourceList*& accessPaths) {
    static const char* const fname = "SCMerlodeQuillset::getSnapshotAccessPath";
    SSError* err = SCQ_GUARDED(fname, privateGetSnapshotAccessPath(srcList, accessPaths));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::addComponent(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::addComponent";
    SSError* err = SCQ_GUARDED(fname, privateAddComponent(srcList));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::addComponentWWN(std::vector<std::string> wwns) {
    static const char* const fname = "SCMerlodeQuillset::addComponentWWN";
    SSError* err = SCQ_GUARDED(fname, privateAddComponentWWN(wwns));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::prepareForSnapshot(void* arg, attrlist* attrs, SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::prepareForSnapshot";
    m_e.logprintf(7, kFile, __LINE__, "%s: Entering", fname);
    SSError* err = SCQ_GUARDED(fname, privatePrepareForSnapshot(arg, attrs, taskId));
    m_e.logprintf(7, kFile, __LINE__, "%s: exit", fname);
    return err;
}

SSError* SCMerlodeQuillset::snapshot(void* arg, SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::snapshot";
    SSError* err = SCQ_GUARDED(fname, privateSnapshot(arg, taskId));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::postSnapshot(int status) {
    {
        Held held(m_mtx);
        m_e.logprintf(9, kFile, __LINE__, "postSnapshot = %d\n", status);
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: END", "SCMerlodeQuillset::postSnapshot");
    return nullptr;
}

SSError* SCMerlodeQuillset::deleteSnapshot() {
    static const char* const fname = "SCMerlodeQuillset::deleteSnapshot";
    SSError* err = SCQ_GUARDED(fname, privateDeleteSnapshot());
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::rollBack(SSSourceList* srcList, SSExtentList* extents,
                                     SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::rollBack";
    return SCQ_GUARDED(fname, privateRollbackSnapshot(srcList, extents, taskId));
}

SSError* SCMerlodeQuillset::restoreTo(SSSourceList*, SSExtentList*, SSSourceList*, SSExtentList*,
                                      SSTaskId&) {
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_OP_UNSUPPORTED,
                       "%s: Method not supported for this class", "SCMerlodeQuillset::restoreTo");
}

SSError* SCMerlodeQuillset::shareTo(SSSourceList*, const char*) {
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_OP_UNSUPPORTED,
                       "%s: Method not supported for this class", "SCMerlodeQuillset::shareTo");
}

SSError* SCMerlodeQuillset::mount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateMount";
    SSError* err = SCQ_GUARDED(fname, privateMount(srcList));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::unmount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::unmount";
    SSError* err = SCQ_GUARDED(fname, privateUnmount(srcList));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

SSError* SCMerlodeQuillset::getCurrentTask(SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::getCurrentTask";
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", fname);
    SSError* err = SCQ_GUARDED(fname, privateGetCurrentTask(taskId));
    m_e.logprintf(9, kFile, __LINE__, "getCurrentTask : taskId:%d", taskId);
    return err;
}

SSError* SCMerlodeQuillset::getTaskStatus(int taskId, SSTaskStatus& status, SSError*& taskErr) {
    static const char* const fname = "SCMerlodeQuillset::getTaskStatus";
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", fname);
    SSError* err = SCQ_GUARDED(fname, privateGetTaskStatus(taskId, status, taskErr));
    m_e.logprintf(9, kFile, __LINE__, "%s: taskId:%d, done, state:%d", fname, taskId,
                  static_cast<int>(status));
    return err;
}

SSError* SCMerlodeQuillset::cancelTask(int taskId) {
    static const char* const fname = "SCMerlodeQuillset::cancelTask";
    SSError* err = SCQ_GUARDED(fname, m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                                                  "%s: No such task: %d", fname, taskId));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

namespace {
const char* first_value_or_unknown(attrlist* al) {
    return al->values != nullptr ? al->values->value : "unknown";
}
}  // namespace

SSError* SCMerlodeQuillset::setProviderAttribute(attrlist* attrs) {
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", "SCMerlodeQuillset::setProviderAttribute");
    if (attrs != nullptr) {
        attrlist_free(m_attributes);
        m_attributes = attrlist_dup(attrs);
    }
    return nullptr;
}

SSError* SCMerlodeQuillset::setProviderAttribute(const char*, attrlist* attrs) {
    static const char* const fname = "SCMerlodeQuillset::setProviderAttribute";
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", fname);
    if (attrs == nullptr) return nullptr;
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                       "%s: Attribute not supported: %s", fname, first_value_or_unknown(attrs));
}

SSError* SCMerlodeQuillset::getProviderAttribute(attrlist* in, attrlist*& out) {
    static const char* const fname = "SCMerlodeQuillset::getProviderAttribute";
    out = nullptr;
    if (in == nullptr) return nullptr;
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                       "%s: Attribute not supported: %s", fname, first_value_or_unknown(in));
}

SSError* SCMerlodeQuillset::getProviderAttribute(const char*, attrlist* in, attrlist*&) {
    static const char* const fname = "SCMerlodeQuillset::getSCProviderAttribute";
    if (in == nullptr) return nullptr;
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                       "%s: Attribute not supported: %s", fname, first_value_or_unknown(in));
}

const char* SCMerlodeQuillset::getModuleName() {
    return "zovmerl";
}

SSError* SCMerlodeQuillset::getSnapProviderUnitProperties(SSSourceList* srcList, attrlist* attrs,
                                                          attrlist* props, attrlist*& result) {
    static const char* const fname = "SCMerlodeQuillset::getSnapProviderUnitProperties";
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", fname);
    SSError* err =
        SCQ_GUARDED(fname, privateGetSnapProviderUnitProperties(srcList, attrs, props, result));
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return err;
}

// --- the frame's bodies of the technology operations -------------------------

#define SCQ_NOT_A_TECHNOLOGY(name)                                                              \
    m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_OP_UNSUPPORTED, "%s: Invalid Quillset Version", \
                "SCMerlodeQuillset::" name)

SSError* SCMerlodeQuillset::privateValidate(void*) {
    return SCQ_NOT_A_TECHNOLOGY("privateValidate");
}

SSError* SCMerlodeQuillset::privateGetSnapshotCapabilities(SCSnapshotCapability*&) {
    return SCQ_NOT_A_TECHNOLOGY("privateGetSnapshotCapabilities");
}

SSError* SCMerlodeQuillset::privateGetDeviceSnapshotCapabilities(SSSourceList*,
                                                                 SCSnapshotCapabilityList*&) {
    return SCQ_NOT_A_TECHNOLOGY("privateGetDeviceSnapshotCapabilities");
}

SSError* SCMerlodeQuillset::privatePrepareForSnapshot(void*, attrlist*, SSTaskId&) {
    return SCQ_NOT_A_TECHNOLOGY("privatePrepareForSnapshot");
}

SSError* SCMerlodeQuillset::privateSnapshot(void*, SSTaskId&) {
    return SCQ_NOT_A_TECHNOLOGY("privateSnapshot");
}

SSError* SCMerlodeQuillset::privateDeleteSnapshot() {
    return SCQ_NOT_A_TECHNOLOGY("privateDeleteSnapshot");
}

SSError* SCMerlodeQuillset::privateMount(SSSourceList*) {
    return SCQ_NOT_A_TECHNOLOGY("privateMount");
}

SSError* SCMerlodeQuillset::privateUnmount(SSSourceList*) {
    return SCQ_NOT_A_TECHNOLOGY("privateUnmount");
}

SSError* SCMerlodeQuillset::privateRollbackSnapshot(SSSourceList*, SSExtentList*, SSTaskId&) {
    return SCQ_NOT_A_TECHNOLOGY("privateRollbackSnapshot");
}

int SCMerlodeQuillset::privateIsSnappable(std::string) {
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", "SCMerlodeQuillset::Base isSnappable");
    return 0;
}

SSError* SCMerlodeQuillset::privateGetTaskStatus(int, SSTaskStatus&, SSError*&) {
    m_e.logprintf(7, kFile, __LINE__, "%s: Exiting", "SCMerlodeQuillset::Base getTaskStatus");
    return nullptr;
}

SSError* SCMerlodeQuillset::privateGetCurrentTask(SSTaskId&) {
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", "SCMerlodeQuillset::Base getCurrentTask");
    return nullptr;
}

void SCMerlodeQuillset::privateCleanup() {}

std::list<snapdevice> SCMerlodeQuillset::getSnapdevlist() {
    return m_snapdevlist;
}

int SCMerlodeQuillset::getIsMountDone() {
    return m_isMountDone;
}

void SCMerlodeQuillset::setIsMountDone(int done) {
    m_isMountDone = done;
}
