// SCMerlodeQuillset: the snapshot service frame the three technologies
// share. Public operations take the object's lock and call a private one;
// every state guard lives in the private operations. One object stands for
// one snapshot; two threads sharing an object are put in a row by its lock.
#pragma once

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "liblocal/kv_types.h"
#include "storage/ssm/client/ISnapshot.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "storage/ssm/merlode/merl_err.h"

// The object's lock. m_count only counts; nothing reads it.
class SCQuillsetLock {
public:
    KVMutex m_mtx;
    int m_count;

    SCQuillsetLock() : m_mtx(nullptr), m_count(0) {}
    ~SCQuillsetLock();
    SSError* init();
    bool lock();
    bool unlock();

private:
    SCQuillsetLock(const SCQuillsetLock&) = delete;
    SCQuillsetLock& operator=(const SCQuillsetLock&) = delete;
};

// The handle in the form the service works with; details_str never holds
// the version tag.
struct SVHandle {
    std::string guid_str;
    std::string details_str;
};

class SCMerlodeQuillset : public ISnapshot {
public:
    SSLOG_FUNC_POINTER m_fpLog;
    void* m_logCtx;
    SVHandle m_handle;
    int m_instanceIsProduction;
    SCQuillsetLock m_mtx;
    zov_quillset* m_quillsetContext;
    std::list<snapdevice> m_snapdevlist;
    std::vector<std::string> m_ipaddrlist;
    int m_haveVersion;
    int m_validVersion;
    int m_usingWWN;
    std::string m_retainOnDelete;
    attrlist* m_attrlist;
    std::string m_handleVersion;
    MerlError m_e;
    std::string m_dataMover;
    SSTaskId m_currentTaskId;
    int m_isMountDone;

    SCMerlodeQuillset(SSLOG_FUNC_POINTER fpLog, void* logCtx);
    ~SCMerlodeQuillset() override;

    // --- the loader's interface ---
    SSError* init(SCInitStruct* initStruct) override;
    SSError* validate(void* arg) override;
    void end() override;
    SSError* getStorageStackLevel(SSStorageStackLevel& level) override;
    SSError* getSnapshotCapabilities(SCSnapshotCapability*& cap) override;
    SSError* getDeviceSnapshotCapabilities(SSSourceList* srcList,
                                           SCSnapshotCapabilityList*& capList) override;
    SSError* getSupportedProviderVersion(SSProviderVersion*& version) override;
    SSError* getSourceList(SSSourceList*& srcList) override;
    SSError* getChangedExtents(const char* source, SSExtentList*& extents) override;
    SCSnapshotState getSnapshotState() override;
    SSError* getSnapshotHandle(SCSnapshotHandle*& handle) override;
    SSError* getSnapshotAccessPath(SSSourceList* srcList, SSSourceList*& accessPaths) override;
    SSError* addComponent(SSSourceList* srcList) override;
    SSError* addComponentWWN(std::vector<std::string> wwns) override;
    SSError* prepareForSnapshot(void* arg, attrlist* attrs, SSTaskId& taskId) override;
    SSError* snapshot(void* arg, SSTaskId& taskId) override;
    SSError* postSnapshot(int status) override;
    SSError* deleteSnapshot() override;
    SSError* rollBack(SSSourceList* srcList, SSExtentList* extents, SSTaskId& taskId) override;
    SSError* restoreTo(SSSourceList* srcList, SSExtentList* srcExtents, SSSourceList* dstList,
                       SSExtentList* dstExtents, SSTaskId& taskId) override;
    SSError* shareTo(SSSourceList* srcList, const char* host) override;
    SSError* mount(SSSourceList* srcList) override;
    SSError* unmount(SSSourceList* srcList) override;
    SSError* getCurrentTask(SSTaskId& taskId) override;
    SSError* getTaskStatus(int taskId, SSTaskStatus& status, SSError*& taskErr) override;
    SSError* cancelTask(int taskId) override;
    SSError* setProviderAttribute(attrlist* attrs) override;
    SSError* setProviderAttribute(const char* name, attrlist* attrs) override;
    SSError* getProviderAttribute(attrlist* in, attrlist*& out) override;
    SSError* getProviderAttribute(const char* name, attrlist* in, attrlist*& out) override;
    const char* getModuleName() override;
    SSError* getSnapProviderUnitProperties(SSSourceList* srcList, attrlist* attrs, attrlist* props,
                                           attrlist*& result) override;

