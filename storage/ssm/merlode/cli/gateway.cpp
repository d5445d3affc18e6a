// The gateway of zov_quillset: construction, init with the expression table,
// the walk over frame addresses (perIpAddr), the line reader, host address
// lookup and the storage-group lock file.
#include "storage/ssm/merlode/cli/zov_quillset.h"

#include <errno.h>
#include <fcntl.h>
#include <langinfo.h>
#include <locale.h>
#include <netdb.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <vector>

#include "liblocal/kv_env.h"
#include "liblocal/kv_error.h"
#include "liblocal/kv_file.h"
#include "liblocal/kv_host.h"
#include "liblocal/kv_lock.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_print.h"
#include "liblocal/kv_spawn.h"
#include "liblocal/kv_thread.h"
#include "storage/ssm/merlode/cli/gw_internal.h"
#include "storage/ssm/merlode/cli/rx_plain.h"

static const char* const kFile = "storage/ssm/merlode/cli/gateway";

const char* const LOCK_FILE = "vmr_merlode_access.lck";
const char* const CONFIGWIZARD = "CONFIGWIZARD";

// The rows are cited by number across the command layer: never reorder,
// never drop a row even when nothing consults it. Compiled with
// REG_EXTENDED only, so "^" anchors at the start of the text and "\n" must
// be a real line feed in the text.
static const char* const kPatterns[RX_COUNT] = {
    /* 0 */ "HBA UID:[[:space:]]+([^[:space:]].*)\n",
    /* 1 */ "Server Name:[[:space:]]+([^[:space:]].*)\n",
    /* 2 */ "Server IP Address:[[:space:]]+([^[:space:]].*)\n",
    /* 3 */ "Information about each port of this HBA:",
    /* 4 */ "Information about each HBA:",
    /* 5 */ "[[:space:]]*HBA Devicename:[[:space:]]+([^[:space:]].*)\n",
    /* 6 */ "StorageGroup Name:[[:space:]]+([^[:space:]].*)\n",
    /* 7 */ "Storage Group Name:[[:space:]]+([^[:space:]].*)\n",
    /* 8 */ "HLU Number[[:space:]]+ALU Number",
    /* 9 */ "-+[[:space:]]+-+",
    /* 10 */ "^\\s+(\\w+)\\s+(\\w+)",
    /* 11 */ "Shareable:[[:space:]]+",
    /* 12 */ "Target Logical Unit:[[:space:]]+([[:digit:]]+)",
    /* 13 */ "Quillset logical unit name:[[:space:]]+([^[:space:]].*)\n",
    /* 14 */ "^Hostname",
    /* 15 */ "^--------",
    /* 16 */ "^[^[:space:]]+[[:space:]]+([^[:space:]].+)\n",
    /* 17 */ "^Pseudo name=([^[:space:]]+(.*))\n",
    /* 18 */ "\\w+\\s+\\w+\\s+(\\w+)\\s+\\w+\\s+\\w+\\s+(\\w+)\\s+(\\w+)",
    /* 19 */ "Name of the session:[[:space:]]+([^[:space:]].*)\n",
    /* 20 */ "Name of the.+:[[:space:]]+([^[:space:]]+)\n",
    /* 21 */ "Revision of.+:[[:space:]]+([_\\.[:digit:]]+)\n",
    /* 22 */ "Activated session.+on device ([^[:space:]]+)\\.\n",
    /* 23 */ "^You must activate a snapshot",
    /* 24 */ "^Stopped session",
    /* 25 */ "^Deactivated session",
    /* 26 */ "(/devices/.+/atf@[[:digit:]]+),([[:digit:]]+):",
    /* 27 */ "^c([[:digit:]]+)t([ABCDEFabcdef0123456789]+)d([[:digit:]]+)",
    /* 28 */ "^c([[:digit:]]+)t([ABCDEFabcdef0123456789]+)d([[:digit:]]+)",
    /* 29 */ "^Flushed object",
    /* 30 */ "Revision (.+)",
    /* 31 */ "Revision number: (.+)\n",
    /* 32 */ "ZOV hadrix for Hadripath \\(c\\) Version (.+)\n",
    /* 33 */ "Commit Required:[[:space:]]+([^[:space:]]+)\n",
    /* 34 */ "Active State:[[:space:]]+([^[:space:]]+)\n",
    /* 35 */ "Name:[[:space:]]+(.*)\n",
    /* 36 */ "CloneID:[[:space:]]+([^[:space:]]+)\n",
    /* 37 */ "CloneGroupUid:[[:space:]]+([^[:space:]]+)\n",
    /* 38 */ "CloneState:[[:space:]]+([^[:space:]]+)",
    /* 39 */ "AvailableForIO:[[:space:]]+([^[:space:]]+)",
    /* 40 */ "Sources:[[:space:]]+([[:digit:]]+)",
    /* 41 */ "Agent Rev:[[:space:]]+([^[:space:]]+)\n",
    /* 42 */ "Sources[[:digit:]]+",
    /* 43 */ "Clones:[[:space:]]+",
    /* 44 */ "CloneCondition:[[:space:]]+([^[:space:]].*)",
    /* 45 */ "IsFractured:[[:space:]]+([^[:space:]].*)",
    /* 46 */ ".+(failed).+",
    /* 47 */ "Logical device ID=([0-9A-Z]*)",
    /* 48 */ "CloneLUNs:[[:space:]]+([^[:space:]]+)\n",
    /* 49 */ "Array Name:[[:space:]]+([^[:space:]]+)",
    /* 50 */ "LOGICAL UNIT NUMBER[[:space:]]+([[:digit:]]*)",
    /* 51 */ "UID:[[:space:]]+(.*)",
    /* 52 */ "(.*)[ \t]*=>([(.*)])",
    /* 53 */ "SyncRate:[[:space:]]+(.+)",
    /* 54 */ "CloneLUNWWNs:[[:space:]]+([^[:space:]]+)",
    /* 55 */ "Storage Group UID:[[:space:]]+([^[:space:]].*)",
    /* 56 */ "Host name:[ \t]*(.*)",
    /* 57 */ "HLU No.",
    /* 58 */ "[[:space:]]([[:digit:]]*)[ \t]+[0-9A-F:]+.+\n",
};

