// Storage groups and ports of zov_quillset: which groups this host is in on
// each frame, the HLU/ALU pairs they hold, the mount host's group, and the
// moves of a clone LUN into and out of a group under the host's file lock.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "liblocal/kv_host.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_spawn.h"
#include "storage/ssm/merlode/cli/line_match.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"

using zov_text::cleaned;
using zov_text::rx;
using zov_text::rx_group;

static const char kFile[] = "storage/ssm/merlode/cli_methods";

// Placeholder ALU of a row of the second table form, which shows no ALU.
static const int kNoAlu = 77777777;
// Host LUN numbers run below this.
static const int kMaxHlu = 256;

SSError* zov_quillset::ncli_portlist() {
    const char* fname = "zov_quillset::ncli_portlist";
    return listFromEachFrame(kFile, __LINE__, fname, &zov_quillset::processPortList,
                             " port -list -hba");
}

SSError* zov_quillset::ncli_storagegrouplist() {
    const char* fname = "zov_quillset::ncli_storagegrouplist";
    return listFromEachFrame(kFile, __LINE__, fname, &zov_quillset::processStorageList,
                             " storagegroup -list -host");
}

void zov_quillset::add_storagegroup(const std::string& ipaddr, const std::string& deviceName,
                                    const std::string& stgName) {
    const char* fname = "zov_quillset::add_storagegroup";
    m_e.logprintf(7, kFile, __LINE__, "%s: entering", fname);
    std::string frameId;
    for (const IP2UID& u : m_arrayUIDmap) {
        if (u.frameIp == ipaddr) {
            frameId = u.frameId;
            break;
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: Adding IP : %s, HBA : %s, StgName : %s", fname,
                  ipaddr.c_str(), deviceName.c_str(), stgName.c_str());
    for (const storagegroup& sg : m_storagegrouplist) {
        if (sg.stgName == stgName && sg.HBAdevName == deviceName) {
            m_e.logprintf(9, kFile, __LINE__, "%s: This group is a dup, not adding", fname);
            return;
        }
    }
    storagegroup sg;
    sg.frameIp = ipaddr;
    sg.frameId = frameId;
    sg.HBAdevName = deviceName;
    sg.stgName = stgName;
    m_storagegrouplist.push_back(sg);
}

void zov_quillset::add_hlualu(std::vector<storagegroup>::iterator sg_i, int hlu, int alu) {
    hlualu h;
    h.hlu = hlu;
    h.alu = alu;
    sg_i->hlualuList.push_back(h);
}

// A frame address leaves the walk list for good once this host proved to
// have nothing on it.
static void purge_address(std::vector<std::string>& list, const std::string& ipaddr) {
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (*it == ipaddr) {
            list.erase(it);
            return;
        }
    }
}

