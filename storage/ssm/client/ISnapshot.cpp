// The interface's own bodies for operations no provider of this module offers.
#include "storage/ssm/client/ISnapshot.h"

#include <string.h>

namespace {
SSError* unsupported(int msgId, const char* text) {
    errinfo* m = msg_create(msgId, 5, text);
    SSError* e = new SSError(SS_EC_OP_UNSUPPORTED, *m);
    msg_free(m);
    return e;
}
}  // namespace

SSError* ISnapshot::getRollbackSourceList(SSSourceList*&, SSSourceList*&, int&) {
    return unsupported(308, "Operation not supported");
}

int ISnapshot::SCSnapshotHandleChgAtImport() {
    return 0;
}

SSError* ISnapshot::getClientSrcList(SSSourceList*&) {
    return unsupported(308, "Operation not supported");
}

SSError* ISnapshot::initSnapshot(void*, SSTaskId&) {
    return unsupported(308, "Operation not supported");
}

SSError* ISnapshot::getMirrorChoices(attrlist*, attrlist*&, errinfo& info) {
    memset(&info, 0, sizeof(info));
    return unsupported(92430, "Operation \"getMirrorChoices\" is not supported");
}

SSError* ISnapshot::isFilesystemSupported(std::string, int&) {
    return unsupported(92431, "Operation \"isFilesystemSupported\" is not supported");
}
