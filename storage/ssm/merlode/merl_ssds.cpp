// merlDirectoryService: settings, frame list, technologies.
#include "storage/ssm/merlode/merl_ssds.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <mutex>
#include <new>

#include "liblocal/kv_thread.h"
#include "storage/ssm/merlode/SCQuillsetClone.h"
#include "storage/ssm/merlode/SCQuillsetCow.h"
#include "storage/ssm/merlode/SCQuillsetSnaps.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

static const char* const kFile = "storage/ssm/merlode/merl_ssds";

namespace {
// The module-wide mutex lives while any directory service is initialised: a
// loader with a directory service per thread must not destroy it under
// another thread's prepare, nor leak one per init.
std::mutex g_mtxMerlodeGuard;
int g_mtxMerlodeUsers = 0;
}  // namespace

merlDirectoryService::merlDirectoryService(SSLOG_FUNC_POINTER fpLog, void* logCtx)
    : m_fpLog(fpLog),
      m_logCtx(logCtx),
      m_e(fpLog, logCtx),
      m_numOfSubServ(3),
      m_quillsetContext(nullptr),
      m_makePersistent(0),
      m_runNonSecure(0),
      m_attrlist(nullptr) {
    m_subServTypes[0] = strdup("COW");
    m_subServTypes[1] = strdup("MIRROR");
    m_subServTypes[2] = strdup("KVT-SNAP");
    m_e.logprintf(9, kFile, __LINE__, "END: merlDirectoryService::constructor");
}

void merlDirectoryService::releaseModuleMutex() {
    std::lock_guard<std::mutex> g(g_mtxMerlodeGuard);
    if (!m_holdsModuleMutex) return;
    m_holdsModuleMutex = false;
    if (--g_mtxMerlodeUsers == 0) {
        kv_mutex_destroy(merl_space::mtxMerlode);
        merl_space::mtxMerlode = nullptr;
    }
}

merlDirectoryService::~merlDirectoryService() {
    // A loader that frees without deInit must not leave the count held.
    releaseModuleMutex();
    // All three names are released here: the loader cannot reach the array
    // once the object is gone, and a plug-in must not leak per object.
    for (char*& name : m_subServTypes) {
        free(name);
        name = nullptr;
    }
    delete m_quillsetContext;
    m_quillsetContext = nullptr;
    attrlist_free(m_attrlist);
    m_attrlist = nullptr;
}

SSError* merlDirectoryService::init(attrlist* attrList) {
    static const char* const fname = "merlDirectoryService::init";
    {
        std::lock_guard<std::mutex> g(g_mtxMerlodeGuard);
        if (!m_holdsModuleMutex) {
            if (merl_space::mtxMerlode == nullptr) merl_space::mtxMerlode = kv_mutex_new();
            if (merl_space::mtxMerlode == nullptr)
                return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                                   "%s: Memory allocation error", fname);
            g_mtxMerlodeUsers++;
            m_holdsModuleMutex = true;
        }
    }
    if (attrList == nullptr) return nullptr;

    attrlist_free(m_attrlist);
    m_attrlist = attrlist_dup(attrList);

    // One value may name several frames joined by colons.
    attrlist* frames = attrlist_find(m_attrlist, "FRAME_IP");
    if (frames != nullptr) {
        for (vallist* v = frames->values; v != nullptr; v = v->next) {
            std::string rest(v->value);
            while (!rest.empty()) m_ipaddrlist.push_back(merl_space::nextToken(rest, ":"));
        }
    }
    std::sort(m_ipaddrlist.begin(), m_ipaddrlist.end());
    m_ipaddrlist.erase(std::unique(m_ipaddrlist.begin(), m_ipaddrlist.end()), m_ipaddrlist.end());

    m_e.logprintf(9, kFile, __LINE__, "END: %s", fname);
    return nullptr;
}

SSError* merlDirectoryService::deInit() {
    static const char* const fname = "merlDirectoryService::deInit";
    releaseModuleMutex();
    m_e.logprintf(9, kFile, __LINE__, "END: %s", fname);
    return nullptr;
}

// A subtype this module does not serve; a null one prints as the renderer
// prints a missing text.
SSError* merlDirectoryService::subtypeNotSupported(int line, const char* fname,
                                                   const char* serviceSubType) {
    return m_e.tellerr(kFile, line, nullptr, SS_EC_SNAPSHOT_NOT_SUPPORTED,
                       "%s: Specified storage subsystem type (%s) is not supported", fname,
                       serviceSubType);
}

bool merlDirectoryService::isKnownSubType(const char* serviceSubType) const {
    if (serviceSubType == nullptr) return false;
    return strcasecmp(serviceSubType, "COW") == 0 || strcasecmp(serviceSubType, "MIRROR") == 0 ||
           strcasecmp(serviceSubType, "KVT-SNAP") == 0;
}

SSError* merlDirectoryService::getAPIVersion(const char* serviceSubType, SSAPIVersion& apiVersion) {
    // The small p is the form this operation has always logged under.
    static const char* const fname = "merlDirectoryService::getApiVersion";
    if (!isKnownSubType(serviceSubType))
        return subtypeNotSupported(__LINE__, fname, serviceSubType);
    apiVersion.m_majorVersion = 1;
    apiVersion.m_minorVersion = 1;
    m_e.logprintf(9, kFile, __LINE__, "END: %s", fname);
    return nullptr;
}

