// The error types, their text and severity tables, the composite error code,
// and the per-thread accrued error. The tables are built once per process
// (errinfo_once) and only read afterwards; err_settype is for start-up.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "liblocal/kv_error.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_msg_internal.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kv_trace.h"

namespace {

const int kTypeCount = 22;
const int kAccrueMax = 18432;

struct ErrType {
    int maxerrno;
    char typname[128];
    const char* const* errstrs;
    const int* severities;
    bool registered;
};

ErrType Typetab[kTypeCount];
KVOnce g_tab_once = KV_ONCE_INIT;

const char* const unknown_errstrs[] = {"Unknown error", "Unknown error"};
const int unknown_severities[] = {0, 0};

// RPC status codes; texts carry their literal id so that they translate.
const char* const rpc_errstrs[] = {
    "71000:Success",
    "71001:Can't encode arguments",
    "71002:Can't decode result",
    "71003:RPC send operation failed",
    "71004:RPC receive operation failed",
    "71005:Timed out",
    "71006:Incompatible versions of RPC",
    "71007:Authentication error",
    "71008:Program unavailable",
    "71009:RPC program or version mismatch",
    "71010:RPC server is unavailable",
    "71011:Server can't decode arguments",
    "71012:Remote system error",
    "71013:Unknown host",
    "71014:Port mapper failure",
    "71015:Program not registered",
    "71016:Failed (unspecified error)",
    "71017:Unknown protocol",
    "71018:Call interrupted",
    "71019:Remote address unknown",
    "71020:TLI error",
    "71021:Broadcasting not supported",
    "71022:Name to address translation failed",
    "71023:Recv got uderr indication",
    "71024:Asynchronous RPC in progress",
    "71025:Stale asynchronous RPC handle",
    "71026:Couldn't make connection",
    "71027:Received disconnect from remote host",
    "71028:Can't push RPC module",
    "71029:Can't store request",
};
const int kRpcCount = sizeof(rpc_errstrs) / sizeof(rpc_errstrs[0]);
const int rpc_severities[] = {0, 3, 3, 3, 3, 2, 3, 3, 3, 3, 3, 3, 3, 3, 3,
                              3, 3, 3, 2, 3, 3, 3, 3, 3, 1, 3, 3, 3, 3, 3};

const char* const rap_errstrs[] = {
    "71100:Success",
    "71101:Resource not found",
    "71102:Resource already exists",
    "71103:Permission denied",
    "71104:Invalid attribute",
    "71105:Invalid value",
    "71106:Attribute is read-only",
    "71107:Missing required attribute",
    "71108:Resource is busy",
    "71109:Resource is locked",
    "71110:Resource database is busy",
    "71111:Resource database error",
    "71112:Invalid resource type",
    "71113:Invalid query",
    "71114:Too many resources match",
    "71115:No resources match",
    "71116:Invalid name",
    "71117:Name too long",
    "71118:Invalid hostname",
    "71119:Invalid user",
    "71120:Operation not supported",
    "71121:Version mismatch",
    "71122:Connection lost",
    "71123:Timed out",
    "71124:Out of memory",
    "71125:Invalid request",
    "71126:Bad checksum",
    "71127:Resource was changed by another session",
    "71128:Duplicate attribute",
    "71129:Invalid operation",
    "71130:Invalid hidden attribute",
    "71131:Reference in use",
    "71132:Attribute value too long",
    "71133:Internal error",
};
const int rap_severities[] = {0, 3, 3, 3, 3, 3, 3, 3, 2, 2, 2, 4, 3, 3, 3, 2, 3,
                              3, 3, 3, 3, 3, 3, 2, 5, 3, 3, 2, 3, 3, 3, 2, 3, 4};

const char* const job_errstrs[] = {"71200:Success", "71201:Job not found",
                                   "71202:Job already exists", "71203:Job was cancelled",
                                   "71204:Job failed"};
const int job_severities[] = {0, 3, 3, 2, 3};

const char* const gss_errstrs[] = {
    "71300:Success",
    "71301:Bad mechanism",
    "71302:Bad name",
    "71303:Bad name type",
    "71304:Bad bindings",
    "71305:Bad status",
    "71306:Bad signature",
    "71307:No credentials",
    "71308:No context",
    "71309:Defective token",
    "71310:Defective credential",
    "71311:Credentials expired",
    "71312:Context expired",
    "71313:Failure",
    "71314:Bad quality of protection",
    "71315:Unauthorized",
    "71316:Unavailable",
    "71317:Duplicate element",
    "71318:Name not a mechanism name",
};
const int gss_severities[] = {0, 3, 3, 3, 3, 3, 4, 3, 3, 4, 4, 2, 2, 3, 3, 3, 3, 2, 3};

const char* const ssl_errstrs[] = {
    "71400:Success",
    "71401:SSL handshake failed",
    "71402:SSL certificate not valid",
    "71403:SSL certificate expired",
    "71404:SSL peer closed the connection",
    "71405:SSL read failed",
    "71406:SSL write failed",
    "71407:SSL context not initialised",
    "71408:SSL protocol error",
    "71409:SSL unknown error",
};
const int ssl_severities[] = {0, 3, 3, 3, 2, 3, 3, 4, 3, 3};

void set_type(int type, int maxerrno, const char* name, const char* const* strs, const int* sevs) {
    ErrType& t = Typetab[type];
    t.maxerrno = maxerrno;
    snprintf(t.typname, sizeof(t.typname), "%s", name);
    t.errstrs = strs;
    t.severities = sevs;
    t.registered = true;
}

void build_tables() {
    set_type(1, 1, "SYSTEM", unknown_errstrs, unknown_severities);
    set_type(2, kRpcCount - 1, "RPC", rpc_errstrs, rpc_severities);
    set_type(3, 33, "RAP", rap_errstrs, rap_severities);
    set_type(5, 1, "VMR", unknown_errstrs, unknown_severities);
    set_type(9, 4, "JOBS", job_errstrs, job_severities);
    set_type(12, 18, "GSS", gss_errstrs, gss_severities);
    set_type(13, 9, "SSL", ssl_errstrs, ssl_severities);
    set_type(14, 1, "OpenSSL", unknown_errstrs, unknown_severities);
    set_type(15, 1, "CRYPTO", unknown_errstrs, unknown_severities);
    set_type(16, kRpcCount - 1, "SSNCHNL", rpc_errstrs, rpc_severities);
    set_type(18, 1, "SYSTEM", unknown_errstrs, unknown_severities);
    set_type(19, 1, "SYSTEM_VSS", unknown_errstrs, unknown_severities);
}

const ErrType* type_of(int type) {
    errinfo_once();
    if (type < 0 || type >= kTypeCount || !Typetab[type].registered) return nullptr;
    return &Typetab[type];
}

// The type's text for a number, or null.
const char* table_text(int type, int errnum) {
    const ErrType* t = type_of(type);
    if (t == nullptr || t->errstrs == nullptr || errnum < 0 || errnum > t->maxerrno) return nullptr;
    return t->errstrs[errnum];
}

bool has_literal_id(const char* s) {
    const char* p = s;
    while (*p >= '0' && *p <= '9') ++p;
    return p != s && *p == ':';
}

}  // namespace

