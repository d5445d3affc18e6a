// The simulated array's records: lookups, the names and WWNs a LUN has by
// default, and the escaping of values in the text form.
#include "tools/arraysim/state.h"

#include <strings.h>
#include <cstdio>
#include <cstring>

namespace arraysim {

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

const Lun* State::peek_lun(int frame, int num) const {
    long i = luns.find(frame, num);
    return i < 0 ? nullptr : &luns.peek(static_cast<size_t>(i));
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
void append_default_lun_wwn(std::string& out, int frame, int num) {
    static const char hex[] = "0123456789ABCDEF";
    // The first eight bytes are the same for every LUN; the colons too.
    char buf[48] = "60:06:01:60:00:00:00:00:00:00:00:00:00:00:00:00";
    unsigned f = static_cast<unsigned>(frame), n = static_cast<unsigned>(num);
    for (int i = 0; i < 4; ++i) {
        unsigned fb = (f >> (8 * (3 - i))) & 255, nb = (n >> (8 * (3 - i))) & 255;
        buf[24 + i * 3] = hex[fb >> 4];
        buf[25 + i * 3] = hex[fb & 15];
        buf[36 + i * 3] = hex[nb >> 4];
        buf[37 + i * 3] = hex[nb & 15];
    }
    out.append(buf, 47);
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

}  // namespace arraysim