// Reads "port -list -hba" output into storage-group rows for the HBAs of one
// server: this host, or with `forMountHost` the mount host. A frame that
// shows no group for that server leaves the walk list.
static void walk_port_list(zov_quillset& q, FILE* stream, const std::string& ipaddr,
                           const char* fname, bool forMountHost) {
    q.m_e.logprintf(7, kFile, __LINE__, "%s: entering", fname);
    int parseState = 0;
    int ipIsWorthWhile = 0;
    int lines = 0;
    std::string line, deviceName;
    regmatch_t pm[2];
    while (q.lfgets(line, stream)) {
        lines++;
        switch (parseState) {
        case 0:
            if (rx(q, RX_HBA_UID, line, pm, forMountHost ? 1 : 2)) parseState = 1;
            break;
        case 1:
            if (rx(q, RX_SERVER_NAME, line, pm, 2)) {
                std::string server = rx_group(line, pm[1]);
                if (!forMountHost) {
                    parseState = is_myname(server.c_str()) ? 2 : 0;
                } else if (strcmp(server.c_str(), q.moverHostName.c_str()) == 0) {
                    q.m_e.logprintf(9, kFile, __LINE__, "%s: Got a match for our server group!!",
                                    fname);
                    parseState = 2;
                } else {
                    q.m_e.logprintf(9, kFile, __LINE__, "%s: No match, try again...", fname);
                    parseState = 0;
                }
            }
            break;
        case 2:
            if (rx(q, RX_SERVER_IP, line, pm, 2)) parseState = 3;
            break;
        case 3:
            if (rx(q, RX_PORT_INFO, line)) parseState = 4;
            break;
        case 4:
            if (rx(q, RX_HBA_DEVNAME, line, pm, 2)) {
                deviceName = rx_group(line, pm[1]);
                q.m_e.logprintf(7, kFile, __LINE__, "%s: Found the device name [%s]", fname,
                                deviceName.c_str());
                parseState = 5;
            } else if (rx(q, RX_HBA_INFO, line)) {
                parseState = 0;
            }
            break;
        case 5:
            if (rx(q, RX_PORT_SG_NAME, line, pm, 2)) {
                std::string stgName = cleaned(rx_group(line, pm[1]));
                q.m_e.logprintf(7, kFile, __LINE__, "%s: Found the storage group name [%s]", fname,
                                stgName.c_str());
                q.add_storagegroup(ipaddr, deviceName, stgName);
                ipIsWorthWhile = 1;
                parseState = 4;
            } else if (rx(q, RX_HBA_INFO, line)) {
                q.m_e.logprintf(7, kFile, __LINE__, "%s: strange behavior in tillocli output",
                                fname);
                parseState = 0;
            }
            break;
        }
    }
    if (!ipIsWorthWhile) {
        // The two callers have always worded this line apart.
        if (forMountHost)
            q.m_e.logprintf(9, kFile, __LINE__, "%s: ipaddr [%s] purged", fname, ipaddr.c_str());
        else
            q.m_e.logprintf(9, kFile, __LINE__, "%s: ipaddr:%s purged", fname, ipaddr.c_str());
        purge_address(q.m_ipaddrlist, ipaddr);
    }
    q.m_e.logprintf(7, kFile, __LINE__, "%s: Exiting. processed %d lines", fname, lines);
}

SSError* zov_quillset::processPortList(FILE* stream, const std::string& ipaddr) {
    walk_port_list(*this, stream, ipaddr, "zov_quillset::processPortList", false);
    return nullptr;
}

// The port list read for the mount host instead of this one. Nothing calls
// it; it stays part of the interface.
SSError* zov_quillset::processGetStorageGroupLunList(FILE* stream, const std::string& ipaddr) {
    walk_port_list(*this, stream, ipaddr, "zov_quillset::processGetStorageGroupLunList", true);
    return nullptr;
}

namespace {
// The HLU/ALU pairs each group of the list holds, so that a listing of many
// thousand rows costs no more per row than a short one. It follows each
// group's own list, whatever added to it, before it answers.
class PairIndex {
public:
    // Whether group `at` of the list (which is `sg`) lacks the pair.
    bool lacks(size_t at, const storagegroup& sg, int hlu, int alu) {
        if (at >= m_groups.size()) m_groups.resize(at + 1);
        Group& g = m_groups[at];
        for (; g.seen < sg.hlualuList.size(); g.seen++)
            g.pairs.insert(key(sg.hlualuList[g.seen].hlu, sg.hlualuList[g.seen].alu));
        return g.pairs.count(key(hlu, alu)) == 0;
    }

private:
    static uint64_t key(int hlu, int alu) { return (uint64_t)(uint32_t)hlu << 32 | (uint32_t)alu; }
    struct Group {
        size_t seen = 0;
        std::unordered_set<uint64_t> pairs;
    };
    std::vector<Group> m_groups;
};
}  // namespace

