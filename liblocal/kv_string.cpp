// String helpers, the tokenizer and command_string.
#include "liblocal/kv_string.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "liblocal/kv_error.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_trace.h"

size_t kv_strlcpy(char* dst, const char* src, const size_t siz) {
    if (src == nullptr) src = "";
    size_t len = strlen(src);
    if (dst != nullptr && siz > 0) {
        size_t n = len < siz - 1 ? len : siz - 1;
        memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

size_t kv_strlcat(char* dst, const char* src, const size_t siz) {
    if (src == nullptr) src = "";
    size_t slen = strlen(src);
    if (dst == nullptr) return slen;
    size_t dlen = strnlen(dst, siz);
    // A destination with no terminator inside siz is left alone, as strlcat does.
    if (dlen == siz) return siz + slen;
    size_t room = siz - dlen - 1;
    size_t n = slen < room ? slen : room;
    memcpy(dst + dlen, src, n);
    dst[dlen + n] = '\0';
    return dlen + slen;
}

size_t kv_strlen(const char* ptr) {
    return ptr == nullptr ? 0 : strlen(ptr);
}

char* kv_strlower(char* string) {
    if (string == nullptr) return nullptr;
    for (char* p = string; *p; ++p) *p = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
    return string;
}

char* kv_strupper(char* string) {
    if (string == nullptr) return nullptr;
    for (char* p = string; *p; ++p) *p = static_cast<char>(toupper(static_cast<unsigned char>(*p)));
    return string;
}

char* kv_strreplace(const char* str, const char* from, const char* to) {
    if (str == nullptr) return nullptr;
    size_t flen = kv_strlen(from);
    if (flen == 0) return xstrdup(str);
    if (to == nullptr) to = "";
    size_t tlen = strlen(to);
    size_t count = 0;
    for (const char* p = strstr(str, from); p != nullptr; p = strstr(p + flen, from)) ++count;
    char* out = static_cast<char*>(xmalloc(strlen(str) - count * flen + count * tlen + 1));
    char* w = out;
    const char* r = str;
    for (const char* p = strstr(r, from); p != nullptr; p = strstr(r, from)) {
        memcpy(w, r, static_cast<size_t>(p - r));
        w += p - r;
        memcpy(w, to, tlen);
        w += tlen;
        r = p + flen;
    }
    strcpy(w, r);
    return out;
}

char* kv_stristr(const char* haystack, const char* needle) {
    if (haystack == nullptr || needle == nullptr) return nullptr;
    size_t nlen = strlen(needle);
    for (const char* p = haystack; *p; ++p)
        if (strncasecmp(p, needle, nlen) == 0) return const_cast<char*>(p);
    return nlen == 0 ? const_cast<char*>(haystack) : nullptr;
}

int kv_strvlen(char** vec) {
    int n = 0;
    if (vec != nullptr)
        while (vec[n] != nullptr) ++n;
    return n;
}

char** kv_strvcat(char** vec, const char* str) {
    int n = kv_strvlen(vec);
    vec = static_cast<char**>(xrealloc(vec, sizeof(char*) * static_cast<size_t>(n + 2)));
    vec[n] = xstrdup(str == nullptr ? "" : str);
    vec[n + 1] = nullptr;
    return vec;
}

char** kv_strvdup(char** vec) {
    if (vec == nullptr) return nullptr;
    int n = kv_strvlen(vec);
    char** out = static_cast<char**>(xmalloc(sizeof(char*) * static_cast<size_t>(n + 1)));
    for (int i = 0; i < n; ++i) out[i] = xstrdup(vec[i]);
    out[n] = nullptr;
    return out;
}

void kv_strvfree(char** vec) {
    if (vec == nullptr) return;
    for (char** p = vec; *p != nullptr; ++p) free(*p);
    free(vec);
}

int kv_strallnum(const char* s) {
    if (s == nullptr || *s == '\0') return 0;
    for (; *s; ++s)
        if (!isdigit(static_cast<unsigned char>(*s))) return 0;
    return 1;
}

int kv_strhasalnum(const char* s) {
    if (s == nullptr) return 0;
    for (; *s; ++s)
        if (isalnum(static_cast<unsigned char>(*s))) return 1;
    return 0;
}

namespace {
bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}
}  // namespace

int remove_buffering_space(char* string) {
    if (string == nullptr || *string == '\0') return 0;
    char* start = string;
    while (is_space(*start)) ++start;
    size_t len = strlen(start);
    while (len > 0 && is_space(start[len - 1])) --len;
    memmove(string, start, len);
    string[len] = '\0';
    return 0;
}

int remove_enclosing_quotes(char* string) {
    if (string == nullptr) return 0;
    size_t len = strlen(string);
    if (len < 2) return 0;
    char q = string[0];
    if ((q != '"' && q != '\'') || string[len - 1] != q) return 0;
    memmove(string, string + 1, len - 2);
    string[len - 2] = '\0';
    return 1;
}

int remove_buffering_space_and_enclosing_quotes(char* string) {
    remove_buffering_space(string);
    int removed = remove_enclosing_quotes(string);
    remove_buffering_space(string);
    return removed;
}

int str_end_with(const char* s, const char* suffix) {
    if (s == nullptr || suffix == nullptr) return 0;
    size_t sl = strlen(s), xl = strlen(suffix);
    return xl <= sl && memcmp(s + sl - xl, suffix, xl) == 0 ? 1 : 0;
}

int all_whitespace(const char* s) {
    if (s == nullptr) return 1;
    for (; *s; ++s)
        if (!is_space(*s)) return 0;
    return 1;
}

char* substr(const char* s, int start, int len) {
    if (s == nullptr || start < 0 || len < 0) return nullptr;
    size_t slen = strlen(s);
    if (static_cast<size_t>(start) >= slen) return xstrdup("");
    return xstrndup(s + start, static_cast<size_t>(len));
}

int kv_strcount(const char* s, char c) {
    int n = 0;
    if (s != nullptr)
        for (; *s; ++s)
            if (*s == c) ++n;
    return n;
}

int kv_strcmp(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
    return strcmp(a, b);
}

char* kvstrtok_r(char* s, const char* delim, char** save_ptr) {
    if (delim == nullptr || save_ptr == nullptr) return nullptr;
    if (s == nullptr) s = *save_ptr;
    if (s == nullptr) return nullptr;
    s += strspn(s, delim);
    if (*s == '\0') {
        *save_ptr = s;
        return nullptr;
    }
    char* end = s + strcspn(s, delim);
    if (*end != '\0') *end++ = '\0';
    *save_ptr = end;
    return s;
}

namespace {
// Without qq a double quote preceded by backslashes belongs to the token;
// those backslashes only served to protect it and go once it is cut.
void drop_quote_backslashes(char* tok) {
    char* w = tok;
    for (char* r = tok; *r;) {
        if (*r == '\\') {
            char* run = r;
            while (*run == '\\') ++run;
            if (*run == '"') {
                r = run;
                continue;
            }
            while (r < run) *w++ = *r++;
            continue;
        }
        *w++ = *r++;
    }
    *w = '\0';
}
}  // namespace

errinfo* tokenize(char* line, int* numtokens, char*** tokens_ppp, char* ifs_p, int qq) {
    if (numtokens == nullptr || tokens_ppp == nullptr) return nullptr;
    *numtokens = 0;
    *tokens_ppp = nullptr;
    size_t cap = 100;
    // Plain realloc rather than the waiting allocators: a line of absurd
    // length is the caller's problem to report, not a reason to wait.
    char** vec = static_cast<char**>(malloc(cap * sizeof(char*)));
    int n = 0;
    const char* seps = ifs_p != nullptr ? ifs_p : " \t\n";
    auto is_sep = [seps](char c) { return c != '\0' && strchr(seps, c) != nullptr; };

    for (char* cp = line; vec != nullptr && cp != nullptr && *cp != '\0';) {
        while (is_sep(*cp)) *cp++ = '\0';
        if (*cp == '\0') break;
        char* tok;
        if (*cp == '"') {
            tok = ++cp;
            if (qq) {
                char* w = cp;
                while (*cp != '\0' && *cp != '"' && *cp != '\n') {
                    if (*cp == '\\' && cp[1] != '\0') ++cp;
                    *w++ = *cp++;
                }
                if (*cp != '\0') ++cp;
                *w = '\0';
            } else {
                char* q = strchr(cp, '"');
                while (q != nullptr && q > tok && q[-1] == '\\') q = strchr(q + 1, '"');
                if (q != nullptr) {
                    *q = '\0';
                    cp = q + 1;
                } else {
                    cp += strlen(cp);
                }
                drop_quote_backslashes(tok);
            }
        } else if (qq && (*cp == '\'' || *cp == '`')) {
            char q = *cp;
            tok = ++cp;
            char* e = strchr(cp, q);
            if (e != nullptr) {
                *e = '\0';
                cp = e + 1;
            } else {
                cp += strlen(cp);
            }
        } else if (*cp == '(') {
            // A parenthesised group keeps the separators of ifs_p inside it.
            tok = cp;
            char* e = strpbrk(cp + 1, ") \t\n");
            if (e == nullptr) {
                cp += strlen(cp);
            } else if (*e == ')') {
                cp = e + 1;
                while (*cp != '\0' && !is_sep(*cp)) ++cp;
                if (*cp != '\0') *cp++ = '\0';
            } else {
                *e = '\0';
                cp = e + 1;
            }
        } else {
            tok = cp;
            while (*cp != '\0' && !is_sep(*cp)) ++cp;
            if (*cp != '\0') *cp++ = '\0';
        }
        kv_trace(7, 0, "current token = %s\n", tok);
        if (static_cast<size_t>(n) + 1 >= cap) {
            kv_trace(7, 0, "tokenize: realloc; numtokens = %d; token_size= %d\n", n,
                     static_cast<int>(2 * cap));
            char** grown = static_cast<char**>(realloc(vec, 2 * cap * sizeof(char*)));
            if (grown == nullptr) {
                free(vec);
                vec = nullptr;
                break;
            }
            vec = grown;
            cap *= 2;
        }
        vec[n++] = tok;
    }
    if (vec == nullptr) {
        kv_error_set_errno(ENOMEM);
        return msg_create(84750, 15000 + ENOMEM, "Unable to allocate memory for tokens: %s.",
                          ARG_SYSERR, strerror(ENOMEM));
    }
    vec[n] = nullptr;
    *numtokens = n;
    *tokens_ppp = vec;
    return nullptr;
}

char* command_string(char** args, int qq, char* buf, ssize_t siz) {
    size_t need = 1;
    int n = kv_strvlen(args);
    for (int i = 0; i < n; ++i) {
        need += strlen(args[i]) + (i > 0 ? 1 : 0);
        if (qq)
            need += 2 + static_cast<size_t>(kv_strcount(args[i], '"') + kv_strcount(args[i], '\\'));
    }
    if (buf == nullptr) {
        buf = static_cast<char*>(xmalloc(need));
    } else if (siz < 0 || static_cast<size_t>(siz) < need) {
        return nullptr;
    }
    char* w = buf;
    for (int i = 0; i < n; ++i) {
        if (i > 0) *w++ = ' ';
        if (qq) *w++ = '"';
        for (const char* r = args[i]; *r; ++r) {
            if (qq && (*r == '"' || *r == '\\')) *w++ = '\\';
            *w++ = *r;
        }
        if (qq) *w++ = '"';
    }
    *w = '\0';
    return buf;
}
