// Column measures and locale conversions.
#include "liblocal/kv_utf8.h"

#include <errno.h>
#include <iconv.h>
#include <langinfo.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "liblocal/kv_mem.h"

namespace {
struct Range {
    uint32_t lo, hi;
};

// East Asian Wide and Fullwidth blocks (the ranges a terminal draws in two cells).
const Range k_wide[] = {
    {0x1100, 0x115F},   {0x231A, 0x231B},   {0x2329, 0x232A},   {0x23E9, 0x23EC},
    {0x2E80, 0x303E},   {0x3041, 0x33FF},   {0x3400, 0x4DBF},   {0x4E00, 0x9FFF},
    {0xA000, 0xA4CF},   {0xA960, 0xA97F},   {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},
    {0xFE10, 0xFE19},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},   {0xFFE0, 0xFFE6},
    {0x1F300, 0x1F64F}, {0x1F900, 0x1F9FF}, {0x20000, 0x2FFFD}, {0x30000, 0x3FFFD},
};

// Marks drawn on top of the previous character.
const Range k_zero[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A},
    {0x064B, 0x065F}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF}, {0x200B, 0x200F},
    {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F},
};

bool in(const Range* r, size_t n, uint32_t cp) {
    for (size_t i = 0; i < n; ++i)
        if (cp >= r[i].lo && cp <= r[i].hi) return true;
    return false;
}

// Decodes one character; returns its byte length, or 1 with cp = the byte for
// an invalid sequence.
int decode(const unsigned char* s, uint32_t* cp) {
    unsigned char c = s[0];
    int len;
    uint32_t v;
    if (c < 0x80) {
        *cp = c;
        return 1;
    } else if ((c & 0xE0) == 0xC0) {
        len = 2;
        v = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
        len = 3;
        v = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
        len = 4;
        v = c & 0x07;
    } else {
        *cp = c;
        return 1;
    }
    for (int i = 1; i < len; ++i) {
        if ((s[i] & 0xC0) != 0x80) {
            *cp = c;
            return 1;
        }
        v = (v << 6) | (s[i] & 0x3F);
    }
    *cp = v;
    return len;
}

bool is_ascii(const char* s) {
    for (; *s; ++s)
        if (static_cast<unsigned char>(*s) >= 0x80) return false;
    return true;
}

}  // namespace

int utf8_charlen(const char* s) {
    if (s == nullptr || *s == '\0') return 0;
    uint32_t cp;
    return decode(reinterpret_cast<const unsigned char*>(s), &cp);
}

int utf8_ttywidth(const char* s) {
    if (s == nullptr || *s == '\0') return 0;
    uint32_t cp;
    int len = decode(reinterpret_cast<const unsigned char*>(s), &cp);
    if (len == 1) return 1;
    if (in(k_zero, sizeof(k_zero) / sizeof(k_zero[0]), cp)) return 0;
    if (in(k_wide, sizeof(k_wide) / sizeof(k_wide[0]), cp)) return 2;
    return 1;
}

size_t utf8_ttystrlen(const char* s) {
    size_t cols = 0;
    if (s == nullptr) return 0;
    while (*s != '\0') {
        cols += static_cast<size_t>(utf8_ttywidth(s));
        s += utf8_charlen(s);
    }
    return cols;
}

int kv_locale_is_utf8(void) {
    const char* cs = nl_langinfo(CODESET);
    return cs != nullptr && (strcasecmp(cs, "UTF-8") == 0 || strcasecmp(cs, "utf8") == 0);
}

char* kv_syscalls_utf8s_to_mbs(const char* s) {
    if (s == nullptr || is_ascii(s) || kv_locale_is_utf8()) return const_cast<char*>(s);
    char* out = kv_iconv_dup(nl_langinfo(CODESET), "UTF-8", s);
    return out != nullptr ? out : const_cast<char*>(s);
}

char* kv_syscalls_mbs_to_utf8s(const char* s) {
    if (s == nullptr || is_ascii(s) || kv_locale_is_utf8()) return const_cast<char*>(s);
    char* out = kv_iconv_dup("UTF-8", nl_langinfo(CODESET), s);
    return out != nullptr ? out : const_cast<char*>(s);
}

char* kv_iconv_dup(const char* to, const char* from, const char* s) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) return nullptr;
    size_t inlen = strlen(s);
    size_t cap = inlen * 4 + 8;
    char* out = static_cast<char*>(xmalloc(cap));
    char* in = const_cast<char*>(s);
    char* w = out;
    size_t left = cap - 1;
    size_t rc = iconv(cd, &in, &inlen, &w, &left);
    if (rc != static_cast<size_t>(-1)) rc = iconv(cd, nullptr, nullptr, &w, &left);
    int saved = errno;
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1)) {
        free(out);
        errno = saved;
        return nullptr;
    }
    *w = '\0';
    return out;
}

void kv_conv_free(const char* original, char* converted) {
    if (converted != nullptr && converted != original) free(converted);
}
