// The renderer: a printf interpreter that takes its arguments either from a
// message's text arguments or from a C va_list, with positional "N$"
// arguments and %s widths and precisions counted in terminal columns.
// Formats are never handed whole to the system library: each conversion is
// rebuilt from its parsed parts, so a format that came from data (a stored
// or translated message) cannot reach memory through %n or a missing
// argument.
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <forward_list>
#include <string>
#include <vector>

#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_msg_internal.h"
#include "liblocal/kv_trace.h"
#include "liblocal/kv_utf8.h"

namespace {

// Widths and precisions beyond this are clamped: a format from data must not
// make the renderer allocate without bound.
const int kMaxWidth = 1 << 16;
const int kMaxNestDepth = 8;

enum LenMod { LM_NONE, LM_HH, LM_H, LM_L, LM_LL, LM_BIGL, LM_J, LM_Z, LM_T };

struct Conversion {
    const char* end;  // just past the conversion letter
    int pos;          // position of the value, 1-based
    char flags[8];
    int nflags;
    int width;      // -1: none
    int width_pos;  // > 0: the width is the value at this position
    int prec;       // -1: none
    int prec_pos;
    LenMod lenmod;
    char conv;
};

enum ParseResult { PARSE_OK, PARSE_PERCENT, PARSE_BAD };

// Reads decimal digits, clamped so that no overflow can happen.
int read_number(const char** pp) {
    const char* p = *pp;
    long v = 0;
    while (*p >= '0' && *p <= '9') {
        if (v < 100000000) v = v * 10 + (*p - '0');
        ++p;
    }
    *pp = p;
    return static_cast<int>(v);
}

// A "N$" at p: returns N and moves past it, otherwise 0 and p unchanged.
int read_position(const char** pp) {
    const char* p = *pp;
    if (*p < '1' || *p > '9') return 0;
    int n = read_number(&p);
    if (*p != '$') return 0;
    *pp = p + 1;
    return n;
}

// Parses one conversion; p points at its "%". next is the running position
// of conversions that do not name theirs.
ParseResult parse_spec(const char* p, int* next, Conversion* sp) {
    memset(sp, 0, sizeof(*sp));
    sp->width = -1;
    sp->prec = -1;
    ++p;
    if (*p == '%') {
        sp->end = p + 1;
        return PARSE_PERCENT;
    }
    sp->pos = read_position(&p);
    while (*p != '\0' && strchr("-+ #0'", *p) != nullptr) {
        if (sp->nflags < 7) sp->flags[sp->nflags++] = *p;
        ++p;
    }
    if (*p == '*') {
        ++p;
        int n = read_position(&p);
        sp->width_pos = n > 0 ? n : (*next)++;
    } else if (*p >= '0' && *p <= '9') {
        sp->width = read_number(&p);
    }
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            ++p;
            int n = read_position(&p);
            sp->prec_pos = n > 0 ? n : (*next)++;
        } else {
            sp->prec = read_number(&p);
        }
    }
    switch (*p) {
    case 'h':
        ++p;
        if (*p == 'h') {
            ++p;
            sp->lenmod = LM_HH;
        } else {
            sp->lenmod = LM_H;
        }
        break;
    case 'l':
        ++p;
        if (*p == 'l') {
            ++p;
            sp->lenmod = LM_LL;
        } else {
            sp->lenmod = LM_L;
        }
        break;
    case 'q':
        ++p;
        sp->lenmod = LM_LL;
        break;
    case 'L':
        ++p;
        sp->lenmod = LM_BIGL;
        break;
    case 'j':
        ++p;
        sp->lenmod = LM_J;
        break;
    case 'z':
        ++p;
        sp->lenmod = LM_Z;
        break;
    case 't':
        ++p;
        sp->lenmod = LM_T;
        break;
    default: break;
    }
    sp->conv = *p;
    if (*p == '\0') return PARSE_BAD;
    sp->end = p + 1;
    if (sp->pos == 0) sp->pos = (*next)++;
    if (sp->pos > MSG_MAX_POSITIONS || sp->width_pos > MSG_MAX_POSITIONS ||
        sp->prec_pos > MSG_MAX_POSITIONS)
        return PARSE_BAD;
    return PARSE_OK;
}

bool is_int_conv(char c) {
    return c == 'd' || c == 'i' || c == 'o' || c == 'u' || c == 'x' || c == 'X';
}
bool is_signed_conv(char c) {
    return c == 'd' || c == 'i';
}
bool is_float_conv(char c) {
    return c == 'e' || c == 'E' || c == 'f' || c == 'F' || c == 'g' || c == 'G' || c == 'a' ||
           c == 'A';
}

