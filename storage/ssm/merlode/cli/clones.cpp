// Clone operations of zov_quillset: what the array says of its clone groups
// and clones, the reservation kept in a clone's sync rate, and the commands
// that synchronise, fracture and reverse-synchronise a clone.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <set>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "liblocal/kv_host.h"
#include "liblocal/kv_msg.h"
#include "storage/ssm/merlode/cli/gw_internal.h"
#include "storage/ssm/merlode/cli/line_match.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

using zov_text::cleaned;
using zov_text::rx;
using zov_text::rx_group;

static const char kFile[] = "storage/ssm/merlode/cli_methods";

// The rate a reserved clone carries, and the one written back on release.
static const char* const kReservedRate = "3981";
static const char* const kReleasedRate = "high";

// Three of the log lines carry a conversion without a letter ("[%]"); the
// renderer then logs that the format cannot be rendered, and reads none of
// the arguments. The texts stay as they are; held in pointers that are not
// constant, they are out of the compiler's format check.
static const char* kReserveFailedLine =
    "%s : Could not reserve clone ID [%x], group [%s], error [%].";
static const char* kUnreserveFailedLine =
    "%s : Could not unreserve clone ID [%x], group [%s],  [%s].";
static const char* kSyncFailedLine = "%s command [%] failed, %s";

// A "%i" read of a capture held in a buffer of `size` characters, as the
// array's numbers have always been read: what does not fit is not seen.
static void scan_capture(const std::string& text, size_t size, int& out) {
    zov_text::scan_i(text.size() < size ? text : text.substr(0, size - 1), out);
}

// The captured value of `row` on `line` with non-printables removed.
static bool take(zov_quillset& q, ZovRx row, const std::string& line, std::string& out) {
    regmatch_t pm[2];
    if (!rx(q, row, line, pm, 2)) return false;
    out = cleaned(rx_group(line, pm[1]));
    return true;
}

// ------------------------------------------------------------ listings

namespace {

// One state of a clone listing's reader: the row its line must match, and
// where the captured value goes. A line that does not match leaves the state.
struct CloneField {
    ZovRx row;
    void (*store)(cloneInfo&, const std::string&);
};

const CloneField kGroupName = {RX_CLONE_GROUP_NAME,
                               [](cloneInfo& c, const std::string& v) { c.cloneGrpName = v; }};
const CloneField kGroupUid = {RX_CLONE_GROUP_UID,
                              [](cloneInfo& c, const std::string& v) { c.cloneGrpId = v; }};
const CloneField kSources = {
    RX_SOURCES, [](cloneInfo& c, const std::string& v) { scan_capture(v, 256, c.lun); }};
const CloneField kCloneId = {RX_CLONE_ID,
                             [](cloneInfo& c, const std::string& v) { c.cloneId = v; }};
const CloneField kState = {RX_CLONE_STATE,
                           [](cloneInfo& c, const std::string& v) { c.cloneState = v; }};
const CloneField kCondition = {RX_CLONE_CONDITION,
                               [](cloneInfo& c, const std::string& v) { c.cloneCondition = v; }};
const CloneField kFractured = {RX_IS_FRACTURED,
                               [](cloneInfo& c, const std::string& v) { c.cloneIsFractured = v; }};
const CloneField kCloneLuns = {
    RX_CLONE_LUNS, [](cloneInfo& c, const std::string& v) { scan_capture(v, 256, c.cloneLun); }};

// "-listclone": the clone's fractured flag comes before its LUN.
const CloneField kListClone[] = {kGroupName, kGroupUid,  kCloneId,  kState,
                                 kCondition, kFractured, kCloneLuns};
// "-listclonegroup": the group's three fields, then per clone five, whose
// LUN comes before its fractured flag. State 3 is the clones line, which the
// reader judges itself; its entry only keeps the places.
const CloneField kListGroup[] = {kGroupName, kGroupUid,  kSources,   kCloneId,  kCloneId,
                                 kState,     kCondition, kCloneLuns, kFractured};

// Feeds `field` the line; true when it matched and stored its value.
bool step(zov_quillset& q, const CloneField& field, const std::string& line, cloneInfo& ci) {
    std::string v;
    if (!take(q, field.row, line, v)) return false;
    field.store(ci, v);
    return true;
}

// The clones a list holds, by ID and group UID, so that a listing of many
// thousand clones costs no more per clone than a short one. It catches up
// with the list, whatever added to it, before it answers.
class CloneIndex {
public:
    bool has(const std::vector<cloneInfo>& list, const cloneInfo& ci) {
        for (; m_seen < list.size(); m_seen++) m_keys.insert(key(list[m_seen]));
        return m_keys.count(key(ci)) != 0;
    }

private:
    static std::pair<std::string, std::string> key(const cloneInfo& c) {
        return std::make_pair(c.cloneId, c.cloneGrpId);
    }
    size_t m_seen = 0;
    std::set<std::pair<std::string, std::string>> m_keys;
};

// The first row of each ALU in each storage group of the list, made for a
// group the first time it is asked about. The groups' rows stay as they are
// while a listing is read.
class AluIndex {
public:
    hlualu* first(size_t at, storagegroup& sg, int alu) {
        if (at >= m_groups.size()) m_groups.resize(at + 1);
        Group& g = m_groups[at];
        if (!g.made) {
            for (size_t i = 0; i < sg.hlualuList.size(); i++)
                g.rows.emplace(sg.hlualuList[i].alu, i);
            g.made = true;
        }
        auto it = g.rows.find(alu);
        return it == g.rows.end() ? nullptr : &sg.hlualuList[it->second];
    }

private:
    struct Group {
        bool made = false;
        std::unordered_map<int, size_t> rows;
    };
    std::vector<Group> m_groups;
};

}  // namespace

