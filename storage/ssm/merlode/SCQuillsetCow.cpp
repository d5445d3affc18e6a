// SCQuillsetCow: COW sessions started, verified, activated, deactivated,
// rolled back and stopped through the command layer.
#include "storage/ssm/merlode/SCQuillsetCow.h"

#include <stdio.h>

#include <map>
#include <new>

#include "liblocal/kv_msg.h"

static const char* const kFile = "storage/ssm/merlode/SCQuillsetCow";

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
    return endSnapshot(fname, err, [this] { stopAllSessions(); });
}

void SCQuillsetCow::stopAllSessions() {
    if (m_quillsetContext == nullptr) return;
    for (snapdevice& sd : m_snapdevlist) delete m_quillsetContext->stopsession(sd);
}

SSError* SCQuillsetCow::privateValidate(void*) {
    static const char* const fname = "SCMerlodeQuillset::privateValidate";
    if (!mayValidate()) return illegalState(fname, __LINE__);

    SSError* err = m_quillsetContext->refreshSessions();
    if (err != nullptr) return err;
    return verifySessions(
        fname, [this](const std::string& s) { return m_quillsetContext->verifySession(s); }, 9,
        [this] { stopAllSessions(); });
}

SSError* SCQuillsetCow::privateMount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateMount";
    if (m_state != SSHOT_STATE_VALID) return illegalState(fname, __LINE__);
    return mountSources(
        fname, srcList, [this](snapdevice& sd) { return m_quillsetContext->activatesession(sd); },
        [this](snapdevice& sd) { return m_quillsetContext->deactivatesession(sd); },
        "%s: Session: [%s], Src: [%s]", false);
}

SSError* SCQuillsetCow::privateUnmount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateUnmount";
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);
    return unmountSources(fname, srcList, [this](snapdevice& sd) {
        return m_quillsetContext->deactivatesession(sd);
    });
}

SSError* SCQuillsetCow::privateRollbackSnapshot(SSSourceList* srcList, SSExtentList*, SSTaskId&) {
    return rollbackSources(
        "SCMerlodeQuillset::privateRollbackSnapshot", srcList,
        [this](snapdevice& sd) { return m_quillsetContext->rollbacksession(sd); });
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
    return snapshotCapability("SCMerlodeQuillset::privateGetSnapshotCapabilities(1)", "%s: %p\n",
                              cap);
}

SSError* SCQuillsetCow::privateGetDeviceSnapshotCapabilities(SSSourceList* srcList,
                                                             SCSnapshotCapabilityList*& capList) {
    return deviceCapabilities("SCMerlodeQuillset::privateGetSnapshotCapabilities(2)", srcList,
                              capList);
}
