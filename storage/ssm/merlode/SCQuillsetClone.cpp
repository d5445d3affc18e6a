// SCQuillsetClone: mirror snapshots through the clone operations of the
// command layer and the clone pool.
#include "storage/ssm/merlode/SCQuillsetClone.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <new>

#include "liblocal/kv_msg.h"
#include "storage/ssm/merlode/clone_frac.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

static const char* const kFile = "storage/ssm/merlode/SCQuillsetClone";

// Bounds of ZOVMERL_MAX_CLONE, and its value when absent.
static const int kMaxCloneDefault = 8;
static const int kMaxCloneLimit = 64;

namespace {

const char* name_of(SSSourceList* s) {
    return (s != nullptr && s->ssSource != nullptr) ? s->ssSource : "";
}

bool starts_with(const std::string& text, const char* word) {
    return strncmp(text.c_str(), word, strlen(word)) == 0;
}

// The first value of `name` in `attrs`, or null.
const char* first_value(attrlist* attrs, const char* name) {
    attrlist* a = attrs != nullptr ? attrlist_find(attrs, name) : nullptr;
    return (a != nullptr && a->values != nullptr) ? a->values->value : nullptr;
}

}  // namespace

SCQuillsetClone::SCQuillsetClone(SSLOG_FUNC_POINTER fpLog, void* logCtx)
    : SCMerlodeQuillset(fpLog, logCtx),
      m_merlRes(nullptr),
      m_resInit(0),
      sav_logFunc(fpLog),
      sav_logFuncContext(logCtx) {}

SCQuillsetClone::~SCQuillsetClone() {
    m_preRollbackCloneList.clear();
    // The pool belongs to this object alone; a plug-in must not leak one per
    // snapshot.
    delete m_merlRes;
}

SCQuillsetClone::CloneRecord SCQuillsetClone::readRecord(std::string sessionId) {
    CloneRecord r;
    r.group = merl_space::nextToken(sessionId, "-");
    r.id = merl_space::nextToken(sessionId, "-");
    r.cloneLun = merl_space::nextToken(sessionId, "-");
    r.srcLun = merl_space::nextToken(sessionId, "-");
    r.startState = merl_space::nextToken(sessionId, "-");
    r.onDelete = merl_space::nextToken(sessionId, "-");
    return r;
}

int SCQuillsetClone::privateIsSnappable(std::string src) {
    m_e.logprintf(9, kFile, __LINE__, "Inside the clone object");
    return m_quillsetContext != nullptr ? m_quillsetContext->isCloneable(src) : 0;
}

// ------------------------------------------------------------ capabilities

SSError* SCQuillsetClone::privateGetSnapshotCapabilities(SCSnapshotCapability*& cap) {
    return snapshotCapability("SCMerlodeQuillset::getSnapshotCapabilities", nullptr, cap);
}

SSError* SCQuillsetClone::privateGetDeviceSnapshotCapabilities(SSSourceList* srcList,
                                                               SCSnapshotCapabilityList*& capList) {
    return deviceCapabilities("SCMerlodeQuillset::getDeviceSnapshotCapabilities", srcList, capList);
}

// ------------------------------------------------------------ prepare

int SCQuillsetClone::maxCloneSetting(const char* fname) {
    int maxClone = kMaxCloneDefault;
    const char* v = first_value(m_attrlist, "ZOVMERL_MAX_CLONE");
    if (v != nullptr && v[0] != '\0') {
        long n = strtol(v, nullptr, 10);
        if (n < 1) {
            m_e.logprintf(7, kFile, __LINE__,
                          "%s: app info variable ZOVMERL_MAX_CLONE is out of range. Defaulting to "
                          "[1]",
                          fname);
            n = 1;
        } else if (n > kMaxCloneLimit) {
            m_e.logprintf(7, kFile, __LINE__,
                          "%s: app info variable ZOVMERL_MAX_CLONE is out of range. Defaulting to "
                          "[%d]",
                          fname, kMaxCloneLimit);
            n = kMaxCloneLimit;
        }
        maxClone = static_cast<int>(n);
    }
    return maxClone;
}

