// Volume map of zov_quillset: the host agent's table of this host's devices
// (device names, pseudo devices, WWNs, LUN numbers), refreshed on each frame
// and read into m_volMapList, m_arrayLunUID and m_mountToLun.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "liblocal/kv_host.h"
#include "liblocal/kv_spawn.h"
#include "storage/ssm/merlode/cli/line_match.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"

using zov_text::value_after_colon;

static const char kFile[] = "storage/ssm/merlode/cli_methods";

// Reads what is left of a child's output so that a chatty child never blocks
// on a full pipe while we wait for it.
static void drain(zov_quillset& q, FILE* stream) {
    std::string rest;
    while (q.lfgets(rest, stream)) {}
}

// The two commands of the map on one frame, one after the other: the
// refresh, whose first line (when there is one) goes to `onUpdate` before
// the rest is read off, and the map itself, read by `readMap`. An error of a
// pipe or a spawn ends it and comes back.
static SSError* refresh_and_read_map(zov_quillset& q, const std::string& tool,
                                     const std::string& addr, const std::string& hostaddr,
                                     const std::function<void(const std::string&)>& onUpdate,
                                     const std::function<void(FILE*)>& readMap) {
    const std::string server = tool + " -h " + addr + " server ";
    SSError* err = q.runCommand(server + "-update -host " + hostaddr + " -rescanDevices -o",
                                [&](FILE* out) -> SSError* {
                                    std::string first;
                                    if (q.lfgets(first, out)) {
                                        onUpdate(first);
                                        drain(q, out);
                                    }
                                    return nullptr;
                                });
    if (err) return err;
    return q.runCommand(server + "-volmap -host " + hostaddr + " -local",
                        [&](FILE* out) -> SSError* {
                            readMap(out);
                            return nullptr;
                        });
}

// The first entry of each WWN in the array's list, which the map's reading
// also appends to: it catches up with the list before each look-up, so that
// a map of many thousand devices costs no more per device than a short one.
class WwnIndex {
public:
    explicit WwnIndex(const std::vector<ArrayLunUID>& list) : m_list(list) {}
    const ArrayLunUID* find(const std::string& wwn) {
        for (; m_seen < m_list.size(); m_seen++) m_first.emplace(m_list[m_seen].lunUID, m_seen);
        auto it = m_first.find(wwn);
        return it == m_first.end() ? nullptr : &m_list[it->second];
    }

private:
    const std::vector<ArrayLunUID>& m_list;
    size_t m_seen = 0;
    std::unordered_map<std::string, size_t> m_first;
};

// A "LOGICAL UNIT WWN:" row of the map: the WWN without its colons goes to
// the device being read, and the LUN number too when the array list knows it.
static void note_lun_wwn(zov_quillset& q, WwnIndex& known, const char* fname,
                         const std::string& line, Hadrix& pmt, ArrayLunUID& arrLUNUID) {
    std::string wwn;
    for (char c : value_after_colon(line))
        if (c != ':') wwn += c;
    q.m_e.logprintf(7, kFile, __LINE__, "%s: Found the device [%s] array WWN unit number [%s].",
                    fname, pmt.deviceName.c_str(), wwn.c_str());
    pmt.arrayLunUID = wwn;
    arrLUNUID.lunUID = wwn;
    if (const ArrayLunUID* u = known.find(wwn)) {
        q.m_e.logprintf(9, kFile, __LINE__,
                        ": Found UID in our list!!! : lunUID ==>[%s] "
                        "pmt.arraLunUID ==>[%s], adding the lunID ==>[%d] to our "
                        "list.",
                        u->lunUID.c_str(), pmt.arrayLunUID.c_str(), u->lunID);
        pmt.arrayLun = u->lunID;
    }
}

// The block of the map being read. Both readers walk the map the same way
// (walk_volmap): a "Device Id:" line anywhere throws away what the last
// block left behind, and in each state only a line holding that state's
// keyword counts.
struct VolMapBlock {
    Hadrix pmt;
    ArrayLunUID arrLUNUID;
    int found = 0, haveLogical = 0, havePseudo = 0;
    int parseState = 0;
    WwnIndex known;

