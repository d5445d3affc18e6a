// The LUN table: records kept as the text they were read as until first used.
#include <algorithm>
#include <cstring>

#include "tools/arraysim/state.h"
#include "tools/arraysim/state_text.h"
#include "tools/arraysim/text.h"

namespace arraysim {

using text::Line;
using text::malformed;
using text::next_line;
using text::split_line;
using text::Token;

LunTable::LunTable(const LunTable& o) {
    *this = o;
}

LunTable& LunTable::operator=(const LunTable& o) {
    if (this == &o) return *this;
    text_ = o.text_;
    version_ = o.version_;
    runs_ = o.runs_;
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
    split();
    Slot s;
    s.frame = l.frame;
    s.num = l.num;
    s.lun.reset(new Lun(std::move(l)));
    slots_.push_back(std::move(s));
    index_ok_ = false;
}

void LunTable::clear() {
    slots_.clear();
    runs_.clear();
    text_.reset();
    index_.clear();
    index_ok_ = false;
}

void LunTable::add_run(const char* begin, const char* end, int line, size_t count) {
    runs_.push_back(Run{begin, end, line, count});
    index_ok_ = false;
}

// The unsigned decimal of at most nine digits at p, ended by `stop` (or, with
// `nl`, by a line feed); the position of what ended it, or null.
static const char* quick_num(const char* p, const char* end, char stop, bool nl, int& out) {
    unsigned v = 0;
    const char* q = scan_digits(p, end, v);
    if (q == p || q == end || !(*q == stop || (nl && *q == '\n'))) return nullptr;
    out = static_cast<int>(v);
    return q;
}

// "lun frame=F num=N" opening the line at p, with plain numbers: the end of
// the line (its line feed or `end`), or null for anything else, which
// quick_lun_head and next_line then read. Thousands of lines are split on
// every command that looks at a LUN.
static const char* quick_lun_line(const char* p, const char* end, int& frame, int& num) {
    static const char k1[] = "lun frame=";
    static const char k2[] = " num=";
    if (static_cast<size_t>(end - p) < sizeof k1 - 1 || memcmp(p, k1, sizeof k1 - 1) != 0)
        return nullptr;
    const char* q = quick_num(p + sizeof k1 - 1, end, ' ', false, frame);
    if (!q || static_cast<size_t>(end - q) < sizeof k2 - 1 || memcmp(q, k2, sizeof k2 - 1) != 0)
        return nullptr;
    q = quick_num(q + sizeof k2 - 1, end, ' ', true, num);
    if (!q) return nullptr;
    if (*q == '\n') return q;
    const char* nl = static_cast<const char*>(memchr(q, '\n', end - q));
    return nl ? nl : end;
}

void LunTable::split_runs() const {
    size_t n = slots_.size();
    for (const Run& r : runs_) n += r.count;
    slots_.reserve(n);
    populate_pages(slots_.data() + slots_.size(), slots_.data() + slots_.capacity());
    std::vector<size_t> whole;
    for (const Run& r : runs_) {
        int lineno = r.line - 1;
        size_t first = slots_.size();
        for (const char* p = r.begin; p < r.end;) {
            ++lineno;
            // The layout arraysim writes, first: a dev line needs no more
            // than its end.
            if (r.end - p > 4 && memcmp(p, "dev ", 4) == 0) {
                const char* nl = static_cast<const char*>(memchr(p + 4, '\n', r.end - p - 4));
                p = nl ? nl + 1 : r.end;
                continue;
            }
            int frame, num;
            if (const char* nl = quick_lun_line(p, r.end, frame, num)) {
                if (slots_.size() > first) slots_.back().len = p - slots_.back().raw;
                slots_.emplace_back();
                Slot& s = slots_.back();
                s.raw = p;
                s.line = lineno;
                s.frame = frame;
                s.num = num;
                p = nl < r.end ? nl + 1 : r.end;
                continue;
            }
            Line ln = next_line(p, r.end);
            // Blank lines, comments and dev lines belong to the record above.
            if (text::starts_word(ln.q, ln.te, "lun", 3)) {
                if (slots_.size() > first) slots_.back().len = p - slots_.back().raw;
                slots_.emplace_back();
                Slot& s = slots_.back();
                s.raw = p;
                s.line = lineno;
                // Not arraysim's own layout: its frame and number come from
                // reading it whole, below.
                if (!text::quick_lun_head(ln.q, ln.te, s.frame, s.num))
                    whole.push_back(slots_.size() - 1);
            }
            p = ln.next;
        }
        if (slots_.size() > first) slots_.back().len = r.end - slots_.back().raw;
    }
    runs_.clear();
    for (size_t i : whole) materialize(i);
}

int LunTable::frame_at(size_t i) const {
    const Slot& s = split()[i];
    return s.lun ? s.lun->frame : s.frame;
}

int LunTable::num_at(size_t i) const {
    const Slot& s = split()[i];
    return s.lun ? s.lun->num : s.num;
}

static unsigned long long lun_key(int frame, int num) {
    return static_cast<unsigned long long>(static_cast<unsigned>(frame)) << 32 |
           static_cast<unsigned>(num);
}

long LunTable::find(int frame, int num) const {
    // Commands look LUNs up by the thousand (a storage group's pairs): a
    // sorted index keeps that linear. arraysim writes the records in order,
    // and then they are their own index, with no table to build.
    split();
    auto key = [this](size_t i) {
        const Slot& s = slots_[i];
        return s.lun ? lun_key(s.lun->frame, s.lun->num) : lun_key(s.frame, s.num);
    };
    if (!index_ok_) {
        in_order_ = true;
        for (size_t i = 1; i < slots_.size() && in_order_; ++i) in_order_ = key(i - 1) <= key(i);
        index_.clear();
        if (!in_order_) {
            index_.reserve(slots_.size());
            for (size_t i = 0; i < slots_.size(); ++i) index_.emplace_back(key(i), i);
            std::stable_sort(index_.begin(), index_.end());
        }
        index_ok_ = true;
    }
    unsigned long long k = lun_key(frame, num);
    if (in_order_) {
        size_t lo = 0, hi = slots_.size();
        while (lo < hi) {
            size_t mid = lo + (hi - lo) / 2;
            if (key(mid) < k)
                lo = mid + 1;
            else
                hi = mid;
        }
        if (lo < slots_.size() && key(lo) == k) return static_cast<long>(lo);
    } else {
        auto it = std::lower_bound(index_.begin(), index_.end(), std::make_pair(k, size_t(0)));
        if (it != index_.end() && it->first == k && key(it->second) == k)
            return static_cast<long>(it->second);
    }
    // A parsed record may have been renumbered since the order was seen.
    for (size_t i = 0; i < slots_.size(); ++i)
        if (frame_at(i) == frame && num_at(i) == num) return static_cast<long>(i);
    return -1;
}

void LunTable::append_wwn(size_t i, std::string& out) const {
    const Slot& s = split()[i];
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
    const Slot& s = split()[i];
    if (s.lun) return nullptr;
    len = s.len;
    return s.raw;
}

// Every field of a Lun as a record without keys leaves it, in place: the
// strings keep their room from one record to the next.
static void reset_lun(Lun& l) {
    l.frame = 0;
    l.num = 0;
    l.name.clear();
    l.wwn.clear();
    l.blocks = 0;
    l.trespassed = false;
    l.mount.clear();
    l.snapname.clear();
    l.snapdev.clear();
    l.smp = -1;
    l.smpdev.clear();
    l.cg.clear();
    l.devs.clear();
}

void LunTable::parse_slot(const Slot& s, Lun& l) const {
    if (text::quick_parse_lun(s.raw, s.raw + s.len, l, version_)) return;
    // Some other layout, or a malformed record: read it line by line, which
    // also says which line is wrong.
    reset_lun(l);
    std::string kind;
    // Kept between records: a listing reads thousands of them.
    static thread_local std::vector<Token> toks;
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
            ok = kind == "lun" && text::parse_lun(toks, l, version_);
            first = false;
        } else if (ok) {
            l.devs.emplace_back();
            ok = kind == "dev" && text::parse_dev(toks, l.devs.back());
        }
        if (!ok) throw StateError(malformed(lineno, ln.q, ln.te));
    }
}

Lun& LunTable::materialize(size_t i) const {
    const Slot& s = split()[i];
    if (s.lun) return *s.lun;
    std::unique_ptr<Lun> l(new Lun);
    parse_slot(s, *l);
    s.lun = std::move(l);
    return *s.lun;
}

const Lun& LunTable::peek(size_t i) const {
    const Slot& s = split()[i];
    if (s.lun || !s.raw) return materialize(i);
    static thread_local Lun l;
    reset_lun(l);
    parse_slot(s, l);
    return l;
}

bool LunTable::materialize_all(std::string& err) const {
    try {
        for (size_t i = 0; i < size(); ++i) materialize(i);
    } catch (const StateError& e) {
        err = e.what();
        return false;
    }
    return true;
}

}  // namespace arraysim
