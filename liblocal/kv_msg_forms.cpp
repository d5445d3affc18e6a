// Text forms of a message: stbuf, XML, value list, wire form and error
// buffer, with their parsers. Parsers treat their input as hostile: they
// check every length against the text, build nothing until the whole input
// has parsed, and give null (never a partial record) otherwise.
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "liblocal/attrlist.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_msg_internal.h"

namespace {

struct ParsedArg {
    int argdesc;
    std::string arg;
};

struct ParsedMsg {
    int id = 0;
    std::string form;
    std::vector<ParsedArg> args;
};

// Kind 52 stands for a pointer only inside a creation call; stored forms
// carry its stbuf text, so a parsed 52 is read as 49 and never dereferenced.
int stored_kind(long long k) {
    return k == ARG_NESTED_ERRINFO ? ARG_NESTED_STBUF : static_cast<int>(k);
}

void to_structext(const ParsedMsg& m, structext* out) {
    out->MsgId = m.id;
    out->form = xstrdup(m.form.c_str());
    out->argcount = static_cast<int>(m.args.size());
    out->arglist = nullptr;
    if (m.args.empty()) return;
    out->arglist = static_cast<argtuple**>(xcalloc(m.args.size(), sizeof(argtuple*)));
    for (size_t i = 0; i < m.args.size(); ++i) {
        argtuple* a = static_cast<argtuple*>(xmalloc(sizeof(argtuple)));
        a->argdesc = m.args[i].argdesc;
        a->arg = static_cast<char*>(xmalloc(m.args[i].arg.size() + 1));
        memcpy(a->arg, m.args[i].arg.data(), m.args[i].arg.size());
        a->arg[m.args[i].arg.size()] = '\0';
        out->arglist[i] = a;
    }
}

structext* ring_copy(const ParsedMsg& m) {
    structext* s = msg_next_structext();
    to_structext(m, s);
    return s;
}

// A decimal int at p; moves p past it.
bool read_int(const char*& p, long long* v, bool allow_neg) {
    const char* q = p;
    bool neg = false;
    if (allow_neg && *q == '-') {
        neg = true;
        ++q;
    }
    if (*q < '0' || *q > '9') return false;
    long long n = 0;
    while (*q >= '0' && *q <= '9') {
        n = n * 10 + (*q - '0');
        if (n > INT_MAX) return false;
        ++q;
    }
    *v = neg ? -n : n;
    p = q;
    return true;
}

bool expect(const char*& p, char c) {
    if (*p != c) return false;
    ++p;
    return true;
}

// n bytes of text at p, all present before the terminating NUL.
bool read_bytes(const char*& p, long long n, std::string* out) {
    if (n < 0 || strnlen(p, static_cast<size_t>(n)) != static_cast<size_t>(n)) return false;
    out->assign(p, static_cast<size_t>(n));
    p += n;
    return true;
}

bool only_space(const char* p) {
    for (; *p != '\0'; ++p)
        if (*p != ' ' && *p != '\n' && *p != '\r' && *p != '\t') return false;
    return true;
}

bool parse_stbuf(const char* s, ParsedMsg* m, const char** rest) {
    const char* p = s;
    long long id = 0;
    long long flen = 0;
    if (!read_int(p, &id, true) || !expect(p, ' ') || !read_int(p, &flen, false) ||
        !expect(p, ' ') || !read_bytes(p, flen, &m->form))
        return false;
    m->id = static_cast<int>(id);
    if (*p == ' ') {
        const char* after_form = p;
        ++p;
        long long count = 0;
        if (!read_int(p, &count, false)) {
            // Not a count: the message simply has no arguments.
            if (rest != nullptr) *rest = after_form;
            return true;
        } else {
            // Each argument takes at least " k n " (6 bytes): a larger count
            // cannot be honest, and is refused before anything is reserved.
            if (count > static_cast<long long>(strlen(p) / 6) + 1) return false;
            m->args.reserve(static_cast<size_t>(count));
            for (long long i = 0; i < count; ++i) {
                long long kind = 0;
                long long alen = 0;
                ParsedArg a;
                if (!expect(p, ' ') || !read_int(p, &kind, true) || !expect(p, ' ') ||
                    !read_int(p, &alen, false) || !expect(p, ' ') || !read_bytes(p, alen, &a.arg))
                    return false;
                a.argdesc = stored_kind(kind);
                m->args.push_back(std::move(a));
            }
        }
    } else if (*p != '\0' && rest == nullptr && !only_space(p)) {
        return false;
    }
    if (rest != nullptr) {
        *rest = p;
    } else if (!only_space(p)) {
        return false;
    }
    return true;
}

void append_counted(std::string& out, const char* text, size_t cut) {
    if (text == nullptr) text = "";
    size_t n = strlen(text);
    if (n > cut) n = cut;
    out += std::to_string(n);
    out += ' ';
    out.append(text, n);
}

}  // namespace

