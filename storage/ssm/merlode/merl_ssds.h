// merlDirectoryService: holds the module's settings (frame addresses, the
// loader's attributes), names the three technologies, answers whether a
// device can be snapped and makes service objects. The loader puts one
// question at a time to an object.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "storage/ssm/client/StorageSubsystem.h"
#include "storage/ssm/merlode/merl_err.h"

class zov_quillset;

class merlDirectoryService : public SSDirectoryService {
public:
    SSLOG_FUNC_POINTER m_fpLog;
    void* m_logCtx;
    MerlError m_e;
    char* m_subServTypes[3];
    int m_numOfSubServ;
    zov_quillset* m_quillsetContext;
    std::vector<std::string> m_ipaddrlist;  // sorted, no duplicates: the order frames are tried
    int m_makePersistent;
    int m_runNonSecure;
    attrlist* m_attrlist;

    merlDirectoryService(SSLOG_FUNC_POINTER fpLog, void* logCtx);
    ~merlDirectoryService() override;

    SSError* init(attrlist* attrList) override;
    SSError* deInit() override;
    SSError* getAPIVersion(const char* serviceSubType, SSAPIVersion& apiVersion) override;
    SSError* getStorageStackLevel(const char* serviceSubType, SSStorageStackLevel& level) override;
    SSError* querySupportedServiceSubType(char**& subServices, int& num) override;
    SSError* getServiceInstance(const char* serviceSubType, IService*& serviceObj) override;
    SSError* isServiceSupported(SSSource ssSource, const char* serviceSubType, attrlist* inAttrList,
                                int& isSupported) override;

private:
    bool isKnownSubType(const char* serviceSubType) const;
    SSError* subtypeNotSupported(int line, const char* fname, const char* serviceSubType);
    void releaseModuleMutex();
    bool m_holdsModuleMutex = false;  // this object counts as a user of mtxMerlode
    // Threads sharing the directory service take turns with its command
    // context: its making on first need and every question put to it.
    std::mutex m_contextMtx;
};
