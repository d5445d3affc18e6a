// The tape state file of a state folder ("tape.state"): media, drives and
// changers as text, one record a line, read and written under a lock file
// of its own so that the array's state and the tapes never wait on each other.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tools/arraysim/preload/tape_sim.h"

namespace arraysim {
namespace tape {

namespace {

// Values are single words: blanks, '%' and the list separators are escaped.
std::string esc(const std::string& s) {
    std::string o;
    for (unsigned char ch : s) {
        if (ch <= ' ' || ch == '%' || ch == '|' || ch == ',' || ch == '=' || ch >= 0x7f) {
            char b[4];
            snprintf(b, sizeof b, "%%%02X", ch);
            o += b;
        } else {
            o += static_cast<char>(ch);
        }
    }
    return o;
}

std::string unesc(const std::string& s) {
    std::string o;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] == '%' && i + 2 < s.size() + 0 && isxdigit(static_cast<unsigned char>(s[i + 1])) &&
            isxdigit(static_cast<unsigned char>(s[i + 2]))) {
            o += static_cast<char>(strtol(s.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            o += s[i];
        }
    }
    return o;
}

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> v;
    if (s.empty()) return v;
    size_t i = 0;
    for (;;) {
        size_t j = s.find(sep, i);
        v.push_back(s.substr(i, j == std::string::npos ? std::string::npos : j - i));
        if (j == std::string::npos) break;
        i = j + 1;
    }
    return v;
}

std::string join_list(const std::vector<std::string>& v) {
    std::string o;
    for (size_t i = 0; i < v.size(); i++) o += (i ? "|" : "") + (v[i].empty() ? "-" : esc(v[i]));
    return o;
}

std::vector<std::string> list_of(const std::string& s) {
    std::vector<std::string> v;
    for (auto& e : split(s, '|')) v.push_back(e == "-" ? "" : unesc(e));
    return v;
}

std::string items_text(const std::vector<Item>& items) {
    std::string o;
    for (size_t i = 0; i < items.size();) {
        size_t j = i;
        while (j < items.size() && items[j].filemark == items[i].filemark &&
               items[j].size == items[i].size)
            j++;
        if (!o.empty()) o += ",";
        o += items[i].filemark ? "F" : "R" + std::to_string(items[i].size);
        if (j - i > 1) o += "*" + std::to_string(j - i);
        i = j;
    }
    return o;
}

bool parse_items(const std::string& s, std::vector<Item>& items) {
    items.clear();
    for (const auto& tok : split(s, ',')) {
        if (tok.empty()) return false;
        size_t star = tok.find('*');
        long n = star == std::string::npos ? 1 : atol(tok.c_str() + star + 1);
        std::string kind = tok.substr(0, star);
        if (n <= 0 || n > 1000000) return false;
        Item it;
        if (kind == "F") {
            it.filemark = true;
        } else if (kind.size() > 1 && kind[0] == 'R') {
            it.size = static_cast<uint32_t>(strtoul(kind.c_str() + 1, nullptr, 10));
        } else {
            return false;
        }
        items.insert(items.end(), static_cast<size_t>(n), it);
    }
    return true;
}

std::string ints_text(const std::vector<int>& v) {
    std::string o;
    for (size_t i = 0; i < v.size(); i++) o += (i ? "|" : "") + std::to_string(v[i]);
    return o;
}

long num(const std::string& v) {
    return strtol(v.c_str(), nullptr, 0);
}

}  // namespace

std::string to_text(const TapeState& st) {
    std::ostringstream o;
    o << kTapeStateHeader << " " << kTapeStateVersion << "\n";
    for (const auto& kv : st.media) {
        const Medium& m = kv.second;
        o << "medium " << esc(kv.first) << " wp=" << m.wp << " density=" << m.density
          << " capacity=" << m.capacity << " items=" << items_text(m.items) << "\n";
    }
    for (const auto& d : st.drives) {
        o << "drive " << esc(d.name) << " vendor=" << esc(d.vendor) << " product=" << esc(d.product)
          << " rev=" << esc(d.rev) << " serial=" << esc(d.serial) << " volume=" << esc(d.volume)
          << " threaded=" << d.threaded << " pos=" << d.pos << " blocksize=" << d.blocksize
          << " compression=" << d.compression << " ua=" << d.ua
          << " sticky_reset=" << d.sticky_reset << " reserved_other=" << d.reserved_other
          << " reserved_self=" << d.reserved_self << " cleaning=" << d.cleaning
          << " medium_error_at=" << d.medium_error_at << " alerts=" << ints_text(d.alerts)
          << " enc=" << d.enc_mode << " dec=" << d.dec_mode << " pr_key=" << d.pr_key
          << " pr_reserved=" << d.pr_reserved << "\n";
    }
    for (const auto& c : st.changers) {
        o << "changer " << esc(c.name) << " vendor=" << esc(c.vendor)
          << " product=" << esc(c.product) << " rev=" << esc(c.rev) << " serial=" << esc(c.serial)
          << " slots=" << join_list(c.slots) << " drives=" << join_list(c.drives)
          << " ie=" << (c.ie.empty() ? "-" : esc(c.ie)) << " ua=" << c.ua
          << " reserved_other=" << c.reserved_other << "\n";
    }
    return o.str();
}

