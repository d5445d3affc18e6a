// Attribute lists and value lists: name-sorted lists of attributes with text
// values, names compared ignoring case through C_table. Records are laid out
// for the loader too: the text is stored inline, one allocation per node.
// Lists are not shared between threads without the caller's own lock.
#pragma once

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#include "liblocal/kv_list.h"
#include "liblocal/kv_trace.h"
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
int attr_cmpname(const void* a, const void* b);  // names in the C_table order
int attr_cmp(const void* a, const void* b);      // names, then vallist_cmp
int attr_namecmp(const char* a, const char* b);  // the C_table order on two texts; null is ""

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

// --- Attribute list operations ---------------------------------------------
// All keep the list sorted by name (C_table order) unless said otherwise.
// Names and values may be null unless said otherwise.

// Inserts in sorted order. A new attribute gets no value for a null or empty
// `val`; an existing one gets `val` appended, an empty one too.
void attrlist_add(attrlist** alp, const char* name, const char* val);
// As attrlist_add, but a new attribute always gets one value node.
void attrlist_addempty(attrlist** alp, const char* name, const char* val);
attrlist* attrlist_addlist(attrlist** alp, char* name, vallist* vals);
void attrlist_set(attrlist** alp, char* name, char* val);
int attrlist_replace(attrlist** alp, char* name, char* val);  // 1 when changed
void attrlist_default(attrlist** alp, char* name, char* val);
// name, value..., NULL, name, ..., NULL, NULL
attrlist* attrlist_build(char* args, ...);
// Merges a copy of *newp into *base; on equal names the base element stays.
void attrlist_merge(attrlist** newp, attrlist** base);
void attrlist_merge_or_add(attrlist* newl, attrlist** base);
void attrlist_append(attrlist* al, attrlist* base);
attrlist* attrlist_copy(attrlist* al, attrlist* base);
// REQUIRES: both sorted. Removed elements of *base end up in *newp.
void attrlist_remove(attrlist** newp, attrlist** base);
// REQUIRES: both sorted. Elements of *base not named in *newp are freed.
void attrlist_intersect(attrlist** newp, attrlist** base);
void attr_delete(attrlist** alp, char* name);
int attrlist_equal(attrlist* al1, attrlist* al2);
int attrlist_subset(attrlist* al1, attrlist* al2);
int attrlist_exact_name_match(attrlist* al1, attrlist* al2);
int attrlist_match(attrlist* query, attrlist* al);
int query_match(attrlist* query, attrlist* al);
int attrlist_hasattr(attrlist* al, const char* name, const char* value);
int attrlist_hasattr_eitherval(attrlist* al, char* name, char* value1, char* value2);
int attrlist_hasattr_valmatch(attrlist* al, char* name, vallist* vl);
int attr_hasval(attrlist* attr, const char* val);  // C_table folded, not strcasecmp
// Leaves the sorted order: name-merging calls no longer work on the result.
void attrlist_order(attrlist* order, attrlist** alp);
void attrlist_sort(attrlist** al);

// Refuses a list holding a name of more than 63 characters: message 84890,
// error 35021 (a ring record of the message layer; null when legal).
struct errinfo;
errinfo* attrlist_legal(attrlist* al);
// Adds name + "_I18N" with each value as a message buffer; returns the new
// name (owned by the list), or null when the attribute has no values.
char* attrlist_add_I18Nattr(attrlist** alp, char* name, int delete_oldattr);

// --- Text form ---------------------------------------------------------------
#define ATTR_FLAG_MASK 1          // every value shown as "*******"
#define ATTR_FLAG_STBUF_NEVER 2   // do not render message buffers
#define ATTR_FLAG_STBUF_ALWAYS 4  // render message buffers always
#define ATTR_FLAG_NOPAD 8         // no padding of the name

// Quoted text of one value, in a per-thread buffer the next call overwrites.
char* val_str(char* vp, int needquote);
char* val_str_nowrap(char* vp, int needquote);
// "name: v1, v2;\n" folded at linelen. With getsize, the bytes the text
// would take (terminator included); else the bytes written.
ssize_t attr_sprintf(char* buf, ssize_t buflen, ssize_t linelen, attrlist* attr, int needquote,
                     int getsize, int flags);