std::vector<std::string> SCQuillsetClone::fractureCommands(const std::string& details,
                                                           int maxClone) {
    std::vector<std::string> commands;
    std::string rest = details;
    merl_space::nextToken(rest, ";");  // the frame addresses
    int extra = 0;
    for (char c : rest)
        if (c == ';') extra++;
    const bool single = maxClone < 2 || extra < 1;
    std::string current, lastGrp, lastId;
    int count = 0;
    while (!rest.empty()) {
        std::string grp = merl_space::nextToken(rest, "-");
        std::string id = merl_space::nextToken(rest, "-");
        if (grp.empty() || id.empty()) break;
        if (merl_space::nextToken(rest, ";").empty()) break;
        if (single) {
            commands.push_back(" -CloneGroupUid " + grp + " -CloneId " + id + " ");
            continue;
        }
        if (current.find("-CloneGroupUidCloneId") == std::string::npos)
            current = "-CloneGroupUidCloneId " + current;
        current += grp + " " + id + " ";
        lastGrp = grp;
        lastId = id;
        if (++count == maxClone) {
            commands.push_back(current);
            current.clear();
            count = 0;
        }
    }
    // A consistent fracture of one clone is refused by the array.
    if (count == 1)
        commands.push_back(" -CloneGroupUid " + lastGrp + " -CloneId " + lastId);
    else if (!current.empty())
        commands.push_back(current);
    return commands;
}

