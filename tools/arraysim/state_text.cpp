// The state's text form: one table of keys per record kind drives both the
// reader and the writer, so a new key is one line. The reader is hand-written
// on purpose: every tool invocation parses the whole state, and with
// thousands of LUNs a stream-based reader costs ten times more.
#include <cstdlib>
#include <cstring>

#include "tools/arraysim/state.h"
#include "tools/arraysim/state_text.h"
#include "tools/arraysim/text.h"

namespace arraysim {
namespace text {
namespace {

// Decimal with an optional sign, no blanks, within long long.
bool parse_ll(const char* p, size_t n, long long& out) {
    size_t i = 0;
    bool neg = false;
    if (i < n && (p[i] == '-' || p[i] == '+')) neg = p[i++] == '-';
    if (i == n || n - i > 19) return false;
    unsigned long long v = 0;
    for (; i < n; ++i) {
        unsigned d = static_cast<unsigned char>(p[i]) - '0';
        if (d > 9) return false;
        v = v * 10 + d;
    }
    if (v > 9223372036854775807ULL) return false;
    out = neg ? -static_cast<long long>(v) : static_cast<long long>(v);
    return true;
}

bool to_ll(const Token& t, long long& out) {
    return parse_ll(t.val, t.vlen, out);
}

bool to_int(const Token& t, int& out) {
    long long v;
    if (!to_ll(t, v) || v < -2147483647LL || v > 2147483647LL) return false;
    out = static_cast<int>(v);
    return true;
}

bool to_bool(const Token& t, bool& out) {
    if (t.vlen == 1 && (t.val[0] == '0' || t.val[0] == '1')) {
        out = t.val[0] == '1';
        return true;
    }
    return false;
}

// Defined with the other list readers below.
std::vector<std::string> to_list(const Token& t);

bool parse_int(const char* p, size_t n, int& out) {
    // Most numbers are short and unsigned (LUN numbers, HLU/ALU pairs).
    if (n - 1 < 9) {
        int v = 0;
        size_t i = 0;
        for (; i < n; ++i) {
            unsigned d = static_cast<unsigned char>(p[i]) - '0';
            if (d > 9) break;
            v = v * 10 + static_cast<int>(d);
        }
        if (i == n) {
            out = v;
            return true;
        }
    }
    long long v;
    if (!parse_ll(p, n, v) || v < -2147483647LL || v > 2147483647LL) return false;
    out = static_cast<int>(v);
    return true;
}

// Calls `item` with each non-empty comma-separated item of the value, in
// place: lists are long (a storage group of thousands of LUNs) and want no
// string per item. False as soon as `item` refuses one.
template <class F>
bool each_item(const Token& t, F item) {
    const char* p = t.val;
    const char* end = t.val + t.vlen;
    while (p < end) {
        const char* c = static_cast<const char*>(memchr(p, ',', end - p));
        const char* ie = c ? c : end;
        if (ie > p && !item(p, ie)) return false;
        p = ie + 1;
    }
    return true;
}

std::vector<std::string> to_list(const Token& t) {
    std::vector<std::string> out;
    each_item(t, [&](const char* p, const char* ie) {
        out.push_back(unescape_value(p, ie - p));
        return true;
    });
    return out;
}

bool to_int_list(const Token& t, std::vector<int>& out) {
    out.clear();
    return each_item(t, [&](const char* p, const char* ie) {
        int v;
        if (!parse_int(p, ie - p, v)) return false;
        out.push_back(v);
        return true;
    });
}

// The number at p, up to `stop` or the end; the position of what ended it,
// or null when it is not a number. A group's pairs are tens of thousands of
// characters read on every command: the short unsigned numbers arraysim
// writes take one pass, anything else goes through parse_int.
const char* scan_int(const char* p, const char* end, char stop, int& out) {
    unsigned v = 0;
    const char* q = scan_digits(p, end, v);
    if (q > p && (q == end || *q == stop || *q == ',')) {
        out = static_cast<int>(v);
        return q;
    }
    while (q < end && *q != stop && *q != ',') ++q;
    return parse_int(p, q - p, out) ? q : nullptr;
}

bool parse_pairs(const Token& t, std::vector<Pair>& out) {
    out.clear();
    // The shortest pair is "h:a,": room for all of them at once.
    out.reserve(t.vlen / 4 + 1);
    const char* p = t.val;
    const char* end = t.val + t.vlen;
    while (p < end) {
        if (*p == ',') {  // an empty item
            ++p;
            continue;
        }
        Pair pr;
        const char* c = scan_int(p, end, ':', pr.hlu);
        if (!c || c == end || *c != ':') return false;
        const char* ie = scan_int(c + 1, end, ',', pr.alu);
        if (!ie) return false;
        out.push_back(pr);
        p = ie < end ? ie + 1 : end;
    }
    return true;
}

// Splits one line into its kind and key=value tokens. Returns false on a
// token without '='.

// ---------------------------------------------------------------- fields

// How one type of value is read from a token and written after its key.
template <class T>
struct Codec;
template <>
struct Codec<int> {
    static bool read(const Token& t, int& v) { return to_int(t, v); }
    static void write(Out& o, const char* k, int v) { o.num(k, v); }
};
template <>
struct Codec<long long> {
    static bool read(const Token& t, long long& v) { return to_ll(t, v); }
    static void write(Out& o, const char* k, long long v) { o.num(k, v); }
};
template <>
struct Codec<bool> {
    static bool read(const Token& t, bool& v) { return to_bool(t, v); }
    static void write(Out& o, const char* k, bool v) { o.flag(k, v); }
};
template <>
struct Codec<std::string> {
    static bool read(const Token& t, std::string& v) {
        v = t.str();
        return true;
    }
    static void write(Out& o, const char* k, const std::string& v) { o.str(k, v); }
};
template <>
struct Codec<std::vector<std::string>> {
    static bool read(const Token& t, std::vector<std::string>& v) {
        v = to_list(t);
        return true;
    }
    static void write(Out& o, const char* k, const std::vector<std::string>& v) { o.list(k, v); }
};
template <>
struct Codec<std::vector<int>> {
    static bool read(const Token& t, std::vector<int>& v) { return to_int_list(t, v); }
    static void write(Out& o, const char* k, const std::vector<int>& v) { o.ints(k, v); }
};
template <>
struct Codec<PairList> {
    static bool read(const Token& t, PairList& v) { return parse_pairs(t, v.vec()); }
    static void write(Out& o, const char* k, const PairList& v) {
        o.s += ' ';
        o.s += k;
        o.s += '=';
        size_t n;
        if (const char* raw = v.raw(n)) {
            o.s.append(raw, n);
            return;
        }
        // Thousands of pairs on every write: no string per number.
        o.s.reserve(o.s.size() + v.size() * 12);
        for (size_t i = 0; i < v.size(); ++i) {
            if (i) o.s += ',';
            append_int(o.s, v[i].hlu);
            o.s += ':';
            append_int(o.s, v[i].alu);
        }
    }
};

// One key of a record kind: the member it stands for, read and written
// through that member's codec; `omit` leaves it out of the file when it says
// nothing the reader would not assume.
template <class R>
struct Field {
    const char* key;
    size_t klen;
    bool (*read)(const Token&, R&);
    void (*write)(Out&, const char*, const R&);
    bool (*omit)(const R&);
};

template <class R, class T, T R::*M>
bool read_member(const Token& t, R& r) {
    return Codec<T>::read(t, r.*M);
}
template <class R, class T, T R::*M>
void write_member(Out& o, const char* k, const R& r) {
    Codec<T>::write(o, k, r.*M);
}

#define FIELD_IF(R, key, member, omit)                                          \
    Field<R> {                                                                  \
        key, sizeof(key) - 1, &read_member<R, decltype(R::member), &R::member>, \
            &write_member<R, decltype(R::member), &R::member>, omit             \
    }
#define FIELD(R, key, member) FIELD_IF(R, key, member, nullptr)

template <class R, size_t N>
bool read_fields(const Field<R> (&fields)[N], const std::vector<Token>& toks, R& r) {
    for (const Token& t : toks) {
        const Field<R>* f = nullptr;
        for (const Field<R>& c : fields)
            if (t.is(c.key, c.klen)) {
                f = &c;
                break;
            }
        if (f == nullptr || !f->read(t, r)) return false;
    }
    return true;
}

template <class R, size_t N>
void write_fields(Out& o, const char* kind, const Field<R> (&fields)[N], const R& r) {
    o.kind(kind);
    for (const Field<R>& f : fields)
        if (f.omit == nullptr || !f.omit(r)) f.write(o, f.key, r);
    o.end();
}

// The record kinds, each key in the order it is written.
const Field<Options> kOptionFields[] = {
    FIELD(Options, "sync_steps", sync_steps),
    FIELD(Options, "secfile", secfile),
    FIELD(Options, "vxdisk", vxdisk),
    FIELD(Options, "rev_tillo", rev_tillo),
    FIELD(Options, "rev_gelmot", rev_gelmot),
    FIELD(Options, "rev_hadrix", rev_hadrix),
    FIELD(Options, "rev_pirnet", rev_pirnet),
    FIELD(Options, "hadrix_installed", hadrix_installed),
    FIELD(Options, "gelmot_form", gelmot_form),
    FIELD(Options, "clock", clock),
    FIELD(Options, "seq", seq),
};
const Field<Frame> kFrameFields[] = {
    FIELD(Frame, "name", name),
    FIELD(Frame, "serial", serial),
    FIELD(Frame, "uid", uid),
    FIELD(Frame, "addrs", addrs),
    FIELD_IF(Frame, "sphosts", sphosts, [](const Frame& f) { return f.sphosts.empty(); }),
    FIELD(Frame, "down", down),
};
const Field<Host> kHostFields[] = {
    FIELD(Host, "name", name),
    FIELD(Host, "addr", addr),
    FIELD(Host, "agent", agent_up),
    FIELD(Host, "local", local),
};
const Field<Hba> kHbaFields[] = {
    FIELD(Hba, "uid", uid),
    FIELD(Hba, "dev", dev),
};
const Field<Group> kGroupFields[] = {
    FIELD(Group, "frame", frame), FIELD(Group, "name", name), FIELD(Group, "uid", uid),
    FIELD(Group, "host", host),   FIELD(Group, "form", form), FIELD(Group, "pairs", pairs),
};
// What follows from a LUN's number stays out of the file: less to write and
// read on every command.
const Field<Lun> kLunFields[] = {
    FIELD(Lun, "frame", frame),
    FIELD(Lun, "num", num),
    FIELD_IF(Lun, "name", name, [](const Lun& l) { return l.name == default_lun_name(l.num); }),
    FIELD_IF(Lun, "wwn", wwn,
             [](const Lun& l) { return l.wwn == default_lun_wwn(l.frame, l.num); }),
    FIELD(Lun, "blocks", blocks),
    FIELD(Lun, "trespassed", trespassed),
    FIELD_IF(Lun, "mount", mount, [](const Lun& l) { return l.mount.empty(); }),
    FIELD_IF(Lun, "snapname", snapname, [](const Lun& l) { return l.snapname.empty(); }),
    FIELD_IF(Lun, "snapdev", snapdev, [](const Lun& l) { return l.snapname.empty(); }),
    FIELD_IF(Lun, "smp", smp, [](const Lun& l) { return l.smp < 0; }),
    FIELD_IF(Lun, "smpdev", smpdev, [](const Lun& l) { return l.smp < 0; }),
    FIELD_IF(Lun, "cg", cg, [](const Lun& l) { return l.cg.empty(); }),
};
const Field<HostDev> kDevFields[] = {
    FIELD(HostDev, "host", host),
    FIELD_IF(HostDev, "pseudo", pseudo, [](const HostDev& d) { return d.pseudo.empty(); }),
    FIELD(HostDev, "paths", paths),
};
const Field<Session> kSessionFields[] = {
    FIELD(Session, "name", name),
    FIELD(Session, "frame", frame),
    FIELD(Session, "lun", lun),
    FIELD(Session, "created", created),
    FIELD(Session, "activated", activated),
    FIELD(Session, "rollbacks", rollbacks),
};
const Field<CloneGroup> kCloneGroupFields[] = {
    FIELD(CloneGroup, "frame", frame),
    FIELD(CloneGroup, "name", name),
    FIELD(CloneGroup, "uid", uid),
    FIELD(CloneGroup, "src", src),
};
const Field<Clone> kCloneFields[] = {
    FIELD(Clone, "id", id),
    FIELD(Clone, "lun", lun),
    FIELD(Clone, "state", state),
    FIELD(Clone, "cond", cond),
    FIELD(Clone, "fractured", fractured),
    FIELD(Clone, "rate", rate),
    FIELD(Clone, "pct", pct),
    FIELD(Clone, "op", op),
};
const Field<KvtSnap> kKvtSnapFields[] = {
    FIELD(KvtSnap, "frame", frame),       FIELD(KvtSnap, "name", name),
    FIELD(KvtSnap, "res", res),           FIELD(KvtSnap, "sources", sources),
    FIELD(KvtSnap, "created", created),   FIELD(KvtSnap, "attached", attached),
    FIELD(KvtSnap, "restores", restores),
};
const Field<ConsistencyGroup> kCgFields[] = {
    FIELD(ConsistencyGroup, "frame", frame),
    FIELD(ConsistencyGroup, "name", name),
    FIELD(ConsistencyGroup, "luns", luns),
};
const Field<Package> kPackageFields[] = {
    FIELD(Package, "frame", frame),   FIELD(Package, "name", name),     FIELD(Package, "rev", rev),
    FIELD(Package, "commit", commit), FIELD(Package, "active", active),
};
const Field<ForeignDev> kForeignFields[] = {
    FIELD(ForeignDev, "name", name),
    FIELD(ForeignDev, "vendor", vendor),
    FIELD(ForeignDev, "product", product),
};
const Field<Fault> kFaultFields[] = {
    FIELD(Fault, "tool", tool), FIELD(Fault, "match", match), FIELD(Fault, "kind", kind),
    FIELD(Fault, "arg", arg),   FIELD(Fault, "count", count),
};

#undef FIELD
#undef FIELD_IF

// A record of `fields` read from `toks` and handed to `keep`.
template <class R, size_t N, class Keep>
bool read_record(const Field<R> (&fields)[N], const std::vector<Token>& toks, Keep keep) {
    R r;
    if (!read_fields(fields, toks, r)) return false;
    keep(std::move(r));
    return true;
}

bool parse_record(const std::string& kind, const std::vector<Token>& toks, State& st) {
    if (kind == "lun") {
        Lun r;
        if (!parse_lun(toks, r, st.luns.version())) return false;
        st.luns.push_back(std::move(r));
        return true;
    }
    if (kind == "dev") {
        if (st.luns.empty()) return false;
        return read_record(kDevFields, toks,
                           [&](HostDev&& d) { st.luns.back().devs.push_back(std::move(d)); });
    }
    if (kind == "option") return read_fields(kOptionFields, toks, st.opt);
    auto into = [](auto& v) { return [&v](auto&& r) { v.push_back(std::move(r)); }; };
    if (kind == "frame") return read_record(kFrameFields, toks, into(st.frames));
    if (kind == "host") return read_record(kHostFields, toks, into(st.hosts));
    if (kind == "hba")
        return !st.hosts.empty() && read_record(kHbaFields, toks, into(st.hosts.back().hbas));
    if (kind == "group") return read_record(kGroupFields, toks, into(st.groups));
    if (kind == "session") return read_record(kSessionFields, toks, into(st.sessions));
    if (kind == "clonegroup") return read_record(kCloneGroupFields, toks, into(st.clonegroups));
    if (kind == "clone")
        return !st.clonegroups.empty() &&
               read_record(kCloneFields, toks, into(st.clonegroups.back().clones));
    if (kind == "kvtsnap") return read_record(kKvtSnapFields, toks, into(st.kvtsnaps));
    if (kind == "cg") return read_record(kCgFields, toks, into(st.cgs));
    if (kind == "package") return read_record(kPackageFields, toks, into(st.packages));
    if (kind == "foreign") return read_record(kForeignFields, toks, into(st.foreign));
    if (kind == "fault") return read_record(kFaultFields, toks, into(st.faults));
    return false;
}

}  // namespace

bool quick_lun_head(const char* q, const char* te, int& frame, int& num) {
    static const char k1[] = "lun frame=";
    static const char k2[] = " num=";
    if (static_cast<size_t>(te - q) < sizeof k1 - 1 || memcmp(q, k1, sizeof k1 - 1) != 0)
        return false;
    const char* p = q + sizeof k1 - 1;
    const char* s = p;
    while (p < te && *p != ' ') ++p;
    if (!parse_int(s, p - s, frame)) return false;
    if (static_cast<size_t>(te - p) < sizeof k2 - 1 || memcmp(p, k2, sizeof k2 - 1) != 0)
        return false;
    p += sizeof k2 - 1;
    s = p;
    while (p < te && *p != ' ') ++p;
    return parse_int(s, p - s, num);
}

bool split_line(const char* p, const char* end, std::string& kind, std::vector<Token>& toks) {
    toks.clear();
    while (p < end && *p == ' ') ++p;
    const char* k = p;
    while (p < end && *p != ' ') ++p;
    kind.assign(k, p - k);
    while (p < end) {
        while (p < end && *p == ' ') ++p;
        if (p >= end) break;
        const char* s = p;
        // Values escape their blanks; some are long lists.
        const char* blank = static_cast<const char*>(memchr(p, ' ', end - p));
        p = blank ? blank : end;
        const char* eq = static_cast<const char*>(memchr(s, '=', p - s));
        if (!eq) return false;
        toks.push_back(
            Token{s, static_cast<size_t>(eq - s), eq + 1, static_cast<size_t>(p - eq - 1)});
    }
    return true;
}

Line next_line(const char* p, const char* end) {
    const char* nl = static_cast<const char*>(memchr(p, '\n', end - p));
    const char* le = nl ? nl : end;
    const char* q = p;
    while (q < le && (*q == ' ' || *q == '\t' || *q == '\r')) ++q;
    const char* te = le;
    if (q < le && *q == '#') te = q;
    while (te > q && (te[-1] == '\r' || te[-1] == ' ')) --te;
    return Line{nl ? nl + 1 : end, q, te};
}

std::string malformed(int lineno, const char* q, const char* te) {
    return "malformed state line " + std::to_string(lineno) + ": " + std::string(q, te);
}

bool parse_lun(const std::vector<Token>& toks, Lun& r, int version) {
    if (!read_fields(kLunFields, toks, r)) return false;
    if (version >= 2) {
        bool name = false, wwn = false;
        for (const auto& t : toks) {
            name = name || t.is("name");
            wwn = wwn || t.is("wwn");
        }
        if (!name) r.name = default_lun_name(r.num);
        if (!wwn) r.wwn = default_lun_wwn(r.frame, r.num);
    }
    return true;
}

bool parse_dev(const std::vector<Token>& toks, HostDev& r) {
    return read_fields(kDevFields, toks, r);
}

namespace {

// One "key=value" at p on a line ending at le: false when p holds no '='
// before the next blank. `next` is where the next token's search starts.
bool quick_token(const char* p, const char* le, Token& t, const char*& next) {
    const char* blank = static_cast<const char*>(memchr(p, ' ', le - p));
    const char* te = blank ? blank : le;
    const char* eq = static_cast<const char*>(memchr(p, '=', te - p));
    if (!eq) return false;
    t = Token{p, static_cast<size_t>(eq - p), eq + 1, static_cast<size_t>(te - eq - 1)};
    next = blank ? blank + 1 : le;
    return true;
}

void assign_value(const Token& t, std::string& v) {
    // Keeps the string's room: a listing reads thousands of records into one.
    if (!memchr(t.val, '%', t.vlen))
        v.assign(t.val, t.vlen);
    else
        v = unescape_value(t.val, t.vlen);
}

bool quick_lun_key(const Token& t, Lun& r, bool& name, bool& wwn) {
    switch (t.klen) {
    case 2:
        if (t.is("cg")) return assign_value(t, r.cg), true;
        return false;
    case 3:
        if (t.is("num")) return to_int(t, r.num);
        if (t.is("wwn")) return wwn = true, assign_value(t, r.wwn), true;
        if (t.is("smp")) return to_int(t, r.smp);
        return false;
    case 4:
        if (t.is("name")) return name = true, assign_value(t, r.name), true;
        return false;
    case 5:
        if (t.is("frame")) return to_int(t, r.frame);
        if (t.is("mount")) return assign_value(t, r.mount), true;
        return false;
    case 6:
        if (t.is("blocks")) return to_ll(t, r.blocks);
        if (t.is("smpdev")) return assign_value(t, r.smpdev), true;
        return false;
    case 7:
        if (t.is("snapdev")) return assign_value(t, r.snapdev), true;
        return false;
    case 8:
        if (t.is("snapname")) return assign_value(t, r.snapname), true;
        return false;
    case 10:
        if (t.is("trespassed")) return to_bool(t, r.trespassed);
        return false;
    }
    return false;
}

bool quick_dev_key(const Token& t, HostDev& d) {
    if (t.is("host")) return to_int(t, d.host);
    if (t.is("pseudo")) return assign_value(t, d.pseudo), true;
    if (t.is("paths")) {
        d.paths.clear();
        return each_item(t, [&](const char* p, const char* ie) {
            d.paths.push_back(memchr(p, '%', ie - p) ? unescape_value(p, ie - p)
                                                     : std::string(p, ie));
            return true;
        });
    }
    return false;
}

}  // namespace

bool quick_parse_lun(const char* p, const char* end, Lun& r, int version) {
    // The layout arraysim writes: "lun " and "dev " lines, single blanks,
    // nothing else. Blank lines, comments and stray blanks go the long way,
    // which also names the line of a malformed record.
    bool name = false, wwn = false, first = true;
    while (p < end) {
        const char* nl = static_cast<const char*>(memchr(p, '\n', end - p));
        const char* le = nl ? nl : end;
        if (le - p < 5 || p[3] != ' ' || p[4] == ' ' || le[-1] == ' ' || le[-1] == '\r')
            return false;
        bool lun = memcmp(p, "lun", 3) == 0;
        if (lun != first || (!lun && memcmp(p, "dev", 3) != 0)) return false;
        HostDev* d = nullptr;
        if (!lun) {
            r.devs.emplace_back();
            d = &r.devs.back();
        }
        for (const char* q = p + 4; q < le;) {
            Token t;
            if (!quick_token(q, le, t, q)) return false;
            if (lun ? !quick_lun_key(t, r, name, wwn) : !quick_dev_key(t, *d)) return false;
        }
        first = false;
        p = nl ? nl + 1 : end;
    }
    if (first) return false;
    if (version >= 2) {
        if (!name) {
            r.name = "LUN ";
            append_int(r.name, r.num);
        }
        if (!wwn) {
            r.wwn.clear();
            append_default_lun_wwn(r.wwn, r.frame, r.num);
        }
    }
    return true;
}

namespace {

// The LUN records from `p`, which starts a LUN line, up to the next line of
// another kind, kept whole for the LUN table (see LunTable::add_run). Only
// the first word of each line is looked at. `lineno` is the number of the
// first line and becomes that of the last line of the run.
const char* lun_run(const char* p, const char* end, int& lineno, State& st) {
    const char* begin = p;
    int first = lineno;
    size_t count = 0;
    --lineno;
    while (p < end) {
        // The layout arraysim writes, first; anything else the long way.
        const char* next;
        if (end - p > 4 && (memcmp(p, "lun ", 4) == 0 || memcmp(p, "dev ", 4) == 0)) {
            count += *p == 'l';
            const char* nl = static_cast<const char*>(memchr(p + 4, '\n', end - p - 4));
            next = nl ? nl + 1 : end;
        } else {
            Line ln = next_line(p, end);
            bool lun = starts_word(ln.q, ln.te, "lun", 3);
            if (!lun && ln.q != ln.te && !starts_word(ln.q, ln.te, "dev", 3)) break;
            count += lun;
            next = ln.next;
        }
        ++lineno;
        p = next;
    }
    st.luns.add_run(begin, p, first, count);
    return p;
}

// A group whose pairs stay text until used (see PairList).
bool read_group_lazily(std::vector<Token>& toks, State& st, int lineno, const Line& ln) {
    Token pairs{nullptr, 0, nullptr, 0};
    size_t kept = 0;
    for (const Token& t : toks)
        if (t.is("pairs"))
            pairs = t;  // the last one counts, as for any key
        else
            toks[kept++] = t;
    toks.resize(kept);
    Group g;
    if (!read_fields(kGroupFields, toks, g)) return false;
    if (pairs.key) g.pairs.set_raw(pairs.val, pairs.vlen, lineno, ln.q, ln.te);
    st.groups.push_back(std::move(g));
    return true;
}

}  // namespace

bool parse_text(const char* data, size_t len, State& st, std::string& err, bool lazy) {
    const char* p = data;
    const char* end = data + len;
    const char* nl = static_cast<const char*>(memchr(p, '\n', end - p));
    const char* hend = nl ? nl : end;
    size_t hl = strlen(kStateHeader);
    if (static_cast<size_t>(hend - p) <= hl + 1 || memcmp(p, kStateHeader, hl) != 0 ||
        p[hl] != ' ') {
        err = "not an arraysim state file (no \"" + std::string(kStateHeader) + "\" header line)";
        return false;
    }
    int version = atoi(std::string(p + hl + 1, hend).c_str());
    if (version < kOldestStateVersion || version > kStateVersion) {
        err = "state file format version " + std::to_string(version) +
              " is not supported (this arraysim reads versions " +
              std::to_string(kOldestStateVersion) + " to " + std::to_string(kStateVersion) +
              "); make the state again with \"arraysim init\"";
        return false;
    }
    st.luns.set_version(version);
    p = nl ? nl + 1 : end;
    std::string kind;
    std::vector<Token> toks;
    int lineno = 1;
    while (p < end) {
        ++lineno;
        Line ln = next_line(p, end);
        if (ln.q == ln.te) {
            p = ln.next;
            continue;
        }
        if (lazy && starts_word(ln.q, ln.te, "lun", 3)) {
            p = lun_run(p, end, lineno, st);
            continue;
        }
        bool ok = split_line(ln.q, ln.te, kind, toks);
        if (ok && lazy && kind == "group")
            ok = read_group_lazily(toks, st, lineno, ln);
        else if (ok)
            ok = parse_record(kind, toks, st);
        if (!ok) {
            err = malformed(lineno, ln.q, ln.te);
            return false;
        }
        p = ln.next;
    }
    return true;
}

void format_into(const State& st, Out& o) {
    o.s += kStateHeader;
    o.s += ' ';
    o.s += std::to_string(kStateVersion);
    o.s += '\n';
    write_fields(o, "option", kOptionFields, st.opt);
    for (const auto& f : st.frames) write_fields(o, "frame", kFrameFields, f);
    for (const auto& h : st.hosts) {
        write_fields(o, "host", kHostFields, h);
        for (const auto& b : h.hbas) write_fields(o, "hba", kHbaFields, b);
    }
    for (const auto& g : st.groups) write_fields(o, "group", kGroupFields, g);
    for (size_t i = 0; i < st.luns.size(); ++i) {
        // Untouched records go back as they were read, a run of neighbours at once.
        // (A record read in an older version is written afresh: a key it lacks
        // means something else now.)
        size_t rawlen = 0;
        const char* raw = st.luns.version() == kStateVersion ? st.luns.raw_at(i, rawlen) : nullptr;
        if (raw) {
            const char* run_end = raw + rawlen;
            size_t next_len = 0;
            while (i + 1 < st.luns.size() && st.luns.raw_at(i + 1, next_len) == run_end) {
                run_end += next_len;
                ++i;
            }
            o.raw(raw, run_end - raw);
            if (run_end == raw || run_end[-1] != '\n') o.s += '\n';
            continue;
        }
        o.maybe_flush();
        const Lun& l = st.luns[i];
        write_fields(o, "lun", kLunFields, l);
        for (const auto& d : l.devs) write_fields(o, "dev", kDevFields, d);
    }
    for (const auto& s : st.sessions) write_fields(o, "session", kSessionFields, s);
    for (const auto& g : st.clonegroups) {
        write_fields(o, "clonegroup", kCloneGroupFields, g);
        for (const auto& c : g.clones) write_fields(o, "clone", kCloneFields, c);
    }
    for (const auto& k : st.kvtsnaps) write_fields(o, "kvtsnap", kKvtSnapFields, k);
    for (const auto& c : st.cgs) write_fields(o, "cg", kCgFields, c);
    for (const auto& p : st.packages) write_fields(o, "package", kPackageFields, p);
    for (const auto& f : st.foreign) write_fields(o, "foreign", kForeignFields, f);
    for (const auto& f : st.faults) write_fields(o, "fault", kFaultFields, f);
}

}  // namespace text

void PairList::parse() const {
    text::Token t{"pairs", 5, raw_, rawlen_};
    if (!text::parse_pairs(t, v_)) {
        v_.clear();
        throw StateError(text::malformed(line_, q_, te_));
    }
    raw_ = nullptr;
}

bool parse_state(const char* data, size_t len, State& st, std::string& err) {
    st = State();
    return text::parse_text(data, len, st, err, false);
}

std::string format_state(const State& st) {
    text::Out o;
    size_t raw = 0, n = 0;
    for (size_t i = 0; i < st.luns.size(); ++i)
        if (st.luns.raw_at(i, n)) raw += n;
    o.s.reserve(4096 + raw + (st.luns.size() + st.groups.size() * 64) * 200);
    text::format_into(st, o);
    return o.s;
}

}  // namespace arraysim
