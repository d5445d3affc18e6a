// SCQuillsetSnaps: advanced snapshots through the command layer, one per
// consistency group or per ungrouped source.
#include "storage/ssm/merlode/SCQuillsetSnaps.h"

#include <stdlib.h>

#include <exception>
#include <sstream>

#include "liblocal/kv_msg.h"

static const char* const kFile = "storage/ssm/merlode/SCQuillsetSnaps";

// The group name of sources that belong to none.
static const char* const kNoGroup = "N/A";

KVTGroupMap localObject;

bool KVTGroupMap::find(const std::string& cg, KVTSNapInfo& info) const {
    std::lock_guard<std::mutex> lk(m_mtx);
    auto it = m_map.find(cg);
    if (it == m_map.end()) return false;
    info = it->second;
    return true;
}

void KVTGroupMap::insert(const std::string& cg, const KVTSNapInfo& info) {
    std::lock_guard<std::mutex> lk(m_mtx);
    m_map.insert(std::make_pair(cg, info));
}

bool KVTGroupMap::first(KVTSNapInfo& info) const {
    std::lock_guard<std::mutex> lk(m_mtx);
    if (m_map.empty()) return false;
    info = m_map.begin()->second;
    return true;
}

std::map<std::string, KVTSNapInfo> KVTGroupMap::entries() const {
    std::lock_guard<std::mutex> lk(m_mtx);
    return m_map;
}

void KVTGroupMap::clear() {
    std::lock_guard<std::mutex> lk(m_mtx);
    m_map.clear();
}

// ------------------------------------------------------------ support

int SCQuillsetSnaps::privateIsSnappable(std::string src) {
    m_e.logprintf(9, kFile, __LINE__, "Inside the KVT SNAP object ");
    if (m_quillsetContext == nullptr) return 0;
    std::string cg, smp;
    int result = m_quillsetContext->isKVTSnappable(src, cg, smp);
    if (cg == kNoGroup && m_usingWWN) {
        m_e.logprintf(3, kFile, __LINE__,
                      " LUN [%s] is not part of a consistency group and must be in order for "
                      "ditributed application backup to work.  Add the LUN to a conistency group "
                      "and try again.",
                      src.c_str());
        result = 0;
    } else if (cg != kNoGroup && !m_usingWWN) {
        // An empty group, which several frames can leave, counts as a group.
        m_e.logprintf(3, kFile, __LINE__,
                      " LUN [%s] is part of consistency group [%s] which is only supported for "
                      "distributed application backup.  Remove it from the group and try again.",
                      src.c_str(), cg.c_str());
        result = 0;
    }
    return result;
}

SSError* SCQuillsetSnaps::privateGetSnapshotCapabilities(SCSnapshotCapability*& cap) {
    return snapshotCapability("SCMerlodeQuillset::privateGetSnapshotCapabilities(1)", "%s: %p",
                              cap);
}

SSError* SCQuillsetSnaps::privateGetDeviceSnapshotCapabilities(SSSourceList* srcList,
                                                               SCSnapshotCapabilityList*& capList) {
    return deviceCapabilities("SCMerlodeQuillset::privateGetSnapshotCapabilities(2)", srcList,
                              capList);
}

// ------------------------------------------------------------ prepare, snapshot

