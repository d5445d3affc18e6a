// Value list operations: insertion, search, removal, sorting, set-like
// merges, matching and the comma-separated form.
#include <ctype.h>
#include <errno.h>
#include <langinfo.h>
#include <regex.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <string>

#include "liblocal/attrlist.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_utf8.h"

namespace {
inline kv_list_t* L(vallist* v) {
    return reinterpret_cast<kv_list_t*>(v);
}
inline kv_list_t** LP(vallist** v) {
    return reinterpret_cast<kv_list_t**>(v);
}

vallist** tail_link(vallist** vlp) {
    while (*vlp != nullptr) vlp = &(*vlp)->next;
    return vlp;
}

// Text in the locale's multibyte form for strcoll, cut to the renderer's
// buffer size. A UTF-8 locale needs no conversion; a text that does not
// convert is compared as it stands.
constexpr size_t kI18nCut = 18432;

std::string to_locale(const char* s) {
    std::string in(s, strnlen(s, kI18nCut));
    if (kv_locale_is_utf8()) return in;
    char* conv = kv_iconv_dup(nl_langinfo(CODESET), "UTF-8", in.c_str());
    if (conv == nullptr) return in;
    std::string out = conv;
    free(conv);
    return out;
}

int sorted_insert(vallist** vlp, const char* str, lcfunc_t cmp) {
    if (vlp == nullptr) return 0;
    vallist* v = val_new(str);
    kv_list_t* found = nullptr;
    list_addelem(L(v), LP(vlp), &found, cmp);
    if (found != nullptr) {
        val_free(v);
        return 0;
    }
    return 1;
}

// Unlinks and frees the first node that `pred` accepts.
template <typename Pred>
int remove_first(vallist** vlp, Pred pred) {
    if (vlp == nullptr) return 0;
    for (; *vlp != nullptr; vlp = &(*vlp)->next) {
        if (pred(*vlp)) {
            vallist* v = *vlp;
            *vlp = v->next;
            val_free(v);
            return 1;
        }
    }
    return 0;
}

// The comparison of vallist_sort reaches qsort through this slot; one per
// thread so that sorts on several threads do not disturb each other.
thread_local lcfunc_t t_sort_cmp;

int sort_trampoline(const void* pa, const void* pb) {
    return t_sort_cmp(*static_cast<const kv_list_t* const*>(pa),
                      *static_cast<const kv_list_t* const*>(pb));
}

// Pattern matching for vallist_patmatch, on lower-cased texts.
struct Regex {
    regex_t re;
    bool ok;
};
bool regex_cmp(Regex* r, const char* pattern) {
    r->ok = regcomp(&r->re, pattern, REG_EXTENDED | REG_NOSUB) == 0;
    return r->ok;
}
bool regex_exec(Regex* r, const char* text) {
    return regexec(&r->re, text, 0, nullptr, 0) == 0;
}
void regex_done(Regex* r) {
    if (r->ok) regfree(&r->re);
    r->ok = false;
}

std::string lower(const char* s) {
    std::string out(s);
    for (char& c : out) c = (char)tolower((unsigned char)c);
    return out;
}
}  // namespace

int i18n_val_cmp(const void* a, const void* b) {
    std::string x = to_locale(static_cast<const vallist*>(a)->value);
    std::string y = to_locale(static_cast<const vallist*>(b)->value);
    return strcoll(x.c_str(), y.c_str());
}

vallist* val_new_nosp(char* str) {
    if (str == nullptr) return nullptr;
    const char* b = str;
    while (*b != '\0' && isspace((unsigned char)*b)) b++;
    const char* e = b + strlen(b);
    while (e > b && isspace((unsigned char)e[-1])) e--;
    if (e == b) return nullptr;
    std::string t(b, (size_t)(e - b));
    return val_new(t.c_str());
}

void val_update(vallist** vlp, char* value) {
    if (vlp == nullptr || *vlp == nullptr) return;
    vallist* v = val_new(value);
    v->next = (*vlp)->next;
    val_free(*vlp);
    *vlp = v;
}

void vallist_add(vallist** vlp, const char* str) {
    if (vlp == nullptr) return;
    *tail_link(vlp) = val_new(str);
}