// The output of one rendering: a caller's fixed buffer, or a growing one.
struct Sink {
    char* buf = nullptr;
    size_t cap = 0;  // bytes including the terminating NUL
    size_t len = 0;
    bool dynamic = false;
    bool truncated = false;
    bool unbounded = false;  // vsprintf-like: the caller vouches for room

    // Room for n more bytes and the NUL; a dynamic buffer grows by the demand
    // plus one pool buffer's size.
    bool room(size_t n) {
        if (truncated) return false;
        if (unbounded) return true;
        if (len + n + 1 <= cap) return true;
        if (!dynamic) return false;
        size_t ncap = len + n + 1 + MSG_BUFFER_SIZE;
        buf = static_cast<char*>(xrealloc(buf, ncap));
        cap = ncap;
        return true;
    }
    void terminate() {
        if (buf == nullptr) return;
        if (unbounded || len < cap)
            buf[len] = '\0';
        else if (cap > 0)
            buf[cap - 1] = '\0';
    }
    void mark_truncated() {
        truncated = true;
        if (cap > 0) buf[cap - 1] = '\0';
    }
    // Literal text: copies what fits, never splitting a UTF-8 character.
    void put_text(const char* s, size_t n) {
        if (truncated || n == 0) return;
        if (room(n)) {
            memcpy(buf + len, s, n);
            len += n;
            return;
        }
        size_t fit = cap > len + 1 ? cap - len - 1 : 0;
        while (fit > 0 && (static_cast<unsigned char>(s[fit]) & 0xC0) == 0x80) --fit;
        memcpy(buf + len, s, fit);
        len += fit;
        buf[len] = '\0';
        mark_truncated();
    }
    // One conversion: all of it, or the output ends here.
    bool put_conv(const char* s, size_t n) {
        if (truncated) return false;
        if (!room(n)) {
            buf[len] = '\0';
            mark_truncated();
            return false;
        }
        memcpy(buf + len, s, n);
        len += n;
        return true;
    }
    void put_blanks(size_t n) {
        while (n-- > 0) put_text(" ", 1);
    }
};

// Formats one rebuilt conversion with the system library into the sink.
template <typename T>
void emit_native(Sink& sink, const char* nfmt, T value) {
    char small[512];
    int n = snprintf(small, sizeof(small), nfmt, value);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof(small)) {
        sink.put_conv(small, static_cast<size_t>(n));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    snprintf(&big[0], big.size(), nfmt, value);
    sink.put_conv(big.data(), static_cast<size_t>(n));
}

// "%" + flags + width + precision + length + letter, with resolved numbers.
void build_nfmt(char* nfmt, size_t size, const Conversion& sp, int width, int prec, bool left,
                const char* len, char conv) {
    std::string f = "%";
    for (int i = 0; i < sp.nflags; ++i)
        if (sp.flags[i] != '-') f += sp.flags[i];
    if (left) f += '-';
    if (width >= 0) f += std::to_string(width);
    if (prec >= 0) {
        f += '.';
        f += std::to_string(prec);
    }
    f += len;
    f += conv;
    snprintf(nfmt, size, "%s", f.c_str());
}

bool has_flag(const Conversion& sp, char c) {
    return memchr(sp.flags, c, static_cast<size_t>(sp.nflags)) != nullptr;
}

// A %s: width and precision count terminal columns, a character is never
// split, and a null text prints "<null>".
void emit_string(Sink& sink, const char* s, int width, int prec, bool left) {
    if (s == nullptr) s = "<null>";
    size_t bytes = 0;
    size_t cols = 0;
    if (prec >= 0) {
        const char* p = s;
        while (*p != '\0') {
            int w = utf8_ttywidth(p);
            if (cols + static_cast<size_t>(w) > static_cast<size_t>(prec)) break;
            cols += static_cast<size_t>(w);
            p += utf8_charlen(p);
        }
        bytes = static_cast<size_t>(p - s);
    } else {
        bytes = strlen(s);
        // Columns matter only to padding; a log line of long listing text
        // would pay a decode of every character for nothing.
        if (width > 0) cols = utf8_ttystrlen(s);
    }
    size_t pad =
        width > 0 && static_cast<size_t>(width) > cols ? static_cast<size_t>(width) - cols : 0;
    if (!sink.room(bytes + pad)) {
        sink.buf[sink.len] = '\0';
        sink.mark_truncated();
        return;
    }
    if (!left) sink.put_blanks(pad);
    sink.put_text(s, bytes);
    if (left) sink.put_blanks(pad);
}