SSError* SCQuillsetClone::privatePrepareForSnapshot(void*, attrlist* attrs, SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::privatePrepareForSnapshot";
    m_e.logprintf(7, kFile, __LINE__, "%s: Entering", fname);
    if (m_state != SSHOT_STATE_INIT && !m_instanceIsProduction)
        return illegalState(fname, __LINE__);

    m_handle.guid_str = newSnapshotIdentity();

    if (m_resInit == 0) {
        m_merlRes = new (std::nothrow) MerlResourceManager(sav_logFunc, sav_logFuncContext);
        if (m_merlRes == nullptr)
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                               "%s: Memory allocation error", fname);
        SSError* err = m_merlRes->init(attrs, m_quillsetContext);
        if (err != nullptr)
            return m_e.tellerr(kFile, __LINE__, err, SS_EC_UNCLASSIFIED,
                               "%s: Failed to instantiate Service Factory for ZOV Merlode", fname);
        m_resInit = 1;
    }
    if (m_dataMover.empty()) {
        SSError* err = illegalState(fname, __LINE__);
        return m_e.tellerr(kFile, __LINE__, err, SS_EC_INVALID_CONFIGURATION,
                           "%s: Frame IP address(s) missing from environment", fname);
    }

    const std::string stamp = sessionTimeStamp();
    for (const std::string& ip : m_ipaddrlist) {
        if (!m_handle.details_str.empty()) m_handle.details_str += ":";
        m_handle.details_str += ip;
    }

    SSError* err = nullptr;
    bool cloneFound = false;
    const char* tempSnap = first_value(m_attrlist, "ZOVMERL_CLONE_TEMP_SNAP");
    const bool unlocked = tempSnap != nullptr && strcasecmp(tempSnap, "YES") == 0;
    for (snapdevice& sd : m_snapdevlist) {
        if (err != nullptr) break;
        m_e.logprintf(9, kFile, __LINE__, "%s: Device to check for cloneable = [%s]", fname,
                      sd.srcName.c_str());
        std::string normalized;
        SSError* nerr = isdigit(static_cast<unsigned char>(sd.srcName.c_str()[0]))
                            ? m_quillsetContext->convertWWNtoLunID(sd.srcName, normalized)
                            : m_quillsetContext->normalizeSrc(sd.srcName, normalized);
        if (nerr != nullptr) {
            m_e.logprintf(3, kFile, __LINE__, "%s: normalizeSrc() call failed for %s", fname,
                          sd.srcName.c_str());
            delete err;
            return nerr;
        }
        if (privateIsSnappable(normalized) != 1) {
            m_e.logprintf(3, kFile, __LINE__, "%s: privateIsSnappable() call failed for %s", fname,
                          sd.srcName.c_str());
            break;
        }
        std::string serial;
        err = m_quillsetContext->getFrameSN(serial);
        if (err != nullptr) {
            m_e.logprintf(7, kFile, __LINE__, "%s: getFrameSN() call failed", fname);
            break;
        }
        sd.srcDev.merlid = serial;
        SSError* aerr = m_merlRes->allocateResource(&sd, m_dataMover);
        if (aerr != nullptr) {
            m_e.logprintf(7, kFile, __LINE__, "%s: allocateResource() call failed for %s", fname,
                          sd.srcName.c_str());
            delete aerr;  // a source without a clone is judged below
        } else {
            char srcLun[32];
            kv_snprintf(srcLun, sizeof(srcLun), "%03d", sd.srcDev.merllun);
            sd.sessionId = sd.cloneDev.merlgrp + "-" + sd.cloneDev.cloneid + "-" +
                           std::to_string(sd.cloneDev.merllun) + "-" + srcLun + "-" +
                           (sd.cloneDev.syncReq == 1 ? "Yes" : "No") + "-" + m_retainOnDelete +
                           "-" + stamp;
            m_handle.details_str += ";" + sd.sessionId + "|" + sd.srcName;
            cloneFound = true;
            if (sd.cloneDev.syncReq == 1) {
                m_e.logprintf(7, kFile, __LINE__,
                              "%s : Re-syncing available clone [%s] in clone grp [%s].", fname,
                              sd.cloneDev.cloneid.c_str(), sd.cloneDev.merlgrp.c_str());
                delete m_quillsetContext->syncClone(sd.cloneDev.merlgrp, sd.cloneDev.cloneid);
                m_state = SSHOT_STATE_PREPARE_IN_PROGRESS;
            }
            if (unlocked) {
                m_e.logprintf(5, kFile, __LINE__,
                              "%s: ZOVMERL_CLONE_TEMP_SNAP is set, the snapshot will be left "
                              "unlocked.",
                              fname);
            } else {
                SSError* rerr = m_quillsetContext->reserveCloneLun(
                    sd.cloneDev.merlgrp, sd.cloneDev.cloneid, std::vector<std::string>{sd.frameIp});
                if (rerr != nullptr) {
                    m_e.logprintf(3, kFile, __LINE__,
                                  "Unable to reserve clone [%s] in cloneGroup [%s].  Continuing "
                                  "with prepareForSnapshot.",
                                  sd.cloneDev.cloneid.c_str(), sd.cloneDev.merlgrp.c_str());
                    delete rerr;
                }
            }
        }
        if (!cloneFound) {
            err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                              "%s: Failed to find a valid clone candidate for device %s", fname,
                              sd.srcName.c_str());
            break;
        }
        m_e.logprintf(7, kFile, __LINE__, "Snapshot Handle [%s]", m_handle.details_str.c_str());
    }
    m_e.logprintf(5, kFile, __LINE__, "%s: The snapshot handle :[%s]", fname,
                  m_handle.details_str.c_str());

    cloneToFrac.insert(m_handle.details_str,
                       fractureCommands(m_handle.details_str, maxCloneSetting(fname)));

    if (err == nullptr) {
        if (m_state != SSHOT_STATE_PREPARE_IN_PROGRESS) m_state = SSHOT_STATE_PREPARED;
    } else {
        m_state = SSHOT_STATE_ERROR;
    }
    m_currentTaskId = 1;
    taskId = 1;
    m_e.logprintf(7, kFile, __LINE__, "%s: exit, err:%p", fname, static_cast<void*>(err));
    return err;
}