// ---- stbuf ----------------------------------------------------------------------------------

void msg_stbuf_append(std::string& out, const structext* st) {
    out += std::to_string(st->MsgId);
    out += ' ';
    append_counted(out, st->form, static_cast<size_t>(-1));
    int n = st->arglist != nullptr && st->argcount > 0 ? st->argcount : 0;
    if (n == 0) return;
    out += ' ';
    out += std::to_string(n);
    for (int i = 0; i < n; ++i) {
        const argtuple* a = st->arglist[i];
        out += ' ';
        out += std::to_string(a != nullptr ? a->argdesc : 0);
        out += ' ';
        append_counted(out, a != nullptr ? a->arg : "", MSG_ARG_MAX);
    }
}

bool msg_stbuf_parse(const char* s, structext* out, const char** rest) {
    memset(out, 0, sizeof(*out));
    if (s == nullptr) return false;
    ParsedMsg m;
    if (!parse_stbuf(s, &m, rest)) return false;
    to_structext(m, out);
    return true;
}

char* msg_structext_to_stbuf(structext* strtxt) {
    if (strtxt == nullptr || strtxt->form == nullptr) return nullptr;
    std::string s;
    msg_stbuf_append(s, strtxt);
    return xstrdup(s.c_str());
}

structext* msg_stbuf_to_structext(const char* stbuf) {
    if (stbuf == nullptr) return nullptr;
    ParsedMsg m;
    if (!parse_stbuf(stbuf, &m, nullptr)) return nullptr;
    return ring_copy(m);
}

errinfo* msg_create_from_stbuf(int errnum, char* stbuf) {
    structext st;
    if (!msg_stbuf_parse(stbuf, &st, nullptr)) return nullptr;
    errinfo* e = msg_create_from_structext(errnum, &st);
    msg_structext_clear(&st);
    return e;
}

char* msg_string_to_stbuf(char* in_str) {
    std::string s = "0 ";
    append_counted(s, in_str, MSG_ARG_MAX);
    return xstrdup(s.c_str());
}

structext* msg_string_to_structext(const char* str) {
    char* sb = msg_string_to_stbuf(const_cast<char*>(str));
    structext* r = msg_stbuf_to_structext(sb);
    free(sb);
    return r;
}

char* msg_idlit_to_stbuf(char* in_msg_idlit) {
    if (in_msg_idlit == nullptr) return nullptr;
    const char* colon = strchr(in_msg_idlit, ':');
    if (colon == nullptr) return nullptr;
    std::string s = std::to_string(atoi(in_msg_idlit));
    s += ' ';
    append_counted(s, colon + 1, static_cast<size_t>(-1));
    return xstrdup(s.c_str());
}

char* msg_stbuf_create(int msgID, const char* form, ...) {
    if (form == nullptr) return nullptr;
    structext st = {};
    va_list ap;
    va_start(ap, form);
    msg_vstructext_populate(&st, msgID, form, ap);
    va_end(ap);
    char* r = msg_structext_to_stbuf(&st);
    msg_structext_clear(&st);
    return r;
}

char* msg_stbuf_populate(int msgID, char* outbuf, unsigned int bufsize, const char* form, ...) {
    if (outbuf == nullptr || bufsize == 0 || form == nullptr) return nullptr;
    structext st = {};
    va_list ap;
    va_start(ap, form);
    msg_vstructext_populate(&st, msgID, form, ap);
    va_end(ap);
    std::string s;
    msg_stbuf_append(s, &st);
    msg_structext_clear(&st);
    if (s.size() + 1 > bufsize) {
        // A whole substitute rather than a cut stbuf that would not parse.
        std::string id = std::to_string(msgID);
        std::string f = "stbuf overflow, msgID:%d";
        s = "0 " + std::to_string(f.size()) + " " + f + " 1 1 " + std::to_string(id.size()) + " " +
            id;
    }
    snprintf(outbuf, bufsize, "%s", s.c_str());
    return outbuf;
}

// ---- XML ------------------------------------------------------------------------------------