SSError* zov_quillset::processGetCloneInfo(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processGetCloneInfo";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    const int last = static_cast<int>(sizeof(kListClone) / sizeof(kListClone[0])) - 1;
    cloneInfo ci;
    int parseState = 0;
    int lines = 0;
    std::string line;
    while (lfgets(line, stream)) {
        lines++;
        if (!step(*this, kListClone[parseState], line, ci)) continue;
        if (parseState < last) {
            parseState++;
            continue;
        }
        ci.frameIp = ipaddr;
        m_clonestoragegrouplist.push_back(ci);
        parseState = 0;
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}

SSError* zov_quillset::processGetCloneGroupInfo(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processGetCloneGroupInfo";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    const int last = static_cast<int>(sizeof(kListGroup) / sizeof(kListGroup[0])) - 1;
    cloneInfo ci;
    int parseState = 0;
    int lines = 0;
    std::string line;
    CloneIndex clones;
    while (lfgets(line, stream)) {
        lines++;
        // A group's name line starts its record over, wherever the last
        // group's listing stopped.
        if (parseState != 0 && rx(*this, RX_CLONE_GROUP_NAME, line)) parseState = 0;
        if (parseState == 3) {
            // The line after the source says whether the group has clones.
            parseState = line.find("Not Availabl") != std::string::npos ? 0 : 4;
            continue;
        }
        if (!step(*this, kListGroup[parseState], line, ci)) continue;
        if (parseState == 0) ci.frameIp = ipaddr;
        if (parseState < last) {
            parseState++;
            continue;
        }
        if (!clones.has(m_clonestoragegrouplist, ci)) {
            m_e.logprintf(9, kFile, __LINE__,
                          "%s: clone [%s] of group [%s] on [%s]: source [%d], clone LUN [%d], "
                          "state [%s], condition [%s], fractured [%s]",
                          fname, ci.cloneId.c_str(), ci.cloneGrpId.c_str(), ci.frameIp.c_str(),
                          ci.lun, ci.cloneLun, ci.cloneState.c_str(), ci.cloneCondition.c_str(),
                          ci.cloneIsFractured.c_str());
            m_clonestoragegrouplist.push_back(ci);
        }
        // After a clone the reader waits for the group's next clone.
        parseState = 4;
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}

// Copies what the callers of getCloneInfo read of a cached row.
static void copy_clone_row(const cloneInfo& from, cloneInfo& to) {
    to.cloneGrpName = from.cloneGrpName;
    to.cloneId = from.cloneId;
    to.cloneGrpId = from.cloneGrpId;
    to.cloneState = from.cloneState;
    to.cloneCondition = from.cloneCondition;
    to.cloneIsFractured = from.cloneIsFractured;
    to.cloneLun = from.cloneLun;
    to.frameIp = from.frameIp;
}

// IDs are compared over 16 characters and group UIDs over 47, so a longer
// text that begins with the same characters is the same clone.
static bool same_clone(const cloneInfo& row, const std::string& cloneId,
                       const std::string& cloneGrpId) {
    return strncmp(cloneId.c_str(), row.cloneId.c_str(), 16) == 0 &&
           strncmp(cloneGrpId.c_str(), row.cloneGrpId.c_str(), 47) == 0;
}

SSError* zov_quillset::getCloneInfo(std::string cloneId, std::string cloneGrpId, cloneInfo& clnInfo,
                                    int getFromArray) {
    const char* fname = "zov_quillset::getCloneInfo";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    if (getFromArray == 0) {
        bool found = false;
        for (const cloneInfo& row : m_clonestoragegrouplist)
            if (same_clone(row, cloneId, cloneGrpId)) {
                copy_clone_row(row, clnInfo);
                found = true;
            }
        if (found) return nullptr;
    }
    m_clonestoragegrouplist.clear();
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    std::string args =
        " quillset -listclone -CloneGroupUid " + cloneGrpId + " -CloneId " + cloneId + " ";
    SSError* err = perIpAddr(false, &zov_quillset::processGetCloneInfo, tool,
                             gw_escape_percent(args), std::vector<std::string>());
    for (cloneInfo& row : m_clonestoragegrouplist)
        if (same_clone(row, cloneId, cloneGrpId)) {
            row.cloneLUNWWNs = m_cloneWWNStr;
            copy_clone_row(row, clnInfo);
            clnInfo.cloneLUNWWNs = row.cloneLUNWWNs;
            delete err;
            return nullptr;
        }
    return m_e.tellerr(kFile, __LINE__, err, SS_EC_INVALID_ACCESS_PATH,
                       "%s: Failed to get info on clone ID (%s) in clone group (%s)", fname,
                       cloneId.c_str(), cloneGrpId.c_str());
}

SSError* zov_quillset::getCloneGroupInfo(int srcLun, std::vector<cloneInfo>& cloneList) {
    const char* fname = "zov_quillset::getCloneGroupInfo";
    m_clonestoragegrouplist.clear();
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    SSError* err = perIpAddr(false, &zov_quillset::processGetCloneGroupInfo, tool,
                             " quillset -listclonegroup -CloneLunWWNs", std::vector<std::string>());
    for (const cloneInfo& row : m_clonestoragegrouplist)
        if (row.lun == srcLun) {
            m_e.logprintf(9, kFile, __LINE__, "The source passed in match [%d]", row.cloneLun);
            cloneList.push_back(row);
        }
    return err;
}

SSError* zov_quillset::ncli_getCloneList() {
    return listFromEachFrame(kFile, __LINE__, "zov_quillset::ncli_getCloneList",
                             &zov_quillset::processGetCloneList,
                             " quillset -listclonegroup -CloneLunWWNs");
}

SSError* zov_quillset::processGetCloneList(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processGetCloneList";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    int parseState = 0;
    int lun = 0;
    int lines = 0;
    std::string line, v;
    AluIndex alus;
    while (lfgets(line, stream)) {
        lines++;
        if (parseState == 0) {
            if (take(*this, RX_SOURCES, line, v)) {
                scan_capture(v, 256, lun);
                parseState = 1;
            }
            continue;
        }
        // Exactly the line after the source decides.
        parseState = 0;
        if (!rx(*this, RX_CLONES, line)) continue;
        for (size_t at = 0; at < m_storagegrouplist.size(); at++) {
            storagegroup& sg = m_storagegrouplist[at];
            if (!samehost(sg.frameIp.c_str(), ipaddr.c_str())) continue;
            if (hlualu* h = alus.first(at, sg, lun)) {
                h->cloneable = 1;
                sg.frameIp = ipaddr;
                m_e.logprintf(5, kFile, __LINE__, "%s: Setting cloneable to true for [%d].", fname,
                              lun);
            }
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}

SSError* zov_quillset::processGetSourceCloneInfo(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processGetSourceCloneInfo";
    (void)ipaddr;
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    int parseState = 0;
    int lines = 0;
    std::string line, deviceId;
    while (lfgets(line, stream)) {
        lines++;
        if (line.find("Name:") != std::string::npos) parseState = 0;
        if (parseState == 0) {
            if (line.find("Sources:") != std::string::npos) {
                deviceId = zov_text::value_after_colon(line);
                parseState = 1;
            }
        } else if (line.find("CloneCount:") != std::string::npos) {
            std::string cloneCount = zov_text::value_after_colon(line);
            m_cloneIdToCount.insert(
                std::make_pair(zov_text::to_int(deviceId), zov_text::to_int(cloneCount)));
            parseState = 0;
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}

SSError* zov_quillset::processGetCloneWWN(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processCloneWWN";
    (void)ipaddr;
    int lines = 0;
    std::string line;
    regmatch_t pm[2];
    while (lfgets(line, stream)) {
        lines++;
        if (!rx(*this, RX_CLONE_LUN_WWNS, line, pm, 2)) continue;
        m_cloneWWNStr = rx_group(line, pm[1]);
        m_e.logprintf(9, kFile, __LINE__, "%s:  Got a match  for m_cloneWWNStr==>[%s] lines", fname,
                      m_cloneWWNStr.c_str());
    }
    return nullptr;
}

// ------------------------------------------------------------ capability

int zov_quillset::isCloneable(std::string device) {
    const char* fname = "zov_quillset::isCloneable";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s to check [%s]", fname, device.c_str());
    std::string tool;
    locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineOnly(3));
    if (tool.empty()) return 0;
    int lunID = 0;
    if (!device.empty() && isdigit(static_cast<unsigned char>(device[0]))) {
        lunID = zov_text::to_int(device);
    } else {
        unsigned int lun = 0;
        SSError* err = merlode_devpathname2lun(device.c_str(), &lun, nullptr);
        if (err) {
            delete err;
            m_e.logprintf(3, kFile, __LINE__,
                          "%s: Exiting. merlode_devpathname2lun was unable to find out info on "
                          "[%s]",
                          fname, device.c_str());
            return 0;
        }
        lunID = static_cast<int>(lun);
    }
    if (m_cloneGroupSourceList.empty()) {
        const std::vector<std::string> frames = m_ipaddrlist;
        for (const std::string& addr : frames) {
            SSError* err = runCommand(tool + " -h " + addr + "  quillset -listclonegroup -Sources ",
                                      [&](FILE* out) -> SSError* {
                                          std::string line;
                                          while (lfgets(line, out)) {
                                              if (line.find("Sources:") == std::string::npos)
                                                  continue;
                                              std::string v;
                                              for (char c : line.substr(line.find(':') + 1))
                                                  if (c != '.') v += c;
                                              m_cloneGroupSourceList.push_back(cleaned(v));
                                          }
                                          return nullptr;
                                      });
            if (err) {
                delete err;
                return 0;
            }
        }
    }
    const std::string want = std::to_string(lunID);
    for (const std::string& s : m_cloneGroupSourceList)
        if (s == want) {
            m_e.logprintf(7, kFile, __LINE__,
                          "%s, device [%d] has a clone group and could do quillset clone backups.",
                          fname, lunID);
            return 1;
        }
    m_e.logprintf(3, kFile, __LINE__,
                  "%s: Exiting: [%s] is not configured as a clone capable source LUN.  Verify it "
                  "is configured for clone backup with your Merlode Array Administrator.",
                  fname, device.c_str());
    return 0;
}

std::string zov_quillset::validateCloneConfig(std::list<snapdevice>& snapDeviceList,
                                              int retainSnapCount) {
    const char* fname = "zov_quillset::validateCloneConfig";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s ", fname);
    if (retainSnapCount <= 0) retainSnapCount = 1;
    std::string tool;
    SSError* err =
        locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0));
    if (!err)
        err =
            perIpAddr(false, &zov_quillset::processGetSourceCloneInfo, tool,
                      " quillset -listclonegroup -Sources -CloneCount", std::vector<std::string>());
    if (err) {
        m_e.logprintf(7, kFile, __LINE__, "%s: validateCloneConfig returned an error. [%d]", fname,
                      static_cast<int>(err->getErrCode()));
        delete err;
    }
    delete initVolMap(CONFIGWIZARD);

    std::string reason;
    for (const snapdevice& sd : snapDeviceList) {
        const int lun = sd.srcDev.merllun;
        auto it = m_cloneIdToCount.find(lun);
        if (it == m_cloneIdToCount.end()) {
            reason += "Unable to find clone pool for source LUN " + std::to_string(lun) + "\n";
        } else if (it->second < retainSnapCount) {
            char* text = nullptr;
            i18n_sprintf(nullptr, &text,
                         "Clone pool for source LUN %d needs %d LUNs but has only %d\n", lun,
                         retainSnapCount, it->second);
            if (text != nullptr) reason += text;
            free(text);
        } else {
            m_e.logprintf(7, kFile, __LINE__,
                          "%s: [%d] clone LUNs support retention policy of [%d]", fname, it->second,
                          retainSnapCount);
        }
    }
    m_e.logprintf(7, kFile, __LINE__, "Exiting %s with %sproblems", fname,
                  reason.empty() ? "no " : "");
    return reason;
}

// ------------------------------------------------------------ reservation

SSError* zov_quillset::getCloneRsvd(std::string CloneGroup, std::string CloneId, int& isRsvd) {
    const char* fname = "zov_quillset::getCloneRsvd";
    isRsvd = 0;
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    const std::vector<std::string> frames = m_ipaddrlist;
    for (const std::string& addr : frames) {
        std::string rate;
        bool haveRate = false;
        SSError* err = runCommand(tool + " -h " + addr + " quillset -listclone -CloneGroupUid " +
                                      CloneGroup + " -CloneId " + CloneId + " -SyncRate",
                                  [&](FILE* out) -> SSError* {
                                      std::string line;
                                      regmatch_t pm[2];
                                      while (!haveRate && lfgets(line, out))
                                          if (rx(*this, RX_SYNC_RATE, line, pm, 2)) {
                                              rate = rx_group(line, pm[1]);
                                              haveRate = true;
                                          }
                                      return nullptr;
                                  });
        delete err;
        if (!haveRate) continue;
        if (strncmp(rate.c_str(), kReservedRate, 4) == 0) {
            isRsvd = 1;
            m_e.logprintf(9, kFile, __LINE__, "%s : Clone id [%s] group [%s] is reserved.", fname,
                          CloneId.c_str(), CloneGroup.c_str());
        } else {
            m_e.logprintf(9, kFile, __LINE__, "%s : Clone id [%s] group [%s] is not reserved.",
                          fname, CloneId.c_str(), CloneGroup.c_str());
        }
        return nullptr;
    }
    m_e.logprintf(3, kFile, __LINE__,
                  "%s : Unable to get lun sync rate for clone id [%s] group [%s]", fname,
                  CloneId.c_str(), CloneGroup.c_str());
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_ILLEGAL_STATE,
                       "%s: Failed to obtain clone sync_rate info for clone ID [%s], group [%s].",
                       fname, CloneId.c_str(), CloneGroup.c_str());
}

bool zov_quillset::changeCloneRate(const std::string& tool, const std::string& CloneGroup,
                                   const std::string& CloneId, const char* rate,
                                   const std::vector<std::string>& frames, const char* fname) {
    for (const std::string& addr : frames) {
        SSError* err =
            runCommand(tool + " -h " + addr + " quillset -changeclone -CloneGroupUid " +
                           CloneGroup + " -CloneId " + CloneId + " -SyncRate " + rate + " -o",
                       [&](FILE* out) { return verifyCloneCmd(out, addr); });
        if (err == nullptr) {
            m_e.logprintf(9, kFile, __LINE__, "%s : Successfully executed changeclone command",
                          fname);
            return true;
        }
        delete err;
    }
    return false;
}

// The clone ID as the number the reservation messages print in hexadecimal.
static unsigned int clone_id_number(const std::string& id) {
    return static_cast<unsigned int>(strtoul(id.c_str(), nullptr, 16));
}

SSError* zov_quillset::reserveCloneLun(std::string CloneGroup, std::string CloneId,
                                       std::vector<std::string> m_ipaddrlistTemp) {
    const char* fname = "zov_quillset::reserveCloneLun";
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    const std::vector<std::string> frames =
        !m_ipaddrlistTemp.empty() ? m_ipaddrlistTemp : m_ipaddrlist;
    if (changeCloneRate(tool, CloneGroup, CloneId, kReservedRate, frames, fname)) return nullptr;
    m_e.logprintf(3, kFile, __LINE__, kReserveFailedLine, fname, clone_id_number(CloneId),
                  CloneGroup.c_str());
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_ILLEGAL_STATE,
                       "%s: Request to reserve clone ID [%s], group [%s] failed.", fname,
                       CloneId.c_str(), CloneGroup.c_str());
}

SSError* zov_quillset::unreserveCloneLun(std::string CloneGroup, std::string CloneId) {
    const char* fname = "zov_quillset::unreserveCloneLun";
    int isRsvd = 0;
    if (SSError* err = getCloneRsvd(CloneGroup, CloneId, isRsvd)) {
        m_e.logprintf(3, kFile, __LINE__, "%s getCloneRsvd() command failed.", fname);
        return err;
    }
    if (isRsvd == 0) {
        m_e.logprintf(9, kFile, __LINE__,
                      "%s : Warning, clone ID [%s] in group [%s] is not in the reserved state.",
                      fname, CloneId.c_str(), CloneGroup.c_str());
        return nullptr;
    }
    std::string tool = GetTilloCliExe();
    if (changeCloneRate(tool, CloneGroup, CloneId, kReleasedRate, m_ipaddrlist, fname))
        return nullptr;
    m_e.logprintf(3, kFile, __LINE__, kUnreserveFailedLine, fname, clone_id_number(CloneId),
                  CloneGroup.c_str(), kReleasedRate);
    return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_ILLEGAL_STATE,
                       "%s: Request to unreserve clone ID [%s] in group [%s] failed.", fname,
                       CloneId.c_str(), CloneGroup.c_str());
}

