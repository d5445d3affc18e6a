// Small text helpers shared by the output parsers of the volume map, storage
// group, capability and session code. Stateless; safe on any thread.
#pragma once

#include <regex.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "storage/ssm/merlode/cli/zov_quillset.h"

namespace zov_text {

// Row `row` of the object's expression table on a whole line; pm may be
// null when nothing is captured.
inline bool rx(zov_quillset& q, int row, const std::string& line, regmatch_t* pm = nullptr,
               size_t npm = 0) {
    return q.rxmatch(row, line, pm ? npm : 0, pm) == 0;
}

// The text of one capture, or "" for a group that took no part.
inline std::string rx_group(const std::string& line, const regmatch_t& m) {
    if (m.rm_so < 0 || m.rm_eo < m.rm_so || (size_t)m.rm_eo > line.size()) return std::string();
    return line.substr((size_t)m.rm_so, (size_t)(m.rm_eo - m.rm_so));
}

// RemoveNonprntChars for any text: one made only of blanks and line ends
// becomes empty instead of reaching the cleaner with nothing to keep.
inline std::string cleaned(std::string s) {
    if (s.find_first_not_of(" \t\r\n\v\f") == std::string::npos) return std::string();
    RemoveNonprntChars(s);
    return s;
}

// Everything after the first ':' of a keyed line, cleaned.
inline std::string value_after_colon(const std::string& line) {
    size_t c = line.find(':');
    if (c == std::string::npos) return std::string();
    return cleaned(line.substr(c + 1));
}

// A base 10 number that never overflows an int; text without digits is 0.
inline int to_int(const std::string& s) {
    long v = strtol(s.c_str(), nullptr, 10);
    if (v > 0x7fffffffL) return 0x7fffffff;
    if (v < -0x7fffffffL - 1) return -0x7fffffff - 1;
    return (int)v;
}

// sscanf "%i" of a capture into `out`, which keeps its value when the text
// holds no number (the parsers rely on that).
inline bool scan_i(const std::string& text, int& out) {
    // Up to nine decimal digits without a leading 0 (which "%i" reads as
    // octal) are what the array prints; they fit an int, and sscanf would
    // read them alike at many times the cost.
    const size_t n = text.size();
    if (n >= 1 && n <= 9 && (text[0] != '0' || n == 1)) {
        int d = 0;
        size_t i = 0;
        for (; i < n && text[i] >= '0' && text[i] <= '9'; i++) d = d * 10 + (text[i] - '0');
        if (i == n) {
            out = d;
            return true;
        }
    }
    int v = 0;
    if (sscanf(text.c_str(), "%i", &v) != 1) return false;
    out = v;
    return true;
}

}  // namespace zov_text