char* msg_xml_char_encode(const char* in) {
    if (in == nullptr) return nullptr;
    std::string o;
    for (const char* p = in; *p != '\0'; ++p) {
        switch (*p) {
        case '&': o += "&amp;"; break;
        case '"': o += "&quot;"; break;
        case '\'': o += "&apos;"; break;
        case '<': o += "&lt;"; break;
        case '>': o += "&gt;"; break;
        default: o += *p; break;
        }
    }
    return xstrdup(o.c_str());
}

namespace {
std::string xml_decode(const char* p, size_t n) {
    static const std::pair<const char*, char> ents[] = {
        {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&lt;", '<'}, {"&gt;", '>'}};
    std::string o;
    size_t i = 0;
    while (i < n) {
        if (p[i] == '&') {
            bool done = false;
            for (const auto& e : ents) {
                size_t el = strlen(e.first);
                if (i + el <= n && strncmp(p + i, e.first, el) == 0) {
                    o += e.second;
                    i += el;
                    done = true;
                    break;
                }
            }
            if (done) continue;
        }
        o += p[i++];
    }
    return o;
}

void xml_attr(std::string& out, const char* name, const char* value) {
    char* enc = msg_xml_char_encode(value != nullptr ? value : "");
    out += ' ';
    out += name;
    out += "=\"";
    out += enc;
    out += '"';
    free(enc);
}

struct XmlTag {
    std::string name;
    std::vector<std::pair<std::string, std::string>> attrs;
    bool closing = false;       // </NAME>
    bool self_closing = false;  // <NAME ... />

    const std::string* attr(const char* n) const {
        for (const auto& a : attrs)
            if (a.first == n) return &a.second;
        return nullptr;
    }
};

void skip_ws(const char*& p) {
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') ++p;
}

bool is_name_char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == ':';
}

// One tag at p (after white space); moves p past it.
bool read_tag(const char*& p, XmlTag* t) {
    skip_ws(p);
    if (*p != '<') return false;
    ++p;
    if (*p == '/') {
        t->closing = true;
        ++p;
    }
    const char* n = p;
    while (is_name_char(*p)) ++p;
    if (p == n) return false;
    t->name.assign(n, static_cast<size_t>(p - n));
    for (;;) {
        skip_ws(p);
        if (*p == '>') {
            ++p;
            return true;
        }
        if (p[0] == '/' && p[1] == '>') {
            if (t->closing) return false;
            t->self_closing = true;
            p += 2;
            return true;
        }
        if (t->closing) return false;
        const char* an = p;
        while (is_name_char(*p)) ++p;
        if (p == an) return false;
        std::string aname(an, static_cast<size_t>(p - an));
        skip_ws(p);
        if (!expect(p, '=')) return false;
        skip_ws(p);
        char q = *p;
        if (q != '"' && q != '\'') return false;
        ++p;
        const char* v = strchr(p, q);
        if (v == nullptr) return false;
        t->attrs.emplace_back(aname, xml_decode(p, static_cast<size_t>(v - p)));
        p = v + 1;
    }
}

bool read_int_text(const std::string* s, long long* v, bool allow_neg) {
    if (s == nullptr) return false;
    const char* p = s->c_str();
    return read_int(p, v, allow_neg) && *p == '\0';
}

bool parse_xml(const char* text, ParsedMsg* m) {
    const char* p = strstr(text, "<MSG");
    if (p == nullptr) return false;
    XmlTag msg;
    if (!read_tag(p, &msg) || msg.name != "MSG" || msg.closing || msg.self_closing) return false;
    long long id = 0;
    long long argcount = 0;
    const std::string* form = msg.attr("form");
    if (!read_int_text(msg.attr("id"), &id, true) || form == nullptr) return false;
    bool have_count = msg.attr("argcount") != nullptr;
    if (have_count && !read_int_text(msg.attr("argcount"), &argcount, false)) return false;
    m->id = static_cast<int>(id);
    m->form = *form;
    XmlTag t;
    if (!read_tag(p, &t)) return false;
    if (t.name == "MSGARGS" && !t.closing) {
        if (!t.self_closing) {
            for (;;) {
                XmlTag a;
                if (!read_tag(p, &a)) return false;
                if (a.name == "MSGARGS" && a.closing) break;
                if (a.name != "MSGARG" || a.closing) return false;
                long long kind = 0;
                const std::string* arg = a.attr("arg");
                if (arg == nullptr || !read_int_text(a.attr("argdesc"), &kind, true)) return false;
                if (!a.self_closing) {
                    XmlTag end;
                    if (!read_tag(p, &end) || end.name != "MSGARG" || !end.closing) return false;
                }
                if (m->args.size() >= MSG_MAX_POSITIONS) return false;
                m->args.push_back(ParsedArg{stored_kind(kind), *arg});
            }
        }
        t = XmlTag();
        if (!read_tag(p, &t)) return false;
    }
    if (t.name != "MSG" || !t.closing) return false;
    if (have_count && argcount != static_cast<long long>(m->args.size())) return false;
    return true;
}
}  // namespace

char* msg_xml_char_decode(const char* in) {
    if (in == nullptr) return nullptr;
    return xstrdup(xml_decode(in, strlen(in)).c_str());
}

int is_structext_xml(const char* text) {
    return text != nullptr && strstr(text, "<MSG") != nullptr && strstr(text, "</MSG>") != nullptr;
}

char* msg_structext_to_xml(structext* strtxt) {
    if (strtxt == nullptr || strtxt->form == nullptr) return nullptr;
    int n = strtxt->arglist != nullptr && strtxt->argcount > 0 ? strtxt->argcount : 0;
    std::string o = "<MSG";
    o += " id=\"" + std::to_string(strtxt->MsgId) + "\"";
    xml_attr(o, "form", strtxt->form);
    o += " argcount=\"" + std::to_string(n) + "\"> <MSGARGS>";
    for (int i = 0; i < n; ++i) {
        const argtuple* a = strtxt->arglist[i];
        o += " <MSGARG";
        xml_attr(o, "arg", a != nullptr ? a->arg : "");
        o += " argdesc=\"" + std::to_string(a != nullptr ? a->argdesc : 0) + "\"/>";
    }
    o += " </MSGARGS> </MSG>";
    return xstrdup(o.c_str());
}

structext* msg_xml_to_structext(const char* xml) {
    if (!is_structext_xml(xml)) return nullptr;
    ParsedMsg m;
    if (!parse_xml(xml, &m)) return nullptr;
    return ring_copy(m);
}

// ---- Value list -------------------------------------------------------------------------------

namespace {
vallist* make_val(const char* text) {
    size_t n = strlen(text);
    vallist* v = static_cast<vallist*>(xcalloc(1, offsetof(vallist, value) + n + 1));
    memcpy(v->value, text, n + 1);
    return v;
}

}  // namespace

vallist* msg_structext_to_vallist(structext* strtxt) {
    if (strtxt == nullptr || strtxt->form == nullptr) return nullptr;
    int n = strtxt->arglist != nullptr && strtxt->argcount > 0 ? strtxt->argcount : 0;
    vallist* head = make_val(std::to_string(strtxt->MsgId).c_str());
    vallist* tail = head;
    auto add = [&tail](const char* t) {
        tail->next = make_val(t);
        tail = tail->next;
    };
    add(strtxt->form);
    add(std::to_string(n).c_str());
    for (int i = 0; i < n; ++i) {
        const argtuple* a = strtxt->arglist[i];
        add(std::to_string(a != nullptr ? a->argdesc : 0).c_str());
        add(a != nullptr && a->arg != nullptr ? a->arg : "");
    }
    return head;
}

structext* msg_vallist_to_structext(vallist* vl) {
    ParsedMsg m;
    long long id = 0;
    long long count = 0;
    const char* p;
    if (vl == nullptr) return nullptr;
    p = vl->value;
    if (!read_int(p, &id, true) || *p != '\0') return nullptr;
    vl = vl->next;
    if (vl == nullptr) return nullptr;
    m.id = static_cast<int>(id);
    m.form = vl->value;
    vl = vl->next;
    if (vl != nullptr) {
        p = vl->value;
        if (!read_int(p, &count, false) || *p != '\0' || count > MSG_MAX_POSITIONS) return nullptr;
        vl = vl->next;
        for (long long i = 0; i < count; ++i) {
            long long kind = 0;
            if (vl == nullptr || vl->next == nullptr) return nullptr;
            p = vl->value;
            if (!read_int(p, &kind, true) || *p != '\0') return nullptr;
            m.args.push_back(ParsedArg{stored_kind(kind), vl->next->value});
            vl = vl->next->next;
        }
    }
    return ring_copy(m);
}

// ---- Wire form ------------------------------------------------------------------------------

char* msg_structext_to_stxdrbuf(structext* strtxt) {
    if (strtxt == nullptr || strtxt->form == nullptr) return nullptr;
    std::string out;
    msg_render_to_string(out, "C", strtxt);
    out += ' ';
    msg_stbuf_append(out, strtxt);
    return xstrdup(out.c_str());
}

structext* msg_stxdrbuf_to_structext(const char* buf) {
    if (buf == nullptr) return nullptr;
    // The rendering may hold blanks and numbers of its own: the stbuf starts
    // at the blank after which the rest parses whole and renders back to the
    // text before it; failing that, at the first blank where it parses.
    ParsedMsg first;
    bool have_first = false;
    for (const char* b = strchr(buf, ' '); b != nullptr; b = strchr(b + 1, ' ')) {
        ParsedMsg m;
        if (!parse_stbuf(b + 1, &m, nullptr)) continue;
        structext st = {};
        to_structext(m, &st);
        std::string r;
        msg_render_to_string(r, "C", &st);
        msg_structext_clear(&st);
        if (r.size() == static_cast<size_t>(b - buf) && r.compare(0, r.size(), buf, r.size()) == 0)
            return ring_copy(m);
        if (!have_first) {
            first = std::move(m);
            have_first = true;
        }
    }
    return have_first ? ring_copy(first) : nullptr;
}

// ---- Error buffer ----------------------------------------------------------------------------

char* msg_errinfo_to_errbuf(errinfo* err) {
    if (err == nullptr || (err->form == nullptr && err->errstr == nullptr)) return nullptr;
    if (err->form == nullptr) return xstrdup(err->errstr);
    std::string o = err->errstr != nullptr ? err->errstr : "";
    char head[256];
    char host[sizeof(err->hostName) + 1];
    memcpy(host, err->hostName, sizeof(err->hostName));
    host[sizeof(err->hostName)] = '\0';
    const char* prog = err->programName != nullptr ? err->programName : "";
    snprintf(head, sizeof(head), " %ld %d %d %d %s %d ", static_cast<long>(err->timestamp),
             err->threadID, err->processID, err->activityID, host, static_cast<int>(strlen(prog)));
    o += head;
    o += prog;
    o += ' ';
    msg_stbuf_append(o, errinfo_structext(err));
    return xstrdup(o.c_str());
}

namespace {
struct ErrTail {
    long long ts, tid, pid, act;
    std::string host, prog;
    ParsedMsg msg;
};

bool parse_err_tail(const char* p, ErrTail* t) {
    long long plen = 0;
    if (!read_int(p, &t->ts, true)) {
        // a timestamp wider than an int
        const char* q = p;
        char* end = nullptr;
        long long v = strtoll(q, &end, 10);
        if (end == q) return false;
        t->ts = v;
        p = end;
    }
    if (!expect(p, ' ') || !read_int(p, &t->tid, true) || !expect(p, ' ') ||
        !read_int(p, &t->pid, true) || !expect(p, ' ') || !read_int(p, &t->act, true) ||
        !expect(p, ' '))
        return false;
    const char* h = p;
    while (*p != '\0' && *p != ' ') ++p;
    t->host.assign(h, static_cast<size_t>(p - h));
    if (t->host.size() >= 64) return false;
    if (!expect(p, ' ') || !read_int(p, &plen, false) || !expect(p, ' ') ||
        !read_bytes(p, plen, &t->prog) || !expect(p, ' '))
        return false;
    return parse_stbuf(p, &t->msg, nullptr);
}
}  // namespace

errinfo* msg_errbuf_to_errinfo(const char* buf) {
    if (buf == nullptr || *buf == '\0') return nullptr;
    for (const char* b = strchr(buf, ' '); b != nullptr; b = strchr(b + 1, ' ')) {
        ErrTail t;
        if (!parse_err_tail(b + 1, &t)) continue;
        errinfo* e = msg_next_errinfo();
        e->errstr = xstrndup(buf, static_cast<size_t>(b - buf));
        e->timestamp = static_cast<uint64_t>(t.ts);
        e->threadID = static_cast<int>(t.tid);
        e->processID = static_cast<int>(t.pid);
        e->activityID = static_cast<int>(t.act);
        snprintf(e->hostName, sizeof(e->hostName), "%s", t.host.c_str());
        e->programName = xstrdup(t.prog.c_str());
        to_structext(t.msg, errinfo_structext(e));
        return e;
    }
    // A record without a message travels as its text alone.
    errinfo* e = msg_next_errinfo();
    e->errstr = xstrdup(buf);
    return e;
}
