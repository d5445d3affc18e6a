// Capability queries and version survey of zov_quillset: whether a source is
// configured for COW snapshots on the array, which LUNs of this host's
// storage groups are, and which revisions of the tools and of the arrays'
// software are installed.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "liblocal/attrlist.h"
#include "liblocal/kv_host.h"
#include "liblocal/kv_spawn.h"
#include "storage/ssm/merlode/cli/line_match.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"

using zov_text::cleaned;
using zov_text::rx;
using zov_text::rx_group;

static const char kFile[] = "storage/ssm/merlode/cli_methods";

int zov_quillset::isSnappable(std::string src) {
    const char* fname = "zov_quillset::isSnappable";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s to check [%s]", fname, src.c_str());
    std::string tool;
    locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineOnly(3));
    if (tool.empty()) return -1;
    unsigned int lunID = 0;
    if (!src.empty() && isdigit((unsigned char)src[0])) {
        lunID = (unsigned int)zov_text::to_int(src);
    } else {
        SSError* err = merlode_devpathname2lun(src.c_str(), &lunID, nullptr);
        if (err) {
            delete err;
            m_e.logprintf(0, kFile, __LINE__, "%s: Unable to find information on source LUN [%s]",
                          fname, src.c_str());
            return -1;
        }
    }
    const std::string want = std::to_string((int)lunID);
    const std::vector<std::string> frames = m_ipaddrlist;
    for (const std::string& addr : frames) {
        std::string cmd = tool + " -h " + addr + " quillset -listsnapshots -lun " + want;
        m_e.logprintf(5, kFile, __LINE__,
                      "%s: Searching for a snapshot for LUN ID [%d] as the lunID for the srcdevice "
                      "[%s], command to execute [%s]",
                      fname, (int)lunID, src.c_str(), cmd.c_str());
        int pid = -1, status = 0;
        bool hit = false;
        {
            Pipe pipe(m_fpLog, m_logCtx);
            SSError* err = pipe.init();
            if (!err) err = esv_spawn(&pipe, &pid, "%s", cmd.c_str());
            if (err) {
                delete err;
                return -1;
            }
            pipe.pclose(pipe.getwrite_fd());
            std::string line;
            while (!hit && lfgets(line, pipe.getread_strm())) {
                m_e.logprintf(9, kFile, __LINE__, "Inside: %s, inbuf output [%s]", fname,
                              line.c_str());
                if (line.find("Target Logical Unit:  ") == std::string::npos) continue;
                std::string v;
                for (char c : line.substr(line.find(':') + 1))
                    if (c != '.') v += c;
                v = cleaned(v);
                if (v == want) {
                    m_e.logprintf(3, kFile, __LINE__,
                                  "%s, device [%d] has snapshot association and could do quillset "
                                  "snapshot. ",
                                  fname, (int)lunID);
                    hit = true;
                }
            }
            // Closing our end first lets a child with more to say end on
            // SIGPIPE instead of blocking the wait below.
        }
        waitchild(pid, &status, 0);
        if (hit) return 1;
    }
    m_e.logprintf(
        0, kFile, __LINE__,
        "%s: Exiting: [%s] is not configured as a snapshot capable source LUN.  Verify it "
        "is configured for snapshot backup with your Merlode Array Administrator.",
        fname, src.c_str());
    return 0;
}

SSError* zov_quillset::ncli_getSnapshotList() {
    const char* fname = "zov_quillset::ncli_getSnapshotList";
    return listFromEachFrame(kFile, __LINE__, fname, &zov_quillset::processGetSnapshotList,
                             " quillset -listsnapshots -lun");
}

SSError* zov_quillset::processGetSnapshotList(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processGetSnapshotList";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    bool haveName = false;
    int lines = 0;
    std::string line, name;
    regmatch_t pm[2];
    while (lfgets(line, stream)) {
        lines++;
        if (!haveName && rx(*this, RX_SNAP_LUN_NAME, line, pm, 2)) {
            name = rx_group(line, pm[1]);
            m_e.logprintf(7, kFile, __LINE__, "%s: found snapshot session name [%s]", fname,
                          name.c_str());
            haveName = true;
            continue;
        }
        if (!rx(*this, RX_TARGET_LUN, line, pm, 2)) continue;
        int lun = 0;
        sscanf(line.c_str() + pm[1].rm_so, "%i", &lun);
        for (storagegroup& sg : m_storagegrouplist) {
            if (!samehost(sg.frameIp.c_str(), ipaddr.c_str())) continue;
            for (hlualu& h : sg.hlualuList) {
                if (h.alu == lun) {
                    h.snappable = 1;
                    m_e.logprintf(5, kFile, __LINE__,
                                  "%s: Setting snapshot name [%s] that corresponds to Lun [%d] as "
                                  "snappable equal true",
                                  fname, name.c_str(), lun);
                    break;
                }
            }
        }
        haveName = false;
    }
    m_e.logprintf(7, kFile, __LINE__, "%s: Exiting. Processed %d lines", fname, lines);
    return nullptr;
}