const char* zov_quillset_pattern(int index) {
    if (index < 0 || index >= ZOV_QUILLSET_NUM_REGEX) return nullptr;
    return kPatterns[index];
}

// What every match of a row holds, tested before its expression runs: most
// lines of a listing hold none of the words a parser waits for, and a
// search costs far less than regexec, the more so under a multibyte locale.
// Each test must be implied by the expression; rows without a safe word of
// their own run the expression on every line.
namespace {
enum class Key { Any, Word, Start, BlankFirst };
struct RowKey {
    Key kind;
    const char* word;
};
const RowKey kKeys[RX_COUNT] = {
    /* 0 */ {Key::Word, "HBA UID:"},
    /* 1 */ {Key::Word, "Server Name:"},
    /* 2 */ {Key::Word, "Server IP Address:"},
    /* 3 */ {Key::Word, "Information about each port of this HBA:"},
    /* 4 */ {Key::Word, "Information about each HBA:"},
    /* 5 */ {Key::Word, "HBA Devicename:"},
    /* 6 */ {Key::Word, "StorageGroup Name:"},
    /* 7 */ {Key::Word, "Storage Group Name:"},
    /* 8 */ {Key::Word, "HLU Number"},
    /* 9 */ {Key::Word, "-"},
    /* 10 */ {Key::BlankFirst, nullptr},
    /* 11 */ {Key::Word, "Shareable:"},
    /* 12 */ {Key::Word, "Target Logical Unit:"},
    /* 13 */ {Key::Word, "Quillset logical unit name:"},
    /* 14 */ {Key::Start, "Hostname"},
    /* 15 */ {Key::Start, "--------"},
    /* 16 */ {Key::Word, "\n"},
    /* 17 */ {Key::Start, "Pseudo name="},
    /* 18 */ {Key::Any, nullptr},
    /* 19 */ {Key::Word, "Name of the session:"},
    /* 20 */ {Key::Word, "Name of the"},
    /* 21 */ {Key::Word, "Revision of"},
    /* 22 */ {Key::Word, "Activated session"},
    /* 23 */ {Key::Start, "You must activate a snapshot"},
    /* 24 */ {Key::Start, "Stopped session"},
    /* 25 */ {Key::Start, "Deactivated session"},
    /* 26 */ {Key::Word, "/devices/"},
    /* 27 */ {Key::Start, "c"},
    /* 28 */ {Key::Start, "c"},
    /* 29 */ {Key::Start, "Flushed object"},
    /* 30 */ {Key::Word, "Revision "},
    /* 31 */ {Key::Word, "Revision number: "},
    /* 32 */ {Key::Word, "ZOV hadrix for Hadripath (c) Version "},
    /* 33 */ {Key::Word, "Commit Required:"},
    /* 34 */ {Key::Word, "Active State:"},
    /* 35 */ {Key::Word, "Name:"},
    /* 36 */ {Key::Word, "CloneID:"},
    /* 37 */ {Key::Word, "CloneGroupUid:"},
    /* 38 */ {Key::Word, "CloneState:"},
    /* 39 */ {Key::Word, "AvailableForIO:"},
    /* 40 */ {Key::Word, "Sources:"},
    /* 41 */ {Key::Word, "Agent Rev:"},
    /* 42 */ {Key::Word, "Sources"},
    /* 43 */ {Key::Word, "Clones:"},
    /* 44 */ {Key::Word, "CloneCondition:"},
    /* 45 */ {Key::Word, "IsFractured:"},
    /* 46 */ {Key::Word, "failed"},
    /* 47 */ {Key::Word, "Logical device ID="},
    /* 48 */ {Key::Word, "CloneLUNs:"},
    /* 49 */ {Key::Word, "Array Name:"},
    /* 50 */ {Key::Word, "LOGICAL UNIT NUMBER"},
    /* 51 */ {Key::Word, "UID:"},
    /* 52 */ {Key::Word, "=>"},
    /* 53 */ {Key::Word, "SyncRate:"},
    /* 54 */ {Key::Word, "CloneLUNWWNs:"},
    /* 55 */ {Key::Word, "Storage Group UID:"},
    /* 56 */ {Key::Word, "Host name:"},
    /* 57 */ {Key::Word, "HLU No"},
    /* 58 */ {Key::Word, "\n"},
};

struct RxTable {
    regex_t rows[RX_COUNT];
    int compiled = 0;    // rows compiled, from the first
    int rc = 0;          // regcomp's code for the row that failed
    bool plain = false;  // the hand-written matchers hold under its locale
    char reg_err[1024] = {0};
    std::string ctype, collate;
};
}  // namespace

