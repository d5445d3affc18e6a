// Output of messages: msg_post to the console, the logging hook and the log
// files, the log line and its rendered form, and msg_print. Callable from
// any thread; the process streams are set at start-up (msg_log_open).
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <string>

#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_msg_internal.h"

int Timestamp_msgs = 0;

namespace {

std::atomic<msg_post_func_t> g_post_func{nullptr};

const size_t kHeadSize = 1792;
const size_t kRestSize = 18432;
const size_t kTextArgMax = 511;

// Mode 0: line breaks become the two characters "\n", and a trailing pair is
// dropped. Mode 1: cut to 511 bytes, line breaks removed. Mode 2: line
// breaks become blanks.
std::string process_str(const char* s, int mode) {
    std::string o;
    if (s == nullptr) return o;
    for (const char* p = s; *p != '\0'; ++p) {
        if (mode == 1 && o.size() >= kTextArgMax) break;
        if (*p == '\n') {
            if (mode == 0)
                o += "\\n";
            else if (mode == 2)
                o += ' ';
        } else if (*p == '\r' && mode == 1) {
            continue;
        } else {
            o += *p;
        }
    }
    if (mode == 0 && o.size() >= 2 && o.compare(o.size() - 2, 2, "\\n") == 0)
        o.resize(o.size() - 2);
    return o;
}

std::string filter_spaces(const char* s) {
    std::string o;
    for (const char* p = s != nullptr ? s : ""; *p != '\0'; ++p)
        if (*p != ' ' && *p != '\t') o += *p;
    if (o.empty()) o = "unknown";
    return o;
}

std::string host_of(const errinfo* m) {
    std::string h(m->hostName, strnlen(m->hostName, sizeof(m->hostName)));
    return h.empty() ? "unknown" : filter_spaces(h.c_str());
}

// The head from the severity on; with from_program, from the program on.
std::string head_tail(const errinfo* m, bool from_program) {
    int code = m->errnum;
    char b[kHeadSize];
    std::string prog = filter_spaces(m->programName);
    if (from_program) {
        snprintf(b, sizeof(b), "%s %s %s", prog.c_str(), err_typedesc(ERR_TYPE(code)),
                 err_sevdesc(ERR_SEV(code)));
    } else {
        snprintf(b, sizeof(b), "%d %d %d %u %d %d %s %s %s %s", ERR_SEV(code), ERR_TYPE(code),
                 ERR_NUM(code), static_cast<unsigned>(m->threadID), m->processID, m->activityID,
                 host_of(m).c_str(), prog.c_str(), err_typedesc(ERR_TYPE(code)),
                 err_sevdesc(ERR_SEV(code)));
    }
    return b;
}

// The raw log line: the head, then the message in counted form, bounded so
// that the line stays well-formed however long the message is.
std::string build_logline(const errinfo* m) {
    char head[kHeadSize];
    snprintf(head, sizeof(head), "%d %lu %s", m->MsgId, static_cast<unsigned long>(m->timestamp),
             head_tail(m, false).c_str());
    std::string form = process_str(m->form, 0);
    if (form.size() > kRestSize / 2) form.resize(kRestSize / 2);
    std::string rest = " " + std::to_string(form.size()) + " " + form;
    std::string args;
    int n = 0;
    int count = m->arglist != nullptr && m->argcount > 0 ? m->argcount : 0;
    for (int i = 0; i < count; ++i) {
        const argtuple* a = m->arglist[i];
        if (a == nullptr) continue;
        std::string t;
        if (a->argdesc == ARG_TEXT || a->argdesc == ARG_SYSERR)
            t = process_str(a->arg, 1);
        else if (a->argdesc == ARG_NESTED_STBUF)
            t = process_str(a->arg, 2);
        else
            t = a->arg != nullptr ? a->arg : "";
        std::string one =
            " " + std::to_string(a->argdesc) + " " + std::to_string(t.size()) + " " + t;
        if (rest.size() + args.size() + one.size() + 16 > kRestSize) break;
        args += one;
        ++n;
    }
    return std::string(head) + rest + " " + std::to_string(n) + args + "\n";
}

std::string rendered_text(const char* locale, errinfo* m) {
    std::string t;
    msg_render_to_string(t, locale, errinfo_structext(m));
    return t;
}

void strip_newline(std::string& t) {
    if (!t.empty() && t.back() == '\n') t.pop_back();
}

std::string build_rendered_line(const char* locale, errinfo* m) {
    char when[128];
    time_t ts = static_cast<time_t>(m->timestamp);
    struct tm tmv;
    // A time the system cannot show leaves the stamp empty.
    if (localtime_r(&ts, &tmv) == nullptr || strftime(when, sizeof(when), "%x %X ", &tmv) == 0)
        when[0] = '\0';
    std::string t = rendered_text(locale, m);
    strip_newline(t);
    std::string head = head_tail(m, msg_rrend_noenv() != 0);
    return std::to_string(m->MsgId) + " " + when + " " + head + " " + t + "\n";
}

// The console forms, by the bits 1, 2 and 0x80.
void post_console(int dest, errinfo* m, bool compact) {
    std::string t = rendered_text(nullptr, m);
    const char* prog = m->programName != nullptr ? m->programName : "";
    if (m->MsgId == 0) {
        if (dest & MSG_DEST_STDOUT) msg_fprintf(stdout, "%s", t.c_str());
        if (dest & MSG_DEST_STDERR) msg_fprintf(stderr, "%s", t.c_str());
        return;
    }
    strip_newline(t);
    const char* idform = compact ? "%d:%s:%s\n" : "%d:%s: %s\n";
    if (msg_force_msg_id()) {
        if (dest & MSG_DEST_STDOUT) msg_fprintf(stdout, idform, m->MsgId, prog, t.c_str());
        if (dest & MSG_DEST_STDERR) msg_fprintf(stderr, idform, m->MsgId, prog, t.c_str());
        return;
    }
    if (dest & MSG_DEST_STDOUT) msg_fprintf(stdout, "%s\n", t.c_str());
    if (dest & MSG_DEST_STDERR) {
        if (dest & MSG_DEST_NOMSGID)
            msg_fprintf(stderr, "%s\n", t.c_str());
        else
            msg_fprintf(stderr, idform, m->MsgId, prog, t.c_str());
    }
}

}  // namespace

