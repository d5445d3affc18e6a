// The pieces of the state's text form that its reader, its writer, the LUN
// table and the folder code share. Internal to the simulator's state code;
// not thread-safe (one State per invocation).
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "tools/arraysim/state.h"
#include "tools/arraysim/text.h"

namespace arraysim {
namespace text {

// One "key=value" of a record line, pointing into the line.
struct Token {
    const char* key;
    size_t klen;
    const char* val;
    size_t vlen;
    bool is(const char* k, size_t n) const { return n == klen && memcmp(k, key, klen) == 0; }
    template <size_t N>
    bool is(const char (&k)[N]) const {
        return is(k, N - 1);
    }
    std::string str() const {
        // Most values need no unescaping; skip the slow path for them.
        if (!memchr(val, '%', vlen)) return std::string(val, vlen);
        return unescape_value(val, vlen);
    }
};

// Splits a record line into its kind and its tokens; false when malformed.
bool split_line(const char* p, const char* end, std::string& kind, std::vector<Token>& toks);

// One line of [p, end): `q`..`te` is its text without surrounding blanks,
// empty for a blank line or a comment.
struct Line {
    const char* next;
    const char* q;
    const char* te;
};
Line next_line(const char* p, const char* end);
std::string malformed(int lineno, const char* q, const char* te);
// Whether [q, te) starts with the word w of n characters.
inline bool starts_word(const char* q, const char* te, const char* w, size_t n) {
    return static_cast<size_t>(te - q) >= n && memcmp(q, w, n) == 0 && (q + n == te || q[n] == ' ');
}
// The head of a LUN line as arraysim writes it, "lun frame=F num=N ...";
// false for any other layout, which is then read the slow way.
bool quick_lun_head(const char* q, const char* te, int& frame, int& num);

// The LUN record and the device lines under it (`version` says what a
// missing key means).
bool parse_lun(const std::vector<Token>& toks, Lun& r, int version);
bool parse_dev(const std::vector<Token>& toks, HostDev& r);
// The same for a whole record in the layout arraysim writes, read in one
// pass into `r`'s own strings; false for anything else (read it then with
// split_line, parse_lun and parse_dev), leaving `r` half filled.
bool quick_parse_lun(const char* p, const char* end, Lun& r, int version);

// Reads the text; with `lazy`, LUN records in arraysim's own layout are kept
// as text spans and parsed when first used.
bool parse_text(const char* data, size_t len, State& st, std::string& err, bool lazy);

bool write_all(int fd, const char* p, size_t n);

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
        append_int(s, v);
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
            append_int(s, v[i]);
        }
    }
    void end() { s += '\n'; }
};

void format_into(const State& st, Out& o);

}  // namespace text
}  // namespace arraysim