// UTF-8 encoding of one wide character (for %lc and %ls).
void append_utf8(std::string& out, wint_t wc) {
    unsigned long c = static_cast<unsigned long>(wc);
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x110000) {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += '?';
    }
}

// A value fetched for one position.
struct Val {
    enum Kind { NONE, INT, DBL, LDBL, STR, WSTR, PTR } kind = NONE;
    long long i = 0;
    double d = 0;
    long double ld = 0;
    const char* s = nullptr;
    const wchar_t* ws = nullptr;
    const void* p = nullptr;
};

void clamp_width(int* w, bool* left) {
    if (*w < 0) {
        *left = true;
        *w = *w == INT32_MIN ? kMaxWidth : -*w;
    }
    if (*w > kMaxWidth) *w = kMaxWidth;
}

const char* lenmod_text(LenMod m) {
    switch (m) {
    case LM_HH: return "hh";
    case LM_H: return "h";
    case LM_L: return "l";
    case LM_LL: return "ll";
    case LM_J: return "j";
    case LM_Z: return "z";
    case LM_T: return "t";
    default: return "";
    }
}

// Emits an integer by its original length modifier, so that "%u" of -1 is
// 4294967295 as the C library would print it.
void emit_int(Sink& sink, const char* nfmt, LenMod m, char conv, long long v) {
    bool sgn = is_signed_conv(conv);
    switch (m) {
    case LM_NONE:
    case LM_HH:
    case LM_H:
        if (sgn)
            emit_native(sink, nfmt, static_cast<int>(v));
        else
            emit_native(sink, nfmt, static_cast<unsigned int>(v));
        break;
    case LM_L:
    case LM_Z:
    case LM_T:
    case LM_J:
        if (sgn)
            emit_native(sink, nfmt, static_cast<long>(v));
        else
            emit_native(sink, nfmt, static_cast<unsigned long>(v));
        break;
    default:
        if (sgn)
            emit_native(sink, nfmt, v);
        else
            emit_native(sink, nfmt, static_cast<unsigned long long>(v));
        break;
    }
}

// The source of values for the third pass.
class ValueSource {
public:
    virtual ~ValueSource() {}
    virtual Val get(int pos, const Conversion& sp) = 0;
    virtual long long get_int(int pos) = 0;
};

// Third pass: copies the format and emits each conversion.
void emit_all(Sink& sink, const char* form, ValueSource& src) {
    int next = 1;
    const char* p = form;
    while (*p != '\0' && !sink.truncated) {
        const char* pct = strchr(p, '%');
        if (pct == nullptr) {
            sink.put_text(p, strlen(p));
            break;
        }
        sink.put_text(p, static_cast<size_t>(pct - p));
        Conversion sp;
        ParseResult r = parse_spec(pct, &next, &sp);
        if (r == PARSE_PERCENT) {
            sink.put_text("%", 1);
            p = sp.end;
            continue;
        }
        if (r == PARSE_BAD) {  // only a trailing, incomplete conversion gets here
            sink.put_text(pct, strlen(pct));
            break;
        }
        p = sp.end;
        bool left = has_flag(sp, '-');
        int width = sp.width;
        if (sp.width_pos > 0) {
            long long w = src.get_int(sp.width_pos);
            width = w > kMaxWidth ? kMaxWidth : (w < -kMaxWidth ? -kMaxWidth : static_cast<int>(w));
            // Only a width given as an argument can be negative: it means "-".
            clamp_width(&width, &left);
        } else if (width > kMaxWidth) {
            // -1 stands for no width at all, and must not become a
            // left-adjusted width of one (an empty "%s" would print a blank).
            width = kMaxWidth;
        }
        int prec = sp.prec;
        if (sp.prec_pos > 0) {
            long long pr = src.get_int(sp.prec_pos);
            prec = pr < 0 ? -1 : (pr > kMaxWidth ? kMaxWidth : static_cast<int>(pr));
        }
        if (prec > kMaxWidth) prec = kMaxWidth;
        Val v = src.get(sp.pos, sp);
        char nfmt[256];
        switch (v.kind) {
        case Val::INT:
            build_nfmt(nfmt, sizeof(nfmt), sp, width, prec, left,
                       sp.conv == 'c' ? "" : lenmod_text(sp.lenmod), sp.conv);
            if (sp.conv == 'c')
                emit_native(sink, nfmt, static_cast<int>(static_cast<unsigned char>(v.i)));
            else
                emit_int(sink, nfmt, sp.lenmod, sp.conv, v.i);
            break;
        case Val::DBL:
            // The letter must read a double whatever a stored message's text
            // asked for ("%Ls" makes a number): the format goes to the C library.
            build_nfmt(nfmt, sizeof(nfmt), sp, width, prec, left, "",
                       is_float_conv(sp.conv) ? sp.conv : 'g');
            emit_native(sink, nfmt, v.d);
            break;
        case Val::LDBL:
            build_nfmt(nfmt, sizeof(nfmt), sp, width, prec, left, "L",
                       is_float_conv(sp.conv) ? sp.conv : 'g');
            emit_native(sink, nfmt, v.ld);
            break;
        case Val::STR: emit_string(sink, v.s, width, prec, left); break;
        case Val::WSTR: {
            std::string u;
            if (v.ws == nullptr) {
                emit_string(sink, nullptr, width, prec, left);
                break;
            }
            for (const wchar_t* w = v.ws; *w != 0; ++w) append_utf8(u, static_cast<wint_t>(*w));
            emit_string(sink, u.c_str(), width, prec, left);
            break;
        }
        case Val::PTR:
            build_nfmt(nfmt, sizeof(nfmt), sp, width, -1, left, "", 'p');
            emit_native(sink, nfmt, v.p);
            break;
        case Val::NONE: break;  // %n: writes nothing anywhere
        }
    }
    sink.terminate();
}