SSError* zov_quillset::processStorageList(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processStorageList";
    (void)ipaddr;
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    int parseState = 0;
    int lines = 0;
    // Kept across rows: a row whose number can't be read keeps the last one.
    int hlu = 0, alu = 0;
    std::string line, stgName;
    regmatch_t pm[3];
    PairIndex pairs;
    while (lfgets(line, stream)) {
        lines++;
        // "Shareable:" closes a group's listing, wherever the machine stood.
        if (rx(*this, RX_SHAREABLE, line)) parseState = 0;
        switch (parseState) {
        case 0:
            if (rx(*this, RX_SG_NAME, line, pm, 2)) {
                stgName = cleaned(rx_group(line, pm[1]));
                for (const storagegroup& sg : m_storagegrouplist) {
                    if (sg.stgName == stgName) {
                        m_e.logprintf(7, kFile, __LINE__, "%s: Was a match!! %s", fname,
                                      stgName.c_str());
                        parseState = 1;
                        break;
                    }
                }
            }
            break;
        case 1:
            if (rx(*this, RX_SG_UID, line, pm, 2)) parseState = 2;
            break;
        case 2:
            if (rx(*this, RX_HLU_ALU_HEADER, line)) parseState = 3;
            break;
        case 3:
            if (rx(*this, RX_DASH_RULE, line)) parseState = 4;
            break;
        case 4:
            if (rx(*this, RX_HLU_ALU_ROW, line, pm, 3)) {
                zov_text::scan_i(rx_group(line, pm[1]), hlu);
                zov_text::scan_i(rx_group(line, pm[2]), alu);
                for (auto it = m_storagegrouplist.begin(); it != m_storagegrouplist.end(); ++it) {
                    if (it->stgName != stgName) continue;
                    m_e.logprintf(7, kFile, __LINE__, "%s: Found host storage group [%s].", fname,
                                  stgName.c_str());
                    if (pairs.lacks(it - m_storagegrouplist.begin(), *it, hlu, alu)) {
                        m_e.logprintf(7, kFile, __LINE__,
                                      "%s: Adding the hlu/alu to the storage group. storage "
                                      "group=[%s] hlu=[%d] alu=[%d]",
                                      fname, stgName.c_str(), hlu, alu);
                        add_hlualu(it, hlu, alu);
                    }
                }
            } else {
                parseState = 5;
            }
            break;
        case 5:
            if (rx(*this, RX_HLU_NO, line)) parseState = 6;
            break;
        case 6:
            if (rx(*this, RX_DASH_RULE, line)) parseState = 7;
            break;
        case 7:
            if (rx(*this, RX_HLU_WWN_ROW, line, pm, 2)) {
                zov_text::scan_i(rx_group(line, pm[1]), hlu);
                for (auto it = m_storagegrouplist.begin(); it != m_storagegrouplist.end(); ++it) {
                    if (it->stgName == stgName) add_hlualu(it, hlu, kNoAlu);
                }
            }
            break;
        }
    }
    m_e.logprintf(7, kFile, __LINE__, "%s: Exiting.  Processed %d ", fname, lines);
    return nullptr;
}

SSError* zov_quillset::getStorageGroupLunList(std::string mover, std::vector<std::string>& list) {
    const char* fname = "zov_quillset::getStorageGroupLunList";
    (void)list;  // the groups land in m_storagegrouplist; callers read them there
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    std::string ipaddr;
    if (getIpAddr(mover, ipaddr) != 0)
        m_e.logprintf(9, kFile, __LINE__, "getIpAddr crapped out: %s moverIPAddress ==>[%s]", fname,
                      ipaddr.c_str());
    moverHostName = ipaddr.empty() ? mover : ipaddr;
    return perIpAddr(false, &zov_quillset::processStorageList, tool, " storagegroup -list -host",
                     std::vector<std::string>());
}

SSError* zov_quillset::getStorageGroupUID(std::string host, std::string& uid) {
    const char* fname = "zov_quillset::getStorageGroupUID";
    (void)host;  // the group is found by this host's own name
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    SSError* err = perIpAddr(false, &zov_quillset::processMoverUID, tool,
                             " storagegroup -list -host", std::vector<std::string>());
    if (err) {
        m_e.logprintf(9, kFile, __LINE__, "%s failed to obtain the KVT storage group, %s", fname,
                      err->getErrMsg());
        return err;
    }
    uid = m_MoverUIDStr;
    m_e.logprintf(9, kFile, __LINE__, "The mover UID  [%s] ", uid.c_str());
    m_e.logprintf(7, kFile, __LINE__, "Exiting %s ", fname);
    return nullptr;
}

