// The saved assignments, UTF-8 environment access and tunables.
#include "liblocal/kv_env.h"

#include <errno.h>
#include <langinfo.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "liblocal/kv_mem.h"
#include "liblocal/kv_spawn.h"
#include "liblocal/kv_utf8.h"

extern char** environ;

namespace {

// One lock for the process environment: putenv/getenv are not safe against
// each other, and the spawner copies the saved assignments under it too.
pthread_mutex_t env_lock = PTHREAD_MUTEX_INITIALIZER;

struct EnvState {
    bool initialised = false;
    std::vector<char*> myenv;                 // owned strings, name=value
    std::map<std::string, char*> utf8_cache;  // name -> owned UTF-8 value
    std::vector<char*> keep_list;             // replaced cache values
    std::vector<char*> added_texts;           // add_to_environment texts
    std::vector<char*> converted_texts;       // putenv'd locale forms
    char* rendered_path = nullptr;
};

EnvState& state() {
    static EnvState* s = new EnvState;  // never destroyed: pointers stay valid
    return *s;
}

class EnvLock {
public:
    EnvLock() { pthread_mutex_lock(&env_lock); }
    ~EnvLock() { pthread_mutex_unlock(&env_lock); }
    EnvLock(const EnvLock&) = delete;
    EnvLock& operator=(const EnvLock&) = delete;
};

bool is_ascii(const char* s) {
    for (; *s; ++s)
        if (static_cast<unsigned char>(*s) & 0x80) return false;
    return true;
}

size_t name_len(const char* assignment) {
    const char* eq = strchr(assignment, '=');
    return eq ? static_cast<size_t>(eq - assignment) : strlen(assignment);
}

bool same_name(const char* a, const char* b) {
    size_t la = name_len(a);
    return la == name_len(b) && strncmp(a, b, la) == 0;
}

void saved_set_locked(const char* assignment) {
    EnvState& st = state();
    for (char*& e : st.myenv) {
        if (same_name(e, assignment)) {
            free(e);
            e = xstrdup(assignment);
            return;
        }
    }
    st.myenv.push_back(xstrdup(assignment));
}

void init_locked() {
    EnvState& st = state();
    for (char* e : st.myenv) free(e);
    st.myenv.clear();
    for (char** e = environ; e && *e; ++e) st.myenv.push_back(xstrdup(*e));
    st.initialised = true;
}

void cache_drop_locked(const std::string& name) {
    EnvState& st = state();
    auto it = st.utf8_cache.find(name);
    if (it == st.utf8_cache.end()) return;
    st.keep_list.push_back(it->second);  // someone may still hold it
    st.utf8_cache.erase(it);
}

}  // namespace

// ---------------------------------------------------------------------------
// Locale conversion. The C locale's ASCII code set is treated as a byte
// pass-through: a host that never called setlocale still gets its bytes.

bool kv_env_locale_is_utf8() {
    const char* cs = nl_langinfo(CODESET);
    return cs == nullptr || strcmp(cs, "UTF-8") == 0 || strcmp(cs, "utf8") == 0 ||
           strcmp(cs, "ANSI_X3.4-1968") == 0;
}

bool kv_env_valid_utf8(const char* s) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(s);
    while (*p) {
        unsigned c = *p;
        int more;
        if (c < 0x80) {
            ++p;
            continue;
        }
        if (c >= 0xC2 && c <= 0xDF)
            more = 1;
        else if (c >= 0xE0 && c <= 0xEF)
            more = 2;
        else if (c >= 0xF0 && c <= 0xF4)
            more = 3;
        else
            return false;
        ++p;
        for (int i = 0; i < more; ++i, ++p)
            if ((*p & 0xC0) != 0x80) return false;
    }
    return true;
}