bool zov_quillset_may_match(int index, const std::string& text) {
    if (index < 0 || index >= ZOV_QUILLSET_NUM_REGEX) return false;
    const RowKey& k = kKeys[index];
    switch (k.kind) {
    case Key::Any: return true;
    case Key::Word: return text.find(k.word) != std::string::npos;
    case Key::Start: return text.compare(0, strlen(k.word), k.word) == 0;
    case Key::BlankFirst: {
        // "\s" of a multibyte locale also takes spaces beyond ASCII, whose
        // first byte is above 0x7f.
        unsigned char c = text.empty() ? 0 : static_cast<unsigned char>(text[0]);
        return c == ' ' || (c >= '\t' && c <= '\r') || c >= 0x80;
    }
    }
    return true;
}

// The compiled table, one per locale it was compiled under: regcomp fixes
// the character classes, ranges and multibyte handling of the locale in
// force, so an object made under another locale reads its own. Tables live
// as long as the process; a table that failed to compile stays (objects made
// meanwhile still point into it) and the next object tries again. glibc's
// regexec takes a lock of the expression, so threads share a table safely.
static const RxTable& rx_table() {
    static std::mutex mtx;
    static std::vector<RxTable*>* tables = new std::vector<RxTable*>();
    std::string ctype = nl_langinfo(_NL_LOCALE_NAME(LC_CTYPE));
    std::string collate = nl_langinfo(_NL_LOCALE_NAME(LC_COLLATE));
    std::lock_guard<std::mutex> lk(mtx);
    for (const RxTable* t : *tables)
        if (t->compiled == RX_COUNT && t->ctype == ctype && t->collate == collate) return *t;
    RxTable* t = new RxTable();
    t->ctype = ctype;
    t->collate = collate;
    t->plain = rx_plain_locale_ok();
    for (int i = 0; i < RX_COUNT; i++) {
        t->rc = regcomp(&t->rows[i], kPatterns[i], REG_EXTENDED);
        if (t->rc != 0) {
            regerror(t->rc, &t->rows[i], t->reg_err, sizeof(t->reg_err));
            break;
        }
        t->compiled = i + 1;
    }
    tables->push_back(t);
    return *t;
}

