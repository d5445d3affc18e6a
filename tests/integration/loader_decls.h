// The provider interface as a loader transcribes it from its declarations
// alone: records, classes and virtual slots in the fixed order, with no
// header and no code of the module. Objects the loader makes itself (source
// lists, handles, init records) carry the loader's own bodies.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

namespace ldr {

struct vallist {
    vallist* next;
    char value[1];
};
struct attrlist {
    attrlist* next;
    vallist* values;
    char name[65];
};
struct argtuple {
    int argdesc;
    char* arg;
};
struct errinfo {
    int errnum;
    char* errstr;
    uint64_t timestamp;
    int threadID;
    int processID;
    int activityID;
    char hostName[64];
    char* programName;
    int MsgId;
    char* form;
    int argcount;
    argtuple** arglist;
};
struct SSAPIVersion {
    int m_majorVersion;
    int m_minorVersion;
};
typedef void (*LogFn)(int, const char*, int, const char*, void*);
typedef int SSTaskId;

enum State {
    UNINIT = 1,
    INIT,
    PREPARE_IN_PROGRESS,
    PREPARED,
    SNAP_IN_PROGRESS,
    VALID,
    READY,
    ERROR
};

class SSObject {
public:
    virtual ~SSObject() {}
};
class SSError : public SSObject {
public:
    int errorCode;
    errinfo errInfo;
};

class SSSourceList : public SSObject {
public:
    SSSourceList* next = nullptr;
    char* ssSource = nullptr;
    ~SSSourceList() override {
        free(ssSource);
        delete next;
    }
};
class SSExtentList;

class SCSnapshotHandle : public SSObject {
public:
    unsigned char* m_pguid = nullptr;
    size_t m_guidLen = 0;
    unsigned char* m_pdetails = nullptr;
    size_t m_detailLen = 0;
    int m_pdetailsChgAtImport = 0;
    ~SCSnapshotHandle() override {
        free(m_pguid);
        free(m_pdetails);
    }
};
class SCInitStruct : public SSObject {
public:
    SCSnapshotHandle* snapshotHandle = nullptr;
    attrlist* attributes = nullptr;
};
class SCSnapshotCapability : public SSObject {
public:
    int snapTech;
    int isRollBackSupported;
    int isBlockRemapSupported;
    int isExtentBasedRollBackSupported;
    unsigned int maxSnapshotsPerSource;
    unsigned int maxSnapshotsPerSystem;
    int isAccessibleFromAnotherHost;
};
class SCSnapshotCapabilityList : public SSObject {
public:
    SCSnapshotCapabilityList* next;
    SCSnapshotCapability* pCap;
};
class SSProviderVersion : public SSObject {
public:
    char* product;
    int majorVersion;
    int minorVersion;
    int patchNum;
    char* extendedVersionInfo;
};

class IService : public SSObject {};

class ISnapshot : public IService {
public:
    SCSnapshotHandle* m_snapshotHandle;
    attrlist* m_attributes;
    int m_state;

