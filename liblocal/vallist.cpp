// Value nodes: creation, copy, freeing and the value comparisons.
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "liblocal/attrlist.h"
#include "liblocal/kv_mem.h"

vallist* val_new(const char* str) {
    size_t n = str != nullptr ? strlen(str) : 0;
    vallist* v = static_cast<vallist*>(xmalloc(offsetof(vallist, value) + n + 1));
    v->next = nullptr;
    // Written through a byte pointer: the node holds exactly n+1 bytes of
    // text, whatever the declared array says.
    char* dst = reinterpret_cast<char*>(v) + offsetof(vallist, value);
    if (n != 0) memcpy(dst, str, n);
    dst[n] = '\0';
    return v;
}

vallist* val_dup(const vallist* v) {
    if (v == nullptr) return nullptr;
    return val_new(v->value);
}

vallist* vallist_dup(const vallist* old) {
    vallist* head = nullptr;
    vallist** tail = &head;
    for (; old != nullptr; old = old->next) {
        *tail = val_dup(old);
        tail = &(*tail)->next;
    }
    return head;
}

void val_free(vallist* v) {
    free(v);
}

void vallist_free(vallist* vl) {
    while (vl != nullptr) {
        vallist* next = vl->next;
        free(vl);
        vl = next;
    }
}

int val_cmp(const void* a, const void* b) {
    return strcasecmp(static_cast<const vallist*>(a)->value, static_cast<const vallist*>(b)->value);
}

int val_cmp_exact(const void* a, const void* b) {
    return strcmp(static_cast<const vallist*>(a)->value, static_cast<const vallist*>(b)->value);
}

int vallist_cmp(const vallist* v1, const vallist* v2) {
    return list_cmp(reinterpret_cast<const kv_list_t*>(v1), reinterpret_cast<const kv_list_t*>(v2),
                    val_cmp);
}

int vallist_cmp_exact(const vallist* v1, const vallist* v2) {
    return list_cmp(reinterpret_cast<const kv_list_t*>(v1), reinterpret_cast<const kv_list_t*>(v2),
                    val_cmp_exact);
}

int vallist_addsort_exact(vallist** vlp, const char* str) {
    if (vlp == nullptr) return 0;
    vallist* v = val_new(str);
    kv_list_t* found = nullptr;
    list_addelem(reinterpret_cast<kv_list_t*>(v), reinterpret_cast<kv_list_t**>(vlp), &found,
                 val_cmp_exact);
    if (found != nullptr) {
        val_free(v);
        return 0;
    }
    return 1;
}
