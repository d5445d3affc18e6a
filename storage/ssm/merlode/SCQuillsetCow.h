// SCQuillsetCow: snapshots as copy-on-write sessions on the array, named by
// the provider so that any host can find them again from the handle.
// Used as SCMerlodeQuillset is: one object per snapshot, under its lock.
#pragma once

#include "storage/ssm/merlode/SCQuillset.h"

class SCQuillsetCow : public SCMerlodeQuillset {
public:
    SCQuillsetCow(SSLOG_FUNC_POINTER fpLog, void* logCtx) : SCMerlodeQuillset(fpLog, logCtx) {}
    ~SCQuillsetCow() override {}

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

    void stopAllSessions();
};
