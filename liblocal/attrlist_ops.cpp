// Attribute list operations: sorted insertion, setting, merging, removal,
// comparison, matching and reordering.
#include <stdarg.h>
#include <string.h>

#include "liblocal/attrlist.h"
#include "liblocal/kv_mem.h"

namespace {
inline kv_list_t* L(attrlist* a) {
    return reinterpret_cast<kv_list_t*>(a);
}
inline kv_list_t** LP(attrlist** a) {
    return reinterpret_cast<kv_list_t**>(a);
}
inline attrlist* A(kv_list_t* l) {
    return reinterpret_cast<attrlist*>(l);
}

// The link at which `name` stands or would be inserted; *found tells which.
attrlist** locate(attrlist** alp, const char* name, bool* found) {
    *found = false;
    while (*alp != nullptr) {
        int c = attr_namecmp((*alp)->name, name);
        if (c == 0) {
            *found = true;
            break;
        }
        if (c > 0) break;
        alp = &(*alp)->next;
    }
    return alp;
}

attrlist* insert_at(attrlist** link, attrlist* elem) {
    elem->next = *link;
    *link = elem;
    return elem;
}

void values_append(vallist** vlp, vallist* chain) {
    while (*vlp != nullptr) vlp = &(*vlp)->next;
    *vlp = chain;
}
}  // namespace

void attrlist_add(attrlist** alp, const char* name, const char* val) {
    if (alp == nullptr) return;
    if (name == nullptr) name = "";
    bool found;
    attrlist** link = locate(alp, name, &found);
    if (!found) {
        // A new attribute gets no value for an empty text...
        insert_at(link, attr_new(name, val));
    } else if (val != nullptr) {
        // ...but an existing one does get an empty value: callers build
        // lists that way on purpose.
        values_append(&(*link)->values, val_new(val));
    }
}

void attrlist_addempty(attrlist** alp, const char* name, const char* val) {
    if (alp == nullptr) return;
    if (name == nullptr) name = "";
    bool found;
    attrlist** link = locate(alp, name, &found);
    if (!found) {
        attrlist* a = insert_at(link, attr_new(name, nullptr));
        a->values = val_new(val);
    } else if (val != nullptr) {
        values_append(&(*link)->values, val_new(val));
    }
}

attrlist* attrlist_addlist(attrlist** alp, char* name, vallist* vals) {
    if (alp == nullptr) return nullptr;
    if (name == nullptr) name = const_cast<char*>("");
    bool found;
    attrlist** link = locate(alp, name, &found);
    if (!found) {
        attrlist* a = insert_at(link, attr_new(name, nullptr));
        a->values = vallist_dup(vals);
        return a;
    }
    values_append(&(*link)->values, vallist_dup(vals));
    return *link;
}

void attrlist_set(attrlist** alp, char* name, char* val) {
    if (alp == nullptr) return;
    if (name == nullptr) name = const_cast<char*>("");
    bool found;
    attrlist** link = locate(alp, name, &found);
    if (!found) {
        insert_at(link, attr_new(name, val));
        return;
    }
    vallist_free((*link)->values);
    (*link)->values = (val != nullptr && *val != '\0') ? val_new(val) : nullptr;
}

int attrlist_replace(attrlist** alp, char* name, char* val) {
    if (alp == nullptr) return 0;
    attrlist* a = attrlist_find(*alp, name != nullptr ? name : "");
    if (a != nullptr) {
        if (a->values == nullptr && val == nullptr) return 0;
        if (a->values != nullptr && a->values->next == nullptr && val != nullptr &&
            strcmp(a->values->value, val) == 0)
            return 0;
    }
    attrlist_set(alp, name, val);
    return 1;
}

void attrlist_default(attrlist** alp, char* name, char* val) {
    if (alp == nullptr) return;
    attrlist* a = attrlist_find(*alp, name != nullptr ? name : "");
    if (a == nullptr || a->values == nullptr) attrlist_add(alp, name, val);
}

attrlist* attrlist_build(char* args, ...) {
    attrlist* al = nullptr;
    va_list ap;
    va_start(ap, args);
    char* name = args;
    while (name != nullptr) {
        char* v = va_arg(ap, char*);
        if (v == nullptr) {
            attrlist_add(&al, name, nullptr);
        } else {
            for (; v != nullptr; v = va_arg(ap, char*)) attrlist_add(&al, name, v);
        }
        name = va_arg(ap, char*);
    }
    va_end(ap);
    return al;
}

void attrlist_merge(attrlist** newp, attrlist** base) {
    if (newp == nullptr || base == nullptr) return;
    // The base's elements are merged into a copy of `new`, so on equal names
    // the base element stays and the copy is the one that is lost.
    attrlist* merged = attrlist_dup(*newp);
    kv_list_t* lost = nullptr;
    list_addlist(LP(base), LP(&merged), &lost, attr_cmpname);
    *base = merged;
    attrlist_free(A(lost));
}

void attrlist_merge_or_add(attrlist* newl, attrlist** base) {
    if (base == nullptr) return;
    for (; newl != nullptr; newl = newl->next) {
        attrlist* b = attrlist_find(*base, newl->name);
        if (b != nullptr)
            vallist_merge(newl->values, &b->values);
        else
            attrlist_addlist(base, newl->name, newl->values);
    }
}