    explicit VolMapBlock(const std::vector<ArrayLunUID>& list) : known(list) { pmt.arrayLun = -1; }
    void restart() {
        pmt.patharray.clear();
        pmt.arrayLun = -1;
        found = haveLogical = havePseudo = 0;
        parseState = 0;
    }
    // A device name is also the device's one path.
    void takeDeviceName(const std::string& name) {
        pmt.deviceName = name;
        ArrayLun path;
        path.pathname = name;
        path.alive = 1;
        pmt.patharray.push_back(path);
        havePseudo = 1;
    }
    // The capacity line ends a block: the device is kept when the block was
    // whole. Either way the next block starts from nothing.
    bool finish(zov_quillset& q, const char* fname, const std::string& line, int level) {
        pmt.lunSize = value_after_colon(line);
        bool kept = found && haveLogical && havePseudo;
        if (kept) {
            q.m_e.logprintf(level, kFile, __LINE__, "%s: Saving ArrayLun [%d] structure.", fname,
                            pmt.arrayLun);
            q.m_volMapList.push_back(pmt);
            pmt.patharray.clear();
        }
        return kept;
    }
};

// Feeds `step` each line of the map that holds the keyword its block is
// waiting for (keys[parseState]); returns the number of lines read.
static int walk_volmap(zov_quillset& q, FILE* stream, VolMapBlock& b, const char* const* keys,
                       int nkeys, const std::function<void(const std::string&)>& step) {
    int lines = 0;
    std::string line;
    while (q.lfgets(line, stream)) {
        lines++;
        if (line.find("Device Id:") != std::string::npos) b.restart();
        if (b.parseState >= 0 && b.parseState < nkeys &&
            line.find(keys[b.parseState]) != std::string::npos)
            step(line);
    }
    return lines;
}

SSError* zov_quillset::initVolMap(std::string passSrcDev) {
    const char* fname = "zov_quillset::initVolMap";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    m_arrayLunUID.clear();
    SSError* err = ncli_initArrayLunUID();
    if (err) {
        m_e.logprintf(5, kFile, __LINE__,
                      "%s: Getting Merlode LUN array information returned an error [%d]", fname,
                      (int)err->getErrCode());
        return err;
    }
    std::string tool;
    if (SSError* missing = locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname)) return missing;
    m_e.logprintf(9, kFile, __LINE__, "%s: Getting Merlode LUN Info.", fname);
    char hostbuf[64];
    memset(hostbuf, 0, sizeof(hostbuf));
    if (kv_gethostname(hostbuf, sizeof(hostbuf) - 1) != 0) {
        m_e.logprintf(3, kFile, __LINE__, "%s: Unable to get the hostname", fname);
        return nullptr;
    }
    std::string hostaddr;
    if (getIpAddr(hostbuf, hostaddr) != 0)
        m_e.logprintf(3, kFile, __LINE__,
                      "%s: getIpAddr failed to convert hostname [%s] to IP address", fname,
                      hostbuf);

    const std::vector<std::string> frames = m_ipaddrlist;
    for (size_t i = 0; i < frames.size(); i++) {
        bool IpList = (i + 1 == frames.size());
        std::string deviceId;
        err = refresh_and_read_map(
            *this, tool, frames[i], hostaddr,
            [&](const std::string& first) {
                std::vector<char> low(first.begin(), first.end());
                low.push_back('\0');
                for (char& c : low) c = (char)tolower((unsigned char)c);
                std::string lowered(low.data());
                if (lowered.find_first_not_of(" \n") == std::string::npos) {
                    m_e.logprintf(3, kFile, __LINE__,
                                  "%s: The Merlode hostagent for host [%s] returned an unknown "
                                  "error message [%s].",
                                  fname, hostaddr.c_str(), lowered.c_str());
                } else if (lowered.compare(0, 17, "agent not running") != 0) {
                    // The search's position is taken as a truth value: only
                    // the words at the very start pass, as they always have.
                    m_e.logprintf(3, kFile, __LINE__,
                                  "%s: Unable to query the Merlode hostagent database for [%s] "
                                  "because the tilloseccli hostagent process is down.  Error "
                                  "message [%s].",
                                  fname, hostaddr.c_str(), lowered.c_str());
                    SSError* dropped =
                        m_e.generr(kFile, __LINE__, nullptr, SS_EC_SNAPSHOT_NOT_SUPPORTED,
                                   "%s: Unable to query the Merlode hostagent "
                                   "database because the hostagent process is not "
                                   "running.",
                                   fname);
                    delete dropped;
                }
            },
            [&](FILE* map) { deviceId = processInitVolMap(map, passSrcDev); });
        if (err) return err;
        if (deviceId.empty() && IpList) {
            m_e.logprintf(3, kFile, __LINE__, "%s: Unable to find information about [%s]", fname,
                          passSrcDev.c_str());
            return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_SNAPSHOT_NOT_SUPPORTED,
                               "%s: zov_quillset backup object is not on a Merlode LUN.", fname);
        }
    }
    m_volMapInited = 1;
    m_e.logprintf(7, kFile, __LINE__, "Exiting: %s", fname);
    return nullptr;
}