void bad_format(Sink& sink, const char* form) {
    sink.len = 0;
    sink.truncated = false;
    std::string t = "\nFormat string ";
    t += form;
    t += " cannot be rendered correctly\n";
    sink.put_text(t.data(), t.size());
    sink.terminate();
}

// ---- Values from a message's text arguments ---------------------------------

// An argument as the renderer sees it: a record's argtuple, or a pair from
// a va_list where kind 52 is still an errinfo pointer.
struct TextArg {
    int argdesc;
    const char* arg;
    const errinfo* nested;  // kind 52 given as a pointer
};

void render_text_args(Sink& sink, const char* locale, const char* form, const TextArg* args,
                      int argcount, int depth);

// The locale of a whole rendering, settled once at its start: a null locale
// is the process's, and that name comes from a rotating per-thread slot that
// the lookups of the rendering itself refill.
std::string settled_locale(const char* locale) {
    if (locale == nullptr) locale = kv_get_my_locale();
    return locale != nullptr ? locale : "";
}

// Renders a message's arguments under its format for the locale. A
// translated format lies in one of the catalogue's rotating per-thread
// slots, and each literal, nested message or lookup of the walk takes the
// next one: the walk reads a copy of its own, so a refilled (or moved) slot
// can't change or free the text under it. The English format is the
// caller's and needs no copy.
void render_message(Sink& sink, const char* locale, int msgID, const char* form,
                    const TextArg* args, int argcount, int depth) {
    const char* lform = get_localized_form(msgID, locale, form);
    std::string copy;
    if (lform != form) {
        copy = lform;
        lform = copy.c_str();
    }
    render_text_args(sink, locale, lform, args, argcount, depth);
}

std::string render_nested_string(const char* locale, const structext* st, int depth) {
    Sink s;
    s.dynamic = true;
    s.buf = static_cast<char*>(xmalloc(64));
    s.cap = 64;
    std::string out;
    if (st->form != nullptr) {
        TextArg stack_args[16];
        TextArg* args =
            st->argcount <= 16 ? stack_args : new TextArg[static_cast<size_t>(st->argcount)];
        for (int i = 0; i < st->argcount; ++i) {
            const argtuple* a = st->arglist != nullptr ? st->arglist[i] : nullptr;
            args[i].argdesc = a != nullptr ? a->argdesc : 0;
            args[i].arg = a != nullptr ? a->arg : nullptr;
            args[i].nested = nullptr;
        }
        render_message(s, locale, st->MsgId, st->form, args, st->argcount, depth);
        if (args != stack_args) delete[] args;
        out.assign(s.buf, s.len);
    }
    free(s.buf);
    return out;
}

// The text that a %s or %c of this argument stands for. Owned texts live in
// keep until the rendering ends.
const char* resolve_cs(const char* locale, const TextArg& a, int depth,
                       std::forward_list<std::string>& keep) {
    if (a.nested != nullptr) {
        structext* st = errinfo_structext(const_cast<errinfo*>(a.nested));
        keep.push_front(render_nested_string(locale, st, depth + 1));
        return keep.front().c_str();
    }
    if (a.arg == nullptr) return "null";
    if (a.argdesc == ARG_LITERAL_ID && strchr(a.arg, ':') != nullptr) {
        // Kept with the rendering rather than in the process's literal pool,
        // which a format of more literals than the pool holds would wrap.
        keep.push_front(render_literal_id(locale, a.arg, nullptr));
        return keep.front().c_str();
    }
    if ((a.argdesc == ARG_NESTED_STBUF || a.argdesc == ARG_NESTED_ERRINFO) &&
        depth < kMaxNestDepth) {
        structext st = {};
        if (msg_stbuf_parse(a.arg, &st, nullptr)) {
            std::string r = render_nested_string(locale, &st, depth + 1);
            if (msg_force_msg_id()) r = ":" + std::to_string(st.MsgId) + ":" + r;
            msg_structext_clear(&st);
            keep.push_front(std::move(r));
            return keep.front().c_str();
        }
    }
    return a.arg;
}

