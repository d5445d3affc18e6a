// Advanced-snapshot operations of zov_quillset: whether a LUN can have one
// (its snapshot mount point and consistency group), create, verify, attach
// and detach through the host tool, destroy and restore.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "liblocal/kv_msg.h"
#include "liblocal/kv_spawn.h"
#include "liblocal/kv_string.h"
#include "storage/ssm/merlode/cli/gw_internal.h"
#include "storage/ssm/merlode/cli/line_match.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"

using zov_text::cleaned;

static const char kFile[] = "storage/ssm/merlode/cli_methods";

int zov_quillset::isKVTSnappable(std::string device, std::string& cgName, std::string& SMP) {
    const char* fname = "zov_quillset::isKVTSnappable";
    std::string tool;
    int result = 0;
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s to check [%s]", fname, device.c_str());
    locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineOnly(3));
    if (tool.empty()) return 0;
    unsigned int lunID = 0;
    std::vector<std::string> frames;
    if (!device.empty() && isdigit(static_cast<unsigned char>(device[0]))) {
        lunID = static_cast<unsigned int>(zov_text::to_int(device));
    } else {
        char* frameIP = nullptr;
        SSError* err = merlode_devpathname2lun(device.c_str(), &lunID, &frameIP);
        if (err != nullptr) {
            delete err;
            m_e.logprintf(0, kFile, __LINE__,
                          "%s: Exiting. Unable to find information on source LUN  [%s]", fname,
                          device.c_str());
            return 0;
        }
        if (frameIP != nullptr) frames.push_back(frameIP);
        free(frameIP);
    }
    m_e.logprintf(5, kFile, __LINE__,
                  "%s: merlode_devpathname2lun return [%d] as the lunID for the srcdevice [%s]",
                  fname, static_cast<int>(lunID), device.c_str());
    const std::string lunText = std::to_string(lunID);
    if (frames.empty()) frames = m_ipaddrlist;

    int parseState = 0;  // carried from frame to frame
    for (const std::string& addr : frames) {
        std::string cmd;
        try {
            cmd = tool + " -h " + addr + " lun -list -l " + lunText + " -snapMountPoints" +
                  " -belongsToCG";
        } catch (const std::exception& ex) {
            errinfo* m = msg_create(103057, 55000, "Exception caught while generating command - %s",
                                    ARG_TEXT, ex.what());
            m_e.logprintf(7, kFile, __LINE__, "%s: Exiting. %s", fname,
                          m != nullptr && m->errstr != nullptr ? m->errstr : ex.what());
            msg_free(m);
            return result;
        }
        m_e.logprintf(5, kFile, __LINE__,
                      "%s: Searching for a snapshot mount point and CG membership for LUN [%d] as "
                      "the lunID for the srcdevice [%s], command to execute [%s]",
                      fname, static_cast<int>(lunID), device.c_str(), cmd.c_str());
        std::string group, smp;
        SSError* err = runCommand(cmd, [&](FILE* out) -> SSError* {
            std::string line;
            while (lfgets(line, out)) {
                m_e.logprintf(9, kFile, __LINE__, "Inside: %s, inbuf output [%s]", fname,
                              line.c_str());
                if (parseState == 0) {
                    if (line.find("Snapshot Mount Points:  ") == std::string::npos) continue;
                    smp = zov_text::value_after_colon(line);
                    if (smp != "N/A") {
                        m_e.logprintf(3, kFile, __LINE__,
                                      "%s, device [%d] has SMP and could do KVT Advanced snaps. ",
                                      fname, static_cast<int>(lunID));
                        result = 1;
                    }
                    parseState = 1;
                } else {
                    if (line.find("Consistency Group:  ") == std::string::npos) continue;
                    group = zov_text::value_after_colon(line);
                    if (group != "N/A")
                        m_e.logprintf(5, kFile, __LINE__,
                                      "%s, device [%d] is part of consistency group [%s]. ", fname,
                                      static_cast<int>(lunID), group.c_str());
                    parseState = 0;
                }
            }
            return nullptr;
        });
        if (err != nullptr) {
            delete err;
            return 0;
        }
        // The last frame asked has the last word.
        cgName = group;
        SMP = smp;
    }
    if (result == 0)
        m_e.logprintf(0, kFile, __LINE__,
                      "%s:  LUN [%s] is not configured as a snapshot capable source LUN.  Verify "
                      "it is configured for snapshot backup with your Merlode Array Administrator.",
                      fname, lunText.c_str());
    m_e.logprintf(7, kFile, __LINE__, "%s: Exiting.", fname);
    return result;
}

