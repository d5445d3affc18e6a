// zov_quillset: the module's picture of the arrays and its one gateway to
// them (tools run per frame address, their output parsed into the caches
// below). Not thread-safe: an object serves one thread at a time, which the
// owner's lock ensures; the storage-group file lock is between processes.
#pragma once

#include <regex.h>
#include <stdio.h>

#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "liblocal/attrlist.h"
#include "storage/ssm/client/SSError.h"
#include "storage/ssm/client/SSTypes.h"
#include "storage/ssm/merlode/cli/cmd_pipe.h"
#include "storage/ssm/merlode/merl_err.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

// Name of the storage-group lock file inside the product's tmp directory.
extern const char* const LOCK_FILE;
// Source name that asks for the whole volume map instead of one device.
extern const char* const CONFIGWIZARD;

// Rows of the compiled expression table m_cp. The values are the row
// numbers the table has always had (a failed compile names its row), so the
// order never changes and rows that nothing consults stay.
enum ZovRx {
    RX_HBA_UID = 0,             // "HBA UID:"
    RX_SERVER_NAME = 1,         // "Server Name:"
    RX_SERVER_IP = 2,           // "Server IP Address:"
    RX_PORT_INFO = 3,           // "Information about each port of this HBA:"
    RX_HBA_INFO = 4,            // "Information about each HBA:"
    RX_HBA_DEVNAME = 5,         // "HBA Devicename:"
    RX_PORT_SG_NAME = 6,        // "StorageGroup Name:" of the port list
    RX_SG_NAME = 7,             // "Storage Group Name:"
    RX_HLU_ALU_HEADER = 8,      // "HLU Number  ALU Number"
    RX_DASH_RULE = 9,           // a rule of dashes under a table header
    RX_HLU_ALU_ROW = 10,        // a row of two words: HLU, ALU
    RX_SHAREABLE = 11,          // "Shareable:"
    RX_TARGET_LUN = 12,         // "Target Logical Unit:"
    RX_SNAP_LUN_NAME = 13,      // "Quillset logical unit name:"
    RX_HOSTNAME_HEADER = 14,    // "^Hostname" of the serial table
    RX_SERIAL_DASHES = 15,      // "^--------" of the serial table
    RX_SERIAL_ROW = 16,         // host name and serial number
    RX_PSEUDO_NAME = 17,        // "Pseudo name=" (not consulted)
    RX_PATH_ROW = 18,           // a multipath row (not consulted)
    RX_SESSION_NAME = 19,       // "Name of the session:"
    RX_PKG_NAME = 20,           // "Name of the ...:"
    RX_PKG_REVISION = 21,       // "Revision of ...:"
    RX_ACTIVATED = 22,          // "Activated session ... on device X."
    RX_MUST_ACTIVATE = 23,      // "^You must activate a snapshot"
    RX_STOPPED = 24,            // "^Stopped session" (not consulted)
    RX_DEACTIVATED = 25,        // "^Deactivated session"
    RX_ATF_DEVICE = 26,         // "/devices/.../atf@" (not consulted)
    RX_CTD_FIRST = 27,          // cXtYdZ, first device of ctd_ct_match
    RX_CTD_SECOND = 28,         // cXtYdZ, second device of ctd_ct_match
    RX_FLUSHED = 29,            // "^Flushed object" (not consulted)
    RX_TILLO_REVISION = 30,     // "Revision "
    RX_GELMOT_REVISION = 31,    // "Revision number: "
    RX_HADRIX_VERSION = 32,     // "ZOV hadrix for Hadripath (c) Version "
    RX_COMMIT_REQUIRED = 33,    // "Commit Required:"
    RX_ACTIVE_STATE = 34,       // "Active State:"
    RX_CLONE_GROUP_NAME = 35,   // "Name:"
    RX_CLONE_ID = 36,           // "CloneID:"
    RX_CLONE_GROUP_UID = 37,    // "CloneGroupUid:"
    RX_CLONE_STATE = 38,        // "CloneState:"
    RX_AVAILABLE_FOR_IO = 39,   // "AvailableForIO:" (not consulted)
    RX_SOURCES = 40,            // "Sources:"
    RX_AGENT_REV = 41,          // "Agent Rev:" (not consulted)
    RX_SOURCES_N = 42,          // "SourcesN" (not consulted)
    RX_CLONES = 43,             // "Clones:"
    RX_CLONE_CONDITION = 44,    // "CloneCondition:"
    RX_IS_FRACTURED = 45,       // "IsFractured:"
    RX_FAILED = 46,             // a line with "failed" inside
    RX_LOGICAL_DEVICE_ID = 47,  // "Logical device ID=" (not consulted)
    RX_CLONE_LUNS = 48,         // "CloneLUNs:"
    RX_ARRAY_NAME = 49,         // "Array Name:"
    RX_LUN_NUMBER = 50,         // "LOGICAL UNIT NUMBER"
    RX_LUN_UID = 51,            // "UID:"
    RX_ACTIVE_CLONE = 52,       // "name => [letter]" of the host tool's list
    RX_SYNC_RATE = 53,          // "SyncRate:"
    RX_CLONE_LUN_WWNS = 54,     // "CloneLUNWWNs:"
    RX_SG_UID = 55,             // "Storage Group UID:"
    RX_HOST_NAME = 56,          // "Host name:"
    RX_HLU_NO = 57,             // "HLU No." of the second table form
    RX_HLU_WWN_ROW = 58,        // a row of the second table form
    RX_COUNT = 59
};