std::string zov_quillset::processInitVolMap(FILE* stream, std::string src) {
    const char* fname = "zov_quillset::processInitVolMap";
    std::string srcNode = truncateSlice(src);
    m_e.logprintf(9, kFile, __LINE__,
                  "%s: Entering and looking for a Merlode association to our LUN [%s] ", fname,
                  srcNode.c_str());
    const bool wizard = (src == CONFIGWIZARD);
    static const char* const kKeys[] = {
        "Device Id:",           "Device Name:", "Device Mapping:",      "LOGICAL UNIT WWN:",
        "LOGICAL UNIT NUMBER:", "Trespassed:",  "LUN Capacity(Blocks):"};
    VolMapBlock b(m_arrayLunUID);
    std::string mountPt;
    int lines = walk_volmap(*this, stream, b, kKeys, 7, [&](const std::string& line) {
        switch (b.parseState) {
        case 0:
            b.pmt.pseudoNm = value_after_colon(line);
            b.found = 1;
            b.parseState = 1;
            break;
        case 1: {
            std::string v = value_after_colon(line);
            m_e.logprintf(9, kFile, __LINE__, "%s: Trying to match srcNode [%s] and deviceName[%s]",
                          fname, srcNode.c_str(), v.c_str());
            if (v == srcNode || wizard) {
                m_e.logprintf(7, kFile, __LINE__, "%s: Found source LUN [%s]", fname, v.c_str());
                b.takeDeviceName(v);
                m_e.logprintf(7, kFile, __LINE__,
                              "%s: Found the deviceName [%s] associated with the source backup "
                              "object [%s].",
                              fname, v.c_str(), src.c_str());
                b.parseState = 2;
            }
            break;
        }
        case 2:
            mountPt = value_after_colon(line);
            m_e.logprintf(7, kFile, __LINE__, "%s: Found the mountPoint [%s].", fname,
                          mountPt.c_str());
            b.parseState = 3;
            break;
        case 3:
            note_lun_wwn(*this, b.known, fname, line, b.pmt, b.arrLUNUID);
            b.haveLogical = 1;
            b.parseState = 4;
            break;
        case 4: {
            std::string v = value_after_colon(line);
            int num = zov_text::to_int(v);
            m_e.logprintf(7, kFile, __LINE__,
                          "%s: Found our device [%s] array logical unit number [%s]", fname,
                          b.pmt.deviceName.c_str(), v.c_str());
            m_e.logprintf(7, kFile, __LINE__,
                          "%s: Found the device [%s] array logical unit number[%s][%d]", fname,
                          b.pmt.deviceName.c_str(), v.c_str(), num);
            if (wizard && !mountPt.empty()) {
                m_mountToLun.insert(std::make_pair(mountPt, num));
                b.parseState = 0;
            } else {
                b.pmt.arrayLun = num;
                b.arrLUNUID.lunID = num;
                m_arrayLunUID.push_back(b.arrLUNUID);
                b.parseState = 5;
            }
            break;
        }
        case 5:
            if (value_after_colon(line) == "YES")
                m_e.logprintf(3, kFile, __LINE__,
                              "%s: [%s] is trespassed. Snapshot or Clone operation might fail.",
                              fname, b.pmt.deviceName.c_str());
            b.parseState = 6;
            break;
        case 6:
            b.finish(*this, fname, line, 9);
            b.pmt.arrayLun = -1;
            b.found = b.haveLogical = b.havePseudo = 0;
            b.parseState = 0;
            break;
        }
    });
    if (m_volMapList.empty()) {
        m_e.logprintf(0, kFile, __LINE__, "%s: Unable to find LUN associated with source [%s]",
                      fname, src.c_str());
        return std::string();
    }
    m_e.logprintf(7, kFile, __LINE__,
                  "%s: processed [%d] lines for the VolMap command and found the LUN associated "
                  "with source [%s]",
                  fname, lines, src.c_str());
    return srcNode;
}