// ------------------------------------------------------------ split, validate

SSError* SCQuillsetClone::privateSnapshot(void*, SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::privateSnapshot";
    m_e.logprintf(7, kFile, __LINE__, "%s: Entering", fname);
    if (m_state != SSHOT_STATE_PREPARED) return illegalState(fname, __LINE__);

    std::vector<std::string> commands;
    cloneToFrac.find(m_handle.details_str, commands);
    SSError* err = nullptr;
    for (const std::string& cmd : commands) {
        m_e.logprintf(9, kFile, __LINE__,
                      "%s: about to fracture from new list [%s], snapshot handle [%s]", fname,
                      cmd.c_str(), m_handle.guid_str.c_str());
        // Only the last command's outcome is the result; the log tells of
        // the others.
        delete err;
        if (cmd.find("-CloneGroupUidCloneId") != std::string::npos) {
            m_e.logprintf(9, kFile, __LINE__,
                          "%s: About to split multiple mirrors with command [%s]", fname,
                          cmd.c_str());
            err = m_quillsetContext->consistentFractureClone(cmd, m_ipaddrlist);
            if (err != nullptr)
                m_e.logprintf(3, kFile, __LINE__,
                              "Unable to consistently split the clones [%s], error [%s]",
                              cmd.c_str(), err->getErrMsg());
        } else {
            m_e.logprintf(9, kFile, __LINE__,
                          "%s: about to split a single mirror with command [%s]", fname,
                          cmd.c_str());
            err = m_quillsetContext->fractureClone(cmd, m_ipaddrlist);
            if (err != nullptr)
                m_e.logprintf(3, kFile, __LINE__, "Unable to split clone [%s], error [%s]",
                              cmd.c_str(), err->getErrMsg());
        }
        if (err != nullptr)
            err = m_e.tellerr(kFile, __LINE__, err, SS_EC_CMD_EXEC_FAILED,
                              "%s: Request to reserve clone ID [%s], group [%s] failed.", fname,
                              cmd.c_str(), "");
    }
    cloneToFrac.erase(m_handle.details_str);
    m_e.logprintf(7, kFile, __LINE__, "%s: END", fname);
    m_state = SSHOT_STATE_VALID;
    m_currentTaskId = 2;
    taskId = 2;
    return err;
}

