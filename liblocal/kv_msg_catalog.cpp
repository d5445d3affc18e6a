// The message catalogue: the choice of a message's format for a locale,
// literal texts by id, and the process locale. Catalogues are opened once
// per locale and kept; lookups are thread-safe.
//
// A catalogue is a catgets file "<dir>/<locale>/vmr.cat", where dir is the
// one set with kv_set_catalog_dir, else "$VMR_DIR_PATH/nls", else
// "/opt/vmr/nls". The locale is tried whole, without its codeset and
// modifier, and as the bare language. Message numbers are split into sets
// of a fixed count (10000 unless the catalogue's set 255, message 1 holds
// another count).
#include <errno.h>
#include <limits.h>
#include <nl_types.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <map>
#include <mutex>
#include <string>

#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_msg_internal.h"

namespace {

const int kDefaultSetCount = 10000;
const int kHeaderSet = 255;
const int kCatBuffers = 16;

struct Catalogue {
    nl_catd catd = reinterpret_cast<nl_catd>(-1);
    int setcount = kDefaultSetCount;
};

std::mutex g_cat_mutex;
std::map<std::string, Catalogue>* g_cats = nullptr;  // never freed: lives with the process
std::string* g_cat_dir = nullptr;
std::string* g_my_locale = nullptr;
int g_i18n_on = 1;

std::string catalogue_dir() {
    if (g_cat_dir != nullptr) return *g_cat_dir;
    const char* root = getenv("VMR_DIR_PATH");
    if (root != nullptr && *root != '\0') return std::string(root) + "/nls";
    return "/opt/vmr/nls";
}

nl_catd try_open(const std::string& dir, const std::string& loc) {
    if (loc.empty() || loc.find('/') != std::string::npos || loc.find("..") != std::string::npos)
        return reinterpret_cast<nl_catd>(-1);
    std::string path = dir + "/" + loc + "/vmr.cat";
    return catopen(path.c_str(), NL_CAT_LOCALE);
}

// REQUIRES: g_cat_mutex held.
Catalogue* open_catalogue(const char* locale) {
    if (g_cats == nullptr) g_cats = new std::map<std::string, Catalogue>();
    auto it = g_cats->find(locale);
    if (it != g_cats->end()) return &it->second;
    Catalogue c;
    std::string dir = catalogue_dir();
    std::string loc = locale;
    c.catd = try_open(dir, loc);
    size_t cut = loc.find_first_of(".@");
    if (c.catd == reinterpret_cast<nl_catd>(-1) && cut != std::string::npos)
        c.catd = try_open(dir, loc.substr(0, cut));
    cut = loc.find('_');
    if (c.catd == reinterpret_cast<nl_catd>(-1) && cut != std::string::npos)
        c.catd = try_open(dir, loc.substr(0, cut));
    if (c.catd != reinterpret_cast<nl_catd>(-1)) {
        const char* n = catgets(c.catd, kHeaderSet, 1, nullptr);
        if (n != nullptr && atoi(n) > 0) c.setcount = atoi(n);
    }
    Catalogue& slot = (*g_cats)[locale];
    slot = c;
    return &slot;
}

bool is_english(const char* locale) {
    static const char* const names[] = {"C", "en_US", "en_US.UTF-8", "en_US.utf8"};
    for (const char* n : names)
        if (strcasecmp(locale, n) == 0) return true;
    return strstr(locale, "English") != nullptr;
}

// Rotating per-thread copies of catalogue texts: a form handed out stays
// valid while the next few lookups on the thread are made.
char* rotate_copy(const char* text) {
    thread_local std::string bufs[kCatBuffers];
    thread_local int next = 0;
    std::string& b = bufs[next];
    next = (next + 1) % kCatBuffers;
    b = text;
    return &b[0];
}

}  // namespace

