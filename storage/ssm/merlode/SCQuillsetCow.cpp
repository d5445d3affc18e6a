// SCQuillsetCow: COW sessions started, verified, activated, deactivated,
// rolled back and stopped through the command layer.
#include "storage/ssm/merlode/SCQuillsetCow.h"

#include <stdio.h>

#include <map>
#include <new>

#include "liblocal/kv_msg.h"

static const char* const kFile = "storage/ssm/merlode/SCQuillsetCow";

namespace {

void fill_cow_capability(SCSnapshotCapability* c) {
    c->snapTech = SC_COW;
    c->isRollBackSupported = 1;
    c->isBlockRemapSupported = 0;
    c->isExtentBasedRollBackSupported = 0;
    c->maxSnapshotsPerSource = 8;
    c->maxSnapshotsPerSystem = 1600;
    c->isAccessibleFromAnotherHost = 1;
}

const char* name_of(SSSourceList* s) {
    return (s != nullptr && s->ssSource != nullptr) ? s->ssSource : "";
}

}  // namespace

int SCQuillsetCow::privateIsSnappable(std::string src) {
    m_e.logprintf(9, kFile, __LINE__, "Inside the Cow object ");
    return m_quillsetContext != nullptr ? m_quillsetContext->isSnappable(src) : 0;
}

SSError* SCQuillsetCow::privatePrepareForSnapshot(void*, attrlist*, SSTaskId&) {
    static const char* const fname = "SCMerlodeQuillset::privatePrepareForSnapshot";
    m_e.logprintf(7, kFile, __LINE__, "%s: Entering", fname);
    if (m_state != SSHOT_STATE_INIT && !m_instanceIsProduction)
        return illegalState(fname, __LINE__);

    m_handle.guid_str = newSnapshotIdentity();
    std::string base = m_handle.guid_str + "-" + sessionTimeStamp();

    for (const std::string& ip : m_ipaddrlist) {
        if (!m_handle.details_str.empty()) m_handle.details_str += ":";
        m_handle.details_str += ip;
    }
    unsigned index = 0;
    for (snapdevice& sd : m_snapdevlist) {
        m_e.logprintf(9, kFile, __LINE__, "%s: the source LUN is [%s]", fname, sd.srcName.c_str());
        char idx[16];
        kv_snprintf(idx, sizeof(idx), "%04X", index++);
        sd.sessionId = base + idx;
        m_handle.details_str += ";" + sd.sessionId + "|" + sd.srcName;
    }
    m_e.logprintf(7, kFile, __LINE__, "snapshot handle->%s<-", m_handle.details_str.c_str());
    m_state = SSHOT_STATE_PREPARED;
    m_e.logprintf(7, kFile, __LINE__, "%s: exit, err:%p", fname, static_cast<void*>(nullptr));
    return nullptr;
}

SSError* SCQuillsetCow::privateSnapshot(void*, SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::privateSnapshot";
    m_e.logprintf(7, kFile, __LINE__, "%s: Entering", fname);
    if (m_state != SSHOT_STATE_PREPARED) return illegalState(fname, __LINE__);
    taskId = 0;

    // Sessions start in the order of their names, which is source order.
    std::map<std::string, snapdevice> bySession;
    for (const snapdevice& sd : m_snapdevlist) {
        bySession[sd.sessionId] = sd;
        m_e.logprintf(7, kFile, __LINE__, "%s: Associated session [%s] and merlLun [%d]", fname,
                      sd.sessionId.c_str(), sd.srcDev.merllun);
    }
    SSError* err = nullptr;
    for (auto& entry : bySession) {
        delete err;  // only the last session decides; validate finds the others
        err = m_quillsetContext->startsession(entry.second);
        if (err != nullptr)
            m_e.logprintf(3, kFile, __LINE__,
                          "%s: startsession failed for session ID [%s] and source name [%s]", fname,
                          entry.first.c_str(), entry.second.srcName.c_str());
    }
    if (err != nullptr) {
        stopAllSessions();
        return err;
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    m_state = SSHOT_STATE_VALID;
    return nullptr;
}

void SCQuillsetCow::stopAllSessions() {
    if (m_quillsetContext == nullptr) return;
    for (snapdevice& sd : m_snapdevlist) delete m_quillsetContext->stopsession(sd);
}

SSError* SCQuillsetCow::privateValidate(void*) {
    static const char* const fname = "SCMerlodeQuillset::privateValidate";
    bool allowed = m_state == SSHOT_STATE_VALID || m_state == SSHOT_STATE_READY ||
                   (m_state == SSHOT_STATE_INIT && !m_instanceIsProduction);
    if (!allowed) return illegalState(fname, __LINE__);

    SSError* err = m_quillsetContext->refreshSessions();
    if (err != nullptr) return err;
    std::string missing;
    for (const snapdevice& sd : m_snapdevlist) {
        if (m_quillsetContext->verifySession(sd.sessionId) == 0) {
            m_e.logprintf(9, kFile, __LINE__, "unable to verify session: %s", sd.sessionId.c_str());
            missing = sd.sessionId;
            break;
        }
    }
    if (!missing.empty()) {
        stopAllSessions();
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_SNAPSHOT_INVALID,
                           "%s: Failed to validate session name (%s) for snapshot", fname,
                           missing.c_str());
    }
    if (!m_instanceIsProduction && m_state == SSHOT_STATE_INIT) m_state = SSHOT_STATE_VALID;
    return nullptr;
}