vallist* vallist_add_tail(vallist** vlp, const char* str) {
    if (vlp == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    vallist* v = val_new(str);
    *tail_link(vlp) = v;
    return v;
}

void vallist_add2(vallist** vlhp, vallist** vltp, const char* str) {
    if (vlhp == nullptr || vltp == nullptr || (*vltp != nullptr && *vlhp == nullptr)) {
        vallist_trace("vallist_add2(): invalid input\n");
        return;
    }
    vallist* v = val_new(str);
    if (*vlhp == nullptr) {
        *vlhp = v;
    } else {
        vallist* t = *vltp != nullptr ? *vltp : *vlhp;
        while (t->next != nullptr) t = t->next;  // the hint may be stale
        t->next = v;
    }
    *vltp = v;
}

void vallist_append(vallist** vl_hp, vallist** vl_tp, char* value) {
    if (vl_hp == nullptr || vl_tp == nullptr) return;
    vallist* v = val_new(value);
    if (*vl_tp == nullptr)
        *vl_hp = v;
    else
        (*vl_tp)->next = v;
    *vl_tp = v;
}

void vallist_insert(vallist** vlp, const char* str) {
    if (vlp == nullptr) return;
    vallist* v = val_new(str);
    v->next = *vlp;
    *vlp = v;
}

void vallist_pos_insert(vallist** values, char* value, int n) {
    if (values == nullptr) return;
    vallist** link = values;
    for (int i = 1; i < n && *link != nullptr; i++) link = &(*link)->next;
    vallist* v = val_new(value);
    v->next = *link;
    *link = v;
}

int vallist_addsort(vallist** vlp, const char* str) {
    return sorted_insert(vlp, str, val_cmp);
}

int i18n_vallist_addsort(vallist** vlp, const char* str) {
    return sorted_insert(vlp, str, i18n_val_cmp);
}

vallist* vallist_find(vallist* vl, const char* val) {
    if (val == nullptr) return nullptr;
    for (; vl != nullptr; vl = vl->next)
        if (strcasecmp(vl->value, val) == 0) return vl;
    return nullptr;
}

vallist* vallist_find_exact(vallist* vl, const char* val) {
    if (val == nullptr) return nullptr;
    for (; vl != nullptr; vl = vl->next)
        if (strcmp(vl->value, val) == 0) return vl;
    return nullptr;
}

vallist* vallist_search_substr(vallist* vl, const char* val) {
    if (val == nullptr) return nullptr;
    for (; vl != nullptr; vl = vl->next)
        if (strstr(vl->value, val) != nullptr) return vl;
    return nullptr;
}

int vallist_find_pos(vallist* vl, char* value) {
    if (value == nullptr) return -1;
    for (int pos = 1; vl != nullptr; vl = vl->next, pos++)
        if (strcasecmp(vl->value, value) == 0) return pos;
    return -1;
}

char* vallist_pos_value(vallist* vl, int pos) {
    if (pos < 1) return nullptr;
    for (int i = 1; vl != nullptr; vl = vl->next, i++)
        if (i == pos) return vl->value;
    return nullptr;
}

int vallist_count(vallist* vl) {
    return list_count(L(vl));
}

int vallist_count_val(vallist* vl, char* value) {
    if (value == nullptr) return 0;
    int n = 0;
    for (; vl != nullptr; vl = vl->next)
        if (strcasecmp(vl->value, value) == 0) n++;
    return n;
}

int vallist_delete(vallist** vlp, const char* value) {
    if (value == nullptr) return 0;
    // Exact on purpose, unlike vallist_find: "A" never removes "a".
    return remove_first(vlp, [&](vallist* v) { return strcmp(v->value, value) == 0; });
}

void vallist_remove(vallist** vlp, const char* value) {
    vallist_delete(vlp, value);
}

int vallist_strstart_delete(vallist** vlp, const char* value) {
    if (value == nullptr) return 0;
    size_t n = strlen(value);
    return remove_first(vlp, [&](vallist* v) { return strncmp(v->value, value, n) == 0; });
}

void vallist_pos_remove(vallist** values, char* value, int n) {
    if (values == nullptr || n < 1) return;
    vallist** link = values;
    for (int i = 1; i < n && *link != nullptr; i++) link = &(*link)->next;
    vallist* v = *link;
    if (v == nullptr) return;
    if (value != nullptr && strcasecmp(v->value, value) != 0) return;
    *link = v->next;
    val_free(v);
}

int vallist_sort(vallist** vlp, lcfunc_t cmpfunc, int rm_dups) {
    if (vlp == nullptr) return 0;
    lcfunc_t cmp = cmpfunc != nullptr ? cmpfunc : val_cmp;
    lcfunc_t saved = t_sort_cmp;
    t_sort_cmp = cmp;
    list_sort(LP(vlp), 0, sort_trampoline);
    t_sort_cmp = saved;
    if (rm_dups) {
        for (vallist* v = *vlp; v != nullptr && v->next != nullptr;) {
            if (cmp(v, v->next) == 0) {
                vallist* d = v->next;
                v->next = d->next;
                val_free(d);
            } else {
                v = v->next;
            }
        }
    }
    return vallist_count(*vlp);
}

void vallist_merge(vallist* vl, vallist** base) {
    if (base == nullptr) return;
    if (*base == nullptr) {
        *base = vallist_dup(vl);
        return;
    }
    for (; vl != nullptr; vl = vl->next)
        if (vallist_find_exact(*base, vl->value) == nullptr) vallist_add(base, vl->value);
}

void vallist_intersect(vallist* vl, vallist** base) {
    if (base == nullptr) return;
    vallist* out = nullptr;
    for (; vl != nullptr; vl = vl->next)
        if (vallist_find(*base, vl->value) != nullptr) vallist_insert(&out, vl->value);
    vallist_free(*base);
    *base = out;
}

vallist* vallist_find_unique(vallist* vals1, vallist* vals2) {
    if (vals1 == nullptr || vals2 == nullptr) return vals1;
    vallist* best = nullptr;
    for (vallist* v = vals1; v != nullptr; v = v->next) {
        bool held = false;
        for (vallist* w = vals2; w != nullptr && !held; w = w->next) held = i18n_val_cmp(v, w) == 0;
        if (held) continue;
        if (best == nullptr || i18n_val_cmp(v, best) < 0) best = v;
    }
    return best;
}

int vallist_diff_apply(vallist* old, vallist* newl, vallist** change, int choice) {
    if (change == nullptr) return 0;
    if (choice != 1) {
        for (vallist* v = old; v != nullptr; v = v->next) {
            if (vallist_find(newl, v->value) != nullptr) continue;
            vallist** link = change;
            while (*link != nullptr) {
                if (strcasecmp((*link)->value, v->value) == 0) {
                    vallist* d = *link;
                    *link = d->next;
                    val_free(d);
                } else {
                    link = &(*link)->next;
                }
            }
        }
    }
    if (choice != 2) {
        for (vallist* v = newl; v != nullptr; v = v->next)
            if (vallist_find(old, v->value) == nullptr &&
                vallist_find(*change, v->value) == nullptr)
                vallist_add(change, v->value);
    }
    return 1;
}

int vallist_match(vallist* qv, vallist* av) {
    if (qv == nullptr || av == nullptr) return 1;
    for (; qv != nullptr; qv = qv->next)
        if (vallist_find(av, qv->value) != nullptr) return 1;
    return 0;
}

int vallist_patmatch(vallist* qv, vallist* av) {
    if (qv == nullptr || av == nullptr) return 1;
    if (strcmp(qv->value, "*") == 0) return 1;
    for (; qv != nullptr; qv = qv->next) {
        Regex r;
        if (!regex_cmp(&r, lower(qv->value).c_str())) return 0;
        bool hit = false;
        for (vallist* a = av; a != nullptr && !hit; a = a->next)
            hit = regex_exec(&r, lower(a->value).c_str());
        regex_done(&r);
        if (hit) return 1;
    }
    return 0;
}

vallist* vallist_build(char* args, ...) {
    vallist* vl = nullptr;
    vallist* tail = nullptr;
    va_list ap;
    va_start(ap, args);
    for (char* v = args; v != nullptr; v = va_arg(ap, char*)) vallist_append(&vl, &tail, v);
    va_end(ap);
    return vl;
}

char* vallist_to_csv(vallist* vlp, size_t string_size_limit) {
    if (vlp == nullptr) return xstrdup("<empty>");
    std::string out = vlp->value;  // the first value is kept whatever its length
    bool dropped = false;
    for (vallist* v = vlp->next; v != nullptr; v = v->next) {
        size_t want = out.size() + 2 + strlen(v->value);
        if (string_size_limit != 0 && want > string_size_limit) {
            dropped = true;
            break;
        }
        out += ", ";
        out += v->value;
    }
    if (dropped) out += ", ...";
    return xstrdup(out.c_str());
}

vallist* vallist_new_from_csv(char* str) {
    vallist* vl = nullptr;
    vallist* tail = nullptr;
    if (str == nullptr) return nullptr;
    const char* p = str;
    for (;;) {
        const char* comma = strchr(p, ',');
        const char* end = comma != nullptr ? comma : p + strlen(p);
        const char* b = p;
        const char* e = end;
        while (b < e && isspace((unsigned char)*b)) b++;
        while (e > b && isspace((unsigned char)e[-1])) e--;
        if (e > b) {
            std::string piece(b, (size_t)(e - b));
            vallist_append(&vl, &tail, &piece[0]);
        }
        if (comma == nullptr) break;
        p = comma + 1;
    }
    return vl;
}
