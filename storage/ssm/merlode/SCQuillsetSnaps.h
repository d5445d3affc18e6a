// SCQuillsetSnaps: the newer array line's advanced snapshots ("KVT-SNAP").
// One snapshot can cover a whole consistency group, and it is presented to a
// host through a snapshot mount point. Used as SCMerlodeQuillset is: one
// object per snapshot, under its lock.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "storage/ssm/merlode/SCQuillset.h"

// What is known of one consistency group, or of the sources in none ("N/A").
class KVTSNapInfo {
public:
    explicit KVTSNapInfo(const std::string& cg = std::string()) : cg_name(cg) {}
    void setSession(const std::string& s) { _kvtCGSession = s; }
    std::string getSession() const { return _kvtCGSession; }
    void setSourceLun(int lun) { sourceLun = lun; }
    int getSourceLun() const { return sourceLun; }
    void setSourceSMP(int smp) { sourceSMP = smp; }
    int getSourceSMP() const { return sourceSMP; }
    std::string getCGName() const { return cg_name; }
    void setSourceName(const std::string& n) { sourceName = n; }
    std::string getSourceName() const { return sourceName; }

private:
    std::string _kvtCGSession;
    std::string cg_name;
    int sourceLun = 0;
    std::string sourceName;
    int sourceSMP = 0;
};

// The groups of the advanced snapshot between prepare and snapshot, shared
// by every object of the process, by group name in string order. Loader
// threads may prepare on several objects at once: every access holds the
// map's own mutex, without changing what it holds or when it is emptied.
class KVTGroupMap {
public:
    bool find(const std::string& cg, KVTSNapInfo& info) const;
    // An entry that is there already stays as it is.
    void insert(const std::string& cg, const KVTSNapInfo& info);
    // The first entry in the map's order; false when the map is empty.
    bool first(KVTSNapInfo& info) const;
    // A copy of every entry, in the map's order.
    std::map<std::string, KVTSNapInfo> entries() const;
    void clear();

private:
    mutable std::mutex m_mtx;
    std::map<std::string, KVTSNapInfo> m_map;
};

// One for the process, from load to unload.
extern KVTGroupMap localObject;

class SCQuillsetSnaps : public SCMerlodeQuillset {
public:
    SCQuillsetSnaps(SSLOG_FUNC_POINTER fpLog, void* logCtx) : SCMerlodeQuillset(fpLog, logCtx) {}
    ~SCQuillsetSnaps() override {}

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
    // Sources by WWN (a distributed application's) must be in a consistency
    // group; sources by path must not be.
    int privateIsSnappable(std::string src) override;
    SSError* privateGetTaskStatus(int taskId, SSTaskStatus& status, SSError*& taskErr) override;
    SSError* privateGetCurrentTask(SSTaskId& taskId) override;
    void privateCleanup() override;

    void stopAllSessions();
};