// ------------------------------------------------------------ changes of state

SSError* zov_quillset::verifyCloneCmd(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::verifyCloneCmd";
    (void)ipaddr;
    std::vector<std::string> kept;
    int lines = 0;
    std::string line;
    regmatch_t pm[2];
    while (lfgets(line, stream)) {
        lines++;
        kept.push_back(line);
        if (!rx(*this, RX_FAILED, line, pm, 2)) continue;
        // The message runs from the match's start for as many characters as
        // the match's end lies past the start of "failed": the tail of a
        // long line is cut, as it always has been.
        size_t start = static_cast<size_t>(pm[0].rm_so);
        long len = static_cast<long>(pm[0].rm_eo) - static_cast<long>(pm[1].rm_so);
        std::string message =
            start < line.size() && len > 0 ? line.substr(start, static_cast<size_t>(len)) : "";
        m_e.logprintf(9, kFile, __LINE__, "%s: Command failed, message [%s]", fname,
                      message.c_str());
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_CMD_EXEC_FAILED,
                           "%s: Command output not as expected : [%s]", fname, message.c_str());
    }
    for (const std::string& k : kept)
        m_e.logprintf(9, kFile, __LINE__, "%s: line:%s", fname, k.substr(0, k.size() - 1).c_str());
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}

SSError* zov_quillset::runCloneChange(const char* fname, const std::string& args,
                                      const std::string& subject, std::vector<std::string> frames) {
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    SSError* err =
        perIpAddr(true, &zov_quillset::verifyCloneCmd, tool, gw_escape_percent(args), frames);
    if (err == nullptr) return nullptr;
    return m_e.tellerr(kFile, __LINE__, err, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                       "%s: Unable to 'tillocli quillset -startsession' for %s", fname,
                       subject.c_str());
}

