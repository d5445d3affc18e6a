// SCMerlodeQuillset's shared private operations: initialisation from
// attributes or from a stored handle, the handle writer, the tool revision
// check, frame serial numbers, source enrolment and access paths.
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "liblocal/kv_msg.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kvui.h"
#include "storage/ssm/merlode/SCQuillset.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

static const char* const kFile = "storage/ssm/merlode/SCQuillsetpriv";

namespace {

const char* first_value(attrlist* a) {
    return (a != nullptr && a->values != nullptr) ? a->values->value : nullptr;
}

// Frees a list built here when an error stops the building.
void free_list(SSSourceList* head) {
    delete head;
}

}  // namespace

SSError* SCMerlodeQuillset::ensureQuillsetContext(const char* fname) {
    if (m_quillsetContext != nullptr) return nullptr;
    m_quillsetContext = new (std::nothrow) zov_quillset(m_fpLog, m_logCtx);
    if (m_quillsetContext == nullptr)
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                           "%s: zov_quillset constructor failed", fname);
    return m_quillsetContext->init(m_ipaddrlist, m_attrlist);
}

std::string SCMerlodeQuillset::sessionTimeStamp() {
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    char buf[64];
    // The month stays zero-based: the session age survey reads it that way.
    kv_snprintf(buf, sizeof(buf), "%04d%02d%02d%02d%02d", tmv.tm_year + 1900, tmv.tm_mon,
                tmv.tm_mday, tmv.tm_hour, tmv.tm_min);
    return buf;
}

std::string SCMerlodeQuillset::newSnapshotIdentity() {
    kvui_t id;
    char text[128];
    kv_mutex_lock(merl_space::mtxMerlode);
    kvui_create(&id, KVUI_MERLODE, static_cast<uint32_t>(getpid()));
    kv_mutex_unlock(merl_space::mtxMerlode);
    // The long form carries time, counter and hardware address: two
    // snapshots of one process in one minute must get different names.
    kvui_to_string(&id, text, KVUI_FMT_LONG);
    return text;
}

// --- initialisation ----------------------------------------------------------