void msg_set_timestamps(int on) {
    Timestamp_msgs = on;
}

void msg_set_post_func(msg_post_func_t func) {
    g_post_func.store(func);
}

void msg_auditpost(errinfo* my_msg) {
    if (my_msg == nullptr || my_msg->form == nullptr || g_audit_log_fp == nullptr) return;
    msg_fprintf(g_audit_log_fp, "%s", build_logline(my_msg).c_str());
}

void msg_post(int destination, errinfo* my_msg) {
    if (my_msg == nullptr || my_msg->form == nullptr) return;
    if (destination & MSG_DEST_AUDIT) {
        msg_auditpost(my_msg);
        return;
    }
    if (!Timestamp_msgs && !(destination & (MSG_DEST_CUSTLOG | MSG_DEST_LOGONLY))) {
        post_console(destination, my_msg, false);
        return;
    }
    msg_post_func_t hook = g_post_func.load();
    if (hook != nullptr) {
        hook(destination, my_msg);
        return;
    }
    std::string line = build_logline(my_msg);
    bool console = !(destination & MSG_DEST_LOGONLY) && !(g_log_flags & MSG_LOG_NOCONSOLE);
    if (console) {
        if (Timestamp_msgs) {
            if (destination & MSG_DEST_STDOUT) msg_fprintf(stdout, "%s", line.c_str());
            if (destination & MSG_DEST_STDERR) msg_fprintf(stderr, "%s", line.c_str());
        } else {
            post_console(destination, my_msg, true);
        }
    }
    if ((destination & MSG_DEST_CUSTLOG) && g_cust_log_fp != nullptr)
        msg_fprintf(g_cust_log_fp, "%s", line.c_str());
    if (g_rend_log_fp != nullptr)
        msg_fprintf(g_rend_log_fp, "%s", build_rendered_line(nullptr, my_msg).c_str());
}

void err_print(errinfo* err) {
    msg_post(MSG_DEST_STDERR, err);
}

void msg_err_print(int msgID, int errnum, const char* form, ...) {
    if (form == nullptr) return;
    va_list ap;
    va_start(ap, form);
    errinfo* e = msg_vcreate(msgID, errnum, form, ap);
    va_end(ap);
    err_print(e);
    msg_free(e);
}

void msg_print(int msgID, int errnum, int destination, const char* form, ...) {
    if (form == nullptr) return;
    if (errnum >= 0 && errnum < 6) errnum *= 1000;  // a bare severity
    va_list ap;
    va_start(ap, form);
    if (!Timestamp_msgs &&
        !(destination & (MSG_DEST_CUSTLOG | MSG_DEST_LOGONLY | MSG_DEST_AUDIT))) {
        // The message holds its own line break; nothing is added here.
        const char* t = vrender_string(msgID, nullptr, form, ap);
        va_end(ap);
        const char* prog = msg_get_program_name();
        bool bare = msgID == 0 || (destination & MSG_DEST_NOMSGID);
        if (msg_force_msg_id() && !bare && (destination & MSG_DEST_STDOUT)) {
            msg_fprintf(stdout, "%d:%s: %s", msgID, prog, t);
            return;
        }
        if (destination & MSG_DEST_STDOUT) msg_fprintf(stdout, "%s", t);
        if (destination & MSG_DEST_STDERR) {
            if (bare)
                msg_fprintf(stderr, "%s", t);
            else
                msg_fprintf(stderr, "%d:%s: %s", msgID, prog, t);
        }
        return;
    }
    errinfo* e = msg_vcreate(msgID, errnum, form, ap);
    va_end(ap);
    msg_post(destination, e);
    msg_free(e);
}

