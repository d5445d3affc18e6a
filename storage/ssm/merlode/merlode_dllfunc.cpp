// The module's four exported entry points, the only symbols the loader sees.
#include <new>

#include "liblocal/attrlist.h"
#include "liblocal/kv_init.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"
#include "storage/ssm/merlode/merl_ss.h"

#define ZOV_EXPORT extern "C" __attribute__((visibility("default")))

ZOV_EXPORT SSError* instantiateSS(StorageSubsystem*& storageSS) {
    SSError* err = nullptr;
    storageSS = new (std::nothrow) merlStorageSubsystem();
    if (storageSS == nullptr)
        err = merl_space::blderr(nullptr, SS_EC_INSUFFICIENT_MEMORY, "%s: Memory allocation error",
                                 "instantiateSS");
    // The host owns process exit; our exit handlers must never run then.
    kv_atexit_disable();
    return err;
}

ZOV_EXPORT void freeSSObject(SSObject* pObj) {
    delete pObj;
}

ZOV_EXPORT SSAPIVersion getSSAPIVersion() {
    SSAPIVersion v;
    v.m_majorVersion = 1;
    v.m_minorVersion = 1;
    return v;
}

ZOV_EXPORT void freeSSAttrlist(attrlist* attr) {
    attrlist_free(attr);
}