void errinfo_once(void) {
    kv_once(&g_tab_once, build_tables);
}

void err_unsetall(void) {
    errinfo_once();
    for (ErrType& t : Typetab) t = ErrType();
    build_tables();
}

void err_settype(int type, int maxerrno, const char* typname, char** strtab, int* sevtab) {
    errinfo_once();
    if (type < 0 || type >= kTypeCount || typname == nullptr || maxerrno < 0) return;
    set_type(type, maxerrno, typname, strtab, sevtab);
}

int err_setsev(int type, int severity, int errnum) {
    int plain = type * 10000 + severity * 1000 + errnum;
    const ErrType* t = type_of(type);
    if (t == nullptr || severity != 0) return plain;
    int sev = 0;
    if (type == 1) {
        if (errnum == 0)
            sev = 1;
        else if (errnum == 4 || errnum == 100 || errnum == 102 || errnum == 104 || errnum == 110)
            sev = 3;
        else
            sev = 5;
    } else if (t->severities != nullptr && errnum >= 0 && errnum <= t->maxerrno) {
        sev = t->severities[errnum];
    }
    return type * 10000 + sev * 1000 + errnum;
}

const char* err_typedesc(int type) {
    const ErrType* t = type_of(type);
    return t != nullptr ? t->typname : "VMR";
}

