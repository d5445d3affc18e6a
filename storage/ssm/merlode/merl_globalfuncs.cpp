// merl_space: fallback logging, error builders, tokeniser, package table.
#include "storage/ssm/merlode/merl_globalfuncs.h"

#include <stdlib.h>

#include "liblocal/kv_msg.h"

namespace merl_space {

validRevisions vrInfo[3] = {
    {MERL_PKG_GELMOT, "GELMOT", "V2.30.0", ""},
    {MERL_PKG_HADRIPATH, "ZOVhadrix", "3.0.0", ""},
    {MERL_PKG_TILLOCLI, "TILLOCLI", "7.30.0.0.0", ""},
};

KVMutex mtxMerlode = nullptr;

void snapLog(int, const char* fileName, int lineNum, const char* message, void*) {
    msg_print(0, 0, 2, "%s:%d : %s\n", 0, fileName != nullptr ? fileName : "", 1, inttostr(lineNum),
              0, message != nullptr ? message : "");
}

SSError* setError(SSError* ep_old, SSErrCode code, const char* msg) {
    delete ep_old;
    if (code == SS_EC_NO_ERROR) return nullptr;
    errinfo* m = msg_create(6211, 55000, "%s", 0, msg != nullptr ? msg : "");
    if (m == nullptr) return nullptr;
    SSError* e = new SSError(code, *m);
    msg_free(m);
    return e;
}

SSError* blderr(SSError* ep_old, SSErrCode code, const char* format, ...) {
    char* text = nullptr;
    va_list ap;
    va_start(ap, format);
    i18n_vsprintf(nullptr, &text, format, ap);
    va_end(ap);
    SSError* e = setError(ep_old, code, text != nullptr ? text : "");
    free(text);
    return e;
}

std::string nextToken(std::string& S, const char* delim) {
    // An empty delimiter would be "found" everywhere and never consume text.
    if (delim == nullptr || *delim == '\0') {
        std::string all;
        all.swap(S);
        return all;
    }
    // Leading delimiters are skipped one character at a time; a loop rather
    // than the recursion it amounts to, so a long run cannot exhaust the stack.
    for (;;) {
        std::string::size_type pos = S.find(delim);
        if (pos == std::string::npos) {
            std::string all;
            all.swap(S);
            return all;
        }
        if (pos == 0) {
            S.erase(0, 1);
            continue;
        }
        std::string token = S.substr(0, pos);
        S.erase(0, pos + 1);
        return token;
    }
}

}  // namespace merl_space