// ---------------------------------------------------------------- helpers

std::string gw_format_one(const std::string& format, const char* arg) {
    std::string out;
    bool used = false;
    for (size_t i = 0; i < format.size(); i++) {
        char c = format[i];
        if (c == '%' && i + 1 < format.size()) {
            char n = format[i + 1];
            if (n == '%') {
                out += '%';
                i++;
                continue;
            }
            if (n == 's' && !used && arg != nullptr) {
                out += arg;
                used = true;
                i++;
                continue;
            }
        }
        out += c;
    }
    return out;
}

std::string gw_escape_percent(const std::string& text) {
    std::string out;
    for (char c : text) {
        out += c;
        if (c == '%') out += '%';
    }
    return out;
}

// ---------------------------------------------------------------- object

zov_quillset::zov_quillset(SSLOG_FUNC_POINTER fpLog, void* logCtx)
    : m_cp(nullptr),
      m_volMapInited(0),
      m_e(fpLog, logCtx),
      m_fpLog(fpLog),
      m_logCtx(logCtx),
      m_attrlist(nullptr),
      m_cpCompiled(0),
      m_rxPlain(false) {}

zov_quillset::~zov_quillset() {
    // Children of the pipe form whose output the caller has read by now.
    for (int pid : m_pipeChildren) {
        int status = 0;
        waitchild(pid, &status, 0);
    }
}

SSError* zov_quillset::init(std::vector<std::string>& ipaddrs, attrlist* attrs) {
    static const char* const fname = "zov_quillset::constructor";

    m_ipaddrlist = ipaddrs;
    std::sort(m_ipaddrlist.begin(), m_ipaddrlist.end());
    m_ipaddrlist.erase(std::unique(m_ipaddrlist.begin(), m_ipaddrlist.end()), m_ipaddrlist.end());

    const RxTable& table = rx_table();
    m_cp = table.rows;
    m_cpCompiled = table.compiled;
    m_rxPlain = table.plain;
    if (table.compiled < ZOV_QUILLSET_NUM_REGEX) {
        m_e.logprintf(1, kFile, __LINE__, "%s", table.reg_err);
        return m_e.generr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                          "%s: Failed to compile regular expression #%d, reg_err: %d", fname,
                          table.compiled, table.rc);
    }

    m_volMapInited = 0;
    m_attrlist = attrs;

    std::string tool;
    return locateTool(tool, ZOV_TOOL_TILLO, kFile, __LINE__, fname, ToolMiss::errorAt(5));
}

// ---------------------------------------------------------------- tools

std::string zov_quillset::GetTilloCliExe() {
    m_e.logprintf(7, kFile, __LINE__, "Entering zov_quillset::GetTilloCliExe");
    if (!m_tilloscli.empty()) return m_tilloscli;

    // The secure tool reads its credential file under HOME, which a loader
    // started by a service manager may not have.
    // Once per process, whichever object of whichever thread asks first.
    static std::atomic<bool> first_time{true};
    if (first_time.exchange(false)) {
        const char* home = kv_getenv("HOME");
        if (home != nullptr && *home != '\0') {
            m_e.logprintf(5, kFile, __LINE__, "HOME already set to [%s]", home);
        } else {
            struct passwd* pw = kv_ts_getpwuid(geteuid());
            if (pw != nullptr && pw->pw_dir != nullptr && pw->pw_dir[0] != '\0') {
                std::string buf = std::string("HOME=") + pw->pw_dir;
                // An overlong home directory is cut where the assignment's
                // buffer has always ended.
                if (buf.size() > 12287) buf.resize(12287);
                char* assignment = strdup(buf.c_str());
                if (assignment != nullptr) kv_putenv(assignment);  // kept by the environment
                m_e.logprintf(5, kFile, __LINE__, "Setting HOME from getpwuid() to [%s]",
                              buf.c_str());
            } else {
                m_e.logprintf(5, kFile, __LINE__, "Setting HOME arbitrarily to [/]");
                static char root_home[] = "HOME=/";
                kv_putenv(root_home);
            }
        }
    }
    m_e.logprintf(9, kFile, __LINE__, "Using TILLOSECCLI");
    m_tilloscli = m_cmdPaths.findCmdPath("tilloseccli");
    return m_tilloscli;
}

