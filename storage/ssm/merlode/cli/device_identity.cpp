// Device identity: whether a device is a LUN of the array, on which frame and
// under which number (SCSI INQUIRY, the array's WWN table, its serial
// number), and the small text operations on device names.
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <exception>

#include "drivers/cdi/cdi.h"
#include "liblocal/kv_error.h"
#include "liblocal/kv_host.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_spawn.h"
#include "storage/ssm/merlode/cli/gw_internal.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

static const char* const kFile = "storage/ssm/merlode/cli/device_identity";

// Where the array keeps its own data behind the standard INQUIRY fields.
static const int kInqVendorOffset = 8;
static const char kArrayVendor[] = "QXR";
static const int kInqLunOffset = 121;      // two bytes, high byte first
static const int kInqFrameIpOffset = 140;  // four octets in reading order

// The LUN (and frame address, which the caller frees) behind a device path;
// false, logged in the caller's name, when the path is not on a frame.
static bool lun_of_device(zov_quillset& q, const char* fname, const std::string& device,
                          unsigned int& lunID, char*& frameIP) {
    SSError* err = q.merlode_devpathname2lun(device.c_str(), &lunID, &frameIP);
    if (err == nullptr) return true;
    delete err;
    q.m_e.logprintf(3, kFile, __LINE__,
                    "%s: Exiting. merlode_devpathname2lun was unable to find out info on [%s]",
                    fname, device.c_str());
    return false;
}

// ---------------------------------------------------------------- INQUIRY

bool gw_decode_array_inquiry(const unsigned char* data, size_t len, unsigned int* lun,
                             std::string* frameIp) {
    // Bytes the device did not send read as zero, as in the cleared buffer
    // of the request: a short answer can neither be read past its end nor
    // carry the vendor it lacks.
    unsigned char inq[kInqFrameIpOffset + 4];
    memset(inq, 0, sizeof(inq));
    if (data != nullptr) memcpy(inq, data, len < sizeof(inq) ? len : sizeof(inq));
    if (memcmp(inq + kInqVendorOffset, kArrayVendor, 3) != 0) return false;
    if (lun != nullptr)
        *lun = (static_cast<unsigned int>(inq[kInqLunOffset]) << 8) | inq[kInqLunOffset + 1];
    if (frameIp != nullptr) {
        char ipbuf[100];
        kv_snprintf(ipbuf, sizeof(ipbuf), "%u.%u.%u.%u", inq[kInqFrameIpOffset],
                    inq[kInqFrameIpOffset + 1], inq[kInqFrameIpOffset + 2],
                    inq[kInqFrameIpOffset + 3]);
        *frameIp = ipbuf;
    }
    return true;
}

