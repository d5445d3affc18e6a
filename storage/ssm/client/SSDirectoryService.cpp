// Bodies of the directory service's attribute operations that a provider
// may keep as they are.
#include "storage/ssm/client/StorageSubsystem.h"

SSError* SSDirectoryService::setServiceAttributes(const char*, attrlist*) {
    return nullptr;
}

SSError* SSDirectoryService::getServiceAttributes(const char*, attrlist*, attrlist*& outAttrs) {
    outAttrs = nullptr;
    return nullptr;
}

SSError* SSDirectoryService::getSourceAttributes(const char*, attrlist*, attrlist*&) {
    errinfo* msg = msg_create(0, 2, "Snap Provider Error : %s", 0,
                              "No source attributes supported for this vendor.");
    SSError* e = new SSError(SS_EC_SNAP_PROVIDER_ERROR, *msg);
    msg_free(msg);
    return e;
}
