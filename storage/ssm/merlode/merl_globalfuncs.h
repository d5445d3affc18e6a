// The module's free helpers and module-lifetime objects (namespace
// merl_space): the fallback log function, error builders, the tokeniser,
// the package revision table and the module-wide mutex. The functions hold
// no state and are safe on any thread.
#pragma once

#include <stdarg.h>

#include <string>

#include "liblocal/kv_types.h"
#include "storage/ssm/client/SSError.h"
#include "storage/ssm/client/SSTypes.h"

// Host packages whose revision is checked; rows of merl_space::vrInfo.
enum MerlPkgs {
    MERL_PKG_first = 0,
    MERL_PKG_GELMOT = 0,
    MERL_PKG_HADRIPATH = 1,
    MERL_PKG_TILLOCLI = 2,
    MERL_PKG_last = 2,
};

// One row of the package table.
struct validRevisions {
    int m_pkgid;
    std::string m_pkgName;
    std::string m_minRevision;
    std::string m_maxRevision;
};

// What one package turned out to be on this host.
struct pkgRevision {
    int installed;
    int optional;
    MerlPkgs pkgid;
    std::string m_pkgName;
    std::string m_revision;
};

namespace merl_space {

extern validRevisions vrInfo[3];
// Created by merlDirectoryService::init, destroyed by its deInit; taken
// while a snapshot's unique identifier is made.
extern KVMutex mtxMerlode;

void snapLog(int debugLevel, const char* fileName, int lineNum, const char* message, void* context);
SSError* setError(SSError* ep_old, SSErrCode code, const char* msg);
SSError* blderr(SSError* ep_old, SSErrCode code, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
std::string nextToken(std::string& S, const char* delim);

}  // namespace merl_space