void attrlist_append(attrlist* al, attrlist* base) {
    for (; al != nullptr; al = al->next) {
        if (al->values == nullptr) continue;
        attrlist* b = attrlist_find(base, al->name);
        if (b != nullptr) values_append(&b->values, vallist_dup(al->values));
    }
}

attrlist* attrlist_copy(attrlist* al, attrlist* base) {
    attrlist* out = nullptr;
    attrlist** tail = &out;
    for (; base != nullptr; base = base->next) {
        if (attrlist_find(al, base->name) == nullptr) continue;
        *tail = attr_dup(base);
        tail = &(*tail)->next;
    }
    return out;
}

void attrlist_remove(attrlist** newp, attrlist** base) {
    if (newp == nullptr || base == nullptr) return;
    kv_list_t* lost = nullptr;
    list_removeelem(L(*newp), LP(base), &lost, attr_cmpname);
    attrlist_free(*newp);
    *newp = A(lost);
}

void attrlist_intersect(attrlist** newp, attrlist** base) {
    if (newp == nullptr || base == nullptr) return;
    kv_list_t* lost = nullptr;
    list_intersect(L(*newp), LP(base), &lost, attr_cmpname);
    attrlist_free(A(lost));
}

void attr_delete(attrlist** alp, char* name) {
    if (alp == nullptr) return;
    attrlist* one = attr_new(name, nullptr);
    attrlist_remove(&one, alp);
    attrlist_free(one);
}

int attrlist_equal(attrlist* al1, attrlist* al2) {
    return list_cmp(L(al1), L(al2), attr_cmp) == 0;
}

int attrlist_subset(attrlist* al1, attrlist* al2) {
    return list_subset(L(al1), L(al2), attr_cmp);
}

int attrlist_exact_name_match(attrlist* al1, attrlist* al2) {
    // Folded, in spite of the name: callers rely on case being ignored.
    for (; al1 != nullptr && al2 != nullptr; al1 = al1->next, al2 = al2->next)
        if (attr_namecmp(al1->name, al2->name) != 0) return 0;
    return al1 == nullptr && al2 == nullptr;
}

static int match_walk(attrlist* query, attrlist* al, bool strict) {
    if (query == nullptr || al == nullptr) return query == nullptr;
    for (; query != nullptr; query = query->next) {
        int c = 1;
        while (al != nullptr && (c = attr_namecmp(al->name, query->name)) < 0) al = al->next;
        if (al == nullptr || c != 0) return 0;
        if (strict && query->values != nullptr && al->values == nullptr) return 0;
        if (!vallist_match(query->values, al->values)) return 0;
    }
    return 1;
}

int attrlist_match(attrlist* query, attrlist* al) {
    return match_walk(query, al, false);
}

int query_match(attrlist* query, attrlist* al) {
    return match_walk(query, al, true);
}

int attr_hasval(attrlist* attr, const char* val) {
    if (attr == nullptr || val == nullptr) return 0;
    for (vallist* v = attr->values; v != nullptr; v = v->next)
        if (attr_namecmp(v->value, val) == 0) return 1;
    return 0;
}

int attrlist_hasattr(attrlist* al, const char* name, const char* value) {
    return attr_hasval(attrlist_find(al, name), value);
}

int attrlist_hasattr_eitherval(attrlist* al, char* name, char* value1, char* value2) {
    attrlist* a = attrlist_find(al, name);
    return attr_hasval(a, value1) || attr_hasval(a, value2);
}

int attrlist_hasattr_valmatch(attrlist* al, char* name, vallist* vl) {
    attrlist* a = attrlist_find(al, name);
    if (a == nullptr) return 0;
    for (; vl != nullptr; vl = vl->next)
        if (attr_hasval(a, vl->value)) return 1;
    return 0;
}

void attrlist_order(attrlist* order, attrlist** alp) {
    if (alp == nullptr) return;
    attrlist* rest = *alp;
    attrlist* head = nullptr;
    attrlist** tail = &head;
    for (; order != nullptr; order = order->next) {
        attrlist** link = &rest;
        while (*link != nullptr) {
            attrlist* e = *link;
            if (attr_namecmp(e->name, order->name) == 0) {
                *link = e->next;
                e->next = nullptr;
                *tail = e;
                tail = &e->next;
            } else {
                link = &e->next;
            }
        }
    }
    *tail = rest;
    *alp = head;
}

void attrlist_sort(attrlist** al) {
    if (al == nullptr) return;
    // The order list is a case-insensitive value sort (strcasecmp), which
    // places '_' before the letters, unlike the C_table order.
    vallist* names = nullptr;
    for (attrlist* a = *al; a != nullptr; a = a->next) vallist_addsort(&names, a->name);
    attrlist* order = nullptr;
    attrlist** tail = &order;
    for (vallist* v = names; v != nullptr; v = v->next) {
        *tail = attr_new(v->value, nullptr);
        tail = &(*tail)->next;
    }
    vallist_free(names);
    attrlist_order(order, al);
    attrlist_free(order);
}