SSError* SCQuillsetClone::privateValidate(void*) {
    static const char* const fname = "SCMerlodeQuillset::privateValidate";
    if (!mayValidate()) return illegalState(fname, __LINE__);

    std::string lastId;
    for (snapdevice& sd : m_snapdevlist) {
        m_e.logprintf(9, kFile, __LINE__, "Clone : privateValidate, clone sessionId : %s",
                      sd.sessionId.c_str());
        CloneRecord r = readRecord(sd.sessionId);
        if (r.group.empty() || r.id.empty()) {
            m_e.logprintf(3, kFile, __LINE__,
                          r.group.empty() ? "Zero length clone group ID for source device %s"
                                          : "Zero length clone ID for source device %s",
                          sd.srcName.c_str());
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                               "%s, Invalid CloneGrpId for source device %s", fname,
                               sd.srcName.c_str());
        }
        cloneInfo ci;
        SSError* err = m_quillsetContext->getCloneInfo(r.id, r.group, ci, 0);
        bool bad = err != nullptr;
        if (bad) {
            m_e.logprintf(3, kFile, __LINE__, "Unable to verify clone [%s] in cloneGroup [%s]",
                          r.id.c_str(), r.group.c_str());
        } else {
            m_e.logprintf(9, kFile, __LINE__,
                          "Return from getCloneInfo, Clone [%s] in cloneGroup [%s] : state [%s], "
                          "condition [%s], fractured [%s]",
                          r.id.c_str(), r.group.c_str(), ci.cloneState.c_str(),
                          ci.cloneCondition.c_str(), ci.cloneIsFractured.c_str());
            const char* why = nullptr;
            if (!starts_with(ci.cloneState, "Consistent"))
                why =
                    "Clone [%s] in cloneGroup [%s] is not in a 'consistent' state, and is invalid.";
            else if (!starts_with(ci.cloneCondition, "Administratively Fractured"))
                why = "Clone [%s] in cloneGroup [%s] is not 'admin fractured', and is invalid.";
            else if (starts_with(ci.cloneIsFractured, "No"))
                why = "Clone [%s] in cloneGroup [%s] is not 'fractured', and is invalid.";
            if (why != nullptr) {
                m_e.logprintf(3, kFile, __LINE__, why, r.id.c_str(), r.group.c_str());
                bad = true;
            }
        }
        if (bad)
            return m_e.tellerr(kFile, __LINE__, err, SS_EC_SNAPSHOT_INVALID,
                               "%s: Failed to validate clone ID (%s) in clone group (%s)", fname,
                               r.id.c_str(), r.group.c_str());
        m_e.logprintf(9, kFile, __LINE__, "CloneId %s is on LUN %d", r.id.c_str(), ci.cloneLun);
        sd.cloneDev.merllun = ci.cloneLun;
        lastId = r.id;
    }
    if (m_state == SSHOT_STATE_INIT) {
        m_e.logprintf(5, kFile, __LINE__, "SUCCESS:  CloneId [%s] is Valid.", lastId.c_str());
        m_state = SSHOT_STATE_VALID;
    }
    return nullptr;
}

// ------------------------------------------------------------ rollback, tasks

SSError* SCQuillsetClone::privateRollbackSnapshot(SSSourceList* srcList, SSExtentList*,
                                                  SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::privateRollbackSnapshot";
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);
    SSError* err = nullptr;
    for (SSSourceList* s = srcList; s != nullptr && err == nullptr; s = s->next) {
        bool found = false;
        for (snapdevice& sd : m_snapdevlist) {
            if (sd.srcName != name_of(s)) continue;
            found = true;
            m_e.logprintf(9, kFile, __LINE__, "%s: calling rollback for [%s]", fname,
                          sd.srcName.c_str());
            CloneRecord r = readRecord(sd.sessionId);
            // The third field is the clone's LUN; the group query below asks
            // for the clones of that number, as it always has.
            sd.srcDev.merllun = static_cast<int>(strtol(r.cloneLun.c_str(), nullptr, 10));
            if (SSError* u = m_quillsetContext->unreserveCloneLun(r.group, r.id)) {
                m_e.logprintf(9, kFile, __LINE__,
                              "%s: Pre-rollback, Setting syncRate to high for CloneGrp = [%s], "
                              "CloneId = [%s]",
                              fname, r.group.c_str(), r.id.c_str());
                delete u;
            }
            m_e.logprintf(9, kFile, __LINE__, "%s: Before rollback command for [%s], lun [%d]",
                          fname, sd.srcName.c_str(), sd.srcDev.merllun);
            m_e.logprintf(9, kFile, __LINE__, "%s: CloneGrp = [%s], CloneId = [%s]", fname,
                          r.group.c_str(), r.id.c_str());
            std::vector<cloneInfo> cloneList;
            if (SSError* g = m_quillsetContext->getCloneGroupInfo(sd.srcDev.merllun, cloneList))
                return g;  // the state stays as it was
            for (const cloneInfo& c : cloneList) {
                m_e.logprintf(9, kFile, __LINE__,
                              "%s: Pre-rollback, checking CloneGrp = [%s], CloneId = [%s]", fname,
                              c.cloneGrpId.c_str(), c.cloneId.c_str());
                if ((starts_with(c.cloneState, "Consistent") ||
                     starts_with(c.cloneState, "Synchronized")) &&
                    starts_with(c.cloneCondition, "Normal") &&
                    starts_with(c.cloneIsFractured, "No")) {
                    m_e.logprintf(9, kFile, __LINE__,
                                  "%s: Pre-rollback, this one needs to be put on the list.", fname);
                    m_preRollbackCloneList.push_back(c);
                }
            }
            err = m_quillsetContext->rollbackClone(r.group, r.id);
            if (err != nullptr) break;
            m_e.logprintf(9, kFile, __LINE__, "%s: rollback running for [%s]", fname,
                          sd.srcName.c_str());
        }
        if (!found) {
            err = m_e.tellerr(kFile, __LINE__, err, SS_EC_INVALID_PARAMETER,
                              "%s: No source device found for %s", fname, name_of(s));
            break;
        }
    }
    m_state = SSHOT_STATE_UNINIT;
    m_e.logprintf(9, kFile, __LINE__, "%s: ISnapshot(%p) State : %d", fname,
                  static_cast<void*>(this), static_cast<int>(m_state));
    m_currentTaskId = 3;
    taskId = 3;
    return err;
}