class TextSource : public ValueSource {
public:
    TextSource(const char* locale, const TextArg* args, int argcount, int depth)
        : locale_(locale), args_(args), argcount_(argcount), depth_(depth) {}

    long long get_int(int pos) override {
        const char* t = text(pos);
        return t != nullptr ? strtoll(t, nullptr, 10) : 0;
    }

    Val get(int pos, const Conversion& sp) override {
        Val v;
        const char* t = text(pos);
        char c = sp.conv;
        if (sp.lenmod == LM_BIGL) {  // a long double has no text form here
            v.kind = Val::DBL;
            v.d = 0;
            return v;
        }
        if (is_int_conv(c)) {
            v.kind = Val::INT;
            if (t == nullptr) return v;
            errno = 0;
            if (is_signed_conv(c))
                v.i = strtoll(t, nullptr, 10);
            else
                v.i = static_cast<long long>(strtoull(t, nullptr, 10));
            return v;
        }
        if (is_float_conv(c)) {
            v.kind = Val::DBL;
            v.d = t != nullptr ? strtod(t, nullptr) : 0.0;
            return v;
        }
        if (c == 'p') {
            v.kind = Val::PTR;
            v.p = t;
            return v;
        }
        const char* s = "null";
        if (pos >= 1 && pos <= argcount_) s = resolve_cs(locale_, args_[pos - 1], depth_, keep_);
        if (c == 'c') {
            v.kind = Val::INT;
            v.i = static_cast<unsigned char>(s[0]);
            return v;
        }
        v.kind = Val::STR;
        v.s = s;
        return v;
    }

private:
    const char* text(int pos) const {
        if (pos < 1 || pos > argcount_) return nullptr;
        return args_[pos - 1].arg;
    }
    const char* locale_;
    const TextArg* args_;
    int argcount_;
    int depth_;
    std::forward_list<std::string> keep_;
};

// First pass for text arguments: every conversion must be one the renderer
// can make from text.
bool text_form_ok(const char* form) {
    int next = 1;
    for (const char* p = strchr(form, '%'); p != nullptr; p = strchr(p, '%')) {
        Conversion sp;
        ParseResult r = parse_spec(p, &next, &sp);
        if (r == PARSE_PERCENT) {
            p = sp.end;
            continue;
        }
        if (r == PARSE_BAD) return false;
        char c = sp.conv;
        if (!(is_int_conv(c) || c == 'e' || c == 'E' || c == 'f' || c == 'g' || c == 'G' ||
              c == 'c' || c == 's' || c == 'p'))
            return false;
        p = sp.end;
    }
    return true;
}

void render_text_args(Sink& sink, const char* locale, const char* form, const TextArg* args,
                      int argcount, int depth) {
    if (argcount == 0) {
        // A translation of an argumentless message keeps its "%" as it is.
        sink.put_text(form, strlen(form));
        sink.terminate();
        return;
    }
    if (!text_form_ok(form)) {
        bad_format(sink, form);
        return;
    }
    TextSource src(locale, args, argcount, depth);
    emit_all(sink, form, src);
}

// ---- Values from a C va_list -------------------------------------------------

enum VType : unsigned char {
    VT_NONE,
    VT_INT,
    VT_LONG,
    VT_LLONG,
    VT_SIZE,
    VT_INTMAX,
    VT_PTRDIFF,
    VT_DOUBLE,
    VT_LDOUBLE,
    VT_STR,
    VT_WSTR,
    VT_WINT,
    VT_PTR
};

VType c_type(const Conversion& sp, bool* ok) {
    *ok = true;
    char c = sp.conv;
    if (is_int_conv(c)) {
        switch (sp.lenmod) {
        case LM_L: return VT_LONG;
        case LM_LL: return VT_LLONG;
        case LM_Z: return VT_SIZE;
        case LM_J: return VT_INTMAX;
        case LM_T: return VT_PTRDIFF;
        default: return VT_INT;
        }
    }
    if (is_float_conv(c)) return sp.lenmod == LM_BIGL ? VT_LDOUBLE : VT_DOUBLE;
    if (c == 'c') return sp.lenmod == LM_L ? VT_WINT : VT_INT;
    if (c == 'C') return VT_WINT;
    if (c == 's') return sp.lenmod == LM_L ? VT_WSTR : VT_STR;
    if (c == 'S') return VT_WSTR;
    if (c == 'p' || c == 'n') return VT_PTR;
    *ok = false;
    return VT_NONE;
}

