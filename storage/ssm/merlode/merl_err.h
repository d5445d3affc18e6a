// MerlError: the log and error helper that nearly every class of the module
// holds. It keeps only the loader's log pair and may be copied freely.
#pragma once

#include <stdarg.h>

#include "storage/ssm/client/SSError.h"
#include "storage/ssm/client/SSTypes.h"

class MerlError {
public:
    SSLOG_FUNC_POINTER m_fpLog;
    void* m_logCtx;

    MerlError(SSLOG_FUNC_POINTER fpLog, void* logCtx) : m_fpLog(fpLog), m_logCtx(logCtx) {}

    void logprintf(int debugLevel, const char* fileName, int lineNum, const char* format, ...)
        __attribute__((format(printf, 5, 6)));
    // Builds an error; with an existing `ep` its code and text are replaced
    // in place and the same pointer comes back.
    SSError* generr(const char* fileName, int lineNum, SSError* ep, SSErrCode code,
                    const char* format, ...) __attribute__((format(printf, 6, 7)));
    // generr, and the text is logged at level 3.
    SSError* tellerr(const char* fileName, int lineNum, SSError* ep, SSErrCode code,
                     const char* format, ...) __attribute__((format(printf, 6, 7)));
    SSError* tellerrLvl(int debugLevel, const char* fileName, int lineNum, SSError* ep,
                        SSErrCode code, const char* format, ...)
        __attribute__((format(printf, 7, 8)));

private:
    SSError* generr_internal(const char* fileName, int lineNum, SSError* ep, SSErrCode code,
                             const char* format, va_list ap);
    void log(int debugLevel, const char* fileName, int lineNum, const char* text);
    // Logs an error's text at the level and hands the error back.
    SSError* logged(int debugLevel, const char* fileName, int lineNum, SSError* e);
};