std::string zov_quillset::validateSnapConfig(std::list<snapdevice>& sources) {
    const char* fname = "zov_quillset::validateSnapConfig";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s ", fname);
    std::string tool;
    SSError* err = locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname);
    if (!err)
        err = perIpAddr(false, &zov_quillset::processGetSourceSnapInfo, tool,
                        " quillset -listsnapshots -lun", std::vector<std::string>());
    if (err) {
        m_e.logprintf(7, kFile, __LINE__, "%s: ProcessGetSourceSnapInfo returned error [%d]", fname,
                      (int)err->getErrCode());
        delete err;
    }
    // Fills the mount map; whether the source is found there is not asked.
    delete initVolMap(CONFIGWIZARD);

    std::string problems;
    for (const snapdevice& sd : sources) {
        if (m_snapIdToName.find(sd.srcDev.merllun) != m_snapIdToName.end()) {
            m_e.logprintf(7, kFile, __LINE__, "%s:  Found snapshot configuration.", fname);
        } else {
            problems += "Cannot find snapshot pool information for source LUN " + sd.srcName + "\n";
        }
    }
    m_e.logprintf(7, kFile, __LINE__, "Exiting %s with %sproblems", fname,
                  problems.empty() ? "no " : "");
    return problems;
}

SSError* zov_quillset::processGetSourceSnapInfo(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processGetSourceSnapInfo";
    (void)ipaddr;
    m_e.logprintf(7, kFile, __LINE__, "Entering %s ", fname);
    int parseState = 0;
    std::string line, snapID;
    while (lfgets(line, stream)) {
        m_e.logprintf(7, kFile, __LINE__, "Entering %s inbuf[%s] ", fname, line.c_str());
        if (line.find("Quillset logical unit name:") != std::string::npos) {
            parseState = 0;
            continue;
        }
        if (parseState == 0) {
            if (line.find("Sources:") != std::string::npos) {
                snapID = zov_text::value_after_colon(line);
                parseState = 1;
            }
        } else if (line.find("Target Logical Unit:") != std::string::npos) {
            std::string target = zov_text::value_after_colon(line);
            m_snapIdToName.insert(std::make_pair(zov_text::to_int(target), snapID));
            parseState = 0;
        }
    }
    return nullptr;
}

// Runs one version query and reads it with processVersions. The line is
// whole before it reaches the spawner, so an empty frame address still gives
// "TOOL -h  ndu -list" and never a conversion without its argument.
static SSError* run_version_query(zov_quillset& q, int index, pkgRevision* pkgs, int count,
                                  const std::string& cmdline) {
    return q.runCommand(cmdline, [&](FILE* out) -> SSError* {
        q.processVersions(out, index, pkgs, count);
        return nullptr;
    });
}