const char* kv_get_my_locale(void) {
    {
        std::lock_guard<std::mutex> g(g_cat_mutex);
        if (g_my_locale != nullptr) return rotate_copy(g_my_locale->c_str());
    }
    static const char* const vars[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    for (const char* v : vars) {
        const char* l = getenv(v);
        if (l != nullptr && *l != '\0') return l;
    }
    return nullptr;
}

void kv_set_my_locale(const char* locale) {
    std::lock_guard<std::mutex> g(g_cat_mutex);
    delete g_my_locale;
    g_my_locale = locale != nullptr ? new std::string(locale) : nullptr;
}

void kv_set_catalog_dir(const char* dir) {
    std::lock_guard<std::mutex> g(g_cat_mutex);
    delete g_cat_dir;
    g_cat_dir = dir != nullptr ? new std::string(dir) : nullptr;
    // Catalogues of the old place are closed: forms handed out are copies,
    // so none points into them.
    if (g_cats != nullptr) {
        for (auto& c : *g_cats)
            if (c.second.catd != reinterpret_cast<nl_catd>(-1)) catclose(c.second.catd);
        g_cats->clear();
    }
}

void kv_i18n_enable(int on) {
    g_i18n_on = on;
}

char* kv_catgets(int msgID, const char* locale, const char* form) {
    if (!g_i18n_on || locale == nullptr || msgID < 1) return const_cast<char*>(form);
    int saved = errno;
    char* result = const_cast<char*>(form);
    {
        std::lock_guard<std::mutex> g(g_cat_mutex);
        Catalogue* c = open_catalogue(locale);
        if (c->catd != reinterpret_cast<nl_catd>(-1)) {
            int set = (msgID - 1) / c->setcount + 1;
            int num = msgID - (set - 1) * c->setcount;
            const char* t = catgets(c->catd, set, num, form);
            if (t != nullptr && t != form) result = rotate_copy(t);
        }
    }
    errno = saved;
    return result;
}

char* get_localized_form(int msgID, const char* locale, const char* form) {
    if (msgID < 1 || form == nullptr) return const_cast<char*>(form);
    if (locale == nullptr) locale = kv_get_my_locale();
    if (locale == nullptr || *locale == '\0') return const_cast<char*>(form);
    if (is_english(locale)) return const_cast<char*>(form);
    return kv_catgets(msgID, locale, form);
}

// ---- Literals ------------------------------------------------------------------------

char* render_literal(int msgID, const char* locale, const char* in_lit, char* out_lit) {
    if (out_lit == nullptr) out_lit = msg_lit_pool_buffer();
    if (in_lit == nullptr) {
        out_lit[0] = '\0';
        return out_lit;
    }
    const char* t = get_localized_form(msgID, locale, in_lit);
    size_t n = strlen(t);
    if (n > MSG_LIT_BUFFER_SIZE - 1) n = MSG_LIT_BUFFER_SIZE - 1;
    memmove(out_lit, t, n);
    out_lit[n] = '\0';
    return out_lit;
}

char* render_literal_var(int msgID, const char* locale, const char* in_lit, char* out_lit) {
    return render_literal(msgID, locale, in_lit, out_lit);
}

char* render_literal_id(const char* locale, const char* in_lit_id, char* out_lit) {
    if (in_lit_id == nullptr) return nullptr;
    const char* colon = strchr(in_lit_id, ':');
    if (colon == nullptr) return const_cast<char*>(in_lit_id);
    // Whatever stands before the colon is the id, read as a number: a word
    // reads as 0, which is never translated, so "Note: x" gives " x".
    int saved = errno;
    long id = strtol(in_lit_id, nullptr, 10);
    errno = saved;  // an id out of range is no error of the caller's
    if (id < 0 || id > INT_MAX) id = 0;
    return render_literal(static_cast<int>(id), locale, colon + 1, out_lit);
}

char* msg_lit_create(int msgID, const char* form) {
    return render_literal(msgID, nullptr, form, nullptr);
}

char* msg_mlit_create(int msgID, const char* form) {
    char* out = msg_lit_pool_buffer();
    snprintf(out, MSG_LIT_BUFFER_SIZE, "%d:%s", msgID, form != nullptr ? form : "");
    return out;
}

char* msg_string_to_mlit(const char* form) {
    return msg_mlit_create(0, form);
}
