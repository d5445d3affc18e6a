// zov_quillset: the module's picture of the arrays and its one gateway to
// them (tools run per frame address, their output parsed into the caches
// below). Not thread-safe: an object serves one thread at a time, which the
// owner's lock ensures; the storage-group file lock is between processes.
#pragma once

#include <regex.h>
#include <stdio.h>

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

// Number of rows of the compiled expression table m_cp (cited by row).
#define ZOV_QUILLSET_NUM_REGEX 59

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
    SSError* perIpAddr(Pipe& pipe, const char* command,
                       std::vector<std::string> m_ipaddrlistTemp);
    // The common listing: tilloseccli with `args` against each frame until one
    // fails, read by `parser`; a tool that cannot be found is the usual error,
    // logged under the caller's file and line.
    SSError* listFromEachFrame(const char* file, int line, const char* fname,
                               POUTPUT_FUNC_POINTER parser, const char* args);
    // One line (at most 1023 bytes, line feed kept) into buf: 1, or 0 at end.
    int lfgets(std::string& buf, FILE* stream);
    // First non-loopback IPv4 address of `hostname`: 0; else -1 with
    // `ipaddr` set to `hostname`.
    int getIpAddr(std::string hostname, std::string& ipaddr);
    // regexec of row `index` of m_cp on `text`; REG_NOMATCH while the table
    // is not compiled.
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

    // --- advanced snapshots ---

    // Data, in the layout the rest of the module relies on.
    std::vector<std::string> m_ipaddrlist;           // sorted, unique; purged by parsers
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
    regex_t m_cp[ZOV_QUILLSET_NUM_REGEX];
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
    // Children of the pipe form of perIpAddr, reaped at its next call and at
    // the end of the object, so that none is left behind as a zombie.
    std::vector<int> m_pipeChildren;
};

// The text of captured group `m` of `text`, or "" when the group is unset.
std::string rxgroup(const std::string& text, const regmatch_t& m);

// The source text of row `index` of the expression table, or null.
const char* zov_quillset_pattern(int index);

// Removes carriage returns and line feeds anywhere, then white space at both
// ends. Every parser cleans its captured values with it.
void RemoveNonprntChars(std::string& str);

// Test hook: the directory of the storage-group lock file (null restores the
// product's fixed one). Tests run without a root-owned product tree.
void zov_quillset_set_lockdir_for_test(const char* dir);
