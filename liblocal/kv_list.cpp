// Generic sorted-list primitives.
#include "liblocal/kv_list.h"

#include <stdlib.h>
#include <string.h>

#include "liblocal/kv_mem.h"

namespace {
// Elements are attrlist, vallist and other records whose first member is a
// typed `next`; reading it through memcpy keeps the walks free of aliasing
// assumptions about those types.
inline kv_list_t* nx(const kv_list_t* e) {
    kv_list_t* n;
    memcpy(&n, e, sizeof n);
    return n;
}
inline void setnx(kv_list_t* e, kv_list_t* n) {
    const size_t link = sizeof n;  // the link's bytes, not the element's
    memcpy(e, &n, link);
}

// Appends one element to a chain given by head and tail pointers.
inline void push_tail(kv_list_t** headp, kv_list_t** tailp, kv_list_t* e) {
    setnx(e, nullptr);
    if (*tailp == nullptr) {
        kv_list_t* t = *headp;
        if (t != nullptr) {
            while (nx(t) != nullptr) t = nx(t);
            setnx(t, e);
        } else {
            *headp = e;
        }
    } else {
        setnx(*tailp, e);
    }
    *tailp = e;
}

// Moves elements of *listp to *lostp where keep() is false.
template <typename Keep>
void filter(kv_list_t** listp, kv_list_t** lostp, Keep keep) {
    kv_list_t* lost_tail = nullptr;
    kv_list_t* prev = nullptr;
    kv_list_t* e = *listp;
    while (e != nullptr) {
        kv_list_t* next = nx(e);
        if (keep(e)) {
            prev = e;
        } else {
            if (prev == nullptr)
                *listp = next;
            else
                setnx(prev, next);
            push_tail(lostp, &lost_tail, e);
        }
        e = next;
    }
}
}  // namespace

int list_addelem(kv_list_t* elem, kv_list_t** listp, kv_list_t** foundp, lcfunc_t cmp) {
    if (foundp != nullptr) *foundp = nullptr;
    if (elem == nullptr || listp == nullptr) return 0;
    kv_list_t* prev = nullptr;
    for (kv_list_t* cur = *listp; cur != nullptr; prev = cur, cur = nx(cur)) {
        int c = cmp(cur, elem);
        if (c == 0) {
            if (foundp != nullptr) *foundp = cur;
            return 0;
        }
        if (c > 0) {
            setnx(elem, cur);
            if (prev == nullptr)
                *listp = elem;
            else
                setnx(prev, elem);
            return 1;
        }
    }
    setnx(elem, nullptr);
    if (prev == nullptr)
        *listp = elem;
    else
        setnx(prev, elem);
    return 1;
}

void list_addlist(kv_list_t** newp, kv_list_t** basep, kv_list_t** lostp, lcfunc_t cmp) {
    if (newp == nullptr || basep == nullptr) return;
    kv_list_t* n = *newp;
    *newp = nullptr;
    kv_list_t* b = *basep;
    kv_list_t* head = nullptr;
    kv_list_t* tail = nullptr;
    kv_list_t* lost_tail = nullptr;
    kv_list_t* scratch = nullptr;
    if (lostp == nullptr) lostp = &scratch;
    while (n != nullptr && b != nullptr) {
        int c = cmp(b, n);
        if (c < 0) {
            kv_list_t* next = nx(b);
            push_tail(&head, &tail, b);
            b = next;
        } else if (c > 0) {
            kv_list_t* next = nx(n);
            push_tail(&head, &tail, n);
            n = next;
        } else {
            kv_list_t* nn = nx(n);
            kv_list_t* bn = nx(b);
            push_tail(&head, &tail, n);
            push_tail(lostp, &lost_tail, b);
            n = nn;
            b = bn;
        }
    }
    kv_list_t* rest = n != nullptr ? n : b;
    if (rest != nullptr) {
        if (tail == nullptr)
            head = rest;
        else
            setnx(tail, rest);
    }
    *basep = head;
}