SSError* zov_quillset::syncClone(std::string cloneGroupId, std::string cloneId) {
    const char* fname = "zov_quillset::syncClone";
    std::string args =
        " quillset -syncclone -CloneGroupuid " + cloneGroupId + " -CloneId " + cloneId + " -o";
    SSError* err = runCloneChange(fname, args, cloneGroupId, std::vector<std::string>());
    if (err) m_e.logprintf(3, kFile, __LINE__, kSyncFailedLine, fname, err->getErrMsg());
    return err;
}

SSError* zov_quillset::rollbackClone(std::string cloneGroupId, std::string cloneId) {
    const char* fname = "zov_quillset::rollbackClone";
    std::string args = " quillset -reversesyncclone -CloneGroupuid " + cloneGroupId + " -CloneId " +
                       cloneId + " -o";
    SSError* err = runCloneChange(fname, args, cloneGroupId, std::vector<std::string>());
    if (err)
        m_e.logprintf(3, kFile, __LINE__, "%s Rollback command [%s] failed to execute [%s]", fname,
                      args.c_str(), err->getErrMsg());
    return err;
}

SSError* zov_quillset::fractureClone(std::string cloneStr,
                                     std::vector<std::string> m_ipaddrlistTemp) {
    return runCloneChange("zov_quillset::fractureClone",
                          " quillset -fractureclone " + cloneStr + " -o", cloneStr,
                          m_ipaddrlistTemp);
}