SSError* SCQuillsetCow::privateMount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateMount";
    if (m_state != SSHOT_STATE_VALID) return illegalState(fname, __LINE__);

    std::vector<snapdevice*> mounted;
    SSError* err = nullptr;
    bool unmatched = srcList == nullptr;
    std::string unmatchedName;
    for (SSSourceList* s = srcList; s != nullptr && err == nullptr; s = s->next) {
        snapdevice* found = nullptr;
        for (snapdevice& sd : m_snapdevlist)
            if (sd.srcName == name_of(s)) {
                found = &sd;
                break;
            }
        if (found == nullptr) {
            unmatched = true;
            unmatchedName = name_of(s);
            break;
        }
        // What counts is whether the array gave the session a host device.
        delete m_quillsetContext->activatesession(*found);
        if (found->dstName.empty()) {
            m_e.logprintf(9, kFile, __LINE__, "%s: Session: [%s], Src: [%s]", fname,
                          found->sessionId.c_str(), found->srcName.c_str());
            err =
                m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_SNAP_PROVIDER_ERROR,
                            "%s: Unable to activate session(%s)", fname, found->sessionId.c_str());
        } else {
            m_e.logprintf(5, kFile, __LINE__, "%s: Session %s(%s) mounted on device: %s", fname,
                          found->sessionId.c_str(), found->srcName.c_str(), found->dstName.c_str());
            mounted.push_back(found);
        }
    }
    if (unmatched && err == nullptr)
        err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                          "%s: No source device found for %s", fname, unmatchedName.c_str());
    if (err == nullptr) {
        m_state = SSHOT_STATE_READY;
        m_isMountDone = 1;
        m_e.logprintf(9, kFile, __LINE__, "mount : ISnapshot(%p) State : %d",
                      static_cast<void*>(this), static_cast<int>(m_state));
        return nullptr;
    }
    for (snapdevice* sd : mounted) delete m_quillsetContext->deactivatesession(*sd);
    return err;
}

SSError* SCQuillsetCow::privateUnmount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateUnmount";
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);

    SSError* err = nullptr;
    if (srcList != nullptr && m_isMountDone) {
        for (SSSourceList* s = srcList; s != nullptr && err == nullptr; s = s->next) {
            bool any = false;
            for (snapdevice& sd : m_snapdevlist) {
                if (sd.srcName != name_of(s)) continue;
                any = true;
                err = m_quillsetContext->deactivatesession(sd);
                if (err != nullptr) break;
            }
            if (!any && err == nullptr)
                err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                                  "%s: No source device found for %s", fname, name_of(s));
        }
    }
    // The object is done with its mount whatever the array said.
    m_state = SSHOT_STATE_UNINIT;
    m_isMountDone = 0;
    m_e.logprintf(9, kFile, __LINE__, "%s: ISnapshot(%p) State : %d", fname,
                  static_cast<void*>(this), static_cast<int>(m_state));
    return err;
}

