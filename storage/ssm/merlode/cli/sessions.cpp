// Session and host-tool operations of zov_quillset: COW sessions started,
// stopped, listed and rolled back on the array, and activated and
// deactivated on the host, each judged from the tool's printed text.
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>

#include <list>
#include <string>
#include <vector>

#include "liblocal/kv_msg.h"
#include "liblocal/kv_spawn.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kv_time.h"
#include "storage/ssm/merlode/cli/line_match.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"

using zov_text::rx;
using zov_text::rx_group;

static const char kFile[] = "storage/ssm/merlode/cli_methods";

// A session name is this long, with its time stamp from this offset.
static const size_t kSessionNameLen = 70;
static const size_t kStampOffset = 54;
// Sessions older than this are reported (30 days).
static const long kOldSessionSecs = 2592000;
// Tries of a deactivation and the pause after each failed one.
static const int kDeactivateTries = 4;
static const uint32_t kDeactivatePauseMs = 5000;

// The line without its last character, which is its line feed when it has one.
static std::string chop_last(const std::string& s) {
    return s.empty() ? s : s.substr(0, s.size() - 1);
}

SSError* zov_quillset::startsession(snapdevice& sd) {
    const char* fname = "zov_quillset::startsession";
    std::string tool;
    if (SSError* missing = locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname)) return missing;
    std::vector<char> args(sd.sessionId.size() + 57);
    kv_snprintf(args.data(), args.size(), " quillset -startsession %s -lun %d -persistence",
                sd.sessionId.c_str(), sd.srcDev.merllun);
    SSError* err =
        perIpAddr(true, &zov_quillset::processStart, tool, args.data(), std::vector<std::string>());
    if (err) {
        std::string why = err->getErrMsg();
        err = m_e.generr(kFile, __LINE__, err, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                         "%s: Unable to 'tillocli quillset -startsession' for %s", fname,
                         sd.srcName.c_str());
        m_e.logprintf(3, kFile, __LINE__,
                      "%s.  Starting the sessions for [%s] returned error [%s].", fname,
                      sd.srcName.c_str(), why.c_str());
    }
    m_e.logprintf(7, kFile, __LINE__, "%s: Exiting.", fname);
    return err;
}

SSError* zov_quillset::processStart(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processStart";
    (void)ipaddr;
    std::list<std::string> output;
    bool sessionStarted = false;
    std::string line;
    while (lfgets(line, stream)) {
        output.push_back(line);
        // The tool's words for a started session are the only sign of success.
        if (rx(*this, RX_MUST_ACTIVATE, line)) sessionStarted = true;
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, (int)output.size());
    if (sessionStarted) return nullptr;
    for (const std::string& l : output)
        m_e.logprintf(-1, kFile, __LINE__, "%s: [%s]", fname, chop_last(l).c_str());
    return m_e.generr(kFile, __LINE__, nullptr, SS_EC_UNABLE_TO_CREATE_SNAPSHOT,
                      "%s: Unable to 'tillocli quillset -startsession' for %s", fname, "");
}

SSError* zov_quillset::stopsession(snapdevice& sd) {
    const char* fname = "zov_quillset::stopsession";
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss().shown("gelmot")))
        return missing;
    Pipe pipe(m_fpLog, m_logCtx);
    SSError* err = pipe.init();
    if (err) return err;
    std::vector<int> pids;
    const std::vector<std::string> frames = m_ipaddrlist;
    for (size_t i = 0; i < frames.size(); i++) {
        bool last = (i + 1 == frames.size());
        delete err;
        int pid = -1;
        err = esv_spawn(&pipe, &pid, "%s -h %s quillset -stopsession %s -o", tool.c_str(),
                        frames[i].c_str(), sd.sessionId.c_str());
        if (err) {
            m_e.logprintf(3, kFile, __LINE__, "%s: stopsession Failed: err[%d]", fname,
                          (int)err->getErrCode());
            if (last) break;
            continue;
        }
        pids.push_back(pid);
    }
    pipe.pclose(pipe.getwrite_fd());
    // The text is not judged, but it is read off so that no child blocks on
    // a full pipe; end of file means every child has let go of it.
    std::string line;
    while (lfgets(line, pipe.getread_strm())) {}
    int status = 0;
    if (!pids.empty()) {
        waitchild(pids.back(), &status, 0);
        pids.pop_back();
    }
    // The others are past their output by now, but may not have exited yet:
    // a look that does not wait could miss them and leave a zombie in the
    // loader's process for good. They are waited for, which is brief.
    for (int pid : pids) waitchild(pid, &status, 0);
    return err;
}