static const char* const kConsistentFractureFailures[] = {
    "Consistent Fracture clones failed",
    ("Multiple clones must be specified to perform a consistent fracture. For a single clone "
     "fracture you need to use the command -fractureclone."),
    "This switch needs multiple pairs of clone group name and clone ID to be specified.",
};

SSError* zov_quillset::consistentFractureClone(std::string cloneGroupIdStr,
                                               std::vector<std::string> m_ipaddrlistTemp) {
    const char* fname = "zov_quillset::consistentFractureClone";
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    std::string fullcmd;
    try {
        std::ostringstream cmd;
        cmd << " -h " << (m_ipaddrlistTemp.empty() ? std::string() : m_ipaddrlistTemp.front())
            << " quillset -consistentfractureclones " << cloneGroupIdStr << " -o";
        m_e.logprintf(5, kFile, __LINE__, "%s: About to issue the split mirror command: [%s].",
                      fname, cmd.str().c_str());
        fullcmd = tool + cmd.str();
    } catch (const std::exception& ex) {
        errinfo* m = msg_create(103057, 55000, "Exception caught while generating command - %s",
                                ARG_TEXT, ex.what());
        SSError* err = new SSError(SS_EC_INTERNAL_ERROR, *m);
        msg_free(m);
        m_e.logprintf(3, kFile, __LINE__, " Exiting. %s", err->getErrMsg());
        return err;
    }
    return runCommand(fullcmd, [&](FILE* out) -> SSError* {
        std::string line;
        while (lfgets(line, out)) {
            std::string text = cleaned(line);
            for (const char* failure : kConsistentFractureFailures) {
                if (strstr(text.c_str(), failure) == nullptr) continue;
                m_e.logprintf(3, kFile, __LINE__, "%s: Splitting mirror failed.  reason [%s].",
                              fname, text.c_str());
                return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                                   "%s: Unable to 'tillocli quillset -startsession' for %s", fname,
                                   cloneGroupIdStr.c_str());
            }
            if (!text.empty())
                m_e.logprintf(5, kFile, __LINE__, "%s: Unexpected output received [%s].", fname,
                              text.c_str());
        }
        return nullptr;
    });
}