SSError* SCMerlodeQuillset::privateInit(SCInitStruct* initStruct) {
    static const char* const fname = "SCMerlodeQuillset::privateInit";
    m_e.logprintf(9, kFile, __LINE__, "Entering: %s", fname);
    if (m_state != SSHOT_STATE_UNINIT) return illegalState(fname, __LINE__);
    if (initStruct == nullptr)
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                           "%s: Null init pointer", fname);

    SCSnapshotHandle* h = initStruct->snapshotHandle;
    if (h == nullptr) {
        attrlist* attrs = initStruct->attributes;
        if (attrs != nullptr) {
            attrlist* frames = attrlist_find(attrs, "FRAME_IP");
            for (vallist* v = frames != nullptr ? frames->values : nullptr; v != nullptr;
                 v = v->next) {
                std::string rest(v->value);
                while (!rest.empty()) m_ipaddrlist.push_back(merl_space::nextToken(rest, ":"));
            }

            char onDelete[64];
            kv_snprintf(onDelete, sizeof(onDelete), "%s_%s", "MERL", "ON_DELETE");
            const char* policy = first_value(attrlist_find(attrs, onDelete));
            m_retainOnDelete = "Retain";
            if (policy != nullptr) {
                if (strcasecmp(policy, "RELEASE_RESOURCE") == 0) {
                    m_retainOnDelete = "Release";
                } else if (strcasecmp(policy, "START_STATE") == 0) {
                    m_retainOnDelete = "Start";
                } else if (strcasecmp(policy, "RETAIN_RESOURCE") != 0) {
                    m_e.logprintf(1, kFile, __LINE__,
                                  "%s : Illegal value for MERL_ON_DELETE variable. Defaulting to "
                                  "RETAIN_RESOURCE .",
                                  fname);
                }
            }

            m_dataMover.clear();
            const char* mover = first_value(attrlist_find(attrs, "VMR_DATA_MOVER"));
            if (mover == nullptr)
                return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                                   "%s, Vaultmere Mount Host designation missing from environment",
                                   fname);
            m_dataMover = mover;
        }
        m_instanceIsProduction = 1;
        m_e.logprintf(6, kFile, __LINE__, "Init, handle=NULL");
    } else {
        m_handle.guid_str = h->m_pguid != nullptr ? reinterpret_cast<const char*>(h->m_pguid) : "";
        std::string details =
            h->m_pdetails != nullptr ? reinterpret_cast<const char*>(h->m_pdetails) : "";
        m_e.logprintf(9, kFile, __LINE__, "%s : (TP1) Snapshot handle : [%s], guid [%s]", fname,
                      details.c_str(), m_handle.guid_str.c_str());

        // Whatever the first field says is taken as the tag; the rest is kept
        // so that the handle written back later is the one that was read.
        m_handleVersion = merl_space::nextToken(details, ";");
        m_handle.details_str = details;
        m_e.logprintf(9, kFile, __LINE__, "%s : (TP2) Snapshot handle : %s", fname,
                      m_handle.details_str.c_str());

        if (!details.empty()) {
            std::string frames = merl_space::nextToken(details, ";");
            while (!frames.empty()) m_ipaddrlist.push_back(merl_space::nextToken(frames, ":"));
        }
        while (!details.empty()) {
            std::string record = merl_space::nextToken(details, ";");
            snapdevice sd;
            sd.sessionId = merl_space::nextToken(record, "|");
            sd.srcName = m_handleVersion == "KVTv1" ? merl_space::nextToken(record, "-") : record;
            m_e.logprintf(9, kFile, __LINE__, "%s : (TP2a) Session ID : %s [%s]", fname,
                          sd.sessionId.c_str(), sd.srcName.c_str());
            m_snapdevlist.push_back(sd);
        }
        m_instanceIsProduction = 0;
        m_e.logprintf(6, kFile, __LINE__, "Init, handle = %s", m_handle.guid_str.c_str());
    }

    if (m_ipaddrlist.empty())
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                           "%s: Frame IP address(s) missing from environment", fname);
    SSError* err = ensureQuillsetContext(fname);
    if (err != nullptr) return err;
    m_state = SSHOT_STATE_INIT;
    return nullptr;
}

SSError* SCMerlodeQuillset::checkVersion() {
    static const char* const fname = "SCMerlodeQuillset::checkVersion";
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", fname);
    if (m_haveVersion) {
        if (m_validVersion) return nullptr;
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                           "%s: Invalid Quillset Version", fname);
    }
    if (m_quillsetContext == nullptr)
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR, "%s: Caught internal",
                           fname);

    pkgRevision pkgs[3];
    for (int i = 0; i < 3; i++) {
        pkgs[i].installed = 0;
        pkgs[i].optional = 0;
        pkgs[i].pkgid = static_cast<MerlPkgs>(i);
        pkgs[i].m_pkgName = merl_space::vrInfo[i].m_pkgName;
    }
    SSError* err = m_quillsetContext->getVersions(pkgs, 3);
    if (err != nullptr) return err;

    m_haveVersion = 1;
    m_validVersion = 1;
    for (int i = 0; i < 3; i++) {
        const validRevisions& row = merl_space::vrInfo[i];
        const pkgRevision& p = pkgs[i];
        // Plain text comparison on purpose: revisions are compared as the
        // array's tools have always compared them.
        if (strcmp(p.m_revision.c_str(), row.m_minRevision.c_str()) < 0) {
            if (p.optional && !p.installed) {
                m_e.logprintf(5, kFile, __LINE__, "%s, Note - %s is not installed", fname,
                              p.m_pkgName.c_str());
                continue;
            }
            if (!p.optional) {
                m_validVersion = 0;
                err = m_e.generr(kFile, __LINE__, err, SS_EC_OP_UNSUPPORTED,
                                 "%s: Invalid Quillset Version", fname);
            }
            m_e.logprintf(p.optional ? 5 : 3, kFile, __LINE__,
                          "%s, Warning - Minimum software revision for %s may not have been met, "
                          "revision: %s, minimum: %s",
                          fname, p.m_pkgName.c_str(), p.m_revision.c_str(),
                          row.m_minRevision.c_str());
        } else if (!row.m_maxRevision.empty() &&
                   strcmp(p.m_revision.c_str(), row.m_maxRevision.c_str()) > 0) {
            m_validVersion = 0;
            m_e.logprintf(p.optional ? 5 : 3, kFile, __LINE__,
                          "%s, Warning - Minimum software revision for %s may not have been met, "
                          "revision: %s, minimum: %s",
                          fname, p.m_pkgName.c_str(), p.m_revision.c_str(),
                          row.m_minRevision.c_str());
        } else {
            m_e.logprintf(5, kFile, __LINE__, "%s: pkg:%s rev:%s", fname, p.m_pkgName.c_str(),
                          p.m_revision.c_str());
        }
    }
    return err;
}