SSError* zov_quillset::refreshSessions() {
    const char* fname = "zov_quillset::refreshSessions";
    return listFromEachFrame(kFile, __LINE__, fname, &zov_quillset::processSessionNames,
                             " quillset -listsessions");
}

SSError* zov_quillset::processSessionNames(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processSessionNames";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    int lines = 0;
    std::string line, last;
    regmatch_t pm[2];
    while (lfgets(line, stream)) {
        lines++;
        last = line;
        if (rx(*this, RX_SESSION_NAME, line, pm, 2)) {
            m_e.logprintf(9, kFile, __LINE__, "Entering: %s the current line is [%s]", fname,
                          line.c_str());
            m_sessionList.push_back(rx_group(line, pm[1]));
        }
    }
    if (lines < 5)
        m_e.logprintf(5, kFile, __LINE__, "%s: Context of command output buffer [%s]", fname,
                      last.c_str());
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);

    // Age survey over every name seen so far, of this frame or earlier ones.
    const kv_time64_t limit = kv_time(nullptr) - kOldSessionSecs;
    // The sessions of one snapshot share their stamp, and mktime asks the
    // time zone afresh on every call: one answer per stamp in a row.
    int lastStamp[5] = {-1, -1, -1, -1, -1};
    kv_time64_t lastMade = (kv_time64_t)-1;
    for (const std::string& name : m_sessionList) {
        if (name.size() != kSessionNameLen) {
            m_e.logprintf(7, kFile, __LINE__, "%s: found non-conforming session name: [%s] (%d)",
                          fname, name.c_str(), (int)name.size());
            continue;
        }
        int year = 0, mon = 0, day = 0, hour = 0, min = 0;
        if (sscanf(name.c_str() + kStampOffset, "%4d%2d%2d%2d%2d", &year, &mon, &day, &hour, &min) <
            5) {
            m_e.logprintf(7, kFile, __LINE__, "%s: found non-conforming session name [%s]", fname,
                          name.c_str());
            continue;
        }
        const int stamp[5] = {year, mon, day, hour, min};
        if (memcmp(stamp, lastStamp, sizeof(stamp)) != 0) {
            struct tm t;
            memset(&t, 0, sizeof(t));
            t.tm_sec = 0;
            t.tm_min = min;
            t.tm_hour = hour;
            t.tm_mday = day;
            t.tm_mon = mon;  // written counted from 0, so taken as it stands
            t.tm_year = year - 1900;
            t.tm_isdst = 0;
            lastMade = kv_mktime(&t);
            memcpy(lastStamp, stamp, sizeof(stamp));
        }
        const kv_time64_t made = lastMade;
        if (made != (kv_time64_t)-1 && kv_time_cmp(made, limit) < 0)
            m_e.logprintf(0, kFile, __LINE__,
                          "%s: INFO - Found session (%s) on frame (%s) that appears to be very old",
                          fname, name.c_str(), ipaddr.c_str());
    }
    return nullptr;
}

int zov_quillset::verifySession(std::string session) {
    const char* fname = "zov_quillset::verifySession";
    m_e.logprintf(7, kFile, __LINE__, "%s: entering", fname);
    for (const std::string& name : m_sessionList) {
        if (name == session) {
            m_e.logprintf(7, kFile, __LINE__, "%s: match the session name", fname);
            return 1;
        }
    }
    return 0;
}