SSError* SCQuillsetSnaps::privatePrepareForSnapshot(void*, attrlist*, SSTaskId&) {
    static const char* const fname = "SCMerlodeQuillset::privatePrepareForSnapshot";
    m_e.logprintf(7, kFile, __LINE__, "%s: Entering", fname);
    if (m_state != SSHOT_STATE_INIT && !m_instanceIsProduction)
        return illegalState(fname, __LINE__);

    m_handle.guid_str = newSnapshotIdentity();
    const std::string base = m_handle.guid_str + "-" + sessionTimeStamp();

    std::sort(m_ipaddrlist.begin(), m_ipaddrlist.end());
    m_ipaddrlist.erase(std::unique(m_ipaddrlist.begin(), m_ipaddrlist.end()), m_ipaddrlist.end());
    for (const std::string& ip : m_ipaddrlist) {
        if (!m_handle.details_str.empty()) m_handle.details_str += ":";
        m_handle.details_str += ip;
    }
    unsigned index = 0;
    for (snapdevice& sd : m_snapdevlist) {
        try {
            m_e.logprintf(9, kFile, __LINE__,
                          "%s: This configuration is not for a VMWare setup and the source LUN is "
                          "[%s]",
                          fname, sd.srcName.c_str());
            std::string lunText = std::to_string(sd.srcDev.merllun);
            std::string cg, smp;
            m_quillsetContext->isKVTSnappable(lunText, cg, smp);
            m_e.logprintf(9, kFile, __LINE__,
                          "Preparing consistency group [%s] and Snapshot Mount point [%s] "
                          "information for LUN [%s][%d] ",
                          cg.c_str(), smp.c_str(), lunText.c_str(), sd.srcDev.merllun);
            char idx[16];
            kv_snprintf(idx, sizeof(idx), "%04X", index++);
            sd.sessionId = base + idx;
            KVTSNapInfo entry(cg);
            if (cg == kNoGroup || !localObject.find(cg, entry)) {
                entry = KVTSNapInfo(cg);
                entry.setSession(sd.sessionId);
            } else {
                // Every source of a group names the group's one snapshot.
                sd.sessionId = entry.getSession();
            }
            entry.setSourceLun(sd.srcDev.merllun);
            entry.setSourceSMP(static_cast<int>(strtol(smp.c_str(), nullptr, 10)));
            entry.setSourceName(sd.srcName);
            localObject.insert(cg, entry);
            m_handle.details_str += ";" + entry.getSession() + "|" + sd.srcName + "-" + smp;
        } catch (const std::exception& ex) {
            errinfo* m = msg_create(106185, 55000, "Exception caught while generating command - %s",
                                    ARG_TEXT, ex.what());
            m_e.logprintf(3, kFile, __LINE__, "%s: Exiting. %s", fname,
                          m != nullptr && m->errstr != nullptr ? m->errstr : ex.what());
            msg_free(m);
        }
    }
    m_e.logprintf(7, kFile, __LINE__, "snapshot handle->%s<-", m_handle.details_str.c_str());
    m_state = SSHOT_STATE_PREPARED;
    m_e.logprintf(7, kFile, __LINE__, "%s: exit, err:%p", fname, static_cast<void*>(nullptr));
    return nullptr;
}

SSError* SCQuillsetSnaps::privateSnapshot(void*, SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::privateSnapshot";
    m_e.logprintf(7, kFile, __LINE__, "%s: Entering", fname);
    if (m_state != SSHOT_STATE_PREPARED) return illegalState(fname, __LINE__);
    taskId = 0;

    SSError* err = nullptr;
    KVTSNapInfo head;
    // Nothing prepared (the caller must not do that) is a run without groups
    // over no source.
    const bool grouped = localObject.first(head) && head.getCGName() != kNoGroup;
    if (!grouped) {
        std::map<std::string, snapdevice> bySession;
        for (const snapdevice& sd : m_snapdevlist) {
            bySession[sd.sessionId] = sd;
            m_e.logprintf(5, kFile, __LINE__,
                          "%s: Doing non-consistency group operation.  Associated session [%s] and "
                          "merlLun [%d]",
                          fname, sd.sessionId.c_str(), sd.srcDev.merllun);
        }
        for (auto& entry : bySession) {
            std::string object = std::to_string(entry.second.srcDev.merllun);
            std::string session = entry.second.sessionId;
            delete err;  // only the last snapshot decides; validate finds the others
            err = m_quillsetContext->createKVTsnapshot(object, session, entry.second.srcName);
        }
    } else {
        // Deliberately one stream for all entries: it is never emptied.
        std::ostringstream number;
        for (auto& entry : localObject.entries()) {
            KVTSNapInfo& info = entry.second;
            m_e.logprintf(5, kFile, __LINE__,
                          "%s: Requesting KVT snapshot with consistency group [%s], session value "
                          "[%s], number of Object [%d][%d]",
                          fname, info.getCGName().c_str(), info.getSession().c_str(),
                          info.getSourceSMP(), info.getSourceLun());
            std::string object = info.getCGName();
            if (object == kNoGroup) {
                number << info.getSourceLun();
                object = number.str();
            }
            m_e.logprintf(7, kFile, __LINE__, "%s: Associated session [%s] and merlLun [%d]", fname,
                          info.getSession().c_str(), info.getSourceLun());
            std::string session = info.getSession();
            std::string source = info.getSourceName();
            delete err;
            err = m_quillsetContext->createKVTsnapshot(object, session, source);
        }
    }
    return endSnapshot(fname, err, [this] { stopAllSessions(); });
}

