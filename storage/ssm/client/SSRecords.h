// Records of the provider interface that carry data across the boundary:
// source lists, snapshot handles, init records, capabilities, versions.
// Layouts are shared with the loader. Not thread-safe.
#pragma once

#include <stddef.h>

#include "liblocal/attrlist.h"
#include "storage/ssm/client/SSObject.h"
#include "storage/ssm/client/SSTypes.h"

// Singly linked list of device names; each node owns its name (strdup) and
// the rest of the chain (new).
class SSSourceList : public SSObject {
public:
    SSSourceList* next;
    SSSource ssSource;

    SSSourceList();
    ~SSSourceList() override;
    // Kept as the interface has it: walks to the tail and adds nothing.
    void append(SSSourceList* list);
};

// Opaque in the interface; the module never looks inside.
class SSExtentList;

// The persistable identity of a snapshot: two texts.
class SCSnapshotHandle : public SSObject {
public:
    unsigned char* m_pguid;
    size_t m_guidLen;
    unsigned char* m_pdetails;
    size_t m_detailLen;
    int m_pdetailsChgAtImport;

    SCSnapshotHandle();
    // REQUIRES: other holds both texts.
    explicit SCSnapshotHandle(const SCSnapshotHandle* other);
    ~SCSnapshotHandle() override;

private:
    SCSnapshotHandle(const SCSnapshotHandle&) = delete;
    SCSnapshotHandle& operator=(const SCSnapshotHandle&) = delete;
};

// What a service's init receives; both members stay the caller's.
class SCInitStruct : public SSObject {
public:
    SCSnapshotHandle* snapshotHandle;
    attrlist* attributes;

    SCInitStruct() : snapshotHandle(nullptr), attributes(nullptr) {}
    ~SCInitStruct() override {}
};

class SCSnapshotCapability : public SSObject {
public:
    SCSnapTechnology snapTech;
    int isRollBackSupported;
    int isBlockRemapSupported;
    int isExtentBasedRollBackSupported;
    unsigned int maxSnapshotsPerSource;
    unsigned int maxSnapshotsPerSystem;
    int isAccessibleFromAnotherHost;

    SCSnapshotCapability()
        : snapTech(SC_SPLIT_MIRROR),
          isRollBackSupported(0),
          isBlockRemapSupported(0),
          isExtentBasedRollBackSupported(0),
          maxSnapshotsPerSource(0),
          maxSnapshotsPerSystem(0),
          isAccessibleFromAnotherHost(0) {}
    ~SCSnapshotCapability() override {}
};

// A node owns its capability and the rest of the chain.
class SCSnapshotCapabilityList : public SSObject {
public:
    SCSnapshotCapabilityList* next;
    SCSnapshotCapability* pCap;

    SCSnapshotCapabilityList() : next(nullptr), pCap(nullptr) {}
    ~SCSnapshotCapabilityList() override;
};

class SSProviderVersion : public SSObject {
public:
    char* product;
    int majorVersion;
    int minorVersion;
    int patchNum;
    char* extendedVersionInfo;

    SSProviderVersion()
        : product(nullptr),
          majorVersion(0),
          minorVersion(0),
          patchNum(0),
          extendedVersionInfo(nullptr) {}
    ~SSProviderVersion() override;
};