SSError* zov_quillset::merlode_devpathname2lun(const char* given_devpathname, unsigned int* lunID,
                                               char** frameIP) {
    static const char* const fname = "zov_quillset::merlode_devpathname2lun";
    if (given_devpathname == nullptr || *given_devpathname == '\0')
        return m_e.generr(kFile, __LINE__, nullptr, SS_EC_INVALID_ACCESS_PATH,
                          "[%s %d] NULL devpathname", kFile, __LINE__);
    if (lunID == nullptr)
        return m_e.generr(kFile, __LINE__, nullptr, SS_EC_INVALID_ACCESS_PATH, "[%s %d] NULL lunID",
                          kFile, __LINE__);

    *lunID = 0;
    CDI_INFO cdi;
    memset(&cdi, 0, sizeof(cdi));
    cdi.version = 1;
    cdi.path.type = CDI_PATH_SCSI;
    cdi.path.device_file = strdup(given_devpathname);
    cdi.path.handle = -1;
    cdi.path.options = 0;

    SSError* err = nullptr;
    if (cdi_open(&cdi) != CDI_STAT_SUCCESS) {
        err = m_e.generr(kFile, __LINE__, nullptr, SS_EC_INVALID_ACCESS_PATH,
                         "[%s %d] cdi_open(\"%s\") failed, %s, %s", kFile, __LINE__,
                         given_devpathname, cdi.error.errstr != nullptr ? cdi.error.errstr : "",
                         kv_strerror(cdi.error.errnum));
    } else {
        cdi.command = CDI_INQUIRY;
        cdi.cmd_data.inquiry.inq_data_requested = 0;
        if (cdi_cmd(&cdi) != CDI_STAT_SUCCESS) {
            err = m_e.generr(kFile, __LINE__, nullptr, SS_EC_INVALID_ACCESS_PATH,
                             "[%s %d] cdi_cmd(INQUIRY, \"%s\") failed, %s, %s", kFile, __LINE__,
                             given_devpathname, cdi.error.errstr != nullptr ? cdi.error.errstr : "",
                             kv_strerror(cdi.error.errnum));
        } else {
            // What arrived: a device may answer with less than was asked for.
            size_t got = sizeof(cdi.cmd_data.inquiry.inquiry_data);
            if (cdi.scmd.scmd_resid > 0 && static_cast<size_t>(cdi.scmd.scmd_resid) < got)
                got -= static_cast<size_t>(cdi.scmd.scmd_resid);
            else if (cdi.scmd.scmd_resid > 0)
                got = 0;
            unsigned int lun = 0;
            std::string ip;
            if (!gw_decode_array_inquiry(cdi.cmd_data.inquiry.inquiry_data, got, &lun, &ip)) {
                errinfo* m = msg_create(95616, 15022, "Not a Merlode device [%s]", ARG_TEXT,
                                        given_devpathname);
                if (m != nullptr) {
                    err = new SSError(SS_EC_INVALID_ACCESS_PATH, *m);
                    msg_free(m);
                }
            } else {
                *lunID = lun;
                if (frameIP != nullptr) *frameIP = strdup(ip.c_str());
                m_e.logprintf(
                    5, kFile, __LINE__,
                    "%s: Merlode pathName [%s] is control by frameIP [%s], and has LUN ID [%d]",
                    fname, given_devpathname, ip.c_str(), static_cast<int>(*lunID));
            }
        }
    }
    m_e.logprintf(7, kFile, __LINE__, "Exiting: %s ", fname);
    // cdi_close frees the device file name; a failed open may have left it.
    cdi_close(&cdi);
    return err;
}

SSError* zov_quillset::normalizeSrc(std::string src, std::string& devName) {
    static const char* const fname = "zov_quillset::normalizeSrc";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s, source dev [%s]", fname, src.c_str());
    devName.clear();
    unsigned int lunID = 0;
    char* frameIP = nullptr;
    SSError* err = merlode_devpathname2lun(src.c_str(), &lunID, &frameIP);
    if (err != nullptr) {
        m_e.logprintf(0, kFile, __LINE__, "%s: Unable to find information on source LUN [%s]",
                      fname, src.c_str());
        return m_e.generr(kFile, __LINE__, err, SS_EC_SNAPSHOT_NOT_SUPPORTED,
                          "%s: Failed to obtain information about LUN [%s]", fname, src.c_str());
    }
    m_e.logprintf(5, kFile, __LINE__,
                  "%s: merlode_devpathname2lun return [%d] as the lunID for the srcdevice [%s]",
                  fname, static_cast<int>(lunID), src.c_str());
    free(frameIP);
    devName = src;
    return nullptr;
}

int zov_quillset::getSrcLun(std::string device) {
    static const char* const fname = "zov_quillset::getSrcLun";
    m_e.logprintf(9, kFile, __LINE__, "%s: check [%s]", fname, device.c_str());
    if (!device.empty() && isdigit(static_cast<unsigned char>(device[0]))) {
        m_e.logprintf(5, kFile, __LINE__, "%s: The source ID return by the Merlode is [%s]", fname,
                      device.c_str());
        return static_cast<int>(strtol(device.c_str(), nullptr, 10));
    }
    unsigned int lunID = 0;
    char* frameIP = nullptr;
    if (!lun_of_device(*this, fname, device, lunID, frameIP)) return -1;
    m_e.logprintf(5, kFile, __LINE__,
                  "%s: merlode_devpathname2lun return [%d] as the lunID for the srcdevice [%s]",
                  fname, static_cast<int>(lunID), device.c_str());
    free(frameIP);
    return static_cast<int>(lunID);
}