std::string zov_quillset::proxyCloneInitVolMap(int passCloneSrcNumber, int PPPseudo) {
    const char* fname = "zov_quillset::proxyInitVolMap";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    if (m_volMapInited) {
        m_e.logprintf(7, kFile, __LINE__, "Exiting: %s", fname);
        return std::string();
    }
    // Every way through a non-empty address list returns; an empty list
    // gets one look and an empty answer instead of an endless loop.
    for (int attempt = 0; m_volMapInited == 0; attempt++) {
        m_e.logprintf(9, kFile, __LINE__,
                      "%s: Getting Merlode LUN Info. attempt [%d] passed device [%d]", fname,
                      attempt, passCloneSrcNumber);
        std::string tool;
        if (SSError* dropped = locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname)) {
            delete dropped;
            m_volMapInited = 0;
            return std::string();
        }
        char hostbuf[64];
        memset(hostbuf, 0, sizeof(hostbuf));
        if (kv_gethostname(hostbuf, sizeof(hostbuf) - 1) != 0) {
            m_e.logprintf(3, kFile, __LINE__,
                          "%s: Unable to get the hostname.  Returning an empty string.", fname);
            return std::string();
        }
        std::string hostaddr;
        if (getIpAddr(hostbuf, hostaddr) != 0)
            m_e.logprintf(3, kFile, __LINE__,
                          "%s: getIpAddr failed while converting the hostname [%s] to IP an "
                          "address",
                          fname, hostbuf);
        const std::vector<std::string> frames = m_ipaddrlist;
        if (frames.empty()) return std::string();
        for (size_t i = 0; i < frames.size(); i++) {
            bool IpList = (i + 1 == frames.size());
            std::string hostDevice;
            SSError* err = refresh_and_read_map(
                *this, tool, frames[i], hostaddr,
                [&](const std::string& first) {
                    if (!first.empty())
                        m_e.logprintf(9, kFile, __LINE__,
                                      "%s: Updating the volMap command reported a warning. "
                                      "message buffer [%s] Just continue.",
                                      fname, first.c_str());
                },
                [&](FILE* map) {
                    hostDevice = processProxyCloneInitVolMap(map, passCloneSrcNumber, PPPseudo);
                });
            if (err) {
                delete err;
                return std::string();
            }
            if (!hostDevice.empty()) {
                m_volMapInited = 1;
                return hostDevice;
            }
            if (IpList) return std::string();
        }
    }
    return std::string();
}

