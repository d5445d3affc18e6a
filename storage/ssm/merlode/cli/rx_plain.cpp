// Hand-written matchers for the busiest rows of the expression table.
//
// Why each answer equals regexec's: every row below starts with a literal
// keyword, so a match starts where the keyword stands, and the first place
// that matches is the one regexec reports. After the keyword each piece is
// forced to its longest run: the blanks end where the value's first
// character (never a blank) begins, and the value ends at the end of its own
// class or of the line, which is also where the longest match ends. When
// anything of that fails at the keyword's first place, or the line is not
// plain ASCII with at most a last line feed (where "." and the classes of a
// multibyte locale, or a second line, would change the answer), the row's
// expression decides instead.
#include "storage/ssm/merlode/cli/rx_plain.h"

#include <ctype.h>
#include <langinfo.h>
#include <stdlib.h>
#include <string.h>

#include "storage/ssm/merlode/cli/zov_quillset.h"

namespace {

// What follows the keyword and its blanks.
enum class Value {
    None,        // "W[[:space:]]+"
    Digits,      // "W[[:space:]]+([[:digit:]]+)"
    DigitsOpt,   // "W[[:space:]]+([[:digit:]]*)"
    Token,       // "W[[:space:]]+([^[:space:]]+)"
    TokenToEol,  // "W[[:space:]]+([^[:space:]]+)\n"
    Rest,        // "W[[:space:]]+([^[:space:]].*)", "(.*)", "(.+)"
    RestToEol,   // "W[[:space:]]+([^[:space:]].*)\n", "(.*)\n"
    // "W.+:[[:space:]]+(C+)\n": the value is the run of its class that ends
    // the line, the blanks before it the run that ends there, and the colon
    // must stand right before those blanks, past at least one character.
    ColonTokenToEol,     // C = [^[:space:]]
    ColonRevisionToEol,  // C = [_\.[:digit:]]
};

struct Shape {
    int row;
    const char* word;
    Value value;
};

const Shape kShapes[] = {
    {RX_SG_NAME, "Storage Group Name:", Value::RestToEol},
    {RX_SESSION_NAME, "Name of the session:", Value::RestToEol},
    {RX_CLONE_GROUP_NAME, "Name:", Value::RestToEol},
    {RX_CLONE_ID, "CloneID:", Value::TokenToEol},
    {RX_CLONE_GROUP_UID, "CloneGroupUid:", Value::TokenToEol},
    {RX_CLONE_STATE, "CloneState:", Value::Token},
    {RX_SOURCES, "Sources:", Value::Digits},
    {RX_CLONES, "Clones:", Value::None},
    {RX_CLONE_CONDITION, "CloneCondition:", Value::Rest},
    {RX_IS_FRACTURED, "IsFractured:", Value::Rest},
    {RX_CLONE_LUNS, "CloneLUNs:", Value::TokenToEol},
    {RX_LUN_NUMBER, "LOGICAL UNIT NUMBER", Value::DigitsOpt},
    {RX_LUN_UID, "UID:", Value::Rest},
    {RX_SYNC_RATE, "SyncRate:", Value::Rest},
    {RX_CLONE_LUN_WWNS, "CloneLUNWWNs:", Value::Token},
    {RX_SG_UID, "Storage Group UID:", Value::Rest},
    // The version survey reads every line of the array's software list.
    {RX_PKG_NAME, "Name of the", Value::ColonTokenToEol},
    {RX_PKG_REVISION, "Revision of", Value::ColonRevisionToEol},
    {RX_COMMIT_REQUIRED, "Commit Required:", Value::TokenToEol},
    {RX_ACTIVE_STATE, "Active State:", Value::TokenToEol},
};

// The "C" classes, which rx_plain_locale_ok holds the locale to.
bool is_space(unsigned char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
bool is_digit(unsigned char c) {
    return c >= '0' && c <= '9';
}
bool is_word(unsigned char c) {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

// Plain ASCII without NUL, and a line feed only as the last byte.
bool plain(const std::string& text) {
    const size_t n = text.size();
    for (size_t i = 0; i < n; i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == 0 || c >= 0x80 || (c == '\n' && i + 1 != n)) return false;
    }
    return true;
}

size_t skip(const std::string& text, size_t at, bool (*in)(unsigned char)) {
    while (at < text.size() && in(static_cast<unsigned char>(text[at]))) at++;
    return at;
}

bool not_space(unsigned char c) {
    return !is_space(c);
}
bool is_revision(unsigned char c) {
    return is_digit(c) || c == '_' || c == '.';
}

int fill(size_t nmatch, regmatch_t* pm, size_t m0, size_t m1, long g0 = -1, long g1 = -1,
         long h0 = -1, long h1 = -1) {
    for (size_t i = 0; i < nmatch; i++) pm[i].rm_so = pm[i].rm_eo = -1;
    if (nmatch > 0) {
        pm[0].rm_so = static_cast<regoff_t>(m0);
        pm[0].rm_eo = static_cast<regoff_t>(m1);
    }
    if (nmatch > 1) {
        pm[1].rm_so = static_cast<regoff_t>(g0);
        pm[1].rm_eo = static_cast<regoff_t>(g1);
    }
    if (nmatch > 2) {
        pm[2].rm_so = static_cast<regoff_t>(h0);
        pm[2].rm_eo = static_cast<regoff_t>(h1);
    }
    return 0;
}

// "W.+:[[:space:]]+(C+)\n" after the keyword ending at `at`: the line's
// last line feed ends the match, so each piece is found backwards from it.
int colon_row(const std::string& text, size_t p, size_t at, bool (*in)(unsigned char),
              size_t nmatch, regmatch_t* pm) {
    const size_t n = text.size();
    if (n == 0 || text[n - 1] != '\n') return RX_PLAIN_UNSURE;
    size_t t = n - 1;
    while (t > at && in(static_cast<unsigned char>(text[t - 1]))) t--;
    size_t b = t;
    while (b > at && is_space(static_cast<unsigned char>(text[b - 1]))) b--;
    if (t == n - 1 || b == t || b < at + 2 || text[b - 1] != ':') return RX_PLAIN_UNSURE;
    return fill(nmatch, pm, p, n, t, n - 1);
}

// "^\s+(\w+)\s+(\w+)": anchored, each run forced to its whole length.
int hlu_alu_row(const std::string& text, size_t nmatch, regmatch_t* pm) {
    size_t a = skip(text, 0, is_space);
    size_t b = skip(text, a, is_word);
    size_t c = skip(text, b, is_space);
    size_t d = skip(text, c, is_word);
    if (a == 0 || b == a || c == b || d == c) return RX_PLAIN_UNSURE;
    return fill(nmatch, pm, 0, d, a, b, c, d);
}

int keyed_row(const Shape& s, const std::string& text, size_t nmatch, regmatch_t* pm) {
    const size_t n = text.size();
    size_t p = text.find(s.word);
    if (p == std::string::npos) return RX_PLAIN_UNSURE;
    size_t at = p + strlen(s.word);
    if (s.value == Value::ColonTokenToEol) return colon_row(text, p, at, not_space, nmatch, pm);
    if (s.value == Value::ColonRevisionToEol)
        return colon_row(text, p, at, is_revision, nmatch, pm);
    size_t q = skip(text, at, is_space);
    // No blank, or blanks to the end: the value's class alone would not
    // settle where the blanks stop.
    if (q == at || q == n) return RX_PLAIN_UNSURE;
    switch (s.value) {
    case Value::None: return fill(nmatch, pm, p, q);
    case Value::Digits:
    case Value::DigitsOpt: {
        size_t r = skip(text, q, is_digit);
        if (r == q && s.value == Value::Digits) return RX_PLAIN_UNSURE;
        return fill(nmatch, pm, p, r, q, r);
    }
    case Value::Token: {
        size_t r = skip(text, q, not_space);
        return fill(nmatch, pm, p, r, q, r);
    }
    case Value::TokenToEol: {
        size_t r = skip(text, q, not_space);
        if (r + 1 != n || text[r] != '\n') return RX_PLAIN_UNSURE;
        return fill(nmatch, pm, p, n, q, r);
    }
    case Value::Rest: return fill(nmatch, pm, p, n, q, n);
    case Value::RestToEol:
        if (text[n - 1] != '\n') return RX_PLAIN_UNSURE;
        return fill(nmatch, pm, p, n, q, n - 1);
    case Value::ColonTokenToEol:
    case Value::ColonRevisionToEol: break;
    }
    return RX_PLAIN_UNSURE;
}

}  // namespace

int rx_plain_match(int row, const std::string& text, size_t nmatch, regmatch_t* pmatch) {
    if (nmatch > 0 && pmatch == nullptr) return RX_PLAIN_UNSURE;
    if (row == RX_HLU_ALU_ROW)
        return plain(text) ? hlu_alu_row(text, nmatch, pmatch) : RX_PLAIN_UNSURE;
    for (const Shape& s : kShapes)
        if (s.row == row) return plain(text) ? keyed_row(s, text, nmatch, pmatch) : RX_PLAIN_UNSURE;
    return RX_PLAIN_UNSURE;
}

bool rx_plain_locale_ok() {
    // Beyond one byte a character of another code set may hold ASCII bytes
    // in its tail; UTF-8 never does.
    if (MB_CUR_MAX != 1 && strcmp(nl_langinfo(CODESET), "UTF-8") != 0) return false;
    for (int c = 1; c < 0x80; c++) {
        unsigned char u = static_cast<unsigned char>(c);
        if ((isspace(c) != 0) != is_space(u) || (isdigit(c) != 0) != is_digit(u) ||
            ((isalnum(c) != 0) || c == '_') != is_word(u))
            return false;
    }
    return true;
}