bool from_text(const std::string& text, TapeState& st, std::string& err) {
    st = TapeState();
    std::istringstream in(text);
    std::string line;
    int lineno = 0;
    while (std::getline(in, line)) {
        lineno++;
        std::istringstream w(line);
        std::string kind, name;
        w >> kind;
        if (kind.empty() || kind[0] == '#') continue;
        if (lineno == 1 || kind == kTapeStateHeader) {
            int v = 0;
            w >> v;
            if (kind != kTapeStateHeader || v != kTapeStateVersion) {
                err = "tape state: not a version " + std::to_string(kTapeStateVersion) +
                      " tape state file";
                return false;
            }
            continue;
        }
        w >> name;
        name = unesc(name);
        std::vector<std::pair<std::string, std::string>> kv;
        std::string tok;
        while (w >> tok) {
            size_t eq = tok.find('=');
            if (eq == std::string::npos) {
                err = "tape state line " + std::to_string(lineno) + ": expected KEY=VALUE";
                return false;
            }
            kv.emplace_back(tok.substr(0, eq), tok.substr(eq + 1));
        }
        if (name.empty()) {
            err = "tape state line " + std::to_string(lineno) + ": no name";
            return false;
        }
        if (kind == "medium") {
            Medium m;
            for (auto& p : kv) {
                if (p.first == "wp") m.wp = num(p.second) != 0;
                if (p.first == "density") m.density = static_cast<int>(num(p.second));
                if (p.first == "capacity") m.capacity = static_cast<size_t>(num(p.second));
                if (p.first == "items" && !p.second.empty() && !parse_items(p.second, m.items)) {
                    err = "tape state line " + std::to_string(lineno) + ": bad items";
                    return false;
                }
            }
            st.media[name] = m;
        } else if (kind == "drive") {
            Drive d;
            d.name = name;
            for (auto& p : kv) {
                const std::string& k = p.first;
                const std::string v = unesc(p.second);
                if (k == "vendor") d.vendor = v;
                if (k == "product") d.product = v;
                if (k == "rev") d.rev = v;
                if (k == "serial") d.serial = v;
                if (k == "volume") d.volume = v;
                if (k == "threaded") d.threaded = num(v) != 0;
                if (k == "pos") d.pos = static_cast<size_t>(num(v));
                if (k == "blocksize") d.blocksize = static_cast<uint32_t>(num(v));
                if (k == "compression") d.compression = num(v) != 0;
                if (k == "ua") d.ua = static_cast<int>(num(v));
                if (k == "sticky_reset") d.sticky_reset = static_cast<int>(num(v));
                if (k == "reserved_other") d.reserved_other = num(v) != 0;
                if (k == "reserved_self") d.reserved_self = num(v) != 0;
                if (k == "cleaning") d.cleaning = num(v) != 0;
                if (k == "medium_error_at") d.medium_error_at = static_cast<int>(num(v));
                if (k == "alerts")
                    for (auto& a : split(v, '|')) d.alerts.push_back(static_cast<int>(num(a)));
                if (k == "enc") d.enc_mode = static_cast<int>(num(v));
                if (k == "dec") d.dec_mode = static_cast<int>(num(v));
                if (k == "pr_key") d.pr_key = strtoull(v.c_str(), nullptr, 0);
                if (k == "pr_reserved") d.pr_reserved = num(v) != 0;
            }
            st.drives.push_back(d);
        } else if (kind == "changer") {
            Changer c;
            c.name = name;
            for (auto& p : kv) {
                const std::string& k = p.first;
                if (k == "vendor") c.vendor = unesc(p.second);
                if (k == "product") c.product = unesc(p.second);
                if (k == "rev") c.rev = unesc(p.second);
                if (k == "serial") c.serial = unesc(p.second);
                if (k == "slots") c.slots = list_of(p.second);
                if (k == "drives") c.drives = list_of(p.second);
                if (k == "ie") c.ie = p.second == "-" ? "" : unesc(p.second);
                if (k == "ua") c.ua = static_cast<int>(num(p.second));
                if (k == "reserved_other") c.reserved_other = num(p.second) != 0;
            }
            st.changers.push_back(c);
        } else {
            err = "tape state line " + std::to_string(lineno) + ": unknown record " + kind;
            return false;
        }
    }
    return true;
}

bool load(const std::string& dir, TapeState& st, std::string& err) {
    std::ifstream f(dir + "/" + kTapeStateFile);
    if (!f) {
        st = TapeState();  // no tapes in this folder
        return true;
    }
    std::stringstream b;
    b << f.rdbuf();
    return from_text(b.str(), st, err);
}

bool save(const std::string& dir, const TapeState& st, std::string& err) {
    const std::string path = dir + "/" + kTapeStateFile, tmp = path + ".tmp";
    {
        std::ofstream f(tmp, std::ios::trunc);
        f << to_text(st);
        if (!f) {
            err = "cannot write " + tmp;
            return false;
        }
    }
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        err = "cannot replace " + path;
        return false;
    }
    return true;
}

TapeLock::TapeLock(const std::string& dir) {
    fd_ = ::open((dir + "/tape.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ >= 0)
        while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {}
}

TapeLock::~TapeLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace tape
}  // namespace arraysim