// ------------------------------------------------------------ host tool

SSError* zov_quillset::getActiveClone() {
    return getActiveClone(m_activeCloneList);
}

SSError* zov_quillset::getActiveClone(std::vector<activeClone>& activeCloneList) {
    const char* fname = "zov_quillset::getActiveClone";
    (void)activeCloneList;  // rows always go to the member list
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_GELMOT, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    return runCommand(tool + " list ", [&](FILE* out) -> SSError* {
        std::string line;
        regmatch_t pm[3];
        while (lfgets(line, out)) {
            if (!rx(*this, RX_ACTIVE_CLONE, line, pm, 3)) continue;
            activeClone ac;
            ac.cloneDriveLetter = rx_group(line, pm[1]);
            std::string rest = rx_group(line, pm[2]);
            while (!rest.empty()) ac.cloneLunWWN += merl_space::nextToken(rest, ":");
            m_activeCloneList.push_back(ac);
        }
        return nullptr;
    });
}

SSError* zov_quillset::activateclone(snapdevice& sd) {
    const char* fname = "zov_quillset::activateclone";
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_GELMOT, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    SSError* err = runCommand(tool + " clone_activate ", [&](FILE* out) -> SSError* {
        std::string rest;
        while (lfgets(rest, out)) {}
        return nullptr;
    });
    const int code = err ? static_cast<int>(err->getErrCode()) : 0;
    m_e.logprintf(5, kFile, __LINE__, "%s: UNIX activate: err [%d]", fname, code);
    if (err) m_e.logprintf(5, kFile, __LINE__, "%s: activate_clone Failed: err [%d]", fname, code);
    // The host's devices changed: the map is read afresh on the next look,
    // which is the caller's (the clone's device is not searched for here).
    (void)sd;
    m_volMapInited = 0;
    m_volMapList.clear();
    return err;
}

SSError* zov_quillset::deactivateclone(snapdevice& sd) {
    const char* fname = "zov_quillset::deactivateclone";
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_GELMOT, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    m_e.logprintf(9, kFile, __LINE__, "%s Looking to deactivate hostlun [%s] Not really for UNIXs",
                  fname, sd.dstName.c_str());
    return nullptr;
}
