// The snapshot service interface the loader drives: IService, the root of
// services, and ISnapshot with its virtual slots in the order shared with
// the loader. One object stands for one snapshot on one host.
#pragma once

#include <string>
#include <vector>

#include "liblocal/attrlist.h"
#include "liblocal/kv_msg.h"
#include "storage/ssm/client/SSError.h"
#include "storage/ssm/client/SSObject.h"
#include "storage/ssm/client/SSRecords.h"
#include "storage/ssm/client/SSTypes.h"

class IService : public SSObject {
public:
    ~IService() override {}
};

class ISnapshot : public IService {
public:
    SCSnapshotHandle* m_snapshotHandle;  // part of the interface; not used by this module
    attrlist* m_attributes;              // set by setProviderAttribute
    SCSnapshotState m_state;

    ISnapshot() : m_snapshotHandle(nullptr), m_attributes(nullptr), m_state(SSHOT_STATE_UNINIT) {}
    ~ISnapshot() override {}

    virtual SSError* init(SCInitStruct* initStruct) = 0;
    virtual SSError* validate(void* arg) = 0;
    virtual void end() = 0;
    virtual SSError* getStorageStackLevel(SSStorageStackLevel& level) = 0;
    virtual SSError* getSnapshotCapabilities(SCSnapshotCapability*& cap) = 0;
    virtual SSError* getDeviceSnapshotCapabilities(SSSourceList* srcList,
                                                   SCSnapshotCapabilityList*& capList) = 0;
    virtual SSError* getSupportedProviderVersion(SSProviderVersion*& version) = 0;
    virtual SSError* getSourceList(SSSourceList*& srcList) = 0;
    virtual SSError* getRollbackSourceList(SSSourceList*& srcList, SSSourceList*& impacted,
                                           int& flag);
    virtual SSError* getChangedExtents(const char* source, SSExtentList*& extents) = 0;
    virtual int SCSnapshotHandleChgAtImport();
    virtual SCSnapshotState getSnapshotState() = 0;
    virtual SSError* getSnapshotHandle(SCSnapshotHandle*& handle) = 0;
    virtual SSError* getSnapshotAccessPath(SSSourceList* srcList, SSSourceList*& accessPaths) = 0;
    virtual SSError* getClientSrcList(SSSourceList*& srcList);
    virtual SSError* initSnapshot(void* arg, SSTaskId& taskId);
    virtual SSError* addComponent(SSSourceList* srcList) = 0;
    virtual SSError* addComponentWWN(std::vector<std::string> wwns) = 0;
    virtual SSError* prepareForSnapshot(void* arg, attrlist* attrs, SSTaskId& taskId) = 0;
    virtual SSError* snapshot(void* arg, SSTaskId& taskId) = 0;
    virtual SSError* postSnapshot(int status) = 0;
    virtual SSError* deleteSnapshot() = 0;
    virtual SSError* rollBack(SSSourceList* srcList, SSExtentList* extents, SSTaskId& taskId) = 0;
    virtual SSError* restoreTo(SSSourceList* srcList, SSExtentList* srcExtents,
                               SSSourceList* dstList, SSExtentList* dstExtents,
                               SSTaskId& taskId) = 0;
    virtual SSError* shareTo(SSSourceList* srcList, const char* host) = 0;
    virtual SSError* mount(SSSourceList* srcList) = 0;
    virtual SSError* unmount(SSSourceList* srcList) = 0;
    virtual SSError* getCurrentTask(SSTaskId& taskId) = 0;
    virtual SSError* getTaskStatus(int taskId, SSTaskStatus& status, SSError*& taskErr) = 0;
    virtual SSError* cancelTask(int taskId) = 0;
    virtual SSError* setProviderAttribute(attrlist* attrs) = 0;
    virtual SSError* setProviderAttribute(const char* name, attrlist* attrs) = 0;
    virtual SSError* getProviderAttribute(attrlist* in, attrlist*& out) = 0;
    virtual SSError* getProviderAttribute(const char* name, attrlist* in, attrlist*& out) = 0;
    virtual const char* getModuleName() = 0;
    virtual SSError* getSnapProviderUnitProperties(SSSourceList* srcList, attrlist* attrs,
                                                   attrlist* props, attrlist*& result) = 0;
    virtual SSError* getMirrorChoices(attrlist* in, attrlist*& out, errinfo& info);
    virtual SSError* isFilesystemSupported(std::string fsType, int& supported);
};