// Number of rows of the compiled expression table m_cp.
#define ZOV_QUILLSET_NUM_REGEX RX_COUNT

// The tools the command layer runs.
enum ZovTool { ZOV_TOOL_TILLO, ZOV_TOOL_GELMOT, ZOV_TOOL_PIRNET, ZOV_TOOL_HADRIX, ZOV_TOOL_FENLOK };

// How an operation reports a tool it cannot find: the message
// "%s: Unable to locate %s in standard locations.", as a log line first at
// `lineLevel`, and as the SS_EC_INVALID_CONFIGURATION error it returns,
// logged at `errorLevel`; kNone leaves either out. `word` is the name the
// message shows, when it is not the tool's own.
struct ToolMiss {
    static const int kNone = -1000;
    int lineLevel = kNone;
    int errorLevel = 3;
    const char* word = nullptr;

    // The error, logged at `level`.
    static ToolMiss errorAt(int level) {
        ToolMiss m;
        m.errorLevel = level;
        return m;
    }
    // A line at `level` first, then the error at level 3.
    static ToolMiss lineThenError(int level) {
        ToolMiss m;
        m.lineLevel = level;
        return m;
    }
    // Only a line at `level`; the caller goes on without an error.
    static ToolMiss lineOnly(int level) {
        ToolMiss m;
        m.lineLevel = level;
        m.errorLevel = kNone;
        return m;
    }
    // The same report under another name.
    ToolMiss shown(const char* w) const {
        ToolMiss m = *this;
        m.word = w;
        return m;
    }
};

// One LUN of a storage group.
struct hlualu {
    int hlu = 0;           // number under which the host sees the LUN
    int alu = 0;           // the array's own LUN number
    int snappable = 0;     // COW capability found
    int cloneable = 0;     // clone capability found
    int kvtSnappable = 0;  // advanced-snapshot capability found
};

// One storage group as seen by one HBA of this host.
struct storagegroup {
    std::string frameIp;
    std::string frameId;
    std::string HBAdevName;
    std::string stgName;
    std::vector<hlualu> hlualuList;
};

// Frame address to array identifier.
struct IP2UID {
    std::string frameIp;
    std::string frameId;
};

// The array's LUN number of a WWN (32 hex digits, no colons).
struct ArrayLunUID {
    std::string lunUID;
    int lunID = 0;
};

// One path of a multipath device.
struct ArrayLun {
    std::string pathname;
    int alive = 0;
};

// One multipath device of the volume map.
struct Hadrix {
    std::string pseudoNm;
    int arrayLun = 0;
    std::string arrayLunUID;
    std::string deviceName;
    std::string lunSize;
    std::vector<ArrayLun> patharray;
};

