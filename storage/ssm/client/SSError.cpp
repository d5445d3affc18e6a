// The provider interface's error object.
#include "storage/ssm/client/SSError.h"

#include <string.h>

SSError::SSError() : errorCode(SS_EC_NO_ERROR) {
    memset(&errInfo, 0, sizeof(errInfo));
    // A default error carries a message although its code says no error:
    // loaders print getErrMsg without looking at the code first.
    errinfo* tmp = msg_create(92370, 2, "Untranslated Message: SSError Default Constructor");
    err_dup2(tmp, &errInfo);
    msg_free(tmp);
}

SSError::SSError(SSErrCode code, errinfo& err) : errorCode(code) {
    memset(&errInfo, 0, sizeof(errInfo));
    err_dup2(&err, &errInfo);
}

SSError::SSError(const GenError& ge) : errorCode(ge.getErrCode()) {
    memset(&errInfo, 0, sizeof(errInfo));
    err_dup2(const_cast<errinfo*>(&ge.getErrInfo()), &errInfo);
}

SSError::~SSError() {
    err_free(&errInfo);
}

void SSError::setError(SSErrCode code, errinfo& err) {
    errorCode = code;
    if (&err == &errInfo) return;  // copying onto itself would free the source first
    err_free(&errInfo);
    memset(&errInfo, 0, sizeof(errInfo));
    err_dup2(&err, &errInfo);
}

void SSError::setErrCode(SSErrCode code) {
    errorCode = code;
}

const char* SSError::getErrMsg() const {
    return errInfo.errstr != nullptr ? errInfo.errstr : "NULL";
}

errinfo& SSError::getErrInfo() {
    return errInfo;
}

SSErrCode SSError::getErrCode() const {
    return errorCode;
}

void SSError::reset() {
    errorCode = SS_EC_NO_ERROR;
    err_free(&errInfo);
}

SSErrCode SSError::getNoErrorCode() const {
    return SS_EC_NO_ERROR;
}

void SSError::dupErrorTo(SSError& target) {
    target.setError(errorCode, errInfo);
}