SSError* zov_quillset::getVersions(pkgRevision* pkgs, int count) {
    const char* fname = "zov_quillset::getVersion";
    std::string tillo = GetTilloCliExe();
    std::string hadrix = m_cmdPaths.findCmdPath("hadrix");
    std::string gelmot = GetGelmotCliExe();
    m_e.logprintf(7, kFile, __LINE__, "%s: entering", fname);
    auto rec = [&](int i) -> pkgRevision* { return (pkgs && i < count) ? &pkgs[i] : nullptr; };
    if (pkgRevision* r = rec(MERL_PKG_HADRIPATH)) r->optional = 1;

    bool stop = false;
    if (tillo.empty()) {
        reportMissingTool(ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineOnly(0));
        if (pkgRevision* r = rec(MERL_PKG_TILLOCLI)) r->installed = 0;
        stop = true;
    }
    if (gelmot.empty()) {
        reportMissingTool(ZOV_TOOL_GELMOT, kFile, __LINE__, fname, ToolMiss::lineOnly(9));
        pkgRevision* r = rec(MERL_PKG_GELMOT);
        if (r) {
            r->m_revision = "0 <not installed>";
            r->installed = 0;
        }
        int isProxy = attr_to_bool(attrlist_find(m_attrlist, "VMR_PQ_IS_PROXY"), 0);
        if (isProxy != 1) {
            m_e.logprintf(7, kFile, __LINE__, "%s: On the client, ignoring missing gelmot binary.",
                          fname);
            if (r) r->optional = 1;
        } else {
            attrlist* mover = attrlist_find(m_attrlist, "VMR_DATA_MOVER");
            if (mover && mover->values && mover->values->value[0]) {
                m_e.logprintf(3, kFile, __LINE__,
                              "%s: Required gelmot binary is not installed on the Mount Host.",
                              fname);
                if (r) r->optional = 0;
                stop = true;
            }
        }
    }
    if (hadrix.empty()) {
        if (pkgRevision* r = rec(MERL_PKG_HADRIPATH)) {
            r->m_revision = "0 <not installed>";
            r->installed = 0;
        }
    }
    if (stop) return nullptr;

    SSError* err = run_version_query(*this, 1, pkgs, count, tillo + " -help");
    if (!err && !gelmot.empty()) err = run_version_query(*this, 2, pkgs, count, gelmot + " help");
    if (!err && !hadrix.empty())
        err = run_version_query(*this, 3, pkgs, count, hadrix + " version");
    const std::vector<std::string> frames = m_ipaddrlist;
    for (size_t i = 0; !err && i < frames.size(); i++)
        err = run_version_query(*this, 4, pkgs, count, tillo + " -h " + frames[i] + " ndu -list");
    return err;
}

SSError* zov_quillset::processVersions(FILE* stream, int index, pkgRevision* pkgs, int count) {
    const char* fname = "zov_quillset::processVersion";
    m_e.logprintf(7, kFile, __LINE__, "%s: entering", fname);
    auto rec = [&](int i) -> pkgRevision* {
        return (pkgs && i >= 0 && i < count) ? &pkgs[i] : nullptr;
    };
    int parseState = 0;
    int which = -1;  // the record of the package block being read
    int lines = 0;
    std::string line, last, rev;
    regmatch_t pm[2];
    while (lfgets(line, stream)) {
        lines++;
        last = line;
        switch (index) {
        case 1:
        case 2:
        case 3: {
            static const ZovRx row[] = {RX_COUNT, RX_TILLO_REVISION, RX_GELMOT_REVISION,
                                        RX_HADRIX_VERSION};
            static const int pkg[] = {0, MERL_PKG_TILLOCLI, MERL_PKG_GELMOT, MERL_PKG_HADRIPATH};
            if (rx(*this, row[index], line, pm, 2)) {
                if (pkgRevision* r = rec(pkg[index])) {
                    // "Revision (.+)" takes the line feed too; the text is
                    // kept without it.
                    std::string v = rx_group(line, pm[1]);
                    while (!v.empty() && (v.back() == '\n' || v.back() == '\r')) v.pop_back();
                    r->m_revision = v;
                    r->installed = 1;
                }
            }
            break;
        }
        case 4:
            if (rx(*this, RX_PKG_NAME, line, pm, 2)) {
                std::string pkgName = rx_group(line, pm[1]);
                which = -1;
                for (int i = 0; pkgs && i < count; i++) {
                    if (pkgs[i].m_pkgName == pkgName) {
                        which = i;
                        break;
                    }
                }
                parseState = (which >= 0) ? 1 : 0;
            } else if (rx(*this, RX_PKG_REVISION, line, pm, 2)) {
                if (parseState == 1) {
                    rev = rx_group(line, pm[1]);
                    parseState = 2;
                }
            } else if (rx(*this, RX_COMMIT_REQUIRED, line, pm, 2)) {
                // A pending commit means the revision isn't in force yet.
                if (parseState == 2) parseState = (rx_group(line, pm[1]) == "YES") ? 0 : 3;
            } else if (rx(*this, RX_ACTIVE_STATE, line, pm, 2)) {
                if (parseState == 3 && rx_group(line, pm[1]) == "YES") {
                    if (pkgRevision* r = rec(which)) {
                        r->m_revision = rev;
                        r->installed = 1;
                    }
                }
            }
            break;
        default: break;
        }
    }
    if (lines < 5)
        m_e.logprintf(5, kFile, __LINE__, "%s: Context of command output buffer [%s]", fname,
                      last.c_str());
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}