const char* err_sevdesc(int severity) {
    switch (severity) {
    case 1: return "notice";
    case 2: return "warning";
    case 3: return "error";
    case 4: return "severe";
    case 5: return "critical";
    default: return "info";
    }
}

char* rpc_errstr(int idx) {
    if (idx >= 0 && idx < kRpcCount) return const_cast<char*>(rpc_errstrs[idx]);
    char* b = msg_lit_pool_buffer();
    snprintf(b, MSG_LIT_BUFFER_SIZE, "Unknown error code: %d", idx);
    return b;
}

errinfo* err_set(int type, int errnum) {
    const char* text;
    if (type == 1 || type == 18)
        text = kv_strerror(errnum);
    else
        text = table_text(type, errnum);
    if (text == nullptr) text = "Unknown error";
    int kind = has_literal_id(text) ? ARG_LITERAL_ID : ARG_SYSERR;
    return msg_create(0, type * 10000 + errnum, "%s", kind, text);
}

errinfo* err_setstr(int type, int errnum, char* errstr) {
    return msg_create(0, type * 10000 + errnum, "%s", ARG_SYSERR, errstr != nullptr ? errstr : "");
}

errinfo* err_setall(int type, int severity, int errnum, char* errstr) {
    MsgThread* t = msg_thread();
    msg_setall_register(t);
    const char* text = errstr;
    if (text == nullptr) text = table_text(type, errnum);
    if (text == nullptr && (type == 1 || type == 18)) text = kv_strerror(errnum);
    if (text == nullptr) text = "Unknown error";
    if (has_literal_id(text)) text = strchr(text, ':') + 1;
    snprintf(t->err_text, sizeof(t->err_text), "%s", text);
    errinfo& e = t->err;
    e.errnum = err_setsev(type, severity, errnum);
    e.errstr = t->err_text;
    e.MsgId = 0;
    e.form = nullptr;
    e.argcount = 0;
    e.arglist = nullptr;
    e.programName = nullptr;
    return &e;
}

errinfo* err_accrue(const char* str) {
    MsgThread* t = msg_thread();
    if (!t->accrue_on || str == nullptr) return nullptr;
    std::string s = str;
    if (t->persistent != nullptr) {
        s += "->(";
        s += t->persistent;
        s += ")";
    }
    if (s.size() >= static_cast<size_t>(kAccrueMax)) {
        kv_trace(1, 0x1, "Dropping error string %s\n", str);
        return nullptr;
    }
    free(t->persistent);
    t->persistent = xstrdup(s.c_str());
    return nullptr;
}

errinfo* blow_err(int free_errbuf) {
    MsgThread* t = msg_thread();
    t->accrue_on = 1;
    if (t->persistent == nullptr) return nullptr;
    errinfo* e = msg_create(0, -10001, "%s", ARG_TEXT, t->persistent);
    if (free_errbuf == 1) {
        free(t->persistent);
        t->persistent = nullptr;
    }
    return e;
}

static_assert(sizeof(rpc_severities) / sizeof(int) == kRpcCount, "one severity per RPC text");
static_assert(sizeof(rap_errstrs) / sizeof(char*) == 34 &&
                  sizeof(rap_severities) / sizeof(int) == 34,
              "RAP numbers run 0 to 33");
static_assert(sizeof(gss_errstrs) / sizeof(char*) == 19 &&
                  sizeof(gss_severities) / sizeof(int) == 19,
              "GSS numbers run 0 to 18");
static_assert(sizeof(ssl_errstrs) / sizeof(char*) == 10 &&
                  sizeof(ssl_severities) / sizeof(int) == 10,
              "SSL numbers run 0 to 9");