class CSource : public ValueSource {
public:
    VType types[MSG_MAX_POSITIONS + 2] = {};
    // As many as the format names: a full table of every possible position
    // cost more to build than most lines cost to render.
    std::vector<Val> vals;
    std::forward_list<std::string> keep;

    void fetch(int maxpos, va_list ap) {
        vals.assign(static_cast<size_t>(maxpos) + 1, Val());
        for (int i = 1; i <= maxpos; ++i) {
            Val& v = vals[i];
            switch (types[i]) {
            case VT_NONE:  // a gap: the C convention makes it an int
            case VT_INT:
                v.kind = Val::INT;
                v.i = va_arg(ap, int);
                break;
            case VT_LONG:
                v.kind = Val::INT;
                v.i = va_arg(ap, long);
                break;
            case VT_LLONG:
                v.kind = Val::INT;
                v.i = va_arg(ap, long long);
                break;
            case VT_SIZE:
                v.kind = Val::INT;
                v.i = static_cast<long long>(va_arg(ap, size_t));
                break;
            case VT_INTMAX:
                v.kind = Val::INT;
                v.i = va_arg(ap, intmax_t);
                break;
            case VT_PTRDIFF:
                v.kind = Val::INT;
                v.i = va_arg(ap, ptrdiff_t);
                break;
            case VT_DOUBLE:
                v.kind = Val::DBL;
                v.d = va_arg(ap, double);
                break;
            case VT_LDOUBLE:
                v.kind = Val::LDBL;
                v.ld = va_arg(ap, long double);
                break;
            case VT_STR:
                v.kind = Val::STR;
                v.s = va_arg(ap, const char*);
                break;
            case VT_WSTR:
                v.kind = Val::WSTR;
                v.ws = va_arg(ap, const wchar_t*);
                break;
            case VT_WINT:
                v.kind = Val::INT;
                v.i = static_cast<long long>(va_arg(ap, wint_t));
                break;
            case VT_PTR:
                v.kind = Val::PTR;
                v.p = va_arg(ap, const void*);
                break;
            }
        }
    }

    Val at(int pos) const {
        return pos >= 0 && static_cast<size_t>(pos) < vals.size() ? vals[pos] : Val();
    }
    long long get_int(int pos) override { return at(pos).i; }

    Val get(int pos, const Conversion& sp) override {
        Val v = at(pos);
        if (sp.conv == 'n') return Val();  // never written through
        if ((sp.conv == 'c' && sp.lenmod == LM_L) || sp.conv == 'C') {
            std::string u;
            append_utf8(u, static_cast<wint_t>(v.i));
            keep.push_front(u);
            v.kind = Val::STR;
            v.s = keep.front().c_str();
        } else if (sp.conv == 's' || sp.conv == 'S') {
            if (v.kind != Val::STR && v.kind != Val::WSTR) v.kind = Val::STR, v.s = nullptr;
        }
        return v;
    }
};

// The printf family over C arguments. Returns the bytes written.
int c_render(Sink& sink, const char* fmt, va_list ap) {
    if (fmt == nullptr) fmt = "<null>";
    CSource* src = new CSource();
    int next = 1;
    int maxpos = 0;
    bool ok = true;
    for (const char* p = strchr(fmt, '%'); p != nullptr && ok; p = strchr(p, '%')) {
        Conversion sp;
        ParseResult r = parse_spec(p, &next, &sp);
        if (r == PARSE_PERCENT) {
            p = sp.end;
            continue;
        }
        if (r == PARSE_BAD) {
            // A lone "%" at the end is printed as it stands; anything else
            // cannot be rendered.
            if (sp.conv != '\0') ok = false;
            break;
        }
        bool tok = true;
        VType t = c_type(sp, &tok);
        if (!tok) {
            ok = false;
            break;
        }
        src->types[sp.pos] = t;
        if (sp.pos > maxpos) maxpos = sp.pos;
        if (sp.width_pos > 0) {
            src->types[sp.width_pos] = VT_INT;
            if (sp.width_pos > maxpos) maxpos = sp.width_pos;
        }
        if (sp.prec_pos > 0) {
            src->types[sp.prec_pos] = VT_INT;
            if (sp.prec_pos > maxpos) maxpos = sp.prec_pos;
        }
        p = sp.end;
    }
    if (!ok) {
        bad_format(sink, fmt);
    } else {
        va_list aq;
        va_copy(aq, ap);
        src->fetch(maxpos, aq);
        va_end(aq);
        emit_all(sink, fmt, *src);
    }
    delete src;
    return static_cast<int>(sink.len);
}