std::string zov_quillset::GetGelmotCliExe() {
    m_e.logprintf(7, kFile, __LINE__, "Entering zov_quillset::GetGelmotCliExe");
    if (m_gelmot.empty()) m_gelmot = m_cmdPaths.findCmdPath("gelmot");
    return m_gelmot;
}

std::string zov_quillset::GetPirnetCliExe() {
    m_e.logprintf(7, kFile, __LINE__, "Entering zov_quillset::GetPirnetCliExe");
    if (m_pirnet.empty()) m_pirnet = m_cmdPaths.findCmdPath("pirnet");
    return m_pirnet;
}

// The name each tool goes by in the "Unable to locate" message.
static const char* tool_word(ZovTool tool) {
    switch (tool) {
    case ZOV_TOOL_TILLO: return "tillocli";
    case ZOV_TOOL_GELMOT: return "gelmot";
    case ZOV_TOOL_PIRNET: return "pirnet";
    case ZOV_TOOL_HADRIX: return "hadrix";
    case ZOV_TOOL_FENLOK: return "fenlok";
    }
    return "";
}

SSError* zov_quillset::locateTool(std::string& path, ZovTool tool, const char* file, int line,
                                  const char* fname, const ToolMiss& how) {
    switch (tool) {
    case ZOV_TOOL_TILLO: path = GetTilloCliExe(); break;
    case ZOV_TOOL_GELMOT: path = GetGelmotCliExe(); break;
    case ZOV_TOOL_PIRNET: path = GetPirnetCliExe(); break;
    case ZOV_TOOL_HADRIX: path = m_cmdPaths.findCmdPath("hadrix"); break;
    case ZOV_TOOL_FENLOK: path = m_cmdPaths.findCmdPath("fenlok"); break;
    }
    if (!path.empty()) return nullptr;
    return reportMissingTool(tool, file, line, fname, how);
}

SSError* zov_quillset::reportMissingTool(ZovTool tool, const char* file, int line,
                                         const char* fname, const ToolMiss& how) {
    static const char* const kMissing = "%s: Unable to locate %s in standard locations.";
    const char* word = how.word != nullptr ? how.word : tool_word(tool);
    if (how.lineLevel != ToolMiss::kNone)
        m_e.logprintf(how.lineLevel, file, line, kMissing, fname, word);
    if (how.errorLevel == ToolMiss::kNone) return nullptr;
    return m_e.tellerrLvl(how.errorLevel, file, line, nullptr, SS_EC_INVALID_CONFIGURATION,
                          kMissing, fname, word);
}

SSError* zov_quillset::esv_spawn(Pipe* pp, int* pidp, const char* format, ...) {
    static const char* const fname = "zov_quillset::esv_spawn";
    m_e.logprintf(7, kFile, __LINE__, "Entering: %s", fname);

    char* text = nullptr;
    if (format != nullptr) {
        va_list ap;
        va_start(ap, format);
        i18n_vsprintf(nullptr, &text, format, ap);
        va_end(ap);
    }
    if (text == nullptr) {
        SSError* err = m_e.generr(kFile, __LINE__, nullptr, SS_EC_INSUFFICIENT_MEMORY,
                                  "%s: Memory allocation error", fname);
        m_e.logprintf(3, kFile, __LINE__, "%s, command to execute is empty", fname);
        return err;
    }
    SSError* err = spawn_command_line(m_e, m_PATH, pp, pidp, text);
    free(text);
    return err;
}

// ---------------------------------------------------------------- frames

SSError* zov_quillset::listFromEachFrame(const char* file, int line, const char* fname,
                                         POUTPUT_FUNC_POINTER parser, const char* args) {
    std::string tool;
    if (SSError* err = locateTool(tool, ZOV_TOOL_TILLO, file, line, fname)) return err;
    return perIpAddr(false, parser, tool, args, std::vector<std::string>());
}