// ---------------------------------------------------------------- names

std::string zov_quillset::truncateSlice(std::string mountPath) {
    m_e.logprintf(9, kFile, __LINE__, "truncateSlice: Removing slice info from [%s]",
                  mountPath.c_str());
    // A device name here has no slice: only the directory part goes.
    size_t slash = mountPath.rfind('/');
    std::string out = slash == std::string::npos ? mountPath : mountPath.substr(slash + 1);
    m_e.logprintf(9, kFile, __LINE__, "truncateSlice: Done Removing slice info from [%s]",
                  mountPath.c_str());
    return out;
}

std::string zov_quillset::truncatePPSlice(std::string mountPath) {
    m_e.logprintf(9, kFile, __LINE__, "truncatePPSlice: Removing slice info from [%s]",
                  mountPath.c_str());
    size_t digit = mountPath.find_last_of("0123456789");
    if (digit == std::string::npos)
        mountPath.clear();
    else if (digit + 1 < mountPath.size())
        mountPath.erase(digit + 1);
    m_e.logprintf(9, kFile, __LINE__, "truncatePPSlice: Done Removing slice info from [%s]",
                  mountPath.c_str());
    return mountPath;
}

int zov_quillset::ctd_ct_match(std::string& dev1, int& dev1_lun, std::string& dev2, int& dev2_lun) {
    static const char* const fname = "zov_quillset::ctd_ct_match";
    m_e.logprintf(9, kFile, __LINE__, "%s: Checking [%s] [%d] against [%s] [%d]", fname,
                  dev1.c_str(), dev1_lun, dev2.c_str(), dev2_lun);
    regmatch_t m[4];
    if (rxmatch(RX_CTD_FIRST, dev1, 4, m) != 0) return 0;
    std::string ctl1 = rxgroup(dev1, m[1]);
    std::string tgt1 = rxgroup(dev1, m[2]);
    dev1_lun = static_cast<int>(strtol(rxgroup(dev1, m[3]).c_str(), nullptr, 10));
    if (rxmatch(RX_CTD_SECOND, dev2, 4, m) != 0) return 0;
    std::string ctl2 = rxgroup(dev2, m[1]);
    std::string tgt2 = rxgroup(dev2, m[2]);
    dev2_lun = static_cast<int>(strtol(rxgroup(dev2, m[3]).c_str(), nullptr, 10));
    return (ctl1 == ctl2 && tgt1 == tgt2) ? 1 : 0;
}

void RemoveNonprntChars(std::string& str) {
    std::string out;
    out.reserve(str.size());
    for (char c : str)
        if (c != '\r' && c != '\n') out += c;
    size_t b = 0;
    while (b < out.size() && isspace(static_cast<unsigned char>(out[b]))) b++;
    size_t e = out.size();
    while (e > b && isspace(static_cast<unsigned char>(out[e - 1]))) e--;
    str = out.substr(b, e - b);
}

// ---------------------------------------------------------------- WWN table

SSError* zov_quillset::ncli_initArrayLunUID() {
    static const char* const fname = "zov_quillset::ncli_initArrayLunUID";
    return listFromEachFrame(kFile, __LINE__, fname, &zov_quillset::processInitArrayLunUID,
                             " getlun -uid");
}

