// MerlError: logging through the loader's function and error building.
#include "storage/ssm/merlode/merl_err.h"

#include <stdlib.h>

#include "liblocal/kv_msg.h"

void MerlError::log(int debugLevel, const char* fileName, int lineNum, const char* text) {
    // The subsystem's constructor leaves the log function unset until init.
    if (m_fpLog != nullptr) m_fpLog(debugLevel, fileName, lineNum, text, m_logCtx);
}

void MerlError::logprintf(int debugLevel, const char* fileName, int lineNum, const char* format,
                          ...) {
    char* text = nullptr;
    va_list ap;
    va_start(ap, format);
    i18n_vsprintf(nullptr, &text, format, ap);
    va_end(ap);
    if (text == nullptr) return;
    log(debugLevel, fileName, lineNum, text);
    free(text);
}

SSError* MerlError::generr_internal(const char*, int, SSError* ep, SSErrCode code,
                                    const char* format, va_list ap) {
    char* text = nullptr;
    i18n_vsprintf(nullptr, &text, format, ap);
    if (text == nullptr) return ep;
    errinfo* m = msg_create(6211, 2, "%s", 0, text);
    free(text);
    if (m == nullptr) return ep;
    if (ep == nullptr) {
        ep = new SSError(code, *m);
    } else {
        ep->setError(code, *m);
    }
    msg_free(m);
    return ep;
}

SSError* MerlError::generr(const char* fileName, int lineNum, SSError* ep, SSErrCode code,
                           const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    SSError* e = generr_internal(fileName, lineNum, ep, code, format, ap);
    va_end(ap);
    return e;
}

SSError* MerlError::tellerr(const char* fileName, int lineNum, SSError* ep, SSErrCode code,
                            const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    SSError* e = generr_internal(fileName, lineNum, ep, code, format, ap);
    va_end(ap);
    return logged(3, fileName, lineNum, e);
}

SSError* MerlError::tellerrLvl(int debugLevel, const char* fileName, int lineNum, SSError* ep,
                               SSErrCode code, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    SSError* e = generr_internal(fileName, lineNum, ep, code, format, ap);
    va_end(ap);
    return logged(debugLevel, fileName, lineNum, e);
}

SSError* MerlError::logged(int debugLevel, const char* fileName, int lineNum, SSError* e) {
    if (e != nullptr) log(debugLevel, fileName, lineNum, e->getErrMsg());
    return e;
}