SSError* zov_quillset::perIpAddr(bool TilSuccess, POUTPUT_FUNC_POINTER processOutput,
                                 const std::string& command, const std::string& args,
                                 std::vector<std::string> m_ipaddrlistTemp) {
    // A copy, so that a parser may purge m_ipaddrlist during the walk.
    std::vector<std::string> frameIpVector =
        !m_ipaddrlistTemp.empty() ? m_ipaddrlistTemp : m_ipaddrlist;
    SSError* err = nullptr;

    for (const std::string& ipaddr : frameIpVector) {
        // Only the last frame's error is handed back; an earlier one (which
        // can only be left over under TilSuccess) is dropped.
        delete err;
        err = nullptr;
        std::string fullcmd;
        try {
            fullcmd = command + " -h " + ipaddr + args;
        } catch (const std::exception& ex) {
            errinfo* m = msg_create(0, 55000, "Exception caught while generating command - %s",
                                    ARG_TEXT, ex.what());
            m_e.logprintf(3, kFile, __LINE__, " Exiting. %s",
                          m != nullptr && m->errstr != nullptr ? m->errstr : ex.what());
            msg_free(m);
            return nullptr;
        }

        bool spawned = false;
        // The line is a format to the spawner, with "%%" for a percent sign;
        // no conversion in a name may read a missing argument.
        err = runCommand(gw_format_one(fullcmd, nullptr), [&](FILE* stream) -> SSError* {
            spawned = true;
            m_e.logprintf(9, kFile, __LINE__, "%s: ip addr [%s]", "perIpAddr", ipaddr.c_str());
            return stream != nullptr ? (this->*processOutput)(stream, ipaddr) : nullptr;
        });
        if (!spawned) return err;

        if (TilSuccess ? err == nullptr : err != nullptr) break;
    }
    return err;
}

SSError* zov_quillset::runCommand(const std::string& fullcmd,
                                  const std::function<SSError*(FILE*)>& read) {
    Pipe pipe(m_fpLog, m_logCtx);
    SSError* err = pipe.init();
    if (err != nullptr) return err;
    int pid = -1;
    err = esv_spawn(&pipe, &pid, "%s", fullcmd.c_str());
    if (err != nullptr) return err;
    pipe.pclose(pipe.getwrite_fd());
    err = read(pipe.getread_strm());
    pipe.pclose(pipe.getread_fd());
    int wstatus = 0;
    waitchild(pid, &wstatus, 0);
    return err;
}

SSError* zov_quillset::perIpAddr(Pipe& pipe, const char* command,
                                 std::vector<std::string> m_ipaddrlistTemp) {
    reapPipeChildren();
    std::vector<std::string> frames = !m_ipaddrlistTemp.empty() ? m_ipaddrlistTemp : m_ipaddrlist;
    for (const std::string& ipaddr : frames) {
        std::string text = gw_format_one(command != nullptr ? command : "", ipaddr.c_str());
        int pid = -1;
        SSError* err = esv_spawn(&pipe, &pid, "%s", text.c_str());
        if (err != nullptr) return err;
        m_pipeChildren.push_back(pid);
    }
    return nullptr;
}

void zov_quillset::reapPipeChildren() {
    for (int pid : m_pipeChildren) {
        int status = 0;
        waitchild(pid, &status, 0);
    }
    m_pipeChildren.clear();
}

int zov_quillset::rxmatch(int index, const std::string& text, size_t nmatch, regmatch_t* pmatch) {
    if (index < 0 || index >= m_cpCompiled) return REG_NOMATCH;
    if (!zov_quillset_may_match(index, text)) return REG_NOMATCH;
    if (m_rxPlain) {
        int rc = rx_plain_match(index, text, nmatch, pmatch);
        if (rc != RX_PLAIN_UNSURE) return rc;
    }
    return regexec(&m_cp[index], text.c_str(), nmatch, pmatch, 0);
}

std::string rxgroup(const std::string& text, const regmatch_t& m) {
    if (m.rm_so < 0 || m.rm_eo < m.rm_so || static_cast<size_t>(m.rm_eo) > text.size())
        return std::string();
    return text.substr(m.rm_so, m.rm_eo - m.rm_so);
}

// ---------------------------------------------------------------- lines