SSError* SCQuillsetCow::privateRollbackSnapshot(SSSourceList* srcList, SSExtentList*, SSTaskId&) {
    static const char* const fname = "SCMerlodeQuillset::privateRollbackSnapshot";
    SSError* err = nullptr;
    for (SSSourceList* s = srcList; s != nullptr && err == nullptr; s = s->next) {
        bool any = false;
        for (snapdevice& sd : m_snapdevlist) {
            if (sd.srcName != name_of(s)) continue;
            any = true;
            m_e.logprintf(9, kFile, __LINE__, "%s: calling rollback", fname);
            err = m_quillsetContext != nullptr
                      ? m_quillsetContext->rollbacksession(sd)
                      : m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                                    "%s: Caught internal", fname);
            m_e.logprintf(9, kFile, __LINE__, "%s: completed rollback", fname);
            if (err != nullptr) break;
        }
        if (!any && err == nullptr)
            err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                              "%s: No source device found for %s", fname, name_of(s));
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: ISnapshot(%p) State : %d", fname,
                  static_cast<void*>(this), static_cast<int>(m_state));
    return err;
}

SSError* SCQuillsetCow::privateDeleteSnapshot() {
    static const char* const fname = "SCMerlodeQuillset::privateDeleteSnapshot";
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);
    // A session already gone counts as deleted.
    stopAllSessions();
    m_snapdevlist.clear();
    m_state = SSHOT_STATE_ERROR;
    return nullptr;
}

void SCQuillsetCow::privateCleanup() {
    m_snapdevlist.clear();
    m_isMountDone = 0;
}

SSError* SCQuillsetCow::privateGetCurrentTask(SSTaskId& taskId) {
    taskId = 0;
    return nullptr;
}

SSError* SCQuillsetCow::privateGetTaskStatus(int, SSTaskStatus& status, SSError*& taskErr) {
    status = SS_TASK_DONE;
    taskErr = nullptr;
    return nullptr;
}

SSError* SCQuillsetCow::privateGetSnapshotCapabilities(SCSnapshotCapability*& cap) {
    static const char* const fname = "SCMerlodeQuillset::privateGetSnapshotCapabilities(1)";
    m_e.logprintf(9, kFile, __LINE__, "%s: %p\n", fname, static_cast<void*>(cap));
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);
    SCSnapshotCapability* c = new (std::nothrow) SCSnapshotCapability();
    if (c == nullptr)
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                           "%s: Memory allocation error", fname);
    fill_cow_capability(c);
    cap = c;
    m_e.logprintf(7, kFile, __LINE__, "snapTech: %d", static_cast<int>(c->snapTech));
    m_e.logprintf(7, kFile, __LINE__, "isRollBackSupported = %d", c->isRollBackSupported);
    m_e.logprintf(7, kFile, __LINE__, "isBlockRemapSupported = %d", c->isBlockRemapSupported);
    m_e.logprintf(7, kFile, __LINE__, "isExtentBasedRollBackSupported = %d",
                  c->isExtentBasedRollBackSupported);
    m_e.logprintf(7, kFile, __LINE__, "maxSnapshotsPerSource = %d", c->maxSnapshotsPerSource);
    m_e.logprintf(7, kFile, __LINE__, "maxSnapshotsPerSystem = %d", c->maxSnapshotsPerSystem);
    m_e.logprintf(7, kFile, __LINE__, "isAccessibleFromAnotherHost = %d",
                  c->isAccessibleFromAnotherHost);
    return nullptr;
}

SSError* SCQuillsetCow::privateGetDeviceSnapshotCapabilities(SSSourceList* srcList,
                                                             SCSnapshotCapabilityList*& capList) {
    static const char* const fname = "SCMerlodeQuillset::privateGetSnapshotCapabilities(2)";
    capList = nullptr;
    SCSnapshotCapabilityList* head = nullptr;
    SCSnapshotCapabilityList** tail = &head;
    for (SSSourceList* s = srcList; s != nullptr; s = s->next) {
        SCSnapshotCapabilityList* node = new (std::nothrow) SCSnapshotCapabilityList();
        SCSnapshotCapability* c =
            node != nullptr ? new (std::nothrow) SCSnapshotCapability() : nullptr;
        if (c == nullptr) {
            delete node;
            delete head;
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                               "%s: Memory allocation error", fname);
        }
        fill_cow_capability(c);
        node->pCap = c;
        *tail = node;
        tail = &node->next;
    }
    capList = head;
    return nullptr;
}