int msg_printbuf(errinfo* my_msg, char* buf, size_t buf_size, const char* locale, int do_rend) {
    if (buf == nullptr || buf_size == 0) return 0;
    buf[0] = '\0';
    if (my_msg == nullptr || my_msg->form == nullptr) return 0;
    std::string line = do_rend ? build_rendered_line(locale, my_msg) : build_logline(my_msg);
    return kv_snprintf(buf, buf_size, "%s", line.c_str());
}

char* render_logline(const char* locale, char* buf) {
    if (buf == nullptr) return nullptr;
    // number ts sev type num thread pid act host prog typename sevname, then
    // the counted message.
    errinfo e;
    memset(&e, 0, sizeof(e));
    const char* p = buf;
    long long v[8];
    char* end = nullptr;
    for (int i = 0; i < 8; ++i) {
        v[i] = strtoll(p, &end, 10);
        if (end == p || *end != ' ') return buf;
        p = end + 1;
    }
    // A line whose fields make no error number is not one this layer wrote.
    long long code = 0, sev = 0;
    if (__builtin_mul_overflow(v[3], 10000LL, &code) ||
        __builtin_mul_overflow(v[2], 1000LL, &sev) || __builtin_add_overflow(code, sev, &code) ||
        __builtin_add_overflow(code, v[4], &code) || code < INT_MIN || code > INT_MAX)
        return buf;
    std::string tok[4];
    for (std::string& t : tok) {
        const char* s = strchr(p, ' ');
        if (s == nullptr) return buf;
        t.assign(p, static_cast<size_t>(s - p));
        p = s + 1;
    }
    // The counted part reads like an stbuf behind its number.
    std::string sb = std::to_string(v[0]) + " " + p;
    structext st;
    const char* rest = nullptr;
    if (!msg_stbuf_parse(sb.c_str(), &st, &rest)) return buf;
    std::string form;  // "\n" in a stored form was a line break
    for (const char* f = st.form; *f != '\0'; ++f) {
        if (f[0] == '\\' && f[1] == 'n') {
            form += '\n';
            ++f;
        } else {
            form += *f;
        }
    }
    free(st.form);
    st.form = xstrdup(form.c_str());
    e.MsgId = st.MsgId;
    e.form = st.form;
    e.argcount = st.argcount;
    e.arglist = st.arglist;
    e.timestamp = static_cast<uint64_t>(v[1]);
    e.errnum = static_cast<int>(code);
    e.threadID = static_cast<int>(v[5]);
    e.processID = static_cast<int>(v[6]);
    e.activityID = static_cast<int>(v[7]);
    snprintf(e.hostName, sizeof(e.hostName), "%s", tok[0].c_str());
    e.programName = xstrdup(tok[1].c_str());
    std::string line = build_rendered_line(locale, &e);
    msg_free(&e);
    char* out = msg_pool_buffer();
    snprintf(out, MSG_BUFFER_SIZE, "%s", line.c_str());
    return out;
}

rendered_msg* msg_render(errinfo* err, const char* locale, long int displayMask) {
    (void)displayMask;  // every field is filled; the caller shows what it wants
    if (err == nullptr) return nullptr;
    rendered_msg* r = static_cast<rendered_msg*>(xcalloc(1, sizeof(rendered_msg)));
    char when[128];
    time_t ts = static_cast<time_t>(err->timestamp);
    struct tm tmv;
    if (localtime_r(&ts, &tmv) == nullptr || strftime(when, sizeof(when), "%x %X", &tmv) == 0)
        when[0] = '\0';
    r->timestamp = xstrdup(when);
    r->errnum = xstrdup(std::to_string(err->errnum).c_str());
    r->threadID = xstrdup(std::to_string(err->threadID).c_str());
    r->processID = xstrdup(std::to_string(err->processID).c_str());
    r->activityID = xstrdup(std::to_string(err->activityID).c_str());
    r->hostName =
        xstrdup(std::string(err->hostName, strnlen(err->hostName, sizeof(err->hostName))).c_str());
    r->programName = xstrdup(err->programName != nullptr ? err->programName : "");
    r->MsgID = xstrdup(std::to_string(err->MsgId).c_str());
    std::string t = err->form != nullptr ? rendered_text(locale, err)
                                         : (err->errstr != nullptr ? err->errstr : "");
    r->locMsg = xstrdup(t.c_str());
    return r;
}

void free_rendered_msgs(rendered_msg* rmsg) {
    if (rmsg == nullptr) return;
    char** f[] = {&rmsg->timestamp,   &rmsg->errnum,     &rmsg->threadID,
                  &rmsg->processID,   &rmsg->activityID, &rmsg->hostName,
                  &rmsg->programName, &rmsg->MsgID,      &rmsg->locMsg};
    for (char** p : f) {
        free(*p);
        *p = nullptr;
    }
    free(rmsg);
}