    virtual SSError* init(SCInitStruct*) = 0;
    virtual SSError* validate(void*) = 0;
    virtual void end() = 0;
    virtual SSError* getStorageStackLevel(int&) = 0;
    virtual SSError* getSnapshotCapabilities(SCSnapshotCapability*&) = 0;
    virtual SSError* getDeviceSnapshotCapabilities(SSSourceList*, SCSnapshotCapabilityList*&) = 0;
    virtual SSError* getSupportedProviderVersion(SSProviderVersion*&) = 0;
    virtual SSError* getSourceList(SSSourceList*&) = 0;
    virtual SSError* getRollbackSourceList(SSSourceList*&, SSSourceList*&, int&) = 0;
    virtual SSError* getChangedExtents(const char*, SSExtentList*&) = 0;
    virtual int SCSnapshotHandleChgAtImport() = 0;
    virtual int getSnapshotState() = 0;
    virtual SSError* getSnapshotHandle(SCSnapshotHandle*&) = 0;
    virtual SSError* getSnapshotAccessPath(SSSourceList*, SSSourceList*&) = 0;
    virtual SSError* getClientSrcList(SSSourceList*&) = 0;
    virtual SSError* initSnapshot(void*, SSTaskId&) = 0;
    virtual SSError* addComponent(SSSourceList*) = 0;
    virtual SSError* addComponentWWN(std::vector<std::string>) = 0;
    virtual SSError* prepareForSnapshot(void*, attrlist*, SSTaskId&) = 0;
    virtual SSError* snapshot(void*, SSTaskId&) = 0;
    virtual SSError* postSnapshot(int) = 0;
    virtual SSError* deleteSnapshot() = 0;
    virtual SSError* rollBack(SSSourceList*, SSExtentList*, SSTaskId&) = 0;
    virtual SSError* restoreTo(SSSourceList*, SSExtentList*, SSSourceList*, SSExtentList*,
                               SSTaskId&) = 0;
    virtual SSError* shareTo(SSSourceList*, const char*) = 0;
    virtual SSError* mount(SSSourceList*) = 0;
    virtual SSError* unmount(SSSourceList*) = 0;
    virtual SSError* getCurrentTask(SSTaskId&) = 0;
    virtual SSError* getTaskStatus(int, int&, SSError*&) = 0;
    virtual SSError* cancelTask(int) = 0;
    virtual SSError* setProviderAttribute(attrlist*) = 0;
    virtual SSError* setProviderAttribute(const char*, attrlist*) = 0;
    virtual SSError* getProviderAttribute(attrlist*, attrlist*&) = 0;
    virtual SSError* getProviderAttribute(const char*, attrlist*, attrlist*&) = 0;
    virtual const char* getModuleName() = 0;
    virtual SSError* getSnapProviderUnitProperties(SSSourceList*, attrlist*, attrlist*,
                                                   attrlist*&) = 0;
    virtual SSError* getMirrorChoices(attrlist*, attrlist*&, errinfo&) = 0;
    virtual SSError* isFilesystemSupported(std::string, int&) = 0;
};

class SSDirectoryService : public SSObject {
public:
    virtual SSError* init(attrlist*) = 0;
    virtual SSError* deInit() = 0;
    virtual SSError* getAPIVersion(const char*, SSAPIVersion&) = 0;
    virtual SSError* getStorageStackLevel(const char*, int&) = 0;
    virtual SSError* querySupportedServiceSubType(char**&, int&) = 0;
    virtual SSError* getServiceInstance(const char*, IService*&) = 0;
    virtual SSError* isServiceSupported(char*, const char*, attrlist*, int&) = 0;
    virtual SSError* setServiceAttributes(const char*, attrlist*) = 0;
    virtual SSError* getServiceAttributes(const char*, attrlist*, attrlist*&) = 0;
    virtual SSError* getSourceAttributes(const char*, attrlist*, attrlist*&) = 0;
};
class StorageSubsystem : public SSObject {
public:
    LogFn m_fpLog;
    void* m_logCtx;
    virtual SSError* init(attrlist*, LogFn, void*) = 0;
    virtual void deInit() = 0;
    virtual void getAPIVersion(SSAPIVersion&) = 0;
    virtual SSError* querySupportedServices(int*&, int&) = 0;
    virtual SSError* getDirectoryService(int, SSDirectoryService*&) = 0;
};

// An attribute in the record layout: one allocation per node, text inline.
inline attrlist* make_attr(const char* name, const std::vector<std::string>& values) {
    attrlist* a = static_cast<attrlist*>(calloc(1, offsetof(attrlist, name) + strlen(name) + 1));
    strcpy(a->name, name);
    vallist** tail = &a->values;
    for (const std::string& v : values) {
        vallist* n = static_cast<vallist*>(calloc(1, offsetof(vallist, value) + v.size() + 1));
        strcpy(n->value, v.c_str());
        *tail = n;
        tail = &n->next;
    }
    return a;
}
inline void free_attrs(attrlist* a) {
    while (a != nullptr) {
        attrlist* next = a->next;
        for (vallist* v = a->values; v != nullptr;) {
            vallist* n = v->next;
            free(v);
            v = n;
        }
        free(a);
        a = next;
    }
}

inline SSSourceList* make_sources(const std::vector<std::string>& names) {
    SSSourceList* head = nullptr;
    SSSourceList** tail = &head;
    for (const std::string& n : names) {
        *tail = new SSSourceList;
        (*tail)->ssSource = strdup(n.c_str());
        tail = &(*tail)->next;
    }
    return head;
}

inline std::vector<std::string> names_of(const SSSourceList* l) {
    std::vector<std::string> v;
    for (; l != nullptr; l = l->next) v.push_back(l->ssSource != nullptr ? l->ssSource : "");
    return v;
}

}  // namespace ldr
