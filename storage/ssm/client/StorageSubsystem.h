// The storage subsystem and directory service interfaces that the loader
// drives. Slot order and field order are shared with the loader.
#pragma once

#include "liblocal/attrlist.h"
#include "storage/ssm/client/SSError.h"
#include "storage/ssm/client/SSObject.h"
#include "storage/ssm/client/SSTypes.h"

class IService;

class SSDirectoryService;

class StorageSubsystem : public SSObject {
public:
    SSLOG_FUNC_POINTER m_fpLog;
    void* m_logCtx;

    StorageSubsystem() : m_fpLog(nullptr), m_logCtx(nullptr) {}
    ~StorageSubsystem() override {}
    virtual SSError* init(attrlist* attrList, SSLOG_FUNC_POINTER log, void* context) = 0;
    virtual void deInit() = 0;
    virtual void getAPIVersion(SSAPIVersion& apiVersion) = 0;
    virtual SSError* querySupportedServices(SSServiceType*& serviceType, int& num) = 0;
    virtual SSError* getDirectoryService(SSServiceType serviceType,
                                         SSDirectoryService*& serviceFactory) = 0;
};

class SSDirectoryService : public SSObject {
public:
    ~SSDirectoryService() override {}
    virtual SSError* init(attrlist* attrList) = 0;
    virtual SSError* deInit() = 0;
    virtual SSError* getAPIVersion(const char* serviceSubType, SSAPIVersion& apiVersion) = 0;
    virtual SSError* getStorageStackLevel(const char* serviceSubType,
                                          SSStorageStackLevel& level) = 0;
    virtual SSError* querySupportedServiceSubType(char**& subServices, int& num) = 0;
    virtual SSError* getServiceInstance(const char* serviceSubType, IService*& serviceObj) = 0;
    virtual SSError* isServiceSupported(SSSource ssSource, const char* serviceSubType,
                                        attrlist* inAttrList, int& isSupported) = 0;
    virtual SSError* setServiceAttributes(const char* serviceSubType, attrlist* attrs);
    virtual SSError* getServiceAttributes(const char* serviceSubType, attrlist* inAttrs,
                                          attrlist*& outAttrs);
    virtual SSError* getSourceAttributes(const char* source, attrlist* inAttrs,
                                         attrlist*& outAttrs);
};
