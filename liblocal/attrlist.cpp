// Attribute elements: creation, copy, lookup, freeing, the name order and
// the yes/no reading of a value.
#include "liblocal/attrlist.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "liblocal/kv_mem.h"

// Identity except a-z, which fold to A-Z; bytes above 127 stay as they are.
static constexpr unsigned char fold(int c) {
    return (unsigned char)(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
}
#define R4(i) fold(i), fold(i + 1), fold(i + 2), fold(i + 3)
#define R16(i) R4(i), R4(i + 4), R4(i + 8), R4(i + 12)
#define R64(i) R16(i), R16(i + 16), R16(i + 32), R16(i + 48)
extern const unsigned char C_table[256] = {R64(0), R64(64), R64(128), R64(192)};
#undef R64
#undef R16
#undef R4

namespace {
// The name is written through a plain byte pointer: the record is allocated
// to the length of the name, which may be longer or shorter than the
// declared array.
inline char* name_area(attrlist* al) {
    return reinterpret_cast<char*>(al) + offsetof(attrlist, name);
}
}  // namespace

int attr_namecmp(const char* a, const char* b) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(a != nullptr ? a : "");
    const unsigned char* q = reinterpret_cast<const unsigned char*>(b != nullptr ? b : "");
    for (;; p++, q++) {
        int d = (int)C_table[*p] - (int)C_table[*q];
        if (d != 0 || *p == '\0') return d;
    }
}

int attr_cmpname(const void* a, const void* b) {
    return attr_namecmp(static_cast<const attrlist*>(a)->name,
                        static_cast<const attrlist*>(b)->name);
}

int attr_cmp(const void* a, const void* b) {
    int c = attr_cmpname(a, b);
    if (c != 0) return c;
    return vallist_cmp(static_cast<const attrlist*>(a)->values,
                       static_cast<const attrlist*>(b)->values);
}

attrlist* attr_new(const char* name, const char* val) {
    if (name == nullptr) name = "";
    size_t n = strlen(name);
    attrlist* al = static_cast<attrlist*>(xmalloc(offsetof(attrlist, name) + n + 1));
    al->next = nullptr;
    al->values = (val != nullptr && *val != '\0') ? val_new(val) : nullptr;
    memcpy(name_area(al), name, n + 1);
    return al;
}

attrlist* attr_dup(attrlist* al) {
    if (al == nullptr) return nullptr;
    attrlist* copy = attr_new(al->name, nullptr);
    copy->values = vallist_dup(al->values);
    return copy;
}

attrlist* attrlist_dup(attrlist* al) {
    attrlist* head = nullptr;
    attrlist** tail = &head;
    for (; al != nullptr; al = al->next) {
        *tail = attr_dup(al);
        tail = &(*tail)->next;
    }
    return head;
}

attrlist* attrlist_find(attrlist* al, const char* name) {
    return attrlist_case_find(al, name, 0);
}

attrlist* attrlist_case_find(attrlist* al, const char* name, int mode) {
    if (name == nullptr) return nullptr;
    // A whole walk, not stopping at the sorted place: lists reordered by
    // attrlist_order are searched too.
    for (; al != nullptr; al = al->next) {
        int c = mode == 1 ? strcmp(al->name, name) : attr_namecmp(al->name, name);
        if (c == 0) return al;
    }
    return nullptr;
}

char* attrlist_getvalue(attrlist* al, char* attrname) {
    if (al == nullptr || attrname == nullptr) return nullptr;
    attrlist* a = attrlist_find(al, attrname);
    if (a == nullptr || a->values == nullptr) return nullptr;
    return a->values->value;
}

attrlist* attrlist_setlist(attrlist** alp, const char* name, const vallist* vals) {
    if (alp == nullptr) return nullptr;
    attrlist* elem = attr_new(name, nullptr);
    kv_list_t* found = nullptr;
    list_addelem(reinterpret_cast<kv_list_t*>(elem), reinterpret_cast<kv_list_t**>(alp), &found,
                 attr_cmpname);
    if (found != nullptr) {
        attr_elem_free(elem);
        elem = reinterpret_cast<attrlist*>(found);
        vallist_free(elem->values);
    }
    elem->values = vallist_dup(vals);
    return elem;
}

void attr_elem_free(attrlist* al) {
    if (al == nullptr) return;
    vallist_free(al->values);
    free(al);
}

void attrlist_free(attrlist* al) {
    while (al != nullptr) {
        attrlist* next = al->next;
        attr_elem_free(al);
        al = next;
    }
}

int attr_to_bool(attrlist* attr, int def) {
    if (attr == nullptr || attr->values == nullptr) return def;
    const char* v = attr->values->value;
    if (strcasecmp(v, "False") == 0 || strcasecmp(v, "No") == 0) return 0;
    // "0" alone is false; "00", "01" and the like are true. No other word
    // is false: the module's readers rely on exactly this.
    if (v[0] == '0') return v[1] != '\0';
    return 1;
}