// One clone as the array reports it.
struct cloneInfo {
    int lun = 0;
    std::string cloneGrpName;
    std::string cloneId;
    std::string cloneGrpId;
    std::string cloneState;
    std::string cloneCondition;
    std::string cloneIsFractured;
    std::string cloneLUNWWNs;
    int cloneLun = 0;
    std::string frameIp;
};

// An active clone on the mount host.
struct activeClone {
    std::string cloneLunWWN;
    std::string cloneDriveLetter;
};

// One array device in a snapshot.
struct MerlDev {
    int merllun = 0;
    std::string merlgrp;
    std::string cloneid;
    std::string merlid;
    int syncReq = 0;
    std::string frameIp;
};

// One source device in a snapshot operation.
struct snapdevice {
    std::string srcName;
    std::string dstName;
    std::string driveLetter;
    std::string sessionId;
    std::string frameIp;
    MerlDev srcDev;
    MerlDev cloneDev;
    std::string conistency_grp;
    std::string SMPStr;
};

class zov_quillset;

// A parser of one tool's output: the child's mixed stdout/stderr and the
// frame address the command ran against. Results go to the object's members.
typedef SSError* (zov_quillset::*POUTPUT_FUNC_POINTER)(FILE* stream, const std::string& ipaddr);

// Everything is public: parsers hand their results to their callers through
// these members, and the providers read the caches directly.
class zov_quillset {
public:
    zov_quillset(SSLOG_FUNC_POINTER fpLog, void* logCtx);
    virtual ~zov_quillset();
    zov_quillset(const zov_quillset&) = delete;
    zov_quillset& operator=(const zov_quillset&) = delete;