SSError* zov_quillset::processMoverUID(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processMoverUID";
    (void)ipaddr;
    m_MoverUIDStr.clear();
    m_e.logprintf(7, kFile, __LINE__, "Entering %s ", fname);
    char hostbuf[64];
    memset(hostbuf, 0, sizeof(hostbuf));
    if (kv_gethostname(hostbuf, sizeof(hostbuf) - 1) != 0) {
        m_e.logprintf(3, kFile, __LINE__, "%s: Failed to get host name", fname);
        return nullptr;
    }
    std::string lstrDataMover = hostbuf;
    int parseState = 0;
    int found = 0;
    int lines = 0;
    std::string line, stgName, tempMoverUID;
    regmatch_t pm[2];
    while (lfgets(line, stream)) {
        lines++;
        if (found) continue;  // the rest is read so the child never blocks
        if (rx(*this, RX_SHAREABLE, line)) parseState = 0;
        switch (parseState) {
        case 0:
            if (rx(*this, RX_SG_NAME, line, pm, 2)) {
                stgName = cleaned(rx_group(line, pm[1]));
                parseState = 1;
            }
            break;
        case 1:
            if (rx(*this, RX_SG_UID, line, pm, 2)) {
                // The pattern runs to the line's end; the UID is used without it.
                tempMoverUID = cleaned(rx_group(line, pm[1]));
                parseState = 2;
            }
            break;
        case 2:
            if (rx(*this, RX_HOST_NAME, line, pm, 2)) {
                char tempHostname[128];
                memset(tempHostname, 0, sizeof(tempHostname));
                std::string h = rx_group(line, pm[1]);
                strncpy(tempHostname, h.c_str(), sizeof(tempHostname) - 1);
                // A substring test: a short host name matches a longer one
                // that holds it.
                if (strstr(tempHostname, lstrDataMover.c_str()) != nullptr) {
                    m_e.logprintf(9, kFile, __LINE__,
                                  "%s: tempHostname == dataMover [%s] mover_name[%s]", fname,
                                  tempHostname, lstrDataMover.c_str());
                    m_MoverUIDStr = tempMoverUID;
                    m_MoverSTGName = stgName;
                    found = 1;
                }
                parseState = 0;
            }
            break;
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: inbuf m_MoverUIDSTr [%s] stgName [%s]", fname,
                  m_MoverUIDStr.c_str(), m_MoverSTGName.c_str());
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}

SSError* zov_quillset::addCloneToStorageGroup(std::string gname, int alu) {
    const char* fname = "zov_quillset::addCloneToStorageGroup";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    // Only a host with the volume manager needs the clone moved in; on all
    // others it is already visible.
    if (m_cmdPaths.findCmdPath("vxdisk").empty()) {
        m_e.logprintf(3, kFile, __LINE__,
                      "Inside: %s: Veritas is not installed.  Not moving clone LUN into storage "
                      "group",
                      fname);
        return nullptr;
    }
    m_e.logprintf(9, kFile, __LINE__, "%s : Adding clone lun [%d] to storage group uid [%s]", fname,
                  alu, gname.c_str());

    SSError* ignored = ncli_portlist();
    delete ignored;
    int lockfd = set_file_lock(0);
    if (lockfd < 0)
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR, "%s: Unknown exception",
                           fname);
    // From here to the unlock the choice of an HLU and its use are one step
    // among the processes of this host.
    ignored = ncli_storagegrouplist();
    delete ignored;

    std::string tool;
    SSError* err = locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname);
    if (err == nullptr && m_storagegrouplist.empty()) {
        m_e.logprintf(3, kFile, __LINE__,
                      "The storage group list is not populated. This is a critical error and "
                      "Merlode SCM will fail.");
        err = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR, "%s: Unknown exception",
                          fname);
    } else if (err == nullptr) {
        // One pass over the pairs as listed, not a search for a free number:
        // it stays so.
        int hluVal = 1;
        for (const storagegroup& sg : m_storagegrouplist)
            for (const hlualu& h : sg.hlualuList)
                if (h.hlu == hluVal) hluVal++;
        if (hluVal >= kMaxHlu) {
            m_e.logprintf(9, kFile, __LINE__,
                          "%s Exceeded the number of LUNs per hosts. HLUVAL[%d]", fname, hluVal);
            // A full group is reported with the missing-tool text, as it
            // always has been.
            err = reportMissingTool(ZOV_TOOL_TILLO, kFile, __LINE__, fname);
        } else {
            std::vector<char> args(gname.size() + 58);
            kv_snprintf(args.data(), args.size(),
                        " storagegroup -addhlu -gname %s -hlu %d -alu %d ", gname.c_str(), hluVal,
                        alu);
            err = perIpAddr(true, &zov_quillset::processAddHluAlu, tool, args.data(),
                            std::vector<std::string>());
            if (err) {
                err = m_e.tellerr(kFile, __LINE__, err, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                                  "%s: Unable to 'tillocli quillset -startsession' for %s", fname,
                                  gname.c_str());
            } else {
                for (auto it = m_storagegrouplist.begin(); it != m_storagegrouplist.end(); ++it) {
                    if (it->stgName == gname) {
                        add_hlualu(it, hluVal, alu);
                        break;
                    }
                }
            }
        }
    }
    set_file_unlock(lockfd);
    m_e.logprintf(7, kFile, __LINE__, "Exiting %s ", fname);
    return err;
}