SSError* SCQuillsetClone::privateGetTaskStatus(int taskId, SSTaskStatus& status,
                                               SSError*& taskErr) {
    static const char* const fname = "SCMerlodeQuillset::getTaskStatus";
    status = SS_TASK_DONE;
    taskErr = nullptr;
    m_e.logprintf(9, kFile, __LINE__, "%s: entering, checking task id %d", fname, taskId);
    SSError* err = nullptr;
    cloneInfo clinfo;  // one record for all clones, as a failed query leaves it
    if (taskId == 1) {
        if (m_state == SSHOT_STATE_PREPARE_IN_PROGRESS) {
            for (const snapdevice& sd : m_snapdevlist) {
                CloneRecord r = readRecord(sd.sessionId);
                m_e.logprintf(9, kFile, __LINE__,
                              "%s: Checking if the following has completed its re-sycnc op : "
                              "Source [%s], CloneGrp [%s], CloneId [%s]",
                              fname, sd.srcName.c_str(), r.group.c_str(), r.id.c_str());
                delete m_quillsetContext->getCloneInfo(r.id, r.group, clinfo, 1);
                m_e.logprintf(9, kFile, __LINE__,
                              "%s: Return from getCloneInfo, Clone [%s] in cloneGroup [%s] : state "
                              "[%s], condition [%s], fractured [%s]",
                              fname, r.id.c_str(), r.group.c_str(), clinfo.cloneState.c_str(),
                              clinfo.cloneCondition.c_str(), clinfo.cloneIsFractured.c_str());
                bool arrived = (starts_with(clinfo.cloneState, "Consistent") ||
                                starts_with(clinfo.cloneState, "Synchronized")) &&
                               starts_with(clinfo.cloneCondition, "Normal") &&
                               !starts_with(clinfo.cloneIsFractured, "Yes");
                if (!arrived) {
                    m_e.logprintf(9, kFile, __LINE__, "%s: Clone re-sync is still in progress...",
                                  fname);
                    status = SS_TASK_IN_PROGRESS;
                    break;
                }
            }
        }
        if (status == SS_TASK_DONE) m_state = SSHOT_STATE_PREPARED;
    } else if (taskId == 3) {
        for (const snapdevice& sd : m_snapdevlist) {
            CloneRecord r = readRecord(sd.sessionId);
            m_e.logprintf(9, kFile, __LINE__,
                          "%s: Checking if the following has completed its rollback op : Source "
                          "[%s], CloneGrp [%s], CloneId [%s]",
                          fname, sd.srcName.c_str(), r.group.c_str(), r.id.c_str());
            delete m_quillsetContext->getCloneInfo(r.id, r.group, clinfo, 1);
            bool ended = (starts_with(clinfo.cloneState, "Consistent") ||
                          starts_with(clinfo.cloneState, "Synchronized")) &&
                         starts_with(clinfo.cloneCondition, "Normal") &&
                         starts_with(clinfo.cloneIsFractured, "No");
            if (!ended) {
                m_e.logprintf(9, kFile, __LINE__, "%s: Rollback is still in progress...", fname);
                status = SS_TASK_IN_PROGRESS;
                break;
            }
        }
        if (status == SS_TASK_DONE)
            for (const cloneInfo& c : m_preRollbackCloneList) {
                m_e.logprintf(9, kFile, __LINE__,
                              "%s: Post-rollback, about to re-sync the following : CloneGrp = "
                              "[%s], CloneId = [%s]",
                              fname, c.cloneGrpId.c_str(), c.cloneId.c_str());
                delete m_quillsetContext->syncClone(c.cloneGrpId, c.cloneId);
            }
    } else if (taskId != 2) {
        status = SS_TASK_ERROR;
        err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                          "27284:%s: No such task: %d", fname, taskId);
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: taskId:%d, done, state:%d", fname, taskId,
                  static_cast<int>(m_state));
    return err;
}