void list_removeelem(kv_list_t* keys, kv_list_t** listp, kv_list_t** lostp, lcfunc_t cmp) {
    if (listp == nullptr || lostp == nullptr) return;
    filter(listp, lostp, [&](kv_list_t* e) {
        for (kv_list_t* k = keys; k != nullptr; k = nx(k)) {
            int c = cmp(k, e);
            if (c == 0) return false;
            if (c > 0) break;  // keys are sorted: no later key can match
        }
        return true;
    });
}

void list_intersect(kv_list_t* keys, kv_list_t** listp, kv_list_t** lostp, lcfunc_t cmp) {
    if (listp == nullptr || lostp == nullptr) return;
    filter(listp, lostp, [&](kv_list_t* e) {
        for (kv_list_t* k = keys; k != nullptr; k = nx(k)) {
            int c = cmp(k, e);
            if (c == 0) return true;
            if (c > 0) break;
        }
        return false;
    });
}

int list_cmp(const kv_list_t* a, const kv_list_t* b, lcfunc_t cmp) {
    while (a != nullptr && b != nullptr) {
        int c = cmp(a, b);
        if (c != 0) return c;
        a = nx(a);
        b = nx(b);
    }
    if (a == nullptr && b == nullptr) return 0;
    return a == nullptr ? -1 : 1;
}

int list_subset(const kv_list_t* a, const kv_list_t* b, lcfunc_t cmp) {
    while (a != nullptr) {
        while (b != nullptr && cmp(b, a) < 0) b = nx(b);
        if (b == nullptr || cmp(b, a) != 0) return 0;
        a = nx(a);
    }
    return 1;
}

void list_sort(kv_list_t** listp, int count, lqsortfunc_t cmp) {
    if (listp == nullptr || *listp == nullptr) return;
    if (count <= 0) count = list_count(*listp);
    kv_list_t** arr = static_cast<kv_list_t**>(xmalloc(sizeof(kv_list_t*) * (size_t)count));
    kv_list_t* e = *listp;
    int n = 0;
    while (e != nullptr && n < count) {
        arr[n++] = e;
        e = nx(e);
    }
    kv_list_t* rest = e;  // beyond `count`: kept behind the sorted part
    qsort(arr, (size_t)n, sizeof(kv_list_t*), cmp);
    for (int i = 0; i + 1 < n; i++) setnx(arr[i], arr[i + 1]);
    setnx(arr[n - 1], rest);
    *listp = arr[0];
    free(arr);
}

kv_list_t* list_dup(const kv_list_t* list, kv_list_t* (*dupfunc)(const kv_list_t*)) {
    kv_list_t* head = nullptr;
    kv_list_t* tail = nullptr;
    for (; list != nullptr; list = nx(list)) push_tail(&head, &tail, dupfunc(list));
    return head;
}

void list_free_1(kv_list_t* list, void (*freefunc)(kv_list_t*)) {
    while (list != nullptr) {
        kv_list_t* next = nx(list);
        if (freefunc != nullptr)
            freefunc(list);
        else
            free(list);
        list = next;
    }
}

void list_append(kv_list_t** listp, kv_list_t* elem) {
    if (listp == nullptr) return;
    if (*listp == nullptr) {
        *listp = elem;
        return;
    }
    kv_list_t* t = *listp;
    while (nx(t) != nullptr) t = nx(t);
    setnx(t, elem);
}

void list_prepend(kv_list_t** listp, kv_list_t* elem) {
    if (listp == nullptr || elem == nullptr) return;
    setnx(elem, *listp);
    *listp = elem;
}

void list_print(FILE* fp, const kv_list_t* list, void (*printfunc)(FILE*, const kv_list_t*)) {
    for (; list != nullptr; list = nx(list)) printfunc(fp, list);
}

void list_print_attr(FILE* fp, const kv_list_t* list,
                     void (*printfunc)(FILE*, const kv_list_t*, int), int flags) {
    for (; list != nullptr; list = nx(list)) printfunc(fp, list, flags);
}

kv_list_t* list_lsearch(const kv_list_t* list, const void* key, lcfunc_t cmp) {
    for (; list != nullptr; list = nx(list))
        if (cmp(list, key) == 0) return const_cast<kv_list_t*>(list);
    return nullptr;
}

int list_count(const kv_list_t* list) {
    int n = 0;
    for (; list != nullptr; list = nx(list)) n++;
    return n;
}
