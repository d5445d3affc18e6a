// Generic primitives over singly linked lists whose elements begin with
// `next` (kv_list_t): sorted insertion, merging, removal, comparison, sort.
// No locks: a list belongs to one thread at a time.
#pragma once

#include <stdio.h>

#include "liblocal/kv_types.h"

// Compares two elements (not pointers to them): below, at or above zero.
typedef int (*lcfunc_t)(const void* a, const void* b);
// qsort-style comparison for list_sort: receives pointers to element pointers.
typedef int (*lqsortfunc_t)(const void* pa, const void* pb);

// Sorted insertion of `elem`. *foundp is set to null, or to the existing
// element that compares equal, in which case nothing is inserted and the
// caller still owns `elem`. Returns 1 when inserted, 0 when found.
int list_addelem(kv_list_t* elem, kv_list_t** listp, kv_list_t** foundp, lcfunc_t cmp);

// Merges the sorted list *newp into the sorted *basep. On equal keys the new
// element takes the old one's place and the old one goes to *lostp (appended).
// *newp is left null.
void list_addlist(kv_list_t** newp, kv_list_t** basep, kv_list_t** lostp, lcfunc_t cmp);

// Moves every element of *listp equal to a key of the sorted `keys` to *lostp.
void list_removeelem(kv_list_t* keys, kv_list_t** listp, kv_list_t** lostp, lcfunc_t cmp);

// Moves every element of *listp equal to no key of `keys` to *lostp.
void list_intersect(kv_list_t* keys, kv_list_t** listp, kv_list_t** lostp, lcfunc_t cmp);

// Pairwise comparison; the first difference wins, else the longer list is
// greater; a null list is less than a non-null one.
int list_cmp(const kv_list_t* a, const kv_list_t* b, lcfunc_t cmp);

// 1 if every element of sorted `a` has an equal in sorted `b`.
int list_subset(const kv_list_t* a, const kv_list_t* b, lcfunc_t cmp);

// Sorts through an array of element pointers and qsort. `count` 0 means count.
void list_sort(kv_list_t** listp, int count, lqsortfunc_t cmp);

// Walks with a per-element function.
kv_list_t* list_dup(const kv_list_t* list, kv_list_t* (*dupfunc)(const kv_list_t*));
void list_free_1(kv_list_t* list, void (*freefunc)(kv_list_t*));
void list_append(kv_list_t** listp, kv_list_t* elem);   // appends a chain at the tail
void list_prepend(kv_list_t** listp, kv_list_t* elem);  // one element at the head
void list_print(FILE* fp, const kv_list_t* list, void (*printfunc)(FILE*, const kv_list_t*));
void list_print_attr(FILE* fp, const kv_list_t* list,
                     void (*printfunc)(FILE*, const kv_list_t*, int), int flags);
kv_list_t* list_lsearch(const kv_list_t* list, const void* key, lcfunc_t cmp);
int list_count(const kv_list_t* list);