SSError* SCQuillsetClone::privateGetCurrentTask(SSTaskId& taskId) {
    static const char* const fname = "SCMerlodeQuillset::getCurrentTask";
    m_e.logprintf(9, kFile, __LINE__, "%s: entering", fname);
    taskId = m_currentTaskId;
    m_e.logprintf(9, kFile, __LINE__, "getCurrentTask : taskId:%d", static_cast<int>(taskId));
    return nullptr;
}

// ------------------------------------------------------------ mount, delete

SSError* SCQuillsetClone::privateMount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateMount";
    if (m_state != SSHOT_STATE_VALID) return illegalState(fname, __LINE__);
    std::vector<std::string> activated;
    int retry = 0;
    int pseudoDevice = 0;
    SSError* err = nullptr;
    bool found = false;
    const char* lastName = "";
    for (SSSourceList* s = srcList; s != nullptr; s = s->next) {
        lastName = name_of(s);
        found = false;
        for (snapdevice& sd : m_snapdevlist) {
            if (sd.srcName.find("hadrix") != std::string::npos) {
                pseudoDevice = 1;
                m_e.logprintf(9, kFile, __LINE__,
                              "%s: Checking for pseudo device against source [%s] with LUN [%d]",
                              fname, sd.srcName.c_str(), sd.cloneDev.merllun);
            } else {
                m_e.logprintf(9, kFile, __LINE__, "%s: Checking against source [%s] with LUN [%d]",
                              fname, sd.srcName.c_str(), sd.cloneDev.merllun);
            }
            if (sd.srcName != lastName) continue;
            found = true;
            m_e.logprintf(7, kFile, __LINE__, "%s: Calling activateclone() for LUN %d", fname,
                          sd.cloneDev.merllun);
            delete m_quillsetContext->activateclone(sd);
            if (!sd.dstName.empty()) {
                m_e.logprintf(7, kFile, __LINE__, "%s: Session %s(%s) mounted on device: %s", fname,
                              sd.sessionId.c_str(), sd.srcName.c_str(), sd.dstName.c_str());
                activated.push_back(sd.dstName);
                break;
            }
            if (retry < 5) {
                std::string dev =
                    m_quillsetContext->proxyCloneInitVolMap(sd.cloneDev.merllun, pseudoDevice);
                if (!dev.empty()) {
                    sd.dstName = "/dev/" + dev;
                    retry++;
                    break;
                }
                m_e.logprintf(5, kFile, __LINE__,
                              "%s: Failed to find Clone LUN [%d] in our Merlode list. retry [%d]",
                              fname, sd.cloneDev.merllun, retry + 1);
            }
            m_e.logprintf(9, kFile, __LINE__, "%s: Session: %s, Src: %s", fname,
                          sd.sessionId.c_str(), sd.srcName.c_str());
            err = m_e.tellerr(kFile, __LINE__, err, SS_EC_SNAP_PROVIDER_ERROR,
                              "%s: Unable to activate session(%s)", fname, sd.sessionId.c_str());
            retry++;
            break;
        }
        if (!found || err != nullptr) break;
    }
    if (!found && err == nullptr)
        err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_PARAMETER,
                          "%s: No source device found for %s", fname, lastName);
    if (err == nullptr) {
        m_state = SSHOT_STATE_READY;
        m_isMountDone = 1;
        m_e.logprintf(9, kFile, __LINE__, "mount : ISnapshot(%p) State : %d",
                      static_cast<void*>(this), static_cast<int>(m_state));
        return nullptr;
    }
    for (const std::string& dev : activated) {
        snapdevice sd;
        sd.dstName = dev;
        delete m_quillsetContext->deactivatesession(sd);
    }
    return err;
}