SSError* zov_quillset::processInitArrayLunUID(FILE* stream, const std::string& ipaddr) {
    static const char* const fname = "zov_quillset::processInitArrayLunUID";
    (void)ipaddr;
    m_e.logprintf(7, kFile, __LINE__, "Entering %s ", fname);
    int parseState = 0;
    int lunID = 0;  // an entry without digits keeps the number before it
    int lines = 0;
    std::string line;
    regmatch_t m[2];
    while (lfgets(line, stream)) {
        lines++;
        m_e.logprintf(9, kFile, __LINE__, "%s: processed [%s] ", fname, line.c_str());
        if (parseState == 0) {
            if (rxmatch(RX_LUN_NUMBER, line, 2, m) != 0) continue;
            char numbuf[128];
            memset(numbuf, 0, sizeof(numbuf));
            std::string group = rxgroup(line, m[1]);
            size_t n = group.size() + 1 < sizeof(numbuf) ? group.size() + 1 : sizeof(numbuf);
            kv_snprintf(numbuf, n, "%s", group.c_str());
            // "%i": a leading 0 reads octal and 0x hexadecimal, as the array
            // never prints either.
            sscanf(numbuf, "%i", &lunID);
            m_e.logprintf(9, kFile, __LINE__, "%s: LUN number [%d]", fname, lunID);
            parseState = 1;
        } else {
            if (rxmatch(RX_LUN_UID, line, 2, m) != 0) continue;
            std::string uid = rxgroup(line, m[1]);
            std::string joined;
            while (!uid.empty()) joined += merl_space::nextToken(uid, ":");
            if (joined.size() > 32) joined.erase(32);
            ArrayLunUID arrLUNUID;
            arrLUNUID.lunUID = joined;
            arrLUNUID.lunID = lunID;
            m_arrayLunUID.push_back(arrLUNUID);
            parseState = 0;
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    m_e.logprintf(9, kFile, __LINE__, "Total size of m_arrayLunUID vector %d ",
                  static_cast<int>(m_arrayLunUID.size()));
    return nullptr;
}

std::string zov_quillset::convertWWNToLun(std::string passSrcDev) {
    static const char* const fname = "zov_quillset::convertWWNToLun";
    if (m_arrayLunUID.empty()) {
        SSError* err = ncli_initArrayLunUID();
        if (err != nullptr) {
            m_e.logprintf(3, kFile, __LINE__, "%s Unable to get KVT LUN information, %s", fname,
                          err->getErrMsg());
            delete err;
            return std::string();
        }
    }
    std::string tool;
    locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineOnly(0));
    if (tool.empty()) return std::string();
    m_e.logprintf(9, kFile, __LINE__, "%s: Getting Merlode LUN Info.", fname);

    // The host's own address is only logged; what follows does not use it.
    char hostname[64];
    memset(hostname, 0, sizeof(hostname));
    if (kv_gethostname(hostname, sizeof(hostname) - 1) != 0) {
        m_e.logprintf(3, kFile, __LINE__, "%s: Unable to get the hostname", fname);
        return std::string();
    }
    std::string hostIp;
    if (getIpAddr(hostname, hostIp) != 0) {
        SSError* err = m_e.generr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                                  "%s: getIpAddr failed converting hostname [%s] to an IP address.",
                                  fname, hostname);
        delete err;
        m_e.logprintf(3, kFile, __LINE__, "%s: Unable to convert hostname [%s] to IP address [%s]",
                      fname, hostname, hostIp.c_str());
    }

    if (m_wwnToLun.empty()) {
        SSError* err = perIpAddr(false, &zov_quillset::processConvertWWNToLun, tool,
                                 " lun -list -uid", std::vector<std::string>());
        delete err;
    }

    auto hit = m_wwnToLun.find(passSrcDev);
    if (hit != m_wwnToLun.end()) {
        m_e.logprintf(9, kFile, __LINE__,
                      "%s: m_wwnToLun contains the LUN ID [%s] associated with [%s]", fname,
                      hit->second.c_str(), passSrcDev.c_str());
        return hit->second;
    }

    for (const ArrayLunUID& entry : m_arrayLunUID) {
        try {
            m_e.logprintf(9, kFile, __LINE__,
                          ": Looking for UID in our list!!! : lunUID ==>[%s], adding the lunID "
                          "==>[%s] to our list.",
                          entry.lunUID.c_str(), std::to_string(entry.lunID).c_str());
            if (entry.lunUID == passSrcDev) {
                m_e.logprintf(9, kFile, __LINE__,
                              ": Found UID in our list!!! : lunUID ==>[%s], adding the lunID "
                              "==>[%d] to our list.",
                              entry.lunUID.c_str(), entry.lunID);
                return std::to_string(entry.lunID);
            }
        } catch (const std::exception& ex) {
            errinfo* m = msg_create(0, 55000, "Exception caught while generating command - %s",
                                    ARG_TEXT, ex.what());
            m_e.logprintf(3, kFile, __LINE__, "%s: Exiting. %s", fname,
                          m != nullptr && m->errstr != nullptr ? m->errstr : ex.what());
            msg_free(m);
            return std::string();
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: Unable to find information about source device [%s]",
                  fname, passSrcDev.c_str());
    return std::string();
}

SSError* zov_quillset::processConvertWWNToLun(FILE* stream, const std::string& ipaddr) {
    static const char* const fname = "zov_quillset::processConvertWWNToLun";
    static const char kLunWord[] = "LOGICAL UNIT NUMBER ";  // 20 characters
    m_e.logprintf(7, kFile, __LINE__, " Entering [%s]", fname);
    int parseState = 0;
    std::string lunText;
    std::string line;
    while (lfgets(line, stream)) {
        m_e.logprintf(9, kFile, __LINE__, " current Line [%s]", line.c_str());
        size_t at = line.find(kLunWord);
        if (at != std::string::npos) {
            // A number line restarts the record wherever it stands.
            lunText = line.substr(at + sizeof(kLunWord) - 1);
            RemoveNonprntChars(lunText);
            m_e.logprintf(9, kFile, __LINE__,
                          "%s:  Found the device matching array logical unit number [%s]", fname,
                          lunText.c_str());
            parseState = 1;
            continue;
        }
        if (parseState == 1 && line.find("UID:") != std::string::npos) {
            std::string wwn = line.substr(line.find(':'));
            std::string bare;
            for (char c : wwn)
                if (c != ':') bare += c;
            RemoveNonprntChars(bare);
            m_e.logprintf(7, kFile, __LINE__,
                          "%s: Found the deviceName logical Unit WWN [%s] with ID number [%s]",
                          fname, bare.c_str(), lunText.c_str());
            m_wwnToLun.insert(std::make_pair(bare, lunText));
            parseState = 0;
        }
    }
    m_e.logprintf(7, kFile, __LINE__, "Exiting: %s [%s] ", fname, ipaddr.c_str());
    return nullptr;
}

SSError* zov_quillset::convertWWNtoLunID(std::string src, std::string& devName) {
    static const char* const fname = "zov_quillset::convertWWNtoLunID";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s, source dev [%s]", fname, src.c_str());
    devName = convertWWNToLun(src);
    if (devName.empty()) {
        m_e.logprintf(3, kFile, __LINE__, "%s: Unable to get information on source device [%s]",
                      fname, src.c_str());
        return m_e.generr(kFile, __LINE__, nullptr, SS_EC_INVALID_CONFIGURATION,
                          "%s: Failed to obtain information about LUN [%s]", fname, src.c_str());
    }
    m_e.logprintf(5, kFile, __LINE__,
                  "%s: ConvertWWNToLun found out info on [%s] and the source LUN ID is [%s]", fname,
                  src.c_str(), devName.c_str());
    return nullptr;
}

// ---------------------------------------------------------------- serial numbers

std::string zov_quillset::getMerlSerialNumber(std::string device) {
    static const char* const fname = "zov_quillset::getMerlSerialNumber";
    std::string cmd = GetTilloCliExe();
    if (cmd.empty()) {
        m_e.logprintf(3, kFile, __LINE__, "%s: Failed to find command to executed [%s].", fname,
                      "tilloseccli");
        return std::string();
    }
    unsigned int lunID = 0;
    char* frameIP = nullptr;
    if (!lun_of_device(*this, fname, device, lunID, frameIP)) return std::string();
    free(frameIP);
    m_e.logprintf(5, kFile, __LINE__,
                  "%s: merlode_devpathname2lun returned [%d] as the lunID for the srcdevice [%s]",
                  fname, static_cast<int>(lunID), device.c_str());

    std::string serial;
    bool searchOver = false;
    const std::vector<std::string> frames = m_ipaddrlist;
    for (size_t i = 0; i < frames.size() && !searchOver && serial.empty(); i++) {
        const bool IpList = (i + 1 == frames.size());
        std::string fullcmd = cmd + " -h " + frames[i] + " getarrayuid";
        m_e.logprintf(5, kFile, __LINE__,
                      "%s: About to search for a snapshot mount point for LUN [%d] as the lunID "
                      "for the srcdevice [%s], command [%s]",
                      fname, static_cast<int>(lunID), device.c_str(), fullcmd.c_str());
        Pipe pipe(m_fpLog, m_logCtx);
        int pid = -1;
        SSError* err = pipe.init();
        if (err == nullptr)
            err = esv_spawn(&pipe, &pid, "%s", gw_format_one(fullcmd, nullptr).c_str());
        if (err != nullptr) {
            delete err;
            break;
        }
        pipe.pclose(pipe.getwrite_fd());
        FILE* stream = pipe.getread_strm();
        int parseState = 0;
        std::string line;
        regmatch_t m[2];
        while (stream != nullptr && lfgets(line, stream)) {
            if (line.find("Security file not found") != std::string::npos) {
                m_e.logprintf(3, kFile, __LINE__,
                              "The required Tilloseccli security file was not found. Refer to the "
                              "KVT section of the Vaultmere Snapshot Management guide.");
                // Another frame may still answer; only the last one ends it.
                if (IpList) searchOver = true;
                break;
            }
            if (parseState == 0) {
                if (rxmatch(RX_HOSTNAME_HEADER, line, 0, nullptr) == 0) parseState = 1;
            } else if (parseState == 1) {
                if (rxmatch(RX_SERIAL_DASHES, line, 0, nullptr) != 0) {
                    m_e.logprintf(3, kFile, __LINE__,
                                  "Unable to find line of dashes from the command [%s]",
                                  fullcmd.c_str());
                    searchOver = true;
                    break;
                }
                parseState = 2;
            } else {
                if (rxmatch(RX_SERIAL_ROW, line, 2, m) == 0) {
                    serial = rxgroup(line, m[1]);
                } else {
                    m_e.logprintf(3, kFile, __LINE__,
                                  "Unable to find the Merlode Storage Array Serial Number.");
                    searchOver = true;
                }
                break;
            }
        }
        pipe.pclose(pipe.getread_fd());
        int wstatus = 0;
        waitchild(pid, &wstatus, 0);
    }
    m_e.logprintf(7, kFile, __LINE__, "Exiting %s", fname);
    return serial;
}

SSError* zov_quillset::getFrameSN(std::string& frameSN) {
    static const char* const fname = "zov_quillset::ncli_framSN";
    std::string tool;
    if (SSError* missing = locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname)) return missing;
    // A frame that prints no name must not hand back an earlier answer.
    m_utilStr.clear();
    SSError* err = perIpAddr(false, &zov_quillset::processFrameSN, tool, " arrayname",
                             std::vector<std::string>());
    frameSN = m_utilStr;
    m_e.logprintf(9, kFile, __LINE__, "%s : Got serial number [%s]", fname, frameSN.c_str());
    return err;
}

SSError* zov_quillset::processFrameSN(FILE* stream, const std::string& ipaddr) {
    static const char* const fname = "zov_quillset::processFrameSN";
    (void)ipaddr;
    m_e.logprintf(7, kFile, __LINE__, "Entering %s ", fname);
    int lines = 0;
    std::string line;
    if (lfgets(line, stream)) {
        lines = 1;
        regmatch_t m[2];
        if (rxmatch(RX_ARRAY_NAME, line, 2, m) == 0) m_utilStr = rxgroup(line, m[1]);
    }
    m_e.logprintf(7, kFile, __LINE__, "%s: Exiting. processed %d lines", fname, lines);
    return nullptr;
}
