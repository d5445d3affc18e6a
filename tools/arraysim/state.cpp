// Text form of the state, its folder, the lock and the command log.
// The reader is hand-written on purpose: every tool invocation parses the whole
// state, and with thousands of LUNs a stream-based reader costs ten times more.
#include "tools/arraysim/state.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace arraysim {

static bool write_all(int fd, const char* p, size_t n);

// ---------------------------------------------------------------- lookups

int State::frame_by_addr(const std::string& addr) const {
    for (size_t f = 0; f < frames.size(); ++f)
        for (const auto& a : frames[f].addrs)
            if (a == addr) return static_cast<int>(f);
    return -1;
}

static bool iequal(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

int State::host_by_name_or_addr(const std::string& key) const {
    for (size_t h = 0; h < hosts.size(); ++h)
        if (iequal(hosts[h].name, key) || hosts[h].addr == key) return static_cast<int>(h);
    return -1;
}

int State::local_host() const {
    for (size_t h = 0; h < hosts.size(); ++h)
        if (hosts[h].local) return static_cast<int>(h);
    return hosts.empty() ? -1 : 0;
}

Lun* State::lun(int frame, int num) {
    long i = luns.find(frame, num);
    return i < 0 ? nullptr : &luns[static_cast<size_t>(i)];
}

const Lun* State::lun(int frame, int num) const {
    long i = luns.find(frame, num);
    return i < 0 ? nullptr : &luns[static_cast<size_t>(i)];
}

Lun* State::lun_any_frame(int num) {
    for (size_t i = 0; i < luns.size(); ++i)
        if (luns.num_at(i) == num) return &luns[i];
    return nullptr;
}

int State::group_by_name(int frame, const std::string& name) const {
    for (size_t g = 0; g < groups.size(); ++g)
        if (groups[g].frame == frame && groups[g].name == name) return static_cast<int>(g);
    return -1;
}

CloneGroup* State::clonegroup(int frame, const std::string& key) {
    for (auto& g : clonegroups)
        if (g.frame == frame && (iequal(g.uid, key) || g.name == key)) return &g;
    return nullptr;
}

Session* State::session(const std::string& name) {
    for (auto& s : sessions)
        if (s.name == name) return &s;
    return nullptr;
}

KvtSnap* State::kvtsnap(int frame, const std::string& name) {
    for (auto& k : kvtsnaps)
        if (k.frame == frame && k.name == name) return &k;
    return nullptr;
}

ConsistencyGroup* State::cg(int frame, const std::string& name) {
    for (auto& c : cgs)
        if (c.frame == frame && c.name == name) return &c;
    return nullptr;
}

std::string State::sp_host_name(int frame, const std::string& addr) const {
    const Frame& f = frames[frame];
    size_t sp = 0;
    while (sp < f.addrs.size() && f.addrs[sp] != addr) ++sp;
    if (sp < f.sphosts.size()) return f.sphosts[sp];
    return f.name + (sp == 0 ? "-spa" : sp == 1 ? "-spb" : "-sp" + std::to_string(sp));
}

std::string State::owner_addr(const Lun& l) const {
    if (l.frame < 0 || l.frame >= static_cast<int>(frames.size())) return "0.0.0.0";
    const Frame& f = frames[l.frame];
    if (f.addrs.empty()) return "0.0.0.0";
    if (l.trespassed && f.addrs.size() > 1) return f.addrs[1];
    return f.addrs[0];
}

std::string default_lun_name(int num) {
    return "LUN " + std::to_string(num);
}

// As make_wwn("60060160", frame << 32 | num) lays it out, without its
// scanf and printf: getlun derives thousands of these.
static void append_default_lun_wwn(std::string& out, int frame, int num) {
    static const char hex[] = "0123456789ABCDEF";
    unsigned f = static_cast<unsigned>(frame), n = static_cast<unsigned>(num);
    unsigned char b[16] = {0x60, 0x06, 0x01, 0x60, 0, 0, 0, 0};
    for (int i = 0; i < 4; ++i) {
        b[11 - i] = static_cast<unsigned char>(f >> (8 * i));
        b[15 - i] = static_cast<unsigned char>(n >> (8 * i));
    }
    char buf[47];
    for (int i = 0; i < 16; ++i) {
        buf[i * 3] = hex[b[i] >> 4];
        buf[i * 3 + 1] = hex[b[i] & 15];
        if (i < 15) buf[i * 3 + 2] = ':';
    }
    out.append(buf, sizeof buf);
}

std::string default_lun_wwn(int frame, int num) {
    std::string w;
    append_default_lun_wwn(w, frame, num);
    return w;
}

// ---------------------------------------------------------------- escaping

static bool needs_escape(unsigned char c) {
    return c <= ' ' || c == '%' || c == '=' || c == ',' || c == 0x7f;
}

std::string escape_value(const std::string& v) {
    std::string out;
    out.reserve(v.size());
    static const char hex[] = "0123456789ABCDEF";
    for (unsigned char c : v) {
        if (needs_escape(c)) {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

static int hexval(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

std::string unescape_value(const char* p, size_t n) {
    std::string out;
    out.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        if (p[i] == '%' && i + 2 < n) {
            int a = hexval(p[i + 1]);
            int b = hexval(p[i + 2]);
            if (a >= 0 && b >= 0) {
                out += static_cast<char>(a * 16 + b);
                i += 2;
                continue;
            }
        }
        out += p[i];
    }
    return out;
}

// ---------------------------------------------------------------- parsing

namespace {

struct Token {
    const char* key;
    size_t klen;
    const char* val;
    size_t vlen;
    template <size_t N>
    bool is(const char (&k)[N]) const {
        return N - 1 == klen && memcmp(k, key, klen) == 0;
    }
    std::string str() const {
        // Most values need no unescaping; skip the slow path for them.
        if (!memchr(val, '%', vlen)) return std::string(val, vlen);
        return unescape_value(val, vlen);
    }
};

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

std::vector<std::string> to_list(const Token& t) {
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t i = 0; i <= t.vlen; ++i) {
        if (i == t.vlen || t.val[i] == ',') {
            if (i > start) out.push_back(unescape_value(t.val + start, i - start));
            start = i + 1;
        }
    }
    return out;
}

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

// Lists of numbers are long (a storage group of thousands of LUNs): read them
// in place, without a string per item. Empty items are skipped.
bool to_int_list(const Token& t, std::vector<int>& out) {
    out.clear();
    const char* p = t.val;
    const char* end = t.val + t.vlen;
    while (p < end) {
        const char* c = static_cast<const char*>(memchr(p, ',', end - p));
        const char* ie = c ? c : end;
        if (ie > p) {
            int v;
            if (!parse_int(p, ie - p, v)) return false;
            out.push_back(v);
        }
        p = ie + 1;
    }
    return true;
}

bool parse_pairs(const Token& t, std::vector<Pair>& out) {
    out.clear();
    const char* p = t.val;
    const char* end = t.val + t.vlen;
    while (p < end) {
        const char* c = static_cast<const char*>(memchr(p, ',', end - p));
        const char* ie = c ? c : end;
        if (ie > p) {
            const char* colon = static_cast<const char*>(memchr(p, ':', ie - p));
            Pair pr;
            if (!colon || !parse_int(p, colon - p, pr.hlu) ||
                !parse_int(colon + 1, ie - colon - 1, pr.alu))
                return false;
            out.push_back(pr);
        }
        p = ie + 1;
    }
    return true;
}

// Splits one line into its kind and key=value tokens. Returns false on a
// token without '='.
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
        while (p < end && *p != ' ') ++p;
        const char* eq = static_cast<const char*>(memchr(s, '=', p - s));
        if (!eq) return false;
        toks.push_back(
            Token{s, static_cast<size_t>(eq - s), eq + 1, static_cast<size_t>(p - eq - 1)});
    }
    return true;
}

#define NUM(field)                             \
    if (t.is(#field)) {                        \
        if (!to_int(t, r.field)) return false; \
        continue;                              \
    }
#define LNUM(field)                           \
    if (t.is(#field)) {                       \
        if (!to_ll(t, r.field)) return false; \
        continue;                             \
    }
#define STR(field)         \
    if (t.is(#field)) {    \
        r.field = t.str(); \
        continue;          \
    }
#define BOOL(field)                             \
    if (t.is(#field)) {                         \
        if (!to_bool(t, r.field)) return false; \
        continue;                               \
    }

bool parse_lun(const std::vector<Token>& toks, Lun& r, int version) {
    bool name = false, wwn = false;
    for (const auto& t : toks) {
        name = name || t.is("name");
        wwn = wwn || t.is("wwn");
        NUM(frame)
        NUM(num) STR(name) STR(wwn) LNUM(blocks) BOOL(trespassed) STR(mount) STR(snapname)
            STR(snapdev) NUM(smp) STR(smpdev) STR(cg) return false;
    }
    if (version >= 2) {
        if (!name) r.name = default_lun_name(r.num);
        if (!wwn) r.wwn = default_lun_wwn(r.frame, r.num);
    }
    return true;
}

bool parse_dev(const std::vector<Token>& toks, HostDev& r) {
    for (const auto& t : toks) {
        NUM(host) STR(pseudo) if (t.is("paths")) {
            r.paths = to_list(t);
            continue;
        }
        return false;
    }
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
        HostDev r;
        if (!parse_dev(toks, r)) return false;
        st.luns.back().devs.push_back(std::move(r));
        return true;
    }
    if (kind == "clone") {
        if (st.clonegroups.empty()) return false;
        Clone r;
        for (const auto& t : toks) {
            STR(id)
            NUM(lun) STR(state) STR(cond) BOOL(fractured) STR(rate) NUM(pct) STR(op) return false;
        }
        st.clonegroups.back().clones.push_back(std::move(r));
        return true;
    }
    if (kind == "frame") {
        Frame r;
        for (const auto& t : toks) {
            STR(name) STR(serial) STR(uid) BOOL(down) if (t.is("addrs")) {
                r.addrs = to_list(t);
                continue;
            }
            if (t.is("sphosts")) {
                r.sphosts = to_list(t);
                continue;
            }
            return false;
        }
        st.frames.push_back(std::move(r));
        return true;
    }
    if (kind == "host") {
        Host r;
        for (const auto& t : toks) {
            STR(name) STR(addr) BOOL(local) if (t.is("agent")) {
                if (!to_bool(t, r.agent_up)) return false;
                continue;
            }
            return false;
        }
        st.hosts.push_back(std::move(r));
        return true;
    }
    if (kind == "hba") {
        if (st.hosts.empty()) return false;
        Hba r;
        for (const auto& t : toks) {
            STR(uid) STR(dev) return false;
        }
        st.hosts.back().hbas.push_back(std::move(r));
        return true;
    }
    if (kind == "group") {
        Group r;
        for (const auto& t : toks) {
            NUM(frame) STR(name) STR(uid) NUM(host) NUM(form) if (t.is("pairs")) {
                if (!parse_pairs(t, r.pairs)) return false;
                continue;
            }
            return false;
        }
        st.groups.push_back(std::move(r));
        return true;
    }
    if (kind == "session") {
        Session r;
        for (const auto& t : toks) {
            STR(name) NUM(frame) NUM(lun) LNUM(created) BOOL(activated) NUM(rollbacks) return false;
        }
        st.sessions.push_back(std::move(r));
        return true;
    }
    if (kind == "clonegroup") {
        CloneGroup r;
        for (const auto& t : toks) {
            NUM(frame) STR(name) STR(uid) NUM(src) return false;
        }
        st.clonegroups.push_back(std::move(r));
        return true;
    }
    if (kind == "kvtsnap") {
        KvtSnap r;
        for (const auto& t : toks) {
            NUM(frame)
            STR(name) STR(res) LNUM(created) STR(attached) NUM(restores) if (t.is("sources")) {
                if (!to_int_list(t, r.sources)) return false;
                continue;
            }
            return false;
        }
        st.kvtsnaps.push_back(std::move(r));
        return true;
    }
    if (kind == "cg") {
        ConsistencyGroup r;
        for (const auto& t : toks) {
            NUM(frame) STR(name) if (t.is("luns")) {
                if (!to_int_list(t, r.luns)) return false;
                continue;
            }
            return false;
        }
        st.cgs.push_back(std::move(r));
        return true;
    }
    if (kind == "package") {
        Package r;
        for (const auto& t : toks) {
            NUM(frame) STR(name) STR(rev) BOOL(commit) BOOL(active) return false;
        }
        st.packages.push_back(std::move(r));
        return true;
    }
    if (kind == "foreign") {
        ForeignDev r;
        for (const auto& t : toks) {
            STR(name) STR(vendor) STR(product) return false;
        }
        st.foreign.push_back(std::move(r));
        return true;
    }
    if (kind == "fault") {
        Fault r;
        for (const auto& t : toks) {
            STR(tool) STR(match) STR(kind) STR(arg) NUM(count) return false;
        }
        st.faults.push_back(std::move(r));
        return true;
    }
    if (kind == "option") {
        Options& r = st.opt;
        for (const auto& t : toks) {
            NUM(sync_steps)
            BOOL(secfile)
            BOOL(vxdisk)
            STR(rev_tillo)
            STR(rev_gelmot) STR(rev_hadrix) STR(rev_pirnet) BOOL(hadrix_installed) STR(gelmot_form)
                LNUM(clock) NUM(seq) return false;
        }
        return true;
    }
    return false;
}

#undef NUM
#undef LNUM
#undef STR
#undef BOOL

// The head of a LUN line as arraysim writes it, "lun frame=F num=N ...";
// false for any other layout, which is then read the slow way.
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

bool starts_word(const char* q, const char* te, const char* w, size_t n) {
    return static_cast<size_t>(te - q) >= n && memcmp(q, w, n) == 0 && (q + n == te || q[n] == ' ');
}

// One line of [p, end): `q`..`te` is its text without surrounding blanks,
// empty for a blank line or a comment.
struct Line {
    const char* next;
    const char* q;
    const char* te;
};

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

// Reads the text; with `lazy`, LUN records in arraysim's own layout are kept
// as text spans (the LUN line, the dev lines under it and any comments
// between) and parsed when first used.
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
    const char* span = nullptr;  // the LUN record being kept as text
    int span_line = 0, span_frame = 0, span_num = 0;
    while (p < end) {
        ++lineno;
        Line ln = next_line(p, end);
        if (ln.q == ln.te) {
            p = ln.next;
            continue;
        }
        if (lazy) {
            if (span && starts_word(ln.q, ln.te, "dev", 3)) {
                p = ln.next;
                continue;
            }
            if (span) {
                st.luns.add_raw(span_frame, span_num, span, p - span, span_line);
                span = nullptr;
            }
            if (quick_lun_head(ln.q, ln.te, span_frame, span_num)) {
                span = p;
                span_line = lineno;
                p = ln.next;
                continue;
            }
        }
        if (!split_line(ln.q, ln.te, kind, toks) || !parse_record(kind, toks, st)) {
            err = malformed(lineno, ln.q, ln.te);
            return false;
        }
        p = ln.next;
    }
    if (span) st.luns.add_raw(span_frame, span_num, span, end - span, span_line);
    return true;
}

}  // namespace

bool parse_state(const char* data, size_t len, State& st, std::string& err) {
    st = State();
    return parse_text(data, len, st, err, false);
}

// ---------------------------------------------------------------- LUN table

LunTable::LunTable(const LunTable& o) {
    *this = o;
}

LunTable& LunTable::operator=(const LunTable& o) {
    if (this == &o) return *this;
    text_ = o.text_;
    version_ = o.version_;
    slots_.clear();
    slots_.reserve(o.slots_.size());
    for (const auto& s : o.slots_) {
        Slot n;
        n.frame = s.frame;
        n.num = s.num;
        n.raw = s.raw;
        n.len = s.len;
        n.line = s.line;
        if (s.lun) n.lun.reset(new Lun(*s.lun));
        slots_.push_back(std::move(n));
    }
    index_.clear();
    index_ok_ = false;
    return *this;
}

void LunTable::push_back(Lun l) {
    Slot s;
    s.frame = l.frame;
    s.num = l.num;
    s.lun.reset(new Lun(std::move(l)));
    slots_.push_back(std::move(s));
    index_ok_ = false;
}

void LunTable::clear() {
    slots_.clear();
    text_.reset();
    index_.clear();
    index_ok_ = false;
}

void LunTable::add_raw(int frame, int num, const char* raw, size_t len, int line) {
    Slot s;
    s.frame = frame;
    s.num = num;
    s.raw = raw;
    s.len = len;
    s.line = line;
    slots_.push_back(std::move(s));
    index_ok_ = false;
}

int LunTable::frame_at(size_t i) const {
    const Slot& s = slots_[i];
    return s.lun ? s.lun->frame : s.frame;
}

int LunTable::num_at(size_t i) const {
    const Slot& s = slots_[i];
    return s.lun ? s.lun->num : s.num;
}

static unsigned long long lun_key(int frame, int num) {
    return static_cast<unsigned long long>(static_cast<unsigned>(frame)) << 32 |
           static_cast<unsigned>(num);
}

long LunTable::find(int frame, int num) const {
    // Commands look LUNs up by the thousand (a storage group's pairs): a
    // sorted index keeps that linear.
    if (!index_ok_) {
        index_.clear();
        index_.reserve(slots_.size());
        bool sorted = true;
        for (size_t i = 0; i < slots_.size(); ++i) {
            index_.emplace_back(lun_key(frame_at(i), num_at(i)), i);
            if (i && index_[i].first < index_[i - 1].first) sorted = false;
        }
        if (!sorted) std::stable_sort(index_.begin(), index_.end());
        index_ok_ = true;
    }
    unsigned long long k = lun_key(frame, num);
    auto it = std::lower_bound(index_.begin(), index_.end(), std::make_pair(k, size_t(0)));
    if (it != index_.end() && it->first == k && frame_at(it->second) == frame &&
        num_at(it->second) == num)
        return static_cast<long>(it->second);
    // A parsed record may have been renumbered since the index was made.
    for (size_t i = 0; i < slots_.size(); ++i)
        if (frame_at(i) == frame && num_at(i) == num) return static_cast<long>(i);
    return -1;
}

void LunTable::append_wwn(size_t i, std::string& out) const {
    const Slot& s = slots_[i];
    if (s.lun || !s.raw) {
        out += materialize(i).wwn;
        return;
    }
    // Values escape blanks and '=', so " wwn=" can only start the key; a dev
    // line under the LUN line has no such key.
    const char* end = s.raw + s.len;
    static const char key[] = "wwn=";
    const size_t kl = sizeof key - 1;
    for (const char* p = s.raw;;) {
        p = static_cast<const char*>(memchr(p, ' ', end - p));
        if (!p) {
            if (version_ >= 2) append_default_lun_wwn(out, s.frame, s.num);
            return;
        }
        ++p;
        if (static_cast<size_t>(end - p) < kl || memcmp(p, key, kl) != 0) continue;
        const char* v = p + kl;
        const char* ve = v;
        while (ve < end && *ve != ' ' && *ve != '\r' && *ve != '\n') ++ve;
        if (!memchr(v, '%', ve - v))
            out.append(v, ve);
        else
            out += unescape_value(v, ve - v);
        return;
    }
}

const char* LunTable::raw_at(size_t i, size_t& len) const {
    const Slot& s = slots_[i];
    if (s.lun) return nullptr;
    len = s.len;
    return s.raw;
}

Lun& LunTable::materialize(size_t i) const {
    const Slot& s = slots_[i];
    if (s.lun) return *s.lun;
    std::unique_ptr<Lun> l(new Lun);
    std::string kind;
    std::vector<Token> toks;
    const char* p = s.raw;
    const char* end = s.raw + s.len;
    int lineno = s.line - 1;
    bool first = true;
    while (p < end) {
        ++lineno;
        Line ln = next_line(p, end);
        p = ln.next;
        if (ln.q == ln.te) continue;
        bool ok = split_line(ln.q, ln.te, kind, toks);
        if (ok && first) {
            ok = kind == "lun" && parse_lun(toks, *l, version_);
            first = false;
        } else if (ok) {
            HostDev d;
            ok = kind == "dev" && parse_dev(toks, d);
            if (ok) l->devs.push_back(std::move(d));
        }
        if (!ok) throw StateError(malformed(lineno, ln.q, ln.te));
    }
    s.lun = std::move(l);
    return *s.lun;
}

bool LunTable::materialize_all(std::string& err) const {
    try {
        for (size_t i = 0; i < slots_.size(); ++i) materialize(i);
    } catch (const StateError& e) {
        err = e.what();
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- formatting

namespace {

// Where the text form goes: a string, or a file written in pieces, so that a
// megabyte of untouched LUN records goes from the mapping of the old file
// straight to the new one.
struct Out {
    std::string s;
    int fd = -1;
    bool ok = true;
    void flush() {
        if (fd >= 0 && !s.empty()) {
            ok = write_all(fd, s.data(), s.size()) && ok;
            s.clear();
        }
    }
    void maybe_flush() {
        if (fd >= 0 && s.size() >= 65536) flush();
    }
    void raw(const char* p, size_t n) {
        if (fd >= 0 && n >= 4096) {
            flush();
            ok = write_all(fd, p, n) && ok;
        } else {
            s.append(p, n);
        }
    }
    void kind(const char* k) { s += k; }
    void str(const char* k, const std::string& v) {
        s += ' ';
        s += k;
        s += '=';
        s += escape_value(v);
    }
    void num(const char* k, long long v) {
        s += ' ';
        s += k;
        s += '=';
        s += std::to_string(v);
    }
    void flag(const char* k, bool v) {
        s += ' ';
        s += k;
        s += v ? "=1" : "=0";
    }
    void list(const char* k, const std::vector<std::string>& v) {
        s += ' ';
        s += k;
        s += '=';
        for (size_t i = 0; i < v.size(); ++i) {
            if (i) s += ',';
            s += escape_value(v[i]);
        }
    }
    void ints(const char* k, const std::vector<int>& v) {
        s += ' ';
        s += k;
        s += '=';
        for (size_t i = 0; i < v.size(); ++i) {
            if (i) s += ',';
            s += std::to_string(v[i]);
        }
    }
    void end() { s += '\n'; }
};

void format_into(const State& st, Out& o) {
    o.s += kStateHeader;
    o.s += ' ';
    o.s += std::to_string(kStateVersion);
    o.s += '\n';
    const Options& p = st.opt;
    o.kind("option");
    o.num("sync_steps", p.sync_steps);
    o.flag("secfile", p.secfile);
    o.flag("vxdisk", p.vxdisk);
    o.str("rev_tillo", p.rev_tillo);
    o.str("rev_gelmot", p.rev_gelmot);
    o.str("rev_hadrix", p.rev_hadrix);
    o.str("rev_pirnet", p.rev_pirnet);
    o.flag("hadrix_installed", p.hadrix_installed);
    o.str("gelmot_form", p.gelmot_form);
    o.num("clock", p.clock);
    o.num("seq", p.seq);
    o.end();
    for (const auto& f : st.frames) {
        o.kind("frame");
        o.str("name", f.name);
        o.str("serial", f.serial);
        o.str("uid", f.uid);
        o.list("addrs", f.addrs);
        if (!f.sphosts.empty()) o.list("sphosts", f.sphosts);
        o.flag("down", f.down);
        o.end();
    }
    for (const auto& h : st.hosts) {
        o.kind("host");
        o.str("name", h.name);
        o.str("addr", h.addr);
        o.flag("agent", h.agent_up);
        o.flag("local", h.local);
        o.end();
        for (const auto& b : h.hbas) {
            o.kind("hba");
            o.str("uid", b.uid);
            o.str("dev", b.dev);
            o.end();
        }
    }
    for (const auto& g : st.groups) {
        o.kind("group");
        o.num("frame", g.frame);
        o.str("name", g.name);
        o.str("uid", g.uid);
        o.num("host", g.host);
        o.num("form", g.form);
        o.s += " pairs=";
        for (size_t i = 0; i < g.pairs.size(); ++i) {
            if (i) o.s += ',';
            o.s += std::to_string(g.pairs[i].hlu);
            o.s += ':';
            o.s += std::to_string(g.pairs[i].alu);
        }
        o.end();
    }
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
        o.kind("lun");
        o.num("frame", l.frame);
        o.num("num", l.num);
        // What follows from the number stays out of the file: less to write and
        // read on every command.
        if (l.name != default_lun_name(l.num)) o.str("name", l.name);
        if (l.wwn != default_lun_wwn(l.frame, l.num)) o.str("wwn", l.wwn);
        o.num("blocks", l.blocks);
        o.flag("trespassed", l.trespassed);
        if (!l.mount.empty()) o.str("mount", l.mount);
        if (!l.snapname.empty()) {
            o.str("snapname", l.snapname);
            o.str("snapdev", l.snapdev);
        }
        if (l.smp >= 0) {
            o.num("smp", l.smp);
            o.str("smpdev", l.smpdev);
        }
        if (!l.cg.empty()) o.str("cg", l.cg);
        o.end();
        for (const auto& d : l.devs) {
            o.kind("dev");
            o.num("host", d.host);
            if (!d.pseudo.empty()) o.str("pseudo", d.pseudo);
            o.list("paths", d.paths);
            o.end();
        }
    }
    for (const auto& s : st.sessions) {
        o.kind("session");
        o.str("name", s.name);
        o.num("frame", s.frame);
        o.num("lun", s.lun);
        o.num("created", s.created);
        o.flag("activated", s.activated);
        o.num("rollbacks", s.rollbacks);
        o.end();
    }
    for (const auto& g : st.clonegroups) {
        o.kind("clonegroup");
        o.num("frame", g.frame);
        o.str("name", g.name);
        o.str("uid", g.uid);
        o.num("src", g.src);
        o.end();
        for (const auto& c : g.clones) {
            o.kind("clone");
            o.str("id", c.id);
            o.num("lun", c.lun);
            o.str("state", c.state);
            o.str("cond", c.cond);
            o.flag("fractured", c.fractured);
            o.str("rate", c.rate);
            o.num("pct", c.pct);
            o.str("op", c.op);
            o.end();
        }
    }
    for (const auto& k : st.kvtsnaps) {
        o.kind("kvtsnap");
        o.num("frame", k.frame);
        o.str("name", k.name);
        o.str("res", k.res);
        o.ints("sources", k.sources);
        o.num("created", k.created);
        o.str("attached", k.attached);
        o.num("restores", k.restores);
        o.end();
    }
    for (const auto& c : st.cgs) {
        o.kind("cg");
        o.num("frame", c.frame);
        o.str("name", c.name);
        o.ints("luns", c.luns);
        o.end();
    }
    for (const auto& pk : st.packages) {
        o.kind("package");
        o.num("frame", pk.frame);
        o.str("name", pk.name);
        o.str("rev", pk.rev);
        o.flag("commit", pk.commit);
        o.flag("active", pk.active);
        o.end();
    }
    for (const auto& f : st.foreign) {
        o.kind("foreign");
        o.str("name", f.name);
        o.str("vendor", f.vendor);
        o.str("product", f.product);
        o.end();
    }
    for (const auto& f : st.faults) {
        o.kind("fault");
        o.str("tool", f.tool);
        o.str("match", f.match);
        o.str("kind", f.kind);
        o.str("arg", f.arg);
        o.num("count", f.count);
        o.end();
    }
}

}  // namespace

std::string format_state(const State& st) {
    Out o;
    size_t raw = 0, n = 0;
    for (size_t i = 0; i < st.luns.size(); ++i)
        if (st.luns.raw_at(i, n)) raw += n;
    o.s.reserve(4096 + raw + (st.luns.size() + st.groups.size() * 64) * 200);
    format_into(st, o);
    return o.s;
}

// ---------------------------------------------------------------- folder

std::string state_dir_from_env() {
    const char* v = getenv(kStateEnv);
    return v && *v ? std::string(v) : std::string();
}

std::string state_file(const std::string& dir) {
    return dir + "/state";
}
std::string dev_dir(const std::string& dir) {
    return dir + "/dev";
}

FolderLock::FolderLock(const std::string& dir) {
    std::string path = dir + "/lock";
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) return;
    struct flock fl;
    memset(&fl, 0, sizeof fl);
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    while (fcntl(fd_, F_SETLKW, &fl) < 0) {
        if (errno != EINTR) {
            close(fd_);
            fd_ = -1;
            return;
        }
    }
}

FolderLock::~FolderLock() {
    // Closing the descriptor releases the fcntl lock.
    if (fd_ >= 0) close(fd_);
}

bool read_file(const std::string& path, std::string& out) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat sb;
    out.clear();
    // Read straight into the string: the state is a megabyte with thousands of LUNs.
    size_t cap =
        fstat(fd, &sb) == 0 && sb.st_size > 0 ? static_cast<size_t>(sb.st_size) + 1 : 65536;
    size_t have = 0;
    for (;;) {
        if (have == out.size()) out.resize(std::max(cap, out.size() * 2));
        ssize_t n = read(fd, &out[have], out.size() - have);
        if (n < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            close(fd);
            out.clear();
            errno = e;
            return false;
        }
        if (n == 0) break;
        have += static_cast<size_t>(n);
    }
    out.resize(have);
    close(fd);
    return true;
}

static bool write_all(int fd, const char* p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool write_file_atomic(const std::string& path, const std::string& data) {
    std::string tmp = path + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = write_all(fd, data.data(), data.size());
    if (close(fd) != 0) ok = false;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

bool load_state(const std::string& dir, State& st, std::string& err) {
    std::string data;
    if (!read_file(state_file(dir), data)) {
        err = "cannot read " + state_file(dir) + ": " + strerror(errno) +
              " (make one with \"arraysim init\")";
        return false;
    }
    return parse_state(data.data(), data.size(), st, err);
}

bool load_state_lazy(const std::string& dir, State& st, std::string& err) {
    // The file is mapped rather than read: a megabyte read into fresh memory
    // costs a page fault per page, a populated mapping of the cached file does
    // not. Writers replace the file by renaming, so the mapping stays whole.
    std::string path = state_file(dir);
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat sb;
    if (fd < 0 || fstat(fd, &sb) != 0) {
        err = "cannot read " + path + ": " + strerror(errno) + " (make one with \"arraysim init\")";
        if (fd >= 0) close(fd);
        return false;
    }
    st = State();
    size_t len = static_cast<size_t>(sb.st_size);
    void* m = len ? mmap(nullptr, len, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0) : MAP_FAILED;
    close(fd);
    if (m == MAP_FAILED) {
        auto data = std::make_shared<std::string>();
        if (!read_file(path, *data)) {
            err = "cannot read " + path + ": " + strerror(errno) +
                  " (make one with \"arraysim init\")";
            return false;
        }
        st.luns.hold_text(data);
        return parse_text(data->data(), data->size(), st, err, true);
    }
    st.luns.hold_text(std::shared_ptr<const void>(
        m, [len](const void* p) { munmap(const_cast<void*>(p), len); }));
    // A LUN record with its device takes a little under 200 bytes.
    st.luns.reserve(len / 160);
    return parse_text(static_cast<const char*>(m), len, st, err, true);
}

bool save_state(const std::string& dir, const State& st, std::string& err) {
    std::string path = state_file(dir);
    std::string tmp = path + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0;
    if (ok) {
        Out o;
        o.fd = fd;
        o.s.reserve(65536 + 4096);
        format_into(st, o);
        o.flush();
        ok = o.ok;
        if (close(fd) != 0) ok = false;
        if (ok && rename(tmp.c_str(), path.c_str()) != 0) ok = false;
        int e = errno;
        if (!ok) unlink(tmp.c_str());
        errno = e;
    }
    if (!ok) {
        err = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

void append_log(const std::string& dir, const std::string& line) {
    std::string path = dir + "/commands.log";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::string l = line;
    for (auto& c : l)
        if (c == '\n') c = ' ';
    l += '\n';
    write_all(fd, l.data(), l.size());
    close(fd);
}

}  // namespace arraysim