void SCQuillsetSnaps::stopAllSessions() {
    if (m_quillsetContext == nullptr) return;
    // In a group the first call removes the shared snapshot; the others find
    // nothing.
    for (snapdevice& sd : m_snapdevlist) delete m_quillsetContext->deleteKVTsession(sd);
}

SSError* SCQuillsetSnaps::privateValidate(void*) {
    static const char* const fname = "SCMerlodeQuillset::privateValidate";
    if (!mayValidate()) return illegalState(fname, __LINE__);
    // No refresh as for COW: each snapshot is asked for by its name.
    return verifySessions(
        fname, [this](const std::string& s) { return m_quillsetContext->verifyKVTSession(s); }, 5,
        [this] { stopAllSessions(); });
}

// ------------------------------------------------------------ mount, rollback, delete

SSError* SCQuillsetSnaps::privateMount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateMount";
    if (m_state != SSHOT_STATE_VALID) return illegalState(fname, __LINE__);
    return mountSources(
        fname, srcList,
        [this](snapdevice& sd) { return m_quillsetContext->attachSnapshotsession(sd); },
        [this](snapdevice& sd) { return m_quillsetContext->detachSnapshotsession(sd); },
        "%s: Session: %s, Src: %s", true);
}

SSError* SCQuillsetSnaps::privateUnmount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateUnmount";
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);
    return unmountSources(fname, srcList, [this](snapdevice& sd) {
        return m_quillsetContext->detachSnapshotsession(sd);
    });
}

SSError* SCQuillsetSnaps::privateRollbackSnapshot(SSSourceList* srcList, SSExtentList*, SSTaskId&) {
    return rollbackSources(
        "SCMerlodeQuillset::privateRollbackSnapshot", srcList,
        [this](snapdevice& sd) { return m_quillsetContext->rollbackkvtsession(sd); });
}

SSError* SCQuillsetSnaps::privateDeleteSnapshot() {
    static const char* const fname = "SCMerlodeQuillset::privateDeleteSnapshot";
    m_e.logprintf(7, kFile, __LINE__, "%s: Entering", fname);
    // An object that unmounted can still delete.
    if (m_state != SSHOT_STATE_UNINIT && m_state != SSHOT_STATE_VALID &&
        m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);
    stopAllSessions();
    m_snapdevlist.clear();
    m_state = SSHOT_STATE_ERROR;
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    return nullptr;
}

void SCQuillsetSnaps::privateCleanup() {
    localObject.clear();
    m_isMountDone = 0;
}

SSError* SCQuillsetSnaps::privateGetCurrentTask(SSTaskId& taskId) {
    taskId = 0;
    m_e.logprintf(9, kFile, __LINE__, "%s : taskId:%d", "SCMerlodeQuillset::getCurrentTask", 0);
    return nullptr;
}

SSError* SCQuillsetSnaps::privateGetTaskStatus(int, SSTaskStatus& status, SSError*& taskErr) {
    status = SS_TASK_DONE;
    taskErr = nullptr;
    m_e.logprintf(7, kFile, __LINE__, "%s: entering", "SCMerlodeQuillset::getTaskStatus");
    return nullptr;
}