void attr_print(FILE* fp, attrlist* attr, int flags);
void attrlist_print(FILE* fp, attrlist* attrs);
size_t attrlist_build_str(attrlist* attrs, char* outbuff, size_t* buff_size);
void val_print(FILE* fp, vallist* vl);
void vallist_print(FILE* fp, vallist* vl);
int vallist_display(FILE* fp, vallist* vl);

// Reading the text form. gettoken_rap is a resumable lexer: it returns
// non-zero while the token is still open at the end of the chunk, and picks
// up where it stopped when called again with the same line and offset.
typedef enum {
    TOK_COMMA = 0,
    TOK_COLON = 1,
    TOK_SEMICOLON = 2,
    TOK_NEWLINE = 3,
    TOK_STRING = 4
} tok_kind;
struct token_rap {
    tok_kind kind;
    size_t valsz;  // bytes allocated for value (owned; free() it)
    char* value;   // NUL-terminated text of a TOK_STRING
};
typedef enum { PSTATE_START, PSTATE_ENDNAME, PSTATE_VALUE, PSTATE_ENDVALUE, PSTATE_DONE } pstate;
struct parse_state {
    attrlist* attr;
    vallist* vtail;
    pstate state;
    int intok;
    int line;
    int lineoff;
    int inquote;
    int inbackslash;
    int invalue;
    int incomment;
    int ineateol;
    char* vp;
    // Where the last quoted stretch of the value ends, as an offset: the
    // value's buffer moves when it grows. 0 when there is none.
    size_t quote_end;
    size_t valchars;
};
int gettoken_rap(char** bufp, ssize_t* charsp, int* linep, int* lineoffp, token_rap* tok,
                 parse_state* psp);
// The attributes of a text in the form attr_sprintf writes; a new list.
attrlist* attrlist_parse_text(const char* text);

// Seams to the message layer used by the text form (attrlist_msg.cpp).
const char* attr_render_value_stbuf(const char* stbuf);  // per-thread result
void attr_write_text(FILE* fp, const char* text, size_t len);

// --- Value list operations --------------------------------------------------
int i18n_val_cmp(const void* a, const void* b);  // strcoll in the locale's form
vallist* val_new_nosp(char* str);
void val_update(vallist** vlp, char* value);
void vallist_add(vallist** vlp, const char* str);
vallist* vallist_add_tail(vallist** vlp, const char* str);
void vallist_add2(vallist** vlhp, vallist** vltp, const char* str);
void vallist_append(vallist** vl_hp, vallist** vl_tp, char* value);
void vallist_insert(vallist** vlp, const char* str);
void vallist_pos_insert(vallist** values, char* value, int n);
int vallist_addsort(vallist** vlp, const char* str);
int i18n_vallist_addsort(vallist** vlp, const char* str);
vallist* vallist_find(vallist* vl, const char* val);        // strcasecmp
vallist* vallist_find_exact(vallist* vl, const char* val);  // strcmp
vallist* vallist_search_substr(vallist* vl, const char* val);
int vallist_find_pos(vallist* vl, char* value);
char* vallist_pos_value(vallist* vl, int pos);
int vallist_count(vallist* vl);
int vallist_count_val(vallist* vl, char* value);
int vallist_delete(vallist** vlp, const char* value);  // strcmp, unlike vallist_find
void vallist_remove(vallist** vlp, const char* value);
int vallist_strstart_delete(vallist** vlp, const char* value);
void vallist_pos_remove(vallist** values, char* value, int n);
int vallist_sort(vallist** vlp, lcfunc_t cmpfunc, int rm_dups);
void vallist_merge(vallist* vl, vallist** base);
void vallist_intersect(vallist* vl, vallist** base);
vallist* vallist_find_unique(vallist* vals1, vallist* vals2);
int vallist_diff_apply(vallist* old, vallist* newl, vallist** change, int choice);
int vallist_match(vallist* qv, vallist* av);
int vallist_patmatch(vallist* qv, vallist* av);
vallist* vallist_build(char* args, ...);                       // values up to NULL
char* vallist_to_csv(vallist* vlp, size_t string_size_limit);  // new memory
vallist* vallist_new_from_csv(char* str);

// Trace of the list family: a line of the foundation's trace (kv_trace.h)
// at level 9 or mask 0x100. The hook is the foundation trace's hook.
typedef kv_trace_hook_fn attr_trace_fn;
attr_trace_fn attrlist_set_trace_hook(attr_trace_fn fn);
void vallist_trace(const char* text);
