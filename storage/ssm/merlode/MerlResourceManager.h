// The clone pool: the administrator's snap pool file (which clone LUNs may
// serve which source, and when) and the choice of a clone for one source
// under the use policy. One manager belongs to one mirror snapshot object and
// is used by one thread at a time (the object's lock).
#pragma once

#include <string>
#include <vector>

#include "liblocal/attrlist.h"
#include "liblocal/kv_types.h"
#include "storage/ssm/client/SSError.h"
#include "storage/ssm/client/SSTypes.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "storage/ssm/merlode/merl_err.h"

// One device token of the pool file: an array LUN ("ID:LUN", or a bare LUN
// as a target) or a device path ("/dev...").
struct MerlResourceDev {
    int isMerlLun = 0;
    std::string dev;     // the LUN number as text, or the path
    std::string merlid;  // the array's identity; may be empty
};

// The condition of a target: a day name, or a time window of `gap` units
// from `value`. An empty name is no condition.
struct Tag {
    std::string name;
    std::string value;
    int gap = 0;
};

struct SnapResource {
    MerlResourceDev res;
    Tag tag;
};

// One resource line: a source and its targets in file order (owned).
struct ResElement {
    MerlResourceDev source;
    std::vector<SnapResource*> targetList;
    ~ResElement();
};

class MerlResourceManager {
public:
    MerlResourceManager(SSLOG_FUNC_POINTER logFunc, void* logFuncContext);
    ~MerlResourceManager();
    MerlResourceManager(const MerlResourceManager&) = delete;
    MerlResourceManager& operator=(const MerlResourceManager&) = delete;

    // Reads MERL_SNAP_POOL and MERL_RES_USE_POLICY from `attrs`; `ctx` is
    // the command layer the choice asks (not owned, must not be null).
    SSError* init(attrlist* attrs, zov_quillset* ctx);
    // Parses the pool file once. A bad line is logged and dropped; only a
    // file named by attribute that cannot be opened is an error.
    SSError* buildResourceList();
    SSError* parseMerlResourceDev(char* buf, MerlResourceDev& deviceName);
    int matchDevice(snapdevice* srcVol, MerlResourceDev& deviceName);
    SSError* matchTag(SnapResource*& snapRes, int& match);
    // A new copy of the default pool file path (caller frees).
    static char* get_snap_pool_file();
    void printMerlResourceDev(MerlResourceDev& dev);
    void printResElem(ResElement* elem);
    void printTag(Tag& tag);

    // Chooses the clone of `srcVol`: its cloneDev and frameIp are filled.
    SSError* allocateResource(snapdevice* srcVol, std::string dataMover);
    // Walks m_cloneList for a clone of `source` that may be used now (with
    // findSpecificClone, only the LUN of `candidateClone`). While a clone
    // synchronises and none is usable, it waits a minute and looks again,
    // without a limit.
    SSError* findValidClone(MerlDev& source, MerlDev& candidateClone, int& cloneInValidState,
                            int findSpecificClone);
    SSError* verifyDataMoverAccess(int cloneLun);
    SSError* snapResToMerlDev(SnapResource* res, MerlDev& dev);
    int assignCloneToSource(snapdevice* srcVol, MerlDev clone);

    char* m_snapPool;
    int m_snapPoolSpecified;
    char* m_snapResUsePolicy;
    std::vector<ResElement*> m_ResourceList;
    int m_resInit;
    zov_quillset* m_quillsetContext;
    std::vector<cloneInfo> m_cloneList;
    std::vector<std::string> m_storGrpLunList;
    SSLOG_FUNC_POINTER m_logFunc;
    void* m_logFuncContext;

private:
    MerlError m_e;
    // The tag in force while the file is read.
    void setTag(char** tokens, int count);
    Tag m_tag;
    std::vector<std::string> m_tagValues;
};

// Test seam: the clock matchTag reads (null restores the real one).
void merl_resource_set_clock_for_test(kv_time64_t (*clock)(kv_time64_t*));
