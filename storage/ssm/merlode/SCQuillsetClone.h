// SCQuillsetClone: mirror snapshots. Each source gets a clone LUN from the
// pool, reserved in its sync rate and synchronised at prepare, split from its
// source at snapshot (alone or in one consistent fracture), activated on the
// mount host, released at delete, or copied back onto the source at rollback.
// Used as SCMerlodeQuillset is: one object per snapshot, under its lock.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "storage/ssm/merlode/MerlResourceManager.h"
#include "storage/ssm/merlode/SCQuillset.h"

class SCQuillsetClone : public SCMerlodeQuillset {
public:
    MerlResourceManager* m_merlRes;
    int m_resInit;
    std::list<cloneInfo> m_preRollbackCloneList;
    SSLOG_FUNC_POINTER sav_logFunc;
    void* sav_logFuncContext;

    SCQuillsetClone(SSLOG_FUNC_POINTER fpLog, void* logCtx);
    ~SCQuillsetClone() override;

    SSError* privateValidate(void* arg) override;
    SSError* privateGetSnapshotCapabilities(SCSnapshotCapability*& cap) override;
    SSError* privateGetDeviceSnapshotCapabilities(SSSourceList* srcList,
                                                  SCSnapshotCapabilityList*& capList) override;
    SSError* privatePrepareForSnapshot(void* arg, attrlist* attrs, SSTaskId& taskId) override;
    SSError* privateSnapshot(void* arg, SSTaskId& taskId) override;
    SSError* privateDeleteSnapshot() override;
    SSError* privateMount(SSSourceList* srcList) override;
    SSError* privateUnmount(SSSourceList* srcList) override;
    SSError* privateRollbackSnapshot(SSSourceList* srcList, SSExtentList* extents,
                                     SSTaskId& taskId) override;
    int privateIsSnappable(std::string src) override;
    SSError* privateGetTaskStatus(int taskId, SSTaskStatus& status, SSError*& taskErr) override;
    SSError* privateGetCurrentTask(SSTaskId& taskId) override;
    void privateCleanup() override;

    // The fracture commands of the sources in `details`: single clones, or
    // groups of at most `maxClone` in one consistent fracture.
    static std::vector<std::string> fractureCommands(const std::string& details, int maxClone);

private:
    // The clone record of a source, in the "-" fields of its session id.
    struct CloneRecord {
        std::string group, id, cloneLun, srcLun, startState, onDelete;
    };
    static CloneRecord readRecord(std::string sessionId);
    // ZOVMERL_MAX_CLONE in its range.
    int maxCloneSetting(const char* fname);
};