std::string zov_quillset::processProxyCloneInitVolMap(FILE* stream, int passSrcDev, int isPseudo) {
    const char* fname = "zov_quillset::processProxyClientInitVolMap";
    m_e.logprintf(9, kFile, __LINE__, "%s: Entering. ", fname);
    static const char* const kKeys[] = {
        "Device Id:",           "Device Name:", "LOGICAL UNIT WWN:",
        "LOGICAL UNIT NUMBER:", "Trespassed:",  "LUN Capacity(Blocks):"};
    VolMapBlock b(m_arrayLunUID);
    int lines = walk_volmap(*this, stream, b, kKeys, 6, [&](const std::string& line) {
        switch (b.parseState) {
        case 0: {
            std::string deviceId = value_after_colon(line);
            bool pseudo = deviceId.find("hadrix") != std::string::npos;
            // The mount host must show the clone the way the client shows its
            // source: physical for physical, pseudo for pseudo.
            if (isPseudo == 0 && pseudo) {
                m_e.logprintf(7, kFile, __LINE__,
                              "%s: The client source LUN is using a physical device. Found %s "
                              "which is a pseudo device. Skipping this device and continue "
                              "looking for a physical device on the Mount Host.",
                              fname, deviceId.c_str());
            } else if (isPseudo == 1 && !pseudo) {
                m_e.logprintf(7, kFile, __LINE__,
                              "%s: The client source LUN is using a pseudo device. Found %s "
                              "which is a physical device. Skipping this device and continue "
                              "looking for a pseudo device on the Mount Host.",
                              fname, deviceId.c_str());
            } else {
                b.pmt.pseudoNm = deviceId;
                m_e.logprintf(7, kFile, __LINE__,
                              "%s: source LUN [%s] was found in one of the Merlode listed in the "
                              "%s attribute list.",
                              fname, deviceId.c_str(), "FRAME_IP");
                b.parseState = 1;
            }
            break;
        }
        case 1:
            b.takeDeviceName(value_after_colon(line));
            b.parseState = 2;
            break;
        case 2:
            note_lun_wwn(*this, b.known, fname, line, b.pmt, b.arrLUNUID);
            b.parseState = 3;
            break;
        case 3: {
            std::string v = value_after_colon(line);
            int num = zov_text::to_int(v);
            m_e.logprintf(5, kFile, __LINE__,
                          "%s: Found the device [%s] array logical unit number[%s][%d]", fname,
                          b.pmt.deviceName.c_str(), v.c_str(), num);
            b.pmt.arrayLun = num;
            b.arrLUNUID.lunID = num;
            m_arrayLunUID.push_back(b.arrLUNUID);
            if (num == passSrcDev) {
                m_e.logprintf(3, kFile, __LINE__,
                              "%s: Found the Clone Number [%d] matching our passed in value [%d] "
                              "in our volMap information",
                              fname, num, passSrcDev);
                b.haveLogical = 1;
                b.found = 1;
                b.parseState = 4;
            } else {
                b.found = 0;
                b.parseState = 0;
            }
            break;
        }
        case 4:
            if (value_after_colon(line) == "YES")
                m_e.logprintf(3, kFile, __LINE__,
                              "%s: LUN [%d] is trespassed.  Snapshot or Clone operation might "
                              "fail.",
                              fname, b.pmt.arrayLun);
            b.parseState = 5;
            break;
        case 5:
            if (!b.finish(*this, fname, line, 5))
                m_e.logprintf(5, kFile, __LINE__,
                              "Ignoring ArrayLun [%d] data: havePseudo[%s], haveLogical[%s], "
                              "found:[%s]",
                              b.pmt.arrayLun, b.havePseudo ? "true" : "false",
                              b.haveLogical ? "true" : "false", b.found ? "true" : "false");
            b.found = b.haveLogical = b.havePseudo = 0;
            b.parseState = 0;
            break;
        }
    });
    if (m_volMapList.empty()) {
        m_e.logprintf(0, kFile, __LINE__, "%s: Unable to find a LUN associated with source [%d]",
                      fname, passSrcDev);
        return std::string();
    }
    m_e.logprintf(7, kFile, __LINE__,
                  "%s: processed [%d] lines for the VolMap command and found the LUN associated "
                  "with the source [%d] passed in.",
                  fname, lines, passSrcDev);
    // A multipath device answers by its device name, a plain physical one by
    // its identifier.
    for (const Hadrix& h : m_volMapList)
        if (h.pseudoNm.find("hadrix") != std::string::npos) return h.deviceName;
    return m_volMapList.back().pseudoNm;
}