// "TOOL -h %s ARGS": a command for the pipe form of perIpAddr, whose one
// "%s" is the frame address; text from the array or the caller is escaped.
static std::string per_frame_command(const std::string& tool, const std::string& args) {
    return gw_escape_percent(tool) + " -h %s " + gw_escape_percent(args);
}

// Runs `command` (see per_frame_command) on `frames` (all when empty) into
// one pipe and hands the mixed output to `read` once every child has let go
// of the pipe.
SSError* zov_quillset::runOnFramesInPipe(const std::string& command,
                                         const std::vector<std::string>& frames,
                                         const std::function<void(FILE*)>& read) {
    Pipe pipe(m_fpLog, m_logCtx);
    SSError* err = pipe.init();
    if (err == nullptr) err = perIpAddr(pipe, command.c_str(), frames);
    pipe.pclose(pipe.getwrite_fd());
    if (err == nullptr) read(pipe.getread_strm());
    pipe.pclose(pipe.getread_fd());
    reapPipeChildren();
    return err;
}

SSError* zov_quillset::ncli_getKVTSnapList(int snapSrcLun) {
    const char* fname = "zov_quillset::ncli_getKVTSnapList";
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    const std::string cmd = per_frame_command(tool, "lun -list -l " + std::to_string(snapSrcLun));
    bool known = false;
    SSError* err = runOnFramesInPipe(cmd, {}, [&](FILE* out) {
        std::string line;
        while (lfgets(line, out)) {
            m_e.logprintf(7, kFile, __LINE__, "%s: %s", fname, line.c_str());
            if (line.find("LOGICAL UNIT NUMBER") != std::string::npos) known = true;
        }
    });
    if (err != nullptr) {
        m_e.logprintf(7, kFile, __LINE__, "%s: Unable to execute [%s] :  %s", fname, cmd.c_str(),
                      err->getErrMsg());
        return err;
    }
    if (!known) {
        m_e.logprintf(3, kFile, __LINE__,
                      "%s: The source LUN ID [%d] is not configured for KVT snapshot operation.",
                      fname, snapSrcLun);
        return nullptr;
    }
    for (storagegroup& sg : m_storagegrouplist)
        for (hlualu& h : sg.hlualuList)
            if (h.alu == snapSrcLun) {
                h.kvtSnappable = 1;
                m_e.logprintf(5, kFile, __LINE__, "%s: Lun %d is KVT snappable", fname, snapSrcLun);
                break;
            }
    return nullptr;
}

SSError* zov_quillset::createKVTsnapshot(std::string& sectionObject, std::string& sessionName,
                                         std::string& sourceName) {
    const char* fname = "zov_quillset::createKVTsession";
    std::string tool;
    if (SSError* missing = locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname)) return missing;
    const std::string cmd =
        per_frame_command(tool, "snap -create -res " + sectionObject + " -name " + sessionName +
                                    " -allowReadWrite yes");
    std::unique_ptr<Pipe> pipe(new Pipe(m_fpLog, m_logCtx));
    SSError* err = pipe->init();
    if (err != nullptr) return err;
    // The source's buffers are flushed first; the flush shares the pipe
    // and its words are read with the first frame's.
    int pid = -1;
    err = esv_spawn(pipe.get(), &pid, "%s flush -o %s", tool.c_str(), sourceName.c_str());
    if (err != nullptr) {
        m_e.logprintf(3, kFile, __LINE__, "%s: Flushing Source LUN failed: err[%d]", fname,
                      static_cast<int>(err->getErrCode()));
        return err;
    }
    m_pipeChildren.push_back(pid);
    const std::vector<std::string> frames = m_ipaddrlist;
    bool cmd_worked = false;
    for (size_t i = 0; i < frames.size() && !cmd_worked; i++) {
        if (i > 0) {
            // The pipe's write end went with the last frame's reading.
            pipe.reset(new Pipe(m_fpLog, m_logCtx));
            if ((err = pipe->init()) != nullptr) return err;
        }
        err = perIpAddr(*pipe, cmd.c_str(), std::vector<std::string>{frames[i]});
        if (err != nullptr) {
            m_e.logprintf(3, kFile, __LINE__, "%s: Creating KVT snapshot failed: err[%d]", fname,
                          static_cast<int>(err->getErrCode()));
            return err;
        }
        pipe->pclose(pipe->getwrite_fd());
        std::string line;
        while (lfgets(line, pipe->getread_strm())) {
            m_e.logprintf(9, kFile, __LINE__, "Inside: %s, inbuf output [%s]", fname, line.c_str());
            std::string text = cleaned(line);
            if (text.empty()) {
                cmd_worked = true;  // the array answers a new snapshot with an empty line
            } else {
                m_e.logprintf(0, kFile, __LINE__,
                              "%s, Creating the KVT snapshot returned an error, [%s]", fname,
                              text.c_str());
            }
        }
        reapPipeChildren();
    }
    m_e.logprintf(7, kFile, __LINE__, "%s: Exiting.", fname);
    return nullptr;
}