SSError* zov_quillset::activatesession(snapdevice& sd) {
    const char* fname = "zov_quillset::activatesession";
    std::string cmd = GetGelmotCliExe();
    std::string tempSnapDevice = sd.srcName;
    m_e.logprintf(9, kFile, __LINE__,
                  "Entering %s:  and looking to activate [%s], tempSnapDevice [%s].", fname,
                  sd.sessionId.c_str(), tempSnapDevice.c_str());
    if (cmd.empty()) return reportMissingTool(ZOV_TOOL_GELMOT, kFile, __LINE__, fname);
    int pid = -1, status = 0;
    {
        Pipe pipe(m_fpLog, m_logCtx);
        SSError* err = pipe.init();
        if (!err)
            err = esv_spawn(&pipe, &pid, "%s activate -s %s", cmd.c_str(), sd.sessionId.c_str());
        if (err) return err;
        pipe.pclose(pipe.getwrite_fd());
        processActivate(pipe.getread_strm(), sd);
    }
    waitchild(pid, &status, 0);
    if (sd.dstName.empty()) {
        m_e.logprintf(3, kFile, __LINE__,
                      "%s:gelmot activate did not return a mount point for snapshot device [%s].",
                      fname, sd.srcName.c_str());
        return m_e.generr(kFile, __LINE__, nullptr, SS_EC_INVALID_ACCESS_PATH,
                          "%s: Unable to gelmot activate for %s", fname, sd.srcName.c_str());
    }
    m_e.logprintf(5, kFile, __LINE__, " %s: Querying local volMap for LUN [%s]", fname,
                  sd.dstName.c_str());
    // The tool names the device under a 10-character directory and with a
    // slice letter; the map has neither. A name too short to hold the
    // directory can't match anything.
    const std::string dst = sd.dstName;
    std::string dstCore;
    bool comparable = dst.size() > 10;
    if (comparable) dstCore = dst.substr(10, dst.size() - 11);
    for (const Hadrix& h : m_volMapList) {
        if (h.patharray.empty() || !comparable || h.pseudoNm.empty()) continue;
        if (dstCore != h.pseudoNm.substr(0, h.pseudoNm.size() - 1)) continue;
        for (const ArrayLun& p : h.patharray) {
            sd.dstName = p.pathname;
            m_e.logprintf(9, kFile, __LINE__, "%s: Access path is [%s]", fname, sd.dstName.c_str());
        }
    }
    return nullptr;
}

void zov_quillset::processActivate(FILE* stream, snapdevice& sd) {
    const char* fname = "zov_quillset::processActivate";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s.", fname);
    sd.dstName.clear();
    std::list<std::string> output;
    std::string line;
    regmatch_t pm[2];
    while (lfgets(line, stream)) {
        output.push_back(line);
        if (rx(*this, RX_ACTIVATED, line, pm, 2)) {
            sd.dstName = rx_group(line, pm[1]);
            char so =
                (pm[1].rm_so >= 0 && (size_t)pm[1].rm_so < line.size()) ? line[pm[1].rm_so] : ' ';
            char eo =
                (pm[1].rm_eo >= 0 && (size_t)pm[1].rm_eo < line.size()) ? line[pm[1].rm_eo] : ' ';
            m_e.logprintf(9, kFile, __LINE__, "%s: line:%s rm_so: %d (%c), rm_eo: %d (%c)", fname,
                          line.c_str(), (int)pm[1].rm_so, so, (int)pm[1].rm_eo, eo);
        }
    }
    if (sd.dstName.empty())
        for (const std::string& l : output)
            m_e.logprintf(9, kFile, __LINE__, "%s: line [%s]", fname, l.c_str());
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, (int)output.size());
}