// --- handle ------------------------------------------------------------------

SSError* SCMerlodeQuillset::privateGetSnapshotHandle(SCSnapshotHandle*& handle) {
    static const char* const fname = "SCMerlodeQuillset::privateGetSnapshotHandle";
    m_e.logprintf(9, kFile, __LINE__, "Entering %s", fname);
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);

    SCSnapshotHandle* h = new (std::nothrow) SCSnapshotHandle();
    if (h != nullptr) {
        h->m_pguid = reinterpret_cast<unsigned char*>(strdup(m_handle.guid_str.c_str()));
        std::string details = std::string("KVTv1") + ";" + m_handle.details_str;
        m_e.logprintf(9, kFile, __LINE__, "%s : (TP3) Snapshot handle : %s", fname,
                      details.c_str());
        h->m_pdetails = reinterpret_cast<unsigned char*>(strdup(details.c_str()));
        m_e.logprintf(9, kFile, __LINE__, "%s : (TP4) Snapshot handle : %s", fname,
                      details.c_str());
        if (h->m_pguid != nullptr && h->m_pdetails != nullptr) {
            h->m_guidLen = strlen(reinterpret_cast<char*>(h->m_pguid));
            h->m_detailLen = strlen(reinterpret_cast<char*>(h->m_pdetails));
            handle = h;
            return nullptr;
        }
    }
    delete h;
    handle = nullptr;
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                       "%s: Memory allocation error", fname);
}

SSError* SCMerlodeQuillset::privateGetSnapProviderUnitProperties(SSSourceList* srcList, attrlist*,
                                                                 attrlist* props,
                                                                 attrlist*& result) {
    static const char* const fname = "SCMerlodeQuillset::privateGetSnapProviderUnitProperties";
    m_e.logprintf(9, kFile, __LINE__, "Entering: %s", fname);
    if (m_state == SSHOT_STATE_UNINIT || m_state == SSHOT_STATE_ERROR)
        return illegalState(fname, __LINE__);
    SSError* err = ensureQuillsetContext(fname);
    if (err != nullptr) return err;

    bool asked = false;
    for (attrlist* a = props; a != nullptr; a = a->next)
        if (strcmp(a->name, "PROP_UNIT_ID_LIST") == 0) {
            asked = true;
            break;
        }
    if (!asked) return nullptr;

    vallist* serials = nullptr;
    std::string serial;
    for (SSSourceList* s = srcList; s != nullptr; s = s->next) {
        const char* src = s->ssSource != nullptr ? s->ssSource : "";
        std::string devName;
        err = m_quillsetContext->normalizeSrc(src, devName);
        if (err != nullptr) {
            vallist_free(serials);
            return m_e.tellerr(kFile, __LINE__, err, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                               "%s, Unable to find frame serial number for %s", fname, src);
        }
        if (!devName.empty()) serial = m_quillsetContext->getMerlSerialNumber(devName);
        if (serial.empty()) {
            vallist_free(serials);
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                               "%s, Unable to find frame serial number for %s", fname, src);
        }
        vallist_addsort_exact(&serials, serial.c_str());
    }
    result = nullptr;
    attrlist_setlist(&result, "PROP_UNIT_ID_LIST", serials);
    vallist_free(serials);
    return nullptr;
}