int zov_quillset::verifyKVTSession(std::string session) {
    const char* fname = "zov_quillset::verifyKVTSession";
    std::string tool;
    locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineOnly(3));
    if (tool.empty()) return 0;
    int valid = 0;
    SSError* err =
        runOnFramesInPipe(per_frame_command(tool, "snap -list -id " + session), {}, [&](FILE* out) {
            std::string line;
            while (lfgets(line, out)) {
                m_e.logprintf(9, kFile, __LINE__, "%s: %s", fname, line.c_str());
                if (valid == 0 && !session.empty() && line.find(session) != std::string::npos) {
                    m_e.logprintf(9, kFile, __LINE__,
                                  "Inside: %s, snapshot [%s] is valid on on the array.  buffer "
                                  "[%s]",
                                  fname, session.c_str(), line.c_str());
                    valid = 1;
                }
            }
        });
    if (err != nullptr) {
        m_e.logprintf(3, kFile, __LINE__, "%s: stopsession Failed: err[%d]", fname,
                      static_cast<int>(err->getErrCode()));
        delete err;
        return 0;
    }
    if (valid == 0) m_e.logprintf(7, kFile, __LINE__, "%s:Exiting.", fname);
    return valid;
}

void zov_quillset::processAttachSnapshotsession(FILE* stream, snapdevice& sd) {
    const char* fname = "zov_quillset::processAttachSnapshotsession";
    sd.dstName.clear();
    int lines = 0;
    std::string line;
    while (lfgets(line, stream)) {
        lines++;
        m_e.logprintf(7, kFile, __LINE__, "Entering: %s, inbuf [%s]", fname, line.c_str());
        if (line.find("Attached snapshot") == std::string::npos) continue;
        size_t at = line.find("device");
        if (at == std::string::npos || at + 7 > line.size()) continue;
        std::string dev;
        for (char c : line.substr(at + 7))
            if (c != '\r' && c != '\n' && c != ' ') dev += c;
        if (!dev.empty() && dev.back() == '.') dev.pop_back();
        sd.dstName = dev;
        m_e.logprintf(9, kFile, __LINE__, "Inside: %s session has been attach to [%s] ", fname,
                      sd.dstName.c_str());
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
}

SSError* zov_quillset::attachSnapshotsession(snapdevice& sd) {
    const char* fname = "zov_quillset::attachSnapshotsession";
    const std::string tempSnapDevice = sd.srcName;
    std::string tool = m_cmdPaths.findCmdPath("fenlok");
    m_e.logprintf(9, kFile, __LINE__,
                  "Entering %s:  and looking to activate [%s], tempSnapDevice [%s].", fname,
                  sd.sessionId.c_str(), tempSnapDevice.c_str());
    if (tool.empty()) return reportMissingTool(ZOV_TOOL_FENLOK, kFile, __LINE__, fname);
    SSError* err = runCommand(tool + " attach -s " + sd.sessionId, [&](FILE* out) -> SSError* {
        processAttachSnapshotsession(out, sd);
        return nullptr;
    });
    if (err != nullptr) return err;
    if (sd.dstName.empty()) {
        m_e.logprintf(3, kFile, __LINE__,
                      "%s:fenlok attach did not return a mount point for snapshot device [%s].",
                      fname, tempSnapDevice.c_str());
        return m_e.tellerr(kFile, __LINE__, nullptr, SS_EC_INVALID_ACCESS_PATH,
                           "%s: Unable to gelmot activate for %s", fname, tempSnapDevice.c_str());
    }
    m_e.logprintf(5, kFile, __LINE__, " %s: Querying local volMap for LUN [%s]", fname,
                  sd.dstName.c_str());
    for (const Hadrix& h : m_volMapList) {
        if (h.patharray.empty()) continue;
        // The raw name less its ten-character folder and its slice letter,
        // against the pseudo device less its last character. A name shorter
        // than the folder matches nothing.
        if (sd.dstName.size() < 11 || h.pseudoNm.empty()) continue;
        std::string raw = sd.dstName.substr(10, sd.dstName.size() - 11);
        if (raw != h.pseudoNm.substr(0, h.pseudoNm.size() - 1)) continue;
        for (size_t i = 0; i < h.patharray.size(); i++) {
            sd.dstName = h.pseudoNm;
            m_e.logprintf(9, kFile, __LINE__, "%s: Access path is [%s]", fname, sd.dstName.c_str());
        }
    }
    return nullptr;
}

SSError* zov_quillset::detachSnapshotsession(snapdevice& sd) {
    const char* fname = "zov_quillset::detachSnapshotsession";
    std::string tool = m_cmdPaths.findCmdPath("fenlok");
    if (tool.empty()) return reportMissingTool(ZOV_TOOL_FENLOK, kFile, __LINE__, fname);
    SSError* err = runCommand(tool + " detach -s " + sd.sessionId, [&](FILE* out) -> SSError* {
        std::string line;
        while (lfgets(line, out))
            m_e.logprintf(9, kFile, __LINE__, "Inside: %s processing [%s]", fname, line.c_str());
        return nullptr;
    });
    if (err != nullptr) return err;
    m_e.logprintf(9, kFile, __LINE__, "%s: detachSnapshotsession successful on loop %d", fname, 0);
    return nullptr;
}

SSError* zov_quillset::processDeleteKVTSnap(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processDeleteKVTSnap";
    (void)ipaddr;
    int lines = 0;
    std::string line;
    while (lfgets(line, stream)) {
        lines++;
        m_e.logprintf(9, kFile, __LINE__, "%s: inbuf [%s] ", fname, line.c_str());
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    return nullptr;
}

SSError* zov_quillset::deleteKVTsession(snapdevice& sd) {
    const char* fname = "zov_quillset::deleteKVTsession";
    // The message names the host tool whatever is missing.
    const ToolMiss asGelmot = ToolMiss().shown("gelmot");
    std::string tool;
    if (SSError* missing = locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, asGelmot))
        return missing;
    {
        Pipe probe(m_fpLog, m_logCtx);
        if (SSError* perr = probe.init()) {
            delete perr;
            return reportMissingTool(ZOV_TOOL_TILLO, kFile, __LINE__, fname, asGelmot);
        }
    }
    const std::string args = " snap -destroy -id " + sd.sessionId + " -o";
    m_e.logprintf(3, kFile, __LINE__, "%s: About to stop the session [%s]", fname,
                  sd.sessionId.c_str());
    SSError* err = perIpAddr(true, &zov_quillset::processDeleteKVTSnap, tool,
                             gw_escape_percent(args), std::vector<std::string>());
    if (err != nullptr) {
        m_e.logprintf(3, kFile, __LINE__, "%s: stopsession Failed: err[%d]", fname,
                      static_cast<int>(err->getErrCode()));
        return err;
    }
    return nullptr;
}

SSError* zov_quillset::processRollbackKVT(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processRollbackKVT";
    (void)ipaddr;
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    int lines = 0;
    std::string line;
    while (lfgets(line, stream)) {
        lines++;
        m_e.logprintf(9, kFile, __LINE__, "%s: Line read : [%s]", fname, line.c_str());
        if (line.size() > 2) {
            m_e.logprintf(9, kFile, __LINE__,
                          "%s: Error return from snap -restore : [%s] size of string read [%d]",
                          fname, line.c_str(), static_cast<int>(line.size()));
            return m_e.generr(kFile, __LINE__, nullptr, SS_EC_ROLLBACK_IMPACTS,
                              "%s: Unable to rollback session for : [%s]", fname, line.c_str());
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines.", fname, lines);
    return nullptr;
}

SSError* zov_quillset::rollbackkvtsession(snapdevice& sd) {
    const char* fname = "zov_quillset::rollbackkvtsession";
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    const std::string cmd = per_frame_command(tool, "snap -list -id " + sd.sessionId);
    int sourceLun = -1;
    SSError* err = runOnFramesInPipe(cmd, {}, [&](FILE* out) {
        std::string line;
        while (lfgets(line, out)) {
            size_t at = line.find("Source LUN(s):  ");
            if (at == std::string::npos) continue;
            std::vector<char> value(line.begin() + line.find(':') + 1, line.end());
            value.push_back('\0');
            remove_buffering_space(value.data());
            sourceLun = zov_text::to_int(value.data());
            break;
        }
    });
    if (err != nullptr) {
        m_e.logprintf(7, kFile, __LINE__, "%s: perIpAddr : err[%d], fullcmd [%s]", fname,
                      static_cast<int>(err->getErrCode()), cmd.c_str());
        return err;
    }
    const std::string args =
        " snap -restore -id " + sd.sessionId + " -res " + std::to_string(sourceLun) + " -o";
    err = perIpAddr(true, &zov_quillset::processRollback, tool, gw_escape_percent(args),
                    std::vector<std::string>());
    if (err != nullptr)
        m_e.logprintf(3, kFile, __LINE__, "Rollback failed for [%s] with [%s]", sd.srcName.c_str(),
                      err->getErrMsg());
    return err;
}