    // --- what each technology provides ---
    virtual SSError* privateValidate(void* arg);
    virtual SSError* privateGetSnapshotCapabilities(SCSnapshotCapability*& cap);
    virtual SSError* privateGetDeviceSnapshotCapabilities(SSSourceList* srcList,
                                                          SCSnapshotCapabilityList*& capList);
    virtual SSError* privatePrepareForSnapshot(void* arg, attrlist* attrs, SSTaskId& taskId);
    virtual SSError* privateSnapshot(void* arg, SSTaskId& taskId);
    virtual SSError* privateDeleteSnapshot();
    virtual SSError* privateMount(SSSourceList* srcList);
    virtual SSError* privateUnmount(SSSourceList* srcList);
    virtual SSError* privateRollbackSnapshot(SSSourceList* srcList, SSExtentList* extents,
                                             SSTaskId& taskId);
    virtual int privateIsSnappable(std::string src);
    virtual SSError* privateGetTaskStatus(int taskId, SSTaskStatus& status, SSError*& taskErr);
    virtual SSError* privateGetCurrentTask(SSTaskId& taskId);
    virtual void privateCleanup();

    std::list<snapdevice> getSnapdevlist();
    int getIsMountDone();
    void setIsMountDone(int done);

    // --- shared by all technologies (initialisation, handles, sources) ---
    SSError* privateInit(SCInitStruct* initStruct);
    SSError* checkVersion();
    SSError* privateGetSnapshotHandle(SCSnapshotHandle*& handle);
    SSError* privateGetSnapProviderUnitProperties(SSSourceList* srcList, attrlist* attrs,
                                                  attrlist* props, attrlist*& result);
    SSError* privateAddComponent(SSSourceList* srcList);
    SSError* privateAddComponentWWN(std::vector<std::string> wwns);
    SSError* privateGetSourceList(SSSourceList*& srcList);
    SSError* privateGetSnapshotAccessPath(SSSourceList* srcList, SSSourceList*& accessPaths);

protected:
    // The error of an operation called in a state it does not allow.
    SSError* illegalState(const char* fname, int line);
    // Builds m_quillsetContext on first need and initialises it.
    SSError* ensureQuillsetContext(const char* fname);
    // "%04d%02d%02d%02d%02d" of the local time, month counted from 0.
    static std::string sessionTimeStamp();
    // A new snapshot identity, in its 53-character text form.
    static std::string newSnapshotIdentity();

    // --- the session technologies' shared steps (SCQuillsetSessionOps.cpp) ---
    // One operation on the array for one source.
    typedef std::function<SSError*(snapdevice&)> SourceOp;
    // The capability all three technologies report; `firstLine`, when not
    // null, is the format of the trace that opens the query (it gets fname
    // and cap).
    SSError* snapshotCapability(const char* fname, const char* firstLine,
                                SCSnapshotCapability*& cap);
    SSError* deviceCapabilities(const char* fname, SSSourceList* srcList,
                                SCSnapshotCapabilityList*& capList);
    // Presents the snapshot of each listed source on this host with
    // `attach`; on a failure the ones presented are taken away with `detach`.
    // `emptyLine` is the trace of a source that got no device (it gets fname,
    // the session and the source). A null list fails unless `nullListMounts`.
    SSError* mountSources(const char* fname, SSSourceList* srcList, const SourceOp& attach,
                          const SourceOp& detach, const char* emptyLine, bool nullListMounts);
    // Takes the listed sources' snapshots away with `detach`; the object is
    // done with its mount whatever the array said.
    SSError* unmountSources(const char* fname, SSSourceList* srcList, const SourceOp& detach);
    // The states a validate may run in: a valid or mounted snapshot, or a
    // mount host's fresh object.
    bool mayValidate() const;
    // The end of a run that made the snapshots: a failure stops every
    // session with `stopAll` and is returned; success makes the snapshot
    // valid.
    SSError* endSnapshot(const char* fname, SSError* err, const std::function<void()>& stopAll);
    // Checks every source's session with `verify` (1 when the array has it);
    // at the first missing one, logs it at `level`, stops every session with
    // `stopAll` and returns the invalid-snapshot error. A mount host's object
    // becomes valid.
    SSError* verifySessions(const char* fname, const std::function<int(const std::string&)>& verify,
                            int level, const std::function<void()>& stopAll);
    // Restores each listed source with `restore`.
    SSError* rollbackSources(const char* fname, SSSourceList* srcList, const SourceOp& restore);

private:
    SCMerlodeQuillset(const SCMerlodeQuillset&) = delete;
    SCMerlodeQuillset& operator=(const SCMerlodeQuillset&) = delete;
};