// --- sources -----------------------------------------------------------------

SSError* SCMerlodeQuillset::privateAddComponent(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateAddComponent";
    m_e.logprintf(9, kFile, __LINE__, "Entering: %s", fname);
    if (m_state != SSHOT_STATE_INIT && !m_instanceIsProduction)
        return illegalState(fname, __LINE__);
    // A production object whose init failed half-way may still be asked.
    SSError* err = ensureQuillsetContext(fname);
    if (err != nullptr) return err;

    // All or nothing: the list joins the snapshot only if every device passes.
    std::list<snapdevice> adding;
    for (SSSourceList* s = srcList; s != nullptr; s = s->next) {
        snapdevice sd;
        sd.srcName = s->ssSource != nullptr ? s->ssSource : "";
        for (const snapdevice& have : m_snapdevlist)
            if (have.srcName == sd.srcName)
                return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                                   "%s: Device (%s) already in source list", fname,
                                   sd.srcName.c_str());
        std::string devName;
        err = m_quillsetContext->normalizeSrc(sd.srcName, devName);
        if (err != nullptr)
            return m_e.tellerr(kFile, __LINE__, err, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                               "%s: Device (%s) is not snappable", fname, sd.srcName.c_str());
        m_e.logprintf(9, kFile, __LINE__, "%s: DevName is [%s]", fname, devName.c_str());
        if (privateIsSnappable(devName) == 0) {
            m_e.logprintf(9, kFile, __LINE__, "%s: %s ->not snappable", fname, devName.c_str());
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                               "%s: Device (%s) is not snappable", fname, sd.srcName.c_str());
        }
        int lun = m_quillsetContext->getSrcLun(devName);
        if (lun == -1) {
            m_e.logprintf(3, kFile, __LINE__,
                          "%s: Unable to find the LUN number associated with [%s].  Marking source "
                          "[%s] as not snappable",
                          fname, devName.c_str(), sd.srcName.c_str());
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                               "%s: Device (%s) is not snappable", fname, sd.srcName.c_str());
        }
        sd.srcDev.merllun = lun;
        adding.push_back(sd);
    }
    m_snapdevlist.splice(m_snapdevlist.end(), adding);
    return nullptr;
}

SSError* SCMerlodeQuillset::privateAddComponentWWN(std::vector<std::string> wwns) {
    static const char* const fname = "SCMerlodeQuillset::privateAddComponentWWN";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    if (m_state != SSHOT_STATE_INIT && !m_instanceIsProduction)
        return illegalState(fname, __LINE__);
    SSError* err = ensureQuillsetContext(fname);
    if (err != nullptr) return err;

    std::list<snapdevice> adding;
    for (const std::string& wwn : wwns) {
        snapdevice sd;
        sd.srcName = wwn;
        for (const snapdevice& have : m_snapdevlist)
            if (have.srcName == sd.srcName) {
                err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                                  "%s: Device (%s) already in source list", fname, wwn.c_str());
                break;
            }
        if (err != nullptr) break;
        std::string devName = m_quillsetContext->convertWWNToLun(wwn);
        m_e.logprintf(9, kFile, __LINE__, "%s: DevName is [%s]", fname, wwn.c_str());
        // Sources by WWN mean a distributed application; the flag outlives
        // a failed enrolment on purpose.
        m_usingWWN = 1;
        if (privateIsSnappable(devName) == 0) {
            m_e.logprintf(9, kFile, __LINE__, "%s: %s ->not snappable", fname, devName.c_str());
            err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                              "%s: Device (%s) is not snappable", fname, wwn.c_str());
            break;
        }
        int lun = m_quillsetContext->getSrcLun(devName);
        if (lun == -1) {
            m_e.logprintf(3, kFile, __LINE__,
                          "%s: Unable to find the LUN number associated with [%s].  Marking source "
                          "[%s] as not snappable",
                          fname, devName.c_str(), wwn.c_str());
            err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                              "%s: Device (%s) is not snappable", fname, wwn.c_str());
            break;
        }
        sd.srcDev.merllun = lun;
        adding.push_back(sd);
    }
    if (err == nullptr) m_snapdevlist.splice(m_snapdevlist.end(), adding);
    m_e.logprintf(7, kFile, __LINE__, "%s: Exiting", fname);
    return err;
}