int zov_quillset::lfgets(std::string& buf, FILE* stream) {
    return read_child_line(buf, stream);
}

// ---------------------------------------------------------------- hosts

int zov_quillset::getIpAddr(std::string hostname, std::string& ipaddr) {
    static const char* const kUnresolved =
        "ERROR: hostname [%s] cannot be resolved to an IP Address. The system host settings "
        "must be corrected.";
    m_e.logprintf(9, kFile, __LINE__, "Getting IP for [%s]", hostname.c_str());

    struct addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    struct addrinfo* res = nullptr;
    if (kv_getaddrinfo(hostname.c_str(), nullptr, &hints, &res) != 0 || res == nullptr) {
        m_e.logprintf(3, kFile, __LINE__, kUnresolved, hostname.c_str());
        if (res != nullptr) kv_freeaddrinfo(res);
        return -1;
    }

    char buf[46];
    buf[0] = '\0';
    for (struct addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
        buf[0] = '\0';
        if (ai->ai_family == AF_INET6) {
            m_e.logprintf(9, kFile, __LINE__, "Notice: Skipping IPv6 on hostname [%s]",
                          hostname.c_str());
            continue;
        }
        if (ai->ai_addr == nullptr || kv_inet_ntop(ai->ai_addr, buf, sizeof(buf)) == nullptr)
            buf[0] = '\0';
        if (strcmp(buf, "::1") == 0 || strcmp(buf, "127.0.0.1") == 0) {
            m_e.logprintf(9, kFile, __LINE__,
                          "Notice: On hostname [%s] skipping loop-back address [%s].",
                          hostname.c_str(), buf);
            continue;
        }
        if (buf[0] == '\0') {
            m_e.logprintf(9, kFile, __LINE__, "Notice: On hostname [%s] skipping empty IP address.",
                          hostname.c_str());
            continue;
        }
        m_e.logprintf(9, kFile, __LINE__, "[%s] = [%s].", hostname.c_str(), buf);
        break;
    }
    kv_freeaddrinfo(res);

    if (buf[0] != '\0' && strcmp(buf, "::1") != 0 && strcmp(buf, "127.0.0.1") != 0) {
        ipaddr = buf;
        return 0;
    }
    // Callers go on with the name itself.
    ipaddr = hostname;
    m_e.logprintf(3, kFile, __LINE__, kUnresolved, hostname.c_str());
    return -1;
}

// ---------------------------------------------------------------- lock file

static std::string g_lockdir_override;

void zov_quillset_set_lockdir_for_test(const char* dir) {
    g_lockdir_override = dir != nullptr ? dir : "";
}

// Times the lock is taken again because its file was removed meanwhile; each
// renewal means another process held and released the lock, so the bound is
// never reached in practice and only keeps a broken file system from looping.
static const int kLockRenewals = 1000;

// fcntl locks belong to the process: a second thread opening the lock file
// would be granted the lock its own process holds, and its close would drop
// the first thread's lock. So the host lock has an in-process layer too: at
// most one thread of the process holds or takes the file lock at a time.
// `g_hostlock_fd` is the descriptor handed out, -1 while free; -2 marks a
// taker still at work on the file. A child forked meanwhile doesn't inherit
// the file lock, nor the thread holding it, so it starts with the layer free.
static std::mutex g_hostlock_mtx;
static std::condition_variable g_hostlock_cv;
static int g_hostlock_fd = -1;
static pid_t g_hostlock_pid = 0;

static bool hostlock_enter(bool nonblocking) {
    std::unique_lock<std::mutex> lk(g_hostlock_mtx);
    if (g_hostlock_fd != -1 && g_hostlock_pid != getpid()) g_hostlock_fd = -1;
    if (nonblocking && g_hostlock_fd != -1) return false;
    g_hostlock_cv.wait(lk, [] { return g_hostlock_fd == -1; });
    g_hostlock_fd = -2;
    g_hostlock_pid = getpid();
    return true;
}

// Records the descriptor taken, or with -1 gives the layer up.
static void hostlock_settle(int fd) {
    std::lock_guard<std::mutex> lk(g_hostlock_mtx);
    g_hostlock_fd = fd;
    if (fd == -1) g_hostlock_cv.notify_all();
}

