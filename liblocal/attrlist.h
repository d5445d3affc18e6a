// Attribute lists and value lists: name-sorted lists of attributes with text
// values, names compared ignoring case through C_table. Records are laid out
// for the loader too: the text is stored inline, one allocation per node.
// Lists are not shared between threads without the caller's own lock.
#pragma once

#include <stddef.h>

#include "liblocal/kv_list.h"
#include "liblocal/kv_types.h"

// One value; a node of a singly linked list. `value` is allocated to the
// exact length of the text, so never copy a node by value.
struct vallist {
    vallist* next;
    char value[1];
};

// One attribute. `name` is declared with 65 elements, the legal maximum, but
// allocated to fit the name: never copy by value or assign by a fixed size.
struct attrlist {
    attrlist* next;
    vallist* values;
    char name[65];
};

// The case-folding table of attribute names: identity but a-z -> A-Z.
extern const unsigned char C_table[256];

// --- Attribute calls -------------------------------------------------------
attrlist* attr_new(const char* name, const char* val);
attrlist* attr_dup(attrlist* al);
attrlist* attrlist_dup(attrlist* al);
attrlist* attrlist_find(attrlist* al, const char* name);
attrlist* attrlist_case_find(attrlist* al, const char* name, int mode);
char* attrlist_getvalue(attrlist* al, char* attrname);
attrlist* attrlist_setlist(attrlist** alp, const char* name, const vallist* vals);
void attrlist_free(attrlist* al);
void attr_elem_free(attrlist* al);
// Comparisons take two elements (attrlist*, vallist*) so that they serve
// the generic list primitives directly (lcfunc_t).
int attr_cmpname(const void* a, const void* b);   // names in the C_table order
int attr_cmp(const void* a, const void* b);       // names, then vallist_cmp
int attr_namecmp(const char* a, const char* b);   // the C_table order on two texts; null is ""

// --- Value calls -----------------------------------------------------------
vallist* val_new(const char* str);
vallist* val_dup(const vallist* v);
vallist* vallist_dup(const vallist* old);
void vallist_free(vallist* vl);
void val_free(vallist* v);
int vallist_addsort_exact(vallist** vlp, const char* str);
int val_cmp(const void* a, const void* b);        // strcasecmp of two vallist nodes
int val_cmp_exact(const void* a, const void* b);  // strcmp of two vallist nodes
int vallist_cmp(const vallist* v1, const vallist* v2);
int vallist_cmp_exact(const vallist* v1, const vallist* v2);

// Yes/no reading of an attribute's first value (resource client's rule).
int attr_to_bool(attrlist* attr, int def);