SSError* SCMerlodeQuillset::privateGetSourceList(SSSourceList*& srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateGetSourceList";
    m_e.logprintf(9, kFile, __LINE__, "Entering: %s", fname);
    bool allowed = m_state == SSHOT_STATE_VALID || m_state == SSHOT_STATE_READY ||
                   (m_state == SSHOT_STATE_INIT && m_instanceIsProduction);
    if (!allowed) return illegalState(fname, __LINE__);

    SSSourceList* head = nullptr;
    SSSourceList** tail = &head;
    for (const snapdevice& sd : m_snapdevlist) {
        SSSourceList* node = new (std::nothrow) SSSourceList();
        char* name = node != nullptr ? strdup(sd.srcName.c_str()) : nullptr;
        if (name == nullptr) {
            delete node;
            free_list(head);
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                               "%s: Memory allocation error", fname);
        }
        node->ssSource = name;
        *tail = node;
        tail = &node->next;
    }
    // With no sources the caller's pointer is left as it was.
    if (head != nullptr) srcList = head;
    return nullptr;
}

SSError* SCMerlodeQuillset::privateGetSnapshotAccessPath(SSSourceList* srcList,
                                                         SSSourceList*& accessPaths) {
    static const char* const fname = "SCMerlodeQuillset::privateGetSnapshotAccessPath";
    m_e.logprintf(9, kFile, __LINE__, "Entering %s", fname);
    if (m_instanceIsProduction)
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                           "%s: Method not supported on production host", fname);
    if (m_state != SSHOT_STATE_READY) return illegalState(fname, __LINE__);
    accessPaths = nullptr;
    if (srcList == nullptr) return nullptr;

    SSSourceList** tail = &accessPaths;
    std::string failedName;
    bool failed = false;
    SSError* err = nullptr;
    for (SSSourceList* s = srcList; s != nullptr && !failed && err == nullptr; s = s->next) {
        const char* src = s->ssSource != nullptr ? s->ssSource : "";
        bool matched = false;
        for (const snapdevice& sd : m_snapdevlist) {
            if (sd.srcName != src) continue;
            matched = true;
            if (sd.dstName.empty()) {
                failedName = !sd.srcName.empty() ? sd.srcName : "Invalid SRC";
                failed = true;
                break;
            }
            SSSourceList* node = new (std::nothrow) SSSourceList();
            if (node == nullptr || (node->ssSource = strdup(sd.dstName.c_str())) == nullptr) {
                delete node;
                err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                                  "%s: Memory allocation error", fname);
                break;
            }
            *tail = node;
            tail = &node->next;
            m_e.logprintf(9, kFile, __LINE__, "%s: For src->%s<-, dest path is ->%s<-", fname,
                          sd.srcName.c_str(), sd.dstName.c_str());
        }
        if (!matched && !failed && err == nullptr)
            err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                              "%s: Source path (%s) not found in snapshot", fname, src);
    }
    if (failed) {
        // The caller's list is consumed on this path: loaders written for
        // this module do not free it again after this error.
        delete srcList;
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_ACCESS_PATH_NOT_FOUND,
                           "%s, Unable to find snapshot destination to mount for source LUN %s",
                           fname, failedName.c_str());
    }
    return err;
}