SSError* SCQuillsetClone::privateUnmount(SSSourceList* srcList) {
    static const char* const fname = "SCMerlodeQuillset::privateUnmount";
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY)
        return illegalState(fname, __LINE__);
    SSError* err = nullptr;
    if (srcList != nullptr && m_isMountDone != 0) {
        for (SSSourceList* s = srcList; s != nullptr && err == nullptr; s = s->next) {
            bool found = false;
            for (snapdevice& sd : m_snapdevlist) {
                if (sd.srcName != name_of(s)) continue;
                found = true;
                err = m_quillsetContext->deactivateclone(sd);
                if (err != nullptr) break;
            }
            if (!found) {
                err = m_e.tellerr(kFile, __LINE__, err, SS_EC_INVALID_PARAMETER,
                                  "%s: No source device found for %s", fname, name_of(s));
                break;
            }
        }
    }
    m_state = SSHOT_STATE_VALID;
    m_isMountDone = 0;
    m_e.logprintf(9, kFile, __LINE__, "%s: ISnapshot(%p) State : %d", fname,
                  static_cast<void*>(this), static_cast<int>(m_state));
    return err;
}

SSError* SCQuillsetClone::privateDeleteSnapshot() {
    static const char* const fname = "SCMerlodeQuillset::privateDeleteSnapshot";
    if (m_state != SSHOT_STATE_VALID && m_state != SSHOT_STATE_READY) {
        m_e.logprintf(7, kFile, __LINE__, "%s : Illegal state to delete snapshot", fname);
        return illegalState(fname, __LINE__);
    }
    for (snapdevice& sd : m_snapdevlist) {
        CloneRecord r = readRecord(sd.sessionId);
        m_retainOnDelete = r.onDelete;
        if (SSError* u = m_quillsetContext->unreserveCloneLun(r.group, r.id)) {
            m_e.logprintf(5, kFile, __LINE__,
                          "Unable to un-reserve clone %s in cloneGroup %s, continuing with "
                          "snapshot deletion.",
                          r.id.c_str(), r.group.c_str());
            delete u;
        }
        const bool resync =
            m_retainOnDelete == "Retain" || (m_retainOnDelete == "Start" && r.startState != "Yes");
        if (resync) {
            m_e.logprintf(5, kFile, __LINE__,
                          "%s : Clone lun will be re-synchronized with its source lun.", fname);
            delete m_quillsetContext->syncClone(r.group, r.id);
        } else {
            m_e.logprintf(5, kFile, __LINE__,
                          "%s : Clone lun will not be re-synchronized with its source lun.", fname);
        }
    }
    m_snapdevlist.clear();
    m_e.logprintf(7, kFile, __LINE__, "%s: END", fname);
    m_state = SSHOT_STATE_ERROR;
    return nullptr;
}

void SCQuillsetClone::privateCleanup() {
    m_snapdevlist.clear();
    m_isMountDone = 0;
}