SSError* zov_quillset::deactivatesession(snapdevice& sd) {
    const char* fname = "zov_quillset::deactivatesession";
    std::string cmd;
    if (SSError* missing = locateTool(cmd, ZOV_TOOL_GELMOT, kFile, __LINE__, fname)) return missing;
    for (int loop = 0; loop < kDeactivateTries; loop++) {
        int pid = -1, status = 0;
        SSError* err = nullptr;
        {
            Pipe pipe(m_fpLog, m_logCtx);
            err = pipe.init();
            if (!err)
                err = esv_spawn(&pipe, &pid, "%s deactivate -s %s", cmd.c_str(),
                                sd.sessionId.c_str());
            if (err) return err;
            pipe.pclose(pipe.getwrite_fd());
            err = processDeactivate(pipe.getread_strm(), sd);
        }
        waitchild(pid, &status, 0);
        if (!err) {
            m_e.logprintf(9, kFile, __LINE__, "%s: deactivate successful on loop %d", fname, loop);
            return nullptr;
        }
        delete err;
        kv_thread_sleep(kDeactivatePauseMs);
    }
    // A deactivation that never took is deliberately no failure to the caller.
    return nullptr;
}

SSError* zov_quillset::processDeactivate(FILE* stream, snapdevice& sd) {
    const char* fname = "zov_quillset::processDeactivate";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    std::list<std::string> output;
    bool sessionDeactivated = false;
    std::string line;
    while (lfgets(line, stream)) {
        output.push_back(line);
        if (rx(*this, RX_DEACTIVATED, line)) sessionDeactivated = true;
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, (int)output.size());
    if (sessionDeactivated) {
        m_e.logprintf(7, kFile, __LINE__, "%s: gelmot deactivate successful for %s", fname,
                      sd.sessionId.c_str());
        return nullptr;
    }
    SSError* err =
        m_e.generr(kFile, __LINE__, nullptr, SS_EC_SNAP_PROVIDER_ERROR,
                   "%s: Unable to gelmot deactivate for %s", fname, sd.sessionId.c_str());
    for (const std::string& l : output)
        m_e.logprintf(9, kFile, __LINE__, "%s: line:%s", fname, chop_last(l).c_str());
    return err;
}

SSError* zov_quillset::rollbacksession(snapdevice& sd) {
    const char* fname = "zov_quillset::rollbacksession";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    std::string tool;
    if (SSError* missing =
            locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::lineThenError(0)))
        return missing;
    std::vector<char> args(sd.sessionId.size() + 45);
    kv_snprintf(args.data(), args.size(), " quillset -startrollback %s -rate medium -o",
                sd.sessionId.c_str());
    SSError* err = perIpAddr(true, &zov_quillset::processRollback, tool, args.data(),
                             std::vector<std::string>());
    if (err)
        m_e.logprintf(3, kFile, __LINE__, "Rollback failed for [%s] with [%s]", sd.srcName.c_str(),
                      err->getErrMsg());
    m_e.logprintf(7, kFile, __LINE__, "%s:Exiting.", fname);
    return err;
}

SSError* zov_quillset::processRollback(FILE* stream, const std::string& ipaddr) {
    const char* fname = "zov_quillset::processRollback";
    (void)ipaddr;
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);
    // Success is silence: any line of substance is the tool's refusal.
    bool oops = false;
    int lines = 0;
    std::string line, strRead;
    while (lfgets(line, stream)) {
        lines++;
        m_e.logprintf(9, kFile, __LINE__, "%s: Line read [%s]", fname, line.c_str());
        if (line.size() >= 3) oops = true;
        if (oops) strRead += line;
    }
    m_e.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    if (oops)
        return m_e.generr(kFile, __LINE__, nullptr, SS_EC_ROLLBACK_IMPACTS,
                          "%s: Unable to rollback session for : [%s]", fname, strRead.c_str());
    return nullptr;
}