SSError* merlDirectoryService::getStorageStackLevel(const char* serviceSubType,
                                                    SSStorageStackLevel& level) {
    static const char* const fname = "merlDirectoryService::getStorageStackLevel";
    if (!isKnownSubType(serviceSubType))
        return subtypeNotSupported(__LINE__, fname, serviceSubType);
    level = SS_LEVEL_DISK;
    m_e.logprintf(9, kFile, __LINE__, "END: %s", fname);
    return nullptr;
}

SSError* merlDirectoryService::querySupportedServiceSubType(char**& subServices, int& num) {
    static const char* const fname = "merlDirectoryService::querySupportedServiceSubType";
    subServices = m_subServTypes;
    num = m_numOfSubServ;
    m_e.logprintf(9, kFile, __LINE__, "END: %s", fname);
    return nullptr;
}

SSError* merlDirectoryService::getServiceInstance(const char* serviceSubType,
                                                  IService*& serviceObj) {
    static const char* const fname = "merlDirectoryService::getServiceInstance";
    if (serviceSubType == nullptr) {
        serviceObj = nullptr;
        return subtypeNotSupported(__LINE__, fname, serviceSubType);
    }
    SSError* err = nullptr;
    IService* obj = nullptr;
    bool known = true;
    if (strcasecmp(serviceSubType, "COW") == 0) {
        m_e.logprintf(5, kFile, __LINE__, "%s : Working on COW type", fname);
        obj = new (std::nothrow) SCQuillsetCow(m_fpLog, m_logCtx);
    } else if (strcasecmp(serviceSubType, "MIRROR") == 0) {
        m_e.logprintf(5, kFile, __LINE__, "%s : Working on Mirror type", fname);
        obj = new (std::nothrow) SCQuillsetClone(m_fpLog, m_logCtx);
    } else if (strcasecmp(serviceSubType, "KVT-SNAP") == 0) {
        m_e.logprintf(5, kFile, __LINE__, "%s : Working on KVT ADVANCE SNAP type", fname);
        obj = new (std::nothrow) SCQuillsetSnaps(m_fpLog, m_logCtx);
    } else {
        // A subtype without a provider in this build, like an unknown one, is
        // passed over: the caller asked querySupportedServiceSubType first.
        known = false;
    }
    if (known && obj == nullptr)
        err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                          "%s: Creation of Merlode Snapshot Control object failed", fname);
    else if (known)
        serviceObj = obj;
    m_e.logprintf(9, kFile, __LINE__, "END: %s", fname);
    return err;
}

SSError* merlDirectoryService::isServiceSupported(SSSource ssSource, const char* serviceSubType,
                                                  attrlist*, int& isSupported) {
    static const char* const fname = "merlDirectoryService::isServiceSupported";
    try {
        std::string source(ssSource != nullptr ? ssSource : "");
        isSupported = 0;
        // The subtype is tested first: an unknown one is a plain "no", even on
        // a host with no frames configured.
        if (!isKnownSubType(serviceSubType)) return nullptr;
        std::lock_guard<std::mutex> context(m_contextMtx);
        if (m_quillsetContext == nullptr) {
            if (m_ipaddrlist.empty())
                return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                                   "%s: Frame IP address(s) missing from environment", fname);
            m_quillsetContext = new (std::nothrow) zov_quillset(m_fpLog, m_logCtx);
            if (m_quillsetContext == nullptr)
                return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                                   "%s: zov_quillset constructor failed", fname);
            // A context whose init failed is kept and used by the next question.
            SSError* err = m_quillsetContext->init(m_ipaddrlist, m_attrlist);
            if (err != nullptr) return err;
        }
        std::string devName;
        SSError* err = m_quillsetContext->normalizeSrc(source, devName);
        if (err != nullptr) {
            m_e.logprintf(3, kFile, __LINE__, "%s: normalizeSrc failed: %s", fname,
                          err->getErrMsg());
            return err;
        }
        if (strcasecmp(serviceSubType, "COW") == 0) {
            m_e.logprintf(9, kFile, __LINE__, "%s: Working on COW type", fname);
            isSupported = m_quillsetContext->isSnappable(devName);
        } else if (strcasecmp(serviceSubType, "MIRROR") == 0) {
            m_e.logprintf(9, kFile, __LINE__, "%s: Working on Mirror type", fname);
            isSupported = m_quillsetContext->isCloneable(devName);
        } else if (strcasecmp(serviceSubType, "KVT-SNAP") == 0) {
            m_e.logprintf(9, kFile, __LINE__, "%s: Working on KVT SNAP type", fname);
            // The group and the mount point are not wanted here.
            std::string cgName, smp;
            isSupported = m_quillsetContext->isKVTSnappable(devName, cgName, smp);
        } else {
            // Unreachable behind the subtype test above; kept for a subtype
            // added there and not here.
            m_e.logprintf(3, kFile, __LINE__,
                          "%s: subtype [%s] is not supported by the Merlode SCM", fname,
                          serviceSubType);
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_SNAPSHOT_NOT_SUPPORTED,
                               "%s: zov_quillset backup object is not on a Merlode LUN.",
                               source.c_str());
        }
        m_e.logprintf(9, kFile, __LINE__, "END: %s", fname);
        return nullptr;
    } catch (...) {
        // The loader's process must never see an exception of ours.
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR, "%s: %s", fname,
                           "Caught unexpected exception.");
    }
}
