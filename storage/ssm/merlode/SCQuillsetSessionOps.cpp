// Steps the session technologies share: the capability they report, and the
// walks over the listed sources that mount, unmount and restore them.
#include <new>

#include "storage/ssm/merlode/SCQuillset.h"

static const char* const kFile = "storage/ssm/merlode/SCQuillset";

namespace {

void fill_capability(SCSnapshotCapability* c) {
    c->snapTech = SC_COW;  // all three technologies report copy-on-write
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

SSError* SCMerlodeQuillset::snapshotCapability(const char* fname, const char* firstLine,
                                               SCSnapshotCapability*& cap) {
    if (firstLine != nullptr)
        m_e.logprintf(9, kFile, __LINE__, firstLine, fname, static_cast<void*>(cap));
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);
    SCSnapshotCapability* c = new (std::nothrow) SCSnapshotCapability();
    if (c == nullptr)
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                           "%s: Memory allocation error", fname);
    fill_capability(c);
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

SSError* SCMerlodeQuillset::deviceCapabilities(const char* fname, SSSourceList* srcList,
                                               SCSnapshotCapabilityList*& capList) {
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
        fill_capability(c);
        node->pCap = c;
        *tail = node;
        tail = &node->next;
    }
    capList = head;
    return nullptr;
}

SSError* SCMerlodeQuillset::mountSources(const char* fname, SSSourceList* srcList,
                                         const SourceOp& attach, const SourceOp& detach,
                                         const char* emptyLine, bool nullListMounts) {
    std::vector<snapdevice*> mounted;
    SSError* err = nullptr;
    bool unmatched = srcList == nullptr && !nullListMounts;
    std::string unmatchedName;
    for (SSSourceList* s = srcList; s != nullptr && err == nullptr; s = s->next) {
        snapdevice* found = nullptr;
        for (snapdevice& sd : m_snapdevlist)
            if (sd.srcName == name_of(s)) {
                found = &sd;
                break;
            }
        if (found == nullptr) {
            // A node without a name is passed over where a null list mounts.
            if (nullListMounts && name_of(s)[0] == '\0') continue;
            unmatched = true;
            unmatchedName = name_of(s);
            break;
        }
        // What counts is whether the array gave the snapshot a host device.
        delete attach(*found);
        if (found->dstName.empty()) {
            m_e.logprintf(9, kFile, __LINE__, emptyLine, fname, found->sessionId.c_str(),
                          found->srcName.c_str());
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
    for (snapdevice* sd : mounted) delete detach(*sd);
    return err;
}

SSError* SCMerlodeQuillset::unmountSources(const char* fname, SSSourceList* srcList,
                                           const SourceOp& detach) {
    SSError* err = nullptr;
    if (srcList != nullptr && m_isMountDone) {
        for (SSSourceList* s = srcList; s != nullptr && err == nullptr; s = s->next) {
            bool any = false;
            for (snapdevice& sd : m_snapdevlist) {
                if (sd.srcName != name_of(s)) continue;
                any = true;
                err = detach(sd);
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

SSError* SCMerlodeQuillset::rollbackSources(const char* fname, SSSourceList* srcList,
                                            const SourceOp& restore) {
    SSError* err = nullptr;
    for (SSSourceList* s = srcList; s != nullptr && err == nullptr; s = s->next) {
        bool any = false;
        for (snapdevice& sd : m_snapdevlist) {
            if (sd.srcName != name_of(s)) continue;
            any = true;
            m_e.logprintf(9, kFile, __LINE__, "%s: calling rollback", fname);
            err = m_quillsetContext != nullptr
                      ? restore(sd)
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

SSError* SCMerlodeQuillset::verifySessions(const char* fname,
                                           const std::function<int(const std::string&)>& verify,
                                           int level, const std::function<void()>& stopAll) {
    for (const snapdevice& sd : m_snapdevlist) {
        if (verify(sd.sessionId) != 0) continue;
        m_e.logprintf(level, kFile, __LINE__, "unable to verify session: %s", sd.sessionId.c_str());
        stopAll();
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_SNAPSHOT_INVALID,
                           "%s: Failed to validate session name (%s) for snapshot", fname,
                           sd.sessionId.c_str());
    }
    if (!m_instanceIsProduction && m_state == SSHOT_STATE_INIT) m_state = SSHOT_STATE_VALID;
    return nullptr;
}

bool SCMerlodeQuillset::mayValidate() const {
    return m_state == SSHOT_STATE_VALID || m_state == SSHOT_STATE_READY ||
           (m_state == SSHOT_STATE_INIT && !m_instanceIsProduction);
}

SSError* SCMerlodeQuillset::endSnapshot(const char* fname, SSError* err,
                                        const std::function<void()>& stopAll) {
    if (err != nullptr) {
        stopAll();
        return err;
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: END", fname);
    m_state = SSHOT_STATE_VALID;
    return nullptr;
}
