// merlStorageSubsystem.
#include "storage/ssm/merlode/merl_ss.h"

#include <new>

#include "liblocal/kv_init.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"
#include "storage/ssm/merlode/merl_ssds.h"

static const char* const kFile = "storage/ssm/merlode/merl_ss";

merlStorageSubsystem::merlStorageSubsystem() : m_numOfSuppServices(1) {
    m_suppServices[0] = SS_SERV_SNAPSHOT;
}

merlStorageSubsystem::~merlStorageSubsystem() {}

void merlStorageSubsystem::log(int level, int line, const char* text) {
    if (m_fpLog != nullptr) m_fpLog(level, kFile, line, text, m_logCtx);
}

SSError* merlStorageSubsystem::init(attrlist*, SSLOG_FUNC_POINTER log, void* context) {
    if (log != nullptr) {
        m_fpLog = log;
        m_logCtx = context;
    } else {
        m_fpLog = merl_space::snapLog;
    }
    char app[] = "vmr";
    _kvinit(app, 0, nullptr);
    this->log(9, __LINE__, "END: merlStorageSubsystem::init");
    return nullptr;
}

void merlStorageSubsystem::deInit() {
    log(9, __LINE__, "END: merlStorageSubsystem::deInit");
}

void merlStorageSubsystem::getAPIVersion(SSAPIVersion& apiVersion) {
    apiVersion.m_majorVersion = 1;
    apiVersion.m_minorVersion = 1;
    log(9, __LINE__, "END: merlStorageSubsystem::getAPIVersion");
}

SSError* merlStorageSubsystem::querySupportedServices(SSServiceType*& serviceType, int& num) {
    serviceType = m_suppServices;
    num = m_numOfSuppServices;
    log(9, __LINE__, "END: merlStorageSubsystem::querySupportedServices");
    return nullptr;
}

SSError* merlStorageSubsystem::getDirectoryService(SSServiceType serviceType,
                                                   SSDirectoryService*& serviceFactory) {
    static const char* const fname = "merlStorageSubsystem::getDirectoryService";
    SSError* err = nullptr;
    if (serviceType != SS_SERV_SNAPSHOT) {
        serviceFactory = nullptr;
        err = merl_space::blderr(
            nullptr, SS_EC_SNAPSHOT_NOT_SUPPORTED,
            "%s: Specified Directory Service Type (%d) for Merlode is not supported:", fname,
            static_cast<int>(serviceType));
    } else {
        serviceFactory = new (std::nothrow) merlDirectoryService(m_fpLog, m_logCtx);
        if (serviceFactory == nullptr)
            err = merl_space::blderr(nullptr, SS_EC_INSUFFICIENT_MEMORY,
                                     "%s: Failed to instantiate Service Factory for ZOV Merlode",
                                     fname);
    }
    log(9, __LINE__, "END: merlStorageSubsystem::getDirectoryService");
    return err;
}