// Converts between UTF-8 and the locale's code set; an allocated result, or
// null (errno set) when the text cannot be converted.
char* kv_env_convert(const char* in, bool to_locale) {
    if (is_ascii(in)) return xstrdup(in);
    if (kv_env_locale_is_utf8()) {
        if (!kv_env_valid_utf8(in)) {
            errno = EILSEQ;
            return nullptr;
        }
        return xstrdup(in);
    }
    const char* cs = nl_langinfo(CODESET);
    return to_locale ? kv_iconv_dup(cs, "UTF-8", in) : kv_iconv_dup("UTF-8", cs, in);
}

// ---------------------------------------------------------------------------

void kv_env_init_from_environ(void) {
    EnvLock lock;
    init_locked();
}

char** kv_env_saved_copy(void) {
    EnvLock lock;
    EnvState& st = state();
    if (!st.initialised) init_locked();
    char** vec = static_cast<char**>(xmalloc((st.myenv.size() + 1) * sizeof(char*)));
    size_t i = 0;
    for (char* e : st.myenv) vec[i++] = xstrdup(e);
    vec[i] = nullptr;
    return vec;
}

void kv_env_vec_free(char** vec) {
    if (vec == nullptr) return;
    for (char** p = vec; *p; ++p) free(*p);
    free(vec);
}

void kv_env_set_rendered_path(const char* path) {
    EnvLock lock;
    EnvState& st = state();
    free(st.rendered_path);
    st.rendered_path = path ? xstrdup(path) : nullptr;
}

char* kv_env_rendered_path_dup(void) {
    EnvLock lock;
    return state().rendered_path ? xstrdup(state().rendered_path) : nullptr;
}