SSError* zov_quillset::removeCloneFromStorageGroup(std::string gname, int alu) {
    const char* fname = "zov_quillset::removeCloneFromStorageGroup";
    m_e.logprintf(7, kFile, __LINE__, "Entering:   %s", fname);
    if (m_cmdPaths.findCmdPath("vxdisk").empty()) {
        m_e.logprintf(3, kFile, __LINE__,
                      "Inside: %s: Veritas is not installed.  Not moving clone LUN out of storage "
                      "group",
                      fname);
        return nullptr;
    }
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    // Each hit ends only the walk of its own row, so the last row's first
    // hit is the one used.
    int hluVal = -1;
    for (const storagegroup& sg : m_storagegrouplist) {
        for (const hlualu& h : sg.hlualuList) {
            if (h.alu == alu) {
                hluVal = h.hlu;
                break;
            }
        }
    }
    SSError* err = nullptr;
    if (hluVal == -1) {
        m_e.logprintf(3, kFile, __LINE__,
                      "%s: Failed to find clone lun [%d] within a storagegroup.", fname, alu);
    } else {
        int lockfd = set_file_lock(0);
        if (lockfd < 0)
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                               "%s: Unknown exception", fname);
        std::vector<char> args(gname.size() + 58);
        kv_snprintf(args.data(), args.size(), " storagegroup -removehlu -gname %s -hlu %d -o",
                    gname.c_str(), hluVal);
        m_e.logprintf(9, kFile, __LINE__, "%s : string to execute", args.data());
        err = perIpAddr(true, &zov_quillset::processAddHluAlu, tool, args.data(),
                        std::vector<std::string>());
        if (err) {
            std::string why = err->getErrMsg();
            err = m_e.generr(kFile, __LINE__, err, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                             "%s: Unable to 'tillocli quillset -startsession' for %s", fname,
                             gname.c_str());
            m_e.logprintf(3, kFile, __LINE__, "%s Unable to execute [%s], [%s] ", fname,
                          args.data(), why.c_str());
        }
        set_file_unlock(lockfd);
    }
    m_e.logprintf(7, kFile, __LINE__, "Exiting   %s ", fname);
    return err;
}

SSError* zov_quillset::processAddHluAlu(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processAddHluAlu";
    (void)ipaddr;
    int lines = 0;
    std::string line;
    while (lfgets(line, stream)) {
        lines++;
        m_e.logprintf(9, kFile, __LINE__, "%s: inbuf[%s][%d] ", fname, line.c_str(), 8);
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}

SSError* zov_quillset::processVxdiskScan(FILE* stream) {
    const char* fname = "zov_quillset::processVxdiskScan";
    int lines = 0;
    std::string line;
    while (lfgets(line, stream)) {
        lines++;
        m_e.logprintf(9, kFile, __LINE__, "%s: inbuf[%s]", fname, line.c_str());
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}
