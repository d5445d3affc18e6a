// Volume map of zov_quillset: the host agent's table of this host's devices
// (device names, pseudo devices, WWNs, LUN numbers), refreshed on each frame
// and read into m_volMapList, m_arrayLunUID and m_mountToLun.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
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
    while (q.lfgets(rest, stream)) {
    }
}

// Runs one "server ..." command of the map against one frame. The caller
// reads `pipe` and then waits for `pid`.
static SSError* start_server_cmd(zov_quillset& q, Pipe& pipe, int& pid, const std::string& tool,
                                 const std::string& addr, const char* what,
                                 const std::string& hostaddr, const char* tail) {
    SSError* err = pipe.init();
    if (err) return err;
    err = q.esv_spawn(&pipe, &pid, "%s -h %s server %s -host %s %s", tool.c_str(), addr.c_str(),
                      what, hostaddr.c_str(), tail);
    if (err) return err;
    pipe.pclose(pipe.getwrite_fd());
    return nullptr;
}

// A "LOGICAL UNIT WWN:" row of the map: the WWN without its colons goes to
// the device being read, and the LUN number too when the array list knows it.
static void note_lun_wwn(zov_quillset& q, const char* fname, const std::string& line, Hadrix& pmt,
                         ArrayLunUID& arrLUNUID) {
    std::string wwn;
    for (char c : value_after_colon(line))
        if (c != ':') wwn += c;
    q.m_e.logprintf(7, kFile, __LINE__, "%s: Found the device [%s] array WWN unit number [%s].",
                    fname, pmt.deviceName.c_str(), wwn.c_str());
    pmt.arrayLunUID = wwn;
    arrLUNUID.lunUID = wwn;
    for (const ArrayLunUID& u : q.m_arrayLunUID) {
        if (u.lunUID == wwn) {
            q.m_e.logprintf(9, kFile, __LINE__,
                            ": Found UID in our list!!! : lunUID ==>[%s] "
                            "pmt.arraLunUID ==>[%s], adding the lunID ==>[%d] to our "
                            "list.",
                            u.lunUID.c_str(), pmt.arrayLunUID.c_str(), u.lunID);
            pmt.arrayLun = u.lunID;
            break;
        }
    }
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
    std::string tool = GetTilloCliExe();
    if (tool.empty())
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                           "%s: Unable to locate %s in standard locations.", fname, "tillocli");
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
        int pid = -1, status = 0;
        {
            Pipe upd(m_fpLog, m_logCtx);
            err = start_server_cmd(*this, upd, pid, tool, frames[i], "-update", hostaddr,
                                   "-rescanDevices -o");
            if (err) return err;
            std::string first;
            if (lfgets(first, upd.getread_strm())) {
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
                    SSError* dropped = m_e.generr(kFile, __LINE__, nullptr,
                                                  SS_EC_SNAPSHOT_NOT_SUPPORTED,
                                                  "%s: Unable to query the Merlode hostagent "
                                                  "database because the hostagent process is not "
                                                  "running.",
                                                  fname);
                    delete dropped;
                }
                drain(*this, upd.getread_strm());
            }
        }
        waitchild(pid, &status, 0);

        std::string deviceId;
        {
            Pipe vm(m_fpLog, m_logCtx);
            err = start_server_cmd(*this, vm, pid, tool, frames[i], "-volmap", hostaddr, "-local");
            if (err) return err;
            deviceId = processInitVolMap(vm.getread_strm(), passSrcDev);
        }
        waitchild(pid, &status, 0);
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
    Hadrix pmt;
    pmt.arrayLun = -1;
    ArrayLunUID arrLUNUID;
    std::string mountPt;
    int found = 0, haveLogical = 0, havePseudo = 0;
    int parseState = 0;
    int lines = 0;
    std::string line;
    while (lfgets(line, stream)) {
        lines++;
        // A new block starts over, whatever the last one left behind.
        if (line.find("Device Id:") != std::string::npos) {
            pmt.patharray.clear();
            pmt.arrayLun = -1;
            found = haveLogical = havePseudo = 0;
            parseState = 0;
        }
        switch (parseState) {
        case 0:
            if (line.find("Device Id:") != std::string::npos) {
                pmt.pseudoNm = value_after_colon(line);
                found = 1;
                parseState = 1;
            }
            break;
        case 1:
            if (line.find("Device Name:") != std::string::npos) {
                std::string v = value_after_colon(line);
                m_e.logprintf(9, kFile, __LINE__, "%s: Trying to match srcNode [%s] and deviceName[%s]",
                              fname, srcNode.c_str(), v.c_str());
                if (v == srcNode || wizard) {
                    m_e.logprintf(7, kFile, __LINE__, "%s: Found source LUN [%s]", fname,
                                  v.c_str());
                    pmt.deviceName = v;
                    ArrayLun path;
                    path.pathname = v;
                    path.alive = 1;
                    pmt.patharray.push_back(path);
                    m_e.logprintf(7, kFile, __LINE__,
                                  "%s: Found the deviceName [%s] associated with the source "
                                  "backup object [%s].",
                                  fname, v.c_str(), src.c_str());
                    havePseudo = 1;
                    parseState = 2;
                }
            }
            break;
        case 2:
            if (line.find("Device Mapping:") != std::string::npos) {
                mountPt = value_after_colon(line);
                m_e.logprintf(7, kFile, __LINE__, "%s: Found the mountPoint [%s].", fname,
                              mountPt.c_str());
                parseState = 3;
            }
            break;
        case 3:
            if (line.find("LOGICAL UNIT WWN:") != std::string::npos) {
                note_lun_wwn(*this, fname, line, pmt, arrLUNUID);
                haveLogical = 1;
                parseState = 4;
            }
            break;
        case 4:
            if (line.find("LOGICAL UNIT NUMBER:") != std::string::npos) {
                std::string v = value_after_colon(line);
                int num = zov_text::to_int(v);
                m_e.logprintf(7, kFile, __LINE__,
                              "%s: Found our device [%s] array logical unit number [%s]", fname,
                              pmt.deviceName.c_str(), v.c_str());
                m_e.logprintf(7, kFile, __LINE__,
                              "%s: Found the device [%s] array logical unit number[%s][%d]", fname,
                              pmt.deviceName.c_str(), v.c_str(), num);
                if (wizard && !mountPt.empty()) {
                    m_mountToLun.insert(std::make_pair(mountPt, num));
                    parseState = 0;
                } else {
                    pmt.arrayLun = num;
                    arrLUNUID.lunID = num;
                    m_arrayLunUID.push_back(arrLUNUID);
                    parseState = 5;
                }
            }
            break;
        case 5:
            if (line.find("Trespassed:") != std::string::npos) {
                if (value_after_colon(line) == "YES")
                    m_e.logprintf(3, kFile, __LINE__,
                                  "%s: [%s] is trespassed. Snapshot or Clone operation might fail.",
                                  fname, pmt.deviceName.c_str());
                parseState = 6;
            }
            break;
        case 6:
            if (line.find("LUN Capacity(Blocks):") != std::string::npos) {
                pmt.lunSize = value_after_colon(line);
                if (found && haveLogical && havePseudo) {
                    m_e.logprintf(9, kFile, __LINE__, "%s: Saving ArrayLun [%d] structure.", fname,
                                  pmt.arrayLun);
                    m_volMapList.push_back(pmt);
                    pmt.patharray.clear();
                }
                pmt.arrayLun = -1;
                found = haveLogical = havePseudo = 0;
                parseState = 0;
            }
            break;
        }
    }
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
        std::string tool = GetTilloCliExe();
        if (tool.empty()) {
            SSError* dropped = m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                                           "%s: Unable to locate %s in standard locations.", fname,
                                           "tillocli");
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
            int pid = -1, status = 0;
            {
                Pipe upd(m_fpLog, m_logCtx);
                SSError* err = start_server_cmd(*this, upd, pid, tool, frames[i], "-update",
                                                hostaddr, "-rescanDevices -o");
                if (err) {
                    delete err;
                    return std::string();
                }
                std::string first;
                if (lfgets(first, upd.getread_strm()) && !first.empty())
                    m_e.logprintf(9, kFile, __LINE__,
                                  "%s: Updating the volMap command reported a warning. message "
                                  "buffer [%s] Just continue.",
                                  fname, first.c_str());
                drain(*this, upd.getread_strm());
            }
            waitchild(pid, &status, 0);
            std::string hostDevice;
            {
                Pipe vm(m_fpLog, m_logCtx);
                SSError* err = start_server_cmd(*this, vm, pid, tool, frames[i], "-volmap",
                                                hostaddr, "-local");
                if (err) {
                    delete err;
                    return std::string();
                }
                hostDevice =
                    processProxyCloneInitVolMap(vm.getread_strm(), passCloneSrcNumber, PPPseudo);
            }
            waitchild(pid, &status, 0);
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
    Hadrix pmt;
    pmt.arrayLun = -1;
    ArrayLunUID arrLUNUID;
    int found = 0, haveLogical = 0, havePseudo = 0;
    int parseState = 0;
    int lines = 0;
    std::string line;
    while (lfgets(line, stream)) {
        lines++;
        if (line.find("Device Id:") != std::string::npos) {
            pmt.patharray.clear();
            pmt.arrayLun = -1;
            found = haveLogical = havePseudo = 0;
            parseState = 0;
        }
        switch (parseState) {
        case 0:
            if (line.find("Device Id:") != std::string::npos) {
                std::string deviceId = value_after_colon(line);
                bool pseudo = deviceId.find("hadrix") != std::string::npos;
                // The mount host must show the clone the way the client shows
                // its source: physical for physical, pseudo for pseudo.
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
                    pmt.pseudoNm = deviceId;
                    m_e.logprintf(7, kFile, __LINE__,
                                  "%s: source LUN [%s] was found in one of the Merlode listed in "
                                  "the %s attribute list.",
                                  fname, deviceId.c_str(), "FRAME_IP");
                    parseState = 1;
                }
            }
            break;
        case 1:
            if (line.find("Device Name:") != std::string::npos) {
                pmt.deviceName = value_after_colon(line);
                ArrayLun path;
                path.pathname = pmt.deviceName;
                path.alive = 1;
                pmt.patharray.push_back(path);
                havePseudo = 1;
                parseState = 2;
            }
            break;
        case 2:
            if (line.find("LOGICAL UNIT WWN:") != std::string::npos) {
                note_lun_wwn(*this, fname, line, pmt, arrLUNUID);
                parseState = 3;
            }
            break;
        case 3:
            if (line.find("LOGICAL UNIT NUMBER:") != std::string::npos) {
                std::string v = value_after_colon(line);
                int num = zov_text::to_int(v);
                m_e.logprintf(5, kFile, __LINE__,
                              "%s: Found the device [%s] array logical unit number[%s][%d]", fname,
                              pmt.deviceName.c_str(), v.c_str(), num);
                pmt.arrayLun = num;
                arrLUNUID.lunID = num;
                m_arrayLunUID.push_back(arrLUNUID);
                if (num == passSrcDev) {
                    m_e.logprintf(3, kFile, __LINE__,
                                  "%s: Found the Clone Number [%d] matching our passed in value "
                                  "[%d] in our volMap information",
                                  fname, num, passSrcDev);
                    haveLogical = 1;
                    found = 1;
                    parseState = 4;
                } else {
                    found = 0;
                    parseState = 0;
                }
            }
            break;
        case 4:
            if (line.find("Trespassed:") != std::string::npos) {
                if (value_after_colon(line) == "YES")
                    m_e.logprintf(3, kFile, __LINE__,
                                  "%s: LUN [%d] is trespassed.  Snapshot or Clone operation might "
                                  "fail.",
                                  fname, pmt.arrayLun);
                parseState = 5;
            }
            break;
        case 5:
            if (line.find("LUN Capacity(Blocks):") != std::string::npos) {
                pmt.lunSize = value_after_colon(line);
                if (found && haveLogical && havePseudo) {
                    m_e.logprintf(5, kFile, __LINE__, "%s: Saving ArrayLun [%d] structure.", fname,
                                  pmt.arrayLun);
                    m_volMapList.push_back(pmt);
                    pmt.patharray.clear();
                } else {
                    m_e.logprintf(5, kFile, __LINE__,
                                  "Ignoring ArrayLun [%d] data: havePseudo[%s], haveLogical[%s], "
                                  "found:[%s]",
                                  pmt.arrayLun, havePseudo ? "true" : "false",
                                  haveLogical ? "true" : "false", found ? "true" : "false");
                }
                found = haveLogical = havePseudo = 0;
                parseState = 0;
            }
            break;
        }
    }
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