    // --- command location and child processes ---
    std::string GetTilloCliExe();
    std::string GetGelmotCliExe();
    std::string GetPirnetCliExe();
    // The opening of every operation that runs a tool: `path` gets the
    // tool's full path, or stays empty and the miss is reported as `how`
    // says, under the caller's file, line and name. The error, if one is
    // made, is the caller's.
    SSError* locateTool(std::string& path, ZovTool tool, const char* file, int line,
                        const char* fname, const ToolMiss& how = ToolMiss());
    // The report alone, for an operation that looked the tool up earlier.
    SSError* reportMissingTool(ZovTool tool, const char* file, int line, const char* fname,
                               const ToolMiss& how = ToolMiss());
    // Starts one child for a printf-formed command line cut at blanks. With
    // `pp` its output goes there and the caller reads it (after closing its
    // write end); without, the output is drained into the log. The caller
    // owns the child (waitchild).
    SSError* esv_spawn(Pipe* pp, int* pidp, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    // --- frame iteration and output reading ---
    SSError* init(std::vector<std::string>& ipaddrs, attrlist* attrs);
    // Runs `command` -h ADDRESS `args` against each frame and feeds its output
    // to `processOutput`. TilSuccess: stop at the first frame that serves;
    // otherwise stop at the first that fails.
    SSError* perIpAddr(bool TilSuccess, POUTPUT_FUNC_POINTER processOutput,
                       const std::string& command, const std::string& args,
                       std::vector<std::string> m_ipaddrlistTemp);
    // `command` holds one %s for the address; one child per frame, all into
    // `pipe`, none waited for.
    SSError* perIpAddr(Pipe& pipe, const char* command, std::vector<std::string> m_ipaddrlistTemp);
    // The common listing: tilloseccli with `args` against each frame until one
    // fails, read by `parser`; a tool that cannot be found is the usual error,
    // logged under the caller's file and line.
    SSError* listFromEachFrame(const char* file, int line, const char* fname,
                               POUTPUT_FUNC_POINTER parser, const char* args);
    // Runs one whole command line (its text is never taken as a format) and
    // hands its output to `read`; then the read end is closed, so that a
    // reader that stopped early cannot leave the child blocked, and the child
    // is reaped. An error of the pipe or the spawn comes back and `read` is
    // not called; otherwise what `read` returns.
    SSError* runCommand(const std::string& fullcmd, const std::function<SSError*(FILE*)>& read);
    // One line (at most 1023 bytes, line feed kept) into buf: 1, or 0 at end.
    int lfgets(std::string& buf, FILE* stream);
    // First non-loopback IPv4 address of `hostname`: 0; else -1 with
    // `ipaddr` set to `hostname`.
    int getIpAddr(std::string hostname, std::string& ipaddr);
    // regexec of row `index` of m_cp on `text`; REG_NOMATCH while the table
    // is not compiled, and without running the expression on a text that
    // lacks what every match of the row holds.
    int rxmatch(int index, const std::string& text, size_t nmatch, regmatch_t* pmatch);
    // Reaps the children that earlier pipe-form calls started.
    void reapPipeChildren();

    // --- storage-group file lock (between processes) ---
    int set_file_lock(int nonblocking);
    void set_file_unlock(int fd);

    // --- device identity ---
    SSError* merlode_devpathname2lun(const char* given_devpathname, unsigned int* lunID,
                                     char** frameIP);
    SSError* normalizeSrc(std::string src, std::string& devName);
    int getSrcLun(std::string device);
    std::string truncateSlice(std::string mountPath);
    std::string truncatePPSlice(std::string mountPath);
    int ctd_ct_match(std::string& dev1, int& dev1_lun, std::string& dev2, int& dev2_lun);
    std::string convertWWNToLun(std::string passSrcDev);
    SSError* convertWWNtoLunID(std::string src, std::string& devName);
    SSError* ncli_initArrayLunUID();
    std::string getMerlSerialNumber(std::string device);
    SSError* getFrameSN(std::string& frameSN);
    SSError* processInitArrayLunUID(FILE* stream, const std::string& ipaddr);
    SSError* processConvertWWNToLun(FILE* stream, const std::string& ipaddr);
    SSError* processFrameSN(FILE* stream, const std::string& ipaddr);

    // --- volume map ---
    SSError* initVolMap(std::string passSrcDev);
    // The host device of clone LUN `passCloneSrcNumber` on this host, or "";
    // PPPseudo 1 when the client's source is a multipath pseudo device.
    std::string proxyCloneInitVolMap(int passCloneSrcNumber, int PPPseudo);
    std::string processInitVolMap(FILE* stream, std::string src);
    std::string processProxyCloneInitVolMap(FILE* stream, int passSrcDev, int isPseudo);

    // --- capability and versions ---
    // 1 configured for COW snapshots, 0 not, -1 unknown.
    int isSnappable(std::string src);
    // "" when every source has a snapshot configuration, else one line each.
    std::string validateSnapConfig(std::list<snapdevice>& sources);
    SSError* ncli_getSnapshotList();
    SSError* getVersions(pkgRevision* pkgs, int count);
    SSError* processGetSourceSnapInfo(FILE* stream, const std::string& ipaddr);
    SSError* processGetSnapshotList(FILE* stream, const std::string& ipaddr);
    // `index`: 1 tilloseccli -help, 2 gelmot help, 3 hadrix version, 4 ndu -list.
    SSError* processVersions(FILE* stream, int index, pkgRevision* pkgs, int count);

    // --- sessions ---
    SSError* startsession(snapdevice& sd);
    SSError* stopsession(snapdevice& sd);
    SSError* activatesession(snapdevice& sd);
    SSError* deactivatesession(snapdevice& sd);
    SSError* rollbacksession(snapdevice& sd);
    SSError* refreshSessions();
    int verifySession(std::string session);
    SSError* processStart(FILE* stream, const std::string& ipaddr);
    SSError* processRollback(FILE* stream, const std::string& ipaddr);
    SSError* processSessionNames(FILE* stream, const std::string& ipaddr);
    SSError* processDeactivate(FILE* stream, snapdevice& sd);
    void processActivate(FILE* stream, snapdevice& sd);

    // --- storage groups and ports ---
    // The port list must be read first: it makes the rows that the storage
    // group list fills.
    SSError* ncli_portlist();
    SSError* ncli_storagegrouplist();
    void add_storagegroup(const std::string& ipaddr, const std::string& deviceName,
                          const std::string& stgName);
    void add_hlualu(std::vector<storagegroup>::iterator sg_i, int hlu, int alu);
    SSError* getStorageGroupLunList(std::string mover, std::vector<std::string>& list);
    SSError* getStorageGroupUID(std::string host, std::string& uid);
    // Both hold the host's storage-group file lock across read, choice and change.
    SSError* addCloneToStorageGroup(std::string gname, int alu);
    SSError* removeCloneFromStorageGroup(std::string gname, int alu);
    SSError* processPortList(FILE* stream, const std::string& ipaddr);
    SSError* processStorageList(FILE* stream, const std::string& ipaddr);
    SSError* processMoverUID(FILE* stream, const std::string& ipaddr);
    SSError* processAddHluAlu(FILE* stream, const std::string& ipaddr);
    SSError* processGetStorageGroupLunList(FILE* stream, const std::string& ipaddr);
    SSError* processVxdiskScan(FILE* stream);

    // --- clones ---
    // 1 when the device (path or LUN number) is the source of a clone group.
    int isCloneable(std::string device);
    // "" when every source has at least `retainSnapCount` clones, else one
    // line for each that has not.
    std::string validateCloneConfig(std::list<snapdevice>& snapDeviceList, int retainSnapCount);
    // A clone's row from the cache (getFromArray 0, when it is there) or from
    // the array, which refreshes the cache.
    SSError* getCloneInfo(std::string cloneId, std::string cloneGrpId, cloneInfo& clnInfo,
                          int getFromArray);
    // Appends to `cloneList` every clone of the group whose source is `srcLun`.
    SSError* getCloneGroupInfo(int srcLun, std::vector<cloneInfo>& cloneList);
    // A reservation is a sync rate that begins with "3981".
    SSError* getCloneRsvd(std::string CloneGroup, std::string CloneId, int& isRsvd);
    SSError* reserveCloneLun(std::string CloneGroup, std::string CloneId,
                             std::vector<std::string> m_ipaddrlistTemp);
    // Gives the rate "high" back, and only to a clone that is reserved.
    SSError* unreserveCloneLun(std::string CloneGroup, std::string CloneId);
    SSError* syncClone(std::string cloneGroupId, std::string cloneId);
    SSError* rollbackClone(std::string cloneGroupId, std::string cloneId);
    // `cloneStr` holds the switches naming the clone.
    SSError* fractureClone(std::string cloneStr, std::vector<std::string> m_ipaddrlistTemp);
    // One command, against the first of the given addresses only.
    SSError* consistentFractureClone(std::string cloneGroupIdStr,
                                     std::vector<std::string> m_ipaddrlistTemp);
    // Rows of the host tool's list always go to m_activeCloneList.
    SSError* getActiveClone(std::vector<activeClone>& activeCloneList);
    SSError* getActiveClone();
    SSError* activateclone(snapdevice& sd);
    SSError* deactivateclone(snapdevice& sd);
    SSError* ncli_getCloneList();
    SSError* verifyCloneCmd(FILE* stream, const std::string& ipaddr);
    SSError* processGetCloneInfo(FILE* stream, const std::string& ipaddr);
    SSError* processGetCloneGroupInfo(FILE* stream, const std::string& ipaddr);
    SSError* processGetCloneList(FILE* stream, const std::string& ipaddr);
    SSError* processGetSourceCloneInfo(FILE* stream, const std::string& ipaddr);
    SSError* processGetCloneWWN(FILE* stream, const std::string& ipaddr);
    // The change command of the sync rate, frame by frame until one takes it.
    bool changeCloneRate(const std::string& tool, const std::string& CloneGroup,
                         const std::string& CloneId, const char* rate,
                         const std::vector<std::string>& frames, const char* fname);
    // A change of a clone's state through perIpAddr until one frame takes it;
    // a refusal is reported under `subject`.
    SSError* runCloneChange(const char* fname, const std::string& args, const std::string& subject,
                            std::vector<std::string> frames);

    // --- advanced snapshots ---
    // 1 when the array reports a snapshot mount point for the device (path or
    // LUN number); `cgName` and `SMP` get what the last frame asked said.
    int isKVTSnappable(std::string device, std::string& cgName, std::string& SMP);
    SSError* ncli_getKVTSnapList(int snapSrcLun);
    // `sectionObject` is a LUN number or a consistency group's name. Only a
    // command that cannot be run is an error; verifyKVTSession tells whether
    // the snapshot exists.
    SSError* createKVTsnapshot(std::string& sectionObject, std::string& sessionName,
                               std::string& sourceName);
    int verifyKVTSession(std::string session);
    SSError* attachSnapshotsession(snapdevice& sd);
    SSError* detachSnapshotsession(snapdevice& sd);
    SSError* deleteKVTsession(snapdevice& sd);
    SSError* rollbackkvtsession(snapdevice& sd);
    void processAttachSnapshotsession(FILE* stream, snapdevice& sd);
    SSError* processDeleteKVTSnap(FILE* stream, const std::string& ipaddr);
    // Written for the restore's output but not the one it uses, which is
    // processRollback.
    SSError* processRollbackKVT(FILE* stream, const std::string& ipaddr);
    // Runs a per-frame command (one "%s" for the address) on `frames`, all
    // when empty, into one pipe; `read` gets the mixed output.
    SSError* runOnFramesInPipe(const std::string& command, const std::vector<std::string>& frames,
                               const std::function<void(FILE*)>& read);

    // Data, in the layout the rest of the module relies on.
    std::vector<std::string> m_ipaddrlist;  // sorted, unique; purged by parsers
    std::vector<storagegroup> m_storagegrouplist;
    std::vector<cloneInfo> m_clonestoragegrouplist;
    std::vector<IP2UID> m_arrayUIDmap;
    std::vector<std::string> m_sessionList;
    std::vector<Hadrix> m_volMapList;
    std::vector<ArrayLunUID> m_arrayLunUID;
    std::vector<activeClone> m_activeCloneList;
    std::map<int, int> m_cloneIdToCount;
    std::map<int, std::string> m_snapIdToName;
    std::map<std::string, int> m_mountToLun;
    std::map<std::string, std::string> m_wwnToLun;
    std::list<std::string> m_cloneGroupSourceList;
    // The process's compiled table for the locale in force at init, shared by
    // every object; null before init.
    const regex_t* m_cp;
    int m_volMapInited;
    MerlError m_e;
    SSLOG_FUNC_POINTER m_fpLog;
    void* m_logCtx;
    CMD m_cmdPaths;
    std::string m_tilloscli;
    std::string m_gelmot;
    std::string m_pirnet;
    std::string m_PATH;
    std::string m_utilStr;
    std::string m_cloneWWNStr;
    std::string moverHostName;
    attrlist* m_attrlist;
    std::string m_MoverUIDStr;
    std::string m_MoverSTGName;

    // How many rows of m_cp hold a compiled expression (released at the end).
    int m_cpCompiled;
    // The table's locale lets the hand-written matchers answer for it.
    bool m_rxPlain;
    // Children of the pipe form of perIpAddr, reaped at its next call and at
    // the end of the object, so that none is left behind as a zombie.
    std::vector<int> m_pipeChildren;
};

// The text of captured group `m` of `text`, or "" when the group is unset.
std::string rxgroup(const std::string& text, const regmatch_t& m);

// The source text of row `index` of the expression table, or null.
const char* zov_quillset_pattern(int index);

// False when `text` cannot match row `index` of the expression table: it
// lacks the word, or the start, that every match of the row holds. True
// says only that the expression must decide.
bool zov_quillset_may_match(int index, const std::string& text);

// Removes carriage returns and line feeds anywhere, then white space at both
// ends. Every parser cleans its captured values with it.
void RemoveNonprntChars(std::string& str);

// Test hook: the directory of the storage-group lock file (null restores the
// product's fixed one). Tests run without a root-owned product tree.
void zov_quillset_set_lockdir_for_test(const char* dir);