// Gives the layer up if `fd` is the descriptor that holds it.
static void hostlock_leave(int fd) {
    std::lock_guard<std::mutex> lk(g_hostlock_mtx);
    if (fd < 0 || fd != g_hostlock_fd) return;
    g_hostlock_fd = -1;
    g_hostlock_cv.notify_all();
}

// Does `path` still name the file open on `fd`?
static bool lock_names_path(int fd, const std::string& path) {
    struct stat held, named;
    if (fstat(fd, &held) != 0 || stat(path.c_str(), &named) != 0) return false;
    return held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

static std::string lock_path() {
    const std::string dir = g_lockdir_override.empty() ? "/vmr/tmp" : g_lockdir_override;
    char path[12288];
    kv_snprintf(path, sizeof(path), "%s/%s", dir.c_str(), LOCK_FILE);
    return path;
}

// Each release removes the file. A taker that opened it before the removal
// can win the lock on the removed file while a later taker creates and locks
// a new one, and both would think they hold the host lock; so the lock counts
// only while the path still names the file locked, and otherwise it is taken
// again on what the path names now.
static int lock_file_at(MerlError& log, const std::string& path, int nonblocking) {
    for (int attempt = 0; attempt < kLockRenewals; attempt++) {
        int fd = kv_open(path.c_str(), O_RDWR | O_CREAT, 0644, 0);
        if (fd < 0) {
            int why = errno;
            log.logprintf(3, kFile, __LINE__, "set_file_lock : failed to open lock file [%s]",
                          path.c_str());
            // Say which folder is at fault: a host without the package's
            // folders is the usual case.
            std::string dir = path.substr(0, path.rfind('/'));
            struct stat st;
            if (stat(dir.c_str(), &st) != 0)
                log.logprintf(3, kFile, __LINE__,
                              "set_file_lock : folder [%s] of lock file [%s] does not exist: "
                              "install the zovmerl package or create it with mode 1777",
                              dir.c_str(), path.c_str());
            else
                log.logprintf(3, kFile, __LINE__,
                              "set_file_lock : folder [%s] does not let this account create or "
                              "open the lock file: %s",
                              dir.c_str(), kv_strerror(why));
        }
        int rc = -1;
        if (fd >= 0)
            rc = nonblocking ? kv_trylockfile(fd, KV_LOCK_EXCLUSIVE)
                             : kv_lockfile(fd, KV_LOCK_EXCLUSIVE);
        if (fd < 0 || rc != 0) {
            log.logprintf(3, kFile, __LINE__, "set_file_lock : cannot acquire lock");
            // A lock that failed leaves its descriptor open; the caller has no
            // way to release it, so it is not kept.
            if (fd >= 0) close(fd);
            return -1;
        }
        if (lock_names_path(fd, path)) return fd;
        kv_unlockfile(fd);
        close(fd);
    }
    log.logprintf(3, kFile, __LINE__, "set_file_lock : cannot acquire lock");
    return -1;
}

int zov_quillset::set_file_lock(int nonblocking) {
    std::string path = lock_path();
    // Logged before anything is locked: it only says where the lock lives.
    m_e.logprintf(5, kFile, __LINE__, "set_file_lock() : SUCCESS !!!!! lock file is [%s]. ",
                  path.c_str());
    if (!hostlock_enter(nonblocking != 0)) {
        m_e.logprintf(3, kFile, __LINE__, "set_file_lock : cannot acquire lock");
        return -1;
    }
    int fd = lock_file_at(m_e, path, nonblocking);
    hostlock_settle(fd);
    return fd;
}

void zov_quillset::set_file_unlock(int fd) {
    m_e.logprintf(5, kFile, __LINE__, "Entering : set_file_unlock");
    std::string path = lock_path();
    if (fd >= 0) {
        // Removed while still held: a taker that then wins the lock on this
        // file finds the path gone and starts again (set_file_lock). Removed
        // after the unlock, the path could name this file to a new holder
        // for a moment, and then a third taker would create another.
        kv_unlink(path.c_str());
        kv_unlockfile(fd);
    }
    if (fd >= 0) close(fd);
    hostlock_leave(fd);
    m_e.logprintf(5, kFile, __LINE__, "exiting : set_file_unlock ");
}