int kv_putenv(char* string) {
    if (string == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char* text = string;
    if (!is_ascii(string)) {
        // putenv keeps the pointer, so the converted form lives for the process.
        char* conv = kv_env_convert(string, true);
        if (conv == nullptr) {
            int e = errno ? errno : EILSEQ;
            kv_spawn_report(
                84735, 2, "Unable to allocate memory for setting environment variable value: %s.\n",
                string);
            errno = e;
            return -1;
        }
        size_t n = strlen(conv) + 1;
        text = static_cast<char*>(xmalloc(n > 18432 ? n : 18432));
        memcpy(text, conv, n);
        free(conv);
    }
    EnvLock lock;
    EnvState& st = state();
    if (!st.initialised) init_locked();
    if (text != string) st.converted_texts.push_back(text);
    if (putenv(text) != 0) return -1;
    const char* eq = strchr(string, '=');
    if (eq != nullptr && strlen(string) < 1024) {
        saved_set_locked(text);
        cache_drop_locked(std::string(string, static_cast<size_t>(eq - string)));
    }
    return 0;
}

char* kv_getenv(const char* name) {
    if (name == nullptr) return nullptr;
    EnvLock lock;
    EnvState& st = state();
    auto it = st.utf8_cache.find(name);
    if (it != st.utf8_cache.end()) return it->second;
    char* v = getenv(name);
    if (v == nullptr || is_ascii(v)) return v;
    char* conv = kv_env_convert(v, false);
    if (conv == nullptr) return nullptr;
    st.utf8_cache[name] = conv;
    return conv;
}

void kv_env_cache_reset_for_test(void) {
    EnvLock lock;
    EnvState& st = state();
    for (auto& kv : st.utf8_cache) st.keep_list.push_back(kv.second);
    st.utf8_cache.clear();
}

// ---------------------------------------------------------------------------
// Tunables.

namespace {

// Next field of the description up to one of the stop characters; false
// when the field is longer than 128 characters.
bool take_field(const char*& p, const char* stops, std::string& out) {
    out.clear();
    while (*p && strchr(stops, *p) == nullptr) out.push_back(*p++);
    return out.size() <= 128;
}

bool parse_number(const char* s, unsigned long& out) {
    while (*s == ' ' || *s == '\t') ++s;
    if (*s == '\0' || *s == '-') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long v = strtoul(s, &end, 10);
    if (errno == ERANGE) v = ULONG_MAX;
    while (*end == ' ' || *end == '\t') ++end;
    if (end == s || *end != '\0') return false;
    out = v;
    return true;
}

// Applies the value forms; false when the text holds no number.
bool apply_form(const std::string& text, unsigned long defval, unsigned long& out) {
    if (text.empty()) return false;
    const char* rest = text.c_str() + 1;
    unsigned long n = 0;
    switch (text[0]) {
    case 'D': out = defval; return true;
    case '%': {
        if (!parse_number(rest, n)) return false;
        unsigned __int128 r = static_cast<unsigned __int128>(defval) * n / 100;
        out = r > ULONG_MAX ? ULONG_MAX : static_cast<unsigned long>(r);
        return true;
    }
    case '<':
        if (!parse_number(rest, n)) return false;
        out = n < defval ? n : defval;
        return true;
    case '>':
        if (!parse_number(rest, n)) return false;
        out = n > defval ? n : defval;
        return true;
    case '=':
        if (!parse_number(rest, n)) return false;
        out = n;
        return true;
    default:
        if (!parse_number(text.c_str(), n)) return false;
        out = n;
        return true;
    }
}

bool parse_bound(const std::string& f, unsigned long& out) {
    if (f.empty() || f == "*") return false;
    return parse_number(f.c_str(), out);
}

}  // namespace

unsigned long kv_getenv_ulong(char* init_str, unsigned long rt_defval) {
    std::string name, def, min_f, max_f;
    const char* p = init_str ? init_str : "";
    bool ok = take_field(p, "=", name);
    if (ok && *p == '=') {
        ++p;
        ok = take_field(p, ",", def);
        if (ok && *p == ',') {
            ++p;
            ok = take_field(p, ":", min_f);
            if (ok && *p == ':') {
                ++p;
                ok = take_field(p, "", max_f);
            }
        }
    } else {
        ok = false;
    }
    if (!ok || name.empty() || def.empty()) {
        // Ending the process here would take the host down with us; the
        // report stands and the caller's default serves.
        kv_spawn_report(0, 2,
                        "Unable to get the value of environment variable '%s': the string is "
                        "improperly formatted.\n",
                        init_str ? init_str : "<NULL>");
        return rt_defval;
    }
    unsigned long value = 0;
    const char* env = kv_getenv(name.c_str());
    if (env == nullptr || !apply_form(env, rt_defval, value)) {
        if (!apply_form(def, rt_defval, value)) value = rt_defval;
    }
    unsigned long bound;
    if (parse_bound(min_f, bound) && value < bound) value = bound;
    if (parse_bound(max_f, bound) && value > bound) value = bound;
    return value;
}

// ---------------------------------------------------------------------------

int add_to_environment(const char* name, const char* value, int append) {
    if (name == nullptr || *name == '\0' || strchr(name, '=') != nullptr || value == nullptr) {
        errno = EINVAL;
        return 0;
    }
    std::string text = std::string(name) + "=" + value;
    if (append) {
        const char* old = kv_getenv(name);
        if (old != nullptr && *old != '\0') text += std::string(":") + old;
    }
    char* keep = nullptr;
    {
        EnvLock lock;
        EnvState& st = state();
        for (char* t : st.added_texts)
            if (text == t) keep = t;
        if (keep == nullptr) {
            keep = xstrdup(text.c_str());
            st.added_texts.push_back(keep);
        }
    }
    return kv_putenv(keep) == 0 ? 1 : 0;
}

char** addenvp(char** envp, char* var) {
    size_t n = 0;
    while (envp != nullptr && envp[n] != nullptr) ++n;
    char** out = static_cast<char**>(malloc((n + 2) * sizeof(char*)));
    if (out == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    out[0] = var;
    for (size_t i = 0; i < n; ++i) out[i + 1] = envp[i];
    out[n + 1] = nullptr;
    return out;
}