void sink_setup(Sink& sink, char* buf, size_t len, char** bufp, const char* fmt) {
    if (buf != nullptr) {
        sink.buf = buf;
        sink.cap = len;
        return;
    }
    if (len == 0) {
        sink.dynamic = true;
        sink.cap = (fmt != nullptr ? strlen(fmt) : 0) + MSG_BUFFER_SIZE;
    } else {
        sink.cap = len;
    }
    sink.buf = static_cast<char*>(xmalloc(sink.cap));
    sink.buf[0] = '\0';
    if (bufp != nullptr) *bufp = sink.buf;
}

void sink_finish(Sink& sink, char** bufp, bool own, const char* who) {
    if (own && bufp != nullptr)
        *bufp = sink.buf;
    else if (own && bufp == nullptr)
        free(sink.buf);  // nobody to hand it to
    if (sink.truncated) kv_trace(6, 0x20, "%s: Truncation detected\n", who);
}

}  // namespace

// ---- The printf family ---------------------------------------------------------------

int kv_vsnprintf(char* str, size_t size, const char* format, va_list ap) {
    if (size == 0 || str == nullptr) {
        va_list aq;
        va_copy(aq, ap);
        int n = vsnprintf(nullptr, 0, format, aq);
        va_end(aq);
        return n;
    }
    int n = vsnprintf(str, size, format, ap);
    if (n < 0 || static_cast<size_t>(n) >= size) str[size - 1] = '\0';
    return n;
}

int kv_snprintf(char* str, size_t size, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = kv_vsnprintf(str, size, format, ap);
    va_end(ap);
    return n;
}

int kv_sprintf(char* s, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = vsprintf(s, format, ap);
    va_end(ap);
    return n;
}

int i18n_vsnprintf(char* buf, size_t len, char** bufp, const char* fmt, va_list ap) {
    Sink sink;
    if (buf != nullptr && len == 0) return 0;
    sink_setup(sink, buf, len, bufp, fmt);
    int n = c_render(sink, fmt, ap);
    sink_finish(sink, bufp, buf == nullptr, "i18n_vsnprintf");
    return n;
}

int i18n_vsprintf(char* buf, char** bufp, const char* fmt, va_list ap) {
    if (buf == nullptr) return i18n_vsnprintf(nullptr, 0, bufp, fmt, ap);
    // Like vsprintf: the caller's buffer is assumed large enough.
    Sink sink;
    sink.buf = buf;
    sink.unbounded = true;
    return c_render(sink, fmt, ap);
}

int i18n_sprintf(char* buf, char** bufp, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = i18n_vsprintf(buf, bufp, fmt, ap);
    va_end(ap);
    return n;
}

int i18n_snprintf(char* buf, size_t len, char** bufp, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = i18n_vsnprintf(buf, len, bufp, fmt, ap);
    va_end(ap);
    return n;
}

// ---- Rendering of messages -----------------------------------------------------------

namespace {
int render_st(Sink& sink, const char* locale, structext* st) {
    TextArg stack_args[16];
    int n = st->argcount > 0 ? st->argcount : 0;
    TextArg* args = n <= 16 ? stack_args : new TextArg[static_cast<size_t>(n)];
    for (int i = 0; i < n; ++i) {
        const argtuple* a = st->arglist != nullptr ? st->arglist[i] : nullptr;
        args[i].argdesc = a != nullptr ? a->argdesc : 0;
        args[i].arg = a != nullptr ? a->arg : nullptr;
        args[i].nested = nullptr;
    }
    render_message(sink, locale, st->MsgId, st->form, args, n, 0);
    if (args != stack_args) delete[] args;
    return static_cast<int>(sink.len);
}
}  // namespace

int i18n_render_structext(char* buf, size_t len, char** bufp, const char* locale,
                          structext* strtxt) {
    if (strtxt == nullptr || strtxt->form == nullptr) {
        if (buf != nullptr && len > 0) buf[0] = '\0';
        return 0;
    }
    if (buf != nullptr && len == 0) return 0;
    Sink sink;
    sink_setup(sink, buf, len, bufp, strtxt->form);
    const std::string loc = settled_locale(locale);
    int n = render_st(sink, loc.c_str(), strtxt);
    sink_finish(sink, bufp, buf == nullptr, "i18n_render_structext");
    return n;
}

