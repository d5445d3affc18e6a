// merlStorageSubsystem: the object instantiateSS hands the loader. It offers
// one service type, snapshots, and makes directory services on request.
// The loader drives one object from one thread at a time.
#pragma once

#include "storage/ssm/client/StorageSubsystem.h"

class merlStorageSubsystem : public StorageSubsystem {
public:
    SSServiceType m_suppServices[1];
    int m_numOfSuppServices;

    merlStorageSubsystem();
    ~merlStorageSubsystem() override;
    SSError* init(attrlist* attrList, SSLOG_FUNC_POINTER log, void* context) override;
    void deInit() override;
    void getAPIVersion(SSAPIVersion& apiVersion) override;
    SSError* querySupportedServices(SSServiceType*& serviceType, int& num) override;
    SSError* getDirectoryService(SSServiceType serviceType,
                                 SSDirectoryService*& serviceFactory) override;

private:
    void log(int level, int line, const char* text);
};