void msg_render_to_string(std::string& out, const char* locale, const structext* st) {
    out.clear();
    if (st == nullptr || st->form == nullptr) return;
    out = render_nested_string(settled_locale(locale).c_str(), st, 0);
}

char* render_structext(const char* locale, structext* strtxt) {
    if (strtxt == nullptr || strtxt->form == nullptr) return nullptr;
    char* buf = msg_pool_buffer();
    i18n_render_structext(buf, MSG_BUFFER_SIZE, nullptr, locale, strtxt);
    return buf;
}

void render_structext_dynamic(char** rendered_string, const char* locale, structext* strtxt) {
    if (rendered_string == nullptr) return;
    *rendered_string = nullptr;
    if (strtxt == nullptr || strtxt->form == nullptr) return;
    i18n_render_structext(nullptr, 0, rendered_string, locale, strtxt);
}

char* render_stbuf(const char* locale, const char* stbuf) {
    char* buf = msg_pool_buffer();
    buf[0] = '\0';
    structext st = {};
    if (stbuf == nullptr || !msg_stbuf_parse(stbuf, &st, nullptr)) return buf;
    i18n_render_structext(buf, MSG_BUFFER_SIZE, nullptr, locale, &st);
    msg_structext_clear(&st);
    return buf;
}

char* vrender_string(int msgID, const char* locale, const char* form, va_list ap) {
    if (form == nullptr) return nullptr;
    int count = get_num_args(form);
    TextArg stack_args[32];
    TextArg* args = count <= 32 ? stack_args : new TextArg[static_cast<size_t>(count)];
    for (int i = 0; i < count; ++i) {
        args[i].argdesc = va_arg(ap, int);
        args[i].arg = va_arg(ap, const char*);
        args[i].nested = nullptr;
        if (args[i].argdesc == ARG_NESTED_ERRINFO && args[i].arg != nullptr) {
            args[i].nested = reinterpret_cast<const errinfo*>(args[i].arg);
            args[i].arg = nullptr;
        }
    }
    char* buf = msg_pool_buffer();
    Sink sink;
    sink.buf = buf;
    sink.cap = MSG_BUFFER_SIZE;
    const std::string loc = settled_locale(locale);
    render_message(sink, loc.c_str(), msgID, form, args, count, 0);
    if (args != stack_args) delete[] args;
    if (sink.truncated) kv_trace(6, 0x20, "i18n_vrender_string: Truncation detected\n");
    return buf;
}

char* render_string(int msgID, const char* locale, const char* form, ...) {
    if (form == nullptr) return nullptr;
    va_list ap;
    va_start(ap, form);
    char* r = vrender_string(msgID, locale, form, ap);
    va_end(ap);
    return r;
}

char* msg_handle_cs_arg(const char* locale, int argdesc, char* arg) {
    if (arg == nullptr) return const_cast<char*>("null");
    if (argdesc == ARG_LITERAL_ID && strchr(arg, ':') != nullptr)
        return render_literal_id(locale, arg, nullptr);
    if (argdesc == ARG_NESTED_STBUF || argdesc == ARG_NESTED_ERRINFO) {
        std::forward_list<std::string> keep;
        TextArg a = {argdesc, arg, nullptr};
        const std::string loc = settled_locale(locale);
        const char* r = resolve_cs(loc.c_str(), a, 0, keep);
        if (r == arg) return arg;
        char* buf = msg_pool_buffer();
        snprintf(buf, MSG_BUFFER_SIZE, "%s", r);
        return buf;
    }
    return arg;
}

int get_num_args(const char* form) {
    if (form == nullptr) return 0;
    // Each conversion is one pair and each "*" one more, positions or not:
    // "%1$s %1$s" takes two pairs, as a caller of the message calls counts
    // them by the conversions it sees.
    int next = 1;
    int count = 0;
    for (const char* p = strchr(form, '%'); p != nullptr; p = strchr(p, '%')) {
        Conversion sp;
        ParseResult r = parse_spec(p, &next, &sp);
        if (r == PARSE_PERCENT) {
            p = sp.end;
            continue;
        }
        // A conversion that is cut off ends the format; one that can't be
        // rendered is counted like the others so that the pairs stay aligned.
        if (r == PARSE_BAD && (sp.conv == '\0' || sp.end == nullptr)) break;
        count += 1 + (sp.width_pos > 0 ? 1 : 0) + (sp.prec_pos > 0 ? 1 : 0);
        p = sp.end;
    }
    if (count > MSG_MAX_POSITIONS) count = MSG_MAX_POSITIONS;
    return count;
}
